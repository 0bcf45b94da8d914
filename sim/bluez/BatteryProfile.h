// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

#include "sim/bluez/Core.h"
#include "sim/bluez/Device.h"

namespace vexasim
{

/// bluetoothd's own use of the battery service: shows the level as org.bluez.Battery1 on the device's object
/// for as long as the link lasts. Used on the scheduler's thread.
class BatteryProfile
{
public:
    explicit BatteryProfile(Core& core) : mCore(core) {}

    /// The services are resolved: reads the level and enables its notifications.
    void begin(const DevicePtr& device);
    /// A notification arrived; ignored if it is of another characteristic.
    void notified(const DevicePtr& device, std::uint16_t handle, const Bytes& value);
    /// The link is gone.
    void end(const DevicePtr& device);

private:
    void tell(const DevicePtr& device, std::uint8_t percentage);

    Core& mCore;
};

} // namespace vexasim
