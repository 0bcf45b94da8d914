// SPDX-License-Identifier: MIT
#include "sim/model/Scheduler.h"

#include <algorithm>

namespace vexasim
{

Scheduler::TaskId Scheduler::at(Time time, Task task)
{
    TaskId id = 0;
    {
        const std::lock_guard lock(mMutex);
        if (mClosed) {
            return 0;
        }
        id = ++mLastId;
        mQueue.emplace(time, Entry{id, std::move(task)});
    }
    rescheduled();
    return id;
}

void Scheduler::cancel(TaskId id)
{
    Task dropped; // destroyed after the unlock, since its captures may use the scheduler
    const std::lock_guard lock(mMutex);
    const auto found =
        std::find_if(mQueue.begin(), mQueue.end(), [id](const auto& entry) { return entry.second.id == id; });
    if (found != mQueue.end()) {
        dropped = std::move(found->second.task);
        mQueue.erase(found);
    }
}

void Scheduler::close()
{
    Queue dropped;
    const std::lock_guard lock(mMutex);
    mClosed = true;
    dropped.swap(mQueue);
}

std::optional<Scheduler::Time> Scheduler::nextTime() const
{
    const std::lock_guard lock(mMutex);
    return mQueue.empty() ? std::nullopt : std::optional{mQueue.begin()->first};
}

Scheduler::Task Scheduler::takeDue(Time time)
{
    const std::lock_guard lock(mMutex);
    if (mQueue.empty() || mQueue.begin()->first > time) {
        return nullptr;
    }
    Task task = std::move(mQueue.begin()->second.task);
    mQueue.erase(mQueue.begin());
    return task;
}

void Scheduler::runDue(Time time)
{
    while (const Task task = takeDue(time)) {
        task();
    }
    rescheduled();
}

void Timer::startAt(Scheduler::Time time, Scheduler::Task task)
{
    stop();
    mId = mScheduler.at(time, [this, task = std::move(task)] {
        mId = 0;
        task();
    });
}

struct MainLoopScheduler::Source {
    GSource base;
    MainLoopScheduler* scheduler;
};

gboolean MainLoopScheduler::dispatch(GSource* source, GSourceFunc, gpointer)
{
    auto* scheduler = reinterpret_cast<Source*>(source)->scheduler;
    scheduler->runDue(scheduler->now());
    return G_SOURCE_CONTINUE;
}

MainLoopScheduler::MainLoopScheduler(GMainContext* context)
{
    // The source becomes due by its ready time alone, so it needs neither prepare nor check.
    static GSourceFuncs functions = {nullptr, nullptr, &MainLoopScheduler::dispatch,
                                     nullptr, nullptr, nullptr};
    mSource = g_source_new(&functions, sizeof(Source));
    reinterpret_cast<Source*>(mSource)->scheduler = this;
    g_source_set_ready_time(mSource, -1);
    g_source_attach(mSource, context);
}

MainLoopScheduler::~MainLoopScheduler()
{
    g_source_destroy(mSource);
    g_source_unref(mSource);
}

void MainLoopScheduler::rescheduled()
{
    const std::lock_guard lock(mReadyMutex);
    const auto next = nextTime();
    g_source_set_ready_time(mSource, next ? next->count() : -1);
}

} // namespace vexasim
