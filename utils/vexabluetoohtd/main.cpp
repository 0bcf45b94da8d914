// SPDX-License-Identifier: MIT
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <unistd.h>

#include "App.h"
#include "BoxFiles.h"
#include "NSRegExp.h"
#include "OtaFormat.h"
#include "Printable.h"
#include "RcuOtaUpdater.h"
#include "STBLogger.h"

namespace
{

constexpr const char* kStatusFile = "/tmp/bluetooth_status";
constexpr const char* kRcFile = "/tmp/bluetooth_rc";
constexpr const char* kRssiFile = "/tmp/bluetooth_rc_rssi";
constexpr const char* kBatteryFile = "/tmp/bluetooth_rc_battery";
constexpr const char* kFwVersionFile = "/tmp/bluetooth_rc_fw_version";
constexpr const char* kPairFlag = "/tmp/bluetooth_pair";
constexpr const char* kResetFlag = "/tmp/bluetooth_reset";
constexpr const char* kFirmwareLink = "/tmp/bluetooth_rc_fw";
constexpr std::size_t kLinkBufferSize = 4096;

constexpr const char* kButtonFile = "/sys/class/saradc/saradc_ch0";
constexpr int kButtonStartLevel = 1024;   // used when the file can't be opened: released
constexpr int kButtonReleasedAbove = 900; // 900 itself is pressed
constexpr std::time_t kButtonHoldSec = 1; // exceeded by whole seconds, so held for at least 2

constexpr long long kPassIntervalUs = 499999; // exceeded from the start of one pass to the next
constexpr useconds_t kPassPollUs = 100000;

constexpr useconds_t kAdapterPollUs = 500000;
constexpr std::time_t kRcStartupSec = 4; // exceeded by whole seconds
constexpr useconds_t kRcPollUs = 100000;

constexpr std::time_t kReconnectSec = 3600;

constexpr std::time_t kScanSec = 59;   // exceeded by whole seconds
constexpr std::time_t kPairingSec = 9; // exceeded by whole seconds
constexpr unsigned int kWaitSliceMs = 100;

constexpr std::time_t kReadingIntervalSec = 10800;
constexpr std::uint16_t kLowestLevel = 1;
constexpr std::uint16_t kHighestLevel = 100;
constexpr std::size_t kLongestVersion = 4; // bytes

constexpr std::uint16_t kLowestUpdateLevel = 16;
constexpr unsigned int kUpdatePauseSec = 3;

constexpr const char* kFwVersionUuid = "0000ffd3-0000-1000-8000-00805f9b34fb";
constexpr const char* kOtaUuid = "0000ffd1-0000-1000-8000-00805f9b34fb";

// Set by the second interrupt, whose exit handlers run while the event thread is still running.
bool endingAtOnce = false;

std::time_t secondsSince(const NSTime& start)
{
    return (NSTime::nowRelative() - start).toTimeT();
}

void removeFile(const char* path)
{
    LOG_WARN("REMOVE %s", path);
    std::remove(path);
}

// Consumes a flag of the box; returns whether it was set.
bool takeFlag(const char* path)
{
    if (!box_files::isReadable(path)) {
        return false;
    }
    removeFile(path);
    return true;
}

std::string firstOf(const std::vector<std::string>& paths)
{
    return paths.empty() ? std::string() : paths.front();
}

void eraseAll(std::vector<std::string>& paths, const std::string& path)
{
    paths.erase(std::remove(paths.begin(), paths.end(), path), paths.end());
}

} // namespace

std::unique_ptr<App> gApp;

void writeFile(const std::string& text, const std::string& path)
{
    if (text.empty() || path.empty()) {
        return;
    }
    box_files::writeLine(text, path);
}

// --- Start and stop ---

App::App() = default;

App::~App()
{
    if (!endingAtOnce) {
        return;
    }
    // The event thread still uses the members below and may be in a bus call for longer than the user should
    // wait, and the interrupted thread may itself be waiting on a condition. So don't join the event thread
    // and don't destroy anything it uses. This is the last exit handler, so nothing is lost.
    if (mLocked) {
        mMutex.~mutex(); // Kept: destroying a mutex that is held fails its check, which ends the process
    }
    _exit(EXIT_FAILURE);
}

