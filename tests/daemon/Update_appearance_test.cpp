// SPDX-License-Identifier: MIT
// How the daemon finds the remote in its update mode: which device it picks, and how long it waits.

#include <gmock/gmock.h>
#include <memory>
#include <thread>

#include "tests/daemon/UpdateStory.h"
#include "tests/kit/Objects.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""min;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using vexasim::Bend;
using vexasim::UpdateAppearance;

namespace
{

constexpr const char* kDevice = "org.bluez.Device1";
constexpr std::size_t kImageBytes = 100;
constexpr auto kFindLimit = 60s; // real time: the update's waits don't follow the moved clock
constexpr auto kWhileHeld = 3s;  // how long the switch goes unanswered, so that devices can come or go first

class ARemoteToBeFound : public UpdateStory
{
protected:
    explicit ARemoteToBeFound(std::chrono::milliseconds bootTime = 50ms) : UpdateStory(options(bootTime)) {}
    static BoxOptions options(std::chrono::milliseconds bootTime)
    {
        BoxOptions options = pairedRemote();
        options.simulator.remote.updateName = "My BeeTgt 7"; // the word inside it is enough
        options.simulator.remote.bootTime = bootTime;
        return options;
    }

    void SetUp() override
    {
        ASSERT_TRUE(remoteIsRead());
        vexasim::Timings timings = box.sim().timings();
        timings.temporary = 10min; // no device is forgotten meanwhile
        box.sim().setTimings(timings);
        box.sim().clearCalls();
    }

    /// Puts another device on the air, announced at once; on return the daemon has seen it.
    std::string show(const std::string& name)
    {
        vexasim::PeripheralOptions options;
        options.address = "C0:FF:EE:00:00:99";
        options.name = name;
        const auto device = std::make_shared<vexasim::Peripheral>(options);
        box.sim().addPeripheral(device);
        const std::string path = box.sim().announce(device);
        EXPECT_TRUE(box.awaitEvents());
        return path;
    }

    /// Keeps the daemon in the write of the switch byte for a moment.
    bool heldAtTheSwitch()
    {
        const std::string path = box.pathOf(vexasim::uuid::kSwitch);
        box.sim().bend(Bend::lateReply("WriteValue", kWhileHeld).on(path));
        offer(image);
        return box.sim().awaitCall("WriteValue", path, 1, kPatience);
    }

    /// Announces a characteristic with nothing behind it, at once. Returns its path.
    std::string announce(const std::string& service, const std::string& name, const std::string& uuid)
    {
        const std::string path = service + "/" + name;
        box.sim().addObject(path, characteristicObject(uuid, service));
        return path;
    }

    void appears(bool UpdateAppearance::*how)
    {
        UpdateAppearance appearance;
        appearance.*how = true;
        box.remote().setUpdateAppearance(appearance);
    }

    /// Sets the time from the link until its services are resolved.
    void resolvesIn(std::chrono::milliseconds time)
    {
        vexasim::Timings timings = box.sim().timings();
        timings.resolve = time;
        box.sim().setTimings(timings);
    }

    /// Announces a characteristic again while an update has found both, in a service that isn't even of the
    /// same device; returns its path. The one in upper case doesn't count, since BlueZ writes lower case.
    std::string announceAgain(const std::string& uuid, const std::string& upperCase)
    {
        box.sim().bend(Bend::late("StartNotify", kWhileHeld));
        offer(image);
        EXPECT_TRUE(box.sim().awaitCall("StartNotify", "", 1, kPatience));
        const std::string service = box.remotePath() + "/service0099";
        const std::string path = announce(service, "char00aa", uuid);
        announce(service, "char00bb", upperCase);
        return path;
    }

    Lines connected()
    {
        Lines paths;
        for (const vexasim::Call& call : box.sim().calls("Connect")) {
            paths.push_back(call.path);
        }
        return paths;
    }

    void expectFound()
    {
        ASSERT_TRUE(ends("succeed", 60s + kPatience));
        EXPECT_THAT(connected(), ElementsAre(box.sim().updateDevicePath()));
        EXPECT_THAT(exchange(), ElementsAreArray(goodExchange(image, kImageBytes)));
    }

    void expectNotFound()
    {
        ASSERT_TRUE(ends("failed", kFindLimit + kPatience));
        EXPECT_LOG(box, ERROR, "RcuOtaUpdater", "Find RCU in OTA mode failed");
        EXPECT_THAT(connected(), IsEmpty());
        EXPECT_THAT(exchange(), ElementsAre("> switch 01"));
        EXPECT_TRUE(box.sim().discovering());
    }

