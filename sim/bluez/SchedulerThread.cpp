// SPDX-License-Identifier: MIT
#include "sim/bluez/SchedulerThread.h"

#include <functional>
#include <future>
#include <utility>

namespace vexasim
{

SchedulerThread::SchedulerThread() : SchedulerThread(Context(g_main_context_new(), g_main_context_unref)) {}

SchedulerThread::SchedulerThread(const Context& context)
    : MainLoopScheduler(context.get()),
      mContext(context),
      mLoop(g_main_loop_new(context.get(), FALSE), g_main_loop_unref),
      mThread([this] {
          g_main_context_push_thread_default(mContext.get());
          g_main_loop_run(mLoop.get());
          g_main_context_pop_thread_default(mContext.get());
      })
{
}

SchedulerThread::~SchedulerThread()
{
    stop();
}

bool SchedulerThread::run(const Task& task)
{
    if (g_main_context_is_owner(mContext.get()) != FALSE) {
        task();
        return true;
    }
    auto job = std::make_shared<std::packaged_task<void()>>(std::cref(task));
    std::future<void> done = job->get_future();
    post([job = std::move(job)] { (*job)(); });
    try {
        done.get();
    } catch (const std::future_error&) {
        return false; // the task was dropped
    }
    return true;
}

void SchedulerThread::stop()
{
    if (mThread.joinable()) {
        post([this] { g_main_loop_quit(mLoop.get()); });
        mThread.join();
    }
    close();
}

} // namespace vexasim
