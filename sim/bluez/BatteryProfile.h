// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

#include "sim/bluez/Core.h"
#include "sim/bluez/Device.h"

namespace vexasim
{

/// bluetoothd's own use of the battery service: what it reads there it tells as Battery1 (org.bluez.Battery1)
/// on the device's object, as long as the link lasts. Used on the scheduler's thread.
class BatteryProfile
{
public:
    explicit BatteryProfile(Core& core) : mCore(core) {}

    /// The services are resolved: reads the level and has itself told of another one.
    void begin(const DevicePtr& device);
    /// A notification came; of another characteristic it means nothing.
    void notified(const DevicePtr& device, std::uint16_t handle, const Bytes& value);
    /// The link is gone.
    void end(const DevicePtr& device);

private:
    void tell(const DevicePtr& device, std::uint8_t percentage);

    Core& mCore;
};

} // namespace vexasim
