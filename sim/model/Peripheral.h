// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sim/model/Gatt.h"

namespace vexasim
{

class Peripheral;

/// Receives the events of a peripheral that a radio would. Called without any lock held, on the thread that
/// caused the event; may call the peripheral.
class PeripheralListener
{
public:
    virtual ~PeripheralListener() = default;
    /// It started or stopped advertising, or its advertised name changed.
    virtual void onAdvertisingChanged(Peripheral&) {}
    virtual void onRssiChanged(Peripheral&) {}
    /// The peripheral ended the link or went out of range; not called for Peripheral::disconnect.
    virtual void onLinkLost(Peripheral&) {}
    /// A notification to a subscribed peer, by value handle.
    virtual void onNotification(Peripheral&, std::uint16_t, const Bytes&) {}
};

/// The initial state of a peripheral.
struct PeripheralOptions {
    std::string address = "C0:FF:EE:00:00:01"; ///< upper case, with colons
    bool randomAddress = false;                ///< AddressType "random" instead of "public"
    std::optional<std::string> name;           ///< none: the advertisement carries no name
    std::uint16_t appearance = 0x0180;         ///< generic remote control
    std::int16_t rssi = -52;                   ///< dBm
    bool paired = false;                       ///< bonded from the start
    GattTable services;
};

/// One Bluetooth Low Energy peripheral as seen over the air: address, name, signal strength, link, bond and
/// attribute table. It uses no D-Bus, thread or clock: the simulated BlueZ and the virtual controller call it
/// and receive its events as PeripheralListener. Every method may be called on any thread.
class Peripheral
{
public:
    enum class Pairing {
        Willing,
        Refuses,   ///< answers the pairing request with a failure
        Silent,    ///< never answers it
        DropsLink, ///< ends the link in the middle
    };
    enum class WriteKind { Request, Command };
    using ReadHook = std::function<AttReply()>;
    using WriteHook = std::function<AttReply(const Bytes&)>;
    using SubscribeHook = std::function<AttReply(bool)>;

    explicit Peripheral(PeripheralOptions options);

    // --- identity and signal ---
    std::string address() const { return mOptions.address; }
    bool randomAddress() const { return mOptions.randomAddress; }
    /// The name in the advertisement, none if it carries none.
    std::optional<std::string> advertisedName() const { return get(mOptions.name); }
    void setAdvertisedName(std::optional<std::string> name);
    /// The name in its own name characteristic (0x2a00), which a stack reads once connected.
    std::optional<std::string> ownName() const;
    std::uint16_t appearance() const { return mOptions.appearance; }
    std::int16_t rssi() const { return get(mOptions.rssi); }
    void setRssi(std::int16_t dBm);

    // --- state; a change that makes it unreachable ends the link ---
    void leave() { change(&Condition::inRange, false); }      ///< goes out of range
    void comeBack() { change(&Condition::inRange, true); }    ///< returns into range
    void sleep() { change(&Condition::asleep, true); }        ///< radio off to save the battery
    void wake() { change(&Condition::asleep, false); }        ///< a key was pressed
    void loseLink() { change(&Condition::connected, false); } ///< the link ends, nothing else changes
    /// False: this personality isn't on the air at all.
    void setPresent(bool present) { change(&Condition::present, present); }
    bool inRange() const { return get(mCondition.inRange); }
    bool asleep() const { return get(mCondition.asleep); }
    bool present() const { return get(mCondition.present); }

    void setPairing(Pairing pairing) { set(mPairing, pairing); }
    Pairing pairing() const { return get(mPairing); }
    void setPaired(bool paired) { set(mOptions.paired, paired); }
    bool paired() const { return get(mOptions.paired); }
    /// The bond is lost on this side only: a link to the bonded peer ends at once.
    void setForgotBond(bool forgot) { set(mForgotBond, forgot); }
    bool forgotBond() const { return get(mForgotBond); }
    /// Every answer (connection, pairing, attributes) comes this much later.
    void setAnswerDelay(std::chrono::milliseconds delay) { set(mAnswerDelay, delay); }
    std::chrono::milliseconds answerDelay() const { return get(mAnswerDelay); }
    /// The attribute server stops answering, service discovery included.
    void setMute(bool mute) { set(mMute, mute); }
    bool mute() const { return get(mMute); }
    /// A stack announces it as soon as it advertises, even if no client scans (as if another program did).
    void setAnnouncesUnasked(bool announces) { set(mAnnouncesUnasked, announces); }
    bool announcesUnasked() const { return get(mAnnouncesUnasked); }

