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

/// The Device1 objects: how they come, change with what is heard on the air, and go. Used on the scheduler's
/// thread.
class Devices
{
public:
    explicit Devices(Core& core);
    ~Devices();

    static std::string pathFor(const std::string& adapterPath, const std::string& address);

    /// An advertisement was heard (or claimed): makes the object or renews it.
    DevicePtr seen(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral);
    /// A bond from earlier: the object is there before anything is heard.
    void restore(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral);
    /// Takes the object off the bus, children first, and forgets the bond.
    void remove(const DevicePtr& device);
    /// Handles Adapter1.RemoveDevice, also of raw objects.
    void removeByMethod(const RequestPtr& request);
    /// The RSSI is invalid once nobody scans.
    void discoveryEnded(const std::string& adapterPath);
    /// Links of this adapter end.
    void powerOff(const std::string& adapterPath);
    /// Forgets the devices of an adapter; their objects are taken off by the caller. By signals; those
    /// without a link.
    void forgetUnpaired(const std::string& adapterPath);
    void forgetAll(const std::string& adapterPath);
    void clientGone(const std::string& sender);

    void onLinkLost(const Peripheral& peripheral);
    void onAdvertising(const Peripheral& peripheral);
    void onNotification(const Peripheral& peripheral, std::uint16_t handle, const Bytes& value);

    DevicePtr find(const std::string& path) const;
    /// The devices of a peripheral, one on each adapter at most.
    std::vector<DevicePtr> of(const Peripheral& peripheral) const;
    /// Path of an attribute's object, "" if there is none of that UUID.
    static std::string attributePath(const std::string& devicePath, const Peripheral& peripheral,
                                     const std::string& uuid);
    /// Called after a device was taken away, since it may be heard again.
    void setOnRemoved(std::function<void(const DevicePtr&)> onRemoved) { mOnRemoved = std::move(onRemoved); }
    /// An unpaired device goes when it wasn't seen for a while.
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
    std::map<std::string, std::string> mNames; ///< once seen, by address; outlives the object
    std::function<void(const DevicePtr&)> mOnRemoved;
};

} // namespace vexasim