void App::init()
{
    mBluez = std::make_shared<Bluez>(this); // handlers may run before this is stored
    writeFile("init", kStatusFile);
    waitForAdapter();
    waitForRc();
}

void App::waitForAdapter()
{
    while (!mAdapterReady && mRunning) {
        std::string path;
        std::optional<std::string> address;
        if (!findAdapter(path, address)) {
            LOG_DEBUG("Waiting adapter...");
            usleep(kAdapterPollUs);
            continue;
        }
        // Kept: if the adapter refuses, it is retried at once, paced only by the calls on the bus.
        powerAdapter(path, address);
    }
}

// The first adapter, and its address if available. No adapter is removed between the two.
bool App::findAdapter(std::string& path, std::optional<std::string>& address)
{
    std::string text;
    RemovalGate& removals = mBluez->removals();
    const pthread_helper::scoped_lock hold(removals.hold());
    Lock lock(*this, Lock::MainThread);
    path = firstOf(mAdapters);
    const bool usable = !removals.isGoing(path); // checked before a waiting handler can end the removal
    lock.unlock();
    if (usable && mBluez->adapterGetAddress(path, text)) {
        address = text;
    }
    return !path.empty();
}

void App::powerAdapter(const std::string& path, const std::optional<std::string>& address)
{
    if (address) {
        LOG_INFO("Adapter %s found", Printable(*address).text());
    }
    if (mBluez->adapterSetPowered(path, true)) {
        LOG_INFO("Adapter powered");
        mAdapterReady = true;
    }
}

void App::waitForRc()
{
    LOG_DEBUG("Waiting RC...");
    const NSTime start = NSTime::nowRelative();
    while (secondsSince(start) <= kRcStartupSec && mRunning) {
        if (bringUpRc()) {
            return;
        }
        usleep(kRcPollUs);
    }
}

// True when there is nothing more to wait for.
bool App::bringUpRc()
{
    const Section section(*this);
    if (mRc.path.empty() || section.isGoing(mRc.path)) {
        return false;
    }
    mBluez->deviceGetAddress(mRc.path, mRc.address);
    mBluez->deviceGetPaired(mRc.path, mRc.paired);
    mBluez->deviceGetConnected(mRc.path, mRc.connected);
    LOG_DEBUG("RC %s found", Printable(mRc.address).text());
    if (!mRc.paired) {
        return false;
    }
    if (mRc.connected) {
        return true;
    }
    LOG_DEBUG("RC %s is paired and disconnected. Trying to reconnect...", Printable(mRc.address).text());
    return mBluez->deviceConnect(mRc.path);
}

void App::deinit()
{
    // Kept: without mMutex. The reset waits for a handler in progress.
    std::shared_ptr<Bluez> client;
    client.swap(mBluez);
    client.reset();

    for (const char* path : {kStatusFile, kRcFile, kRssiFile, kBatteryFile, kFwVersionFile}) {
        removeFile(path);
    }
}

// --- Main loop ---

void App::process()
{
    LOG_DEBUG("process loop start");
    State state = State_eIdle;
    NSTime lastPass;
    NSTime pressStart;
    while (mRunning) {
        const bool due = (NSTime::nowRelative() - lastPass).toInt64() > kPassIntervalUs;
        mMayUpdate = due && state == State_eIdle; // set before mRunning is read, lest an update miss events
        if (!due || !mRunning) {
            usleep(kPassPollUs);
            continue;
        }
        lastPass = NSTime::nowRelative();
        // Text that isn't a number gives 0, which means pressed; an empty file means released.
        const int buttonLevel = box_files::readNumber(kButtonFile, kButtonStartLevel);
        switch (state) {
        case State_eIdle:
            state = idle(buttonLevel, pressStart);
            break;
        case State_eActivation:
            state = activate(buttonLevel, pressStart);
            break;
        case State_ePair:
            pair();
            LOG_INFO("Transiting to Idle...");
            state = State_eIdle;
            break;
        }
    }
}

State App::idle(int buttonLevel, NSTime& pressStart)
{
    LOG_TRACE("IDLING...");
    const State next = serveRequests();
    if (buttonLevel > kButtonReleasedAbove) {
        return next;
    }
    LOG_INFO("Button pressed, transiting to Activation");
    pressStart = NSTime::nowRelative();
    return State_eActivation; // overrides a pairing that was requested in this pass
}

