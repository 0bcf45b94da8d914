// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/bluez/Bend.h"
#include "sim/bluez/PrivateBus.h"
#include "sim/bluez/SimulatorOptions.h"
#include "sim/bluez/Variant.h"
#include "sim/model/Remote.h"

namespace vexasim
{

class Core;

/// The simulated BlueZ: owns org.bluez on a bus and behaves like bluetoothd 5.66, except where a bend changes
/// it. It has its own thread and GMainContext, so it doesn't disturb a client on the default context of the
/// same process.
///
/// Every method may be called on any thread but the simulator's own, and returns when its work is done and
/// the signals are on the bus (the receivers may not have read them yet).
class Simulator
{
public:
    /// Returns when org.bluez has an owner. Throws std::runtime_error.
    explicit Simulator(const SimulatorOptions& options = {});
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    std::string busAddress() const;
    /// The bus that it started; null if the options gave an address.
    PrivateBus* bus();

    // --- the remote and other devices ---
    /// The first remote; only with SimulatorOptions::withRemote or after addRemote.
    Remote& remote();
    void addRemote(const std::shared_ptr<Remote>& remote);
    void addPeripheral(const std::shared_ptr<Peripheral>& peripheral);
    /// Takes it off the air and its objects off the bus.
    void removePeripheral(const std::shared_ptr<Peripheral>& peripheral);
    /// Adds its device to the bus now, even if no client scans. Returns the path.
    std::string announce(const std::shared_ptr<Peripheral>& peripheral, const std::string& adapter = "hci0");

    // --- object paths ---
    std::string adapterPath(const std::string& adapter = "hci0") const;
    std::string devicePath(const Peripheral& peripheral, const std::string& adapter = "hci0") const;
    /// Path of the first service, characteristic or descriptor with that UUID below the device, even if it
    /// isn't on the bus now; "" if there is none.
    std::string pathOf(const Peripheral& peripheral, const std::string& uuid,
                       const std::string& adapter = "hci0") const;
    std::string remotePath() const;       ///< device of the first remote in normal mode
    std::string updateDevicePath() const; ///< device of the first remote in update mode

    // --- adapters ---
    std::string addAdapter(const AdapterOptions& adapter);
    /// Unplugs it: its devices are removed first, children before parents.
    void removeAdapter(const std::string& adapter = "hci0");
    /// Switches the power as rfkill or the kernel does: without power, discovery and links end.
    void setPowered(bool powered, const std::string& adapter = "hci0");
    bool discovering(const std::string& adapter = "hci0") const;

    // --- bluetoothd as a process ---
    using Stop = ServiceStop;
    /// Leaves the bus and ends all links. Does nothing if the service isn't running.
    void stopService(Stop how);
    /// Returns under another unique name, with adapters and paired devices.
    void startService();
    /// Releases the name org.bluez but, unlike bluetoothd, stays on the bus and goes on serving.
    void releaseName();
    void takeName();

    // --- changing objects ---
    void addObject(const std::string& path, const InterfaceMap& interfaces)
    {
        addObjects({{path, interfaces}});
    }
    /// Adds several objects at once, in this order, for instance a child before its parent.
    void addObjects(const std::vector<std::pair<std::string, InterfaceMap>>& objects);
    /// Removes it with everything below it, children first; without InterfacesRemoved if `announce` is false.
    void removeObject(const std::string& path, bool announce = true);
    /// Removes one interface, and the object with its last one; children stay.
    void removeInterface(const std::string& path, const std::string& interface, bool announce = true);
    enum class Emit { Yes, No };
    /// Sets any property of any object to any value, even of a wrong type.
    void setProperty(const std::string& path, const std::string& interface, const std::string& property,
                     const Variant& value, Emit emit = Emit::Yes);
    /// Removes a property from the object, for instance Name, as before it is known.
    void dropProperty(const std::string& path, const std::string& interface, const std::string& property,
                      Emit emit = Emit::No);
    /// Empty if there is none.
    Variant property(const std::string& path, const std::string& interface,
                     const std::string& property) const;
    /// All object paths on the bus, in the order in which they were added.
    std::vector<std::string> objects() const;
    /// Emits PropertiesChanged as given, whatever the properties are; may be empty.
    void emitPropertiesChanged(const std::string& path, const std::string& interface,
                               const PropertyMap& changed, const std::vector<std::string>& invalidated = {});
    /// Emits any signal with any parameters (a tuple).
    void emitSignal(const std::string& path, const std::string& interface, const std::string& member,
                    const Variant& parameters);
    /// Adds and removes GATT objects in the opposite order: descriptor, characteristic, service when adding.
    void setChildrenFirst(bool childrenFirst);

    // --- bending methods ---
    BendId bend(const Bend& bend);
    void unbend(BendId id);
    void clearBends();

    // --- recorded calls ---
    std::vector<Call> calls() const;
    std::vector<Call> calls(const std::string& member, const std::string& path = "") const;
    void clearCalls();
    /// Waits until at least `count` recorded calls match; false if the limit passes first. Earlier calls are
    /// counted too.
    bool awaitCall(const CallPredicate& predicate, unsigned count = 1,
                   std::chrono::milliseconds limit = std::chrono::seconds{10}) const;
    /// Matches by member and path; "" matches any path.
    bool awaitCall(const std::string& member, const std::string& path = "", unsigned count = 1,
                   std::chrono::milliseconds limit = std::chrono::seconds{10}) const;
    /// Waits until a property on the bus has a value, for steps that take time in the simulator (for instance
    /// a connection by the daemon).
    bool awaitProperty(const std::string& path, const std::string& interface, const std::string& name,
                       const Variant& value,
                       std::chrono::milliseconds limit = std::chrono::seconds{10}) const;

    /// Returns when the bus has routed everything that earlier calls caused, including those of Remote and
    /// Peripheral.
    void sync() const;

    Timings timings() const;
    void setTimings(const Timings& timings);
    /// Sets whether Pair needs an agent from now on.
    void setRequireAgent(bool required);

private:
    template <typename Function>
    auto run(Function function) const;
    template <typename Function>
    void change(Function function);

    std::unique_ptr<PrivateBus> mBus;
    std::string mAddress;
    std::unique_ptr<Core> mCore;
};

} // namespace vexasim
