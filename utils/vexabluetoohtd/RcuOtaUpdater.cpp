// SPDX-License-Identifier: MIT
#include "RcuOtaUpdater.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <thread>
#include <utility>

#include "OtaFormat.h"
#include "STBLogger.h"

namespace
{

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;
using ota_format::kBlockBytes;
using ota_format::kCipherBytes;

constexpr char kPreparingWord[] = "rc_fw_update_preparing";
constexpr char kUploadingWord[] = "rc_fw_update_uploading_";

constexpr std::chrono::seconds kOtaDeviceLimit{60};
constexpr std::chrono::seconds kCharacteristicLimit{5};
constexpr std::chrono::milliseconds kResponseLimit{1000};
constexpr std::chrono::seconds kPauseBeforeVerify{5};
constexpr std::chrono::milliseconds kBlockInterval{13}; // from the start of a block to that of the next

constexpr std::uint8_t OTA_OP_START_UPDATE = 0x01;
constexpr std::uint8_t OTA_OP_IMAGE_INFO = 0x02;
constexpr std::uint8_t OTA_OP_VERIFY = 0x03;
constexpr std::uint8_t OTA_OP_RESET = 0x04;
constexpr std::uint8_t OTA_OP_GET_IMAGE_INFO = 0x06;
constexpr std::uint8_t OTA_OP_CONNECTION_PARAMETERS = 0x07;
constexpr std::uint8_t kSwitchToOta = 0x01;

constexpr std::size_t kStatusPosition = 2;
constexpr std::uint8_t kStatusSuccess = 1;
constexpr std::size_t kShortestResponse = 3;
constexpr std::size_t kShortestImageInfo = 9;

constexpr float kPublishedStep = 0.95F; // percent

void append16(Bytes& packet, std::uint16_t value)
{
    packet.push_back(static_cast<std::uint8_t>(value & 0xff));
    packet.push_back(static_cast<std::uint8_t>(value >> 8));
}

void append32(Bytes& packet, std::uint32_t value)
{
    append16(packet, static_cast<std::uint16_t>(value & 0xffff));
    append16(packet, static_cast<std::uint16_t>(value >> 16));
}

std::uint32_t little(const Bytes& bytes, std::size_t position, std::size_t width)
{
    std::uint32_t value = 0;
    for (std::size_t i = width; i-- > 0;) {
        value = value << 8 | bytes[position + i];
    }
    return value;
}

bool isSuccess(const Bytes& response, std::size_t shortest)
{
    return response.size() >= shortest && response[kStatusPosition] == kStatusSuccess;
}

// Wipes a buffer whenever the function that owns it returns or throws.
class WipedAtEnd
{
public:
    explicit WipedAtEnd(Bytes& bytes) : mBytes{bytes} {}
    ~WipedAtEnd()
    {
        mBytes.resize(mBytes.capacity());
        explicit_bzero(mBytes.data(), mBytes.size());
    }
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;

private:
    Bytes& mBytes;
};

} // namespace

std::unique_ptr<RcuOtaUpdater>
RcuOtaUpdater::create(std::shared_ptr<Bluez> bluez, const std::string& adapterPath,
                      const std::string& rcAddress, const std::string& firmwareLocation,
                      const std::string& otaPath, ProgressCallback progressCallback)
{
    std::unique_ptr<RcuOtaUpdater> updater{new RcuOtaUpdater};
    // Kept: the address is required although nothing uses it.
    if (!bluez || adapterPath.empty() || rcAddress.empty() || otaPath.empty()) {
        return nullptr;
    }
    updater->mFirmware = Firmware::createWithLocation(firmwareLocation);
    if (!updater->mFirmware) {
        return nullptr;
    }
    updater->mBluez = std::move(bluez);
    updater->mAdapterPath = adapterPath;
    updater->mRcAddress = rcAddress;
    updater->mOtaPath = otaPath;
    updater->mProgressCallback = std::move(progressCallback);
    updater->aesInit();
    // Last, since callbacks arrive from here on.
    updater->mBluez->subscribe(updater.get());
    return updater;
}

RcuOtaUpdater::~RcuOtaUpdater()
{
    letGo();
}

