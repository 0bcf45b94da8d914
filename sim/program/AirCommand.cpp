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

// The answer to a command that ends the link needs a connection event before the link ends, and the interval
// can be long.
constexpr std::chrono::milliseconds kSwitchTime{300};

} // namespace

AirCommand::AirCommand(CLI::App& program)
    : mCommand(*program.add_subcommand(
          "air", "Simulates an adapter and a remote control for the bluetoothd of this machine: opens\n"
                 "/dev/vhci and acts as a Bluetooth adapter with the remote in its range. Needs root\n"
                 "and the kernel module hci_vhci."))
{
    addRemoteOptions(mCommand, mSettings);
    addBoxOptions(mCommand, mSettings);
    mCommand.add_option("--device", mBox.device, "device file of the kernel's virtual controller")
        ->capture_default_str();
    mCommand.add_option("--adapter-address", mBox.address, "Bluetooth address of the adapter")
        ->capture_default_str();
    mCommand.add_option("--address", mBusAddress,
                        "D-Bus address of the bus for the control object (default: a private bus)");
    mCommand.add_option("--bus-dir", mBusDirectory,
                        "folder for the private bus's socket (default: a temporary one)");

    mCommand.option_defaults()->group("Radio");
    mCommand.add_flag("--hurried", mHurried,
                      "send packets at once, without waiting for connection intervals");
    mCommand.add_flag("--legacy-pairing", mLegacyPairing, "the remote doesn't support LE Secure Connections");
    mCommand.add_flag("--name-in-scan-response", mBox.radio.nameInScanResponse,
                      "the remote sends its name in the scan response, not in the advertisement");
    mCommand.add_flag("--private-address", mBox.radio.privateAddress,
                      "the remote uses a resolvable private address, new for each link");
    mCommand.add_flag("--asks-for-security", mBox.radio.asksForSecurity,
                      "the remote sends a security request after each connection");
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
    auto options = mBox; // a copy, since the callbacks refer to the locals above
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
