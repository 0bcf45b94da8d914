// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <thread>

#include "sim/model/Scheduler.h"

namespace vexasim
{

/// The thread of the simulated BlueZ, on which alone its state is touched: runs the scheduler's tasks on a
/// GMainContext of its own. That is the thread's default, so that GDBus never uses the process's.
class SchedulerThread : public MainLoopScheduler
{
public:
    SchedulerThread();
    ~SchedulerThread() override;

    /// Runs the task on the thread and waits for it; called on that thread, at once. An exception comes
    /// through. False if the thread has ended.
    bool run(const Task& task);
    /// Ends the thread; what is still pending is dropped.
    void stop();

private:
    using Context = std::shared_ptr<GMainContext>;
    explicit SchedulerThread(const Context& context);

    Context mContext;
    std::shared_ptr<GMainLoop> mLoop;
    std::thread mThread;
};

} // namespace vexasim
