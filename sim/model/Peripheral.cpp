// SPDX-License-Identifier: MIT
#include "sim/model/Peripheral.h"

#include <algorithm>
#include <utility>

namespace vexasim
{

namespace
{
constexpr uint16_t kDeviceNameUuid = 0x2a00;

bool hasAny(const std::vector<std::string>& flags, const std::vector<std::string>& wanted)
{
    return std::any_of(flags.begin(), flags.end(), [&wanted](const std::string& flag) {
        return std::find(wanted.begin(), wanted.end(), flag) != wanted.end();
    });
}
} // namespace

Peripheral::Peripheral(PeripheralOptions options) : mOptions(std::move(options)), mOwnName(mOptions.name) {}

std::string Peripheral::address() const
{
    return mOptions.address;
}

bool Peripheral::randomAddress() const
{
    return mOptions.randomAddress;
}

std::optional<std::string> Peripheral::advertisedName() const
{
    std::lock_guard lock(mMutex);
    return mOptions.name;
}

void Peripheral::setAdvertisedName(std::optional<std::string> name)
{
    {
        std::lock_guard lock(mMutex);
        mOptions.name = std::move(name);
    }
    tell([this](PeripheralListener& listener) { listener.onAdvertisingChanged(*this); });
}

std::optional<std::string> Peripheral::ownName() const
{
    const uint16_t handle = handleOf(uuid128(kDeviceNameUuid));
    if (handle == 0)
        return {};
    const Bytes name = value(handle);
    return std::string(name.begin(), name.end());
}

uint16_t Peripheral::appearance() const
{
    return mOptions.appearance;
}

int16_t Peripheral::rssi() const
{
    std::lock_guard lock(mMutex);
    return mOptions.rssi;
}

void Peripheral::setRssi(int16_t dBm)
{
    {
        std::lock_guard lock(mMutex);
        mOptions.rssi = dBm;
    }
    tell([this](PeripheralListener& listener) { listener.onRssiChanged(*this); });
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
        if (!reachableLocked())
            mCondition.connected = false;
        lost = connectedBefore && !mCondition.connected;
        if (lost)
            mSubscribed.clear();
        advertisingChanged = advertisedBefore != (reachableLocked() && !mCondition.connected);
    }
    if (lost)
        tell([this](PeripheralListener& listener) { listener.onLinkLost(*this); });
    if (advertisingChanged)
        tell([this](PeripheralListener& listener) { listener.onAdvertisingChanged(*this); });
}

void Peripheral::leave()
{
    change([](Condition& condition) { condition.inRange = false; });
}

void Peripheral::comeBack()
{
    change([](Condition& condition) { condition.inRange = true; });
}

void Peripheral::sleep()
{
    change([](Condition& condition) { condition.asleep = true; });
}

void Peripheral::wake()
{
    change([](Condition& condition) { condition.asleep = false; });
}

void Peripheral::setPresent(bool present)
{
    change([present](Condition& condition) { condition.present = present; });
}

void Peripheral::loseLink()
{
    change([](Condition& condition) { condition.connected = false; });
}

bool Peripheral::inRange() const
{
    std::lock_guard lock(mMutex);
    return mCondition.inRange;
}

bool Peripheral::asleep() const
{
    std::lock_guard lock(mMutex);
    return mCondition.asleep;
}

bool Peripheral::present() const
{
    std::lock_guard lock(mMutex);
    return mCondition.present;
}

void Peripheral::setPairing(Pairing pairing)
{
    std::lock_guard lock(mMutex);
    mPairing = pairing;
}

Peripheral::Pairing Peripheral::pairing() const
{
    std::lock_guard lock(mMutex);
    return mPairing;
}

void Peripheral::setPaired(bool paired)
{
    std::lock_guard lock(mMutex);
    mOptions.paired = paired;
}

bool Peripheral::paired() const
{
    std::lock_guard lock(mMutex);
    return mOptions.paired;
}

