// SPDX-License-Identifier: MIT
// The name, the trust and the pairing of devices, and their removal, beyond the cases in BluezOperations.h.
#include <chrono>
#include <future>

#include "Bluez.h"
#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

namespace
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

const std::string kUnknownAdapter = "/org/bluez/hci7";
constexpr std::size_t kPolls = 30;

class ADevice : public ABusWithBlueZ
{
protected:
    /// Starts the client with one device and clears the record of calls.
    void startWith(const PropertyMap& properties = {})
    {
        addDevice(kDevice, properties);
        start();
        sim->clearCalls();
        log.clear();
    }
};

TEST_F(ADevice, HasNoNameIfTheAnswerIsOfAWrongType)
{
    startWith();
    std::string name = "before";
    for (const char* answer : {"(<7>,)", "('VEXA RC',)", "()", "(<'a'>, <'b'>)", "(<<'VEXA RC'>>,)"}) {
        sim->bend(Bend::answer("Get", Variant::parse(answer)));
        EXPECT_FALSE(client->deviceGetName(kDevice, name)) << answer;
    }
    EXPECT_EQ(name, "before");
    EXPECT_EQ(log.lines(), kit::Lines{});
    expectFromGlib({});
}

TEST_F(ADevice, KeepsTheTrustThatIsSetToItself)
{
    startWith({{"Alias", text("VEXA RC")}});
    const OutgoingMessages outgoing(connection());
    for (const bool value : {true, false}) {
        bool trusted = !value;

        EXPECT_TRUE(client->deviceSetTrusted(kDevice, value));
        EXPECT_TRUE(client->deviceGetTrusted(kDevice, trusted));

        EXPECT_EQ(trusted, value);
    }
    settle();
    EXPECT_EQ(outgoing.members(), kit::Lines{}) << "BlueZ hears of it";
    EXPECT_EQ(log.lines(), kit::Lines{});
}

TEST_F(ADevice, IsNotRemovedByATextThatIsNoPath)
{
    startWith();

    for (const char* path : {"", "no path", "/org/bluez/"}) {
        EXPECT_FALSE(client->adapterRemoveDevice(kUnknownAdapter, path));
    }

    EXPECT_EQ(known(), kit::Lines{kDeviceKind.entry()}) << "the adapter is looked up";
    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), kit::Lines{});
    expectFromGlib({});
}

// --- Pairing ---

/// A device that is being paired; the stack doesn't answer Pair.
class APairing : public ADevice
{
protected:
    void startWith(const Variant& paired)
    {
        ADevice::startWith({{"Paired", paired}});
        sim->bend(Bend::silence("Pair"));
    }
    /// Starts pairing and returns when it is polling.
    void begin()
    {
        startWith(boolean(false));
        outcome = std::async(std::launch::async, [&] { return client->devicePair(kDevice); });
        ASSERT_TRUE(sim->awaitCall("Get", kDevice, 2));
    }

    std::future<bool> outcome;
};

TEST_F(APairing, OfAPairedDeviceIsDoneAtTheFirstPollWhileThePairCallStillRuns)
{
    startWith(boolean(true));
    const GioSpy spy;

    EXPECT_TRUE(client->devicePair(kDevice));

    ASSERT_TRUE(sim->awaitCall("Pair"));
    const auto sent = sim->calls();
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(sent[0].member, "Pair");
    EXPECT_EQ(sent[0].path, kDevice);
    EXPECT_EQ(sent[0].interface, kDeviceInterface);
    EXPECT_EQ(sent[0].parameters.text(), "()");
    EXPECT_EQ(sent[1].member, "Get");
    EXPECT_EQ(sent[1].path, kDevice);
    EXPECT_EQ(sent[1].interface, kPropertiesInterface);
    EXPECT_EQ(sent[1].parameters.text(), "('org.bluez.Device1', 'Paired')");
    const auto made = spy.calls();
    ASSERT_EQ(made.size(), 2U);
    EXPECT_EQ(made[0].function, "g_dbus_proxy_call");
    EXPECT_EQ(made[0].flags, 0);
    EXPECT_EQ(made[0].timeoutMs, 5000);
    EXPECT_FALSE(made[0].cancellable);
    EXPECT_EQ(made[1].function, "g_dbus_connection_call_sync");
    EXPECT_EQ(made[1].flags, 0);
    EXPECT_EQ(made[1].timeoutMs, -1);
    EXPECT_FALSE(made[1].cancellable);
    EXPECT_TRUE(made[1].error);
    EXPECT_EQ(log.lines(), kit::Lines{});
}

