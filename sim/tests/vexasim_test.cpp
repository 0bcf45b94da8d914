// SPDX-License-Identifier: MIT
// The program vexasim as a user or a script runs it: command line, first line of output, control interface,
// exit.
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

#include "sim/bluez/PrivateBus.h"
#include "tests/kit/Bus.h"
#include "tests/kit/Program.h"
#include "tests/kit/ScratchFolder.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace
{
constexpr const char* kAdapter = "/org/bluez/hci0";
constexpr const char* kDevice = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
constexpr const char* kAddressLine = "DBUS_SYSTEM_BUS_ADDRESS=";

/// The program; it prints events on standard output, and errors to its log.
class Simulator : public kit::Program
{
public:
    explicit Simulator(std::vector<std::string> arguments)
        : kit::Program({VEXASIM_PROGRAM, std::move(arguments), {}, {}})
    {
    }

    std::string line() { return output().next().value_or(""); }

    /// Everything else that it prints until it ends.
    std::string rest()
    {
        std::string text;
        for (std::string next = line(); !next.empty(); next = line()) {
            text += next + "\n";
        }
        return text;
    }

    /// Its standard error, once it has ended.
    std::string errors()
    {
        awaitExit();
        return log().tail(20);
    }
};
} // namespace

class TheProgram : public testing::Test
{
protected:
    void start(std::vector<std::string> arguments = {})
    {
        program = std::make_unique<Simulator>(std::move(arguments));
        const std::string first = program->line();
        ASSERT_THAT(first, StartsWith(kAddressLine));
        client = std::make_unique<kit::BusClient>(first.substr(std::string(kAddressLine).size()));
    }

    kit::Answer play(const std::string& method, GVariant* arguments = nullptr)
    {
        return client->callOn("org.vexabluetoohtd.Sim", "/sim", "org.vexabluetoohtd.Sim." + method,
                              arguments);
    }

    const kit::ScratchFolder scratch;
    const std::string folder = scratch.path();
    std::unique_ptr<Simulator> program;
    std::unique_ptr<kit::BusClient> client;
};

TEST_F(TheProgram, PrintsTheAddressFirstAndThenWhatHappens)
{
    start();
    EXPECT_THAT(program->line(), HasSubstr("org.bluez is on the bus"));
    EXPECT_THAT(program->line(), HasSubstr("adapter /org/bluez/hci0 appears"));
    play("Quit");
    EXPECT_THAT(program->rest(), HasSubstr("org.bluez left the bus"));
    EXPECT_EQ(program->awaitExit(), kit::Exit::with(0));
}

TEST_F(TheProgram, PrintsNothingElseWhenQuiet)
{
    start({"--quiet"});
    play("Quit");
    EXPECT_EQ(program->rest(), "");
    EXPECT_EQ(program->errors(), "");
    EXPECT_EQ(program->awaitExit(), kit::Exit::with(0));
}

TEST_F(TheProgram, EndsInOrderOnAnInterrupt)
{
    start();
    client->clearSignals();
    program->signal(SIGINT);
    EXPECT_EQ(program->awaitExit(), kit::Exit::with(0));
}

TEST_F(TheProgram, RefusesABadCommandLineWithAClearWord)
{
    using Line = std::pair<std::vector<std::string>, std::string>;
    for (const auto& [arguments, word] :
         {Line{{"--no-such-option"}, "--no-such-option"}, Line{{"--timing", "pair"}, "NAME=MILLISECONDS"},
          Line{{"--timing", "pair=soon"}, "NAME=MILLISECONDS"}, Line{{"--fw-version", "xyz"}, "0 to ffff"},
          Line{{"--key-file", "/no/such/file"}, "can't open the key file"},
          Line{{"--address", "unix:path=/no/such/bus"}, "no connection"},
          Line{{"--battery", "256"}, "range"}}) {
        Simulator refused(arguments);
        EXPECT_THAT(refused.errors(), HasSubstr(word)) << arguments[0];
        EXPECT_FALSE(refused.awaitExit() == kit::Exit::with(0)) << arguments[0];
    }
}

TEST_F(TheProgram, StartsAsTheCommandLineSays)
{
    start({"--paired", "--name", "VEXA Two", "--remote-address", "11:22:33:44:55:66", "--adapter", "hci3",
           "--unpowered"});
    EXPECT_EQ(client->get("/org/bluez/hci3", "org.bluez.Adapter1", "Powered"), "(<false>,)");
    EXPECT_EQ(client->get("/org/bluez/hci3/dev_11_22_33_44_55_66", "org.bluez.Device1", "Name"),
              "(<'VEXA Two'>,)");
}