// Releases what no callback uses.
void RcuOtaUpdater::letGo()
{
    if (mBluez) {
        // Kept: doesn't wait for a callback in progress; the stack client iterates over a copy of its
        // listeners.
        mBluez->unsubscribe(this);
    }
    mBluez.reset();
    mFirmware.reset();
    explicit_bzero(&mAesContext, sizeof mAesContext);
}

void RcuOtaUpdater::retire(std::unique_ptr<RcuOtaUpdater> updater)
{
    const std::shared_ptr<Bluez> client = updater->mBluez; // the event thread must not release it
    updater->letGo();
    client->runAfterEvents([storage = std::shared_ptr<RcuOtaUpdater>(std::move(updater))] {});
}

const Firmware::Header& RcuOtaUpdater::getFirmwareInfo() const
{
    return mFirmware->header();
}

bool RcuOtaUpdater::update()
{
    // Kept: no timeout and no way to cancel; the caller is blocked until the update has ended.
    return std::async(std::launch::async, [this] { return run(); }).get();
}

// --- Event thread ---

void RcuOtaUpdater::onDeviceAdded(const std::string& path)
{
    try {
        std::string name;
        Bluez::ofThisThread().deviceGetName(path, name); // mBluez may be released meanwhile
        if (!mOtaDevicePath.empty()) {
            return;
        }
        // Kept: a device whose name can't be read yet isn't checked again, even when it gets one.
        if (name.find(ota_format::kUpdateNamePart) == std::string::npos) {
            return;
        }
        mOtaDevicePath = path;
        mOtaDeviceFound.set_value();
    } catch (const std::future_error&) {
        // Kept: ignored silently, as in the other two callbacks; the promise was already set.
    }
}

void RcuOtaUpdater::onCharacteristicAdded(const std::string& path,
                                          const Bluez::Service::Characteristic& characteristic)
{
    try {
        // Kept: the device it belongs to isn't checked, and a second appearance overwrites the path.
        if (characteristic.uuid == ota_format::kDataUuid) {
            mDataPath = path;
            mDataFound.set_value();
        } else if (characteristic.uuid == ota_format::kControlPointUuid) {
            mControlPointPath = path;
            mControlPointFound.set_value();
        }
    } catch (const std::future_error&) {
    }
}

void RcuOtaUpdater::onGattCharacteristicChanged(const Bluez::Service::Characteristic& characteristic,
                                                const std::vector<std::uint8_t>& value)
{
    try {
        if (characteristic.path != mControlPointPath) {
            return;
        }
        // Kept: a second notification overwrites the response of the first; only then the promise throws.
        mResponse = value;
        mResponseReady.set_value();
    } catch (const std::future_error&) {
    }
}

// --- The update's thread ---

bool RcuOtaUpdater::run()
{
    try {
        return takeSteps();
    } catch (const std::future_error& error) {
        // A second update on one updater ends here, since each future can be taken only once.
        LOG_ERROR("future error %s", error.what());
        return false;
    }
}

bool RcuOtaUpdater::takeSteps()
{
    struct Step {
        bool (RcuOtaUpdater::*take)();
        const char* failure; // null if the step logs it itself
    };
    static constexpr Step kSteps[] = {
        {&RcuOtaUpdater::prepareOta, nullptr},
        {&RcuOtaUpdater::startNotify, "Could not start to notify about control point changes"},
        {&RcuOtaUpdater::updateConnectionParameters, "Could not update connection params"},
        {&RcuOtaUpdater::getImageInfo, "Couldn't get img info from rc"},
        {&RcuOtaUpdater::sendStartUpdate, "Couldn't start update"},
        {&RcuOtaUpdater::sendImageInfo, "Couldn't send img info to rcu"},
        {&RcuOtaUpdater::upload, "Upload fw failed"},
        {&RcuOtaUpdater::verifyAndReset, "Verification failed"},
    };
    for (const Step& step : kSteps) {
        if ((this->*step.take)()) {
            continue;
        }
        if (step.failure != nullptr) {
            LOG_ERROR("%s", step.failure);
        }
        return false;
    }
    return true;
}

bool RcuOtaUpdater::prepareOta()
{
    return switchToOta() && connectOtaDevice() && awaitCharacteristics();
}