void Peripheral::setForgotBond(bool forgot)
{
    std::lock_guard lock(mMutex);
    mForgotBond = forgot;
}

bool Peripheral::forgotBond() const
{
    std::lock_guard lock(mMutex);
    return mForgotBond;
}

void Peripheral::setAnswerDelay(std::chrono::milliseconds delay)
{
    std::lock_guard lock(mMutex);
    mAnswerDelay = delay;
}

std::chrono::milliseconds Peripheral::answerDelay() const
{
    std::lock_guard lock(mMutex);
    return mAnswerDelay;
}

void Peripheral::setMute(bool mute)
{
    std::lock_guard lock(mMutex);
    mMute = mute;
}

bool Peripheral::mute() const
{
    std::lock_guard lock(mMutex);
    return mMute;
}

void Peripheral::setAnnouncesUnasked(bool announces)
{
    std::lock_guard lock(mMutex);
    mAnnouncesUnasked = announces;
}

bool Peripheral::announcesUnasked() const
{
    std::lock_guard lock(mMutex);
    return mAnnouncesUnasked;
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
    if (ended)
        tell([this](PeripheralListener& listener) { listener.onAdvertisingChanged(*this); });
}

bool Peripheral::connected() const
{
    std::lock_guard lock(mMutex);
    return mCondition.connected;
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
    if (pairing == Pairing::DropsLink)
        loseLink();
    return pairing;
}

GattTable Peripheral::services() const
{
    std::lock_guard lock(mMutex);
    return mOptions.services;
}

void Peripheral::setServices(GattTable services)
{
    std::lock_guard lock(mMutex);
    mOptions.services = std::move(services);
}

GattCharacteristic* Peripheral::findLocked(uint16_t handle, GattDescriptor** descriptor)
{
    *descriptor = nullptr;
    for (GattService& service : mOptions.services)
        for (GattCharacteristic& characteristic : service.characteristics) {
            if (characteristic.valueHandle == handle)
                return &characteristic;
            for (GattDescriptor& candidate : characteristic.descriptors)
                if (candidate.handle == handle) {
                    *descriptor = &candidate;
                    return &characteristic;
                }
        }
    return nullptr;
}

const GattCharacteristic* Peripheral::findLocked(uint16_t handle, const GattDescriptor** descriptor) const
{
    GattDescriptor* found = nullptr;
    const GattCharacteristic* characteristic = const_cast<Peripheral*>(this)->findLocked(handle, &found);
    *descriptor = found;
    return characteristic;
}

AttReply Peripheral::checkLocked(uint16_t handle, const std::vector<std::string>& flags,
                                 uint8_t refusal) const
{
    if (!mCondition.connected)
        return AttReply::lost();
    if (mMute)
        return AttReply::silence();
    const GattDescriptor* descriptor = nullptr;
    const GattCharacteristic* characteristic = findLocked(handle, &descriptor);
    if (characteristic == nullptr)
        return AttReply::refused(att::kInvalidHandle);
    if (!hasAny(descriptor != nullptr ? descriptor->flags : characteristic->flags, flags))
        return AttReply::refused(refusal);
    return AttReply::ok(descriptor != nullptr ? descriptor->value : characteristic->value);
}

AttReply Peripheral::delayed(AttReply reply) const
{
    reply.delay += answerDelay();
    return reply;
}

AttReply Peripheral::read(uint16_t handle)
{
    AttReply reply;
    ReadHook hook;
    {
        std::lock_guard lock(mMutex);
        reply = checkLocked(handle, {"read"}, att::kReadNotPermitted);
        const auto found = mReadHooks.find(handle);
        if (reply.kind == AttReply::Kind::Answer && reply.error == att::kOk && found != mReadHooks.end())
            hook = found->second;
    }
    return delayed(hook ? hook() : reply);
}

