// SPDX-License-Identifier: MIT
#include <chrono>
#include <ctime>
#include <future>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "STBThread.h"
#include "tests/library/PthreadCalls.h"
#include "tests/library/Worker.h"

namespace
{

TEST(ASleep, ReturnsAtOnceIfTheThreadDoesntRun)
{
    Worker worker;
    worker.sleepMs(kLongMs);
    worker.threadSleepMs(kLongMs);

    EXPECT_EQ(0, timedwaits);
}

TEST(ASleepOfNothing, WaitsForADeadlineThatHasPassed)
{
    Worker worker(sleepUntilStopped);
    worker.startThread(nullptr);
    worker.sleepMs(0);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    worker.stopThread();

    EXPECT_NE(0, givenDeadline.tv_sec);
    EXPECT_LE(givenDeadline.tv_sec, now.tv_sec);
}

TEST(ASleep, LastsForItsTimeOnAnyThread)
{
    Worker worker(sleepUntilStopped);
    worker.startThread(nullptr);
    const auto start = std::chrono::steady_clock::now();
    worker.sleepMs(300);
    const auto slept = std::chrono::steady_clock::now() - start;
    worker.stopThread();

    EXPECT_GE(slept, std::chrono::milliseconds(200)); // the wall clock may be slewed
}

TEST(ASleep, EndsWithASpuriousWakeUp)
{
    Worker worker;
    worker.startThread(nullptr);
    injectedResult = 0;
    injectedFunction = "pthread_cond_timedwait";
    worker.sleepMs(kLongMs);
    injectedFunction = nullptr;

    EXPECT_EQ(1, timedwaits); // nothing waits for the remainder
}

// Called on a sleeper that holds the lock of the sleep and is about to wait.
std::promise<void>* sleeping = nullptr;

std::future<void> sleeperOf(Worker& worker)
{
    std::promise<void> asleep;
    sleeping = &asleep;
    onTimedwait = [] {
        onTimedwait = nullptr;
        sleeping->set_value();
    };
    auto sleeper = std::async(std::launch::async, [&worker] { worker.sleepMs(kLongMs); });
    EXPECT_EQ(std::future_status::ready, asleep.get_future().wait_for(kit::kPatience));
    return sleeper;
}

TEST(ASleep, IsEndedByAStop)
{
    Worker worker; // its body has long returned
    worker.startThread(nullptr);
    auto sleeper = sleeperOf(worker);
    worker.stopThread();

    EXPECT_EQ(std::future_status::ready, sleeper.wait_for(kit::kPatience));
}

TEST(ASleep, IsEndedByANotify)
{
    Worker worker;
    worker.startThread(nullptr);
    auto sleeper = sleeperOf(worker);
    while (sleeper.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
        worker.notify(); // again: one that comes before the wait is lost
    }
    EXPECT_TRUE(worker.isRunning());
    worker.stopThread();
}

TEST(AStop, EndsAllSleeps)
{
    Worker worker;
    worker.startThread(nullptr);
    std::vector<std::future<void>> sleepers;
    for (int i = 0; i < 4; ++i) {
        sleepers.push_back(sleeperOf(worker));
    }
    worker.stopThread();

    for (auto& sleeper : sleepers) {
        EXPECT_EQ(std::future_status::ready, sleeper.wait_for(kit::kPatience));
    }
}

TEST(ANotify, IsLostWhileNobodySleeps)
{
    Worker worker;
    worker.startThread(nullptr);
    worker.notify();
    const auto start = std::chrono::steady_clock::now();
    worker.sleepMs(300);
    const auto slept = std::chrono::steady_clock::now() - start;
    worker.stopThread();

    EXPECT_GE(slept, std::chrono::milliseconds(200));
}

// A stop can come at any moment of the loop around a sleep, and must never be missed.
TEST(ALoopThatSleeps, NeverMissesAStop)
{
    Worker worker(sleepUntilStopped);
    for (int round = 0; round < 300; ++round) {
        worker.startThread(nullptr);
        for (int i = 0; i < round % 50; ++i) {
            std::this_thread::yield();
        }
        worker.stopThread();
    }

    EXPECT_EQ(300, worker.runs);
}

} // namespace
