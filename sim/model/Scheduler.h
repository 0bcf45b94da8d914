// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <glib.h>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

namespace vexasim
{

/// The simulator's only clock, and the tasks to run at a later time. The program uses a GLib main context
/// (MainLoopScheduler); a test may advance the time itself. Tasks may be added and cancelled on any thread;
/// they run on one, without any lock held.
class Scheduler
{
public:
    using Duration = std::chrono::microseconds;
    /// Time since some fixed point in the past; never goes back.
    using Time = std::chrono::microseconds;
    using Task = std::function<void()>;
    using TaskId = std::uint64_t;

    Scheduler() = default;
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;
    virtual ~Scheduler() = default;

    virtual Time now() const = 0;

    /// Schedules `task` for `time`, or as soon as possible if that has passed, but never before this returns.
    /// Tasks with the same time run in the order in which they were added. Returns an id other than 0.
    TaskId at(Time time, Task task);
    TaskId after(Duration delay, Task task) { return at(now() + delay, std::move(task)); }
    TaskId post(Task task) { return at(now(), std::move(task)); }
    /// Cancels a task; an id that isn't pending is ignored.
    void cancel(TaskId id);
    /// Drops pending tasks and all that are added later.
    void close();

protected:
    /// When the next task is due; empty if none is.
    std::optional<Time> nextTime() const;
    /// Runs the tasks that are due at `time`.
    void runDue(Time time);
    /// Called after the result of nextTime may have changed, on any thread.
    virtual void rescheduled() = 0;

private:
    struct Entry {
        TaskId id;
        Task task;
    };
    using Queue = std::multimap<Time, Entry>;

    Task takeDue(Time time);

    // std::mutex, since the thread sanitizer doesn't see GLib's locks.
    mutable std::mutex mMutex;
    Queue mQueue;
    TaskId mLastId = 0;
    bool mClosed = false;
};

/// One pending task, cancelled on destruction. Used on the scheduler's thread.
class Timer
{
public:
    explicit Timer(Scheduler& scheduler) : mScheduler(scheduler) {}
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { stop(); }

    /// Runs `task` once after `delay`; replaces a pending task.
    void start(Scheduler::Duration delay, Scheduler::Task task)
    {
        startAt(mScheduler.now() + delay, std::move(task));
    }
    void startAt(Scheduler::Time time, Scheduler::Task task);
    void stop() { mScheduler.cancel(std::exchange(mId, 0)); }
    bool running() const { return mId != 0; }

private:
    Scheduler& mScheduler;
    Scheduler::TaskId mId = 0;
};

/// Monotonic time, and tasks run by a GLib main context.
class MainLoopScheduler : public Scheduler
{
public:
    /// By default on the thread's default context.
    explicit MainLoopScheduler(GMainContext* context = g_main_context_get_thread_default());
    ~MainLoopScheduler() override;

    Time now() const override { return Time{g_get_monotonic_time()}; }

protected:
    void rescheduled() override;

private:
    struct Source;
    static gboolean dispatch(GSource* source, GSourceFunc, gpointer);

    GSource* mSource;
    std::mutex mReadyMutex; ///< keeps the source's ready time in step with the queue
};

} // namespace vexasim
