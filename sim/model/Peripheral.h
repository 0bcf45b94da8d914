// SPDX-License-Identifier: MIT
#pragma once

#include "sim/model/Gatt.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vexasim
{

class Peripheral;

/// Hears of a peripheral what a radio would. Called without any lock held, on
/// the thread that caused the event; may call the peripheral back.
class PeripheralListener
{
public:
    virtual ~PeripheralListener() = default;
    /// It began or ceased to advertise, or advertises another name.
    virtual void onAdvertisingChanged(Peripheral&) {}
    virtual void onRssiChanged(Peripheral&) {}
    /// The link ended on the peripheral's side or by distance, not by Peripheral::disconnect.
    virtual void onLinkLost(Peripheral&) {}
    /// A notification to a subscribed peer, by value handle.
    virtual void onNotification(Peripheral&, uint16_t, const Bytes&) {}
};

/// What a peripheral is before anything happens to it.
struct PeripheralOptions {
    std::string address = "C0:FF:EE:00:00:01"; ///< upper case, with colons
    bool randomAddress = false;                ///< AddressType "random" instead of "public"
    std::optional<std::string> name;           ///< none: the advertisement carries no name
    uint16_t appearance = 0x0180;              ///< generic remote control
    int16_t rssi = -52;                        ///< dBm
    bool paired = false;                       ///< bonded before the story begins
    GattTable services;
};

/// One Bluetooth Low Energy peripheral as the air shows it: address, name,
/// signal strength, link, bond and attribute table. It has no D-Bus, no thread
/// and no clock: "faces" (the simulated BlueZ, the virtual controller) ask it and
/// hear of it as PeripheralListener. Every method may be called on any thread.
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

    // ---- who it is
    std::string address() const;
    bool randomAddress() const;
    /// The name in the advertisement, none if it carries none.
    std::optional<std::string> advertisedName() const;
    void setAdvertisedName(std::optional<std::string> name);
    /// The name in its own name characteristic (0x2a00), which a stack reads once connected.
    std::optional<std::string> ownName() const;
    uint16_t appearance() const;
    int16_t rssi() const;
    void setRssi(int16_t dBm);

    // ---- where it is and how it feels; each ends the link if that follows
    void leave();          ///< walks out of range
    void comeBack();       ///< walks into range
    void sleep();          ///< radio off to save the battery
    void wake();           ///< a key was pressed
    void setPresent(bool); ///< false: this personality isn't on the air at all
    void loseLink();       ///< the link ends, nothing else changes
    bool inRange() const;
    bool asleep() const;
    bool present() const;

    void setPairing(Pairing pairing);
    Pairing pairing() const;
    void setPaired(bool paired);
    bool paired() const;
    /// The bond is lost on this side only: a link to the bonded peer ends at once.
    void setForgotBond(bool forgot);
    bool forgotBond() const;
    /// Every answer (connection, pairing, attributes) comes this much later.
    void setAnswerDelay(std::chrono::milliseconds delay);
    std::chrono::milliseconds answerDelay() const;
    /// The attribute server answers nothing any more, service discovery included.
    void setMute(bool mute);
    bool mute() const;
    /// A stack announces it as soon as it advertises, without anyone scanning
    /// (as if some other program were).
    void setAnnouncesUnasked(bool announces);
    bool announcesUnasked() const;

    // ---- what a face asks
    /// Present, in range and awake.
    bool reachable() const;
    /// Reachable and not connected.
    bool advertising() const;
    /// False if it can't be reached or has a link already.
    bool connect();
    /// The peer ends the link.
    void disconnect();
    bool connected() const;
    /// Answers the pairing request; with Willing it is paired afterwards, with DropsLink the link is gone.
    Pairing pair();
    GattTable services() const;
    void setServices(GattTable services);
    /// `handle` is a value or descriptor handle. Not connected answers LinkLost.
    AttReply read(uint16_t handle);
    AttReply write(uint16_t handle, const Bytes& value, WriteKind kind = WriteKind::Request);
    /// Switches notifications of a characteristic by its value handle, as a
    /// write of its client configuration does.
    AttReply subscribe(uint16_t valueHandle, bool on);
    bool subscribed(uint16_t valueHandle) const;

    // ---- what the firmware behind it does
    /// Value handle of the first characteristic of that UUID, 0 if there is none.
    uint16_t handleOf(const std::string& uuid) const;
    Bytes value(uint16_t handle) const;
    void setValue(uint16_t handle, Bytes value);
    /// Sets the value and, if a peer is subscribed, notifies it.
    void notify(uint16_t valueHandle, const Bytes& value);
    /// Answer instead of the stored value; an empty hook restores it.
    void onRead(uint16_t handle, ReadHook hook);
    /// Called instead of storing the value; an empty hook restores that.
    void onWrite(uint16_t handle, WriteHook hook);
    /// Called when notifications are switched; a refusal leaves them as they are.
    void onSubscribe(uint16_t valueHandle, SubscribeHook hook);

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

    void change(const std::function<void(Condition&)>& edit);
    void tell(const Notice& notice);
    bool reachableLocked() const;
    GattCharacteristic* findLocked(uint16_t handle, GattDescriptor** descriptor);
    const GattCharacteristic* findLocked(uint16_t handle, const GattDescriptor** descriptor) const;
    AttReply checkLocked(uint16_t handle, const std::vector<std::string>& flags, uint8_t refusal) const;
    AttReply delayed(AttReply reply) const;

    mutable std::mutex mMutex;
    PeripheralOptions mOptions;
    std::optional<std::string> mOwnName;
    Condition mCondition;
    Pairing mPairing = Pairing::Willing;
    bool mForgotBond = false;
    bool mMute = false;
    bool mAnnouncesUnasked = false;
    std::chrono::milliseconds mAnswerDelay{0};
    std::set<uint16_t> mSubscribed;
    std::map<uint16_t, ReadHook> mReadHooks;
    std::map<uint16_t, WriteHook> mWriteHooks;
    std::map<uint16_t, SubscribeHook> mSubscribeHooks;
    std::vector<std::weak_ptr<PeripheralListener>> mListeners;
};

} // namespace vexasim
