// SPDX-License-Identifier: MIT
// Good updates: every packet, every word, every record of the log.

#include "tests/daemon/Pacing.h"
#include "tests/kit/TrueTime.h"
#include "tests/daemon/UpdateStory.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

using namespace vexabox;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using vexasim::UpdateFault;
using vexasim::UpdatePacket;
using vexasim::UpdateStep;

namespace
{

constexpr std::size_t kBlockBytes = 20;

// What follows the word behind the last block.
const Lines kWellEnded = {"rc_fw_update_succeed", "disconnected"};

class AnUpdate : public UpdateStory
{
protected:
    explicit AnUpdate(const BoxOptions& options = pairedRemote()) : UpdateStory(options) {}

    void SetUp() override { ASSERT_TRUE(remoteIsRead()); }

    void expectGood(const FirmwareImage& image, std::size_t bytes, const std::vector<int>& numbers)
    {
        offer(image);
        ASSERT_TRUE(ends("succeed", 120s));
        ASSERT_TRUE(idlesWith("disconnected"));
        EXPECT_THAT(exchange(), ElementsAreArray(goodExchange(image, bytes)));
        EXPECT_THAT(course(), ElementsAreArray(words(numbers, kWellEnded)));
        EXPECT_TRUE(box.remote().receiver().verified()) << box.remote().receiver().complaint();
    }
};

// ---- the whole log

TEST_F(AnUpdate, TellsEachStepInTheLog)
{
    const FirmwareImage image = newerImage(13); // 52 bytes: two whole blocks and one of 12
    offer(image);
    ASSERT_TRUE(ends("succeed"));
    ASSERT_LOG(box, INFO, "main", "Firmware updated");

    EXPECT_THAT(updateLog(),
                ElementsAreArray(logOfStart(image) +
                                 Lines{"I Updating RC firmware from 1a3 to 1a4",
                                       "D image version: 1a3 image offset: 0", "D writeFw: writing...",
                                       "I 20 bytes written. Sent 20 of 52 left 32 (38.46%)",
                                       "I 20 bytes written. Sent 40 of 52 left 12 (76.92%)",
                                       "I 12 bytes written. Sent 52 of 52 left 0 (100.00%)", "D img reset",
                                       "I Firmware updated"}));
}

TEST_F(AnUpdate, CallsTheStackInItsOrder)
{
    box.sim().clearCalls();
    offer(newerImage(1));
    ASSERT_TRUE(ends("succeed"));

    Lines calls;
    for (const vexasim::Call& call : box.sim().calls()) {
        if (call.interface != "org.freedesktop.DBus.Properties" &&
            call.interface != "org.freedesktop.DBus.ObjectManager") {
            calls.push_back(call.member + " " + call.path);
        }
    }
    const std::string controlPoint = updatePathOf(vexasim::uuid::kControlPoint);
    const std::string command = "WriteValue " + controlPoint;
    EXPECT_THAT(calls, ElementsAre("WriteValue " + box.pathOf(vexasim::uuid::kSwitch),
                                   "StartDiscovery " + box.sim().adapterPath(),
                                   "Connect " + box.sim().updateDevicePath(),
                                   "StopDiscovery " + box.sim().adapterPath(), "StartNotify " + controlPoint,
                                   command, command, command, command,
                                   "WriteValue " + updatePathOf(vexasim::uuid::kData), command,
                                   "StopNotify " + controlPoint, command));
}

// ---- images

class AnImageThatIs : public AnUpdate, public ::testing::WithParamInterface<bool>
{
};

TEST_P(AnImageThatIs, IsSentAsItWas)
{
    const FirmwareImage image = newerImage(2500); // longer than a stream reads ahead
    offer(image);
    ASSERT_LOG(box, INFO, "main", "Updating RC firmware from 1a3 to 1a4");
    if (GetParam()) {
        box.writeText("other.bin", std::string(20000, 'x'));
        std::filesystem::rename(box.file("other.bin"), box.file("image.bin"));
    } else {
        std::filesystem::remove(box.file("image.bin"));
    }

    ASSERT_TRUE(ends("succeed", 120s));
    EXPECT_THAT(exchange(), ElementsAreArray(goodExchange(image, 10000)));
    EXPECT_TRUE(box.remote().receiver().verified()) << box.remote().receiver().complaint();
}

INSTANTIATE_TEST_SUITE_P(DuringItsUpdate, AnImageThatIs, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Replaced" : "Removed"; });

TEST_F(AnUpdate, OfNoWordsSendsNoBlockAndVerifies)
{
    const FirmwareImage image = newerImage(0, 40);
    expectGood(image, 0, {});
    EXPECT_THAT(updateLog(),
                ElementsAreArray(logOfStart(image) + Lines{"I Updating RC firmware from 1a3 to 1a4",
                                                           "D image version: 1a3 image offset: 0",
                                                           "D writeFw: writing...", "D img reset",
                                                           "I Firmware updated"}));
}

TEST_F(AnUpdate, OfOneWordSendsItInTheClear)
{
    expectGood(newerImage(1), 4, {100});
}

TEST_F(AnUpdate, OfOneWordWithALongerFileSendsAWholeBlock)
{
    expectGood(newerImage(1, 33), 20, {500});
    EXPECT_LOG(box, INFO, "RcuOtaUpdater", "20 bytes written. Sent 20 of 4 left -16 (500.00%)");
}

TEST_F(AnUpdate, Of250WordsPublishesEachOfItsBlocks)
{
    expectGood(newerImage(250), 1000, {2,  4,  6,  8,  10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 31, 32, 34,
                                       36, 38, 40, 42, 44, 46, 48, 50, 52, 55, 56, 58, 61, 62, 64, 66, 68,
                                       70, 72, 74, 76, 78, 80, 82, 84, 86, 88, 90, 92, 94, 96, 98, 100});
}

TEST_F(AnUpdate, Of4096WordsRisesByOneAtATime)
{
    const std::vector<int> numbers = publishedNumbers(16384, 16384);
    ASSERT_EQ(numbers.front(), 1);
    ASSERT_EQ(numbers.size(), 102U); // 42 and 84 come twice
    expectGood(newerImage(4096), 16384, numbers);
}

TEST_F(AnUpdate, WithAFileLongerThanItSaysSendsTheLastBlockWhole)
{
    expectGood(newerImage(6, 100), 40, {84, 167}); // 24 bytes are announced
    EXPECT_LOG(box, INFO, "RcuOtaUpdater", "20 bytes written. Sent 40 of 24 left -16 (166.67%)");
}

// ---- the last block

class AFileThatEndsInABlock : public AnUpdate, public ::testing::WithParamInterface<std::size_t>
{
};

// A payload of whole words can't end in such a block, so these announce one word more than they hold and fail
// behind their last byte; the packets are what matters.
TEST_P(AFileThatEndsInABlock, SendsItAsItIs)
{
    const std::size_t bytes = kBlockBytes + GetParam();
    const FirmwareImage image = newerImage(static_cast<uint16_t>(bytes / 4 + 1), bytes);
    offer(image);
    ASSERT_TRUE(ends("failed"));
    ASSERT_LOG(box, ERROR, "main", "Firmware update failed");

    EXPECT_THAT(exchange(), ElementsAreArray(exchangeUpToData(image) + dataPackets(image, bytes)));
    EXPECT_THAT(updateLog(),
                ElementsAreArray(logOfStart(image) +
                                 Lines{"I Updating RC firmware from 1a3 to 1a4",
                                       "D image version: 1a3 image offset: 0", "D writeFw: writing..."} +
                                 logOfBlocks(image, bytes) +
                                 Lines{"W Stream end", "E Upload fw failed", "E Firmware update failed"}));
}

INSTANTIATE_TEST_SUITE_P(OfBytes, AFileThatEndsInABlock, ::testing::Values(1, 13, 15, 16, 17, 19, 20));

TEST_F(AnUpdate, OfAHeaderAloneEndsAtItsFirstBlock)
{
    const FirmwareImage image = newerImage(5, 0);
    offer(image);
    ASSERT_TRUE(ends("failed"));
    ASSERT_LOG(box, ERROR, "main", "Firmware update failed");

    EXPECT_THAT(exchange(), ElementsAreArray(exchangeUpToData(image)));
    EXPECT_THAT(updateLog(),
                ElementsAreArray(logOfStart(image) +
                                 Lines{"I Updating RC firmware from 1a3 to 1a4",
                                       "D image version: 1a3 image offset: 0", "D writeFw: writing...",
                                       "W Stream end", "E Upload fw failed", "E Firmware update failed"}));
}

TEST_F(AnUpdate, OfAHeaderThatAnnouncesNothingIsGood)
{
    expectGood(newerImage(0, 0), 0, {});
}

// The last block of a good update, cut by the end of the file.
class AGoodFileThatEndsInABlock : public AnUpdate, public ::testing::WithParamInterface<std::size_t>
{
};

TEST_P(AGoodFileThatEndsInABlock, SendsItAsItIs)
{
    const std::size_t bytes = kBlockBytes + GetParam();
    const FirmwareImage image =
        newerImage(static_cast<uint16_t>(bytes / 4), bytes); // the rest isn't announced
    offer(image);
    ASSERT_TRUE(ends("succeed"));

    EXPECT_THAT(exchange(), ElementsAreArray(goodExchange(image, bytes)));
}

INSTANTIATE_TEST_SUITE_P(OfBytes, AGoodFileThatEndsInABlock, ::testing::Values(4, 15, 16, 17, 19));

// ---- pacing

// From the remote's record. A packet that was noted late shortens the interval behind it, so single intervals
// may be shorter than 13 ms; from the first block to any later one the sum may be only by that one delay.
TEST_F(AnUpdate, LeavesThirteenMillisecondsFromBlockToBlock)
{
    // Of the pace; a busy machine decides nothing here. Beside twelve programs that never rest two processors
    // came to 50 % of it, with a median of 20 ms, and at a lower priority to 19 % and 29 ms.
    constexpr double kWorstRate = 0.15;
    offer(newerImage(1250));
    ASSERT_TRUE(ends("succeed", 120s));

    std::vector<int64_t> times;
    for (const UpdatePacket& packet : packets()) {
        if (packet.channel == UpdatePacket::Channel::Data) {
            times.push_back(packet.timeUs);
        }
    }
    ASSERT_EQ(times.size(), 250U);
    const Pacing pacing(times);
    pacing.print();

    EXPECT_GE(pacing.medianUs(), Pacing::kPaceUs - 1000);
    EXPECT_LE(pacing.medianUs(), 4 * Pacing::kPaceUs);
    // 100 ms for the first packet's being noted late.
    EXPECT_LE(pacing.rate(), 1.0 + 100000.0 / static_cast<double>(pacing.wholeUs()));
    EXPECT_GE(pacing.rate(), kWorstRate);
}

// ---- pauses

TEST_F(AnUpdate, PausesBeforeTheVerificationAndAfterTheReset)
{
    offer(newerImage(5));
    ASSERT_TRUE(ends("succeed"));

    const std::vector<UpdatePacket> all = packets();
    ASSERT_GE(all.size(), 4U);
    const UpdatePacket& data = all[all.size() - 4];
    const UpdatePacket& verify = all[all.size() - 3];
    const UpdatePacket& reset = all.back();
    ASSERT_EQ(data.channel, UpdatePacket::Channel::Data);
    EXPECT_THAT(verify.timeUs - data.timeUs, isNearly(5s));
    // Nothing can answer the reset, and still its answer is waited for.
    const int64_t ended = microseconds(box.files().moments("bluetooth_status").back().time);
    EXPECT_THAT(ended - reset.timeUs, isAbout(1s));
}

// ---- answers

UpdateFault answering(const std::vector<vexasim::Bytes>& answers)
{
    UpdateFault fault;
    fault.answers = answers;
    return fault;
}

struct Tolerated {
    const char* name;
    UpdateStep step;
    UpdateFault fault;
};

std::ostream& operator<<(std::ostream& stream, const Tolerated& tolerated)
{
    return stream << tolerated.name;
}

Tolerated silent(const char* name, UpdateStep step)
{
    UpdateFault fault;
    fault.silent = true;
    return {name, step, fault};
}

Tolerated refusing(const char* name, UpdateStep step)
{
    UpdateFault fault;
    fault.refuse = vexasim::att::kUnlikelyError;
    return {name, step, fault};
}

Tolerated twice(const char* name, UpdateStep step)
{
    UpdateFault fault;
    fault.copies = 2;
    return {name, step, fault};
}

Tolerated slow(const char* name, UpdateStep step)
{
    UpdateFault fault;
    fault.late = 300ms; // a third of the time that it has
    return {name, step, fault};
}

class AnUpdateOfARemote : public AnUpdate, public ::testing::WithParamInterface<Tolerated>
{
};

TEST_P(AnUpdateOfARemote, Succeeds)
{
    const FirmwareImage image = newerImage(10);
    fault(GetParam().step, GetParam().fault);
    offer(image);
    ASSERT_TRUE(ends("succeed"));
    ASSERT_TRUE(idlesWith("disconnected"));

    Lines sent = exchange();
    sent.erase(std::remove_if(sent.begin(), sent.end(), [](const auto& line) { return line[0] == '<'; }),
               sent.end());
    Lines expected = goodExchange(image, 40);
    expected.erase(
        std::remove_if(expected.begin(), expected.end(), [](const auto& line) { return line[0] == '<'; }),
        expected.end());
    EXPECT_THAT(sent, ElementsAreArray(expected));
    EXPECT_THAT(course(), ElementsAreArray(words({50, 100}, kWellEnded)));
}

INSTANTIATE_TEST_SUITE_P(
    That, AnUpdateOfARemote,
    ::testing::Values(
        silent("IsSilentOnConnectionParameters", UpdateStep::ConnectionParameters),
        refusing("RefusesConnectionParameters", UpdateStep::ConnectionParameters),
        slow("ThinksAboutTheParameters", UpdateStep::ConnectionParameters),
        slow("ThinksAboutTheImageInfo", UpdateStep::GetImageInfo),
        slow("ThinksAboutTheStart", UpdateStep::StartUpdate),
        slow("ThinksAboutTheVerification", UpdateStep::Verify),
        Tolerated{"DislikesConnectionParameters", UpdateStep::ConnectionParameters, answering({{7, 0, 0}})},
        // Nothing answers the connection parameters twice: whether the second answer falls into the wait of
        // the next command, whose answer it is then, is a matter of time.
        twice("AnswersTheImageInfoTwice", UpdateStep::GetImageInfo),
        twice("AnswersTheStartTwice", UpdateStep::StartUpdate),
        twice("AnswersTheVerificationTwice", UpdateStep::Verify),
        Tolerated{"SpellsItsAnswersOtherwise", UpdateStep::GetImageInfo,
                  answering({{0xff, 0xee, 1, 0, 0, 0, 0, 0, 0}})},
        Tolerated{"SaysMoreThanItIsAsked", UpdateStep::StartUpdate, answering({{1, 0, 1, 9, 9, 9, 9}})},
        Tolerated{"AnswersTheUnansweredCommand", UpdateStep::ImageInfo, answering({{2, 0, 0}})},
        refusing("RefusesTheEndOfNotifications", UpdateStep::StopNotify),
        refusing("RefusesTheReset", UpdateStep::Reset)),
    [](const auto& test) { return test.param.name; });

TEST_F(AnUpdate, LogsTheImageThatTheRemoteHolds)
{
    fault(UpdateStep::GetImageInfo,
          answering({{0xff, 0xee, 1, 0x34, 0x12, 0x78, 0x56, 0x34, 0x12, 0xaa, 0xbb}}));
    offer(newerImage(1));
    ASSERT_TRUE(ends("succeed"));
    EXPECT_LOG(box, DEBUG, "RcuOtaUpdater", "image version: 1234 image offset: 12345678");
}

// Each answer comes so late that it falls into the wait of the command behind its own.
TEST_F(AnUpdate, TakesALateAnswerForThatOfTheNextCommand)
{
    UpdateFault parameters = answering({{7, 0, 1, 0x22, 0x11, 0, 0, 0, 0}});
    parameters.late = 1500ms; // half a second into the next wait
    fault(UpdateStep::ConnectionParameters, parameters);
    UpdateFault silence;
    silence.silent = true;
    fault(UpdateStep::GetImageInfo, silence);
    offer(newerImage(1));

    ASSERT_TRUE(ends("succeed"));
    EXPECT_LOG(box, DEBUG, "RcuOtaUpdater", "image version: 1122 image offset: 0");
}

// ---- the name on the air

class AnUpdateNameWithTheWordInside : public AnUpdate
{
protected:
    AnUpdateNameWithTheWordInside() : AnUpdate(options()) {}
    static BoxOptions options()
    {
        BoxOptions options = pairedRemote();
        options.simulator.remote.updateName = "My BeeTgt 7";
        return options;
    }
};

TEST_F(AnUpdateNameWithTheWordInside, IsEnough)
{
    expectGood(newerImage(1), 4, {100});
}

class ARemoteThatAppearsBeforeTheScan : public AnUpdate
{
};

TEST_F(ARemoteThatAppearsBeforeTheScan, IsUpdated)
{
    vexasim::UpdateAppearance appearance;
    appearance.beforeScan = true;
    box.remote().setUpdateAppearance(appearance);
    expectGood(newerImage(1), 4, {100});
}

// ---- an interrupt

TEST_F(AnUpdate, IsCompletedAfterAnInterrupt)
{
    offer(newerImage(250));
    ASSERT_TRUE(box.sim().awaitCall("WriteValue", updatePathOf(vexasim::uuid::kData), 1, kPatience));
    box.interrupt();
    ASSERT_LOG(box, WARN, "main", "Interrupt!");

    ASSERT_TRUE(ends("succeed"));
    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    EXPECT_TRUE(box.remote().receiver().verified());
    EXPECT_LOG(box, INFO, "main", "Firmware updated");
    EXPECT_LOG(box, WARN, "main", "REMOVE /tmp/bluetooth_status");
    EXPECT_FALSE(box.exists("bluetooth_status"));
}

TEST_F(AnUpdate, EndsWithStatus1OnTheSecondInterrupt)
{
    constexpr auto kWide = 3s; // a second, and room for a busy machine; the update had ten to go
    offer(newerImage(2000));
    ASSERT_TRUE(box.sim().awaitCall("WriteValue", updatePathOf(vexasim::uuid::kData), 1, kPatience));
    box.interrupt();
    ASSERT_LOG(box, WARN, "main", "Interrupt!");

    const auto start = std::chrono::steady_clock::now();
    box.interrupt();
    EXPECT_EQ(box.awaitExit(), Exit::with(1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, kWide);
    EXPECT_NO_LOG(box, INFO, "main", "Firmware updated");
}

} // namespace
