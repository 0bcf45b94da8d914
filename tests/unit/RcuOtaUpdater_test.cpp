// SPDX-License-Identifier: MIT
// Updates of a simulated remote over a real bus, with the daemon's own stack client.
#include "RcuOtaUpdater.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <ostream>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "CapturedLog.h"
#include "FirmwareImage.h"
#include "Hex.h"
#include "ScratchFolder.h"
#include "sim/bluez/Simulator.h"

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using vexasim::Bend;
using vexasim::UpdateFault;
using vexasim::UpdateStep;
using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
constexpr std::size_t kCipherBytes = 16;
constexpr std::size_t kBlockBytes = 20;

vexasim::UpdateKey sharedKey()
{
    constexpr char kKeyFile[] = VEXA_OTA_KEY_FILE; // no name if the build has no key of its own
    const std::string file(kKeyFile);
    return file.empty() ? vexasim::developmentKey() : vexasim::readKeyFile(file);
}

/// One block of 16 bytes as libcrypto enciphers it.
Bytes enciphered(const Bytes& plain)
{
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context{EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free};
    Bytes cipher(kCipherBytes);
    int length = 0;
    const auto key = sharedKey();
    EXPECT_EQ(1, EVP_EncryptInit_ex(context.get(), EVP_aes_256_ecb(), nullptr, key.data(), nullptr));
    EXPECT_EQ(1, EVP_CIPHER_CTX_set_padding(context.get(), 0));
    EXPECT_EQ(1, EVP_EncryptUpdate(context.get(), cipher.data(), &length, plain.data(), kCipherBytes));
    return cipher;
}

/// A block of the payload as it goes over the air.
Bytes onAir(Bytes block)
{
    if (block.size() >= kCipherBytes) {
        const Bytes cipher = enciphered(Bytes(block.begin(), block.begin() + kCipherBytes));
        std::copy(cipher.begin(), cipher.end(), block.begin());
    }
    return block;
}

/// The data packets for the first `bytes` bytes of the payload.
Texts dataPackets(const FirmwareImage& image, std::size_t bytes)
{
    Texts packets;
    for (std::size_t i = 0; i < bytes; i += kBlockBytes) {
        const auto begin = image.payload.begin() + static_cast<std::ptrdiff_t>(i);
        const auto end =
            image.payload.begin() + static_cast<std::ptrdiff_t>(std::min(i + kBlockBytes, bytes));
        packets.push_back("> data " + toHex(onAir(Bytes(begin, end))));
    }
    return packets;
}

std::string startPacket(const FirmwareImage& image)
{
    Bytes plain = image.header();
    plain.resize(kCipherBytes);
    return "> control 01" + toHex(enciphered(plain));
}

/// "rc_fw_update_preparing" and a word for each number.
Texts words(const std::vector<int>& numbers)
{
    Texts all{"rc_fw_update_preparing"};
    for (const int number : numbers) {
        all.push_back("rc_fw_update_uploading_" + std::to_string(number));
    }
    return all;
}

UpdateFault refusal()
{
    UpdateFault fault;
    fault.refuse = vexasim::att::kUnlikelyError;
    return fault;
}

UpdateFault silence()
{
    UpdateFault fault;
    fault.silent = true;
    return fault;
}

