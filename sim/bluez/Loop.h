// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace vexasim
{

/// The simulator's thread: runs tasks in the order in which they were posted,
/// and timers. All state of the simulated BlueZ is touched on it alone. A
/// GMainContext of its own is the thread's default, so that GDBus never uses
/// the default context of the process.
class Loop
{
public:
    using Task = std::function<void()>;
    using TimerId = uint64_t;

    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// Any thread. After stop() the task is dropped.
    void post(Task task);
    /// Any thread; a delay of zero is a post, whose id can't be cancelled.
    TimerId after(std::chrono::milliseconds delay, Task task);
    void cancel(TimerId id);
    /// Runs the task on the loop's thread and waits for it; on that thread at
    /// once. An exception comes through. False if the loop has stopped.
    bool run(const Task& task);
    /// Ends the thread; pending tasks and timers are dropped.
    void stop();

private:
    using Clock = std::chrono::steady_clock;
    struct Timer {
        Clock::time_point due;
        Task task;
    };

    void serve();
    bool next(Task& task);

    std::mutex mMutex;
    std::condition_variable mWakeUp;
    std::condition_variable mDone;
    std::deque<Task> mTasks;
    std::map<TimerId, Timer> mTimers;
    TimerId mLastTimer = 0;
    bool mStopped = false;
    bool mEnded = false; ///< the thread is gone, nobody is in a task any more
    std::thread mThread;
};

} // namespace vexasim
