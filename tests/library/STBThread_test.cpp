// SPDX-License-Identifier: MIT
#include "STBThread.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/NamedCase.h"
#include "tests/library/PthreadCalls.h"
#include "tests/library/Worker.h"

namespace
{

using testing::ContainsRegex;
using testing::HasSubstr;

class Listener : public STBThread::OnThreadCompletedListener
{
public:
    void onThreadCompleted(STBThread* thread) override
    {
        completed = thread;
        completedOn = pthread_self();
        if (++completions == 1) {
            completion.set();
        }
    }

    std::atomic<STBThread*> completed{nullptr};
    std::atomic<pthread_t> completedOn{};
    std::atomic<int> completions{0};
    Event completion; ///< the first
};

std::string addressOf(const STBThread& thread)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<const void*>(&thread));
    return text;
}

// The lines that the child logged, without the greeting.
std::vector<std::string> logged(const kit::Outcome& outcome)
{
    auto lines = kit::linesOf(outcome.errors);
    if (!lines.empty()) {
        EXPECT_THAT(lines.front(), HasSubstr("Logger for application"));
        lines.erase(lines.begin());
    }
    return lines;
}

// Expects the body to succeed.
kit::Outcome inPlainChild(const std::function<void()>& body)
{
    const kit::Outcome outcome = kit::inChild([&] {
        setenv("VEXA_LOG_USE_COLORS", "0", 1);
        body();
    });
    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    return outcome;
}

// --- Start ---

TEST(AThread, IsIdleAtFirst)
{
    const Worker worker;

    EXPECT_FALSE(worker.isRunning());
}

TEST(AThread, RunsItsBodyOnceOnAThreadOfItsOwnAndFindsItselfRunning)
{
    Event ran;
    std::thread::id id;
    bool running = false;
    Worker worker([&](Worker& self) {
        id = std::this_thread::get_id();
        running = self.isRunning();
        ran.set();
    });
    worker.startThread(nullptr);
    ASSERT_TRUE(ran.await());
    worker.stopThread();

    EXPECT_TRUE(running);
    EXPECT_NE(std::this_thread::get_id(), id);
    EXPECT_EQ(1, worker.runs);
}

TEST(AThread, StaysUnnamed)
{
    Event ran;
    std::string name;
    Worker worker([&](Worker&) {
        std::ifstream file("/proc/thread-self/comm");
        std::getline(file, name);
        ran.set();
    });
    worker.startThread(nullptr);
    ASSERT_TRUE(ran.await());
    worker.stopThread();
    std::string ours;
    std::getline(std::ifstream("/proc/thread-self/comm"), ours);

    EXPECT_EQ(ours, name);
}

TEST(AThreadThatRuns, RefusesAnotherStartAndGoesOn)
{
    const kit::Outcome outcome = inPlainChild([] {
        Worker worker(sleepUntilStopped);
        worker.startThread(nullptr);
        worker.startThread(nullptr);
        std::printf("%s", addressOf(worker).c_str());
        EXPECT_TRUE(worker.isRunning());
        worker.stopThread();
        EXPECT_EQ(1, worker.runs);
        EXPECT_EQ(1, joins);
    });

    EXPECT_THAT(logged(outcome), testing::ElementsAre(ContainsRegex(" E \\[STBThread:[0-9]+\\] Thread " +
                                                                    outcome.output + " already running$")));
}

TEST(AThreadThatRuns, TakesTheListenerOfARefusedStartAlsoIfThereIsNone)
{
    inPlainChild([] {
        Listener first;
        Listener second;
        Worker worker(sleepUntilStopped);
        worker.startThread(&first);
        worker.startThread(&second);
        worker.stopThread();
        EXPECT_EQ(0, first.completions);
        EXPECT_EQ(1, second.completions);

        worker.startThread(&first);
        worker.startThread(nullptr);
        worker.stopThread();
        EXPECT_EQ(0, first.completions);
    });
}

TEST(AThreadThatCantBeMade, EndsTheProcess)
{
    const kit::Outcome outcome = kit::inChild([] {
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        Worker worker;
        injectedResult = 11; // EAGAIN
        injectedFunction = "pthread_create";
        worker.startThread(nullptr);
    });

    EXPECT_TRUE(outcome.killedBy(SIGKILL)) << outcome;
    EXPECT_THAT(outcome.output, HasSubstr(" ASSERT (res == 0) ret=11 on "));
}

// --- The end of the body ---

