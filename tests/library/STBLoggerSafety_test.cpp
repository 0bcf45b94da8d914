// SPDX-License-Identifier: MIT
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/kit/Allocations.h"
#include "tests/kit/Limits.h"
#include "tests/library/STBLoggerChild.h"

namespace
{

using testing::ElementsAre;

// --- Static objects that log ---

// The first logs when it is destroyed, after the registry; the second all the time.

constexpr const char* kStaticsLog = "STATICS_LOG";

class Logs
{
public:
    Logs(const char* early, const char* late) : mLate(late) { log(early); }
    ~Logs() { log(mLate); }
    Logs(const Logs&) = delete;
    Logs& operator=(const Logs&) = delete;

private:
    static void log(const char* text)
    {
        if (text != nullptr && std::getenv(kStaticsLog) != nullptr) {
            LOG_INFO("%s", text);
        }
    }

    const char* mLate;
};

const Logs logsWhenDestroyed(nullptr, "too late");
const Logs logsAllTheTime("early", "late");

// --- Threads and memory ---

TEST(LinesOfSeveralThreads, DontMix)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    const auto texts = logged({}, [] {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([] {
                for (int line = 0; line < kLines; ++line) {
                    say(STBLogLevel_eInfo, std::string(200, 'x'));
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    });

    EXPECT_EQ(static_cast<std::size_t>(kThreads * kLines), texts.size());
    EXPECT_THAT(texts, testing::Each("I [Bluez:42] " + std::string(200, 'x')));
}

TEST(AMessageOfAModuleOfTheDaemon, AllocatesNothing)
{
    const kit::Outcome outcome = withEnvironment({}, [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger_log(&params, "", STBLogLevel_eInfo, 42, "main.cpp", "first");
        for (const char* file : {"utils/vexabluetoohtd/main.cpp", "utils/vexabluetoohtd/RcuOtaUpdater.cpp",
                                 "libvexastb/inc/private/pthread_helper.h"}) {
            for (const STBLogLevel level : {STBLogLevel_eTrace, STBLogLevel_eInfo}) {
                const int before = allocations;
                STBLogger_log(&params, "", level, 42, file, "%d", 1);
                const int after = allocations;
                EXPECT_EQ(before, after) << file << " at " << level;
            }
        }
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
}

// --- A handler that exits ---

void exitAtOnce(int /*signal*/)
{
    exit(1); // NOLINT(concurrency-mt-unsafe): what the second interrupt does
}

void interruptOnce(const std::string& step)
{
    if (step == "clock") {
        onStep = nullptr;
        std::raise(SIGINT);
    }
}

TEST(AnInterruptWhileALineIsWritten, CanEndTheProcess)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        std::signal(SIGINT, exitAtOnce);
        say(STBLogLevel_eInfo, "first");
        onStep = interruptOnce;
        say(STBLogLevel_eInfo, "second");
    });

    EXPECT_TRUE(outcome.exitedWith(1)) << outcome;
}

// --- The end of the process ---

void logLate()
{
    LOG_INFO("late");
}

TEST(AMessageOfALaterExitHandler, IsDroppedInSilence)
{
    const auto lines = logged({}, [] {
        std::atexit(logLate); // before the registry's, so it runs after it
        say(STBLogLevel_eInfo, "in time");
    });

    EXPECT_THAT(lines, ElementsAre("I [Bluez:42] in time"));
}

TEST(AMessageOfALaterExitHandler, IsDroppedWithSyslogToo)
{
    const auto lines = sent({}, [] {
        std::atexit(logLate);
        say(STBLogLevel_eInfo, "in time");
    });

    EXPECT_THAT(lines, ElementsAre("syslog 6 %s <.789 [Bluez:42] in time>"));
}

TEST(AMessageOfAnEarlierExitHandler, IsWritten)
{
    const auto lines = logged({{"VEXA_LOG_LINENUM", "0"}}, [] {
        say(STBLogLevel_eInfo, "in time");
        std::atexit(logLate);
    });

    EXPECT_THAT(lines, ElementsAre("I [Bluez] in time", "I [STBLoggerSafety_test] late"));
}

TEST(StaticObjects, LogInTheirConstructorsAndUntilTheRegistryIsGone)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_LINENUM", "0"}, {kStaticsLog, "1"}}), [] {
        execl("/proc/self/exe", "STBLoggerSafety_test", "--gtest_list_tests", nullptr);
        std::perror("Can't run the test program anew");
        _exit(1);
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    const auto lines = kit::linesOf(outcome.errors);
    ASSERT_EQ(3U, lines.size()) << outcome; // one greeting: they all use the same logger
    EXPECT_THAT(lines[0], testing::EndsWith(kGreeting));
    EXPECT_THAT(lines[1], testing::EndsWith("[STBLoggerSafety_test] early"));
    EXPECT_THAT(lines[2], testing::EndsWith("[STBLoggerSafety_test] late"));
}

// A message that waits, in the middle of its line, for the loggers' end on another thread.
std::promise<void> lineBegun;
std::promise<void> registryGone;
std::promise<void> lineWritten;

void waitInLine(const std::string& step)
{
    if (step == "clock") {
        onStep = nullptr;
        lineBegun.set_value();
        registryGone.get_future().wait();
    }
}

void letLineGoOn()
{
    registryGone.set_value();
    lineWritten.get_future().wait_for(kit::kPatience);
}

TEST(AMessageUnderWay, IsWrittenToItsEndAlthoughTheProcessExits)
{
    const auto lines = logged({}, [] {
        std::atexit(letLineGoOn); // runs after the registry's end
        say(STBLogLevel_eInfo, "first");
        onStep = waitInLine;
        std::thread([] {
            say(STBLogLevel_eInfo, "second");
            lineWritten.set_value();
        }).detach();
        lineBegun.get_future().wait();
        std::exit(0);
    });

    EXPECT_THAT(lines, ElementsAre("I [Bluez:42] first", "I [Bluez:42] second"));
}

// Each round ends at a different moment of the messages of the other threads.
TEST(AProcessThatExits, EndsWithItsStatusWhileOtherThreadsLog)
{
    constexpr int kRounds = 50;
    for (int round = 0; round < kRounds; ++round) {
        const kit::Outcome outcome = withEnvironment(plain(), [] {
            static std::atomic<int> running{0};
            for (int i = 0; i < 2; ++i) {
                std::thread([] {
                    ++running;
                    for (int pass = 0;; ++pass) {
                        say(pass % 16 == 0 ? STBLogLevel_eInfo : STBLogLevel_eTrace, "text");
                    }
                }).detach();
            }
            while (running < 2) {
                std::this_thread::yield();
            }
            std::exit(1);
        });
        ASSERT_TRUE(outcome.exitedWith(1)) << "round " << round << ": " << outcome;
    }
}

TEST(AProcessThatExits, EndsWithItsStatusWhileAnotherThreadMakesLoggers)
{
    constexpr int kRounds = 50;
    for (int round = 0; round < kRounds; ++round) {
        const kit::Outcome outcome = withEnvironment({}, [] {
            static std::atomic<int> made{0};
            say(STBLogLevel_eInfo, "first");
            std::thread([] {
                STBLoggerLogParams params = daemonParams();
                params.defaultLevel = "error";
                for (;; ++made) {
                    const std::string application = "APPLICATION" + std::to_string(made);
                    params.application = application.c_str();
                    STBLogger_log(&params, "", STBLogLevel_eDebug, 42, "Bluez.cpp", "dropped");
                }
            }).detach();
            while (made < 10) {
                std::this_thread::yield();
            }
            std::exit(1);
        });
        ASSERT_TRUE(outcome.exitedWith(1)) << "round " << round << ": " << outcome;
    }
}

} // namespace
