// SPDX-License-Identifier: MIT
// Updates that fail: at each step the words of the log, the course of the status
// file, what was sent, and what is left behind.

#include "tests/kit/TrueTime.h"
#include "tests/daemon/UpdateStory.h"

#include <gmock/gmock.h>

#include <functional>
#include <ostream>

using namespace vexabox;
using namespace std::chrono_literals;
using ::testing::ElementsAreArray;
using vexasim::Bend;
using vexasim::UpdateAppearance;
using vexasim::UpdateFault;
using vexasim::UpdateStep;

namespace
{

constexpr const char* kUpdating = "I Updating RC firmware from 1a3 to 1a4";
constexpr const char* kImageHeld = "D image version: 1a3 image offset: 0";
constexpr const char* kWriting = "D writeFw: writing...";
constexpr const char* kFailed = "E Firmware update failed";
constexpr auto kFindLimit = 60s; // true time: the update's waits aren't moved with the clock
constexpr auto kWhileHeld = 3s;  // how long an answer is kept back, so that something can happen before
constexpr std::size_t kImageBytes = 100;

FirmwareImage imageOfFiveBlocks()
{
    return newerImage(kImageBytes / 4);
}

class AFailingUpdate : public UpdateStory
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(remoteIsRead());
        vexasim::Timings timings = box.sim().timings();
        timings.temporary = 10min; // a device that falls silent isn't forgotten meanwhile
        box.sim().setTimings(timings);
    }

    void appears(const UpdateAppearance& appearance) { box.remote().setUpdateAppearance(appearance); }

    void expectFailure(const FirmwareImage& image, const Lines& log, const std::vector<int>& numbers,
                       const std::string& idle)
    {
        ASSERT_TRUE(ends("failed", kFindLimit + kPatience));
        ASSERT_TRUE(idlesWith(idle));
        EXPECT_THAT(updateLog(),
                    ElementsAreArray(logOfStart(image) + Lines{kUpdating} + log + Lines{kFailed}));
        EXPECT_THAT(course(), ElementsAreArray(words(numbers, {"rc_fw_update_failed", idle})));
    }
};

// ---- one step after the other

/// How long the daemon waits for something behind its last call of a member, and to no avail.
struct Wait {
    const char* member = "";
    std::chrono::seconds limit{0};
};

struct Failure {
    const char* name;
    std::function<void(Box&)> arrange;
    Lines log;           ///< between "Updating..." and "Firmware update failed"
    std::size_t packets; ///< sent by the daemon, blocks included
    std::vector<int> numbers;
    bool discovering = false;
    const char* idle = "disconnected";
    Wait wait = {}; ///< if there is one
};

std::ostream& operator<<(std::ostream& stream, const Failure& failure)
{
    return stream << failure.name;
}

std::function<void(Box&)> with(UpdateStep step, const std::function<void(UpdateFault&)>& edit)
{
    UpdateFault fault;
    edit(fault);
    return [step, fault](Box& box) { box.remote().receiver().setFault(step, fault); };
}

std::function<void(Box&)> refused(UpdateStep step)
{
    return with(step, [](UpdateFault& fault) { fault.refuse = vexasim::att::kUnlikelyError; });
}

std::function<void(Box&)> silent(UpdateStep step)
{
    return with(step, [](UpdateFault& fault) { fault.silent = true; });
}

std::function<void(Box&)> status(UpdateStep step, uint8_t byte)
{
    return with(step, [byte](UpdateFault& fault) { fault.status = byte; });
}

std::function<void(Box&)> cutTo(UpdateStep step, std::size_t length)
{
    return with(step, [length](UpdateFault& fault) { fault.length = length; });
}

std::function<void(Box&)> vanishing(UpdateStep step)
{
    return with(step, [](UpdateFault& fault) { fault.vanish = true; });
}

// BlueZ gives no answer either; the D-Bus library gives up after 25 seconds.
std::function<void(Box&)> withoutReply(UpdateStep step)
{
    return with(step, [](UpdateFault& fault) { fault.noWriteReply = true; });
}

std::function<void(Box&)> refusedByBlueZ(const std::string& member)
{
    return [member](Box& box) { box.sim().bend(Bend::error(member, "org.bluez.Error.Failed")); };
}