bool RcuOtaUpdater::switchToOta()
{
    if (mProgressCallback) {
        mProgressCallback(kPreparingWord);
    }
    if (!mBluez->writeCharacteristic(mOtaPath, {kSwitchToOta})) {
        LOG_ERROR("Write RESET failed");
        return false;
    }
    return true;
}

bool RcuOtaUpdater::connectOtaDevice()
{
    if (!mBluez->adapterScanOn(mAdapterPath)) {
        LOG_ERROR("Setting scan to ON failed");
        return false;
    }
    // Kept: if one of the next two steps fails, discovery stays on.
    auto found = mOtaDeviceFound.get_future();
    if (found.wait_for(kOtaDeviceLimit) != std::future_status::ready || mOtaDevicePath.empty()) {
        LOG_ERROR("Find RCU in OTA mode failed");
        return false;
    }
    if (!mBluez->deviceConnect(mOtaDevicePath)) {
        LOG_ERROR("Failed to send connect request");
        return false;
    }
    if (!mBluez->adapterScanOff(mAdapterPath)) {
        LOG_ERROR("Setting scan to OFF failed");
        return false;
    }
    return true;
}

bool RcuOtaUpdater::awaitCharacteristics()
{
    auto controlPointFound = mControlPointFound.get_future();
    if (controlPointFound.wait_for(kCharacteristicLimit) != std::future_status::ready ||
        mControlPointPath.empty()) {
        LOG_ERROR("Control point not found");
        return false;
    }
    auto dataFound = mDataFound.get_future();
    if (dataFound.wait_for(kCharacteristicLimit) != std::future_status::ready || mDataPath.empty()) {
        LOG_ERROR("Data not found");
        return false;
    }
    return true;
}

bool RcuOtaUpdater::startNotify()
{
    return mBluez->characteristicStartNotify(mControlPointPath);
}

bool RcuOtaUpdater::updateConnectionParameters()
{
    // Intervals of 7.5 to 21.25 ms (units of 1.25 ms), no latency, a supervision timeout of 5 s (units of 10
    // ms).
    Bytes packet{OTA_OP_CONNECTION_PARAMETERS};
    append16(packet, 6);
    append16(packet, 17);
    append16(packet, 0);
    append16(packet, 500);
    // Kept: the update continues whatever the result; not every remote answers.
    writeWithResponseWaiting(packet, kResponseLimit);
    return true;
}

bool RcuOtaUpdater::getImageInfo()
{
    Bytes packet{OTA_OP_GET_IMAGE_INFO};
    append16(packet, getFirmwareInfo().signature);
    if (!writeWithResponseWaiting(packet, kResponseLimit)) {
        return false;
    }
    const Bytes response = std::exchange(mResponse, {});
    if (!isSuccess(response, kShortestImageInfo)) {
        return false;
    }
    // Only logged: the transfer always begins at the first byte and can't be resumed.
    LOG_DEBUG("image version: %x image offset: %x", little(response, 3, 2), little(response, 5, 4));
    return true;
}

bool RcuOtaUpdater::sendStartUpdate()
{
    const Firmware::Header& header = getFirmwareInfo();
    Bytes packet{OTA_OP_START_UPDATE};
    packet.reserve(1 + kCipherBytes); // so that no reallocation leaves a copy behind
    const WipedAtEnd wiped{packet};
    append16(packet, header.offset);
    append16(packet, header.signature);
    append16(packet, header.version);
    append16(packet, header.checksum);
    append16(packet, header.length);
    packet.push_back(header.ota_flag);
    packet.push_back(header.reserved);
    append32(packet, 0);
    encipherInPlace(packet, 1);
    if (!writeWithResponseWaiting(packet, kResponseLimit)) {
        return false;
    }
    return isSuccess(std::exchange(mResponse, {}), kShortestResponse);
}

bool RcuOtaUpdater::sendImageInfo()
{
    Bytes packet{OTA_OP_IMAGE_INFO};
    append16(packet, getFirmwareInfo().signature);
    append32(packet, ota_format::kHeaderBytes);
    // Kept: the only command that isn't awaited; a response is stored and then cleared by the next awaited
    // write.
    return mBluez->writeCharacteristic(mControlPointPath, packet);
}

