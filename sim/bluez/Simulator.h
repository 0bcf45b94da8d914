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

/// The simulated BlueZ: owns org.bluez on a bus and behaves as bluetoothd 5.66 does, until it is bent. It has
/// a thread with a GMainContext of its own, so a client on the default context of the same process isn't
/// disturbed.
///
/// Every method may be called on any thread but the simulator's own, and returns when what it asks for is
/// done and its signals are on the bus (the receiver may still have to read them).
class Simulator
{
public:
    /// Returns when org.bluez has an owner. Throws std::runtime_error.
    explicit Simulator(const SimulatorOptions& options = {});
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    std::string busAddress() const;
    /// The bus that it started; null if it was given an address.
    PrivateBus* bus();

    // --- the remote and other things on the air ---
    /// The first remote; only with SimulatorOptions::withRemote or after addRemote.
    Remote& remote();
    void addRemote(const std::shared_ptr<Remote>& remote);
    void addPeripheral(const std::shared_ptr<Peripheral>& peripheral);
    /// Takes it off the air and its objects off the bus.
    void removePeripheral(const std::shared_ptr<Peripheral>& peripheral);
    /// Puts its device on the bus now, whether anyone scans or not. Returns the path.
    std::string announce(const std::shared_ptr<Peripheral>& peripheral, const std::string& adapter = "hci0");

    // --- where things are on the bus ---
    std::string adapterPath(const std::string& adapter = "hci0") const;
    std::string devicePath(const Peripheral& peripheral, const std::string& adapter = "hci0") const;
    /// Path of the first service, characteristic or descriptor of that UUID below the device, whether it is
    /// on the bus now or not; "" if there is none.
    std::string pathOf(const Peripheral& peripheral, const std::string& uuid,
                       const std::string& adapter = "hci0") const;
    std::string remotePath() const;       ///< device of the first remote in normal mode
    std::string updateDevicePath() const; ///< device of the first remote in update mode

    // --- adapters ---
    std::string addAdapter(const AdapterOptions& adapter);
    /// Unplugged: its devices go first, children before parents.
    void removeAdapter(const std::string& adapter = "hci0");
    /// As rfkill or the kernel does it: discovery and links end.
    void setPowered(bool powered, const std::string& adapter = "hci0");
    bool discovering(const std::string& adapter = "hci0") const;

    // --- bluetoothd as a process ---
    using Stop = ServiceStop;
    /// Leaves the bus; a link ends. Nothing happens if it isn't there.
    void stopService(Stop how);
    /// Comes back under another unique name, with adapters and paired devices.
    void startService();
    /// Gives up the name org.bluez but stays on the bus and goes on serving, to oddness.
    void releaseName();
    void takeName();

    // --- bending objects ---
    void addObject(const std::string& path, const InterfaceMap& interfaces)
    {
        addObjects({{path, interfaces}});
    }
    /// Several objects in one go, in this order: for arrivals of a child before its parent.
    void addObjects(const std::vector<std::pair<std::string, InterfaceMap>>& objects);
    /// With everything below it, children first. `announce` false: no InterfacesRemoved.
    void removeObject(const std::string& path, bool announce = true);
    /// This object or interface alone; children stay.
    void removeInterface(const std::string& path, const std::string& interface, bool announce = true);
    enum class Emit { Yes, No };
    /// Any property of any object to any value, also of a wrong type.
    void setProperty(const std::string& path, const std::string& interface, const std::string& property,
                     const Variant& value, Emit emit = Emit::Yes);
    /// The object ceases to have the property, as before a name is known.
    void dropProperty(const std::string& path, const std::string& interface, const std::string& property,
                      Emit emit = Emit::No);
    /// Empty if there is none.
    Variant property(const std::string& path, const std::string& interface,
                     const std::string& property) const;
    /// All object paths on the bus, in the order of their arrival.
    std::vector<std::string> objects() const;
    /// PropertiesChanged as given, whatever the properties are; may be empty.
    void emitPropertiesChanged(const std::string& path, const std::string& interface,
                               const PropertyMap& changed, const std::vector<std::string>& invalidated = {});
    /// Any signal with any parameters (a tuple).
    void emitSignal(const std::string& path, const std::string& interface, const std::string& member,
                    const Variant& parameters);
    /// Announces and withdraws GATT objects in the opposite order: descriptor, characteristic, service on
    /// arrival.
    void setChildrenFirst(bool childrenFirst);

    // --- bending methods ---
    BendId bend(const Bend& bend);
    void unbend(BendId id);
    void clearBends();

    // --- the record ---
    std::vector<Call> calls() const;
    std::vector<Call> calls(const std::string& member, const std::string& path = "") const;
    void clearCalls();
    /// Waits until at least `count` recorded calls match; false if the limit passed first. Calls that came
    /// before count too.
    bool awaitCall(const CallPredicate& predicate, unsigned count = 1,
                   std::chrono::milliseconds limit = std::chrono::seconds{10}) const;
    /// By member; "" for path is any.
    bool awaitCall(const std::string& member, const std::string& path = "", unsigned count = 1,
                   std::chrono::milliseconds limit = std::chrono::seconds{10}) const;
    /// Waits until a property on the bus has a value, for steps that take time in the simulator (for instance
    /// a connection made by the daemon).
    bool awaitProperty(const std::string& path, const std::string& interface, const std::string& name,
                       const Variant& value,
                       std::chrono::milliseconds limit = std::chrono::seconds{10}) const;

    /// Returns when everything asked for before, also through Remote and Peripheral, has been handed to the
    /// bus and routed by it.
    void sync() const;

    Timings timings() const;
    void setTimings(const Timings& timings);
    /// From now on Pair needs an agent (or doesn't).
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