    // --- for the stack or the controller ---
    /// Present, in range and awake.
    bool reachable() const;
    /// Reachable and not connected.
    bool advertising() const;
    /// False if it is unreachable or already connected.
    bool connect();
    /// The peer ends the link.
    void disconnect();
    bool connected() const { return get(mCondition.connected); }
    /// Answers the pairing request; with Willing it is paired afterwards, with DropsLink the link is gone.
    Pairing pair();
    GattTable services() const { return get(mOptions.services); }
    void setServices(GattTable services) { set(mOptions.services, std::move(services)); }
    /// `handle` is a value or descriptor handle. Not connected answers LinkLost.
    AttReply read(std::uint16_t handle);
    AttReply write(std::uint16_t handle, const Bytes& value, WriteKind kind = WriteKind::Request);
    /// Turns a characteristic's notifications on or off, as a write to its client configuration does.
    AttReply subscribe(std::uint16_t valueHandle, bool on);
    bool subscribed(std::uint16_t valueHandle) const;

    // --- for its firmware ---
    /// Value handle of the first characteristic of that UUID, 0 if there is none.
    std::uint16_t handleOf(const std::string& uuid) const;
    Bytes value(std::uint16_t handle) const;
    void setValue(std::uint16_t handle, Bytes value);
    /// Sets the value and, if a peer is subscribed, notifies it.
    void notify(std::uint16_t valueHandle, const Bytes& value);
    /// Called to answer instead of the stored value; an empty hook restores that.
    void onRead(std::uint16_t handle, ReadHook hook) { setHook(mReadHooks, handle, std::move(hook)); }
    /// Called instead of storing the value; an empty hook restores that.
    void onWrite(std::uint16_t handle, WriteHook hook) { setHook(mWriteHooks, handle, std::move(hook)); }
    /// Called when notifications are turned on or off; a refusal leaves them unchanged.
    void onSubscribe(std::uint16_t valueHandle, SubscribeHook hook)
    {
        setHook(mSubscribeHooks, valueHandle, std::move(hook));
    }

    /// The listener is held weakly.
    void addListener(const std::shared_ptr<PeripheralListener>& listener);

private:
    using Notice = std::function<void(PeripheralListener&)>;
    struct Condition {
        bool present = true;
        bool inRange = true;
        bool asleep = false;
        bool connected = false;
    };

    template <typename Value>
    Value get(const Value& member) const
    {
        const std::lock_guard lock(mMutex);
        return member;
    }
    template <typename Value>
    void set(Value& member, Value value)
    {
        const std::lock_guard lock(mMutex);
        member = std::move(value);
    }
    template <typename Hook>
    using Hooks = std::map<std::uint16_t, Hook>; ///< by handle
    template <typename Hook>
    void setHook(Hooks<Hook>& hooks, std::uint16_t handle, Hook hook)
    {
        const std::lock_guard lock(mMutex);
        hooks[handle] = std::move(hook);
    }
    template <typename Hook>
    static Hook find(const Hooks<Hook>& hooks, std::uint16_t handle)
    {
        const auto found = hooks.find(handle);
        return found != hooks.end() ? found->second : Hook{};
    }

    void change(bool Condition::*member, bool value);
    /// Edits the condition and notifies the listeners of what changed.
    void change(const std::function<void(Condition&)>& edit);
    void tell(const Notice& notice);
    bool reachableLocked() const;
    /// What characteristics and descriptors have in common; null if nothing has that handle.
    struct Attribute {
        std::vector<std::string>* flags = nullptr;
        Bytes* value = nullptr;
    };
    Attribute findLocked(std::uint16_t handle);
    AttReply checkLocked(std::uint16_t handle, const std::vector<std::string>& flags, std::uint8_t refusal);
    AttReply delayed(AttReply reply) const;

    mutable std::mutex mMutex;
    PeripheralOptions mOptions;
    Condition mCondition;
    Pairing mPairing = Pairing::Willing;
    bool mForgotBond = false;
    bool mMute = false;
    bool mAnnouncesUnasked = false;
    std::chrono::milliseconds mAnswerDelay{0};
    std::set<std::uint16_t> mSubscribed;
    Hooks<ReadHook> mReadHooks;
    Hooks<WriteHook> mWriteHooks;
    Hooks<SubscribeHook> mSubscribeHooks;
    std::vector<std::weak_ptr<PeripheralListener>> mListeners;
};

} // namespace vexasim
