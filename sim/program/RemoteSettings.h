// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "sim/model/Remote.h"
#include "sim/program/RemoteMethods.h"

namespace CLI
{
class App;
}

namespace vexasim
{

/// What the command line says of the remote and of the box around the daemon, for the simulated BlueZ as for
/// the air.
struct RemoteSettings {
    RemoteOptions remote;
    BoxFiles files;
    bool away = false;
    bool asleep = false;
    bool quiet = false;
    unsigned battery = 80;
    std::string version = "1a3";
    std::string keyFile;
    std::string image;
};

void addRemoteOptions(CLI::App& app, RemoteSettings& settings);
void addBoxOptions(CLI::App& app, RemoteSettings& settings);

/// The whole text as a number of that base. Throws std::invalid_argument with `complaint`.
unsigned long wholeNumber(const std::string& text, int base, const std::string& complaint);

/// Fills in `remote` what the options only say in words. Throws std::invalid_argument or std::runtime_error.
void complete(RemoteSettings& settings);

/// Brings the remote where the story begins. Throws std::runtime_error.
void prepare(Remote& remote, const RemoteSettings& settings);

} // namespace vexasim
