// SPDX-License-Identifier: MIT
// What only the class itself can show; whole updates are tested by the daemon's cases, tests/daemon/Update_*.
#include "RcuOtaUpdater.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <mutex>
#include <pthread.h>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "sim/bluez/Simulator.h"
#include "tests/kit/Cipher.h"
#include "tests/kit/FirmwareImage.h"
#include "tests/kit/LogRecorder.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/ScratchFolder.h"

namespace
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""h;
using testing::ElementsAre;
using testing::IsEmpty;
using vexasim::Bend;
using vexasim::UpdateFault;
using vexasim::UpdatePacket;
using vexasim::UpdateStep;
using Texts = std::vector<std::string>;

/// Records what the stack client reports, so that a test can wait for it.
class Watcher : public Bluez::Listener
{
public:
    void onDeviceAdded(const std::string& path) override { note(path); }
    void onCharacteristicAdded(const std::string& /*path*/,
                               const Bluez::Service::Characteristic& record) override
    {
        note(record.uuid);
    }

    /// Waits until a device of this path or a characteristic of this UUID was added.
    bool await(const std::string& added)
    {
        std::unique_lock lock{mMutex};
        return mChanged.wait_for(
            lock, 30s, [&] { return std::find(mAdded.begin(), mAdded.end(), added) != mAdded.end(); });
    }

private:
    void note(const std::string& text)
    {
        const std::lock_guard lock{mMutex};
        mAdded.push_back(text);
        mChanged.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    Texts mAdded;
};

/// Updates of a simulated remote over a real bus, with the daemon's own stack client.
class AnUpdate : public testing::Test
{
public:
    ~AnUpdate() override
    {
        mUpdater.reset();
        mBluez.reset();
    }

protected:
    AnUpdate()
    {
        mOptions.remote.key = kit::sharedKey();
        mOptions.remote.paired = true;
    }

    /// Starts the box: the simulated stack, the client on it, the remote connected in normal mode.
    void SetUp() override
    {
        mSimulator = std::make_unique<vexasim::Simulator>(mOptions);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", mSimulator->busAddress().c_str(), 1);
        // The client's shutdown drops one reference more than it took.
        g_main_context_ref(g_main_context_default());
        mBluez = std::make_shared<Bluez>(&mWatcher);
        ASSERT_TRUE(mWatcher.await(mSimulator->remotePath()));
        ASSERT_TRUE(mBluez->deviceConnect(mSimulator->remotePath()));
        ASSERT_TRUE(mWatcher.await(vexasim::uuid::kSwitch));
        mSwitchPath = mSimulator->pathOf(*remote().normal(), vexasim::uuid::kSwitch);
        mSimulator->clearCalls();
    }

    vexasim::Remote& remote() { return mSimulator->remote(); }
    vexasim::UpdateReceiver& receiver() { return remote().receiver(); }

    std::string write(const kit::FirmwareImage& image) const
    {
        return mFolder.write("image.bin", image.file());
    }
    /// Creates an updater for the image and records its words.
    bool create(const kit::FirmwareImage& image)
    {
        const auto keep = [this](const std::string& word) {
            mWords.push_back(word);
            mWordsThread = std::this_thread::get_id();
            if (mOnWord) {
                mOnWord(word);
            }
        };
        mUpdater =
            RcuOtaUpdater::create(mBluez, kAdapter, "C0:FF:EE:00:00:01", write(image), mSwitchPath, keep);
        return mUpdater != nullptr;
    }
    bool update(const kit::FirmwareImage& image) { return create(image) && mUpdater->update(); }

