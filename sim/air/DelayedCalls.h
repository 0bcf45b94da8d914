// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Clock.h"

#include <list>

namespace vexasim::air
{

/// Calls to come that end with their owner. One thread.
class DelayedCalls
{
public:
    explicit DelayedCalls(Clock& clock) : mClock(clock) {}

    /// Calls at once without a delay, else later.
    void after(std::chrono::milliseconds delay, Clock::Call call)
    {
        mTimers.remove_if([](const Timer& timer) { return !timer.running(); });
        if (delay.count() == 0)
            return call();
        mTimers.emplace_back(mClock).start(delay, std::move(call));
    }

private:
    Clock& mClock;
    std::list<Timer> mTimers;
};

} // namespace vexasim::air
