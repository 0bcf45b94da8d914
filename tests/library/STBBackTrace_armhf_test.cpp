// SPDX-License-Identifier: MIT
// The stack trace on 32-bit ARM, which gets the program counter in its own way: cross-compiled, and run on
// this machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/ScratchFolder.h"

namespace
{

constexpr const char* kCompiler = "arm-linux-gnueabihf-g++";
constexpr const char* kEmulator = "qemu-arm";
constexpr const char* kLibraries = "/usr/arm-linux-gnueabihf";

bool isInstalled(const char* program)
{
    return kit::runProgram({program, "--version"}).exitedWith(0);
}

struct Frame {
    unsigned long address = 0;
    std::string function; ///< empty without a symbol
    unsigned long distance = 0;
    std::string object;
};

// Fails the case if a line isn't in one of the trace's forms.
std::vector<Frame> framesOf(const std::string& trace)
{
    static const std::regex form(
        R"(0x([0-9a-f]+) (?:- no matching symbol|(\w+) \(\+0x([0-9a-f]+)\) \((.*) at 0x[0-9a-f]+\) ))");
    std::vector<Frame> frames;
    for (const std::string& line : kit::linesOf(trace)) {
        std::smatch parts;
        EXPECT_TRUE(std::regex_match(line, parts, form)) << line;
        if (parts.empty()) {
            continue;
        }
        Frame frame;
        frame.address = std::stoul(parts[1], nullptr, 16);
        frame.function = parts[2];
        frame.distance = parts[3].matched ? std::stoul(parts[3], nullptr, 16) : 0;
        frame.object = parts[4];
        frames.push_back(frame);
    }
    return frames;
}

struct CodeCase : kit::NamedCase {
    const char* option;
};

class AStackOn32BitArm : public testing::TestWithParam<CodeCase>
{
protected:
    void SetUp() override
    {
        for (const char* program : {kCompiler, kEmulator}) {
            if (!isInstalled(program)) {
                GTEST_SKIP() << program << " isn't installed (Debian: g++-arm-linux-gnueabihf, qemu-user)";
            }
        }
    }

    // Compiles and runs the program; returns its output.
    std::string trace()
    {
        const std::string program = mFolder.path("trace");
        const kit::Outcome build =
            kit::runProgram({kCompiler, "-std=c++17", "-O1", "-funwind-tables", "-rdynamic",
                             GetParam().option, "-I" VEXA_LIBRARY "/inc/private",
                             VEXA_LIBRARY "/src/common/STBBackTrace.cpp", BACKTRACE_PROGRAM, "-o", program});
        EXPECT_TRUE(build.exitedWith(0)) << build;
        const kit::Outcome run = kit::runProgram({kEmulator, "-L", kLibraries, program});
        EXPECT_TRUE(run.exitedWith(0)) << run;
        return run.output;
    }

private:
    const kit::ScratchFolder mFolder;
};

TEST_P(AStackOn32BitArm, IsTracedFromTheInnermostFrameOutward)
{
    constexpr unsigned long kLongestFunction = 0x100;
    const std::string text = trace();
    const std::vector<Frame> frames = framesOf(text);

    ASSERT_GE(frames.size(), 4U) << text; // and continues into the C library
    const std::vector<std::string> functions = {"innerFunction", "outerFunction", "main"};
    for (std::size_t i = 0; i < functions.size(); ++i) {
        EXPECT_EQ(functions[i], frames[i].function) << text;
        EXPECT_THAT(frames[i].distance, testing::AllOf(testing::Gt(0U), testing::Lt(kLongestFunction)))
            << text;
        EXPECT_THAT(frames[i].object, testing::EndsWith("/trace")) << text;
    }
    for (const Frame& frame : frames) {
        EXPECT_EQ(0U, frame.address % 2) << "with Thumb's bit: " << text;
    }
}

const CodeCase kCodes[] = {
    {{"InArmCode"}, "-marm"},
    {{"InThumbCode"}, "-mthumb"},
};

INSTANTIATE_TEST_SUITE_P(Table, AStackOn32BitArm, testing::ValuesIn(kCodes), kit::named);

} // namespace