TEST_F(APairing, PollsTheLiveStateAndNotTheProxys)
{
    begin();

    sim->setProperty(kDevice, kDeviceInterface, "Paired", boolean(true), vexasim::Simulator::Emit::No);

    EXPECT_TRUE(outcome.get());
    EXPECT_EQ(sim->calls("Pair").size(), 1U);
    EXPECT_LT(sim->calls("Get").size(), kPolls);
    EXPECT_EQ(log.lines(), kit::Lines{});
}

// This takes the full 15 seconds.
TEST_F(APairing, ThatIsRefusedIsPolledToTheEnd)
{
    startWith(boolean(false));
    sim->bend(Bend::error("Pair", "org.bluez.Error.AuthenticationFailed"));
    const auto before = std::chrono::steady_clock::now();

    EXPECT_FALSE(client->devicePair(kDevice));

    EXPECT_GE(std::chrono::steady_clock::now() - before, 14s);
    EXPECT_EQ(sim->calls("Pair").size(), 1U);
    EXPECT_EQ(sim->calls("Get").size(), kPolls);
    EXPECT_EQ(log.lines(), kit::Lines{}) << "the answer to Pair is dropped unread";
}

TEST_F(APairing, EndsAtOnceWhenTheDeviceGoes)
{
    begin();

    sim->removeObject(kDevice);

    EXPECT_FALSE(outcome.get());
    EXPECT_LT(sim->calls("Get").size(), kPolls);
    const kit::Lines errors = log.lines("E");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].rfind("E GDBus.Error:org.freedesktop.DBus.Error.Unknown", 0), 0U) << errors[0];
}

TEST_F(APairing, EndsAtOnceWhenThePollFails)
{
    startWith(boolean(false));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);
    const std::vector<std::pair<Bend, kit::Lines>> polls = {
        {Bend::error("Get", "org.bluez.Error.NotReady", "not now"),
         {"E GDBus.Error:org.bluez.Error.NotReady: not now"}},
        {Bend::silence("Get"), {"E Timeout was reached"}},
        {Bend::answer("Get", Variant::parse("(true,)")), {}},
        {Bend::answer("Get", Variant::parse("()")), {}},
        {Bend::answer("Get", Variant::parse("(<true>, <true>)")), {}},
        {Bend::answer("Get", Variant::parse("(<'yes'>,)")),
         {std::string("E Paired of ") + kDevice + ": unexpected type s"}},
    };
    for (const auto& [bend, lines] : polls) {
        SCOPED_TRACE(bend.errorName + bend.parameters.text());
        sim->clearCalls();
        log.clear();
        sim->bend(bend);

        EXPECT_FALSE(client->devicePair(kDevice));

        EXPECT_EQ(sim->calls("Get").size(), 1U);
        EXPECT_EQ(log.lines(), lines);
    }
    expectFromGlib({});
}

TEST_F(APairing, PollsWithoutPauseOnceTheThreadIsStopped)
{
    begin();
    const auto before = std::chrono::steady_clock::now();

    // Ends the thread as the destructor does, but keeps the client for the call in progress.
    g_object_ref((*client).*inside::kMembers.cancellable); // still read after the thread drops its own
    onEventThread([&] { quit_task((*client).*inside::kMembers.loop); });
    client->stopThread();

    EXPECT_FALSE(outcome.get());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);
    EXPECT_EQ(sim->calls("Get").size(), kPolls);
}

} // namespace
