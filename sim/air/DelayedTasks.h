// SPDX-License-Identifier: MIT
#pragma once

#include <list>

#include "sim/model/Scheduler.h"

namespace vexasim::air
{

/// Delayed tasks that are cancelled on destruction. One thread.
class DelayedTasks
{
public:
    explicit DelayedTasks(Scheduler& scheduler) : mScheduler(scheduler) {}

    /// Runs the task after `delay`, at once if it is zero.
    void after(std::chrono::milliseconds delay, Scheduler::Task task)
    {
        mTimers.remove_if([](const Timer& timer) { return !timer.running(); });
        if (delay.count() == 0) {
            return task();
        }
        mTimers.emplace_back(mScheduler).start(delay, std::move(task));
    }

private:
    Scheduler& mScheduler;
    std::list<Timer> mTimers;
};

} // namespace vexasim::air
