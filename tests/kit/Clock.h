// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <string>

#include "tests/kit/ClockPage.h"

namespace kit
{

/// Controls the clocks of the program in the box, and holds its threads at certain points. Only clock
/// readings by the program's own code are affected; GLib's timers, sleeps and waits on conditions use real
/// time.
class Clock
{
public:
    using Duration = std::chrono::nanoseconds;

    /// Creates the file `path`, which the program maps.
    explicit Clock(const std::string& path);
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    /// Stops the monotonic clock; then only advance moves it, so a test can stop on either side of a
    /// threshold.
    void stop();
    /// Lets it run on from its current value.
    void run();
    void advance(Duration duration);
    /// Holds the program's main thread the next time it reads the stopped clock, between two steps of the
    /// daemon that nothing else distinguishes.
    void hold();
    /// Advances the stopped clock and holds the main thread the `look`th time it reads the new time.
    void advanceAndHold(Duration duration, unsigned look);
    /// Waits until the main thread is held.
    bool awaitHeld() const;
    void letGo();

    // The next functions need Room::slowHandlers().
    /// Waits until a handler waits for a lock that the main thread holds.
    bool awaitHandlerWaiting() const;
    /// From now on a removal is held after it has erased its object and before the listeners are notified.
    void holdRemovals();
    /// Waits until a removal is held.
    bool awaitRemovalHeld() const;
    void letRemovalsGo();

    /// Steps only the wall clock, as setting the time of day does.
    void stepWallClock(std::chrono::microseconds step);

private:
    static bool awaitSet(const std::atomic<std::int64_t>& field);

    ClockPage* mPage = nullptr;
};

} // namespace kit