    const FirmwareImage image = newerImage(kImageBytes / 4);
};

// --- which device it is ---

TEST_F(ARemoteToBeFound, IsTheFirstOfTwoWithItsName)
{
    appears(&UpdateAppearance::beforeScan);
    ASSERT_TRUE(heldAtTheSwitch());
    ASSERT_TRUE(box.sim().awaitCall("Get", box.sim().updateDevicePath(), 1, kPatience));

    const std::string another = show("Another BeeTgt");

    expectFound();
    EXPECT_EQ(box.sim().calls("Get", another).size(), 2U) << "its name, by the tracking and by the update";
}

TEST_F(ARemoteToBeFound, IsNotOneWithItsNameInLowerCase)
{
    ASSERT_TRUE(heldAtTheSwitch());

    show("My beetgt");

    expectFound();
}

TEST_F(ARemoteToBeFound, IsNotOneThatWasThereBefore)
{
    show("Old BeeTgt");

    offer(image);

    expectFound();
}

// BlueZ keeps the device of a failed update for half a minute and doesn't announce it again.
TEST_F(ARemoteToBeFound, IsNotSeenIfItsDeviceIsStillThere)
{
    box.sim().announce(box.remote().update());
    ASSERT_TRUE(box.awaitEvents());

    offer(image);

    expectNotFound();
}

TEST_F(ARemoteToBeFound, IsNotSeenIfItsNameComesLater)
{
    appears(&UpdateAppearance::nameless);
    offer(image);
    const std::string path = box.sim().updateDevicePath();
    ASSERT_TRUE(box.sim().awaitCall("Get", path, 1, kPatience));
    ASSERT_TRUE(box.awaitEvents());

    box.sim().setProperty(path, kDevice, "Name", g_variant_new_string("BeeTgt"));

    expectNotFound();
}

// The update runs to its end, for which it needs the events of its remote.
TEST_F(ARemoteToBeFound, IsFoundAfterAnInterrupt)
{
    offer(image);
    ASSERT_TRUE(box.sim().awaitCall("StartDiscovery", "", 1, kPatience));
    box.interrupt();

    expectFound();
    EXPECT_EQ(box.awaitExit(), Exit::with(0));
}

// A handler holds the lock that the update takes first, and continues after the interrupt.
TEST_F(ARemoteToBeFound, IsFoundAfterAnInterruptThatComesBeforeTheUpdate)
{
    const std::string other = "/org/bluez/hci0/dev_C0_FF_EE_00_00_0F";
    ASSERT_TRUE(box.stopClock());
    box.sim().bend(Bend::late("Get", kWhileHeld).on(other).property("Name"));
    box.sim().addObject(other, deviceObject("TV", "C0:FF:EE:00:00:0F", false, false));
    ASSERT_TRUE(box.sim().awaitCall("Get", other, 1, kPatience));
    offer(image);
    box.clock().advance(600ms);
    ASSERT_LOG(box, WARN, "main", "REMOVE: /tmp/bluetooth_rc_fw");
    ASSERT_TRUE(box.program().awaitMainThreadOnCondition());
    box.interrupt();

    expectFound();
    EXPECT_EQ(box.awaitExit(), Exit::with(0));
}

// --- how long it takes ---

class ARemoteThatTakesHalfAMinute : public ARemoteToBeFound
{
protected:
    ARemoteThatTakesHalfAMinute() : ARemoteToBeFound(30s) {}
};

TEST_F(ARemoteThatTakesHalfAMinute, IsWaitedFor)
{
    offer(image);

    expectFound();
}

TEST_F(ARemoteToBeFound, HasThreeSecondsAndMoreForItsServices)
{
    resolvesIn(3s);

    offer(image);

    expectFound();
}

// The five seconds for the data characteristic begin when the control point has been found.
TEST_F(ARemoteToBeFound, HasTimeAnewForTheSecondCharacteristic)
{
    constexpr auto kEach = 2900ms; // together more than five seconds
    resolvesIn(kEach);
    appears(&UpdateAppearance::withoutData);
    offer(image);
    ASSERT_TRUE(box.sim().awaitProperty(box.sim().updateDevicePath(), kDevice, "ServicesResolved",
                                        g_variant_new_boolean(TRUE), kPatience));
    std::this_thread::sleep_for(kEach);

    const std::string data =
        announce(box.sim().updateDevicePath() + "/service0099", "char00aa", vexasim::uuid::kData);

    // Nothing is behind it, so the first block ends the update.
    ASSERT_TRUE(ends("failed"));
    EXPECT_LOG(box, ERROR, "RcuOtaUpdater", "Write buffer failed");
    EXPECT_NO_LOG(box, ERROR, "RcuOtaUpdater", "Data not found");
    EXPECT_EQ(box.sim().calls("WriteValue", data).size(), 1U);
}

// --- where its characteristics are ---

TEST_F(ARemoteToBeFound, HasItsDataWhereItWasAnnouncedLast)
{
    const std::string data = announceAgain(vexasim::uuid::kData, "00006387-3C17-D293-8E48-14FE2E4DA212");

    ASSERT_TRUE(ends("failed"));
    EXPECT_EQ(box.sim().calls("WriteValue", data).size(), 1U);
    EXPECT_THAT(exchange(), ElementsAreArray(exchangeUpToData(image)));
}

TEST_F(ARemoteToBeFound, HasItsControlPointWhereItWasAnnouncedLast)
{
    const std::string controlPoint =
        announceAgain(vexasim::uuid::kControlPoint, "00006487-3C17-D293-8E48-14FE2E4DA212");

    // Nothing is behind it: the update tolerates lost connection parameters, but not a lost image query.
    ASSERT_TRUE(ends("failed"));
    EXPECT_LOG(box, ERROR, "RcuOtaUpdater", "Couldn't get img info from rc");
    EXPECT_EQ(box.sim().calls("WriteValue", controlPoint).size(), 2U);
    EXPECT_THAT(exchange(), ElementsAre("> switch 01"));
}

} // namespace

} // namespace kit