TEST(AListener, HearsOnTheEndingThreadThatTheBodyHasReturned)
{
    Listener listener;
    std::atomic<pthread_t> bodyOn{};
    Worker worker([&](Worker&) {
        bodyOn = pthread_self();
        EXPECT_EQ(0, listener.completions);
    });
    worker.startThread(&listener);
    worker.stopThread();

    EXPECT_EQ(1, listener.completions);
    EXPECT_EQ(&worker, listener.completed.load());
    EXPECT_EQ(bodyOn.load(), listener.completedOn.load());
}

TEST(ABodyThatHasReturned, LeavesTheThreadMarkedAsRunning)
{
    const kit::Outcome outcome = inPlainChild([] {
        Listener listener;
        Worker worker;
        worker.startThread(&listener);
        ASSERT_TRUE(listener.completion.await());

        EXPECT_TRUE(worker.isRunning());
        worker.startThread(nullptr); // refused
        EXPECT_EQ(1, worker.runs);
        worker.stopThread(); // joins at once
        EXPECT_FALSE(worker.isRunning());
        EXPECT_EQ(1, joins);
    });

    EXPECT_THAT(logged(outcome), testing::ElementsAre(ContainsRegex("already running$")));
}

// --- Stop ---

TEST(AStop, ClearsTheRunningMarkAndAwaitsTheBodyWithoutALimit)
{
    static std::promise<void> joining; // static: reached from a plain function
    std::promise<void> release;
    auto released = release.get_future();
    Worker worker([&](Worker&) { released.wait(); });
    worker.startThread(nullptr);
    onJoin = [] { joining.set_value(); };
    auto stop = std::async(std::launch::async, [&] { worker.stopThread(); });
    ASSERT_EQ(std::future_status::ready, joining.get_future().wait_for(kit::kPatience));
    onJoin = nullptr;

    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(std::future_status::timeout, stop.wait_for(std::chrono::milliseconds(50)));
    release.set_value();
    EXPECT_EQ(std::future_status::ready, stop.wait_for(kit::kPatience));
}

TEST(AStopThatWaits, BlocksOtherStartsAndStopsButNoSleepAndNoNotify)
{
    inPlainChild([] {
        static std::promise<void> joining;
        std::promise<void> release;
        auto released = release.get_future();
        Worker worker([&](Worker& self) {
            if (self.runs == 1) {
                released.wait();
            }
        });
        worker.startThread(nullptr);
        onJoin = [] {
            onJoin = nullptr;
            joining.set_value();
        };
        auto stop = std::async(std::launch::async, [&] { worker.stopThread(); });
        ASSERT_EQ(std::future_status::ready, joining.get_future().wait_for(kit::kPatience));

        worker.sleepMs(kLongMs); // at once: the thread isn't marked as running any more
        worker.notify();
        auto otherStop = std::async(std::launch::async, [&] { worker.stopThread(); });
        auto otherStart = std::async(std::launch::async, [&] { worker.startThread(nullptr); });
        EXPECT_EQ(std::future_status::timeout, otherStop.wait_for(std::chrono::milliseconds(50)));
        EXPECT_EQ(std::future_status::timeout, otherStart.wait_for(std::chrono::milliseconds(50)));

        release.set_value();
        EXPECT_EQ(std::future_status::ready, stop.wait_for(kit::kPatience));
        EXPECT_EQ(std::future_status::ready, otherStop.wait_for(kit::kPatience));
        EXPECT_EQ(std::future_status::ready, otherStart.wait_for(kit::kPatience));
    });
}

TEST(AThreadThatWasNeverStarted, LogsAStop)
{
    const kit::Outcome outcome = inPlainChild([] {
        Worker worker;
        std::printf("%s", addressOf(worker).c_str());
        worker.stopThread();
    });

    EXPECT_THAT(logged(outcome), testing::ElementsAre(ContainsRegex(" E \\[STBThread:[0-9]+\\] Thread " +
                                                                    outcome.output + " already stopped$")));
}

TEST(AThreadThatWasNeverStarted, IsDestroyedWithoutAMessage)
{
    const kit::Outcome outcome = inPlainChild([] { const Bare bare; });

    EXPECT_EQ("", outcome.errors + outcome.output);
}

TEST(AThreadThatWasStopped, LogsAnotherStop)
{
    const kit::Outcome outcome = inPlainChild([] {
        Worker worker(sleepUntilStopped);
        worker.startThread(nullptr);
        worker.stopThread();
        worker.stopThread();
        EXPECT_EQ(1, joins);
    });

    EXPECT_THAT(logged(outcome), testing::ElementsAre(ContainsRegex("already stopped$")));
}

TEST(AThreadThatWasStopped, CanBeStartedAgain)
{
    Worker worker(sleepUntilStopped);
    for (int round = 1; round <= 3; ++round) {
        worker.startThread(nullptr);
        EXPECT_TRUE(worker.isRunning());
        worker.stopThread();
        EXPECT_FALSE(worker.isRunning());
        EXPECT_EQ(round, worker.runs);
    }

    EXPECT_EQ(3, joins);
}

