// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sim/bluez/Core.h"
#include "sim/bluez/Device.h"

namespace vexasim
{

/// The GATT objects of connected devices and their methods. Used on the scheduler's thread.
class GattObjects
{
public:
    explicit GattObjects(Core& core);

    /// Adds the objects to the bus, unless they are there from an earlier link, and re-enables the
    /// notifications that clients still want.
    void publish(const DevicePtr& device);
    /// Forgets the objects; the caller removes them from the bus with the device.
    void withdraw(const DevicePtr& device);
    void linkLost(const DevicePtr& device);
    void notified(const DevicePtr& device, std::uint16_t handle, const Bytes& value);
    /// A client left the bus: its notification sessions end.
    void clientGone(const DevicePtr& device, const std::string& sender);

    static std::string pathOf(const std::string& devicePath, const Peripheral& peripheral,
                              const std::string& uuid);

private:
    struct Attribute {
        std::weak_ptr<Device> device;
        std::uint16_t handle = 0; ///< where reads and writes go
        bool descriptor = false;
        std::string uuid;
        std::vector<std::string> flags;

        bool has(const std::string& flag) const;
        const char* interface() const;
    };
    using Objects = std::vector<std::pair<std::string, InterfaceMap>>;
    using Operation = void (GattObjects::*)(const DevicePtr&, const Attribute&, const RequestPtr&);

    void onMethod(const char* interface, const std::string& member, Operation operation);
    void read(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request);
    void write(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request);
    void startNotify(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request);
    void stopNotify(const DevicePtr& device, const Attribute& attribute, const RequestPtr& request);

    void collect(const DevicePtr& device, const GattService& service, Objects& objects);
    void finishRead(const DevicePtr& device, const std::string& path, std::uint16_t handle,
                    const AttReply& reply);
    void finishWrite(const DevicePtr& device, std::uint16_t handle, const AttReply& reply);
    void endSession(const DevicePtr& device, std::uint16_t handle);
    void setNotifying(const DevicePtr& device, std::uint16_t handle, bool notifying);
    std::string pathOfValue(const DevicePtr& device, std::uint16_t handle) const;

    Core& mCore;
    std::map<std::string, Attribute> mAttributes; ///< by path
};

} // namespace vexasim
