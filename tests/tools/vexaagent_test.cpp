// SPDX-License-Identifier: MIT
// The pairing agent's program on a bus of its own, with the simulated BlueZ.
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>

#include "sim/bluez/PrivateBus.h"
#include "sim/bluez/Simulator.h"
#include "tests/kit/Bus.h"
#include "tests/kit/Program.h"

using vexasim::Bend;
using vexasim::Peripheral;
using vexasim::PeripheralOptions;
using vexasim::PrivateBus;
using vexasim::Simulator;
using vexasim::SimulatorOptions;

namespace
{

constexpr const char* kAgentPath = "/org/vexabluetoohtd/agent";
constexpr const char* kRejected = "org.bluez.Error.Rejected";

/// The program.
class RunningAgent : public kit::Program
{
public:
    explicit RunningAgent(const std::string& busAddress)
        : kit::Program({VEXAAGENT_PROGRAM,
                        {},
                        {{"DBUS_SYSTEM_BUS_ADDRESS", busAddress}, {"VEXA_LOG_USE_COLORS", "0"}},
                        {}})
    {
    }

    /// Waits until the words have been logged this many times.
    testing::AssertionResult logs(const std::string& words, std::size_t times = 1)
    {
        if (log().awaitCount(kit::contains(words), times)) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "not logged: " << words << "\nbut:\n" << log().tail(60);
    }

    /// Ends it with the signal; returns how it ended.
    std::optional<kit::Exit> stop(int number)
    {
        signal(number);
        return awaitExit();
    }
};

/// A bus, bluetoothd on it, and the agent.
class AnAgent : public testing::Test
{
protected:
    AnAgent() : sim(options(bus.address())), agent(bus.address()), client(bus.address()) {}

    static SimulatorOptions options(const std::string& address)
    {
        SimulatorOptions options;
        options.busAddress = address;
        options.requireAgent = true;
        return options;
    }

    /// The unique name of the agent's connection.
    std::string agentName()
    {
        if (!sim.awaitCall("RequestDefaultAgent")) {
            throw std::runtime_error("no agent was registered");
        }
        return sim.calls("RequestDefaultAgent").back().sender;
    }

    /// The object of a device that bluetoothd has found.
    std::string device(const std::string& address, std::optional<std::string> name)
    {
        PeripheralOptions peripheral;
        peripheral.address = address;
        peripheral.name = std::move(name);
        others.push_back(std::make_shared<Peripheral>(peripheral));
        sim.addPeripheral(others.back());
        return sim.announce(others.back());
    }

    kit::Answer ask(const std::string& method, GVariant* parameters)
    {
        return client.callOn(agentName(), kAgentPath, "org.bluez.Agent1." + method, parameters);
    }

    kit::Answer askToPair(const std::string& devicePath)
    {
        return ask("RequestAuthorization", g_variant_new("(o)", devicePath.c_str()));
    }

    PrivateBus bus;
    Simulator sim;
    std::vector<std::shared_ptr<Peripheral>> others;
    RunningAgent agent;
    kit::BusClient client;
};

} // namespace

TEST_F(AnAgent, RegistersAsTheDefaultOneWithoutKeysOrDisplay)
{
    EXPECT_TRUE(agent.logs("registered as the default agent"));
    const auto registrations = sim.calls("RegisterAgent");
    ASSERT_EQ(registrations.size(), 1U);
    EXPECT_EQ(kit::textOf(registrations.front().parameters),
              "('/org/vexabluetoohtd/agent', 'NoInputNoOutput')");
}

TEST_F(AnAgent, LetsBluetoothdPair)
{
    ASSERT_TRUE(agent.logs("registered as the default agent"));
    const std::string remote = sim.announce(sim.remote().normal());
    EXPECT_EQ(client.call(remote, "org.bluez.Device1.Pair").error, "");
}

TEST_F(AnAgent, RegistersAgainWheneverBluetoothdReturns)
{
    ASSERT_TRUE(agent.logs("registered as the default agent"));
    sim.stopService(Simulator::Stop::Kill);
    EXPECT_TRUE(agent.logs("bluetoothd isn't running"));
    sim.startService();
    EXPECT_TRUE(agent.logs("registered as the default agent", 2));
    sim.stopService(Simulator::Stop::Terminate);
    sim.startService();
    EXPECT_TRUE(agent.logs("registered as the default agent", 3));
}

// Like one that already owns its name but is still starting.
TEST_F(AnAgent, WaitsForABluetoothdThatAnswersLate)
{
    ASSERT_TRUE(agent.logs("registered as the default agent"));
    sim.stopService(Simulator::Stop::Kill);
    sim.bend(Bend::lateReply("RegisterAgent", std::chrono::seconds{6}));
    sim.startService();
    EXPECT_TRUE(agent.logs("registered as the default agent", 2));
}

