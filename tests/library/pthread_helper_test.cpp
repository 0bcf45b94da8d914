// SPDX-License-Identifier: MIT
#include "pthread_helper.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/NamedCase.h"
#include "tests/library/PthreadCalls.h"

// Exported, so that the stack trace knows it.
extern "C" __attribute__((noinline)) void lockTwice(pthread_helper::mutex& mutex)
{
    mutex.lock();
    mutex.lock();
}

namespace
{

using pthread_helper::cond;
using pthread_helper::mutex;
using pthread_helper::scoped_lock;
using testing::HasSubstr;

const std::string kBanner(88, '=');

// Returns at once, whoever holds the lock.
bool heldByCaller(mutex& lock)
{
    static_assert(sizeof(mutex) == sizeof(pthread_mutex_t), "a mutex holds nothing else");
    auto* const native = reinterpret_cast<pthread_mutex_t*>(&lock);
    const timespec past{};
    const int result = pthread_mutex_timedlock(native, &past);
    if (result == 0) {
        pthread_mutex_unlock(native);
    }
    return result == EDEADLK;
}

// --- Every call and every result ---

struct Subject {
    void run() {}
};

// One of each kind, made before each test's child, which has them at the same addresses.
struct Objects {
    Subject subject;
    std::optional<mutex> lock{std::in_place};
    std::optional<cond> condition{std::in_place};
    pthread_helper::thread<Subject> record{&subject, &Subject::run};
};
Objects objects;

struct Calls {
    static void makeMutex() { objects.lock.emplace(); }
    static void destroyMutex() { objects.lock.reset(); }
    static void lockMutex() { objects.lock->lock(); }
    static void unlockMutex() { objects.lock->unlock(); }
    static void makeCond() { objects.condition.emplace(); }
    static void destroyCond() { objects.condition.reset(); }
    static void wait() { EXPECT_EQ(injectedResult, objects.condition->timedWait(*objects.lock, 0)); }
    static void signal() { objects.condition->signal(); }
    static void broadcast() { objects.condition->broadcast(); }
    static void start() { objects.record.start(); }
};

struct CallCase : kit::NamedCase {
    const char* function;
    int result;
    const char* expression; ///< null: the result is accepted
    void (*call)();
    const void* object;
};

constexpr const char* kZero = "res == 0";
constexpr const char* kWaited = "res == 0 || res == 110";

const void* const kMutex = &*objects.lock;
const void* const kCond = &*objects.condition;
const void* const kRecord = &objects.record;

const CallCase kCalls[] = {
    {"AttributeInitGood", "pthread_mutexattr_init", 0, nullptr, &Calls::makeMutex, kMutex},
    {"AttributeInitFails", "pthread_mutexattr_init", 12, kZero, &Calls::makeMutex, kMutex},
    {"AttributeKindFails", "pthread_mutexattr_settype", 22, kZero, &Calls::makeMutex, kMutex},
    {"MutexInitGood", "pthread_mutex_init", 0, nullptr, &Calls::makeMutex, kMutex},
    {"MutexInitFails", "pthread_mutex_init", 11, kZero, &Calls::makeMutex, kMutex},
    {"MutexInitNotPermitted", "pthread_mutex_init", 1, kZero, &Calls::makeMutex, kMutex},
    {"MutexDestroyGood", "pthread_mutex_destroy", 0, nullptr, &Calls::destroyMutex, kMutex},
    {"MutexDestroyBusy", "pthread_mutex_destroy", 16, "res != 16", &Calls::destroyMutex, kMutex},
    {"MutexDestroyInvalid", "pthread_mutex_destroy", 22, kZero, &Calls::destroyMutex, kMutex},
    {"LockGood", "pthread_mutex_lock", 0, nullptr, &Calls::lockMutex, kMutex},
    {"LockDeadlock", "pthread_mutex_lock", 35, "res != 35", &Calls::lockMutex, kMutex},
    {"LockInvalid", "pthread_mutex_lock", 22, kZero, &Calls::lockMutex, kMutex},
    {"LockNotPermitted", "pthread_mutex_lock", 1, kZero, &Calls::lockMutex, kMutex},
    {"UnlockGood", "pthread_mutex_unlock", 0, nullptr, &Calls::unlockMutex, kMutex},
    {"UnlockNotPermitted", "pthread_mutex_unlock", 1, nullptr, &Calls::unlockMutex, kMutex},
    {"UnlockInvalid", "pthread_mutex_unlock", 22, kZero, &Calls::unlockMutex, kMutex},
    {"CondInitGood", "pthread_cond_init", 0, nullptr, &Calls::makeCond, kCond},
    {"CondInitFails", "pthread_cond_init", 11, kZero, &Calls::makeCond, kCond},
    {"CondDestroyGood", "pthread_cond_destroy", 0, nullptr, &Calls::destroyCond, kCond},
    {"CondDestroyBusy", "pthread_cond_destroy", 16, kZero, &Calls::destroyCond, kCond},
    {"WaitGood", "pthread_cond_timedwait", 0, nullptr, &Calls::wait, kCond},
    {"WaitTimedOut", "pthread_cond_timedwait", 110, nullptr, &Calls::wait, kCond},
    {"WaitInvalid", "pthread_cond_timedwait", 22, kWaited, &Calls::wait, kCond},
    {"WaitNotPermitted", "pthread_cond_timedwait", 1, kWaited, &Calls::wait, kCond},
    {"SignalGood", "pthread_cond_signal", 0, nullptr, &Calls::signal, kCond},
    {"SignalInvalid", "pthread_cond_signal", 22, kZero, &Calls::signal, kCond},
    {"BroadcastGood", "pthread_cond_broadcast", 0, nullptr, &Calls::broadcast, kCond},
    {"BroadcastInvalid", "pthread_cond_broadcast", 22, kZero, &Calls::broadcast, kCond},
    {"CreateGood", "pthread_create", 0, nullptr, &Calls::start, kRecord},
    {"CreateFails", "pthread_create", 11, kZero, &Calls::start, kRecord},
};

// As a regular expression that matches only itself.
std::string escaped(const std::string& text)
{
    return std::regex_replace(text, std::regex("[|]"), "\\$&");
}

class ACall : public testing::TestWithParam<CallCase>
{
};

TEST_P(ACall, PassesOrEndsTheProcessByItsResult)
{
    const kit::Outcome outcome = kit::inChild([] {
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        injectedResult = GetParam().result;
        injectedFunction = GetParam().function;
        GetParam().call();
        injectedFunction = nullptr;
        if (!testing::Test::HasFailure()) {
            _exit(0); // skips the exit handlers: what a test leaves half done doesn't matter
        }
    });

    if (GetParam().expression == nullptr) {
        EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
        EXPECT_EQ("", outcome.output + outcome.errors);
        return;
    }
    EXPECT_TRUE(outcome.killedBy(SIGKILL)) << outcome;
    const auto lines = kit::linesOf(outcome.output);
    ASSERT_EQ(4U, lines.size()) << outcome;
    EXPECT_EQ(kBanner, lines[0]);
    EXPECT_EQ(kBanner, lines[2]);
    EXPECT_EQ(kBanner, lines[3]);
    char object[32];
    std::snprintf(object, sizeof object, "%p", GetParam().object);
    EXPECT_THAT(lines[1], testing::MatchesRegex(" ASSERT \\(" + escaped(GetParam().expression) +
                                                "\\) ret=" + std::to_string(GetParam().result) +
                                                " on .*pthread_helper.h:[0-9]+, this:" + object));
}

INSTANTIATE_TEST_SUITE_P(WithResult, ACall, testing::ValuesIn(kCalls), kit::named);

// --- Real locks ---

TEST(ALock, EndsTheProcessIfItIsDestroyedWhileItIsHeld)
{
    const kit::Outcome outcome = kit::inChild([] {
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        auto lock = std::make_unique<mutex>();
        lock->lock();
        lock.reset();
    });

    EXPECT_TRUE(outcome.killedBy(SIGKILL)) << outcome;
    EXPECT_THAT(outcome.output, HasSubstr(" ASSERT (res != 16) ret=16 on "));
}

TEST(ALock, CanBeUnlockedTwiceWithoutAMessage)
{
    const kit::Outcome outcome = kit::inChild([] {
        mutex lock;
        lock.lock();
        lock.unlock();
        lock.unlock();
        lock.lock(); // and works as before
        lock.unlock();
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_EQ("", outcome.output + outcome.errors);
}

TEST(ALock, StaysAsItWasWhenAnotherThreadThanItsHolderUnlocksIt)
{
    mutex lock;
    lock.lock();

    std::thread([&] { lock.unlock(); }).join();

    EXPECT_TRUE(heldByCaller(lock));
    lock.unlock();
}

TEST(ALock, KeepsOthersOutUntilItIsUnlocked)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    mutex lock;
    int count = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const scoped_lock guard(lock);
                ++count;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(kThreads * kRounds, count);
}

TEST(AScopedLock, HoldsTheMutexForItsScope)
{
    mutex lock;
    {
        const scoped_lock guard(lock);
        EXPECT_TRUE(heldByCaller(lock));
    }
    EXPECT_FALSE(heldByCaller(lock));
}

TEST(AScopedLock, EndsWithoutAMessageIfItsScopeHasUnlocked)
{
    const kit::Outcome outcome = kit::inChild([] {
        mutex lock;
        {
            const scoped_lock guard(lock);
            lock.unlock();
        }
        lock.lock();
        lock.unlock();
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_EQ("", outcome.output + outcome.errors);
}

// --- Waits ---

struct DeadlineCase : kit::NamedCase {
    timeval now;
    unsigned int milliseconds;
    timespec deadline;
};

class TheDeadlineOfAWait : public testing::TestWithParam<DeadlineCase>
{
};

TEST_P(TheDeadlineOfAWait, IsTheWallClockPlusItsLimit)
{
    mutex lock;
    cond condition;
    fixedClock = &GetParam().now;
    injectedResult = 110;
    injectedFunction = "pthread_cond_timedwait";
    const int result = condition.timedWait(lock, GetParam().milliseconds);
    injectedFunction = nullptr;
    fixedClock = nullptr;

    EXPECT_EQ(110, result);
    EXPECT_EQ(GetParam().deadline.tv_sec, givenDeadline.tv_sec);
    EXPECT_EQ(GetParam().deadline.tv_nsec, givenDeadline.tv_nsec);
}

const DeadlineCase kDeadlines[] = {
    {"OfNothing", {1700000000, 123456}, 0, {1700000000, 123456000}},
    {"OfAMillisecond", {1700000000, 123456}, 1, {1700000000, 124456000}},
    {"AcrossASecond", {1700000000, 999999}, 1, {1700000001, 999000}},
    {"ToAFullSecond", {1700000000, 900000}, 100, {1700000001, 0}},
    {"OfAMinute", {1700000000, 5}, 60000, {1700000060, 5000}},
    {"OfTheLargestLimit", {10, 0}, std::numeric_limits<unsigned int>::max(), {10 + 4294967, 295000000}},
    {"Beyond2038", {4000000000, 1}, 2000, {4000000002, 1000}},
};

INSTANTIATE_TEST_SUITE_P(Table, TheDeadlineOfAWait, testing::ValuesIn(kDeadlines), kit::named);

TEST(AWait, GivesTimedOutAtItsLimitWithTheLockHeldAgain)
{
    mutex lock;
    cond condition;
    const scoped_lock guard(lock);

    EXPECT_EQ(110, condition.timedWait(lock, 1));
    EXPECT_TRUE(heldByCaller(lock));
}

class AWakeUp : public testing::TestWithParam<void (cond::*)()>
{
};

TEST_P(AWakeUp, EndsAWaitBeforeItsLimit)
{
    mutex lock;
    cond condition;
    bool waiting = false;
    auto waiter = std::async(std::launch::async, [&] {
        const scoped_lock guard(lock);
        waiting = true;
        return condition.timedWait(lock, 60000);
    });
    for (bool seen = false; !seen;) {
        const scoped_lock guard(lock); // free only before the wait or within it
        seen = waiting;
    }
    (condition.*GetParam())();

    EXPECT_EQ(0, waiter.get());
}

INSTANTIATE_TEST_SUITE_P(Table, AWakeUp, testing::Values(&cond::signal, &cond::broadcast),
                         [](const auto& given) { return given.index == 0 ? "BySignal" : "ByBroadcast"; });

TEST(ABroadcast, WakesAllWaiters)
{
    constexpr int kWaiters = 4;
    mutex lock;
    cond condition;
    int waiting = 0;
    std::vector<std::future<int>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(std::async(std::launch::async, [&] {
            const scoped_lock guard(lock);
            ++waiting;
            return condition.timedWait(lock, 60000);
        }));
    }
    for (bool all = false; !all;) {
        const scoped_lock guard(lock);
        all = waiting == kWaiters;
    }
    condition.broadcast();

    for (auto& waiter : waiters) {
        EXPECT_EQ(0, waiter.get());
    }
}

TEST(AWait, IsShortenedByAStepOfTheWallClockForward)
{
    mutex lock;
    cond condition;
    const scoped_lock guard(lock);
    clockAheadUs = -3600LL * 1000000; // an hour passes between the reading of the clock and the wait
    const auto start = std::chrono::steady_clock::now();
    const int result = condition.timedWait(lock, 1800 * 1000);
    const auto waited = std::chrono::steady_clock::now() - start;
    clockAheadUs = 0;

    EXPECT_EQ(110, result);
    EXPECT_LT(waited, std::chrono::minutes(1));
}

TEST(AWait, IsLengthenedByAStepOfTheWallClockBack)
{
    mutex lock;
    cond condition;
    const scoped_lock guard(lock);
    clockAheadUs = 300000; // as if the clock were set back by this much once it has been read
    const auto start = std::chrono::steady_clock::now();
    const int result = condition.timedWait(lock, 0);
    const auto waited = std::chrono::steady_clock::now() - start;
    clockAheadUs = 0;

    EXPECT_EQ(110, result);
    EXPECT_GE(waited, std::chrono::milliseconds(200));
}

// --- The record of a thread ---

struct Runner {
    void run()
    {
        ranOn = pthread_self();
        runs++;
    }

    pthread_t ranOn{};
    int runs = 0;
};

TEST(TheRecordOfAThread, RunsItsMethodOnItsObjectOnceOnAThreadOfItsOwn)
{
    Runner runner;
    pthread_helper::thread<Runner> thread(&runner, &Runner::run);
    EXPECT_FALSE(thread._joined);
    thread.start();
    ASSERT_EQ(0, pthread_join(thread._id, nullptr));

    EXPECT_EQ(1, runner.runs);
    EXPECT_EQ(thread._id, runner.ranOn);
    EXPECT_FALSE(thread._joined); // whoever joins sets it
}

TEST(TheRecordOfAThread, HasAnEntryThatReturnsNull)
{
    Runner runner;
    pthread_helper::thread<Runner> thread(&runner, &Runner::run);

    EXPECT_EQ(nullptr, pthread_helper::thread<Runner>::thread_callback(&thread));
    EXPECT_EQ(1, runner.runs);
}

// --- The fatal path as a whole ---

TEST(TheFatalPath, TracesTheStackOnStandardErrorWithoutTheLogger)
{
    const kit::Outcome outcome = kit::inChild([] {
        setenv("VEXA_LOG_LEVEL", "TRACE", 1);
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        mutex lock;
        lockTwice(lock);
    });

    EXPECT_TRUE(outcome.killedBy(SIGKILL)) << outcome;
    EXPECT_THAT(outcome.output, HasSubstr(" ASSERT (res != 35) ret=35 on "));
    EXPECT_THAT(
        kit::linesOf(outcome.errors),
        testing::Contains(testing::ContainsRegex(
            "^0x[0-9a-f]+ lockTwice \\(\\+0x[0-9a-f]+\\) \\([^ ]*pthread_helper_test at 0x[0-9a-f]+\\) $")))
        << outcome;
    EXPECT_THAT(outcome.errors, testing::Not(HasSubstr("ASSERT")));
    EXPECT_THAT(outcome.errors, testing::Not(HasSubstr("Logger for application")));
}

TEST(TheFatalPath, DoesntFlushStandardOutputButTheStack)
{
    const kit::Outcome outcome = kit::inChild([] {
        std::setvbuf(stdout, nullptr, _IOFBF, 65536);
        mutex lock;
        lockTwice(lock);
    });

    EXPECT_TRUE(outcome.killedBy(SIGKILL)) << outcome;
    EXPECT_EQ("", outcome.output);
    EXPECT_THAT(outcome.errors, HasSubstr("lockTwice"));
}

} // namespace
