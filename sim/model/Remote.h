// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "sim/model/Peripheral.h"
#include "sim/model/UpdateReceiver.h"

namespace vexasim
{

/// UUIDs that the remote offers, as BlueZ spells them.
namespace uuid
{
extern const std::string kBatteryService; ///< 0x180f
extern const std::string kBatteryLevel;   ///< 0x2a19
extern const std::string kVendorService;  ///< 0xffd0
extern const std::string kVersion;        ///< 0xffd3
extern const std::string kSwitch;         ///< 0xffd1
extern const std::string kUpdateService;
extern const std::string kControlPoint;
extern const std::string kData;
extern const std::string kGenericAccess;       ///< 0x1800
extern const std::string kDeviceName;          ///< 0x2a00
extern const std::string kClientConfiguration; ///< 0x2902
} // namespace uuid

/// How the remote appears after the switch to update mode.
struct UpdateAppearance {
    bool never = false;               ///< it stays off the air
    bool nameless = false;            ///< its advertisement carries no name
    bool beforeScan = false;          ///< it is announced before the switch write is answered
    bool withoutControlPoint = false; ///< it offers only the data characteristic
    bool withoutData = false;         ///< it offers only the control point
};

struct RemoteOptions {
    std::string name = "VEXA RC";
    std::string address = "C0:FF:EE:00:00:01";
    std::string updateName = "BeeTgt"; ///< mustn't begin with VEXA, or the box takes it for a remote
    std::string updateAddress = "C0:FF:EE:00:00:02";
    std::int16_t rssi = -52;
    bool paired = false;
    Bytes battery = {80};
    Bytes version = {0xa3, 0x01}; ///< little-endian, so 0x1a3
    bool batteryService = true;
    bool vendorService = true;
    /// BlueZ's flags of the data characteristic; with "write-without-response" alone BlueZ answers a write
    /// before the remote has received it.
    std::vector<std::string> dataFlags = {"write"};
    UpdateKey key = developmentKey();
    std::chrono::milliseconds switchTime{20}; ///< from the switch write to the end of the normal link
    std::chrono::milliseconds bootTime{50};   ///< off the air between the two personalities
};

/// The remote control: one device that appears as two peripherals. In normal mode normal() is present, with
/// battery level, version and update switch. After the switch byte, update() replaces it and receives the
/// image. A reset brings normal() back, with the new version if the image was verified. Every method may be
/// called on any thread.
class Remote : public std::enable_shared_from_this<Remote>
{
public:
    using Schedule = std::function<void(std::chrono::milliseconds, std::function<void()>)>;

    static std::shared_ptr<Remote> create(const RemoteOptions& options = {});
    Remote(const Remote&) = delete;
    Remote& operator=(const Remote&) = delete;

    /// Sets how the remote delays its actions; called by the owner of a scheduler. Without it everything
    /// happens at once.
    void setSchedule(Schedule schedule);

    const std::shared_ptr<Peripheral>& normal() const { return mNormal; }
    const std::shared_ptr<Peripheral>& update() const { return mUpdate; }
    UpdateReceiver& receiver() { return mReceiver; }
    const RemoteOptions& options() const { return mOptions; }

    // --- events and settings, of both personalities ---
    void leave() { both(&Peripheral::leave); }
    void comeBack() { both(&Peripheral::comeBack); }
    void sleep() { both(&Peripheral::sleep); }
    void wake() { both(&Peripheral::wake); }
    void loseLink() { both(&Peripheral::loseLink); }
    void setRssi(std::int16_t dBm) { both(&Peripheral::setRssi, dBm); }
    void setPairing(Peripheral::Pairing pairing) { both(&Peripheral::setPairing, pairing); }
    void setAnswerDelay(std::chrono::milliseconds delay) { both(&Peripheral::setAnswerDelay, delay); }
    /// Percent; notifies a subscribed peer as a real remote does.
    void setBattery(std::uint8_t percent) { setBatteryBytes({percent}); }
    /// Any bytes, also of a wrong size.
    void setBatteryBytes(const Bytes& bytes);
    /// Two bytes, little-endian.
    void setVersion(std::uint16_t version);
    /// Any bytes, also of a wrong size.
    void setVersionBytes(const Bytes& bytes);
    Bytes versionBytes() const;

    // --- the update ---
    void setUpdateAppearance(const UpdateAppearance& appearance);
    bool inUpdateMode() const;
    /// Like the switch byte, but at once.
    void enterUpdateMode();
    /// Like the reset command, but at once; `version`, if given, replaces the old one.
    void leaveUpdateMode(std::optional<std::uint16_t> version = {});

private:
    explicit Remote(const RemoteOptions& options);
    template <typename... Values>
    void both(void (Peripheral::*change)(Values...), Values... values)
    {
        (mNormal.get()->*change)(values...);
        (mUpdate.get()->*change)(values...);
    }
    void buildHooks();
    GattTable updateTable(const UpdateAppearance& appearance) const;
    void after(std::chrono::milliseconds delay, std::function<void(Remote&)> action);
    AttReply followUp(Peripheral& written, const UpdateReceiver::Outcome& outcome);
    UpdateAppearance appearance() const;
    AttReply onSwitch(const Bytes& bytes);
    void sendAnswers(const UpdateReceiver::Outcome& outcome);
    void reset();

    RemoteOptions mOptions;
    std::shared_ptr<Peripheral> mNormal;
    std::shared_ptr<Peripheral> mUpdate;
    UpdateReceiver mReceiver;
    mutable std::mutex mMutex;
    Schedule mSchedule;
    UpdateAppearance mAppearance;
};

} // namespace vexasim
