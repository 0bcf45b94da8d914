// SPDX-License-Identifier: MIT
// What the updater makes of the remote's answers.
#include "tests/update/RcuOtaUpdaterTest.h"

#include <ostream>

#include <gmock/gmock.h>

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
constexpr auto kRoomForTwo = 1s; // far more than two notifications need to arrive

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
    late.late = 1500ms; // half a second into the next wait
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

struct TwoAnswers {
    const char* name;
    Bytes first;
    Bytes second;
    const char* failure; ///< where the second one leads to

    friend std::ostream& operator<<(std::ostream& out, const TwoAnswers& given) { return out << given.name; }
};

/// Two notifications for one command. Both are there before the write itself is answered, and so before
/// the updater takes what came.
class ASecondAnswer : public AnUpdate, public testing::WithParamInterface<TwoAnswers>
{
};

TEST_P(ASecondAnswer, CountsInsteadOfTheFirst)
{
    mSimulator->bend(
        Bend::lateReply("WriteValue", kRoomForTwo).on(updatePath(vexasim::uuid::kControlPoint)).times(2));
    receiver().setFault(UpdateStep::GetImageInfo, answers({GetParam().first, GetParam().second}));
    receiver().setFault(UpdateStep::StartUpdate, refusal());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre(GetParam().failure));
}

INSTANTIATE_TEST_SUITE_P(
    ThatIs, ASecondAnswer,
    testing::Values(TwoAnswers{"Good", {6, 0, 0}, {6, 0, 1, 2, 0, 3, 0, 0, 0}, "E Couldn't start update"},
                    TwoAnswers{
                        "Bad", {6, 0, 1, 2, 0, 3, 0, 0, 0}, {6, 0, 0}, "E Couldn't get img info from rc"}),
    [](const auto& given) { return std::string{given.param.name}; });

// BlueZ needs longer for the write than the remote may take for its answer, and the remote answers behind
// that.
TEST_F(AnUpdate, GivesAnAnswerItsSecondFromTheWritesReturn)
{
    constexpr auto kWrite = 2500ms;
    mSimulator->bend(
        Bend::lateReply("WriteValue", kWrite).on(updatePath(vexasim::uuid::kControlPoint)).times(2));
    UpdateFault behind;
    behind.late = kWrite + 200ms;
    receiver().setFault(UpdateStep::GetImageInfo, behind);
    receiver().setFault(UpdateStep::StartUpdate, refusal());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(failures(), ElementsAre("E Couldn't start update")) << "the image's information was heard";
    EXPECT_GE(timeOf(0x01) - timeOf(0x06), 2'500'000);
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

} // namespace
