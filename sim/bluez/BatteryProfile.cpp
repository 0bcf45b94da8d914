// SPDX-License-Identifier: MIT
#include "sim/bluez/BatteryProfile.h"

#include "sim/model/Remote.h"

namespace vexasim
{

void BatteryProfile::begin(const DevicePtr& device)
{
    Peripheral& peripheral = *device->peripheral;
    const std::uint16_t handle = peripheral.handleOf(uuid::kBatteryLevel);
    if (handle == 0) {
        return;
    }
    // Not by read(): the faults that a test sets there are meant for BlueZ's clients.
    const Bytes level = peripheral.value(handle);
    if (level.empty()) {
        return;
    }
    tell(device, level.front());
    if (peripheral.subscribe(handle, true).error == att::kOk) {
        device->ownNotifications.insert(handle);
    }
}

void BatteryProfile::notified(const DevicePtr& device, std::uint16_t handle, const Bytes& value)
{
    if (device->ownNotifications.count(handle) != 0 && !value.empty()) {
        tell(device, value.front());
    }
}

void BatteryProfile::end(const DevicePtr& device)
{
    device->ownNotifications.clear();
    mCore.tree.removeInterface(device->path, names::kBattery);
}

void BatteryProfile::tell(const DevicePtr& device, std::uint8_t percentage)
{
    constexpr std::uint8_t kFull = 100;
    if (percentage > kFull) {
        return; // bluetoothd treats it as an error of the remote
    }
    const PropertyMap properties = {{"Percentage", g_variant_new_byte(percentage)}};
    const Variant known = mCore.tree.get(device->path, names::kBattery, "Percentage");
    if (!known) {
        mCore.tree.add(device->path, {{names::kBattery, properties}});
    } else if (g_variant_get_byte(known.get()) != percentage) {
        mCore.tree.change(device->path, names::kBattery, properties);
    }
}

} // namespace vexasim
