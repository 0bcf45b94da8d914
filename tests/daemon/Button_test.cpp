// SPDX-License-Identifier: MIT
// The main loop: its pace, its three states and the button. The daemon's clock
// stands still in these cases, so each pass is one that the case has asked for.

#include "tests/kit/TrueTime.h"
#include "tests/kit/Box.h"

#include <gmock/gmock.h>

#include <filesystem>

using namespace vexabox;
using namespace std::chrono_literals;
using vexasim::Bend;

namespace
{

const std::string kPressed = "Button pressed, transiting to Activation";
const std::string kReleased = "Button released transiting to Idle";
const std::string kHeld = "Button was held for 2 secs, transiting to Pairing";
const std::string kFlag = "Pairing flag set, transiting to Pair";

/// A box in its main loop, between two passes.
class AMainLoop : public InABox
{
protected:
    explicit AMainLoop(BoxOptions options = noRemote()) : InABox(std::move(options)) {}

    void SetUp() override { startAtRest(); }

    /// Until the main thread is in pair(), where with nothing on the air it stays.
    void expectPairing()
    {
        box.clock().advance(500ms);
        EXPECT_LOG(box, DEBUG, "main", "Pairing...");
    }

    void expectNoPairing()
    {
        EXPECT_TRUE(box.pass());
        EXPECT_TRUE(box.pass());
        EXPECT_NO_LOG(box, DEBUG, "main", "Pairing...");
    }
};

// ---- the pace

TEST_F(AMainLoop, MakesAPassHalfASecondAfterTheBeginningOfTheLast)
{
    box.clock().advance(10s); // let the time of the last pass be known
    ASSERT_LOG(box, TRACE, "main", "IDLING...");
    ASSERT_TRUE(box.program().awaitMainThreadInUsleep());

    box.clock().advance(499999us);
    EXPECT_TRUE(box.makesNoPass());
    EXPECT_TRUE(box.pass(1us));
}

TEST_F(AMainLoop, LooksEveryTenthOfASecondWhetherAPassIsDue)
{
    EXPECT_THAT(timeOfWaits(box, 30), isAbout(3s));
}

TEST_F(AMainLoop, DoesntAddTheTimeOfALongPassToTheInterval)
{
    box.setFlag("reset");
    ASSERT_TRUE(box.pass());
    box.clock().advance(500ms);
    ASSERT_LOG(box, DEBUG, "main", "Scanning on");
    ASSERT_TRUE(box.awaitWaitAt("scanning"));
    box.clock().advance(60s);

    // Sixty seconds have passed since this pass began: the next is due at once.
    EXPECT_LOG(box, INFO, "main", "Transiting to Idle...");
    EXPECT_LOG(box, TRACE, "main", "IDLING...");
}

TEST_F(AMainLoop, DoesNothingInAQuietPassButPublishTheStatus)
{
    const std::size_t writes = box.files().writes("bluetooth_status");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, TRACE, "main", "IDLING...");
    EXPECT_LOG(box, TRACE, "main", "Do Action_eDoNothing");
    EXPECT_TRUE(box.files().awaitWrites("bluetooth_status", writes + 1));
}

// ---- what counts as pressed

struct Sample {
    const char* name;
    const char* text;
    bool pressed;
};

std::ostream& operator<<(std::ostream& stream, const Sample& sample)
{
    return stream << sample.name;
}

class AButtonFile : public AMainLoop, public ::testing::WithParamInterface<Sample>
{
};

TEST_P(AButtonFile, IsReadAsPressedOrReleased)
{
    box.writeAdc(GetParam().text);
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.countLog(INFO, "main", kPressed), GetParam().pressed ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Holding, AButtonFile,
                         ::testing::Values(Sample{"900", "900\n", true}, Sample{"901", "901\n", false},
                                           Sample{"0", "0\n", true}, Sample{"LessThanNothing", "-1\n", true},
                                           Sample{"1024", "1024\n", false},
                                           Sample{"900WithoutANewline", "900", true},
                                           Sample{"BlanksBeforeTheNumber", "  \n 17\n", true},
                                           Sample{"LettersBehindTheNumber", "1000mV\n", false},
                                           Sample{"NoNumber", "closed\n", true},
                                           Sample{"NothingAtAll", "", false},
                                           Sample{"ANumberThatIsTooLarge", "99999999999\n", false}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(AMainLoop, WorksWithoutTheButtonFile)
{
    box.removeAdc();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass());

    EXPECT_NO_LOG(box, INFO, "main", kPressed);
    EXPECT_TRUE(box.awaitStatus("no device"));
}

TEST_F(AMainLoop, OpensTheButtonFileAnewOnEachPass)
{
    box.removeAdc();
    ASSERT_TRUE(box.pass());
    box.pressButton();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kPressed);
}

