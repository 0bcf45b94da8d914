// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Bluez.h"
#include "Firmware.h"
#include "aes.h"

/**
 * Carries out one firmware update of the remote: switches it to its update mode, finds it again under its
 * other name, streams the image, has it verified and restarts the remote. Used for one update and then
 * destroyed.
 *
 * Three threads use it without a mutex. The caller's thread creates and destroys the updater and is blocked
 * in update(); the update's own thread executes run() and everything below it, including the progress
 * callback; the event thread of Bluez runs the three callbacks. A path or a response is written before its
 * promise is set, and read after its future is ready.
 */
class RcuOtaUpdater : private Bluez::Listener
{
public:
    /// Receives the words for the status file; called on the update's own thread.
    using ProgressCallback = std::function<void(const std::string&)>;

    /// Opens the image at `firmwareLocation` and subscribes to `bluez`; sends nothing to the remote.
    /// `otaPath` is the characteristic that switches the remote to its update mode. Returns null, without a
    /// log message, if `bluez` or one of the texts is empty or the image can't be opened; `progressCallback`
    /// may be empty.
    static std::unique_ptr<RcuOtaUpdater> create(std::shared_ptr<Bluez> bluez, const std::string& adapterPath,
                                                 const std::string& rcAddress,
                                                 const std::string& firmwareLocation,
                                                 const std::string& otaPath,
                                                 ProgressCallback progressCallback);
    ~RcuOtaUpdater() override;
    /// Ends an updater while its client runs: unsubscribes it, wipes its keys and closes its image at once. A
    /// callback may be in progress, so the event thread frees the storage after it; nothing waits for that.
    static void retire(std::unique_ptr<RcuOtaUpdater> updater);
    RcuOtaUpdater(const RcuOtaUpdater&) = delete;
    RcuOtaUpdater& operator=(const RcuOtaUpdater&) = delete;

    /// The image's header.
    const Firmware::Header& getFirmwareInfo() const;

    /// Runs the update on a thread of its own and blocks until it has ended, which takes up to about four
    /// minutes and can't be cancelled. True if the remote verified the image and was told to restart; the
    /// reason for a failure is in the log. Throws std::system_error if no thread can be started.
    bool update();

private:
    /// Shared with the remote's firmware; its definition is generated at configure time. Hidden, since the
    /// daemon exports its other symbols by name for its stack traces.
    [[gnu::visibility("hidden")]] static const std::array<unsigned char, 32> AES_KEY;

    RcuOtaUpdater() = default;
    void letGo();

    // Bluez::Listener; event thread.
    void onDeviceAdded(const std::string& path) override;
    void onDeviceRemoved(const std::string& /*path*/) override {}
    void onCharacteristicAdded(const std::string& path,
                               const Bluez::Service::Characteristic& characteristic) override;
    void onCharacteristicRemoved(const std::string& /*path*/) override {}
    void onGattCharacteristicChanged(const Bluez::Service::Characteristic& characteristic,
                                     const std::vector<std::uint8_t>& value) override;

    // The steps of an update; its own thread. Each returns whether to go on.
    bool run();
    bool takeSteps();
    bool prepareOta();
    bool switchToOta();
    bool connectOtaDevice();
    bool awaitCharacteristics();
    bool startNotify();
    bool updateConnectionParameters();
    bool getImageInfo();
    bool sendStartUpdate();
    bool sendImageInfo();
    bool upload();
    bool verifyAndReset();

    /// Writes `data` to the control point and waits for its next notification, which is then in mResponse.
    bool writeWithResponseWaiting(const std::vector<std::uint8_t>& data, std::chrono::milliseconds timeout);
    bool uploadBlock(std::vector<std::uint8_t>& block);
    void publishPercentage(float percentage);

    void aesInit();
    /// Enciphers 16 bytes: shorter data is padded with zeros, longer data is cut.
    std::vector<std::uint8_t> aesEncrypt(std::vector<std::uint8_t> data) const;
    void encipherInPlace(std::vector<std::uint8_t>& data, std::size_t position) const;

    std::promise<void> mOtaDeviceFound;
    std::promise<void> mControlPointFound;
    std::promise<void> mDataFound;
    std::string mOtaDevicePath;
    std::string mDataPath;
    std::string mControlPointPath;
    std::promise<void> mResponseReady;
    std::vector<std::uint8_t> mResponse;
    std::shared_ptr<Bluez> mBluez;
    std::string mAdapterPath;
    std::string mRcAddress;
    std::unique_ptr<Firmware> mFirmware;
    std::string mOtaPath;
    ProgressCallback mProgressCallback;
    AesContext mAesContext{};
};