std::function<void(Box&)> without(bool UpdateAppearance::*part)
{
    UpdateAppearance appearance;
    appearance.*part = true;
    return [appearance](Box& box) { box.remote().setUpdateAppearance(appearance); };
}

class AnUpdateThat : public AFailingUpdate, public ::testing::WithParamInterface<Failure>
{
protected:
    void expectWait(const Wait& wait)
    {
        const std::vector<vexasim::Call> calls = box.sim().calls(wait.member);
        const std::vector<int64_t> errors = arrivals(box, [](const LogRecord& record) {
            return record.level == ERROR && record.module == "RcuOtaUpdater";
        });
        ASSERT_FALSE(calls.empty() || errors.empty());
        const int64_t waited = errors.front() - calls.back().timeUs;
        EXPECT_THAT(waited, wait.limit.count() > 1 ? isNearly(wait.limit) : isAbout(wait.limit));
    }
};

TEST_P(AnUpdateThat, Fails)
{
    const Failure& failure = GetParam();
    failure.arrange(box);
    const FirmwareImage image = imageOfFiveBlocks();

    offer(image);

    expectFailure(image, failure.log, failure.numbers, failure.idle);
    Lines sent;
    for (const std::string& line : exchange()) {
        if (line[0] == '>') {
            sent.push_back(line);
        }
    }
    Lines good;
    for (const std::string& line : goodExchange(image, kImageBytes)) {
        if (line[0] == '>') {
            good.push_back(line);
        }
    }
    good.resize(failure.packets);
    EXPECT_THAT(sent, ElementsAreArray(good)) << "nothing is sent behind the failure";
    EXPECT_EQ(box.sim().discovering(), failure.discovering);
    EXPECT_EQ(box.content("bluetooth_rc_fw_version"), "1a3\n");
    if (failure.wait.limit.count() > 0) {
        expectWait(failure.wait);
    }
}

const Wait kForAnswer = {"WriteValue", 1s};
const Wait kForCharacteristic = {"StopDiscovery", 5s};
const Wait kForRemote = {"StartDiscovery", 60s};

const Lines kNoImage = {"E Couldn't get img info from rc"};
const Lines kNoStart = {kImageHeld, "E Couldn't start update"};
const std::vector<int> kAll = {20, 40, 61, 80, 100}; // 60 % of 100 bytes is just above it in single precision

Lines uploaded(std::size_t bytes, const Lines& rest)
{
    return Lines{kImageHeld, kWriting} + logOfBlocks(imageOfFiveBlocks(), bytes) + rest;
}

const Lines kNoAnswer = uploaded(100, {"E Write characteristics failed", "E Verification failed"});
const Lines kBadAnswer = uploaded(100, {"E Failed to validate response", "E Verification failed"});

