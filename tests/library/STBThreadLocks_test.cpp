// SPDX-License-Identifier: MIT
// Which locks each operation of a thread takes, in which order, and what it does under them.
#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "STBThread.h"
#include "tests/library/PthreadCalls.h"
#include "tests/library/Worker.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

using Calls = std::vector<std::string>;

// A is the lock that serialises start and stop, B the sleepers': they are named in the order of their first
// use. The logger's locks are left out.
Calls callsOf(CallTrace& trace, const std::function<void()>& operation)
{
    trace.calls.clear();
    callTrace = &trace;
    operation();
    callTrace = nullptr;
    Calls calls = trace.calls;
    calls.erase(
        std::remove_if(calls.begin(), calls.end(),
                       [](const std::string& call) { return call.back() == 'C' || call.back() == 'D'; }),
        calls.end());
    return calls;
}

Calls callsOf(const std::function<void()>& operation)
{
    CallTrace trace;
    return callsOf(trace, operation);
}

// Its body returns at once, which leaves it marked as running.
class StartedWorker
{
public:
    StartedWorker()
    {
        callsOf(mTrace, [this] { worker.startThread(nullptr); });
        EXPECT_EQ(2U, mTrace.names.size());
    }
    Calls callsOfOperation(const std::function<void()>& operation) { return callsOf(mTrace, operation); }

    Worker worker;

private:
    CallTrace mTrace;
};

TEST(AStart, MakesTheThreadUnderBothLocks)
{
    Worker worker;
    const Calls calls = callsOf([&] { worker.startThread(nullptr); });

    EXPECT_THAT(calls, ElementsAre("lock A", "lock B", "create", "unlock B", "unlock A"));
}

TEST(AStartThatIsRefused, TakesBothLocks)
{
    StartedWorker started;
    const Calls calls = started.callsOfOperation([&] { started.worker.startThread(nullptr); });

    EXPECT_THAT(calls, ElementsAre("lock A", "lock B", "unlock B", "unlock A"));
}

TEST(AStop, WakesTheSleepersUnderBothLocksAndJoinsUnderTheFirst)
{
    StartedWorker started;
    const Calls calls = started.callsOfOperation([&] { started.worker.stopThread(); });

    EXPECT_THAT(calls,
                ElementsAre("lock A", "lock B", "broadcast", "unlock B", "join", "unlock B", "unlock A"));
}

TEST(AStopOfAThreadThatWasNeverStarted, WakesTheSleepersUnderBothLocks)
{
    Worker worker;
    const Calls calls = callsOf([&] { worker.stopThread(); });

    EXPECT_THAT(calls, ElementsAre("lock A", "lock B", "broadcast", "unlock B", "unlock A"));
}

TEST(TheDestructor, OfAThreadThatWasNeverStartedWakesTheSleepers)
{
    auto thread = std::make_unique<Bare>();
    const Calls calls = callsOf([&] { thread.reset(); });

    EXPECT_THAT(calls, ElementsAre("lock A", "lock B", "broadcast", "unlock B", "unlock A", "destroy cond",
                                   "destroy B", "destroy A"));
}

TEST(TheDestructor, OfARunningThreadJoinsUnderTheFirstLock)
{
    auto thread = std::make_unique<Bare>();
    thread->startThread(nullptr);
    ASSERT_TRUE(thread->ran.await());
    const Calls calls = callsOf([&] { thread.reset(); });

    EXPECT_THAT(calls, ElementsAre("lock A", "lock B", "broadcast", "unlock B", "join", "unlock B",
                                   "unlock A", "destroy cond", "destroy B", "destroy A"));
}

TEST(ASleep, WaitsUnderTheSleepersLockAlone)
{
    StartedWorker started;
    const Calls calls = started.callsOfOperation([&] { started.worker.sleepMs(0); });

    EXPECT_THAT(calls, ElementsAre("lock B", "timedwait", "unlock B"));
}

TEST(ASleep, LooksUnderTheSleepersLockWhetherTheThreadRuns)
{
    StartedWorker started;
    started.worker.stopThread();
    const Calls calls = started.callsOfOperation([&] { started.worker.sleepMs(0); });

    EXPECT_THAT(calls, ElementsAre("lock B", "unlock B"));
}

TEST(ANotify, TakesNoLock)
{
    StartedWorker started;
    const Calls calls = started.callsOfOperation([&] { started.worker.notify(); });

    EXPECT_THAT(calls, ElementsAre("broadcast"));
}

TEST(TheRunningMark, IsReadWithoutALock)
{
    StartedWorker started;
    const Calls calls = started.callsOfOperation([&] { EXPECT_TRUE(started.worker.isRunning()); });

    EXPECT_THAT(calls, IsEmpty());
}

TEST(AThreadThatEnds, TakesNoLockToTellItsListener)
{
    static CallTrace trace; // of the thread, after its body
    class Listener : public STBThread::OnThreadCompletedListener
    {
    public:
        void onThreadCompleted(STBThread*) override
        {
            callTrace = nullptr;
            completed.set();
        }
        Event completed;
    } listener;
    Worker worker([](Worker&) { callTrace = &trace; });
    worker.startThread(&listener);

    ASSERT_TRUE(listener.completed.await());
    EXPECT_THAT(trace.calls, IsEmpty());
}

} // namespace
