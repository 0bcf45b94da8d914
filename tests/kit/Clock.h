// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <string>

#include "tests/kit/ClockPage.h"

namespace kit
{

/// The clocks of the program in the box, and the places where a test holds its threads. Only what the
/// program's own code reads is moved; GLib's timers, sleeps and waits on conditions keep the true time.
class Clock
{
public:
    using Duration = std::chrono::nanoseconds;

    /// Makes the file `path`, which the program maps.
    explicit Clock(const std::string& path);
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    /// Lets the monotonic clock stand still; only advance moves it then, so a test can stop on either side of
    /// a threshold.
    void stop();
    /// Lets it run on from where it stands.
    void run();
    void advance(Duration duration);
    /// The stopped clock holds the program's main thread at its next look at it: between two steps of the
    /// daemon that nothing else tells apart.
    void hold();
    /// Moves the stopped clock, which then holds the main thread at its `look`th look at the new time.
    void advanceAndHold(Duration duration, unsigned look);
    /// Until the main thread stands there.
    bool awaitHeld() const;
    void letGo();

    // With Room::slowHandlers().
    /// Until a handler waits for a lock that the main thread holds.
    bool awaitHandlerWaiting() const;
    /// From now on a removal is held when it has erased its object, before anybody hears of it.
    void holdRemovals();
    /// Until one stands there.
    bool awaitRemovalHeld() const;
    void letRemovalsGo();

    /// Steps the wall clock alone, as a correction of the time of day does.
    void stepWallClock(std::chrono::microseconds step);

private:
    static bool awaitSet(const std::atomic<std::int64_t>& field);

    ClockPage* mPage = nullptr;
};

} // namespace kit
