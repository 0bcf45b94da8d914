// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <utility>

#include "STBThread.h"
#include "tests/kit/Limits.h"

// Helpers of the tests that run threads.

constexpr unsigned int kLongMs = 600000;

/// Something that happens once, and that another thread awaits.
class Event
{
public:
    void set() { mPromise.set_value(); }
    bool await() { return mFuture.wait_for(kit::kPatience) == std::future_status::ready; }

private:
    std::promise<void> mPromise;
    std::future<void> mFuture = mPromise.get_future();
};

/// A thread with a body that the test gives. Its destructor stops it if it is running.
class Worker : public STBThread
{
public:
    explicit Worker(std::function<void(Worker&)> body = [](Worker&) {}) : mBody(std::move(body)) {}
    ~Worker() override
    {
        if (isRunning()) {
            stopThread();
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void run() override
    {
        ++runs;
        mBody(*this);
    }

    std::atomic<int> runs{0};

private:
    std::function<void(Worker&)> mBody;
};

/// A thread that the destructor under test ends. Once started, destroy it only after run() has been called.
class Bare : public STBThread
{
public:
    void run() override { ran.set(); }
    Event ran;
};

/// A body that sleeps until its thread is stopped.
inline void sleepUntilStopped(Worker& worker)
{
    while (worker.isRunning()) {
        worker.sleepMs(kLongMs);
    }
}
