// SPDX-License-Identifier: MIT
#pragma once

#include "RcuOtaUpdater.h"

#include "sim/bluez/Simulator.h"
#include "tests/kit/Cipher.h"
#include "tests/kit/FirmwareImage.h"
#include "tests/kit/LogRecorder.h"
#include "tests/kit/ScratchFolder.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using kit::sharedKey;
using vexasim::Bend;
using vexasim::UpdateFault;
using vexasim::UpdatePacket;
using vexasim::UpdateStep;
using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

constexpr std::size_t kBlockBytes = 20;

/// The data packets for the first `bytes` bytes of the payload.
Texts dataPackets(const FirmwareImage& image, std::size_t bytes);
std::string startPacket(const FirmwareImage& image);
/// "rc_fw_update_preparing" and a word for each number.
Texts words(const std::vector<int>& numbers);

/// The write itself is refused.
UpdateFault refusal();
/// The command is carried out and not answered.
UpdateFault silence();
/// These are sent in place of the remote's own answer.
UpdateFault answers(const std::vector<Bytes>& all);
UpdateFault answer(const Bytes& bytes);

/// Hears what the stack client reports, so that a test can wait for it.
class Watcher : public Bluez::Listener
{
public:
    void onDeviceAdded(const std::string& path) override { note(path); }
    void onCharacteristicAdded(const std::string& path, const Bluez::Service::Characteristic& record) override
    {
        note(path + " " + record.uuid);
    }

    /// Waits until something with this in its text was added; returns it, or "" after a generous limit.
    std::string await(const std::string& part);

private:
    void note(const std::string& text);

    std::mutex mMutex;
    std::condition_variable mChanged;
    Texts mAdded;
};

/// Updates of a simulated remote over a real bus, with the daemon's own stack client.
class AnUpdate : public testing::Test
{
public:
    ~AnUpdate() override;

protected:
    AnUpdate();

    /// Starts the box: the simulated stack, the client on it, the remote connected in normal mode.
    void SetUp() override;

    vexasim::Remote& remote() { return mSimulator->remote(); }
    vexasim::UpdateReceiver& receiver() { return remote().receiver(); }
    std::string updatePath(const std::string& uuid) { return mSimulator->pathOf(*remote().update(), uuid); }

    /// An updater for the image; its words are kept.
    bool create(const FirmwareImage& image);
    bool update(const FirmwareImage& image) { return create(image) && mUpdater->update(); }
    /// Runs the update beside the test, which tells its story meanwhile.
    std::future<bool> begin(const FirmwareImage& image);

    /// What the updater logged at ERROR and WARN.
    Texts failures() const { return mLog.linesOf("RcuOtaUpdater", "EW"); }
    /// All packets, as "> data 00ff" and "< control 06".
    Texts packets();
    Texts dataSent();
    /// When the remote noted each block, in microseconds.
    std::vector<std::int64_t> dataTimes();
    /// When the remote noted a command, in microseconds; 0 if it never came.
    std::int64_t timeOf(std::uint8_t command);
    /// The calls that make up an update, in short, one after the other.
    Texts calls() const;

    ScratchFolder mFolder;
    LogRecorder& mLog = LogRecorder::cleared();
    vexasim::SimulatorOptions mOptions;
    std::unique_ptr<vexasim::Simulator> mSimulator;
    Watcher mWatcher;
    std::shared_ptr<Bluez> mBluez;
    std::unique_ptr<RcuOtaUpdater> mUpdater;
    std::string mAdapterPath = "/org/bluez/hci0";
    std::string mSwitchPath;
    std::mutex mWordsMutex;
    Texts mWords;
    std::thread::id mWordsThread;
    std::function<void(const std::string&)> mOnWord; ///< called with each word, on the update's thread

private:
    Texts packetsOf(const std::function<bool(const UpdatePacket&)>& wanted);
};
