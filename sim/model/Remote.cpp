// SPDX-License-Identifier: MIT
#include "sim/model/Remote.h"

#include <utility>

namespace vexasim
{

namespace uuid
{
const std::string kBatteryService = uuid128(0x180f);
const std::string kBatteryLevel = uuid128(0x2a19);
const std::string kVendorService = uuid128(0xffd0);
const std::string kVersion = uuid128(0xffd3);
const std::string kSwitch = uuid128(0xffd1);
const std::string kUpdateService = "0000d0ff-3c17-d293-8e48-14fe2e4da212";
const std::string kControlPoint = "00006487-3c17-d293-8e48-14fe2e4da212";
const std::string kData = "00006387-3c17-d293-8e48-14fe2e4da212";
const std::string kGenericAccess = uuid128(0x1800);
const std::string kDeviceName = uuid128(0x2a00);
const std::string kClientConfiguration = uuid128(0x2902);
} // namespace uuid

namespace
{
constexpr std::uint16_t kAppearanceUuid = 0x2a01;
constexpr std::uint16_t kRemoteControlAppearance = 0x0180;

// The handles of the remote's attributes. The battery's give the object names service0010, char0011
// and desc0013.
constexpr std::uint16_t kGenericAccessHandle = 0x0001;
constexpr std::uint16_t kBatteryHandle = 0x0010;
constexpr std::uint16_t kVendorHandle = 0x0020;
constexpr std::uint16_t kUpdateHandle = 0x0010;
constexpr std::uint16_t kDataHandle = 0x0014;

GattCharacteristic characteristic(std::uint16_t handle, const std::string& uuid,
                                  const std::vector<std::string>& flags, Bytes value = {})
{
    GattCharacteristic result;
    result.handle = handle;
    result.valueHandle = static_cast<std::uint16_t>(handle + 1);
    result.uuid = uuid;
    result.flags = flags;
    result.value = std::move(value);
    if (result.has("notify")) {
        GattDescriptor configuration;
        configuration.handle = static_cast<std::uint16_t>(handle + 2);
        configuration.uuid = uuid::kClientConfiguration;
        configuration.value = {0, 0};
        configuration.flags = {"read", "write"};
        result.descriptors.push_back(configuration);
    }
    return result;
}

GattService service(std::uint16_t handle, std::uint16_t endHandle, const std::string& uuid,
                    std::vector<GattCharacteristic> characteristics)
{
    GattService result;
    result.handle = handle;
    result.endHandle = endHandle;
    result.uuid = uuid;
    result.characteristics = std::move(characteristics);
    return result;
}

GattService genericAccess(const std::string& name)
{
    const Bytes appearance = {kRemoteControlAppearance & 0xff, kRemoteControlAppearance >> 8};
    return service(kGenericAccessHandle, 0x0005, uuid::kGenericAccess,
                   {characteristic(0x0002, uuid::kDeviceName, {"read"}, Bytes(name.begin(), name.end())),
                    characteristic(0x0004, uuid128(kAppearanceUuid), {"read"}, appearance)});
}

GattTable normalTable(const RemoteOptions& options)
{
    GattTable table = {genericAccess(options.name)};
    if (options.batteryService) {
        table.push_back(
            service(kBatteryHandle, 0x0013, uuid::kBatteryService,
                    {characteristic(0x0011, uuid::kBatteryLevel, {"read", "notify"}, options.battery)}));
    }
    if (options.vendorService) {
        table.push_back(service(kVendorHandle, 0x0024, uuid::kVendorService,
                                {characteristic(0x0021, uuid::kVersion, {"read"}, options.version),
                                 characteristic(0x0023, uuid::kSwitch, {"write"})}));
    }
    return table;
}

std::shared_ptr<Peripheral> makeNormal(const RemoteOptions& options)
{
    PeripheralOptions normal;
    normal.address = options.address;
    normal.name = options.name;
    normal.rssi = options.rssi;
    normal.paired = options.paired;
    normal.services = normalTable(options);
    return std::make_shared<Peripheral>(normal);
}

std::shared_ptr<Peripheral> makeUpdate(const RemoteOptions& options)
{
    PeripheralOptions update;
    update.address = options.updateAddress;
    update.name = options.updateName;
    update.rssi = options.rssi;
    auto peripheral = std::make_shared<Peripheral>(update);
    peripheral->setPresent(false);
    return peripheral;
}

Bytes littleEndian(std::uint16_t value)
{
    return {static_cast<std::uint8_t>(value & 0xff), static_cast<std::uint8_t>(value >> 8)};
}

std::uint16_t runningVersion(const Bytes& bytes)
{
    unsigned version = 0;
    for (std::size_t i = 0; i < bytes.size() && i < 2; ++i) {
        version |= unsigned{bytes[i]} << (8 * i);
    }
    return static_cast<std::uint16_t>(version);
}
} // namespace

std::shared_ptr<Remote> Remote::create(const RemoteOptions& options)
{
    std::shared_ptr<Remote> remote(new Remote(options));
    remote->buildHooks();
    return remote;
}

Remote::Remote(const RemoteOptions& options)
    : mOptions(options), mNormal(makeNormal(options)), mUpdate(makeUpdate(options)), mReceiver(options.key)
{
    mUpdate->setServices(updateTable({}));
    mReceiver.setRunningImage(runningVersion(options.version), 0);
}

GattTable Remote::updateTable(const UpdateAppearance& appearance) const
{
    std::vector<GattCharacteristic> characteristics;
    if (!appearance.withoutControlPoint) {
        characteristics.push_back(characteristic(0x0011, uuid::kControlPoint, {"write", "notify"}));
    }
    if (!appearance.withoutData) {
        characteristics.push_back(characteristic(kDataHandle, uuid::kData, mOptions.dataFlags));
    }
    return {genericAccess(mOptions.updateName),
            service(kUpdateHandle, 0x0015, uuid::kUpdateService, std::move(characteristics))};
}

void Remote::buildHooks()
{
    // Weak, since a stack may keep a peripheral longer than its remote.
    const std::weak_ptr<Remote> weak = weak_from_this();
    const auto hook = [weak](auto action) {
        return [weak, action](const Bytes& bytes) {
            const auto remote = weak.lock();
            return remote ? action(*remote, bytes) : AttReply::lost();
        };
    };
    mNormal->onWrite(mNormal->handleOf(uuid::kSwitch),
                     hook([](Remote& remote, const Bytes& bytes) { return remote.onSwitch(bytes); }));
    const std::uint16_t controlPoint = mUpdate->handleOf(uuid::kControlPoint);
    mUpdate->onWrite(controlPoint, hook([](Remote& remote, const Bytes& bytes) {
                         return remote.followUp(*remote.mUpdate, remote.mReceiver.commandWritten(bytes));
                     }));
    mUpdate->onWrite(mUpdate->handleOf(uuid::kData), hook([](Remote& remote, const Bytes& bytes) {
                         return remote.followUp(*remote.mUpdate, remote.mReceiver.dataWritten(bytes));
                     }));
    mUpdate->onSubscribe(controlPoint, [weak](bool on) {
        const auto remote = weak.lock();
        return remote ? remote->followUp(*remote->mUpdate, remote->mReceiver.notifySwitched(on))
                      : AttReply::lost();
    });
}

void Remote::setSchedule(Schedule schedule)
{
    std::lock_guard lock(mMutex);
    mSchedule = std::move(schedule);
}

void Remote::after(std::chrono::milliseconds delay, std::function<void(Remote&)> action)
{
    Schedule schedule;
    {
        std::lock_guard lock(mMutex);
        schedule = mSchedule;
    }
    if (!schedule) {
        return action(*this);
    }
    schedule(delay, [weak = weak_from_this(), action = std::move(action)] {
        if (const auto remote = weak.lock()) {
            action(*remote);
        }
    });
}

void Remote::setBatteryBytes(const Bytes& bytes)
{
    mNormal->notify(mNormal->handleOf(uuid::kBatteryLevel), bytes);
}

void Remote::setVersion(std::uint16_t version)
{
    setVersionBytes(littleEndian(version));
}

void Remote::setVersionBytes(const Bytes& bytes)
{
    mNormal->setValue(mNormal->handleOf(uuid::kVersion), bytes);
    mReceiver.setRunningImage(runningVersion(bytes), 0);
}

Bytes Remote::versionBytes() const
{
    return mNormal->value(mNormal->handleOf(uuid::kVersion));
}

void Remote::setUpdateAppearance(const UpdateAppearance& appearance)
{
    {
        std::lock_guard lock(mMutex);
        mAppearance = appearance;
    }
    mUpdate->setServices(updateTable(appearance));
    mUpdate->setAnnouncesUnasked(appearance.beforeScan);
    mUpdate->setAdvertisedName(appearance.nameless ? std::optional<std::string>{} : mOptions.updateName);
}

UpdateAppearance Remote::appearance() const
{
    std::lock_guard lock(mMutex);
    return mAppearance;
}

bool Remote::inUpdateMode() const
{
    return !mNormal->present();
}

void Remote::enterUpdateMode()
{
    mReceiver.begin();
    mNormal->setPresent(false);
    mUpdate->setPresent(!appearance().never);
}

void Remote::leaveUpdateMode(std::optional<std::uint16_t> version)
{
    if (version) {
        setVersion(*version);
    }
    mUpdate->setPresent(false);
    mNormal->setPresent(true);
}

AttReply Remote::onSwitch(const Bytes& bytes)
{
    const UpdateReceiver::Outcome outcome = mReceiver.switchWritten(bytes);
    if (!outcome.reset) {
        return followUp(*mNormal, outcome);
    }
    if (appearance().beforeScan) {
        // Before the answer, so that the peer can't scan first.
        mUpdate->setPresent(!appearance().never);
        mReceiver.begin();
        after(mOptions.switchTime, [](Remote& remote) { remote.mNormal->setPresent(false); });
        return followUp(*mNormal, outcome);
    }
    after(mOptions.switchTime, [](Remote& remote) {
        remote.mNormal->setPresent(false);
        remote.after(remote.mOptions.bootTime, [](Remote& same) { same.enterUpdateMode(); });
    });
    return followUp(*mNormal, outcome);
}

void Remote::sendAnswers(const UpdateReceiver::Outcome& outcome)
{
    const std::uint16_t controlPoint = mUpdate->handleOf(uuid::kControlPoint);
    for (const Bytes& answer : outcome.answers) {
        if (!mUpdate->subscribed(controlPoint)) {
            return;
        }
        mReceiver.answered(answer);
        mUpdate->notify(controlPoint, answer);
    }
}

AttReply Remote::followUp(Peripheral& written, const UpdateReceiver::Outcome& outcome)
{
    if (outcome.vanish) {
        written.setPresent(false);
        return AttReply::lost();
    }
    const std::chrono::milliseconds slow = written.answerDelay();
    // After the answer to the write, even when that is delayed.
    const std::chrono::milliseconds behind{slow.count() > 0 ? 1 : 0};
    if (!outcome.answers.empty()) {
        after(outcome.answerDelay + slow + behind,
              [outcome](Remote& remote) { remote.sendAnswers(outcome); });
    }
    if (outcome.reset && &written == mUpdate.get()) {
        after(mOptions.switchTime, [](Remote& remote) { remote.reset(); });
    }
    return outcome.reply;
}

void Remote::reset()
{
    mUpdate->setPresent(false);
    after(mOptions.bootTime, [](Remote& remote) {
        const auto header = remote.mReceiver.header();
        const bool renewed = remote.mReceiver.verified() && header.has_value();
        remote.leaveUpdateMode(renewed ? std::optional<std::uint16_t>{header->version} : std::nullopt);
    });
}

} // namespace vexasim