State App::activate(int buttonLevel, const NSTime& pressStart)
{
    LOG_TRACE("ACTIVATING...");
    if (buttonLevel > kButtonReleasedAbove) {
        LOG_INFO("Button released transiting to Idle");
        return State_eIdle;
    }
    if (secondsSince(pressStart) > kButtonHoldSec) {
        LOG_INFO("Button was held for 2 secs, transiting to Pairing");
        return State_ePair;
    }
    return State_eActivation;
}

// --- The requests of the box ---

State App::serveRequests()
{
    switch (whatToDo()) {
    case Action_eConnect:
        connectRc();
        break;
    case Action_ePair:
        LOG_INFO("Pairing flag set, transiting to Pair");
        return State_ePair;
    case Action_eUpdate:
        processUpdate();
        break;
    case Action_eRemoveDevice:
        removeUnpairedRc();
        break;
    case Action_eDoNothing:
    default:
        LOG_TRACE("Do Action_eDoNothing");
        writeStatus();
        break;
    }
    return State_eIdle;
}

Action App::whatToDo()
{
    const bool pairFlag = takeFlag(kPairFlag);
    if (takeFlag(kResetFlag)) {
        mMayUpdate = false;
        return Action_ePair;
    }
    if (takeFirmwareLink()) {
        return Action_eUpdate; // Kept: a pair flag that was taken in this pass is lost
    }
    return whatToDoWithRc(pairFlag);
}

// Consumes the link to an image, not the image; returns whether there was one.
bool App::takeFirmwareLink()
{
    std::array<char, kLinkBufferSize> target{};
    // Kept: a target that fills the buffer isn't null-terminated; targets must be shorter.
    const ssize_t length = readlink(kFirmwareLink, target.data(), target.size());
    mMayUpdate = length > 0;
    if (length <= 0) {
        return false;
    }
    const std::string path(target.data(), strnlen(target.data(), target.size()));
    LOG_DEBUG("Firmware symlink found: %s", Printable(path).text());
    LOG_WARN("REMOVE: %s", kFirmwareLink);
    std::remove(kFirmwareLink);
    mFirmwarePath = path;
    return true;
}

Action App::whatToDoWithRc(bool pairFlag)
{
    const Section section(*this);
    if (mRc.path.empty()) {
        return pairFlag ? Action_ePair : Action_eDoNothing;
    }
    if (section.isGoing(mRc.path)) {
        return Action_eDoNothing;
    }
    mBluez->deviceGetPaired(mRc.path, mRc.paired);
    mBluez->deviceGetConnected(mRc.path, mRc.connected);
    if (!mRc.paired) {
        return Action_eRemoveDevice; // whether or not the pair flag was set
    }
    if (mRc.connected) {
        // The pair flag is dropped: only the reset flag makes a connected remote pair again.
        mReconnectArmed = false;
        return Action_eDoNothing;
    }
    return whatToDoWithAbsentRc(pairFlag);
}

// A paired remote that has disconnected is left alone for an hour, unless the pair flag is set. Called under
// mMutex.
Action App::whatToDoWithAbsentRc(bool pairFlag)
{
    if (pairFlag) {
        mReconnectArmed = false;
        return Action_eConnect;
    }
    if (!mReconnectArmed) {
        mReconnectArmed = true;
        mReconnectSince = NSTime::nowRelative();
        return Action_eDoNothing;
    }
    if (secondsSince(mReconnectSince) < kReconnectSec) {
        return Action_eDoNothing;
    }
    mReconnectArmed = false;
    return Action_eConnect;
}

void App::connectRc()
{
    writeFile("connecting", kStatusFile);
    // Held during the call on the bus, so that the remote stays the one named in the log.
    const Section section(*this);
    LOG_INFO("Trying to connect to %s", Printable(mRc.address).text());
    if (!section.isGoing(mRc.path)) {
        mBluez->deviceConnect(mRc.path);
    }
}

void App::removeUnpairedRc()
{
    LOG_WARN("Removing failed to pair device");
    const Section section(*this);
    if (section.hasAdapter()) {
        // mRc is cleared when BlueZ reports the removal.
        mBluez->adapterRemoveDevice(mAdapters.front(), mRc.path);
    }
}