UpdateFault answer(const Bytes& bytes)
{
    UpdateFault fault;
    fault.answers = {bytes};
    return fault;
}

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
    std::string await(const std::string& part)
    {
        std::unique_lock lock{mMutex};
        std::string found;
        mChanged.wait_for(lock, 10s, [&] {
            for (const auto& text : mAdded) {
                found = text.find(part) != std::string::npos ? text : found;
            }
            return !found.empty();
        });
        EXPECT_NE("", found) << part << " was never added";
        return found;
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
        mOptions.remote.key = sharedKey();
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
        mWatcher.await(mSimulator->remotePath());
        ASSERT_TRUE(mBluez->deviceConnect(mSimulator->remotePath()));
        mWatcher.await(vexasim::uuid::kSwitch);
        mSwitchPath = mSimulator->pathOf(*remote().normal(), vexasim::uuid::kSwitch);
        mSimulator->clearCalls();
    }

    vexasim::Remote& remote() { return mSimulator->remote(); }
    vexasim::UpdateReceiver& receiver() { return remote().receiver(); }

    /// An updater for the image; its words are kept.
    bool create(const FirmwareImage& image)
    {
        mUpdater = RcuOtaUpdater::create(mBluez, mAdapterPath, "C0:FF:EE:00:00:01",
                                         mFolder.write("image.bin", image.file()), mSwitchPath,
                                         [this](const std::string& word) {
                                             const std::lock_guard lock{mWordsMutex};
                                             mWords.push_back(word);
                                             mWordsThread = std::this_thread::get_id();
                                         });
        return mUpdater != nullptr;
    }

    bool update(const FirmwareImage& image) { return create(image) && mUpdater->update(); }

    /// Runs the update beside the test, which tells its story meanwhile.
    std::future<bool> begin(const FirmwareImage& image)
    {
        EXPECT_TRUE(create(image));
        return std::async(std::launch::async, [this] { return mUpdater->update(); });
    }

    /// What the updater logged at ERROR and WARN.
    Texts failures() const { return mLog.linesOf("RcuOtaUpdater", "EW"); }

    /// All packets, as "> data 00ff" and "< control 06".
    Texts packets()
    {
        return packetsOf([](const vexasim::UpdatePacket&) { return true; });
    }
    Texts dataSent()
    {
        return packetsOf(
            [](const auto& packet) { return packet.channel == vexasim::UpdatePacket::Channel::Data; });
    }

    /// The calls that make up an update, in short, one after the other.
    Texts calls() const
    {
        static const std::map<std::string, std::string> kShort = {
            {"WriteValue", "write"},     {"StartDiscovery", "scan on"}, {"StopDiscovery", "scan off"},
            {"StartNotify", "notify"},   {"StopNotify", "stop notify"}, {"Connect", "connect"},
            {"Disconnect", "disconnect"}};
        Texts all;
        for (const auto& call : mSimulator->calls()) {
            const auto found = kShort.find(call.member);
            if (found != kShort.end()) {
                all.push_back(found->second + " " + call.path.substr(call.path.rfind('/') + 1));
            }
        }
        return all;
    }

    std::string updatePath(const std::string& uuid) { return mSimulator->pathOf(*remote().update(), uuid); }

    ScratchFolder mFolder;
    CapturedLog mLog;
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

private:
    Texts packetsOf(const std::function<bool(const vexasim::UpdatePacket&)>& wanted)
    {
        using Channel = vexasim::UpdatePacket::Channel;
        Texts all;
        for (const auto& packet : receiver().packets()) {
            if (wanted(packet)) {
                all.push_back(std::string{packet.fromRemote ? "< " : "> "} +
                              (packet.channel == Channel::Switch ? "switch "
                               : packet.channel == Channel::Data ? "data "
                                                                 : "control ") +
                              toHex(packet.bytes));
            }
        }
        return all;
    }
};

// ----------------------------------------------------------------------------------- Making an updater

class AnUpdater : public AnUpdate
{
protected:
    std::unique_ptr<RcuOtaUpdater> makeWith(const std::shared_ptr<Bluez>& bluez, const std::string& adapter,
                                            const std::string& address, const std::string& image,
                                            const std::string& otaPath) const
    {
        return RcuOtaUpdater::create(bluez, adapter, address, image, otaPath, {});
    }

    std::size_t subscribed() const
    {
        const auto listeners = mBluez->getListeners();
        return static_cast<std::size_t>(std::count_if(listeners.begin(), listeners.end(),
                                                      [](const auto& entry) { return entry.second; }));
    }

    std::string image() const { return mFolder.write("image.bin", FirmwareImage::ofWords(5).file()); }
};

TEST_F(AnUpdater, NeedsAClientAnAdapterAnAddressAndASwitch)
{
    const std::string file = image();
    const std::string text = mLog.text();

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
    const auto updater = makeWith(mBluez, "adapter", "address", image(), "switch");

    ASSERT_NE(nullptr, updater);
    EXPECT_EQ(0x0205, updater->getFirmwareInfo().version);
    EXPECT_EQ(0x1234, updater->getFirmwareInfo().signature);
    EXPECT_EQ(5, updater->getFirmwareInfo().length);
}

TEST_F(AnUpdater, ListensForItsLifeAndSendsNothing)
{
    auto updater = makeWith(mBluez, mAdapterPath, "address", image(), mSwitchPath);
    ASSERT_NE(nullptr, updater);
    EXPECT_EQ(2U, subscribed());

    updater.reset();

    EXPECT_EQ(1U, subscribed());
    mSimulator->sync();
    EXPECT_THAT(mSimulator->calls(), IsEmpty());
    EXPECT_THAT(packets(), IsEmpty());
}

