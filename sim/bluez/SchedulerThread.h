// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <thread>

#include "sim/model/Scheduler.h"

namespace vexasim
{

/// The thread of the simulated BlueZ, the only one that uses its state: runs the scheduler's tasks on its own
/// GMainContext. That is the thread's default, so that GDBus never uses the process's.
class SchedulerThread : public MainLoopScheduler
{
public:
    SchedulerThread();
    ~SchedulerThread() override;

    /// Runs the task on the thread and waits for it; on that thread itself, runs it at once. Passes on an
    /// exception. False if the thread has ended.
    bool run(const Task& task);
    /// Ends the thread; pending tasks are dropped.
    void stop();

private:
    using Context = std::shared_ptr<GMainContext>;
    explicit SchedulerThread(const Context& context);

    Context mContext;
    std::shared_ptr<GMainLoop> mLoop;
    std::thread mThread;
};

} // namespace vexasim
