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

/// The command line's settings for the remote and the box, which the simulated BlueZ and the air share.
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

/// Fills in the fields of `remote` that need parsing or a file. Throws std::invalid_argument or
/// std::runtime_error.
void complete(RemoteSettings& settings);

/// Puts the remote into its initial state. Throws std::runtime_error.
void prepare(Remote& remote, const RemoteSettings& settings);

} // namespace vexasim
