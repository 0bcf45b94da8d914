// SPDX-License-Identifier: MIT
#include "sim/program/RemoteSettings.h"

#include <CLI/CLI.hpp>
#include <stdexcept>

namespace vexasim
{

namespace
{
Bytes versionBytes(const std::string& hexadecimal)
{
    const std::string complaint = "--fw-version " + hexadecimal + ": expected 0 to ffff";
    const unsigned long version = wholeNumber(hexadecimal, 16, complaint);
    if (version > 0xffff) {
        throw std::invalid_argument(complaint);
    }
    return {static_cast<std::uint8_t>(version & 0xff), static_cast<std::uint8_t>(version >> 8)};
}
} // namespace

unsigned long wholeNumber(const std::string& text, int base, const std::string& complaint)
{
    try {
        std::size_t used = 0;
        const unsigned long value = std::stoul(text, &used, base);
        if (used == text.size()) {
            return value;
        }
    } catch (const std::logic_error&) { // NOLINT(bugprone-empty-catch): `complaint` replaces its text
    }
    throw std::invalid_argument(complaint);
}

void addRemoteOptions(CLI::App& app, RemoteSettings& settings)
{
    RemoteOptions& remote = settings.remote;
    app.option_defaults()->group("Remote")->always_capture_default();
    app.add_option("--name", remote.name, "name of the remote");
    app.add_option("--remote-address", remote.address, "Bluetooth address of the remote");
    app.add_option("--update-name", remote.updateName, "name in update mode");
    app.add_option("--update-address", remote.updateAddress, "Bluetooth address in update mode");
    app.add_option("--rssi", remote.rssi, "signal strength in dBm");
    app.add_option("--battery", settings.battery, "battery level in percent")->check(CLI::Range(0, 255));
    app.add_option("--fw-version", settings.version, "firmware version, hexadecimal");
    app.add_flag("--away", settings.away, "start with the remote out of range");
    app.add_flag("--asleep", settings.asleep, "start with the remote asleep");
    app.option_defaults()->group("Options")->always_capture_default(false);
    app.add_option("--key-file", settings.keyFile,
                   "file with the update key, 64 hexadecimal digits (default: the development key)");
    app.add_option("--image", settings.image, "image file to compare updates with, byte by byte");
}

void addBoxOptions(CLI::App& app, RemoteSettings& settings)
{
    app.add_flag("-q,--quiet", settings.quiet, "print only the first line");
    app.option_defaults()->group("Box");
    app.add_option("--adc-file", settings.files.adcFile, "file that simulates the button's ADC");
    app.add_option("--tmp", settings.files.tmpDirectory, "folder that the daemon uses as /tmp")
        ->check(CLI::ExistingDirectory);
    app.option_defaults()->group("Options");
}

void complete(RemoteSettings& settings)
{
    settings.remote.battery = {static_cast<std::uint8_t>(settings.battery)};
    settings.remote.version = versionBytes(settings.version);
    if (!settings.keyFile.empty()) {
        settings.remote.key = readKeyFile(settings.keyFile);
    }
}

void prepare(Remote& remote, const RemoteSettings& settings)
{
    if (!settings.image.empty()) {
        remote.receiver().setExpectedImage(readFile(settings.image));
    }
    if (settings.away) {
        remote.leave();
    }
    if (settings.asleep) {
        remote.sleep();
    }
}

} // namespace vexasim