bool RcuOtaUpdater::upload()
{
    Bytes block;
    block.reserve(kBlockBytes);
    const WipedAtEnd wiped{block};
    const int total = static_cast<int>(getFirmwareInfo().length * ota_format::kWordBytes);
    int sent = 0;
    int left = total;
    float published = 0.0F;

    LOG_DEBUG("writeFw: writing...");
    // Kept: an image of length 0 sends nothing and is still verified, and a last block that extends beyond
    // the length isn't cut, so `left` can end below 0 and the percentage above 100.
    while (left > 0) {
        const auto start = Clock::now();
        if (!uploadBlock(block)) {
            return false;
        }
        const int size = static_cast<int>(block.size());
        sent += size;
        left -= size;
        const float percentage = static_cast<float>(sent) / static_cast<float>(total) * 100.0F;
        LOG_INFO("%d bytes written. Sent %d of %d left %d (%0.2f%%)", size, sent, total, left,
                 static_cast<double>(percentage));
        if (percentage - published > kPublishedStep) {
            publishPercentage(percentage);
            published = percentage;
        }
        block.clear();
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        if (elapsed < kBlockInterval) {
            std::this_thread::sleep_for(kBlockInterval - elapsed);
        }
    }
    return true;
}

bool RcuOtaUpdater::uploadBlock(std::vector<std::uint8_t>& block)
{
    if (mFirmware->fillBuffer(block) == 0) {
        LOG_WARN("Stream end");
        return false;
    }
    // Kept: only the first 16 bytes are enciphered, and a shorter block is sent in the clear, unpadded. The
    // remote expects exactly this.
    if (block.size() >= kCipherBytes) {
        encipherInPlace(block, 0);
    }
    if (!mBluez->writeCharacteristic(mDataPath, block)) {
        LOG_ERROR("Write buffer failed");
        return false;
    }
    return true;
}

void RcuOtaUpdater::publishPercentage(float percentage)
{
    if (mProgressCallback) {
        // Kept: rounded up from single precision, so that 30 % of 1,000 bytes shows as 31.
        mProgressCallback(kUploadingWord + std::to_string(static_cast<int>(std::ceil(percentage))));
    }
}

bool RcuOtaUpdater::verifyAndReset()
{
    std::this_thread::sleep_for(kPauseBeforeVerify);
    Bytes packet{OTA_OP_VERIFY};
    append16(packet, getFirmwareInfo().signature);
    if (!writeWithResponseWaiting(packet, kResponseLimit)) {
        LOG_ERROR("Write characteristics failed");
        return false;
    }
    if (!isSuccess(std::exchange(mResponse, {}), kShortestResponse)) {
        LOG_ERROR("Failed to validate response");
        return false;
    }
    LOG_DEBUG("img reset");
    // Kept: notifications are stopped before the reset is sent, so the wait for its response always times
    // out.
    mBluez->characteristicStopNotify(mControlPointPath);
    writeWithResponseWaiting({OTA_OP_RESET}, kResponseLimit);
    return true;
}

bool RcuOtaUpdater::writeWithResponseWaiting(const std::vector<std::uint8_t>& data,
                                             std::chrono::milliseconds timeout)
{
    // Kept: no lock against a callback in progress, and a response is matched to its command by time alone;
    // one that arrives after the timeout counts for the next command.
    mResponse.clear();
    mResponseReady = std::promise<void>{};
    if (!mBluez->writeCharacteristic(mControlPointPath, data)) {
        return false;
    }
    return mResponseReady.get_future().wait_for(timeout) == std::future_status::ready;
}

void RcuOtaUpdater::aesInit()
{
    mAesContext = AesContext{};
    aes_set_key(&mAesContext, AES_KEY.data(), static_cast<int>(8 * AES_KEY.size()));
}

std::vector<std::uint8_t> RcuOtaUpdater::aesEncrypt(std::vector<std::uint8_t> data) const
{
    data.resize(kCipherBytes);
    aes_encrypt(&mAesContext, data.data(), data.data());
    return data;
}

void RcuOtaUpdater::encipherInPlace(std::vector<std::uint8_t>& data, std::size_t position) const
{
    const auto first = data.begin() + static_cast<std::ptrdiff_t>(position);
    const Bytes cipher = aesEncrypt(Bytes(first, first + kCipherBytes));
    std::copy(cipher.begin(), cipher.end(), first);
}