// --- Pairing ---

void App::pair()
{
    LOG_DEBUG("Pairing...");
    if (mAdapterReady) {
        forgetAllDevices();
    }
    {
        const Lock lock(*this, Lock::MainThread);
        mRc = RcInfo();
    }
    std::remove(kRcFile);
    if (!startScan()) {
        LOG_ERROR("Switching scan on failed");
        return;
    }
    writeFile("scanning", kStatusFile);
    await(mRcFoundCond, NSTime::nowRelative(), kScanSec, &App::rcFound);
    if (!stopScan() || !reportScan()) {
        return;
    }
    const NSTime pairStart = NSTime::nowRelative();
    if (!requestPairing()) {
        return;
    }
    writeFile("pairing", kStatusFile);
    await(mRcPairedCond, pairStart, kPairingSec, &App::rcPaired);
    reportPairing();
}

void App::forgetAllDevices()
{
    LOG_DEBUG("Removing all devices...");
    const Section section(*this);
    for (const std::string& path : mDevices) {
        LOG_INFO("Removing device %s", path.c_str());
        if (section.hasAdapter()) {
            mBluez->adapterRemoveDevice(mAdapters.front(), path);
        }
    }
}

bool App::startScan()
{
    LOG_DEBUG("Scanning on");
    const Section section(*this);
    return section.hasAdapter() && mBluez->adapterScanOn(mAdapters.front());
}

// False if there is no adapter left to pair with.
bool App::stopScan()
{
    LOG_DEBUG("Scanning off");
    const Section section(*this);
    if (!section.hasAdapter()) {
        LOG_ERROR("Switching scan off failed");
        return false;
    }
    // Kept: the test is reversed. Readers of the log see this line after every scan.
    if (mBluez->adapterScanOff(mAdapters.front())) {
        LOG_ERROR("Switching scan off failed");
    }
    return true;
}

bool App::reportScan()
{
    const Section section(*this); // the next step looks the path up without any lock
    if (mRc.path.empty()) {
        LOG_WARN("VEXA RC not found");
        return false;
    }
    LOG_INFO("VEXA RC %s found. Trying to pair...", Printable(mRc.address).text());
    return true;
}

bool App::requestPairing()
{
    // Kept: read without mMutex, which must not be held while devicePair polls.
    const std::string path = mRc.path;
    if (path.empty()) {
        LOG_ERROR("Broken VEXA RC handle. Returning from pairing.");
        return false;
    }
    if (!mBluez->devicePair(path)) {
        LOG_ERROR("Device pairing call has failed");
        return false;
    }
    return true;
}

// Waits until `reached` holds, more than `limit` whole seconds have passed since `start`, or the daemon is
// stopped. A signal sent while nobody waits is lost, which costs one slice at most.
void App::await(pthread_helper::cond& condition, const NSTime& start, std::time_t limit,
                bool (App::*reached)() const)
{
    while (mRunning && secondsSince(start) <= limit) {
        const Lock lock(*this, Lock::MainThread);
        if ((this->*reached)()) {
            return;
        }
        mLocked = false;
        const bool signalled = condition.timedWait(mMutex, kWaitSliceMs) == 0;
        mLocked = true;
        if (signalled && (this->*reached)()) {
            return;
        }
    }
}

bool App::rcFound() const
{
    return !mRc.path.empty();
}

bool App::rcPaired() const
{
    return mRc.paired;
}

void App::reportPairing()
{
    const Lock lock(*this, Lock::MainThread);
    if (mRc.path.empty()) {
        LOG_ERROR("Broken VEXA RC handle");
    } else if (mRc.paired) {
        LOG_INFO("VEXA RC %s has been successfully paired", Printable(mRc.address).text());
    } else {
        LOG_WARN("VEXA RC %s hasn't been paired", Printable(mRc.address).text());
    }
}

// --- Events from BlueZ; event thread ---

void App::onAdapterAdded(const std::string& path)
{
    LOG_DEBUG("Adapter: + %s", path.c_str());
    const Lock lock(*this, Lock::Handler);
    mAdapters.push_back(path);
}

void App::onAdapterRemoved(const std::string& path)
{
    LOG_DEBUG("Adapter: - %s", path.c_str());
    const Lock lock(*this, Lock::Handler);
    eraseAll(mAdapters, path);
}

