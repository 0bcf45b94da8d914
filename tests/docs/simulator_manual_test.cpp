// SPDX-License-Identifier: MIT
// Runs every example of docs/simulator.md that is marked for it, in order, in one shell against one
// simulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "sim/bluez/PrivateBus.h"
#include "tests/kit/ChildProcess.h"
#include "tests/kit/ScratchFolder.h"

namespace
{
constexpr const char* kMark = "<!-- run -->\n```sh\n";
constexpr const char* kEnd = "```";

std::string examples()
{
    const std::string manual = kit::contentOf(SIMULATOR_MANUAL);
    std::string script;
    for (auto at = manual.find(kMark); at != std::string::npos; at = manual.find(kMark, at)) {
        at += std::string(kMark).size();
        script += manual.substr(at, manual.find(kEnd, at) - at);
    }
    return script;
}

void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}
} // namespace

TEST(TheManual, HasExamplesThatRun)
{
    const kit::ScratchFolder scratch;
    const std::string folder = scratch.path();
    const vexasim::PrivateBus bus;
    std::string script = examples();
    ASSERT_THAT(script, testing::HasSubstr("sim Quit"));
    replaceAll(script, "/tmp/evening", folder);
    replaceAll(script, "build/debug/utils/vexafw/vexafw", VEXAFW_PROGRAM);
    // The simulator that the examples talk to, ready when its first line is there.
    const std::string file = scratch.write(
        "script", "set -e\nDBUS_SYSTEM_BUS_ADDRESS=" + bus.address() +
                      "\n" VEXASIM_PROGRAM " --address \"$DBUS_SYSTEM_BUS_ADDRESS\" --adc-file " + folder +
                      "/button --tmp " + folder + " > " + folder + "/log &\nuntil grep -q DBUS " + folder +
                      "/log; do sleep 0.02; done\nset -x\n" + script + "wait\n");

    const kit::Outcome outcome = kit::runProgram({"bash", file});

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
}
