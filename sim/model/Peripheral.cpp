// SPDX-License-Identifier: MIT
#include "sim/model/Peripheral.h"

#include <algorithm>
#include <utility>

namespace vexasim
{

namespace
{
constexpr std::uint16_t kDeviceNameUuid = 0x2a00;

bool hasAny(const std::vector<std::string>& flags, const std::vector<std::string>& wanted)
{
    return std::any_of(flags.begin(), flags.end(), [&wanted](const std::string& flag) {
        return std::find(wanted.begin(), wanted.end(), flag) != wanted.end();
    });
}
} // namespace

Peripheral::Peripheral(PeripheralOptions options) : mOptions(std::move(options)) {}

void Peripheral::setAdvertisedName(std::optional<std::string> name)
{
    set(mOptions.name, std::move(name));
    tell([this](PeripheralListener& listener) { listener.onAdvertisingChanged(*this); });
}

std::optional<std::string> Peripheral::ownName() const
{
    const std::uint16_t handle = handleOf(uuid128(kDeviceNameUuid));
    if (handle == 0) {
        return {};
    }
    const Bytes name = value(handle);
    return std::string(name.begin(), name.end());
}

void Peripheral::setRssi(std::int16_t dBm)
{
    set(mOptions.rssi, dBm);
    tell([this](PeripheralListener& listener) { listener.onRssiChanged(*this); });
}

void Peripheral::change(bool Condition::*member, bool value)
{
    change([member, value](Condition& condition) { condition.*member = value; });
}

void Peripheral::change(const std::function<void(Condition&)>& edit)
{
    bool lost = false;
    bool advertisingChanged = false;
    {
        std::lock_guard lock(mMutex);
        const bool connectedBefore = mCondition.connected;
        const bool advertisedBefore = reachableLocked() && !connectedBefore;
        edit(mCondition);
        if (!reachableLocked()) {
            mCondition.connected = false;
        }
        lost = connectedBefore && !mCondition.connected;
        if (lost) {
            mSubscribed.clear();
        }
        advertisingChanged = advertisedBefore != (reachableLocked() && !mCondition.connected);
    }
    if (lost) {
        tell([this](PeripheralListener& listener) { listener.onLinkLost(*this); });
    }
    if (advertisingChanged) {
        tell([this](PeripheralListener& listener) { listener.onAdvertisingChanged(*this); });
    }
}

bool Peripheral::reachableLocked() const
{
    return mCondition.present && mCondition.inRange && !mCondition.asleep;
}

bool Peripheral::reachable() const
{
    std::lock_guard lock(mMutex);
    return reachableLocked();
}

bool Peripheral::advertising() const
{
    std::lock_guard lock(mMutex);
    return reachableLocked() && !mCondition.connected;
}

bool Peripheral::connect()
{
    bool connected = false;
    change([this, &connected](Condition& condition) {
        connected = reachableLocked() && !condition.connected;
        condition.connected = condition.connected || connected;
    });
    return connected;
}

void Peripheral::disconnect()
{
    bool ended = false;
    {
        std::lock_guard lock(mMutex);
        ended = mCondition.connected;
        mCondition.connected = false;
        mSubscribed.clear();
    }
    if (ended) {
        tell([this](PeripheralListener& listener) { listener.onAdvertisingChanged(*this); });
    }
}

Peripheral::Pairing Peripheral::pair()
{
    Pairing pairing{};
    {
        std::lock_guard lock(mMutex);
        pairing = mPairing;
        if (pairing == Pairing::Willing) {
            mOptions.paired = true;
            mForgotBond = false;
        }
    }
    if (pairing == Pairing::DropsLink) {
        loseLink();
    }
    return pairing;
}

Peripheral::Attribute Peripheral::findLocked(std::uint16_t handle)
{
    for (GattService& service : mOptions.services) {
        for (GattCharacteristic& characteristic : service.characteristics) {
            if (characteristic.valueHandle == handle) {
                return {&characteristic.flags, &characteristic.value};
            }
            for (GattDescriptor& descriptor : characteristic.descriptors) {
                if (descriptor.handle == handle) {
                    return {&descriptor.flags, &descriptor.value};
                }
            }
        }
    }
    return {};
}

AttReply Peripheral::checkLocked(std::uint16_t handle, const std::vector<std::string>& flags,
                                 std::uint8_t refusal)
{
    if (!mCondition.connected) {
        return AttReply::lost();
    }
    if (mMute) {
        return AttReply::silence();
    }
    const Attribute attribute = findLocked(handle);
    if (attribute.value == nullptr) {
        return AttReply::refused(att::kInvalidHandle);
    }
    return hasAny(*attribute.flags, flags) ? AttReply::ok(*attribute.value) : AttReply::refused(refusal);
}

AttReply Peripheral::delayed(AttReply reply) const
{
    reply.delay += answerDelay();
    return reply;
}

AttReply Peripheral::read(std::uint16_t handle)
{
    AttReply reply;
    ReadHook hook;
    {
        const std::lock_guard lock(mMutex);
        reply = checkLocked(handle, {"read"}, att::kReadNotPermitted);
        hook = find(mReadHooks, handle);
    }
    return delayed(hook && reply.isSuccess() ? hook() : reply);
}

AttReply Peripheral::write(std::uint16_t handle, const Bytes& value, WriteKind kind)
{
    WriteHook hook;
    {
        const std::lock_guard lock(mMutex);
        const char* flag = kind == WriteKind::Request ? "write" : "write-without-response";
        const AttReply check = checkLocked(handle, {flag}, att::kWriteNotPermitted);
        if (!check.isSuccess()) {
            return check;
        }
        hook = find(mWriteHooks, handle);
    }
    if (hook) {
        return delayed(hook(value));
    }
    setValue(handle, value);
    return delayed(AttReply::ok());
}

AttReply Peripheral::subscribe(std::uint16_t valueHandle, bool on)
{
    SubscribeHook hook;
    {
        const std::lock_guard lock(mMutex);
        const AttReply check = checkLocked(valueHandle, {"notify", "indicate"}, att::kRequestNotSupported);
        if (!check.isSuccess()) {
            return check;
        }
        hook = find(mSubscribeHooks, valueHandle);
    }
    AttReply reply = hook ? hook(on) : AttReply::ok();
    reply.value.clear();
    if (reply.isSuccess()) {
        const std::lock_guard lock(mMutex);
        if (on) {
            mSubscribed.insert(valueHandle);
        } else {
            mSubscribed.erase(valueHandle);
        }
    }
    return delayed(reply);
}

bool Peripheral::subscribed(std::uint16_t valueHandle) const
{
    std::lock_guard lock(mMutex);
    return mSubscribed.count(valueHandle) != 0;
}

std::uint16_t Peripheral::handleOf(const std::string& uuid) const
{
    std::lock_guard lock(mMutex);
    for (const GattService& service : mOptions.services) {
        for (const GattCharacteristic& characteristic : service.characteristics) {
            if (characteristic.uuid == uuid) {
                return characteristic.valueHandle;
            }
        }
    }
    return 0;
}

Bytes Peripheral::value(std::uint16_t handle) const
{
    const std::lock_guard lock(mMutex);
    const Attribute attribute = const_cast<Peripheral*>(this)->findLocked(handle);
    return attribute.value != nullptr ? *attribute.value : Bytes{};
}

void Peripheral::setValue(std::uint16_t handle, Bytes value)
{
    const std::lock_guard lock(mMutex);
    if (const Attribute attribute = findLocked(handle); attribute.value != nullptr) {
        *attribute.value = std::move(value);
    }
}

void Peripheral::notify(std::uint16_t valueHandle, const Bytes& value)
{
    setValue(valueHandle, value);
    if (subscribed(valueHandle)) {
        tell([&](PeripheralListener& listener) { listener.onNotification(*this, valueHandle, value); });
    }
}

void Peripheral::addListener(const std::shared_ptr<PeripheralListener>& listener)
{
    std::lock_guard lock(mMutex);
    mListeners.erase(std::remove_if(mListeners.begin(), mListeners.end(),
                                    [](const auto& known) { return known.expired(); }),
                     mListeners.end());
    mListeners.push_back(listener);
}

void Peripheral::tell(const Notice& notice)
{
    std::vector<std::weak_ptr<PeripheralListener>> listeners;
    {
        std::lock_guard lock(mMutex);
        listeners = mListeners;
    }
    for (const auto& known : listeners) {
        if (const auto listener = known.lock()) {
            notice(*listener);
        }
    }
}

} // namespace vexasim
