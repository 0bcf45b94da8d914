// SPDX-License-Identifier: MIT
#pragma once

#include <glib.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

namespace vexasim::air
{

/// Time for the air: what o'clock it is, and calls to be made later. The
/// program's clock runs on a GLib main context, the tests' is moved by hand.
/// All of it belongs to the one thread that runs the air.
class Clock
{
public:
    using Duration = std::chrono::microseconds;
    /// Time since some fixed point in the past; never goes back.
    using Time = std::chrono::microseconds;
    using Call = std::function<void()>;

    Clock() = default;
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
    virtual ~Clock() = default;

    virtual Time now() const = 0;

    /// Arranges for `call` at `time`, or at once if that has passed. Calls of
    /// the same time are made in the order in which they were asked for.
    /// Returns the number by which it is cancelled.
    uint64_t callAt(Time time, Call call);

    /// Takes back a call; a number that isn't pending is ignored.
    void cancel(uint64_t number);

protected:
    /// When the next call is due; empty if none is.
    std::optional<Time> nextCall() const;

    /// Makes the calls that are due at `time`.
    void runDue(Time time);

    /// Called after the answer of nextCall may have changed.
    virtual void rescheduled() = 0;

private:
    struct Entry {
        uint64_t number;
        Call call;
    };
    std::multimap<Time, Entry> mCalls;
    uint64_t mNextNumber = 1;
};

/// One call to come, cancelled when its owner goes.
class Timer
{
public:
    explicit Timer(Clock& clock) : mClock(clock) {}
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { stop(); }

    /// Calls `call` once after `delay`, instead of what was pending.
    void start(Clock::Duration delay, Clock::Call call) { startAt(mClock.now() + delay, std::move(call)); }

    /// The same at a point in time.
    void startAt(Clock::Time time, Clock::Call call);

    void stop();
    bool running() const { return mNumber != 0; }

private:
    Clock& mClock;
    uint64_t mNumber = 0;
};

/// The clock of the running program: monotonic time, calls made by the main
/// context that was the thread's default when the clock was made.
class MainLoopClock : public Clock
{
public:
    MainLoopClock();
    ~MainLoopClock() override;

    Time now() const override;

    /// For the GLib source alone: makes the calls that are due.
    void dispatch() { runDue(now()); }

protected:
    void rescheduled() override;

private:
    GSource* mSource;
};

} // namespace vexasim::air