// The last round key, looked for in the memory that updaters live in.
std::size_t roundKeysOnHeap()
{
    AesContext context{};
    const auto key = sharedKey();
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
    auto updater = makeWith(mBluez, "adapter", "address", image(), "switch");
    ASSERT_NE(nullptr, updater);
    ASSERT_EQ(2U, roundKeysOnHeap()) << "it ends one schedule and begins the other";

    updater.reset();

    EXPECT_EQ(0U, roundKeysOnHeap());
}

// ----------------------------------------------------------------------------------------- A good update

TEST_F(AnUpdate, OfAThousandBytesGoesThroughToTheReset)
{
    const FirmwareImage image = FirmwareImage::ofWords(250);
    receiver().setExpectedImage(image.file());
    receiver().setRunningImage(0x01a3, 0x12345678);

    EXPECT_TRUE(update(image));

    // The exchange, byte by byte.
    Texts exchange{"> switch 01",      "> control 07060011000000f401", "< control 070001",
                   "> control 063412", "< control 060001a30178563412", startPacket(image),
                   "< control 010001", "> control 0234120c000000"};
    const Texts data = dataPackets(image, 1000);
    EXPECT_EQ(50U, data.size());
    exchange.insert(exchange.end(), data.begin(), data.end());
    exchange.insert(exchange.end(), {"> control 033412", "< control 030001", "> control 04"});
    EXPECT_EQ(exchange, packets());
    EXPECT_EQ(image.payload, receiver().payload());
    EXPECT_TRUE(receiver().verified()) << receiver().complaint();

    // The words; 30, 54 and 60 % lie just above in single precision.
    EXPECT_EQ(words({2,  4,  6,  8,  10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 31, 32, 34,
                     36, 38, 40, 42, 44, 46, 48, 50, 52, 55, 56, 58, 61, 62, 64, 66, 68,
                     70, 72, 74, 76, 78, 80, 82, 84, 86, 88, 90, 92, 94, 96, 98, 100}),
              mWords);
    EXPECT_NE(std::this_thread::get_id(), mWordsThread) << "the update has a thread of its own";

    // The log.
    Texts log{"D image version: 1a3 image offset: 12345678", "D writeFw: writing..."};
    for (int sent = 20; sent <= 1000; sent += 20) {
        char line[128];
        std::snprintf(line, sizeof line, "I 20 bytes written. Sent %d of 1000 left %d (%d.00%%)", sent,
                      1000 - sent, sent / 10);
        log.emplace_back(line);
    }
    log.emplace_back("D img reset");
    EXPECT_EQ(log, mLog.linesOf("RcuOtaUpdater"));
}

TEST_F(AnUpdate, CallsTheStackInItsOrder)
{
    const FirmwareImage image = FirmwareImage::ofWords(9);
    const auto last = [](const std::string& path) { return path.substr(path.rfind('/') + 1); };
    const std::string control = last(updatePath(vexasim::uuid::kControlPoint));
    const std::string data = last(updatePath(vexasim::uuid::kData));

    EXPECT_TRUE(update(image));

    EXPECT_THAT(calls(), ElementsAre("write " + last(mSwitchPath), "scan on hci0",
                                     "connect " + last(mSimulator->updateDevicePath()), "scan off hci0",
                                     "notify " + control, "write " + control, "write " + control,
                                     "write " + control, "write " + control, "write " + data, "write " + data,
                                     "write " + control, "stop notify " + control, "write " + control));
    EXPECT_FALSE(mSimulator->discovering());
    // The last block has 16 bytes and goes out enciphered whole.
    EXPECT_EQ(dataPackets(image, 36), dataSent());
    EXPECT_EQ(words({56, 100}), mWords);

    // The pause before the verification, seen by the remote.
    std::int64_t lastData = 0;
    std::int64_t verify = 0;
    for (const auto& packet : receiver().packets()) {
        if (packet.channel == vexasim::UpdatePacket::Channel::Data) {
            lastData = packet.timeUs;
        } else if (!packet.fromRemote && packet.bytes[0] == 0x03) {
            verify = packet.timeUs;
        }
    }
    EXPECT_GE(verify - lastData, 5'000'000);
}

TEST_F(AnUpdate, OfNoLengthSendsNoDataAndVerifiesAllTheSame)
{
    FirmwareImage image = FirmwareImage::ofBytes(0, 40);

    EXPECT_TRUE(update(image));

    EXPECT_THAT(dataSent(), IsEmpty());
    EXPECT_EQ(words({}), mWords);
    EXPECT_THAT(mLog.linesOf("RcuOtaUpdater"),
                ElementsAre(HasSubstr("D image version"), "D writeFw: writing...", "D img reset"));
    EXPECT_EQ("> control 04", packets().back());
}

