// SPDX-License-Identifier: MIT
#include "sim/program/AirCommand.h"

#include <CLI/CLI.hpp>
#include <optional>
#include <stdexcept>

#include "sim/bluez/PrivateBus.h"
#include "sim/program/AirControl.h"
#include "sim/program/MainLoop.h"

namespace vexasim::air
{

namespace
{

// The answer to a command that ends the link needs a connection event to get through, and an interval can be
// long.
constexpr std::chrono::milliseconds kSwitchTime{300};

} // namespace

AirCommand::AirCommand(CLI::App& program)
    : mCommand(*program.add_subcommand(
          "air", "The remote on the virtual air of this machine, for its kernel and its bluetoothd:\n"
                 "opens /dev/vhci and is the Bluetooth adapter with the remote in range. Needs the\n"
                 "kernel's module hci_vhci, and root."))
{
    addRemoteOptions(mCommand, mSettings);
    addBoxOptions(mCommand, mSettings);
    mCommand.add_option("--device", mBox.device, "the kernel's virtual controller")->capture_default_str();
    mCommand.add_option("--adapter-address", mBox.address, "Bluetooth address of the adapter")
        ->capture_default_str();
    mCommand.add_option("--address", mBusAddress,
                        "D-Bus address of the bus to be driven by; without it a private one");
    mCommand.add_option("--bus-dir", mBusDirectory, "folder for the private bus's socket");

    mCommand.option_defaults()->group("Radio");
    mCommand.add_flag("--hurried", mHurried, "links don't keep the time of their intervals, but go at once");
    mCommand.add_flag("--legacy-pairing", mLegacyPairing, "the remote knows no secure connections");
    mCommand.add_flag("--name-in-scan-response", mBox.radio.nameInScanResponse,
                      "the advertisement itself carries no name");
    mCommand.add_flag("--private-address", mBox.radio.privateAddress,
                      "the remote hides behind a private address");
    mCommand.add_flag("--asks-for-security", mBox.radio.asksForSecurity,
                      "the remote has the box pair or encrypt after each connection");
}

bool AirCommand::chosen() const
{
    return mCommand.parsed();
}

void AirCommand::run()
{
    complete(mSettings);
    mBox.remote = mSettings.remote;
    mBox.remote.switchTime = kSwitchTime;
    mBox.radio.secureConnections = !mLegacyPairing;
    mBox.pace = mHurried ? Pace::Hurried : Pace::RealTime;

    Narrator narrator(mSettings.quiet);
    const MainLoop loop;
    std::string lost;
    auto options = mBox; // a copy, which refers to what stands above
    options.onEvent = [&narrator](const std::string& what) { narrator.tell(what); };
    options.onLost = [&lost, &loop](const std::string& why) {
        lost = why;
        loop.quit();
    };
    AirBox box(options);
    prepare(*box.remotes().front().remote, mSettings);

    std::optional<PrivateBus> bus;
    if (mBusAddress.empty()) {
        bus.emplace(mBusDirectory);
    }
    const std::string address = bus ? bus->address() : mBusAddress;
    const AirControl control(box, address, narrator, mSettings.files, [&loop] { loop.quit(); });
    box.plug();
    narrator.begin("VEXASIM_BUS_ADDRESS=" + address);
    loop.run();
    if (!lost.empty()) {
        throw std::runtime_error(lost);
    }
}

} // namespace vexasim::air
