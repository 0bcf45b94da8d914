// SPDX-License-Identifier: MIT
#include "sim/bluez/Links.h"

#include <utility>

#include "sim/bluez/BatteryProfile.h"
#include "sim/bluez/Devices.h"
#include "sim/bluez/GattObjects.h"

namespace vexasim
{

namespace
{
constexpr const char* kAbortedByLocal = "le-connection-abort-by-local";
constexpr const char* kAlreadyConnecting = "Operation already in progress";
constexpr const char* kNoPower = "Input/output error";
} // namespace

Links::Links(Core& core, Devices& devices, GattObjects& gatt, BatteryProfile& battery)
    : mCore(core), mDevices(devices), mGatt(gatt), mBattery(battery)
{
    onMethod("Connect", &Links::connect);
    onMethod("Disconnect", &Links::disconnect);
    onMethod("Pair", &Links::pair);
    onMethod("CancelPairing", &Links::cancelPairing);
    for (const char* member : {"ConnectProfile", "DisconnectProfile"}) {
        mCore.dispatcher.onMethod(names::kDevice, member,
                                  [](const RequestPtr& request) { fail(request, errors::kNotSupported); });
    }
}

void Links::onMethod(const std::string& member, void (Links::*handler)(const DevicePtr&, const RequestPtr&))
{
    mCore.dispatcher.onMethod(names::kDevice, member, [this, handler](const RequestPtr& request) {
        const DevicePtr device = mDevices.find(request->call().path);
        if (device == nullptr) {
            return fail(request, errors::kNotAvailable); // an object added by a test
        }
        (this->*handler)(device, request);
    });
}

bool Links::powered(const DevicePtr& device) const
{
    const Variant value = mCore.tree.get(device->adapterPath, names::kAdapter, "Powered");
    return value.type() != "b" || g_variant_get_boolean(value.get()) != FALSE;
}

void Links::later(const DevicePtr& device, std::chrono::milliseconds delay, Step step)
{
    mCore.later(device, delay, [this, step](const DevicePtr& same) { (this->*step)(same); });
}

// --- connecting ---

void Links::connect(const DevicePtr& device, const RequestPtr& request)
{
    if (device->connected) {
        return request->reply();
    }
    if (!powered(device)) {
        return request->fail(errors::kFailed, kNoPower);
    }
    if (device->onLinked) {
        return request->fail(errors::kFailed, kAlreadyConnecting);
    }
    device->connecting = request;
    establish(device, [this, device](bool success) {
        const RequestPtr waiting = std::exchange(device->connecting, nullptr);
        if (!success) {
            mDevices.keepForAWhile(device);
            return waiting->fail(errors::kFailed, kAbortedByLocal);
        }
        // BlueZ answers when the link is up, before the services are resolved.
        waiting->reply();
        resolve(device);
    });
}

void Links::establish(const DevicePtr& device, std::function<void(bool)> done)
{
    mDevices.keep(device);
    device->onLinked = std::move(done);
    device->linkUnderway = false;
    device->linkTimer = mCore.later(device, mCore.timings.connectTimeout,
                                    [this](const DevicePtr& same) { linked(same, false); });
    heard(device);
}

void Links::heard(const DevicePtr& device)
{
    if (!device->onLinked || device->linkUnderway || !device->peripheral->advertising()) {
        return;
    }
    device->linkUnderway = true;
    const auto delay = mCore.timings.connect + device->peripheral->answerDelay();
    mCore.later(device, delay, [this](const DevicePtr& same) {
        if (!same->onLinked) {
            return;
        }
        same->linkUnderway = false;
        if (same->peripheral->connect()) {
            linked(same, true);
        }
    });
}

void Links::linked(const DevicePtr& device, bool success)
{
    if (!device->onLinked) {
        return;
    }
    mCore.scheduler->cancel(std::exchange(device->linkTimer, 0));
    if (!success) {
        ++device->link; // drops the steps under way
    }
    device->connected = success;
    if (success) {
        mCore.tree.change(device->path, names::kDevice, {{"Connected", toVariant(true)}});
        mCore.say(device->path + " is connected");
    }
    std::exchange(device->onLinked, nullptr)(success);
}

// --- pairing ---

void Links::pair(const DevicePtr& device, const RequestPtr& request)
{
    // For a device paired over LE, BlueZ tries BR/EDR, which fails.
    if (device->paired) {
        return fail(request, errors::kAuthenticationFailed);
    }
    if (device->pairing) {
        return fail(request, errors::kInProgress);
    }
    if (!powered(device)) {
        return fail(request, errors::kNotReady);
    }
    if (device->onLinked) {
        return request->fail(errors::kFailed, kAlreadyConnecting);
    }
    device->pairing = request;
    if (device->connected) {
        return bond(device);
    }
    establish(device, [this, device](bool success) {
        if (success) {
            return bond(device);
        }
        mDevices.keepForAWhile(device);
        failPairing(device, errors::kConnectionAttemptFailed);
    });
}

void Links::bond(const DevicePtr& device)
{
    later(device, mCore.timings.pair + device->peripheral->answerDelay(), &Links::exchangeKeys);
}

void Links::exchangeKeys(const DevicePtr& device)
{
    if (!device->pairing) {
        return;
    }
    if (mCore.requireAgent && mCore.agentOwners.empty()) {
        failPairing(device, errors::kAuthenticationFailed);
        return end(device);
    }
    switch (device->peripheral->pair()) {
    case Peripheral::Pairing::Willing:
        return bonded(device);
    case Peripheral::Pairing::Refuses:
        failPairing(device, errors::kAuthenticationFailed);
        return end(device);
    case Peripheral::Pairing::Silent:
        return later(device, mCore.timings.pairTimeout, &Links::end);
    case Peripheral::Pairing::DropsLink:
        return; // answered when the link ended
    }
}

void Links::bonded(const DevicePtr& device)
{
    device->paired = true;
    mDevices.keep(device);
    mCore.tree.change(device->path, names::kDevice, {{"Bonded", toVariant(true)}});
    // BlueZ knows it from here on, but announces it only with the services.
    mCore.tree.set(device->path, names::kDevice, "Paired", toVariant(true));
    if (!device->resolved) {
        return resolve(device);
    }
    mCore.tree.change(device->path, names::kDevice, {{"Paired", toVariant(true)}});
    std::exchange(device->pairing, nullptr)->reply();
}

void Links::failPairing(const DevicePtr& device, const errors::Error& error)
{
    if (const RequestPtr waiting = std::exchange(device->pairing, nullptr)) {
        mCore.say("pairing with " + device->path + " fails: " + error.message);
        fail(waiting, error);
    }
}

void Links::cancelPairing(const DevicePtr& device, const RequestPtr& request)
{
    if (!device->pairing) {
        return fail(request, errors::kDoesNotExist);
    }
    failPairing(device, errors::kAuthenticationCanceled);
    if (device->onLinked) {
        linked(device, false);
    }
    end(device);
    request->reply();
}

// --- services ---

void Links::resolve(const DevicePtr& device)
{
    const Peripheral& peripheral = *device->peripheral;
    if (device->paired && peripheral.forgotBond()) {
        // Encryption fails at the first request, and the remote ends the link.
        mCore.scheduler->post([peripheral = device->peripheral] { peripheral->loseLink(); });
        return;
    }
    const auto delay =
        peripheral.mute() ? mCore.timings.resolveTimeout : mCore.timings.resolve + peripheral.answerDelay();
    later(device, delay, &Links::resolved);
}

void Links::resolved(const DevicePtr& device)
{
    PropertyMap changed;
    if (!device->peripheral->mute()) {
        mDevices.learnName(device, device->peripheral->ownName());
        device->resolved = true;
        // After pairing, BlueZ announces the objects only after ServicesResolved.
        if (!device->pairing) {
            mGatt.publish(device);
        }
        changed["ServicesResolved"] = toVariant(true);
        std::vector<std::string> uuids;
        for (const GattService& service : device->peripheral->services()) {
            uuids.push_back(service.uuid);
        }
        changed["UUIDs"] = Variant::strings(uuids);
    }
    if (device->pairing) {
        changed["Paired"] = toVariant(true);
    }
    if (!changed.empty()) {
        mCore.tree.change(device->path, names::kDevice, changed);
    }
    if (device->pairing && device->resolved) {
        mGatt.publish(device);
    }
    if (device->resolved) {
        mCore.say("services of " + device->path + " are resolved");
        later(device, device->peripheral->answerDelay(), &Links::readBattery);
    }
    if (device->pairing) {
        mCore.say(device->path + " is paired");
        std::exchange(device->pairing, nullptr)->reply();
    }
}

void Links::readBattery(const DevicePtr& device)
{
    mBattery.begin(device);
}

// --- disconnecting ---

void Links::disconnect(const DevicePtr& device, const RequestPtr& request)
{
    if (!device->connected) {
        return fail(request, errors::kNotConnected);
    }
    device->disconnecting.push_back(request);
    startEnding(device);
}

void Links::endForRemoval(const DevicePtr& device, const RequestPtr& request)
{
    if (device->removing) {
        return fail(request, errors::kInProgress);
    }
    device->removing = request;
    startEnding(device);
}

void Links::startEnding(const DevicePtr& device)
{
    later(device, mCore.timings.removeConnected, &Links::end);
}

void Links::end(const DevicePtr& device)
{
    if (device->onLinked) {
        linked(device, false);
    }
    if (!device->connected) {
        return;
    }
    device->peripheral->disconnect();
    lost(device);
}

void Links::lost(const DevicePtr& device)
{
    if (!std::exchange(device->connected, false)) {
        return;
    }
    ++device->link;
    mGatt.linkLost(device);
    PropertyMap changed;
    if (std::exchange(device->resolved, false)) {
        changed["ServicesResolved"] = toVariant(false);
    }
    const RequestPtr removing = std::exchange(device->removing, nullptr);
    // BlueZ answers waiting calls before it announces the end of the link, and sends pending signals before
    // each answer.
    if ((removing || !device->disconnecting.empty() || device->pairing) && !changed.empty()) {
        tellTheEnd(device, std::exchange(changed, {}));
    }
    for (const RequestPtr& waiting : std::exchange(device->disconnecting, {})) {
        waiting->reply();
    }
    if (removing) {
        removing->reply();
    }
    failPairing(device, errors::kAuthenticationCanceled);
    changed["Connected"] = toVariant(false);
    tellTheEnd(device, changed);
    mCore.say(device->path + " is disconnected");
    if (removing) {
        return mDevices.remove(device);
    }
    mDevices.keepForAWhile(device);
}

void Links::tellTheEnd(const DevicePtr& device, const PropertyMap& changed)
{
    // An object's changes are announced before one of its interfaces is removed.
    mCore.tree.change(device->path, names::kDevice, changed);
    mBattery.end(device);
}

void Links::abandon(const DevicePtr& device)
{
    mCore.scheduler->cancel(std::exchange(device->linkTimer, 0));
    ++device->link;
    device->onLinked = nullptr;
    if (const RequestPtr waiting = std::exchange(device->connecting, nullptr)) {
        waiting->fail(errors::kFailed, kAbortedByLocal);
    }
    failPairing(device, errors::kAuthenticationCanceled);
    if (std::exchange(device->connected, false)) {
        device->peripheral->disconnect();
    }
    mGatt.linkLost(device);
}

} // namespace vexasim