TEST_F(AnUpdate, OfOneWordSendsItInTheClear)
{
    const FirmwareImage image = FirmwareImage::ofWords(1);

    EXPECT_TRUE(update(image));

    EXPECT_THAT(dataSent(), ElementsAre("> data " + toHex(image.payload)));
    EXPECT_EQ(words({100}), mWords);
    EXPECT_THAT(mLog.linesOf("RcuOtaUpdater", "I"),
                ElementsAre("I 4 bytes written. Sent 4 of 4 left 0 (100.00%)"));
}

TEST_F(AnUpdate, OfOneWordWithALongerFileSendsAWholeBlock)
{
    const FirmwareImage image = FirmwareImage::ofBytes(1, 45);

    EXPECT_TRUE(update(image));

    EXPECT_EQ(dataPackets(image, 20), dataSent());
    EXPECT_EQ(words({500}), mWords);
    EXPECT_THAT(mLog.linesOf("RcuOtaUpdater", "I"),
                ElementsAre("I 20 bytes written. Sent 20 of 4 left -16 (500.00%)"));
}

TEST_F(AnUpdate, WithoutACallbackGoesThroughAllTheSame)
{
    const FirmwareImage image = FirmwareImage::ofWords(8);
    mUpdater = RcuOtaUpdater::create(mBluez, mAdapterPath, "address",
                                     mFolder.write("image.bin", image.file()), mSwitchPath, {});

    EXPECT_TRUE(mUpdater->update());

    EXPECT_EQ(dataPackets(image, 32), dataSent()) << "a last block of 12 bytes";
}

TEST_F(AnUpdate, GoesOnWithARemoteThatIgnoresParametersAndReset)
{
    receiver().setFault(UpdateStep::ConnectionParameters, silence());
    receiver().setFault(UpdateStep::Reset, refusal());

    EXPECT_TRUE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(AnUpdate, TakesTheFirstOfSeveralNotifications)
{
    // Those whose copy does no harm where it can be taken for the next command's answer.
    UpdateFault twice;
    twice.copies = 2;
    for (const auto step : {UpdateStep::GetImageInfo, UpdateStep::StartUpdate, UpdateStep::Verify}) {
        receiver().setFault(step, twice);
    }

    EXPECT_TRUE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), IsEmpty());
}

// ------------------------------------------------------------------------------------- The image's end

struct ShortFile {
    std::size_t bytes; // in the file, of the 1000 that the header announces
    std::vector<int> numbers;

    friend std::ostream& operator<<(std::ostream& out, const ShortFile& file) { return out << file.bytes; }
};

class AFileThatEndsEarly : public AnUpdate, public testing::WithParamInterface<ShortFile>
{
};

TEST_P(AFileThatEndsEarly, IsSentToItsEndAndFails)
{
    const FirmwareImage image = FirmwareImage::ofBytes(250, GetParam().bytes);

    EXPECT_FALSE(update(image));

    EXPECT_EQ(dataPackets(image, GetParam().bytes), dataSent());
    EXPECT_EQ(image.payload, receiver().payload()) << "what the remote makes of it";
    EXPECT_EQ(words(GetParam().numbers), mWords);
    EXPECT_THAT(failures(), ElementsAre("W Stream end", "E Upload fw failed"));
    EXPECT_FALSE(!mSimulator->calls("Disconnect").empty()) << "nothing more is sent to the remote";
}

INSTANTIATE_TEST_SUITE_P(Payloads, AFileThatEndsEarly,
                         testing::Values(ShortFile{0, {}}, ShortFile{1, {}}, ShortFile{15, {2}},
                                         ShortFile{16, {2}}, ShortFile{17, {2}}, ShortFile{19, {2}},
                                         ShortFile{20, {2}}, ShortFile{33, {2, 4}}, ShortFile{40, {2, 4}}),
                         [](const auto& given) { return "Of" + std::to_string(given.param.bytes); });

// -------------------------------------------------------------------------------------- Words and pacing

/// How long one write takes when nothing paces it, in microseconds: the middle of many.
std::int64_t medianWriteTime(Bluez& bluez, const std::string& path)
{
    constexpr std::size_t kWrites = 41;
    std::vector<std::int64_t> times;
    for (std::size_t i = 0; i < kWrites; ++i) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(bluez.writeCharacteristic(path, Bytes(kBlockBytes, 0)));
        const auto taken = std::chrono::steady_clock::now() - start;
        times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(taken).count());
    }
    std::nth_element(times.begin(), times.begin() + kWrites / 2, times.end());
    return times[kWrites / 2];
}

