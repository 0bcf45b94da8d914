// SPDX-License-Identifier: MIT
// Updates that fail: for each step the words of the log, the course of the status file, what was sent, and
// what is left behind.

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <optional>

#include "tests/daemon/UpdateStory.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/TrueTime.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""min;
using ::testing::ElementsAreArray;
using vexasim::Bend;
using vexasim::UpdateAppearance;
using vexasim::UpdateFault;
using vexasim::UpdateStep;

namespace
{

constexpr const char* kFailed = "E Firmware update failed";
constexpr const char* kImageHeld = "D image version: 1a3 image offset: 0";
constexpr auto kWhileHeld = 3s; // how long an answer is delayed, so that something else can happen first
constexpr std::size_t kImageBytes = 100;

const std::vector<int> kAll = {20, 40, 61, 80, 100}; // 60 % of 100 bytes is just above it in single precision

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

    const FirmwareImage image = newerImage(kImageBytes / 4); // five blocks
};

// --- one step after the other ---

/// How long the daemon waits in vain after its last call of a member.
struct Wait {
    const char* member = "";
    std::chrono::seconds limit{0};
};

struct Failure : NamedCase {
    Arrangement arrange;
    Lines log;           ///< between "Updating..." and "Firmware update failed"
    std::size_t packets; ///< sent by the daemon, blocks included
    Wait wait = {};      ///< if there is one
    bool discovering = false;
    const char* idle = "disconnected";
};

Arrangement status(UpdateStep step, std::uint8_t byte)
{
    return with(step, [byte](UpdateFault& fault) { fault.status = byte; });
}

Arrangement cutTo(UpdateStep step, std::size_t length)
{
    return with(step, [length](UpdateFault& fault) { fault.length = length; });
}

// The link ends, and the remote goes off the air.
Arrangement vanishing(UpdateStep step, std::optional<unsigned> block = {})
{
    return with(step, [block](UpdateFault& fault) {
        fault.vanish = true;
        fault.block = block;
    });
}

// BlueZ gives no answer either; the D-Bus library gives up after 25 seconds.
Arrangement withoutReply(UpdateStep step, std::optional<unsigned> block = {})
{
    return with(step, [block](UpdateFault& fault) {
        fault.noWriteReply = true;
        fault.block = block;
    });
}

Arrangement refusedByBlueZ(const std::string& member)
{
    return [member](Box& box) { box.sim().bend(Bend::error(member, "org.bluez.Error.Failed")); };
}

Arrangement without(bool UpdateAppearance::*part)
{
    UpdateAppearance appearance;
    appearance.*part = true;
    return [appearance](Box& box) { box.remote().setUpdateAppearance(appearance); };
}

// The key differs by one bit.
void withAnotherKey(Box& box)
{
    vexasim::UpdateKey another = sharedKey();
    another.back() ^= 1;
    box.remote().receiver().setKey(another);
}

class AnUpdateThat : public AFailingUpdate, public ::testing::WithParamInterface<Failure>
{
protected:
    void expectWait(const Wait& wait)
    {
        const std::vector<vexasim::Call> calls = box.sim().calls(wait.member);
        const std::vector<std::int64_t> errors = arrivals(box, [](const LogRecord& record) {
            return record.level == ERROR && record.module == "RcuOtaUpdater";
        });
        ASSERT_FALSE(calls.empty() || errors.empty());
        const std::int64_t waited = errors.front() - calls.back().timeUs;
        EXPECT_THAT(waited, wait.limit.count() > 1 ? isNearly(wait.limit) : isAbout(wait.limit));
    }
};

TEST_P(AnUpdateThat, Fails)
{
    const Failure& failure = GetParam();
    failure.arrange(box);

    offer(image);

    // The sixth packet is the first block; each later packet shows that one more block has arrived.
    const std::size_t arrived = failure.packets > 6 ? std::min(failure.packets - 6, kAll.size()) : 0;
    expectFailure(image, failure.log, {kAll.begin(), kAll.begin() + static_cast<std::ptrdiff_t>(arrived)},
                  failure.idle);
    Lines good = sentIn(goodExchange(image, kImageBytes));
    good.resize(failure.packets);
    EXPECT_THAT(sentIn(exchange()), ElementsAreArray(good)) << "nothing is sent behind the failure";
    EXPECT_THAT(box.busCalls({"StopNotify", "Disconnect"}), ::testing::IsEmpty());
    EXPECT_EQ(box.sim().discovering(), failure.discovering);
    EXPECT_EQ(box.content("bluetooth_rc_fw_version"), "1a3\n");
    if (failure.wait.limit.count() > 0) {
        expectWait(failure.wait);
    }
}

const Wait kForAnswer = {"WriteValue", 1s};
const Wait kForCharacteristic = {"StopDiscovery", 5s};
const Wait kForRemote = {"StartDiscovery", 60s};

const Lines kNotFound = {"E Find RCU in OTA mode failed"};
const Lines kNoImage = {"E Couldn't get img info from rc"};
const Lines kNoStart = {kImageHeld, "E Couldn't start update"};

