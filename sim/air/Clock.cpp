// SPDX-License-Identifier: MIT
#include "sim/air/Clock.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

struct ClockSource {
    GSource base;
    MainLoopClock* clock;
};

gboolean dispatchClock(GSource* source, GSourceFunc, gpointer)
{
    reinterpret_cast<ClockSource*>(source)->clock->dispatch();
    return G_SOURCE_CONTINUE;
}

// Its ready time alone makes the source due, so it neither prepares nor checks.
GSourceFuncs kClockFunctions = {nullptr, nullptr, dispatchClock, nullptr, nullptr, nullptr};

} // namespace

uint64_t Clock::callAt(Time time, Call call)
{
    const uint64_t number = mNextNumber++;
    mCalls.emplace(time, Entry{number, std::move(call)});
    rescheduled();
    return number;
}

void Clock::cancel(uint64_t number)
{
    const auto found = std::find_if(mCalls.begin(), mCalls.end(),
                                    [number](const auto& entry) { return entry.second.number == number; });
    if (found == mCalls.end())
        return;
    mCalls.erase(found);
    rescheduled();
}

std::optional<Clock::Time> Clock::nextCall() const
{
    if (mCalls.empty())
        return std::nullopt;
    return mCalls.begin()->first;
}

void Clock::runDue(Time time)
{
    while (!mCalls.empty() && mCalls.begin()->first <= time) {
        // Held here, since the call may end its timer's owner.
        const Call call = std::move(mCalls.begin()->second.call);
        mCalls.erase(mCalls.begin());
        call();
    }
    rescheduled();
}

void Timer::startAt(Clock::Time time, Clock::Call call)
{
    stop();
    mNumber = mClock.callAt(time, [this, call = std::move(call)] {
        mNumber = 0;
        call();
    });
}

void Timer::stop()
{
    if (mNumber != 0)
        mClock.cancel(mNumber);
    mNumber = 0;
}

MainLoopClock::MainLoopClock() : mSource(g_source_new(&kClockFunctions, sizeof(ClockSource)))
{
    reinterpret_cast<ClockSource*>(mSource)->clock = this;
    g_source_set_ready_time(mSource, -1);
    g_source_attach(mSource, g_main_context_get_thread_default());
}

MainLoopClock::~MainLoopClock()
{
    g_source_destroy(mSource);
    g_source_unref(mSource);
}

Clock::Time MainLoopClock::now() const
{
    return Time{g_get_monotonic_time()};
}

void MainLoopClock::rescheduled()
{
    const auto next = nextCall();
    g_source_set_ready_time(mSource, next ? next->count() : -1);
}

} // namespace vexasim::air
