// SPDX-License-Identifier: MIT
#include "sim/bluez/Adapters.h"

#include <algorithm>
#include <utility>

namespace vexasim
{

namespace
{
constexpr std::uint32_t kDiscoverableTimeoutSeconds = 180;
constexpr std::uint32_t kClassOfDevice = 0x6c0000;

PropertyMap propertiesOf(const AdapterOptions& options)
{
    return {
        {"Address", toVariant(options.address)},
        {"AddressType", toVariant("public")},
        {"Name", toVariant("vexabox")},
        {"Alias", toVariant("vexabox")},
        {"Class", g_variant_new_uint32(kClassOfDevice)},
        {"Powered", toVariant(options.powered)},
        {"Discoverable", toVariant(false)},
        {"DiscoverableTimeout", g_variant_new_uint32(kDiscoverableTimeoutSeconds)},
        {"Pairable", toVariant(true)},
        {"PairableTimeout", g_variant_new_uint32(0)},
        {"Discovering", toVariant(false)},
        {"UUIDs",
         Variant::strings({"00001800-0000-1000-8000-00805f9b34fb", "00001801-0000-1000-8000-00805f9b34fb"})},
        {"Modalias", toVariant("usb:v1D6Bp0246d0542")},
        {"Roles", Variant::strings({"central", "peripheral"})},
    };
}
} // namespace

Adapters::Adapters(Core& core, Devices& devices) : mCore(core), mDevices(devices)
{
    onMethod("StartDiscovery", &Adapters::startDiscovery);
    onMethod("StopDiscovery", &Adapters::stopDiscovery);
    Dispatcher& dispatcher = mCore.dispatcher;
    dispatcher.onMethod(names::kAdapter, "SetDiscoveryFilter",
                        [](const RequestPtr& request) { request->reply(); });
    dispatcher.onMethod(names::kAdapter, "GetDiscoveryFilters", [](const RequestPtr& request) {
        const Variant known = Variant::strings({"UUIDs", "RSSI", "Pathloss", "Transport", "DuplicateData"});
        request->reply(g_variant_new("(@as)", known.get()));
    });
    dispatcher.onMethod(names::kAdapter, "RemoveDevice", [this](const RequestPtr& request) {
        if (!powered(request->call().path)) {
            return fail(request, errors::kNotReady);
        }
        mDevices.removeByMethod(request);
    });
    dispatcher.onSet(names::kAdapter, "Powered", [this](const RequestPtr& request, const Variant& value) {
        onSetPowered(request, value);
    });
    mDevices.setOnRemoved([this](const DevicePtr& device) {
        if (discovering(device->adapterPath)) {
            reportSoon(device->adapterPath, device->peripheral);
        }
    });
}

void Adapters::onMethod(const std::string& member, void (Adapters::*handler)(const RequestPtr&))
{
    mCore.dispatcher.onMethod(names::kAdapter, member, [this, handler](const RequestPtr& request) {
        if (find(request->call().path) == nullptr) {
            return fail(request, errors::kNotAvailable); // an object added by a test
        }
        if (!powered(request->call().path)) {
            return fail(request, errors::kNotReady);
        }
        (this->*handler)(request);
    });
}

std::string Adapters::pathFor(const std::string& name)
{
    return std::string(names::kBlueZPath) + "/" + name;
}

Adapters::Adapter* Adapters::find(const std::string& path)
{
    const auto found = mAdapters.find(path);
    return found != mAdapters.end() ? &found->second : nullptr;
}

bool Adapters::powered(const std::string& path) const
{
    const Variant value = mCore.tree.get(path, names::kAdapter, "Powered");
    // A test may have given the property a wrong type; the method must still work.
    return value.type() != "b" || g_variant_get_boolean(value.get()) != FALSE;
}

// --- adding and removing ---

void Adapters::publish(const std::string& path, Adapter& adapter)
{
    adapter.onBus = true;
    InterfaceMap interfaces = withStandardInterfaces(names::kAdapter, propertiesOf(adapter.options));
    mCore.tree.add(path, interfaces);
    mCore.say("adapter " + path + " appears");
    for (const auto& peripheral : mAir) {
        if (peripheral->paired()) {
            mDevices.restore(path, peripheral);
        }
    }
}

std::string Adapters::add(const AdapterOptions& options)
{
    const std::string path = pathFor(options.name);
    Adapter& adapter = mAdapters[path];
    adapter.options = options;
    if (mCore.bus.isOpen()) {
        publish(path, adapter);
    }
    return path;
}

void Adapters::remove(const std::string& path)
{
    if (mAdapters.erase(path) == 0) {
        return;
    }
    mDevices.forgetAll(path);
    mCore.tree.remove(path);
    mCore.say("adapter " + path + " is gone");
}

void Adapters::serviceStarted(std::optional<bool> powered)
{
    for (auto& [path, adapter] : mAdapters) {
        adapter.options.powered = powered.value_or(adapter.options.powered);
        publish(path, adapter);
    }
}

void Adapters::serviceStopped(bool announce)
{
    for (auto& [path, adapter] : mAdapters) {
        adapter.discoverers.clear();
        adapter.discovering = false;
        adapter.onBus = false;
        ++adapter.discovery;
        mDevices.forgetAll(path);
        mCore.tree.remove(path, announce);
    }
}

// --- power ---

void Adapters::onSetPowered(const RequestPtr& request, const Variant& value)
{
    const bool on = g_variant_get_boolean(value.get()) != FALSE;
    const std::string path = request->call().path;
    mCore.scheduler->after(mCore.timings.powerChange, [this, request, path, on] {
        // On power-off BlueZ first removes unpaired devices, then answers, then emits the signal.
        if (!on) {
            mDevices.forgetUnpaired(path);
        }
        request->reply();
        setPowered(path, on);
    });
}

void Adapters::setPowered(const std::string& path, bool on)
{
    if (powered(path) == on || !mCore.tree.has(path, names::kAdapter)) {
        return;
    }
    if (!on) {
        endDiscovery(path);
        mDevices.powerOff(path);
    }
    if (Adapter* adapter = find(path)) {
        adapter->options.powered = on;
    }
    mCore.tree.change(path, names::kAdapter, {{"Powered", toVariant(on)}});
    mCore.say("adapter " + path + (on ? " is powered" : " is not powered"));
}

// --- discovery ---

void Adapters::startDiscovery(const RequestPtr& request)
{
    Adapter& adapter = *find(request->call().path);
    if (!adapter.discoverers.insert(request->call().sender).second) {
        return fail(request, errors::kBusy);
    }
    // BlueZ answers first, then announces Discovering.
    request->reply();
    beginDiscovery(request->call().path);
}

void Adapters::stopDiscovery(const RequestPtr& request)
{
    Adapter& adapter = *find(request->call().path);
    if (adapter.discoverers.erase(request->call().sender) == 0) {
        return request->fail(errors::kFailed, "No discovery started");
    }
    request->reply();
    if (adapter.discoverers.empty()) {
        endDiscovery(request->call().path);
    }
}

void Adapters::beginDiscovery(const std::string& path)
{
    Adapter& adapter = *find(path);
    if (std::exchange(adapter.discovering, true)) {
        return;
    }
    mCore.tree.change(path, names::kAdapter, {{"Discovering", toVariant(true)}});
    mCore.say("adapter " + path + " discovers");
    for (const auto& peripheral : mAir) {
        reportSoon(path, peripheral);
    }
    reportAgain(path);
}

void Adapters::endDiscovery(const std::string& path)
{
    Adapter* adapter = find(path);
    if (adapter == nullptr) {
        return;
    }
    adapter->discoverers.clear();
    if (!std::exchange(adapter->discovering, false)) {
        return;
    }
    ++adapter->discovery;
    mDevices.discoveryEnded(path);
    mCore.tree.change(path, names::kAdapter, {{"Discovering", toVariant(false)}});
    mCore.say("adapter " + path + " no longer discovers");
}

bool Adapters::discovering(const std::string& path) const
{
    const auto found = mAdapters.find(path);
    return found != mAdapters.end() && found->second.discovering;
}

void Adapters::reportSoon(const std::string& path, const std::shared_ptr<Peripheral>& peripheral)
{
    const unsigned discovery = mAdapters.at(path).discovery;
    mCore.scheduler->after(mCore.timings.discovery, [this, path, peripheral, discovery] {
        const Adapter* adapter = find(path);
        if (adapter != nullptr && adapter->discovering && adapter->discovery == discovery &&
            peripheral->advertising()) {
            mDevices.seen(path, peripheral);
        }
    });
}

void Adapters::reportAgain(const std::string& path)
{
    if (mCore.timings.rssi.count() == 0) {
        return;
    }
    const unsigned discovery = mAdapters.at(path).discovery;
    mCore.scheduler->after(mCore.timings.rssi, [this, path, discovery] {
        const Adapter* adapter = find(path);
        if (adapter == nullptr || !adapter->discovering || adapter->discovery != discovery) {
            return;
        }
        for (const auto& peripheral : mAir) {
            if (peripheral->advertising()) {
                mDevices.seen(path, peripheral);
            }
        }
        reportAgain(path);
    });
}

void Adapters::clientGone(const std::string& sender)
{
    for (auto& [path, adapter] : mAdapters) {
        if (adapter.discoverers.erase(sender) != 0 && adapter.discoverers.empty()) {
            endDiscovery(path);
        }
    }
}

// --- the air ---

void Adapters::addPeripheral(const std::shared_ptr<Peripheral>& peripheral)
{
    mAir.push_back(peripheral);
    for (const auto& [path, adapter] : mAdapters) {
        if (adapter.onBus && peripheral->paired()) {
            mDevices.restore(path, peripheral);
        }
    }
    onAdvertising(*peripheral);
}

void Adapters::removePeripheral(const std::shared_ptr<Peripheral>& peripheral)
{
    mAir.erase(std::remove(mAir.begin(), mAir.end(), peripheral), mAir.end());
    peripheral->setPresent(false);
    for (const DevicePtr& device : mDevices.of(*peripheral)) {
        mDevices.remove(device);
    }
}

std::shared_ptr<Peripheral> Adapters::share(const Peripheral& peripheral) const
{
    const auto found = std::find_if(mAir.begin(), mAir.end(), [&peripheral](const auto& candidate) {
        return candidate.get() == &peripheral;
    });
    return found != mAir.end() ? *found : nullptr;
}

void Adapters::onAdvertising(Peripheral& peripheral)
{
    mDevices.onAdvertising(peripheral);
    const std::shared_ptr<Peripheral> shared = share(peripheral);
    if (shared == nullptr || !peripheral.advertising()) {
        return;
    }
    for (const auto& [path, adapter] : mAdapters) {
        if (adapter.onBus && peripheral.announcesUnasked()) {
            mDevices.seen(path, shared);
        } else if (adapter.discovering) {
            reportSoon(path, shared);
        }
    }
}

} // namespace vexasim