TEST_F(TheProgram, JoinsAGivenBus)
{
    const vexasim::PrivateBus bus;
    start({"--address", bus.address(), "--no-adapter"});
    kit::BusClient neighbour(bus.address());
    EXPECT_EQ(neighbour.call("/org/bluez", "org.freedesktop.DBus.Peer.Ping").error, "");
    Simulator second({"--address", bus.address()});
    EXPECT_THAT(second.errors(), HasSubstr("org.bluez has an owner already"));
    EXPECT_EQ(second.awaitExit(), kit::Exit::with(1));
}

TEST_F(TheProgram, StopsAndStartsTheService)
{
    start();
    EXPECT_EQ(play("StopService", g_variant_new("(s)", "kill")).error, "");
    EXPECT_EQ(client->get(kAdapter, "org.bluez.Adapter1", "Powered"),
              "[org.freedesktop.DBus.Error.ServiceUnknown]");
    EXPECT_EQ(play("StartService").error, "");
    EXPECT_EQ(client->get(kAdapter, "org.bluez.Adapter1", "Powered"), "(<true>,)");
}

TEST_F(TheProgram, PressesTheButton)
{
    start({"--adc-file", scratch.path("adc")});
    EXPECT_EQ(scratch.read("adc"), "1023\n");
    EXPECT_EQ(play("PressButton").error, "");
    EXPECT_EQ(scratch.read("adc"), "10\n");
    EXPECT_EQ(play("ReleaseButton").error, "");
    EXPECT_EQ(scratch.read("adc"), "1023\n");
    EXPECT_EQ(play("HoldButton", g_variant_new("(u)", 1U)).error, "");
    EXPECT_TRUE(kit::eventually([&] { return scratch.read("adc") == "1023\n"; }));
}

TEST_F(TheProgram, SetsFlagsAndOffersImages)
{
    start({"--tmp", folder});
    EXPECT_EQ(play("SetFlag", g_variant_new("(s)", "pair")).error, "");
    EXPECT_TRUE(std::filesystem::exists(folder + "/bluetooth_pair"));
    const std::string image = scratch.write("image", "twelve bytes");
    EXPECT_EQ(play("OfferImage", g_variant_new("(s)", image.c_str())).error, "");
    EXPECT_EQ(std::filesystem::read_symlink(folder + "/bluetooth_rc_fw"), image);
    const auto refused = play("SetFlag", g_variant_new("(s)", "dance"));
    EXPECT_EQ(refused.error, "org.vexabluetoohtd.Sim.Error.Failed");
    EXPECT_THAT(refused.message, HasSubstr("unknown flag \"dance\": use pair or reset"));
}

TEST_F(TheProgram, SaysWhatIsMissingForTheBox)
{
    start();
    EXPECT_THAT(play("PressButton").message, HasSubstr("--adc-file"));
    EXPECT_THAT(play("SetFlag", g_variant_new("(s)", "pair")).message, HasSubstr("--tmp"));
}

TEST_F(TheProgram, PlaysAnEveningWithTheRemote)
{
    start();
    ASSERT_EQ(client->call(kAdapter, "org.bluez.Adapter1.StartDiscovery").error, "");
    ASSERT_TRUE(client->await("/", "InterfacesAdded", kDevice));
    ASSERT_EQ(client->call(kDevice, "org.bluez.Device1.Pair").error, "");
    EXPECT_TRUE(client->await("/sim", "Happened", "is paired"));
    EXPECT_EQ(play("SetBattery", g_variant_new("(y)", 17)).error, "");
    EXPECT_EQ(play("SetVersion", g_variant_new("(q)", 0x1b0)).error, "");
    EXPECT_THAT(kit::textOf(play("Status").reply),
                testing::AllOf(HasSubstr("'battery': <[byte 0x11]>"), HasSubstr("'connected': <true>"),
                               HasSubstr("'version': <[byte 0xb0, 0x01]>")));
    EXPECT_EQ(play("Leave").error, "");
    EXPECT_EQ(client->get(kDevice, "org.bluez.Device1", "Connected"), "(<false>,)");
    EXPECT_EQ(play("ComeBack").error, "");
    EXPECT_EQ(client->call(kDevice, "org.bluez.Device1.Connect").error, "");
    EXPECT_EQ(play("Sleep").error, "");
    EXPECT_EQ(client->get(kDevice, "org.bluez.Device1", "Connected"), "(<false>,)");
    EXPECT_EQ(play("EnterUpdateMode").error, "");
    EXPECT_THAT(kit::textOf(play("Status").reply), HasSubstr("'update-mode': <true>"));
}

