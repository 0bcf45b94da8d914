// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "sim/air/AirBox.h"
#include "sim/program/RemoteSettings.h"

namespace CLI
{
class App;
}

namespace vexasim::air
{

/// The subcommand "air" of the program.
class AirCommand
{
public:
    /// Adds the subcommand and its options; must outlive the parsing.
    explicit AirCommand(CLI::App& program);

    /// Whether the command line names the subcommand.
    bool chosen() const;

    /// Runs until a signal or the control interface ends it. Throws std::runtime_error or
    /// std::invalid_argument with a message that says what to do.
    void run();

private:
    CLI::App& mCommand;
    RemoteSettings mSettings;
    AirBoxOptions mBox;
    bool mHurried = false;
    bool mLegacyPairing = false;
    std::string mBusAddress;
    std::string mBusDirectory;
};

} // namespace vexasim::air