Lines uploaded(std::size_t bytes, const Lines& rest)
{
    return Lines{kImageHeld, "D writeFw: writing..."} + logOfBlocks(newerImage(kImageBytes / 4), bytes) +
           rest;
}

const Lines kNoAnswer = uploaded(100, {"E Write characteristics failed", "E Verification failed"});
const Lines kBadAnswer = uploaded(100, {"E Failed to validate response", "E Verification failed"});

Lines refusedBlock(std::size_t bytesBefore)
{
    return uploaded(bytesBefore, {"E Write buffer failed", "E Upload fw failed"});
}

// Cases that wait for half a minute or more run in parallel with the others.
const Failure kFailures[] = {
    // Switching, finding, connecting.
    {{"IsRefusedTheSwitch"},
     refused(UpdateStep::Switch),
     {"E Write RESET failed"},
     1,
     {},
     false,
     "connected"},
    {{"HearsNoReplyToTheSwitch"}, withoutReply(UpdateStep::Switch), {"E Write RESET failed"}, 1},
    {{"NeverSeesTheRemoteAgain"}, without(&UpdateAppearance::never), kNotFound, 1, kForRemote, true},
    {{"SeesARemoteWithoutAName"}, without(&UpdateAppearance::nameless), kNotFound, 1, kForRemote, true},
    {{"CantConnect"}, refusedByBlueZ("Connect"), {"E Failed to send connect request"}, 1, {}, true},
    {{"FindsNoControlPoint"},
     without(&UpdateAppearance::withoutControlPoint),
     {"E Control point not found"},
     1,
     kForCharacteristic},
    {{"FindsNoData"}, without(&UpdateAppearance::withoutData), {"E Data not found"}, 1, kForCharacteristic},
    {{"IsRefusedNotifications"},
     refused(UpdateStep::StartNotify),
     {"E Could not start to notify about control point changes"},
     1},
    // Announcing.
    {{"IsRefusedTheImageInfo"}, refused(UpdateStep::GetImageInfo), kNoImage, 3},
    {{"HearsNoReplyToACommand"}, withoutReply(UpdateStep::GetImageInfo), kNoImage, 3},
    {{"HearsNoImageInfo"}, silent(UpdateStep::GetImageInfo), kNoImage, 3, kForAnswer},
    {{"HearsStatus0OfTheImage"}, status(UpdateStep::GetImageInfo, 0), kNoImage, 3},
    {{"HearsStatus2OfTheImage"}, status(UpdateStep::GetImageInfo, 2), kNoImage, 3},
    {{"HearsNoBytesOfTheImage"}, answering(UpdateStep::GetImageInfo, {{}}), kNoImage, 3},
    {{"HearsEightBytesOfTheImage"}, cutTo(UpdateStep::GetImageInfo, 8), kNoImage, 3},
    {{"LosesTheRemoteAtTheImageInfo"}, vanishing(UpdateStep::GetImageInfo), kNoImage, 3},
    // Three bytes come where nine are needed, half a second into the wait for them.
    {{"TakesTheLateAnswerOfAnotherCommand"},
     both(late(UpdateStep::ConnectionParameters, 1500ms), silent(UpdateStep::GetImageInfo)),
     kNoImage,
     3},
    // Both answers arrive before the daemon takes one.
    {{"HearsABadAnswerBehindAGoodOne"},
     both(slowWrites(1s), answering(UpdateStep::GetImageInfo, {{6, 0, 1, 2, 0, 3, 0, 0, 0}, {6, 0, 0}})),
     kNoImage,
     3},
    {{"IsRefusedTheStart"}, refused(UpdateStep::StartUpdate), kNoStart, 4},
    {{"HearsNothingOfTheStart"}, silent(UpdateStep::StartUpdate), kNoStart, 4, kForAnswer},
    {{"HearsStatus0OfTheStart"}, status(UpdateStep::StartUpdate, 0), kNoStart, 4},
    {{"HearsStatus2OfTheStart"}, status(UpdateStep::StartUpdate, 2), kNoStart, 4},
    {{"HearsTwoBytesOfTheStart"}, cutTo(UpdateStep::StartUpdate, 2), kNoStart, 4},
    {{"MeetsARemoteWithAnotherKey"}, withAnotherKey, kNoStart, 4},
    {{"IsRefusedTheAnnouncement"},
     refused(UpdateStep::ImageInfo),
     {kImageHeld, "E Couldn't send img info to rcu"},
     5},
    // Sending.
    {{"IsRefusedTheFirstBlock"}, refused(UpdateStep::Data), refusedBlock(0), 6},
    {{"IsRefusedTheFourthBlock"},
     with(UpdateStep::Data,
          [](UpdateFault& fault) {
              fault.refuse = vexasim::att::kUnlikelyError;
              fault.block = 3;
          }),
     refusedBlock(60),
     9},
    {{"HearsNoReplyToABlock"}, withoutReply(UpdateStep::Data, 1), refusedBlock(20), 7},
    {{"LosesTheRemoteAtABlock"}, vanishing(UpdateStep::Data, 2), refusedBlock(40), 8},
    // Verifying.
    {{"IsRefusedTheVerification"}, refused(UpdateStep::Verify), kNoAnswer, 11},
    {{"HearsNothingOfTheVerification"}, silent(UpdateStep::Verify), kNoAnswer, 11, kForAnswer},
    {{"HearsStatus0OfTheVerification"}, status(UpdateStep::Verify, 0), kBadAnswer, 11},
    {{"HearsStatus2OfTheVerification"}, status(UpdateStep::Verify, 2), kBadAnswer, 11},
    {{"HearsTwoBytesOfTheVerification"}, cutTo(UpdateStep::Verify, 2), kBadAnswer, 11},
    // An answer that came between commands would pass for the verification's.
    {{"ForgetsAnAnswerThatNobodyAskedFor"},
     both(answering(UpdateStep::ImageInfo, {{3, 0, 1}}), silent(UpdateStep::Verify)),
     kNoAnswer,
     11},
};

