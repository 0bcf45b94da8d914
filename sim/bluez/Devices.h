// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/bluez/Core.h"
#include "sim/bluez/Device.h"

namespace vexasim
{

class BatteryProfile;
class GattObjects;
class Links;

/// The Device1 objects: adds them, updates them by advertisements, and removes them. Used on the scheduler's
/// thread.
class Devices
{
public:
    explicit Devices(Core& core);
    ~Devices();

    static std::string pathFor(const std::string& adapterPath, const std::string& address);

    /// An advertisement was received (or is assumed): adds or updates the object.
    DevicePtr seen(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral);
    /// An earlier bond: adds the object before any advertisement is received.
    void restore(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral);
    /// Removes the object from the bus, children first, and the bond.
    void remove(const DevicePtr& device);
    /// Handles Adapter1.RemoveDevice, also for objects added by a test.
    void removeByMethod(const RequestPtr& request);
    /// Invalidates RSSI, as nobody scans any more.
    void discoveryEnded(const std::string& adapterPath);
    /// Ends the links of this adapter.
    void powerOff(const std::string& adapterPath);
    /// Removes the adapter's unpaired devices that have no link, with signals.
    void forgetUnpaired(const std::string& adapterPath);
    /// Forgets all devices of an adapter; the caller removes their objects.
    void forgetAll(const std::string& adapterPath);
    void clientGone(const std::string& sender);

    void onLinkLost(const Peripheral& peripheral);
    void onAdvertising(const Peripheral& peripheral);
    void onNotification(const Peripheral& peripheral, std::uint16_t handle, const Bytes& value);

    DevicePtr find(const std::string& path) const;
    /// The devices of a peripheral, at most one per adapter.
    std::vector<DevicePtr> of(const Peripheral& peripheral) const;
    /// Path of an attribute's object, "" if none has that UUID.
    static std::string attributePath(const std::string& devicePath, const Peripheral& peripheral,
                                     const std::string& uuid);
    /// Called after a device was removed, since it may still advertise.
    void setOnRemoved(std::function<void(const DevicePtr&)> onRemoved) { mOnRemoved = std::move(onRemoved); }
    /// Removes an unpaired device once it hasn't been seen for a while.
    void keepForAWhile(const DevicePtr& device);
    void keep(const DevicePtr& device);
    void learnName(const DevicePtr& device, const std::optional<std::string>& name);

private:
    template <typename Predicate>
    std::vector<DevicePtr> select(Predicate predicate) const;
    std::vector<DevicePtr> on(const std::string& adapterPath) const;
    void forget(const DevicePtr& device);
    void publish(const DevicePtr& device, bool heard);
    void renew(const DevicePtr& device);
    DevicePtr make(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral);

    Core& mCore;
    std::unique_ptr<GattObjects> mGatt;
    std::unique_ptr<BatteryProfile> mBattery;
    std::unique_ptr<Links> mLinks;
    std::map<std::string, DevicePtr> mDevices; ///< by path
    std::map<std::string, std::string> mNames; ///< every name received, by address; outlives the object
    std::function<void(const DevicePtr&)> mOnRemoved;
};

} // namespace vexasim