void App::onDeviceAdded(const std::string& path)
{
    LOG_DEBUG("Device: + %s", path.c_str());
    const Lock lock(*this, Lock::Handler);
    mDevices.push_back(path);

    NSRegExp pattern(ota_format::kRemoteNamePattern, REG_EXTENDED);
    std::string name;
    std::string address;
    // Not mBluez, which init may not have stored yet, and which deinit empties without the lock.
    Bluez& client = Bluez::ofThisThread();
    client.deviceGetName(path, name);
    client.deviceGetAddress(path, address);
    if (!mRunning && !mMayUpdate) {
        client.stopEvents(); // interrupted: the next name request may go unanswered, too
    }
    std::vector<std::string> groups;
    if (!pattern.match(name, groups, 0)) {
        return; // and isn't checked again, even if its name becomes known
    }
    LOG_DEBUG("RC found %s : %s", Printable(name).text(), path.c_str());
    // The last one added is the remote, whatever was known before.
    mRc = RcInfo();
    mRc.path = path;
    mRc.address = address;
    mRc.name = name;
    mRcFoundCond.signal();
}

void App::onDeviceRemoved(const std::string& path)
{
    LOG_DEBUG("Device: - %s", path.c_str());
    const Lock lock(*this, Lock::Handler);
    eraseAll(mDevices, path);
    if (path != mRc.path) {
        return;
    }
    mRc = RcInfo();
    removeFile(kRcFile);
    mReconnectArmed = false;
}

void App::onDeviceRSSIChanged(const std::string& path, std::int16_t dBm)
{
    LOG_DEBUG("Device \"%s\" rssi changed to %d", path.c_str(), dBm);
}

void App::onDevicePairedStatusChanged(const std::string& path, bool paired)
{
    LOG_DEBUG("Device %s %s", path.c_str(), paired ? "paired" : "unpaired");
    const Lock lock(*this, Lock::Handler);
    if (path == mRc.path) {
        mRc.paired = paired;
        mRcPairedCond.signal();
    }
}

void App::onDeviceConnectionStatusChanged(const std::string& path, bool connected)
{
    const Lock lock(*this, Lock::Handler);
    if (path != mRc.path) {
        return;
    }
    LOG_DEBUG("VEXA RC connection status changed: %s", connected ? "connected" : "disconnected");
    mRc.connected = connected;
    if (connected) {
        mBattery = BatteryInfo();
    } else {
        mBattery.shouldRead = false;
        removeFile(kBatteryFile);
    }
}

void App::onDeviceServicesResolvedStatusChanged(const std::string& path, bool resolved)
{
    const Lock lock(*this, Lock::Handler);
    if (path == mRc.path) {
        LOG_DEBUG("VEXA RC services resolved status changed: %s", resolved ? "resolved" : "unresolved");
    }
}

void App::onServiceAdded(const std::string& path, const Bluez::Service& service)
{
    const Lock lock(*this, Lock::Handler);
    if (!mRc.path.empty() && service.parent == mRc.path && service.type == Bluez::Service::Type::Battery) {
        LOG_DEBUG("Battery service resolved");
        mRc.hasBatteryService = true;
        mRc.batteryServicePath = path;
    }
}

void App::onServiceRemoved(const std::string& path)
{
    const Lock lock(*this, Lock::Handler);
    if (path != mRc.batteryServicePath) {
        return;
    }
    LOG_DEBUG("Battery service removed");
    mRc.hasBatteryService = false;
    mRc.batteryServicePath.clear();
    mRc.batteryLevelPath.clear();
    mBattery = BatteryInfo();
    removeFile(kBatteryFile);
}

void App::onCharacteristicAdded(const std::string& path, const Bluez::Service::Characteristic& characteristic)
{
    const Lock lock(*this, Lock::Handler);
    // Any characteristic of the battery service counts as the level, and the last one wins.
    if (mRc.hasBatteryService && characteristic.parent == mRc.batteryServicePath) {
        LOG_DEBUG("Battery level characteristic resolved");
        mRc.batteryLevelPath = path;
        mBattery = BatteryInfo();
    }
    // Kept: these two don't check whose characteristic it is; only the remote is expected to have them.
    if (characteristic.uuid == kFwVersionUuid) {
        mRc.fwVersionPath = characteristic.path;
    }
    if (characteristic.uuid == kOtaUuid) {
        mRc.otaPath = characteristic.path;
    }
}