INSTANTIATE_TEST_SUITE_P(Each, AnUpdateThat, ::testing::ValuesIn(kFailures), named);

// --- the remote or the stack goes ---

TEST_F(AFailingUpdate, FindsTheRemoteAway)
{
    box.disconnectRemote();
    ASSERT_TRUE(box.awaitStatus("disconnected"));
    offer(image);

    ASSERT_TRUE(ends("failed"));
    ASSERT_TRUE(idlesWith("disconnected"));
    EXPECT_THAT(updateLog(),
                ElementsAreArray(logOfStart(image) + Lines{"I Updating RC firmware from 1a3 to 1a4",
                                                           "E Write RESET failed", kFailed}));
    EXPECT_THAT(course(), ElementsAreArray({"disconnected", "rc_fw_update_preparing", "rc_fw_update_failed",
                                            "disconnected"}));
    EXPECT_THAT(exchange(), ::testing::IsEmpty());
}

TEST_F(AFailingUpdate, LosesTheAdapterBeforeTheScan)
{
    const std::string path = box.pathOf(vexasim::uuid::kSwitch);
    box.sim().bend(Bend::lateReply("WriteValue", kWhileHeld).on(path));
    offer(image);
    ASSERT_TRUE(box.sim().awaitCall("WriteValue", path, 1, kPatience));

    box.loseAdapterAlone();

    expectFailure(image, {"E Setting scan to ON failed"}, {});
}

TEST_F(AFailingUpdate, LosesTheAdapterWhileItConnects)
{
    box.sim().bend(Bend::lateReply("Connect", kWhileHeld));
    offer(image);
    ASSERT_TRUE(box.sim().awaitCall("Connect", box.sim().updateDevicePath(), 1, kPatience));

    box.loseAdapterAlone();

    expectFailure(image, {"E Setting scan to OFF failed"}, {});
    EXPECT_THAT(exchange(), ElementsAreArray({"> switch 01"}));
}

class AnUploadWithoutAStack : public AFailingUpdate
{
protected:
    /// Breaks the stack at the third block, and expects the update to end there.
    void endsWhen(const std::function<void()>& breaks, const std::string& idle)
    {
        const FirmwareImage longImage = newerImage(2000);
        offer(longImage);
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

    // Another update is refused: nothing is known of a remote any more.
    offer(newerImage(kImageBytes / 4));
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

// --- an answer from the wrong place ---

TEST_F(AFailingUpdate, HearsNoCharacteristicButTheControlPoint)
{
    silent(UpdateStep::Verify)(box);
    offer(image);
    // The sixth command is the verification.
    ASSERT_TRUE(box.sim().awaitCall("WriteValue", updatePathOf(vexasim::uuid::kControlPoint), 5, kPatience));
    const std::vector<std::uint8_t> good = {3, 0, 1};
    box.sim().emitPropertiesChanged(
        updatePathOf(vexasim::uuid::kData), "org.bluez.GattCharacteristic1",
        {{"Value", g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, good.data(), good.size(), 1)}});

    expectFailure(image, kNoAnswer, kAll);
}

// --- the next attempt ---

TEST_F(AFailingUpdate, LeavesTheWayFreeForTheNextOne)
{
    UpdateFault once;
    once.refuse = vexasim::att::kUnlikelyError;
    once.times = 1;
    box.remote().receiver().setFault(UpdateStep::Switch, once);
    offer(image);
    ASSERT_TRUE(ends("failed"));

    box.linkFirmware("/tmp/image.bin"); // while the word of the first is still published

    ASSERT_TRUE(ends("succeed"));
    EXPECT_THAT(exchange(), ElementsAreArray(Lines{"> switch 01"} + goodExchange(image, kImageBytes)));
    EXPECT_THAT(course(), ElementsAreArray(Lines{"connected", "rc_fw_update_preparing", "rc_fw_update_failed",
                                                 "rc_fw_update_preparing", "rc_fw_update_uploading_20",
                                                 "rc_fw_update_uploading_40", "rc_fw_update_uploading_61",
                                                 "rc_fw_update_uploading_80", "rc_fw_update_uploading_100",
                                                 "rc_fw_update_succeed"}));
}

} // namespace

} // namespace kit
