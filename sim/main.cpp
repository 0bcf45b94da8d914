// SPDX-License-Identifier: MIT
#include "sim/bluez/Simulator.h"
#include "sim/control/Control.h"

#include <CLI/CLI.hpp>
#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <ctime>

#include <array>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace
{
using vexasim::Control;
using vexasim::Simulator;
using vexasim::SimulatorOptions;
using vexasim::Timings;

constexpr int kFailure = 1;
constexpr const char* kDefaultAdapter = "hci0";

/// What the command line says.
struct Settings {
    SimulatorOptions simulator;
    vexasim::BoxFiles files;
    std::vector<std::string> adapters = {kDefaultAdapter};
    bool noAdapter = false;
    bool unpowered = false;
    bool noRemote = false;
    bool away = false;
    bool asleep = false;
    bool realistic = false;
    bool noAutoEnable = false;
    bool quiet = false;
    unsigned battery = 80;
    std::string version = "1a3";
    std::string keyFile;
    std::string image;
    std::vector<std::string> timings;
};

void addBusOptions(CLI::App& app, Settings& settings)
{
    const char* group = "Bus";
    app.add_option("--address", settings.simulator.busAddress,
                   "D-Bus address of a bus to join; without it a private dbus-daemon is started")
        ->group(group);
    app.add_option("--bus-dir", settings.simulator.busDirectory,
                   "folder for the private bus's socket; without it a temporary one")
        ->group(group);
}

void addStackOptions(CLI::App& app, Settings& settings)
{
    const char* group = "BlueZ";
    app.add_option("--adapter", settings.adapters, "name of an adapter, may be repeated")
        ->capture_default_str()
        ->group(group);
    app.add_flag("--no-adapter", settings.noAdapter, "start without any adapter")->group(group);
    app.add_flag("--unpowered", settings.unpowered, "the adapters start without power")->group(group);
    app.add_flag("--no-auto-enable", settings.noAutoEnable,
                 "adapters stay without power when the service comes back")
        ->group(group);
    app.add_flag("--require-agent", settings.simulator.requireAgent,
                 "pairing fails unless some program registered an agent")
        ->group(group);
    app.add_flag("--realistic", settings.realistic, "take as long as a real stack and a real remote")
        ->group(group);
    app.add_option("--timing", settings.timings,
                   "NAME=MILLISECONDS of: discovery, connect, resolve, pair, connect-timeout, pair-timeout, "
                   "resolve-timeout, remove-connected, power-change, temporary, rssi; may be repeated")
        ->group(group);
}

void addRemoteOptions(CLI::App& app, Settings& settings)
{
    const char* group = "Remote";
    vexasim::RemoteOptions& remote = settings.simulator.remote;
    app.add_option("--name", remote.name, "its name")->capture_default_str()->group(group);
    app.add_option("--remote-address", remote.address, "its Bluetooth address")
        ->capture_default_str()
        ->group(group);
    app.add_option("--update-name", remote.updateName, "its name in update mode")
        ->capture_default_str()
        ->group(group);
    app.add_option("--update-address", remote.updateAddress, "its address in update mode")
        ->capture_default_str()
        ->group(group);
    app.add_option("--rssi", remote.rssi, "signal strength in dBm")->capture_default_str()->group(group);
    app.add_option("--battery", settings.battery, "battery level in percent")
        ->check(CLI::Range(0, 255))
        ->capture_default_str()
        ->group(group);
    app.add_option("--fw-version", settings.version, "firmware version, hexadecimal")
        ->capture_default_str()
        ->group(group);
    app.add_flag("--paired", remote.paired, "it is paired already")->group(group);
    app.add_flag("--away", settings.away, "it starts out of range")->group(group);
    app.add_flag("--asleep", settings.asleep, "it starts asleep")->group(group);
    app.add_flag("--no-remote", settings.noRemote, "there is no remote")->group(group);
    app.add_option("--key-file", settings.keyFile,
                   "file with the update key, 64 hexadecimal digits; without it the development key");
    app.add_option("--image", settings.image, "image file to which an update is compared byte by byte");
}

void addBoxOptions(CLI::App& app, Settings& settings)
{
    const char* group = "Box";
    app.add_option("--adc-file", settings.files.adcFile, "file that stands for the button")->group(group);
    app.add_option("--tmp", settings.files.tmpDirectory, "folder that the daemon has as /tmp")
        ->check(CLI::ExistingDirectory)
        ->group(group);
    app.add_flag("-q,--quiet", settings.quiet, "print the address of the bus and nothing else");
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
    const auto equals = text.find('=');
    for (const auto& [name, member] : known)
        if (equals != std::string::npos && text.substr(0, equals) == name) {
            timings.*member = std::chrono::milliseconds{std::stoul(text.substr(equals + 1))};
            return;
        }
    throw std::invalid_argument("--timing " + text + ": NAME=MILLISECONDS is wanted, see --help");
}

vexasim::Bytes versionBytes(const std::string& hexadecimal)
{
    std::size_t used = 0;
    const unsigned long version = std::stoul(hexadecimal, &used, 16);
    if (used != hexadecimal.size() || version > 0xffff)
        throw std::invalid_argument("--fw-version " + hexadecimal + ": 0 to ffff is wanted");
    return {static_cast<uint8_t>(version & 0xff), static_cast<uint8_t>(version >> 8)};
}

/// "00:1A:7D:DA:71:13" for the first adapter, one more for each next.
std::string adapterAddress(std::size_t index)
{
    std::array<char, 18> text{};
    std::snprintf(text.data(), text.size(), "00:1A:7D:DA:71:%02X",
                  static_cast<unsigned>(0x13 + index) & 0xffU);
    return text.data();
}

void complete(Settings& settings)
{
    SimulatorOptions& options = settings.simulator;
    if (settings.realistic)
        options.timings = Timings::realistic();
    for (const std::string& timing : settings.timings)
        setTiming(options.timings, timing);
    options.autoEnable = !settings.noAutoEnable;
    options.withRemote = !settings.noRemote;
    options.startService = false;
    options.remote.battery = {static_cast<uint8_t>(settings.battery)};
    options.remote.version = versionBytes(settings.version);
    if (!settings.keyFile.empty())
        options.remote.key = vexasim::readKeyFile(settings.keyFile);
    options.adapters.clear();
    if (settings.noAdapter)
        return;
    for (std::size_t i = 0; i < settings.adapters.size(); ++i)
        options.adapters.push_back({settings.adapters[i], adapterAddress(i), !settings.unpowered});
}

/// Prints what happens, one line each, and passes it to the control object
/// once there is one.
class Narrator
{
public:
    explicit Narrator(bool quiet) : mQuiet(quiet) {}

    void hear(Control* control)
    {
        std::lock_guard lock(mMutex);
        mControl = control;
    }

    void tell(const std::string& what)
    {
        std::lock_guard lock(mMutex);
        if (!mBegun)
            mHeld.push_back(what);
        else if (!mQuiet)
            print(what);
        if (mControl != nullptr)
            mControl->tell(what);
    }

    /// The address first of all, for scripts that read one line and go on; then
    /// what has happened so far.
    void begin(const std::string& address)
    {
        std::lock_guard lock(mMutex);
        std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", address.c_str());
        std::fflush(stdout);
        mBegun = true;
        for (const std::string& what : mHeld)
            if (!mQuiet)
                print(what);
        mHeld.clear();
    }

private:
    static void print(const std::string& what)
    {
        using namespace std::chrono;
        const auto now = system_clock::now();
        const std::time_t seconds = system_clock::to_time_t(now);
        const auto fraction = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
        std::tm local{};
        localtime_r(&seconds, &local);
        std::array<char, 16> text{};
        std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
        std::printf("%s.%03d %s\n", text.data(), static_cast<int>(fraction), what.c_str());
        std::fflush(stdout);
    }

    bool mQuiet;
    std::mutex mMutex;
    bool mBegun = false;
    std::vector<std::string> mHeld;
    Control* mControl = nullptr;
};

/// The narrator passes things on for as long as this lives.
class Hearing
{
public:
    Hearing(Narrator& narrator, Control& control) : mNarrator(narrator) { mNarrator.hear(&control); }
    ~Hearing() { mNarrator.hear(nullptr); }
    Hearing(const Hearing&) = delete;
    Hearing& operator=(const Hearing&) = delete;

private:
    Narrator& mNarrator;
};

gboolean onSignal(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

void prepareRemote(Simulator& simulator, const Settings& settings)
{
    if (settings.noRemote)
        return;
    if (!settings.image.empty())
        simulator.remote().receiver().setExpectedImage(vexasim::readFile(settings.image));
    if (settings.away)
        simulator.remote().leave();
    if (settings.asleep)
        simulator.remote().sleep();
}

void play(Settings& settings)
{
    Narrator narrator(settings.quiet);
    settings.simulator.onEvent = [&narrator](const std::string& what) { narrator.tell(what); };
    Simulator simulator(settings.simulator);
    prepareRemote(simulator, settings);
    const std::shared_ptr<GMainLoop> loop(g_main_loop_new(nullptr, FALSE), g_main_loop_unref);
    Control control(simulator, settings.files, [&loop] { g_main_loop_quit(loop.get()); });
    g_unix_signal_add(SIGINT, onSignal, loop.get());
    g_unix_signal_add(SIGTERM, onSignal, loop.get());
    const Hearing hearing(narrator, control);
    simulator.startService();
    narrator.begin(simulator.busAddress());
    g_main_loop_run(loop.get());
    simulator.stopService(Simulator::Stop::Terminate);
}
} // namespace

int main(int argc, char** argv)
{
    CLI::App app("A BlueZ and a remote control in software: owns org.bluez on a bus of its own, behaves as\n"
                 "bluetoothd does, and does on request what a test or a developer wants to see.\n"
                 "Drive it with gdbus or busctl: name org.vexabluetoohtd.Sim, object /sim.");
    Settings settings;
    addBusOptions(app, settings);
    addStackOptions(app, settings);
    addRemoteOptions(app, settings);
    addBoxOptions(app, settings);
    CLI11_PARSE(app, argc, argv);
    try {
        complete(settings);
        play(settings);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "vexasim: %s\n", error.what());
        return kFailure;
    }
    return 0;
}