    /// What the updater logged at ERROR and WARN.
    Texts failures() const { return mLog.linesOf("RcuOtaUpdater", "EW"); }
    /// When the remote recorded each block, in microseconds.
    std::vector<std::int64_t> dataTimes()
    {
        std::vector<std::int64_t> times;
        for (const auto& packet : receiver().packets()) {
            if (packet.channel == UpdatePacket::Channel::Data) {
                times.push_back(packet.timeUs);
            }
        }
        return times;
    }
    /// When the remote recorded a command, in microseconds; 0 if it never came.
    std::int64_t timeOf(std::uint8_t command)
    {
        for (const auto& packet : receiver().packets()) {
            if (packet.channel == UpdatePacket::Channel::ControlPoint && !packet.fromRemote &&
                packet.bytes[0] == command) {
                return packet.timeUs;
            }
        }
        ADD_FAILURE() << "command " << int{command} << " never came";
        return 0;
    }

    static constexpr const char* kAdapter = "/org/bluez/hci0";

    kit::ScratchFolder mFolder;
    kit::LogRecorder& mLog = kit::LogRecorder::cleared();
    vexasim::SimulatorOptions mOptions;
    std::unique_ptr<vexasim::Simulator> mSimulator;
    Watcher mWatcher;
    std::shared_ptr<Bluez> mBluez;
    std::unique_ptr<RcuOtaUpdater> mUpdater;
    std::string mSwitchPath;
    Texts mWords;
    std::thread::id mWordsThread;
    std::function<void(const std::string&)> mOnWord; ///< called with each word, on the update's thread
};

// --- Making an updater ---

class AnUpdater : public AnUpdate
{
protected:
    std::unique_ptr<RcuOtaUpdater> makeWith(const std::shared_ptr<Bluez>& bluez, const std::string& adapter,
                                            const std::string& address, const std::string& image,
                                            const std::string& otaPath) const
    {
        return RcuOtaUpdater::create(bluez, adapter, address, image, otaPath, {});
    }
    std::unique_ptr<RcuOtaUpdater> make() const
    {
        return makeWith(mBluez, kAdapter, "address", image(), mSwitchPath);
    }

    std::size_t subscribed() const
    {
        const auto listeners = mBluez->getListeners();
        return static_cast<std::size_t>(std::count_if(listeners.begin(), listeners.end(),
                                                      [](const auto& entry) { return entry.second; }));
    }

    std::string image() const { return write(kit::FirmwareImage::ofWords(5)); }
};

TEST_F(AnUpdater, NeedsAClientAnAdapterAnAddressAndASwitch)
{
    const std::string file = image();

    EXPECT_EQ(nullptr, makeWith(nullptr, "adapter", "address", file, "switch"));
    EXPECT_EQ(nullptr, makeWith(mBluez, "", "address", file, "switch"));
    EXPECT_EQ(nullptr, makeWith(mBluez, "adapter", "", file, "switch"));
    EXPECT_EQ(nullptr, makeWith(mBluez, "adapter", "address", file, ""));

    EXPECT_THAT(mLog.linesOf("RcuOtaUpdater"), IsEmpty());
    EXPECT_THAT(mLog.linesOf("Firmware"), IsEmpty()) << "the image wasn't even opened";
    EXPECT_EQ(1U, mBluez->getListeners().size()) << "nobody subscribed but the test";
}

TEST_F(AnUpdater, NeedsAnImageThatCanBeRead)
{
    EXPECT_EQ(nullptr, makeWith(mBluez, "adapter", "address", mFolder.path("missing"), "switch"));
    EXPECT_THAT(mLog.linesOf("Firmware"), IsEmpty());
    EXPECT_EQ(nullptr, makeWith(mBluez, "adapter", "address", "", "switch"));

    EXPECT_THAT(mLog.linesOf("Firmware"), ElementsAre("E Empty path"));
    EXPECT_THAT(mLog.linesOf("RcuOtaUpdater"), IsEmpty());
    EXPECT_EQ(1U, mBluez->getListeners().size());
}

TEST_F(AnUpdater, ShowsTheHeaderOfItsImage)
{
    const auto updater = make();

    ASSERT_NE(nullptr, updater);
    EXPECT_EQ(0x0205, updater->getFirmwareInfo().version);
    EXPECT_EQ(0x1234, updater->getFirmwareInfo().signature);
    EXPECT_EQ(5, updater->getFirmwareInfo().length);
}

TEST_F(AnUpdater, ListensForItsLifeAndSendsNothing)
{
    auto updater = make();
    ASSERT_NE(nullptr, updater);
    EXPECT_EQ(2U, subscribed());

    updater.reset();

    EXPECT_EQ(1U, subscribed());
    mSimulator->sync();
    EXPECT_THAT(mSimulator->calls(), IsEmpty());
    EXPECT_THAT(receiver().packets(), IsEmpty());
}

/// A device whose name takes a while to read: the updater's callback is in that call.
class AnUpdaterInACallback : public AnUpdater
{
protected:
    void SetUp() override
    {
        AnUpdater::SetUp();
        mUpdater = make();
        ASSERT_NE(nullptr, mUpdater);
        mSimulator->bend(Bend::late("Get", 1s).property("Name"));
        mSimulator->addObject(kStranger, {{"org.bluez.Device1", {}}});
        ASSERT_TRUE(mSimulator->awaitCall("Get", kStranger));
    }