void App::onCharacteristicRemoved(const std::string& path)
{
    const Lock lock(*this, Lock::Handler);
    if (mRc.hasBatteryService && path == mRc.batteryLevelPath) {
        LOG_DEBUG("Batter level characteristic removed");
        mRc.batteryLevelPath.clear();
        mBattery = BatteryInfo();
    }
    if (path == mRc.fwVersionPath) {
        mRc.fwVersionPath.clear();
        std::remove(kFwVersionFile);
    }
    if (path == mRc.otaPath) {
        mRc.otaPath.clear();
    }
}

void App::onDescriptorAdded(const std::string& path,
                            const Bluez::Service::Characteristic::Descriptor& /*descriptor*/)
{
    LOG_DEBUG("+GATT Descriptor: %s", path.c_str());
}

void App::onDescriptorRemoved(const std::string& path)
{
    LOG_DEBUG("-GATT Descriptor: %s", path.c_str());
}

// --- Status files ---

void App::writeStatus()
{
    const Section section(*this);
    if (mRc.path.empty()) {
        std::remove(kRcFile);
        writeFile("no device", kStatusFile);
        return;
    }
    if (section.isGoing(mRc.path)) {
        return;
    }
    if (!refreshRc()) {
        writeFile("error", kStatusFile);
        return;
    }
    publishRc();
    scheduleReading();
    if (readingDue()) {
        readBattery(section);
        readFwVersion(section);
    }
}

// Reads all three properties, even if the first fails.
bool App::refreshRc()
{
    const bool hasAddress = mBluez->deviceGetAddress(mRc.path, mRc.address);
    const bool hasPaired = mBluez->deviceGetPaired(mRc.path, mRc.paired);
    const bool hasConnected = mBluez->deviceGetConnected(mRc.path, mRc.connected);
    return hasAddress && hasPaired && hasConnected;
}

void App::publishRc() const
{
    if (!mRc.paired) {
        writeFile("not paired", kStatusFile);
        return;
    }
    writeFile(mRc.address, kRcFile);
    writeFile(mRc.connected ? "connected" : "disconnected", kStatusFile);
}

// Schedules a reading three hours after the last one, or if there was none; it starts after its delay.
void App::scheduleReading()
{
    const bool never = mBattery.lastRead.toInt64() == 0;
    if ((secondsSince(mBattery.lastRead) <= kReadingIntervalSec && !never) || !mRc.connected) {
        return;
    }
    const std::time_t wait = secondsSince(mBattery.delayStart);
    if (wait != 0 && wait > mBattery.delay) {
        LOG_DEBUG("Should read battery level");
        mBattery.shouldRead = true;
        mBattery.valid = false;
        mBattery.delay = 0;
    } else {
        LOG_TRACE("Read delay %lds of %ds", static_cast<long>(wait), mBattery.delay);
    }
}

bool App::readingDue() const
{
    return mRc.hasBatteryService && !mRc.batteryServicePath.empty() && !mRc.batteryLevelPath.empty() &&
           mBattery.shouldRead && mRc.connected;
}

void App::readBattery(const Section& section)
{
    if (section.isGoing(mRc.batteryLevelPath)) {
        return;
    }
    // The text has a zero byte after the value, so the usual value of one byte arrives as two characters.
    const std::string text = mBluez->valueFor(mRc.batteryLevelPath);
    if (text.size() == 1 || text.size() == 2) {
        // Kept: or-ed into the old level, which only a new BatteryInfo clears.
        mBattery.level = static_cast<std::uint16_t>(mBattery.level | static_cast<std::uint8_t>(text[0]));
        if (text.size() == 2) {
            mBattery.level =
                static_cast<std::uint16_t>(mBattery.level | (static_cast<std::uint8_t>(text[1]) << 8U));
        }
        mBattery.valid = mBattery.level >= kLowestLevel && mBattery.level <= kHighestLevel;
        mBattery.shouldRead = false;
        mBattery.lastRead = NSTime::nowRelative();
        LOG_DEBUG("Battery level read: %d %s", mBattery.level, mBattery.valid ? "valid" : "invalid");
    }
    if (mBattery.valid) {
        writeFile(std::to_string(mBattery.level), kBatteryFile);
    }
}