TEST_F(AnAgent, GrantsPairingToTheRemote)
{
    EXPECT_EQ(askToPair(sim.announce(sim.remote().normal())).error, "");
    EXPECT_TRUE(agent.logs("pairing granted to /org/bluez/hci0/dev_C0_FF_EE_00_00_01 \"VEXA RC\""));
}

TEST_F(AnAgent, GrantsPairingToTheRemoteThatTakesAnUpdate)
{
    EXPECT_EQ(askToPair(device("C0:FF:EE:00:00:22", "RC BeeTgt 2")).error, "");
}

TEST_F(AnAgent, RefusesPairingToOthers)
{
    EXPECT_EQ(askToPair(device("C0:FF:EE:00:00:11", "Headphones")).error, kRejected);
    EXPECT_EQ(askToPair(device("C0:FF:EE:00:00:12", "My VEXA RC")).error, kRejected);
    EXPECT_EQ(askToPair(device("C0:FF:EE:00:00:13", "VEXA")).error, kRejected);
    EXPECT_TRUE(agent.logs("pairing refused to /org/bluez/hci0/dev_C0_FF_EE_00_00_11 \"Headphones\""));
}

TEST_F(AnAgent, RefusesPairingToADeviceWithoutAName)
{
    EXPECT_EQ(askToPair(device("C0:FF:EE:00:00:14", std::nullopt)).error, kRejected);
    EXPECT_EQ(askToPair("/org/bluez/hci0/dev_00_00_00_00_00_00").error, kRejected);
    EXPECT_TRUE(agent.logs("whose name can't be read", 2));
}

TEST_F(AnAgent, RefusesWhateverNeedsKeysOrADisplay)
{
    const std::string path = sim.announce(sim.remote().normal());
    const char* remote = path.c_str();
    EXPECT_EQ(ask("RequestPinCode", g_variant_new("(o)", remote)).error, kRejected);
    EXPECT_EQ(ask("RequestPasskey", g_variant_new("(o)", remote)).error, kRejected);
    EXPECT_EQ(ask("RequestConfirmation", g_variant_new("(ou)", remote, 123456)).error, kRejected);
    EXPECT_EQ(ask("DisplayPinCode", g_variant_new("(os)", remote, "1234")).error, kRejected);
    EXPECT_EQ(ask("DisplayPasskey", g_variant_new("(ouq)", remote, 123456, 0)).error, kRejected);
    EXPECT_EQ(
        ask("AuthorizeService", g_variant_new("(os)", remote, "0000180f-0000-1000-8000-00805f9b34fb")).error,
        kRejected);
}

TEST_F(AnAgent, TakesReleaseAndCancelQuietly)
{
    EXPECT_EQ(ask("Cancel", nullptr).error, "");
    EXPECT_EQ(ask("Release", nullptr).error, "");
    EXPECT_TRUE(agent.logs("bluetoothd released the agent"));
}

TEST_F(AnAgent, SaysWhenBluetoothdDoesNotTakeIt)
{
    ASSERT_TRUE(agent.logs("registered as the default agent"));
    sim.bend(vexasim::Bend::error("RegisterAgent", "org.bluez.Error.InvalidArguments", "no"));
    sim.stopService(Simulator::Stop::Kill);
    sim.startService();
    EXPECT_TRUE(agent.logs("bluetoothd rejected the agent"));
}

TEST_F(AnAgent, EndsOnASignalWithStatusZero)
{
    ASSERT_TRUE(agent.logs("registered as the default agent"));
    EXPECT_EQ(agent.stop(SIGTERM), kit::Exit::with(0));
}

TEST_F(AnAgent, ComesBackWhenTheBusDoes)
{
    ASSERT_TRUE(agent.logs("registered as the default agent"));
    bus.stop();
    EXPECT_TRUE(agent.logs("the system bus is gone"));
    bus.start();
    const Simulator another(options(bus.address()));
    EXPECT_TRUE(agent.logs("registered as the default agent", 2));
}

TEST(AnAgentBeforeTheBus, WaitsForIt)
{
    PrivateBus bus;
    const std::string address = bus.address();
    bus.stop();
    RunningAgent agent(address);
    ASSERT_TRUE(agent.logs("no system bus yet"));
    bus.start();
    EXPECT_TRUE(agent.logs("bluetoothd isn't running"));
    EXPECT_EQ(agent.stop(SIGINT), kit::Exit::with(0));
}
