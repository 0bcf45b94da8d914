// SPDX-License-Identifier: MIT
// A signal handler that logs interrupts the logger at each of its steps.
#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/kit/Allocations.h"
#include "tests/library/STBLoggerChild.h"

namespace
{

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

using Steps = std::vector<std::string>;

constexpr const char* kStep = "step: ";
constexpr const char* kDeferred = "deferred";
constexpr const char* kHandled = "handled";

// --- In the child: the steps go to its standard output as they happen ---

int stepsMade = 0;
int interruptedStep = -1; // from 0

void tellStep(const char* step)
{
    dprintf(STDOUT_FILENO, "%s%s\n", kStep, step);
}

void takeStep(const std::string& step)
{
    tellStep(step.c_str());
    if (stepsMade++ == interruptedStep) {
        std::raise(SIGINT);
        std::raise(SIGINT);
    }
}

// As the daemon's.
void handleInterrupt(int signal)
{
    if (STBLogger_deferSignal(signal)) {
        tellStep(kDeferred);
        return;
    }
    auto* const told = onStep;
    onStep = nullptr; // its own steps are of no interest
    LOG_WARN("Interrupt!");
    tellStep(kHandled);
    onStep = told;
}

// --- In the test ---

Steps stepsOf(const kit::Outcome& outcome)
{
    Steps steps;
    for (const std::string& line : kit::linesOf(outcome.output)) {
        if (line.rfind(kStep, 0) == 0) {
            steps.push_back(line.substr(std::string(kStep).size()));
        }
    }
    return steps;
}

std::size_t occurrences(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// --- Each step of a message is interrupted twice ---

struct Message {
    std::string name;
    bool isFirst;
    STBLogLevel level;
    Environment environment;
    Steps steps; // A: the registry's lock; B: the output's
};

const Steps kLookUp = {"before lock A", "lock A", "unlock A", "after unlock A"};
const Steps kLine = {"write [34m", "before lock B", "lock B",        "clock",
                     "write [0m",  "unlock B",      "after unlock B"};

Steps together(const std::vector<Steps>& parts)
{
    Steps steps;
    for (const Steps& part : parts) {
        steps.insert(steps.end(), part.begin(), part.end());
    }
    return steps;
}

const std::vector<Message> kMessages = {
    {"First",
     true,
     STBLogLevel_eInfo,
     {},
     together({{"before lock A", "lock A"}, kLine, {"unlock A", "after unlock A"}, kLine})},
    {"Wanted", false, STBLogLevel_eInfo, {}, together({kLookUp, kLine})},
    {"Dropped", false, STBLogLevel_eTrace, {}, kLookUp},
    {"ForSyslog",
     false,
     STBLogLevel_eInfo,
     {{"VEXA_LOG_SYSLOG", "1"}},
     together({kLookUp, {"clock", "syslog"}})},
};

struct InterruptedStep {
    Message message;
    std::size_t step;

    friend std::ostream& operator<<(std::ostream& out, const InterruptedStep& given)
    {
        return out << given.message.name << ", at '" << given.message.steps[given.step] << "'";
    }
};

std::vector<InterruptedStep> allSteps()
{
    std::vector<InterruptedStep> all;
    for (const Message& message : kMessages) {
        for (std::size_t step = 0; step < message.steps.size(); ++step) {
            all.push_back({message, step});
        }
    }
    return all;
}

std::string nameOf(const testing::TestParamInfo<InterruptedStep>& given)
{
    std::string name = given.param.message.name + "At" + std::to_string(given.param.step);
    for (const char letter : given.param.message.steps[given.param.step]) {
        if (std::isalnum(static_cast<unsigned char>(letter)) != 0) {
            name += letter;
        }
    }
    return name;
}

// The steps with two interrupts, which are handled after the registry's lock is released or after the whole
// line.
Steps withInterrupts(const Message& message, std::size_t step)
{
    Steps expected;
    bool pending = false;
    for (std::size_t i = 0; i < message.steps.size(); ++i) {
        expected.push_back(message.steps[i]);
        if (i == step) {
            expected.insert(expected.end(), 2, kDeferred);
            pending = true;
        }
        const bool left = message.steps[i] == "after unlock A" || i + 1 == message.steps.size();
        if (pending && left) {
            expected.insert(expected.end(), 2, kHandled);
            pending = false;
        }
    }
    return expected;
}

class AnInterruptWithinAMessage : public testing::TestWithParam<InterruptedStep>
{
};

TEST_P(AnInterruptWithinAMessage, IsHandledBehindItAndTwoStayTwo)
{
    const Message& message = GetParam().message;
    const kit::Outcome outcome = withEnvironment(message.environment, [&] {
        std::signal(SIGINT, handleInterrupt);
        if (!message.isFirst) {
            say(STBLogLevel_eInfo, "first");
        }
        interruptedStep = static_cast<int>(GetParam().step);
        onStep = takeStep;
        say(message.level, "text");
        onStep = nullptr;
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_THAT(stepsOf(outcome), ElementsAreArray(withInterrupts(message, GetParam().step)));
    EXPECT_EQ(2U, occurrences(outcome.errors + outcome.output, "Interrupt!"));
}

INSTANTIATE_TEST_SUITE_P(Table, AnInterruptWithinAMessage, testing::ValuesIn(allSteps()), nameOf);

TEST(AnInterruptInTheMakingOfTheRegistry, IsHandledBehindIt)
{
    const kit::Outcome outcome = withEnvironment({}, [] {
        std::signal(SIGINT, handleInterrupt);
        onAllocation = [] {
            onAllocation = nullptr;
            tellStep("allocation");
            std::raise(SIGINT);
            onStep = takeStep;
        };
        STBLoggerLogParams params = daemonParams();
        STBLogger_log(&params, "", STBLogLevel_eTrace, 42, "main.cpp", "dropped");
        onStep = nullptr;
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_THAT(stepsOf(outcome),
                ElementsAreArray(together({{"allocation", kDeferred, "before lock A", "lock A"},
                                           kLine,
                                           {"unlock A", "after unlock A", kHandled}})));
}

TEST(AnInterruptInTheEndOfTheLoggers, IsHandledBehindItAndLogsNothing)
{
    const kit::Outcome outcome = withEnvironment({}, [] {
        std::signal(SIGINT, handleInterrupt);
        say(STBLogLevel_eInfo, "first");
        interruptedStep = 1;
        onStep = takeStep;
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_THAT(stepsOf(outcome), ElementsAre("before lock A", "lock A", kDeferred, kDeferred, "unlock A",
                                              "after unlock A", kHandled, kHandled));
    EXPECT_EQ(0U, occurrences(outcome.errors, "Interrupt!"));
}

// --- Where there is nothing to wait for ---

TEST(AnInterruptOutsideOfTheLogger, IsHandledAtOnce)
{
    const kit::Outcome outcome = withEnvironment({}, [] {
        std::signal(SIGINT, handleInterrupt);
        say(STBLogLevel_eInfo, "first");
        std::raise(SIGINT);
        tellStep("behind");
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_THAT(stepsOf(outcome), ElementsAre(kHandled, "behind"));
}

TEST(AnInterruptOfAnotherThread, DoesntWaitForTheOneInTheLogger)
{
    const kit::Outcome outcome = withEnvironment({}, [] {
        std::signal(SIGINT, handleInterrupt);
        say(STBLogLevel_eInfo, "first");
        onStep = [](const std::string& step) {
            if (step == "write [34m") { // without a lock
                onStep = nullptr;
                std::thread([] { std::raise(SIGINT); }).join();
            }
        };
        say(STBLogLevel_eInfo, "text");
        onStep = nullptr;
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_THAT(stepsOf(outcome), testing::Contains(kHandled));
    EXPECT_LT(outcome.errors.find("Interrupt!"), outcome.errors.find("text")) << outcome;
}

TEST(AHandlerThatDoesntAsk, EndsTheProcessByTheLoggersLock)
{
    const kit::Outcome outcome = withEnvironment({}, [] {
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        std::signal(SIGINT, [](int) { LOG_WARN("Interrupt!"); });
        say(STBLogLevel_eInfo, "first");
        interruptedStep = 7; // the clock
        onStep = takeStep;
        say(STBLogLevel_eInfo, "text");
    });

    EXPECT_TRUE(outcome.killedBy(SIGKILL)) << outcome;
    EXPECT_THAT(outcome.output, HasSubstr(" ASSERT (res != 35) ret=35 on "));
}

TEST(ANumberThatIsNoSignal, IsNeverDeferred)
{
    const kit::Outcome outcome = withEnvironment({}, [] {
        say(STBLogLevel_eInfo, "first");
        onStep = [](const std::string& /*step*/) {
            for (const int number : {-1, 0, NSIG}) {
                EXPECT_FALSE(STBLogger_deferSignal(number)) << number;
            }
        };
        say(STBLogLevel_eInfo, "text");
        onStep = nullptr;
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
}

// --- What it costs ---

TEST(ADroppedMessage, MakesNoSystemCall)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer makes system calls of its own";
#endif
    const kit::Outcome outcome = withEnvironment({}, [] {
        std::signal(SIGINT, handleInterrupt);
        say(STBLogLevel_eInfo, "first");
        STBLoggerLogParams params = daemonParams();
        // From here on the kernel kills the thread at any call but read, write and exit.
        ASSERT_EQ(0, prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT)) << "the kernel has no seccomp";
        STBLogger_log(&params, "", STBLogLevel_eTrace, 42, "main.cpp", "dropped");
        syscall(SYS_exit, 0);
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
}

} // namespace