TEST_F(AMainLoop, DoesntSeeAPressBetweenTwoPasses)
{
    ASSERT_TRUE(box.pass());
    box.pressButton();
    box.releaseButton();
    ASSERT_TRUE(box.pass());

    EXPECT_NO_LOG(box, INFO, "main", kPressed);
}

// ---- idle to idle, activation, pair

TEST_F(AMainLoop, StaysIdleWhileNothingIsAsked)
{
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.logOf("main", INFO),
              (std::vector<std::string>{"I Adapter 00:1A:7D:DA:71:13 found", "I Adapter powered"}));
}

TEST_F(AMainLoop, GoesFromIdleToPairingOnTheFlag)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, INFO, "main", kFlag);
    EXPECT_NO_LOG(box, DEBUG, "main", "Pairing...") << "that is the next pass";

    expectPairing();
}

TEST_F(AMainLoop, GoesFromIdleToActivationWhenTheButtonIsPressed)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, TRACE, "main", "Do Action_eDoNothing");
    EXPECT_LOG(box, INFO, "main", kPressed);
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, TRACE, "main", "ACTIVATING...");
}

TEST_F(AMainLoop, GoesToActivationAlthoughTheFlagAsksToPair)
{
    box.setFlag("pair");
    box.pressButton();
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, INFO, "main", kFlag);
    EXPECT_LOG(box, INFO, "main", kPressed);
    EXPECT_FALSE(box.exists("bluetooth_pair"));
    box.releaseButton();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kReleased);
    expectNoPairing(); // the flag is lost
}

TEST_F(AMainLoop, PairsAfterTheFlagIfTheButtonStaysDown)
{
    box.setFlag("pair");
    box.pressButton();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(2s));
    EXPECT_LOG(box, INFO, "main", kHeld);

    expectPairing();
}

// ---- activation

TEST_F(AMainLoop, GoesFromActivationToIdleWhenTheButtonIsReleased)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    box.releaseButton();
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, TRACE, "main", "ACTIVATING...");
    EXPECT_LOG(box, INFO, "main", kReleased);
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, TRACE, "main", "IDLING...");
}

TEST_F(AMainLoop, StaysInActivationUntilTwoWholeSecondsHavePassed)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(1900ms));
    EXPECT_NO_LOG(box, INFO, "main", kHeld);
    box.clock().advance(99999us); // 1.999999 s count as one

    EXPECT_TRUE(box.makesNoPass());
    EXPECT_NO_LOG(box, INFO, "main", kHeld);
    EXPECT_EQ(box.log().count(isLog(TRACE, "main", "ACTIVATING...")), 1U);
}

TEST_F(AMainLoop, CountsAHoldOf1999999MicrosecondsAsOneSecond)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(1999999us));

    EXPECT_LOG(box, TRACE, "main", "ACTIVATING...");
    EXPECT_NO_LOG(box, INFO, "main", kHeld);
}

TEST_F(AMainLoop, GoesFromActivationToPairingAtTwoSeconds)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(2s));
    EXPECT_LOG(box, INFO, "main", kHeld);

    expectPairing();
}

TEST_F(AMainLoop, NoticesAHoldAtTheFirstPassBehindTwoSeconds)
{
    box.pressButton();
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(box.pass(600ms)); // the press, then 0.6, 1.2 and 1.8 seconds
    }
    EXPECT_NO_LOG(box, INFO, "main", kHeld);
    ASSERT_TRUE(box.pass(600ms));

    EXPECT_LOG(box, INFO, "main", kHeld);
}

TEST_F(AMainLoop, EndsAHoldOnOneBadSample)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(1s));
    box.releaseButton();
    ASSERT_TRUE(box.pass());
    box.pressButton();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", kReleased);
    EXPECT_LOG(box, INFO, "main", kPressed); // and the two seconds begin anew
    ASSERT_TRUE(box.pass(1999999us));
    EXPECT_NO_LOG(box, INFO, "main", kHeld);
}