INSTANTIATE_TEST_SUITE_P(
    ToSwitch, AnUpdateThat,
    ::testing::Values(
        Failure{"IsRefusedTheSwitch",
                refused(UpdateStep::Switch),
                {"E Write RESET failed"},
                1,
                {},
                false,
                "connected"},
        Failure{"CantConnect", refusedByBlueZ("Connect"), {"E Failed to send connect request"}, 1, {}, true},
        Failure{"FindsNoControlPoint",
                without(&UpdateAppearance::withoutControlPoint),
                {"E Control point not found"},
                1,
                {},
                false,
                "disconnected",
                kForCharacteristic},
        Failure{"FindsNoData",
                without(&UpdateAppearance::withoutData),
                {"E Data not found"},
                1,
                {},
                false,
                "disconnected",
                kForCharacteristic},
        Failure{"IsRefusedNotifications",
                refused(UpdateStep::StartNotify),
                {"E Could not start to notify about control point changes"},
                1,
                {}}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    ToAnnounce, AnUpdateThat,
    ::testing::Values(
        Failure{"IsRefusedTheImageInfo", refused(UpdateStep::GetImageInfo), kNoImage, 3, {}},
        Failure{"HearsNoImageInfo",
                silent(UpdateStep::GetImageInfo),
                kNoImage,
                3,
                {},
                false,
                "disconnected",
                kForAnswer},
        Failure{"HearsStatus0OfTheImage", status(UpdateStep::GetImageInfo, 0), kNoImage, 3, {}},
        Failure{"HearsStatus2OfTheImage", status(UpdateStep::GetImageInfo, 2), kNoImage, 3, {}},
        Failure{"HearsEightBytesOfTheImage", cutTo(UpdateStep::GetImageInfo, 8), kNoImage, 3, {}},
        Failure{"LosesTheRemoteAtTheImageInfo", vanishing(UpdateStep::GetImageInfo), kNoImage, 3, {}},
        Failure{"IsRefusedTheStart", refused(UpdateStep::StartUpdate), kNoStart, 4, {}},
        Failure{"HearsNothingOfTheStart",
                silent(UpdateStep::StartUpdate),
                kNoStart,
                4,
                {},
                false,
                "disconnected",
                kForAnswer},
        Failure{"HearsStatus0OfTheStart", status(UpdateStep::StartUpdate, 0), kNoStart, 4, {}},
        Failure{"HearsStatus2OfTheStart", status(UpdateStep::StartUpdate, 2), kNoStart, 4, {}},
        Failure{"HearsTwoBytesOfTheStart", cutTo(UpdateStep::StartUpdate, 2), kNoStart, 4, {}},
        Failure{"IsRefusedTheAnnouncement",
                refused(UpdateStep::ImageInfo),
                {kImageHeld, "E Couldn't send img info to rcu"},
                5,
                {}}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    ToSend, AnUpdateThat,
    ::testing::Values(Failure{"IsRefusedTheFirstBlock",
                              refused(UpdateStep::Data),
                              uploaded(0, {"E Write buffer failed", "E Upload fw failed"}),
                              6,
                              {}},
                      Failure{"IsRefusedTheFourthBlock",
                              with(UpdateStep::Data,
                                   [](UpdateFault& fault) {
                                       fault.refuse = vexasim::att::kUnlikelyError;
                                       fault.block = 3;
                                   }),
                              uploaded(60, {"E Write buffer failed", "E Upload fw failed"}),
                              9,
                              {20, 40, 61}}),
    [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    ToVerify, AnUpdateThat,
    ::testing::Values(
        Failure{"IsRefusedTheVerification", refused(UpdateStep::Verify), kNoAnswer, 11, kAll},
        Failure{"HearsNothingOfTheVerification", silent(UpdateStep::Verify), kNoAnswer, 11, kAll, false,
                "disconnected", kForAnswer},
        Failure{"HearsStatus0OfTheVerification", status(UpdateStep::Verify, 0), kBadAnswer, 11, kAll},
        Failure{"HearsStatus2OfTheVerification", status(UpdateStep::Verify, 2), kBadAnswer, 11, kAll},
        Failure{"HearsTwoBytesOfTheVerification", cutTo(UpdateStep::Verify, 2), kBadAnswer, 11, kAll}),
    [](const auto& test) { return test.param.name; });

// Their half a minute runs beside the other cases.
INSTANTIATE_TEST_SUITE_P(
    ToEndAWrite, AnUpdateThat,
    ::testing::Values(
        Failure{"HearsNoReplyToTheSwitch", withoutReply(UpdateStep::Switch), {"E Write RESET failed"}, 1, {}},
        Failure{"HearsNoReplyToACommand", withoutReply(UpdateStep::GetImageInfo), kNoImage, 3, {}},
        Failure{"HearsNoReplyToABlock",
                with(UpdateStep::Data,
                     [](UpdateFault& fault) {
                         fault.noWriteReply = true;
                         fault.block = 1;
                     }),
                uploaded(20, {"E Write buffer failed", "E Upload fw failed"}),
                7,
                {20}}),
    [](const auto& test) { return test.param.name; });

// Its wait of a minute runs beside the other cases.
INSTANTIATE_TEST_SUITE_P(ToFind, AnUpdateThat,
                         ::testing::Values(Failure{"NeverSeesTheRemoteAgain",
                                                   without(&UpdateAppearance::never),
                                                   {"E Find RCU in OTA mode failed"},
                                                   1,
                                                   {},
                                                   true,
                                                   "disconnected",
                                                   kForRemote},
                                           Failure{"SeesARemoteWithoutAName",
                                                   without(&UpdateAppearance::nameless),
                                                   {"E Find RCU in OTA mode failed"},
                                                   1,
                                                   {},
                                                   true,
                                                   "disconnected",
                                                   kForRemote}),
                         [](const auto& test) { return test.param.name; });

// ---- another key

TEST_F(AFailingUpdate, FindsThatTheRemoteHasAnotherKey)
{
    vexasim::UpdateKey another = sharedKey();
    another.back() ^= 1; // one bit
    box.remote().receiver().setKey(another);
    const FirmwareImage image = imageOfFiveBlocks();

    offer(image);

    expectFailure(image, kNoStart, {}, "disconnected");
    EXPECT_EQ(box.remote().receiver().complaint(), "start-update: no zeros behind the header; another key?");
    EXPECT_EQ(exchange().back(), "< control 01 00 00");
}

// ---- the remote goes

TEST_F(AFailingUpdate, EndsBehindTheBlockAtWhichTheRemoteVanishes)
{
    UpdateFault fault;
    fault.vanish = true;
    fault.block = 2;
    box.remote().receiver().setFault(UpdateStep::Data, fault);
    const FirmwareImage image = imageOfFiveBlocks();

    offer(image);

    expectFailure(image, uploaded(40, {"E Write buffer failed", "E Upload fw failed"}), {20, 40},
                  "disconnected");
    EXPECT_THAT(exchange(), ElementsAreArray(exchangeUpToData(image) + dataPackets(image, 60)));
}

TEST_F(AFailingUpdate, FindsTheRemoteAway)
{
    box.disconnectRemote();
    ASSERT_TRUE(box.awaitStatus("disconnected"));
    const FirmwareImage image = imageOfFiveBlocks();

    offer(image);

    ASSERT_TRUE(ends("failed"));
    ASSERT_TRUE(idlesWith("disconnected"));
    EXPECT_THAT(updateLog(),
                ElementsAreArray(logOfStart(image) + Lines{kUpdating, "E Write RESET failed", kFailed}));
    EXPECT_THAT(course(), ElementsAreArray({"disconnected", "rc_fw_update_preparing", "rc_fw_update_failed",
                                            "disconnected"}));
    EXPECT_THAT(exchange(), ::testing::IsEmpty());
}

// ---- the stack goes

TEST_F(AFailingUpdate, LosesTheAdapterBeforeTheScan)
{
    const std::string path = box.pathOf(vexasim::uuid::kSwitch);
    box.sim().bend(Bend::lateReply("WriteValue", kWhileHeld).on(path));
    const FirmwareImage image = imageOfFiveBlocks();
    offer(image);
    ASSERT_TRUE(box.sim().awaitCall("WriteValue", path, 1, kPatience));

    loseAdapterAlone();

    expectFailure(image, {"E Setting scan to ON failed"}, {}, "disconnected");
}

TEST_F(AFailingUpdate, LosesTheAdapterWhileItConnects)
{
    box.sim().bend(Bend::lateReply("Connect", kWhileHeld));
    const FirmwareImage image = imageOfFiveBlocks();
    offer(image);
    ASSERT_TRUE(box.sim().awaitCall("Connect", box.sim().updateDevicePath(), 1, kPatience));

    loseAdapterAlone();

    expectFailure(image, {"E Setting scan to OFF failed"}, {}, "disconnected");
    EXPECT_THAT(exchange(), ElementsAreArray({"> switch 01"}));
}

class AnUploadWithoutAStack : public AFailingUpdate
{
protected:
    /// Breaks the stack at the third block, and sees the update end there.
    void endsWhen(const std::function<void()>& breaks, const std::string& idle)
    {
        const FirmwareImage image = newerImage(2000);
        offer(image);
        ASSERT_TRUE(box.sim().awaitCall("WriteValue", updatePathOf(vexasim::uuid::kData), 3, kPatience));
        breaks();
        ASSERT_TRUE(ends("failed"));
        ASSERT_TRUE(idlesWith(idle));
        const Lines log = updateLog();
        ASSERT_GE(log.size(), 3U);
        EXPECT_THAT(Lines(log.end() - 3, log.end()),
                    ElementsAreArray({"E Write buffer failed", "E Upload fw failed", kFailed}));
        EXPECT_GE(box.remote().receiver().blocks(), 2U);
        EXPECT_LT(box.remote().receiver().blocks(), 400U);
    }
};

TEST_F(AnUploadWithoutAStack, FailsWhenTheAdapterIsPulled)
{
    endsWhen([this] { box.sim().removeAdapter(); }, "no device");

    // And again is refused: nothing is known of a remote any more.
    offer(imageOfFiveBlocks());
    ASSERT_TRUE(ends("canceled"));
    EXPECT_LOG(box, WARN, "main", "Update canceled: invalid state: battery: 0% version: 0");
}

TEST_F(AnUploadWithoutAStack, FailsWhenBluetoothdIsKilled)
{
    endsWhen([this] { box.sim().stopService(vexasim::Simulator::Stop::Kill); }, "no device");
}

TEST_F(AnUploadWithoutAStack, FailsWhenBluetoothdIsStopped)
{
    endsWhen([this] { box.sim().stopService(vexasim::Simulator::Stop::Terminate); }, "no device");
}

// ---- answers at the wrong time or from the wrong place

TEST_F(AFailingUpdate, TookTheLateAnswerOfAnotherCommand)
{
    UpdateFault late;
    late.late = 1500ms; // half a second into the wait for the next command's answer
    box.remote().receiver().setFault(UpdateStep::ConnectionParameters, late);
    silent(UpdateStep::GetImageInfo)(box);
    const FirmwareImage image = imageOfFiveBlocks();

    offer(image);

    expectFailure(image, kNoImage, {}, "disconnected"); // three bytes came where nine are needed
}

TEST_F(AFailingUpdate, ForgetsAnAnswerThatCameBetweenCommands)
{
    UpdateFault unasked;
    unasked.answers = {{3, 0, 1}}; // would do for the verification
    box.remote().receiver().setFault(UpdateStep::ImageInfo, unasked);
    silent(UpdateStep::Verify)(box);
    const FirmwareImage image = imageOfFiveBlocks();

    offer(image);

    expectFailure(image, kNoAnswer, kAll, "disconnected");
}

TEST_F(AFailingUpdate, HearsNoCharacteristicButTheControlPoint)
{
    silent(UpdateStep::Verify)(box);
    const FirmwareImage image = imageOfFiveBlocks();
    offer(image);
    // The sixth command is the verification.
    ASSERT_TRUE(box.sim().awaitCall("WriteValue", updatePathOf(vexasim::uuid::kControlPoint), 5, kPatience));
    const std::vector<uint8_t> good = {3, 0, 1};
    box.sim().emitPropertiesChanged(
        updatePathOf(vexasim::uuid::kData), "org.bluez.GattCharacteristic1",
        {{"Value", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, good.data(), good.size(), 1)}});

    expectFailure(image, kNoAnswer, kAll, "disconnected");
}

// ---- the next attempt

TEST_F(AFailingUpdate, LeavesTheWayFreeForTheNextOne)
{
    UpdateFault once;
    once.refuse = vexasim::att::kUnlikelyError;
    once.times = 1;
    box.remote().receiver().setFault(UpdateStep::Switch, once);
    const FirmwareImage image = imageOfFiveBlocks();
    offer(image);
    ASSERT_TRUE(ends("failed"));

    box.linkFirmware("/tmp/image.bin"); // while the word of the first still stands

    ASSERT_TRUE(ends("succeed"));
    EXPECT_THAT(exchange(), ElementsAreArray(Lines{"> switch 01"} + goodExchange(image, kImageBytes)));
    EXPECT_THAT(course(), ElementsAreArray(Lines{"connected", "rc_fw_update_preparing", "rc_fw_update_failed",
                                                 "rc_fw_update_preparing", "rc_fw_update_uploading_20",
                                                 "rc_fw_update_uploading_40", "rc_fw_update_uploading_61",
                                                 "rc_fw_update_uploading_80", "rc_fw_update_uploading_100",
                                                 "rc_fw_update_succeed"}));
}

} // namespace