    std::size_t openImages() const
    {
        std::size_t open = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            open += std::filesystem::read_symlink(entry, gone) == mFolder.path("image.bin") ? 1 : 0;
        }
        return open;
    }

    static constexpr const char* kStranger = "/org/bluez/hci0/dev_00_00_00_00_00_09";
};

TEST_F(AnUpdaterInACallback, IsRetiredWithoutWaitingForThat)
{
    ASSERT_EQ(1U, openImages());
    const std::weak_ptr<Bluez> client = mBluez;

    const auto start = std::chrono::steady_clock::now();
    RcuOtaUpdater::retire(std::move(mUpdater));

    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    EXPECT_EQ(0U, openImages());
    EXPECT_EQ(1U, subscribed());
    EXPECT_EQ(1, client.use_count()) << "the storage, which goes on the event thread, doesn't own the client";
    EXPECT_TRUE(mWatcher.await(kStranger)) << "and the callback goes on in it";
}

// Counts the copies of the last round key in the heap, where updaters live.
std::size_t roundKeysOnHeap()
{
    AesContext context{};
    const auto key = kit::sharedKey();
    aes_set_key(&context, key.data(), 256);
    std::array<unsigned char, 16> wanted{};
    std::memcpy(wanted.data(), context.encryptRoundKeys + 56, wanted.size());
    explicit_bzero(&context, sizeof context);

    std::size_t found = 0;
    const std::unique_ptr<FILE, int (*)(FILE*)> maps{std::fopen("/proc/self/maps", "r"), std::fclose};
    char line[512];
    while (maps && std::fgets(line, sizeof line, maps.get()) != nullptr) {
        std::uintptr_t first = 0;
        std::uintptr_t last = 0;
        if (std::strstr(line, "[heap]") != nullptr && std::sscanf(line, "%lx-%lx", &first, &last) == 2) {
            // NOLINTBEGIN(performance-no-int-to-ptr): the kernel gives addresses as numbers
            const auto* begin = reinterpret_cast<const unsigned char*>(first);
            const auto* end = reinterpret_cast<const unsigned char*>(last);
            // NOLINTEND(performance-no-int-to-ptr)
            for (const auto* at = begin; (at = std::search(at, end, wanted.begin(), wanted.end())) != end;
                 ++at) {
                ++found;
            }
        }
    }
    return found;
}

TEST_F(AnUpdater, LeavesNoRoundKeysBehind)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's heap isn't the one that is searched";
#endif
    auto updater = make();
    ASSERT_NE(nullptr, updater);
    ASSERT_EQ(2U, roundKeysOnHeap()) << "it ends one schedule and begins the other";

    updater.reset();

    EXPECT_EQ(0U, roundKeysOnHeap());

    updater = make();
    ASSERT_NE(nullptr, updater);
    RcuOtaUpdater::retire(std::move(updater));

    EXPECT_EQ(0U, roundKeysOnHeap());
}

// --- Its callback ---