TEST_F(AMainLoop, NeitherPublishesNorServesWhileTheButtonIsDown)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    const std::size_t writes = box.files().writes("bluetooth_status");
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.files().writes("bluetooth_status"), writes);
    EXPECT_TRUE(box.exists("bluetooth_pair"));
}

// ---- pairing

TEST_F(AMainLoop, PairsWhateverTheButtonSaysInThatPass)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(2s));
    ASSERT_LOG(box, INFO, "main", kHeld);
    box.releaseButton();

    expectPairing();
}

TEST_F(AMainLoop, GoesFromPairingToIdleWhateverCameOfIt)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());
    expectPairing();
    ASSERT_TRUE(box.awaitWaitAt("scanning"));
    box.clock().advance(60s);

    EXPECT_LOG(box, WARN, "main", "VEXA RC not found");
    EXPECT_LOG(box, INFO, "main", "Transiting to Idle...");
    EXPECT_LOG(box, TRACE, "main", "IDLING...");
}

TEST_F(AMainLoop, DoesntSampleTheButtonWhileItPairs)
{
    box.setFlag("pair");
    ASSERT_TRUE(box.pass());
    expectPairing();
    ASSERT_TRUE(box.awaitWaitAt("scanning"));
    box.pressButton();
    box.clock().advance(30s);
    box.releaseButton();
    box.clock().advance(30s);

    EXPECT_LOG(box, INFO, "main", "Transiting to Idle...");
    EXPECT_LOG(box, TRACE, "main", "IDLING...");
    EXPECT_TRUE(box.pass());
    EXPECT_NO_LOG(box, INFO, "main", kPressed);
    EXPECT_EQ(box.countLog(DEBUG, "main", "Pairing..."), 1U) << "no second attempt is queued";
}

// ---- a press beside the other answers of a pass

class AMainLoopWithAPairedRemote : public AMainLoop
{
protected:
    AMainLoopWithAPairedRemote() : AMainLoop(pairedRemote()) {}

    void SetUp() override
    {
        box.sim().bend(Bend::answer("Connect", g_variant_new("()"))); // and never a link
        AMainLoop::SetUp();
    }
};

TEST_F(AMainLoopWithAPairedRemote, ConnectsAndGoesToActivation)
{
    box.setFlag("pair");
    box.pressButton();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, INFO, "main", "Trying to connect to C0:FF:EE:00:00:01");
    EXPECT_LOG(box, INFO, "main", kPressed);
}

TEST_F(AMainLoopWithAPairedRemote, RemovesAnUnpairedRemoteAndGoesToActivation)
{
    box.sim().bend(Bend::error("RemoveDevice", "org.bluez.Error.Failed"));
    box.sim().setProperty(box.remotePath(), "org.bluez.Device1", "Paired", g_variant_new_boolean(FALSE));
    ASSERT_LOG(box, DEBUG, "main", "Device " + box.remotePath() + " unpaired");
    box.pressButton();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, WARN, "main", "Removing failed to pair device");
    EXPECT_LOG(box, INFO, "main", kPressed);
}

TEST_F(AMainLoop, UpdatesAndGoesToActivation)
{
    box.linkFirmware("/nowhere");
    box.pressButton();
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, DEBUG, "main", "Firmware symlink found: /nowhere");
    EXPECT_LOG(box, INFO, "main", kPressed);
}

// The outcome of an update stands for three seconds, in which the pass goes on.
TEST_F(AMainLoop, SamplesTheButtonBeforeItServesARequest)
{
    box.linkFirmware("/nowhere");
    box.pressButton();
    box.clock().advance(500ms);
    ASSERT_TRUE(box.awaitStatus("rc_fw_update_canceled"));
    box.releaseButton();

    EXPECT_LOG(box, INFO, "main", kPressed);
}

TEST_F(AMainLoop, CountsAPressFromTheEndOfTheRequestThatCameWithIt)
{
    box.linkFirmware("/nowhere");
    box.pressButton();
    box.clock().advance(500ms);
    ASSERT_TRUE(box.awaitStatus("rc_fw_update_canceled"));
    box.clock().advance(3s);
    EXPECT_LOG(box, INFO, "main", kPressed);
    ASSERT_LOG(box, TRACE, "main", "ACTIVATING..."); // due at once, after so long a pass
    ASSERT_TRUE(box.program().awaitMainThreadInUsleep());
    EXPECT_NO_LOG(box, INFO, "main", kHeld);
    ASSERT_TRUE(box.pass(2s));

    EXPECT_LOG(box, INFO, "main", kHeld);
}

} // namespace
