// SPDX-License-Identifier: MIT
#include "sim/bluez/Loop.h"

#include <gio/gio.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

namespace vexasim
{

Loop::Loop() : mThread([this] { serve(); }) {}

Loop::~Loop()
{
    stop();
}

void Loop::post(Task task)
{
    std::lock_guard lock(mMutex);
    if (mStopped)
        return;
    mTasks.push_back(std::move(task));
    mWakeUp.notify_one();
}

Loop::TimerId Loop::after(std::chrono::milliseconds delay, Task task)
{
    if (delay.count() <= 0) {
        post(std::move(task));
        return 0;
    }
    std::lock_guard lock(mMutex);
    mTimers.emplace(++mLastTimer, Timer{Clock::now() + delay, std::move(task)});
    mWakeUp.notify_one();
    return mLastTimer;
}

void Loop::cancel(TimerId id)
{
    Task dropped; // destroyed without the lock, since its captures may post
    std::lock_guard lock(mMutex);
    const auto found = mTimers.find(id);
    if (found == mTimers.end())
        return;
    dropped = std::move(found->second.task);
    mTimers.erase(found);
}

bool Loop::run(const Task& task)
{
    if (std::this_thread::get_id() == mThread.get_id()) {
        task();
        return true;
    }
    struct Hand {
        bool done = false;
        std::exception_ptr error;
    };
    const auto hand = std::make_shared<Hand>();
    post([this, hand, &task] {
        try {
            task();
        } catch (...) {
            hand->error = std::current_exception();
        }
        std::lock_guard lock(mMutex);
        hand->done = true;
        mDone.notify_all();
    });
    std::unique_lock lock(mMutex);
    mDone.wait(lock, [this, &hand] { return hand->done || mEnded; });
    if (hand->error)
        std::rethrow_exception(hand->error);
    return hand->done;
}

void Loop::stop()
{
    {
        std::lock_guard lock(mMutex);
        mStopped = true;
        mWakeUp.notify_all();
    }
    if (mThread.joinable())
        mThread.join();
    std::deque<Task> tasks;
    std::map<TimerId, Timer> timers;
    std::lock_guard lock(mMutex);
    tasks.swap(mTasks);
    timers.swap(mTimers);
    mEnded = true;
    mDone.notify_all();
}

bool Loop::next(Task& task)
{
    std::unique_lock lock(mMutex);
    while (!mStopped) {
        const auto due = std::min_element(mTimers.begin(), mTimers.end(), [](const auto& a, const auto& b) {
            return a.second.due < b.second.due;
        });
        if (due != mTimers.end() && due->second.due <= Clock::now()) {
            task = std::move(due->second.task);
            mTimers.erase(due);
            return true;
        }
        if (!mTasks.empty()) {
            task = std::move(mTasks.front());
            mTasks.pop_front();
            return true;
        }
        if (due != mTimers.end())
            mWakeUp.wait_until(lock, due->second.due);
        else
            mWakeUp.wait(lock);
    }
    return false;
}

void Loop::serve()
{
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    for (Task task; next(task); task = nullptr) {
        task();
        // GDBus leaves here what it wants released on this thread.
        while (g_main_context_iteration(context, FALSE) != FALSE) {
        }
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

} // namespace vexasim