TEST_F(AnUpdate, WithoutACallbackGoesThroughAllTheSame)
{
    const kit::FirmwareImage image = kit::FirmwareImage::ofWords(8);
    receiver().setExpectedImage(image.file());
    mUpdater = RcuOtaUpdater::create(mBluez, kAdapter, "address", write(image), mSwitchPath, {});

    EXPECT_TRUE(mUpdater->update());

    EXPECT_TRUE(receiver().verified()) << receiver().complaint();
}

struct Exception : kit::NamedCase {
    std::function<void()> raise;
};

class AnException : public AnUpdate, public testing::WithParamInterface<Exception>
{
};

// Raised by a word's reader, say. Only an exception from the hand-over of an answer makes the update fail.
TEST_P(AnException, LeavesTheUpdate)
{
    mOnWord = [](const std::string& word) {
        if (word == "rc_fw_update_uploading_40") {
            GetParam().raise();
        }
    };
    ASSERT_TRUE(create(kit::FirmwareImage::ofWords(25)));

    std::string caught = "nothing";
    try {
        mUpdater->update();
    } catch (const std::exception& exception) {
        caught = exception.what();
    }

    EXPECT_EQ("the reader failed", caught);
    EXPECT_THAT(mWords, ElementsAre("rc_fw_update_preparing", "rc_fw_update_uploading_20",
                                    "rc_fw_update_uploading_40"));
    EXPECT_THAT(failures(), IsEmpty());
    EXPECT_EQ(2U, dataTimes().size()) << "it ends there";
}

// The second is the base class of the one that is caught.
INSTANTIATE_TEST_SUITE_P(
    OfAReader, AnException,
    testing::Values(Exception{{"AtRunTime"}, [] { throw std::runtime_error("the reader failed"); }},
                    Exception{{"OfLogic"}, [] { throw std::logic_error("the reader failed"); }}),
    kit::named);

// --- A second update ---

class ASecondUpdate : public AnUpdate
{
protected:
    // The remote shows up in its update mode at once and stays in normal mode too.
    ASecondUpdate() { mOptions.remote.switchTime = 1h; }

    void SetUp() override
    {
        AnUpdate::SetUp();
        vexasim::UpdateAppearance early;
        early.beforeScan = true;
        remote().setUpdateAppearance(early);
        mSimulator->bend(Bend::error("Connect", "org.bluez.Error.Failed"));
        ASSERT_FALSE(update(kit::FirmwareImage::ofWords(5)));
    }
};

TEST_F(ASecondUpdate, OnOneUpdaterEndsInAFutureError)
{
    EXPECT_FALSE(mUpdater->update());

    EXPECT_THAT(
        failures(),
        ElementsAre("E Failed to send connect request",
                    "E future error " +
                        std::string{std::future_error{std::future_errc::future_already_retrieved}.what()}));
    EXPECT_EQ(2U, mSimulator->calls("StartDiscovery").size()) << "the steps before are repeated";
    EXPECT_EQ(1U, mSimulator->calls("Connect").size());
}

TEST_F(ASecondUpdate, TellsAFailureThatComesBeforeTheFutures)
{
    UpdateFault refusal;
    refusal.refuse = vexasim::att::kUnlikelyError;
    receiver().setFault(UpdateStep::Switch, refusal);

    EXPECT_FALSE(mUpdater->update());

    EXPECT_THAT(failures(), ElementsAre("E Failed to send connect request", "E Write RESET failed"));
}

// --- Signals to the update's thread ---

