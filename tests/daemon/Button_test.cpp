// SPDX-License-Identifier: MIT
// The main loop: its pace, its three states and the button. The daemon's clock stands still in these cases,
// so each pass is one that the case has asked for.

#include <gmock/gmock.h>

#include "tests/kit/Box.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/TrueTime.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""us;
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

    /// Waits until the main thread is in pair(), where it stays, as there is nothing on the air.
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

// --- the pace ---

TEST_F(AMainLoop, MakesAPassHalfASecondAfterTheBeginningOfTheLast)
{
    box.clock().advance(10s); // so that the time of the last pass is known
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

TEST_F(AMainLoop, DoesNothingInAQuietPassButPublishTheStatus)
{
    const std::size_t writes = box.files().writes("bluetooth_status");
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, TRACE, "main", "IDLING...");
    EXPECT_LOG(box, TRACE, "main", "Do Action_eDoNothing");
    EXPECT_TRUE(box.files().awaitWrites("bluetooth_status", writes + 1));
    EXPECT_THAT(box.logOf("main", INFO),
                ::testing::ElementsAre("I Adapter 00:1A:7D:DA:71:13 found", "I Adapter powered"));
}

// --- what counts as pressed ---

struct Sample : NamedCase {
    const char* text;
    bool pressed;
};

class AButtonFile : public AMainLoop, public ::testing::WithParamInterface<Sample>
{
};

// How a text is parsed is covered by the cases of BoxFiles.
TEST_P(AButtonFile, IsReadAsPressedOrReleased)
{
    box.writeAdc(GetParam().text);
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(box.countLog(INFO, "main", kPressed), GetParam().pressed ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Holding, AButtonFile,
                         ::testing::Values(Sample{{"900"}, "900\n", true}, Sample{{"901"}, "901\n", false},
                                           Sample{{"LessThanNothing"}, "-1\n", true},
                                           Sample{{"NoNumber"}, "closed\n", true},
                                           Sample{{"NothingAtAll"}, "", false}),
                         named);

TEST_F(AMainLoop, OpensTheButtonFileAnewOnEachPass)
{
    box.removeAdc();
    ASSERT_TRUE(box.pass());
    EXPECT_NO_LOG(box, INFO, "main", kPressed);
    EXPECT_TRUE(box.awaitStatus("no device"));
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

// --- activation ---

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

TEST_F(AMainLoop, IsInActivationWhileTheButtonIsDown)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, TRACE, "main", "Do Action_eDoNothing");
    EXPECT_LOG(box, INFO, "main", kPressed);
    box.releaseButton();
    ASSERT_TRUE(box.pass());
    EXPECT_LOG(box, TRACE, "main", "ACTIVATING...");
    EXPECT_LOG(box, INFO, "main", kReleased);
    ASSERT_TRUE(box.pass());

    EXPECT_LOG(box, TRACE, "main", "IDLING...");
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
    EXPECT_LOG(box, INFO, "main", kPressed); // and the two seconds start again
    ASSERT_TRUE(box.pass(1999999us));        // truncated to one whole second
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

// --- pairing ---

TEST_F(AMainLoop, PairsWhateverTheButtonSaysInThatPass)
{
    box.pressButton();
    ASSERT_TRUE(box.pass());
    ASSERT_TRUE(box.pass(2s));
    ASSERT_LOG(box, INFO, "main", kHeld);
    box.releaseButton();

    expectPairing();
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
    EXPECT_LOG(box, TRACE, "main", "IDLING..."); // at once: a long pass doesn't delay the next one
    EXPECT_TRUE(box.pass());
    EXPECT_NO_LOG(box, INFO, "main", kPressed);
    EXPECT_EQ(box.countLog(DEBUG, "main", "Pairing..."), 1U) << "no second attempt is queued";
}

// --- a press together with a pass's other actions ---

class AMainLoopWithAPairedRemote : public AMainLoop
{
protected:
    AMainLoopWithAPairedRemote() : AMainLoop(pairedRemote()) {}

    void SetUp() override
    {
        box.sim().bend(Bend::answer("Connect", g_variant_new("()"))); // answered, but no link follows
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

// The outcome of an update stays for three seconds, during which the pass continues.
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
    ASSERT_LOG(box, TRACE, "main", "ACTIVATING..."); // due at once after such a long pass
    ASSERT_TRUE(box.program().awaitMainThreadInUsleep());
    EXPECT_NO_LOG(box, INFO, "main", kHeld);
    ASSERT_TRUE(box.pass(2s));

    EXPECT_LOG(box, INFO, "main", kHeld);
}

} // namespace

} // namespace kit