TEST(AThreadThatStopsItself, IsIdleAfterwardsAlthoughItCouldntBeJoined)
{
    const kit::Outcome outcome = inPlainChild([] {
        Event stopped;
        std::promise<void> release;
        auto released = release.get_future();
        Listener listener;
        Worker worker([&](Worker& self) {
            if (self.runs == 1) {
                self.stopThread();
                stopped.set();
                released.wait();
            }
        });
        worker.startThread(&listener);
        ASSERT_TRUE(stopped.await());
        EXPECT_FALSE(worker.isRunning());
        EXPECT_EQ(1, joins);

        worker.startThread(&listener); // with a record of its own
        EXPECT_TRUE(worker.isRunning());
        worker.stopThread();
        EXPECT_EQ(2, worker.runs);
        EXPECT_EQ(2, joins);

        release.set_value();
        while (listener.completions < 2) {
            std::this_thread::yield(); // at most until the child's time limit
        }
        // Bypasses the thread sanitizer, which would report that the first thread was never joined.
        syscall(SYS_exit_group, testing::Test::HasFailure() ? 99 : 0);
    });

    EXPECT_EQ("", outcome.errors);
}

TEST(TheDestructor, JoinsAThreadWhoseBodyHasReturnedWithoutAMessage)
{
    const kit::Outcome outcome = inPlainChild([] {
        {
            Bare ends;
            ends.startThread(nullptr);
            ASSERT_TRUE(ends.ran.await());
        }
        EXPECT_EQ(1, joins);
    });

    EXPECT_EQ("", outcome.errors + outcome.output);
}

// --- The second names ---

TEST(EachSecondName, DoesTheSame)
{
    const kit::Outcome outcome = inPlainChild([] {
        Listener listener;
        Worker worker(sleepUntilStopped);
        worker.start(&listener);
        EXPECT_TRUE(worker.isRunning());
        worker.start(&listener);
        const int before = timedwaits;
        worker.threadSleepMs(0);
        EXPECT_GT(timedwaits, before);
        worker.stop();
        EXPECT_FALSE(worker.isRunning());
        EXPECT_EQ(1, listener.completions);
        worker.stop();
    });

    EXPECT_THAT(logged(outcome),
                testing::ElementsAre(ContainsRegex("already running$"), ContainsRegex("already stopped$")));
}

// --- Priority ---

struct PriorityCase : kit::NamedCase {
    STBThread::Priority priority;
    int value;
    int nice;
};

class APriority : public testing::TestWithParam<PriorityCase>
{
};

TEST_P(APriority, SetsTheNiceValueOfTheCallingThread)
{
    EXPECT_EQ(GetParam().value, GetParam().priority);
    Worker worker(sleepUntilStopped);
    worker.startThread(nullptr);
    PriorityCall seen{};
    long caller = 0;
    std::thread([&] {
        worker.setPriority(GetParam().priority);
        seen = givenPriority;
        caller = syscall(SYS_gettid);
    }).join();
    worker.stopThread();

    EXPECT_EQ(PRIO_PROCESS, seen.which);
    EXPECT_EQ(caller, seen.who);
    EXPECT_EQ(GetParam().nice, seen.nice);
}

const PriorityCase kPriorities[] = {
    {"Low", STBThread::Priority_eLow, 0, 15},
    {"Normal", STBThread::Priority_eNormal, 1, 0},
    {"High", STBThread::Priority_eHigh, 2, -5},
    {"Unknown", static_cast<STBThread::Priority>(3), 3, 0},
};

INSTANTIATE_TEST_SUITE_P(Table, APriority, testing::ValuesIn(kPriorities), kit::named);

// --- The owner of a record ---

using Record = pthread_helper::thread<STBThread>;

TEST(AUniqueThreadPtr, IsEmptyAtFirstAndGivesAccessToItsRecord)
{
    STBThread::UniqueThreadPtr pointer;
    EXPECT_FALSE(pointer);

    auto* record = new Record(nullptr, nullptr);
    pointer.reset(record);
    EXPECT_TRUE(pointer);
    EXPECT_EQ(record, pointer.operator->());
    EXPECT_FALSE(pointer->_joined);
    pointer->_joined = true;
    EXPECT_TRUE(record->_joined);

    pointer.reset(new Record(nullptr, nullptr)); // deletes the old one, which the address sanitizer checks
    EXPECT_NE(nullptr, pointer.operator->());
    pointer.reset(nullptr);
    EXPECT_FALSE(pointer);
}

} // namespace