/// More than one program for each processor has been waiting to run.
bool machineIsBusy()
{
    double load = 0;
    return getloadavg(&load, 1) != 1 || load > static_cast<double>(std::thread::hardware_concurrency());
}

void printIntervals(std::vector<std::int64_t> intervals)
{
    std::sort(intervals.begin(), intervals.end());
    std::printf("intervals between blocks, in microseconds, of %zu:\n", intervals.size());
    for (const int percent : {0, 1, 5, 25, 50, 75, 95, 99, 100}) {
        const std::size_t rank = (intervals.size() - 1) * static_cast<std::size_t>(percent) / 100;
        std::printf("  %3d %% within  %7ld\n", percent, static_cast<long>(intervals[rank]));
    }
}

TEST_F(AnUpdate, IsPacedAndItsWordsRiseByOne)
{
    // One word short, so that it ends after its last block.
    const FirmwareImage image = FirmwareImage::ofBytes(1000, 3996);

    EXPECT_FALSE(update(image));

    // 15, 27, 30, 54 and 60 lie just above in single precision, and 99.9 isn't published.
    std::vector<int> numbers;
    for (int number = 1; number <= 99; ++number) {
        const bool above = number == 15 || number == 27 || number == 30 || number == 54 || number == 60;
        numbers.push_back(above ? number + 1 : number);
    }
    EXPECT_EQ(words(numbers), mWords);

    std::int64_t announced = 0;
    std::vector<std::int64_t> times;
    for (const auto& packet : receiver().packets()) {
        if (packet.channel == vexasim::UpdatePacket::Channel::Data) {
            times.push_back(packet.timeUs);
        } else {
            announced = packet.timeUs;
        }
    }
    ASSERT_EQ(200U, times.size());
    std::vector<std::int64_t> intervals;
    for (std::size_t i = 1; i < times.size(); ++i) {
        intervals.push_back(times[i] - times[i - 1]);
        // The record is late by the way to the remote, but never early: from the start of the first block on,
        // no block may come before its turn.
        EXPECT_GE(times[i] - announced, 13'000 * static_cast<std::int64_t>(i)) << "block " << i;
    }
    printIntervals(intervals);
    std::nth_element(intervals.begin(), intervals.begin() + 100, intervals.end());
    const std::int64_t median = intervals[100];
    const std::int64_t writing = medianWriteTime(*mBluez, updatePath(vexasim::uuid::kData));
    // Without the bus, whose time in a row of writes can be more than in a paced one; never under the pace.
    const std::int64_t own = std::max<std::int64_t>(median - writing, 13'000);
    std::printf("a write takes %ld microseconds; the upload keeps %.1f %% of the rate, %.1f %% if the bus "
                "answered at once\n",
                static_cast<long>(writing), 100.0 * 13'000.0 / static_cast<double>(median),
                100.0 * 13'000.0 / static_cast<double>(own));
    // A machine that others keep busy gets a wide bound: it shows what the machine does, not the updater.
    EXPECT_LE(own, machineIsBusy() ? 26'000 : 13'000 * 100 / 95);
    EXPECT_GE(median, 12'500);
}

// ---------------------------------------------------------------------------------- Answers of the remote

struct Answer {
    const char* name;
    UpdateStep step;
    UpdateFault fault;
    bool good;
};

const Answer kAnswers[] = {
    {"InfoSilent", UpdateStep::GetImageInfo, silence(), false},
    {"InfoRefused", UpdateStep::GetImageInfo, refusal(), false},
    {"InfoOfNoBytes", UpdateStep::GetImageInfo, answer({}), false},
    {"InfoOfEightBytes", UpdateStep::GetImageInfo, answer({6, 0, 1, 2, 0, 3, 0, 0}), false},
    {"InfoOfNineBytes", UpdateStep::GetImageInfo, answer({0xaa, 0xbb, 1, 2, 0, 3, 0, 0, 0}), true},
    {"InfoOfTwelveBytes", UpdateStep::GetImageInfo, answer({6, 0, 1, 2, 0, 3, 0, 0, 0, 9, 9, 9}), true},
    {"InfoOfStatus0", UpdateStep::GetImageInfo, answer({6, 1, 0, 2, 0, 3, 0, 0, 0}), false},
    {"InfoOfStatus2", UpdateStep::GetImageInfo, answer({6, 1, 2, 2, 0, 3, 0, 0, 0}), false},
    {"StartSilent", UpdateStep::StartUpdate, silence(), false},
    {"StartRefused", UpdateStep::StartUpdate, refusal(), false},
    {"StartOfTwoBytes", UpdateStep::StartUpdate, answer({1, 1}), false},
    {"StartOfThreeBytes", UpdateStep::StartUpdate, answer({0xaa, 0xbb, 1}), true},
    {"StartOfStatus0", UpdateStep::StartUpdate, answer({1, 1, 0}), false},
    {"StartOfStatus2", UpdateStep::StartUpdate, answer({1, 1, 2}), false},
};

class AnAnswer : public AnUpdate, public testing::WithParamInterface<Answer>
{
};

std::ostream& operator<<(std::ostream& out, const Answer& answer)
{
    return out << answer.name;
}

TEST_P(AnAnswer, LetsTheUpdateGoOnOrEndsIt)
{
    // Whatever is good ends at the step behind.
    const bool info = GetParam().step == UpdateStep::GetImageInfo;
    receiver().setFault(info ? UpdateStep::StartUpdate : UpdateStep::ImageInfo, refusal());
    receiver().setFault(GetParam().step, GetParam().fault);

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    const char* own = info ? "E Couldn't get img info from rc" : "E Couldn't start update";
    const char* next = info ? "E Couldn't start update" : "E Couldn't send img info to rcu";
    EXPECT_THAT(failures(), ElementsAre(GetParam().good ? next : own));
    EXPECT_THAT(dataSent(), IsEmpty());
    if (info) {
        EXPECT_THAT(mLog.linesOf("RcuOtaUpdater", "D"),
                    GetParam().good ? Texts{"D image version: 2 image offset: 3"} : Texts{});
    }
}

INSTANTIATE_TEST_SUITE_P(To, AnAnswer, testing::ValuesIn(kAnswers),
                         [](const auto& given) { return std::string{given.param.name}; });

const Answer kVerdicts[] = {
    {"Silent", UpdateStep::Verify, silence(), false},
    {"Refused", UpdateStep::Verify, refusal(), false},
    {"OfTwoBytes", UpdateStep::Verify, answer({3, 1}), true},
    {"OfStatus0", UpdateStep::Verify, answer({3, 1, 0}), true},
    {"OfStatus2", UpdateStep::Verify, answer({3, 1, 2}), true},
};

/// Here `good` says that there is an answer at all.
class AVerdict : public AnUpdate, public testing::WithParamInterface<Answer>
{
};

TEST_P(AVerdict, OtherThanGoodEndsTheUpdateWithoutAReset)
{
    receiver().setFault(UpdateStep::Verify, GetParam().fault);

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre(GetParam().good ? "E Failed to validate response"
                                                        : "E Write characteristics failed",
                                        "E Verification failed"));
    EXPECT_THAT(mSimulator->calls("StopNotify"), IsEmpty());
    for (const auto& packet : packets()) {
        EXPECT_NE("> control 04", packet);
    }
}

INSTANTIATE_TEST_SUITE_P(On, AVerdict, testing::ValuesIn(kVerdicts),
                         [](const auto& given) { return std::string{given.param.name}; });

TEST_F(AnUpdate, TakesALateAnswerForThatOfTheNextCommand)
{
    // The answer to the parameters comes while the image's information is awaited, which stays silent.
    UpdateFault late = answer({6, 0, 1, 2, 0, 3, 0, 0, 0});
    late.late = 1400ms;
    receiver().setFault(UpdateStep::ConnectionParameters, late);
    receiver().setFault(UpdateStep::GetImageInfo, silence());
    receiver().setFault(UpdateStep::StartUpdate, refusal());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Couldn't start update"));
    EXPECT_THAT(mLog.linesOf("RcuOtaUpdater", "D"), ElementsAre("D image version: 2 image offset: 3"));
}

TEST_F(AnUpdate, ForgetsANotificationThatCameBetweenCommands)
{
    // A good answer to the command that isn't waited for; the verification gets none.
    receiver().setFault(UpdateStep::ImageInfo, answer({3, 0, 1}));
    receiver().setFault(UpdateStep::Verify, silence());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(packets(), testing::Contains("< control 030001"));
    EXPECT_THAT(failures(), ElementsAre("E Write characteristics failed", "E Verification failed"));
}

TEST_F(AnUpdate, HearsNoNotificationButThatOfTheControlPoint)
{
    receiver().setFault(UpdateStep::GetImageInfo, silence());
    auto result = begin(FirmwareImage::ofWords(5));
    const std::string control = updatePath(vexasim::uuid::kControlPoint);
    ASSERT_TRUE(mSimulator->awaitCall("WriteValue", control, 2));

    mSimulator->emitPropertiesChanged(
        updatePath(vexasim::uuid::kData), kCharacteristic,
        {{"Value", vexasim::Variant{g_variant_new_parsed("[byte 6, 0, 1, 2, 0, 3, 0, 0, 0]")}}});

    EXPECT_FALSE(result.get());
    EXPECT_THAT(failures(), ElementsAre("E Couldn't get img info from rc"));
}

// ---------------------------------------------------------------------------------- Which device it takes

class TheUpdateDevice : public AnUpdate
{
protected:
    TheUpdateDevice() { mOptions.remote.bootTime = 300ms; }

    std::shared_ptr<vexasim::Peripheral> appear(const std::optional<std::string>& name,
                                                const std::string& address = "C0:FF:EE:00:00:99")
    {
        vexasim::PeripheralOptions options;
        options.address = address;
        options.name = name;
        auto peripheral = std::make_shared<vexasim::Peripheral>(options);
        mSimulator->addPeripheral(peripheral);
        mWatcher.await(mSimulator->announce(peripheral));
        return peripheral;
    }

    /// Lets the update end once it has connected.
    void endAfterConnecting() { receiver().setFault(UpdateStep::StartNotify, refusal()); }

    void expectConnected(const std::string& path)
    {
        const auto connects = mSimulator->calls("Connect");
        ASSERT_EQ(1U, connects.size());
        EXPECT_EQ(path, connects[0].path);
        EXPECT_THAT(failures(), ElementsAre("E Could not start to notify about control point changes"));
    }
};

TEST_F(TheUpdateDevice, IsTakenByThePartOfItsName)
{
    endAfterConnecting();

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

class TheWordInsideAName : public TheUpdateDevice
{
protected:
    TheWordInsideAName() { mOptions.remote.updateName = "xBeeTgty"; }
};

TEST_F(TheWordInsideAName, IsEnough)
{
    endAfterConnecting();

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsNotOneWithTheWordInLowerCase)
{
    endAfterConnecting();
    ASSERT_TRUE(create(FirmwareImage::ofWords(5)));
    appear("VEXA beetgt");

    EXPECT_FALSE(mUpdater->update());

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsNotOneThatWasThereBefore)
{
    endAfterConnecting();
    appear("Old BeeTgt");

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsNotOneWhoseNameComesLater)
{
    endAfterConnecting();
    ASSERT_TRUE(create(FirmwareImage::ofWords(5)));
    const auto nameless = appear(std::nullopt);
    ASSERT_TRUE(mSimulator->awaitCall("Get", mSimulator->devicePath(*nameless))) << "its name is asked for";
    mSimulator->setProperty(mSimulator->devicePath(*nameless), "org.bluez.Device1", "Name",
                            g_variant_new_string("Late BeeTgt"));

    EXPECT_FALSE(mUpdater->update());

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsTheFirstOfTwo)
{
    mSimulator->bend(Bend::error("Connect", "org.bluez.Error.Failed"));
    ASSERT_TRUE(create(FirmwareImage::ofWords(5)));
    const auto first = appear("First BeeTgt", "C0:FF:EE:00:00:98");
    appear("Second BeeTgt");
    ASSERT_TRUE(mSimulator->awaitCall("Get", mSimulator->devicePath(*first))) << "its name is asked for";

    EXPECT_FALSE(mUpdater->update());

    const auto connects = mSimulator->calls("Connect");
    ASSERT_EQ(1U, connects.size());
    EXPECT_EQ(mSimulator->devicePath(*first), connects[0].path);
}

TEST_F(TheUpdateDevice, MayAppearBeforeTheScan)
{
    endAfterConnecting();
    vexasim::UpdateAppearance early;
    early.beforeScan = true;
    remote().setUpdateAppearance(early);

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, HasItsDataWhereItWasAnnouncedLast)
{
    // The device that a characteristic belongs to isn't looked at either.
    mSimulator->bend(Bend::late("StartNotify", 500ms));
    auto result = begin(FirmwareImage::ofWords(5));
    ASSERT_TRUE(mSimulator->awaitCall("StartNotify"));
    const std::string other = mSimulator->remotePath() + "/service0099/char00aa";
    const vexasim::PropertyMap properties{
        {"UUID", g_variant_new_string(vexasim::uuid::kData.c_str())},
        {"Service", g_variant_new_object_path((mSimulator->remotePath() + "/service0099").c_str())}};
    mSimulator->addObject(other, {{kCharacteristic, properties}, {"org.freedesktop.DBus.Properties", {}}});
    mWatcher.await(other);

    result.get();

    EXPECT_EQ(1U, mSimulator->calls("WriteValue", other).size());
    EXPECT_THAT(dataSent(), IsEmpty());
}

// ------------------------------------------------------------------------------------------ Failed steps

TEST_F(AnUpdate, FailsIfTheSwitchIsRefused)
{
    receiver().setFault(UpdateStep::Switch, refusal());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Write RESET failed"));
    EXPECT_EQ(words({}), mWords) << "the word comes before the first step";
    EXPECT_THAT(mSimulator->calls("StartDiscovery"), IsEmpty());
}

TEST_F(AnUpdate, FailsIfItsAdapterIsUnknown)
{
    mAdapterPath = "/org/bluez/hci9";

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Setting scan to ON failed"));
}

TEST_F(AnUpdate, FailsIfTheConnectionIsRefusedAndLeavesDiscoveryOn)
{
    mSimulator->bend(Bend::error("Connect", "org.bluez.Error.Failed"));

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Failed to send connect request"));
    EXPECT_TRUE(mSimulator->discovering());
    EXPECT_THAT(mSimulator->calls("StopDiscovery"), IsEmpty());
}

TEST_F(AnUpdate, FailsIfItsAdapterGoesWhileItConnects)
{
    mSimulator->bend(Bend::lateReply("Connect", 4s));
    auto result = begin(FirmwareImage::ofWords(5));
    ASSERT_TRUE(mSimulator->awaitProperty(mSimulator->updateDevicePath(), "org.bluez.Device1", "Connected",
                                          g_variant_new_boolean(TRUE)));
    mSimulator->removeAdapter();

    EXPECT_FALSE(result.get());

    EXPECT_THAT(failures(), ElementsAre("E Setting scan to OFF failed"));
}

TEST_F(AnUpdate, FailsWithoutAControlPoint)
{
    vexasim::UpdateAppearance appearance;
    appearance.withoutControlPoint = true;
    remote().setUpdateAppearance(appearance);

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Control point not found"));
    EXPECT_FALSE(mSimulator->discovering());
}

TEST_F(AnUpdate, FailsWithoutADataCharacteristic)
{
    vexasim::UpdateAppearance appearance;
    appearance.withoutData = true;
    remote().setUpdateAppearance(appearance);

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Data not found"));
}

TEST_F(AnUpdate, FailsIfNotificationsAreRefused)
{
    receiver().setFault(UpdateStep::StartNotify, refusal());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Could not start to notify about control point changes"));
    EXPECT_THAT(packets(), ElementsAre("> switch 01"));
}

TEST_F(AnUpdate, FailsIfTheImageCantBeAnnounced)
{
    receiver().setFault(UpdateStep::ImageInfo, refusal());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Couldn't send img info to rcu"));
    EXPECT_THAT(dataSent(), IsEmpty());
}

TEST_F(AnUpdate, FailsAtABlockThatIsRefused)
{
    UpdateFault third = refusal();
    third.block = 2;
    receiver().setFault(UpdateStep::Data, third);

    EXPECT_FALSE(update(FirmwareImage::ofWords(25)));

    EXPECT_EQ(3U, dataSent().size());
    EXPECT_EQ(words({20, 40}), mWords);
    EXPECT_THAT(failures(), ElementsAre("E Write buffer failed", "E Upload fw failed"));
}

TEST_F(AnUpdate, FailsAtTheNextBlockIfTheRemoteVanishes)
{
    UpdateFault third;
    third.vanish = true;
    third.block = 2;
    receiver().setFault(UpdateStep::Data, third);

    EXPECT_FALSE(update(FirmwareImage::ofWords(25)));

    EXPECT_THAT(failures(), ElementsAre("E Write buffer failed", "E Upload fw failed"));
}

class ASecondUpdate : public AnUpdate
{
protected:
    // The remote shows up in its update mode at once and stays in normal mode too.
    ASecondUpdate() { mOptions.remote.switchTime = 1h; }
};

TEST_F(ASecondUpdate, OnOneUpdaterEndsInAFutureError)
{
    vexasim::UpdateAppearance early;
    early.beforeScan = true;
    remote().setUpdateAppearance(early);
    mSimulator->bend(Bend::error("Connect", "org.bluez.Error.Failed"));
    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_FALSE(mUpdater->update());

    EXPECT_THAT(
        failures(),
        ElementsAre("E Failed to send connect request",
                    "E future error " +
                        std::string{std::future_error{std::future_errc::future_already_retrieved}.what()}));
    EXPECT_EQ(2U, mSimulator->calls("StartDiscovery").size()) << "the steps before are repeated";
    EXPECT_EQ(1U, mSimulator->calls("Connect").size());
}

} // namespace