AttReply Peripheral::write(uint16_t handle, const Bytes& value, WriteKind kind)
{
    WriteHook hook;
    {
        std::lock_guard lock(mMutex);
        const char* flag = kind == WriteKind::Request ? "write" : "write-without-response";
        const AttReply check = checkLocked(handle, {flag}, att::kWriteNotPermitted);
        if (check.kind != AttReply::Kind::Answer || check.error != att::kOk)
            return check;
        const auto found = mWriteHooks.find(handle);
        if (found != mWriteHooks.end())
            hook = found->second;
    }
    if (hook)
        return delayed(hook(value));
    setValue(handle, value);
    return delayed(AttReply::ok());
}

AttReply Peripheral::subscribe(uint16_t valueHandle, bool on)
{
    SubscribeHook hook;
    {
        std::lock_guard lock(mMutex);
        const AttReply check = checkLocked(valueHandle, {"notify", "indicate"}, att::kRequestNotSupported);
        if (check.kind != AttReply::Kind::Answer || check.error != att::kOk)
            return check;
        const auto found = mSubscribeHooks.find(valueHandle);
        if (found != mSubscribeHooks.end())
            hook = found->second;
    }
    AttReply reply = hook ? hook(on) : AttReply::ok();
    reply.value.clear();
    if (reply.kind != AttReply::Kind::Answer || reply.error != att::kOk)
        return delayed(reply);
    std::lock_guard lock(mMutex);
    if (on)
        mSubscribed.insert(valueHandle);
    else
        mSubscribed.erase(valueHandle);
    reply.delay += mAnswerDelay;
    return reply;
}

bool Peripheral::subscribed(uint16_t valueHandle) const
{
    std::lock_guard lock(mMutex);
    return mSubscribed.count(valueHandle) != 0;
}

uint16_t Peripheral::handleOf(const std::string& uuid) const
{
    std::lock_guard lock(mMutex);
    for (const GattService& service : mOptions.services)
        for (const GattCharacteristic& characteristic : service.characteristics)
            if (characteristic.uuid == uuid)
                return characteristic.valueHandle;
    return 0;
}

Bytes Peripheral::value(uint16_t handle) const
{
    std::lock_guard lock(mMutex);
    const GattDescriptor* descriptor = nullptr;
    const GattCharacteristic* characteristic = findLocked(handle, &descriptor);
    if (descriptor != nullptr)
        return descriptor->value;
    return characteristic != nullptr ? characteristic->value : Bytes{};
}

void Peripheral::setValue(uint16_t handle, Bytes value)
{
    std::lock_guard lock(mMutex);
    GattDescriptor* descriptor = nullptr;
    GattCharacteristic* characteristic = findLocked(handle, &descriptor);
    if (descriptor != nullptr)
        descriptor->value = std::move(value);
    else if (characteristic != nullptr)
        characteristic->value = std::move(value);
}

void Peripheral::notify(uint16_t valueHandle, const Bytes& value)
{
    setValue(valueHandle, value);
    if (subscribed(valueHandle))
        tell([&](PeripheralListener& listener) { listener.onNotification(*this, valueHandle, value); });
}

void Peripheral::onRead(uint16_t handle, ReadHook hook)
{
    std::lock_guard lock(mMutex);
    mReadHooks.erase(handle);
    if (hook)
        mReadHooks.emplace(handle, std::move(hook));
}

void Peripheral::onWrite(uint16_t handle, WriteHook hook)
{
    std::lock_guard lock(mMutex);
    mWriteHooks.erase(handle);
    if (hook)
        mWriteHooks.emplace(handle, std::move(hook));
}

void Peripheral::onSubscribe(uint16_t valueHandle, SubscribeHook hook)
{
    std::lock_guard lock(mMutex);
    mSubscribeHooks.erase(valueHandle);
    if (hook)
        mSubscribeHooks.emplace(valueHandle, std::move(hook));
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
    for (const auto& known : listeners)
        if (const auto listener = known.lock())
            notice(*listener);
}

} // namespace vexasim
