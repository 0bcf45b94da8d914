// SPDX-License-Identifier: MIT
#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sim/bluez/Simulator.h"
#include "sim/program/AirCommand.h"
#include "sim/program/BlueZControl.h"
#include "sim/program/MainLoop.h"
#include "sim/program/RemoteSettings.h"

namespace
{
using vexasim::Simulator;
using vexasim::SimulatorOptions;
using vexasim::Timings;

constexpr int kFailure = 1;
constexpr const char* kDefaultAdapter = "hci0";

/// The settings from the command line.
struct Settings : vexasim::RemoteSettings {
    SimulatorOptions simulator;
    std::vector<std::string> adapters = {kDefaultAdapter};
    bool noAdapter = false;
    bool unpowered = false;
    bool noRemote = false;
    bool realistic = false;
    bool noAutoEnable = false;
    std::vector<std::string> timings;
};

void addStackOptions(CLI::App& app, Settings& settings)
{
    SimulatorOptions& simulator = settings.simulator;
    app.option_defaults()->group("Bus");
    app.add_option("--address", simulator.busAddress,
                   "D-Bus address of the bus to join (default: start a private dbus-daemon)");
    app.add_option("--bus-dir", simulator.busDirectory,
                   "folder for the private bus's socket (default: a temporary one)");
    app.option_defaults()->group("BlueZ");
    app.add_option("--adapter", settings.adapters, "name of an adapter; may be repeated")
        ->capture_default_str();
    app.add_flag("--no-adapter", settings.noAdapter, "start without an adapter");
    app.add_flag("--unpowered", settings.unpowered, "start with the adapters powered off");
    app.add_flag("--no-auto-enable", settings.noAutoEnable,
                 "keep the adapters powered off when the service starts again");
    app.add_flag("--require-agent", simulator.requireAgent,
                 "pairing fails unless a program has registered an agent");
    app.add_flag("--realistic", settings.realistic, "use the delays of a real stack and a real remote");
    app.add_option(
        "--timing", settings.timings,
        "NAME=MILLISECONDS, where NAME is discovery, connect, resolve, pair, connect-timeout, pair-timeout, "
        "resolve-timeout, remove-connected, power-change, temporary or rssi; may be repeated");
    app.option_defaults()->group("Remote");
    app.add_flag("--paired", settings.remote.paired, "start with the remote paired");
    app.add_flag("--no-remote", settings.noRemote, "start without a remote");
}

void setTiming(Timings& timings, const std::string& text)
{
    const std::vector<std::pair<std::string, std::chrono::milliseconds Timings::*>> known = {
        {"discovery", &Timings::discovery},
        {"connect", &Timings::connect},
        {"resolve", &Timings::resolve},
        {"pair", &Timings::pair},
        {"connect-timeout", &Timings::connectTimeout},
        {"pair-timeout", &Timings::pairTimeout},
        {"resolve-timeout", &Timings::resolveTimeout},
        {"remove-connected", &Timings::removeConnected},
        {"power-change", &Timings::powerChange},
        {"temporary", &Timings::temporary},
        {"rssi", &Timings::rssi},
    };
    const std::string complaint = "--timing " + text + ": expected NAME=MILLISECONDS; see --help";
    const auto equals = text.find('=');
    for (const auto& [name, member] : known) {
        if (equals != std::string::npos && text.substr(0, equals) == name) {
            timings.*member =
                std::chrono::milliseconds{vexasim::wholeNumber(text.substr(equals + 1), 10, complaint)};
            return;
        }
    }
    throw std::invalid_argument(complaint);
}

/// "00:1A:7D:DA:71:13" for the first adapter, counting up for the next ones.
std::string adapterAddress(std::size_t index)
{
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "00:1A:7D:DA:71:%02X",
                  static_cast<unsigned>(0x13 + index) & 0xffU);
    return text.data();
}

void completeAll(Settings& settings)
{
    SimulatorOptions& options = settings.simulator;
    if (settings.realistic) {
        options.timings = Timings::realistic();
    }
    for (const std::string& timing : settings.timings) {
        setTiming(options.timings, timing);
    }
    options.autoEnable = !settings.noAutoEnable;
    options.withRemote = !settings.noRemote;
    options.startService = false;
    vexasim::complete(settings);
    options.remote = settings.remote;
    options.adapters.clear();
    if (settings.noAdapter) {
        return;
    }
    for (std::size_t i = 0; i < settings.adapters.size(); ++i) {
        options.adapters.push_back({settings.adapters[i], adapterAddress(i), !settings.unpowered});
    }
}

void play(Settings& settings)
{
    vexasim::Narrator narrator(settings.quiet);
    settings.simulator.onEvent = [&narrator](const std::string& what) { narrator.tell(what); };
    Simulator simulator(settings.simulator);
    if (!settings.noRemote) {
        prepare(simulator.remote(), settings);
    }
    simulator.startService();
    const vexasim::MainLoop loop;
    const vexasim::BlueZControl control(simulator, narrator, settings.files, [&loop] { loop.quit(); });
    narrator.begin("DBUS_SYSTEM_BUS_ADDRESS=" + simulator.busAddress());
    loop.run();
    simulator.stopService(Simulator::Stop::Terminate);
}

int run(int argc, char** argv)
{
    CLI::App app("Simulates BlueZ and a remote control: owns org.bluez on a bus, behaves like bluetoothd,\n"
                 "and on request produces the events and faults that a test or a developer needs.\n"
                 "Control it with gdbus or busctl: name org.vexabluetoohtd.Sim, object /sim.");
    Settings settings;
    addStackOptions(app, settings);
    addRemoteOptions(app, settings);
    addBoxOptions(app, settings);
    vexasim::air::AirCommand air(app);
    CLI11_PARSE(app, argc, argv);
    if (air.chosen()) {
        air.run();
        return 0;
    }
    completeAll(settings);
    play(settings);
    return 0;
}
} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexasim: %s\n", error.what());
        return kFailure;
    }
}
