// SPDX-License-Identifier: MIT
#include "sim/bluez/Devices.h"

#include <algorithm>
#include <utility>

#include "sim/bluez/BatteryProfile.h"
#include "sim/bluez/GattObjects.h"
#include "sim/bluez/Links.h"

namespace vexasim
{

namespace
{
/// BlueZ's alias of a device without a name.
std::string withDashes(std::string address)
{
    std::replace(address.begin(), address.end(), ':', '-');
    return address;
}
} // namespace

Devices::Devices(Core& core)
    : mCore(core),
      mGatt(std::make_unique<GattObjects>(core)),
      mBattery(std::make_unique<BatteryProfile>(core)),
      mLinks(std::make_unique<Links>(core, *this, *mGatt, *mBattery))
{
}

Devices::~Devices() = default;

std::string Devices::pathFor(const std::string& adapterPath, const std::string& address)
{
    std::string name = address;
    std::replace(name.begin(), name.end(), ':', '_');
    return adapterPath + "/dev_" + name;
}

std::string Devices::attributePath(const std::string& devicePath, const Peripheral& peripheral,
                                   const std::string& uuid)
{
    return GattObjects::pathOf(devicePath, peripheral, uuid);
}

DevicePtr Devices::find(const std::string& path) const
{
    const auto found = mDevices.find(path);
    return found != mDevices.end() ? found->second : nullptr;
}

template <typename Predicate>
std::vector<DevicePtr> Devices::select(Predicate predicate) const
{
    std::vector<DevicePtr> selected;
    for (const auto& [path, device] : mDevices) {
        if (predicate(*device)) {
            selected.push_back(device);
        }
    }
    return selected;
}

std::vector<DevicePtr> Devices::on(const std::string& adapterPath) const
{
    return select([&](const Device& device) { return device.adapterPath == adapterPath; });
}

std::vector<DevicePtr> Devices::of(const Peripheral& peripheral) const
{
    return select([&](const Device& device) { return device.peripheral.get() == &peripheral; });
}

DevicePtr Devices::make(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral)
{
    auto device = std::make_shared<Device>();
    device->path = pathFor(adapterPath, peripheral->address());
    device->adapterPath = adapterPath;
    device->peripheral = peripheral;
    device->paired = peripheral->paired();
    mDevices[device->path] = device;
    return device;
}

void Devices::publish(const DevicePtr& device, bool heard)
{
    const Peripheral& peripheral = *device->peripheral;
    const std::string address = peripheral.address();
    if (const auto name = peripheral.advertisedName(); name && heard) {
        mNames[address] = *name;
    }
    const auto name = mNames.find(address);
    PropertyMap properties = {
        {"Address", toVariant(address)},
        {"AddressType", toVariant(peripheral.randomAddress() ? "random" : "public")},
        {"Alias", toVariant(name != mNames.end() ? name->second : withDashes(address))},
        {"Appearance", g_variant_new_uint16(peripheral.appearance())},
        {"Paired", toVariant(device->paired)},
        {"Bonded", toVariant(device->paired)},
        {"Trusted", toVariant(false)},
        {"Blocked", toVariant(false)},
        {"LegacyPairing", toVariant(false)},
        {"Connected", toVariant(false)},
        {"UUIDs", Variant::strings({})},
        {"Adapter", toObjectPath(device->adapterPath)},
        {"ServicesResolved", toVariant(false)},
    };
    if (name != mNames.end()) {
        properties["Name"] = toVariant(name->second);
    }
    if (heard) {
        properties["RSSI"] = toVariant(peripheral.rssi());
        properties["AdvertisingFlags"] = Variant::bytes({0x05});
    }
    mCore.tree.add(device->path, withStandardInterfaces(names::kDevice, properties));
    mCore.say("device " + device->path + " appears");
}

DevicePtr Devices::seen(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral)
{
    DevicePtr device = find(pathFor(adapterPath, peripheral->address()));
    if (device != nullptr) {
        renew(device);
    } else {
        device = make(adapterPath, peripheral);
        publish(device, true);
    }
    if (!device->connected) {
        keepForAWhile(device);
    }
    return device;
}

void Devices::restore(const std::string& adapterPath, const std::shared_ptr<Peripheral>& peripheral)
{
    if (const auto name = peripheral->ownName()) {
        mNames.emplace(peripheral->address(), *name);
    }
    publish(make(adapterPath, peripheral), false);
}

void Devices::renew(const DevicePtr& device)
{
    learnName(device, device->peripheral->advertisedName());
    const Variant rssi = toVariant(device->peripheral->rssi());
    const Variant known = mCore.tree.get(device->path, names::kDevice, "RSSI");
    if (!known || g_variant_equal(known.get(), rssi.get()) == FALSE) {
        mCore.tree.change(device->path, names::kDevice, {{"RSSI", rssi}});
    }
}

void Devices::learnName(const DevicePtr& device, const std::optional<std::string>& name)
{
    const std::string address = device->peripheral->address();
    if (!name || (mNames.count(address) != 0 && mNames[address] == *name)) {
        return;
    }
    mNames[address] = *name;
    mCore.tree.change(device->path, names::kDevice,
                      {{"Name", toVariant(*name)}, {"Alias", toVariant(*name)}});
}

void Devices::keep(const DevicePtr& device)
{
    mCore.scheduler->cancel(std::exchange(device->temporaryTimer, 0));
}

void Devices::keepForAWhile(const DevicePtr& device)
{
    keep(device);
    if (device->paired) {
        return;
    }
    device->temporaryTimer = mCore.later(device, mCore.timings.temporary, [this](const DevicePtr& same) {
        if (!same->connected) {
            remove(same);
        }
    });
}

void Devices::forget(const DevicePtr& device)
{
    keep(device);
    mLinks->abandon(device);
    mGatt->withdraw(device);
    mDevices.erase(device->path);
}

void Devices::remove(const DevicePtr& device)
{
    forget(device);
    device->peripheral->setPaired(false);
    mCore.tree.remove(device->path);
    mCore.say("device " + device->path + " is gone");
    if (mOnRemoved) {
        mOnRemoved(device);
    }
}

void Devices::removeByMethod(const RequestPtr& request)
{
    const char* path = nullptr;
    g_variant_get(request->parameters(), "(&o)", &path);
    const std::string& adapterPath = request->call().path;
    const std::string prefix = adapterPath + "/";
    if (std::string(path).compare(0, prefix.size(), prefix) != 0 || !mCore.tree.has(path, names::kDevice)) {
        return fail(request, errors::kDoesNotExist);
    }
    const DevicePtr device = find(path);
    if (device == nullptr) {
        mCore.tree.remove(path); // an object added by a test
        return request->reply();
    }
    if (device->connected) {
        return mLinks->endForRemoval(device, request);
    }
    remove(device);
    request->reply();
}

void Devices::discoveryEnded(const std::string& adapterPath)
{
    for (const DevicePtr& device : on(adapterPath)) {
        if (mCore.tree.get(device->path, names::kDevice, "RSSI")) {
            mCore.tree.drop(device->path, names::kDevice, "RSSI");
            mCore.tree.emitChanged(device->path, names::kDevice, {}, {"RSSI"});
        }
    }
}

void Devices::powerOff(const std::string& adapterPath)
{
    for (const DevicePtr& device : on(adapterPath)) {
        mLinks->end(device);
    }
}

void Devices::forgetUnpaired(const std::string& adapterPath)
{
    for (const DevicePtr& device : on(adapterPath)) {
        if (!device->paired && !device->connected) {
            remove(device);
        }
    }
}

void Devices::forgetAll(const std::string& adapterPath)
{
    for (const DevicePtr& device : on(adapterPath)) {
        forget(device);
    }
}

void Devices::clientGone(const std::string& sender)
{
    for (const auto& [path, device] : mDevices) {
        mGatt->clientGone(device, sender);
    }
}

void Devices::onLinkLost(const Peripheral& peripheral)
{
    for (const DevicePtr& device : of(peripheral)) {
        mLinks->lost(device);
    }
}

void Devices::onAdvertising(const Peripheral& peripheral)
{
    for (const DevicePtr& device : of(peripheral)) {
        mLinks->heard(device);
    }
}

void Devices::onNotification(const Peripheral& peripheral, std::uint16_t handle, const Bytes& value)
{
    for (const DevicePtr& device : of(peripheral)) {
        if (device->connected) {
            mGatt->notified(device, handle, value);
            mBattery->notified(device, handle, value);
        }
    }
}

} // namespace vexasim