void App::readFwVersion(const Section& section)
{
    if (!mRc.fwVersionPath.empty() && !section.isGoing(mRc.fwVersionPath)) {
        const std::vector<std::uint8_t> bytes = mBluez->readCharacteristic(mRc.fwVersionPath);
        if (bytes.size() > kLongestVersion) {
            LOG_ERROR("Read fw version: invalid response");
        } else {
            std::uint32_t version = 0;
            for (std::size_t i = bytes.size(); i > 0; --i) {
                version = (version << 8U) | bytes[i - 1];
            }
            LOG_DEBUG("rc fw version: %x", version);
            mRc.fwVersion = version; // a failed read returns no bytes and so loses the known version
        }
    }
    if (mRc.fwVersion != 0) {
        std::ostringstream text;
        text << std::hex << mRc.fwVersion;
        writeFile(text.str(), kFwVersionFile);
    }
}

// --- Firmware update ---

void App::processUpdate()
{
    UpdateRequest request;
    // Kept: this guard outlives the unlock below and unlocks once more at the end, which has no effect.
    Lock lock(*this, Lock::MainThread);
    request.adapterPath = firstOf(mAdapters);
    request.rcAddress = mRc.address;
    request.otaPath = mRc.otaPath;
    request.firmwareLocation.swap(mFirmwarePath); // each link is used for one attempt
    request.rcVersion = mRc.fwVersion;
    request.batteryLevel = mBattery.level;
    // Not held during the update, whose events arrive through the handlers above.
    lock.unlock();

    updateRc(request);
    mMayUpdate = false;
    sleep(kUpdatePauseSec); // so that readers see the outcome before the normal status returns
}

void App::updateRc(const UpdateRequest& request)
{
    if (request.batteryLevel < kLowestUpdateLevel || request.batteryLevel > kHighestLevel ||
        request.rcVersion == 0) {
        LOG_WARN("Update canceled: invalid state: battery: %u%% version: %x", request.batteryLevel,
                 request.rcVersion);
        writeFile("rc_fw_update_canceled", kStatusFile);
        return;
    }
    // Called on the update's thread. Needs no lock: nothing else writes the file meanwhile.
    const auto publish = [](const std::string& word) { writeFile(word, kStatusFile); };
    std::unique_ptr<RcuOtaUpdater> updater = RcuOtaUpdater::create(
        mBluez, request.adapterPath, request.rcAddress, request.firmwareLocation, request.otaPath, publish);
    if (!updater || request.rcVersion >= updater->getFirmwareInfo().version) {
        LOG_WARN("RC update is unnecessary"); // also when the image couldn't be read
        writeFile("rc_fw_update_canceled", kStatusFile);
    } else {
        runUpdate(*updater, request);
    }
    if (updater) {
        RcuOtaUpdater::retire(std::move(updater));
    }
}

void App::runUpdate(RcuOtaUpdater& updater, const UpdateRequest& request)
{
    LOG_INFO("Updating RC firmware from %x to %x", request.rcVersion, updater.getFirmwareInfo().version);
    if (updater.update()) {
        writeFile("rc_fw_update_succeed", kStatusFile);
        LOG_INFO("Firmware updated");
        std::remove(kFwVersionFile); // what it holds is obsolete
    } else {
        writeFile("rc_fw_update_failed", kStatusFile);
        LOG_ERROR("Firmware update failed");
    }
}

// --- Entry ---

void signalHandler(int signal)
{
    // Kept: logging takes the logger's locks, so it is deferred while this thread is in the logger.
    if (STBLogger_deferSignal(signal)) {
        return;
    }
    if (!gApp) {
        exit(EXIT_SUCCESS);
    }
    LOG_WARN("Interrupt!");
    const bool first = gApp->mRunning;
    gApp->mRunning = false;
    if (!first) {
        endingAtOnce = true;
        exit(EXIT_FAILURE);
    }
}

int main()
{
    signal(SIGINT, signalHandler);
    gApp = std::make_unique<App>();
    gApp->init();
    gApp->process();
    gApp->deinit();
    return 0;
}