// The remote records packets late, by their way to it, but never early, so the lower bounds are exact.
TEST_F(AnUpdate, IsPacedOnAThreadOfItsOwnThatSignalsDontHurry)
{
    constexpr std::int64_t kPaceUs = 13'000;     // from the start of a block to that of the next
    constexpr std::int64_t kPauseUs = 5'000'000; // before the verification
    constexpr std::int64_t kBlocks = 25;
    struct sigaction action = {};
    action.sa_handler = [](int /*signal*/) {}; // and no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<pid_t> target{0};
    std::atomic<bool> over{false};
    unsigned sent = 0;
    std::thread interrupter{[&] {
        while (!over) {
            sent += target != 0 && tgkill(getpid(), target, SIGUSR1) == 0 ? 1 : 0;
            std::this_thread::sleep_for(3ms); // several in one block's time
        }
    }};
    mOnWord = [&target](const std::string&) { target = gettid(); };

    EXPECT_TRUE(update(kit::FirmwareImage::ofWords(kBlocks * 5)));

    over = true;
    interrupter.join();
    EXPECT_NE(std::this_thread::get_id(), mWordsThread);
    const std::vector<std::int64_t> times = dataTimes();
    ASSERT_EQ(kBlocks, static_cast<std::int64_t>(times.size()));
    for (std::size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - timeOf(0x02), kPaceUs * static_cast<std::int64_t>(i)) << "block " << i;
    }
    // Nor delayed: an interrupted sleep continues with what is left and doesn't start over.
    EXPECT_THAT(timeOf(0x03) - times.back(),
                testing::AllOf(testing::Ge(kPauseUs), testing::Le(2 * kPauseUs)));
    EXPECT_GE(sent, 100U);
}

// --- Its destruction ---

class AnUpdateThatIsOver : public AnUpdate
{
protected:
    /// Destroys the updater and expects that neither BlueZ nor the remote notices.
    void expectSilentEnd()
    {
        mSimulator->sync();
        mSimulator->clearCalls();
        const std::size_t packets = receiver().packets().size();

        mUpdater.reset();

        mSimulator->sync();
        for (const auto& call : mSimulator->calls()) {
            EXPECT_NE(0U, call.interface.rfind("org.bluez.", 0)) << call.text();
        }
        EXPECT_EQ(packets, receiver().packets().size());
    }
};

TEST_F(AnUpdateThatIsOver, EndsInSilenceIfItWasGood)
{
    ASSERT_TRUE(update(kit::FirmwareImage::ofWords(1)));

    expectSilentEnd();
}

TEST_F(AnUpdateThatIsOver, EndsInSilenceAndLeavesTheLinkIfItFailed)
{
    UpdateFault refusal;
    refusal.refuse = vexasim::att::kUnlikelyError;
    receiver().setFault(UpdateStep::StartUpdate, refusal);
    ASSERT_FALSE(update(kit::FirmwareImage::ofWords(1)));

    expectSilentEnd();

    const auto connected =
        mSimulator->property(mSimulator->updateDevicePath(), "org.bluez.Device1", "Connected");
    EXPECT_EQ("true", connected.text());
}

// --- no thread at all ---

/// No thread can be started as long as this lives: its stack wouldn't fit into the address space.
class ThreadsRefused
{
public:
    ThreadsRefused()
    {
        constexpr std::size_t kTooLarge = std::size_t{1} << 60U;
        pthread_getattr_default_np(&mBefore);
        pthread_attr_t large;
        pthread_getattr_default_np(&large);
        pthread_attr_setstacksize(&large, kTooLarge);
        pthread_setattr_default_np(&large);
        pthread_attr_destroy(&large);
    }
    ~ThreadsRefused()
    {
        pthread_setattr_default_np(&mBefore);
        pthread_attr_destroy(&mBefore);
    }
    ThreadsRefused(const ThreadsRefused&) = delete;
    ThreadsRefused& operator=(const ThreadsRefused&) = delete;

private:
    pthread_attr_t mBefore{};
};

TEST_F(AnUpdate, LeavesItsCallerTheErrorOfAThreadThatCantBeStarted)
{
    ASSERT_TRUE(create(kit::FirmwareImage::ofWords(5)));
    std::error_code error;
    {
        const ThreadsRefused refused;
        try {
            mUpdater->update();
        } catch (const std::system_error& caught) {
            error = caught.code();
        }
    }

    EXPECT_EQ(std::errc::resource_unavailable_try_again, error);
    EXPECT_THAT(receiver().packets(), IsEmpty());
    EXPECT_THAT(failures(), IsEmpty());
}

} // namespace