TEST_F(TheProgram, BendsAndRecords)
{
    start();
    const auto bent =
        play("Bend", g_variant_new_parsed("('StartDiscovery', {'error': <'org.bluez.Error.NotReady'>, "
                                          "'message': <'tired'>, 'times': <1>})"));
    EXPECT_EQ(kit::textOf(bent.reply), "(1,)");
    EXPECT_EQ(client->call(kAdapter, "org.bluez.Adapter1.StartDiscovery").message, "tired");
    EXPECT_EQ(client->call(kAdapter, "org.bluez.Adapter1.StartDiscovery").error, "");
    EXPECT_THAT(kit::textOf(play("Calls").reply), HasSubstr("'StartDiscovery'"));
    EXPECT_EQ(play("ClearCalls").error, "");
    EXPECT_THAT(kit::textOf(play("Calls").reply), testing::Not(HasSubstr("'StartDiscovery'")));
    EXPECT_THAT(play("Bend", g_variant_new_parsed("('Pair', {'erorr': <''>})")).message,
                HasSubstr("unknown key \"erorr\""));
    EXPECT_THAT(play("Bend", g_variant_new_parsed("('Pair', {'late': <'soon'>})")).message,
                HasSubstr("expected a number"));
    EXPECT_THAT(play("Bend", g_variant_new_parsed("('Pair', {'error': <'no name'>})")).message,
                HasSubstr("invalid error name \"no name\""));
}

TEST_F(TheProgram, ChangesWhatIsOnTheBus)
{
    start();
    play("AddAdapter", g_variant_new("(ss)", "hci1", "00:00:00:00:00:01"));
    EXPECT_EQ(client->get("/org/bluez/hci1", "org.bluez.Adapter1", "Powered"), "(<true>,)");
    play("SetPowered", g_variant_new("(sb)", "hci1", FALSE));
    EXPECT_EQ(client->get("/org/bluez/hci1", "org.bluez.Adapter1", "Powered"), "(<false>,)");
    play("RemoveAdapter", g_variant_new("(s)", "hci1"));
    EXPECT_THAT(client->get("/org/bluez/hci1", "org.bluez.Adapter1", "Powered"), HasSubstr("UnknownObject"));
    play("AddObject", g_variant_new_parsed("(objectpath '/a', {'org.x': {'P': <1>}})"));
    EXPECT_EQ(client->get("/a", "org.x", "P"), "(<1>,)");
    play("SetProperty", g_variant_new_parsed("(objectpath '/a', 'org.x', 'P', <'two'>, true)"));
    EXPECT_TRUE(client->await("/a", "PropertiesChanged", "'P': <'two'>"));
    play("EmitSignal", g_variant_new_parsed("(objectpath '/a', 'org.x', 'Boo', <('x', 3)>)"));
    EXPECT_TRUE(client->await("/a", "Boo", "('x', 3)"));
    play("RemoveObject", g_variant_new("(o)", "/a"));
    EXPECT_TRUE(client->await("/", "InterfacesRemoved", "'/a'"));
    play("AddDevice", g_variant_new("(ss)", "AA:BB:CC:DD:EE:FF", "headset"));
    ASSERT_EQ(client->call(kAdapter, "org.bluez.Adapter1.StartDiscovery").error, "");
    EXPECT_TRUE(client->await("/", "InterfacesAdded", "headset"));
    play("RemoveDevice", g_variant_new("(s)", "AA:BB:CC:DD:EE:FF"));
    EXPECT_TRUE(client->await("/", "InterfacesRemoved", "AA_BB_CC_DD_EE_FF"));
}

TEST_F(TheProgram, TakesFaultsOfTheUpdate)
{
    start();
    EXPECT_EQ(play("SetUpdateFault", g_variant_new_parsed("('verify', {'status': <byte 0>})")).error, "");
    EXPECT_THAT(play("SetUpdateFault", g_variant_new_parsed("('verify', {'status': <300>})")).message,
                HasSubstr("out of range"));
    EXPECT_THAT(play("SetUpdateFault", g_variant_new_parsed("('verfy', @a{sv} {})")).message,
                HasSubstr("unknown step \"verfy\""));
    EXPECT_EQ(play("SetUpdateAppearance", g_variant_new_parsed("({'never': <true>},)")).error, "");
    EXPECT_EQ(play("ClearUpdateFaults").error, "");
    EXPECT_EQ(kit::textOf(play("UpdatePackets").reply), "([],)");
}
