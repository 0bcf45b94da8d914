// SPDX-License-Identifier: MIT
// The course of an update, from the making of the updater to its end.
#include "tests/update/RcuOtaUpdaterTest.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <stdexcept>

#include <gmock/gmock.h>

#include "tests/kit/Hex.h"

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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

/// A device whose name takes a while: the updater's callback stands in that call.
class AnUpdaterInACallback : public AnUpdater
{
protected:
    void SetUp() override
    {
        AnUpdater::SetUp();
        mUpdater = makeWith(mBluez, mAdapterPath, "address", image(), mSwitchPath);
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
    EXPECT_NE("", mWatcher.await(kStranger)) << "and the callback goes on in it";
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

    updater = makeWith(mBluez, "adapter", "address", image(), "switch");
    ASSERT_NE(nullptr, updater);
    RcuOtaUpdater::retire(std::move(updater));

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
    EXPECT_GE(timeOf(0x03) - dataTimes().back(), 5'000'000);
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

// ------------------------------------------------------------------------------------------ Other exceptions

struct Exception {
    const char* name;
    std::function<void()> raise;

    friend std::ostream& operator<<(std::ostream& out, const Exception& given) { return out << given.name; }
};

class AnException : public AnUpdate, public testing::WithParamInterface<Exception>
{
};

// Of a word's reader, say. Only what the hand-over of an answer itself raises ends in a failed update.
TEST_P(AnException, LeavesTheUpdate)
{
    mOnWord = [](const std::string& word) {
        if (word == "rc_fw_update_uploading_40") {
            GetParam().raise();
        }
    };
    ASSERT_TRUE(create(FirmwareImage::ofWords(25)));

    std::string caught = "nothing";
    try {
        mUpdater->update();
    } catch (const std::exception& exception) {
        caught = exception.what();
    }

    EXPECT_EQ("the reader failed", caught);
    EXPECT_EQ(words({20, 40}), mWords);
    EXPECT_THAT(failures(), IsEmpty());
    EXPECT_EQ(2U, dataSent().size()) << "it ends there";
}

// The second is what the caught one derives from.
INSTANTIATE_TEST_SUITE_P(
    OfAReader, AnException,
    testing::Values(Exception{"AtRunTime", [] { throw std::runtime_error("the reader failed"); }},
                    Exception{"OfLogic", [] { throw std::logic_error("the reader failed"); }}),
    [](const auto& given) { return std::string{given.param.name}; });

// -------------------------------------------------------------------------------------------- Its
// destruction

class AnUpdateThatIsOver : public AnUpdate
{
protected:
    /// Destroys the updater and sees that neither BlueZ nor the remote hears of it.
    void expectSilentEnd()
    {
        mSimulator->sync();
        mSimulator->clearCalls();
        const Texts before = packets();

        mUpdater.reset();

        mSimulator->sync();
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_EQ(before, packets());
    }
};

TEST_F(AnUpdateThatIsOver, EndsInSilenceIfItWasGood)
{
    ASSERT_TRUE(update(FirmwareImage::ofWords(1)));

    expectSilentEnd();
}

TEST_F(AnUpdateThatIsOver, EndsInSilenceAndLeavesTheLinkIfItFailed)
{
    receiver().setFault(UpdateStep::StartUpdate, refusal());
    ASSERT_FALSE(update(FirmwareImage::ofWords(1)));

    expectSilentEnd();

    const auto connected =
        mSimulator->property(mSimulator->updateDevicePath(), "org.bluez.Device1", "Connected");
    EXPECT_EQ("true", connected.text());
}

} // namespace
