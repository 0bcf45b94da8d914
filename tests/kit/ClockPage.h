// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>

namespace kit
{

/// The page through which a test moves the clocks of the program in the box and holds its threads: mapped by
/// both, written by the test but for what the program tells.
struct ClockPage {
    std::atomic<std::int64_t> monotonicOffsetNs; ///< added to CLOCK_MONOTONIC
    std::atomic<std::int64_t> stoppedAtNs;       ///< if not 0, what CLOCK_MONOTONIC shows instead
    std::atomic<std::int64_t> wallOffsetUs;      ///< added to gettimeofday
    std::atomic<std::int64_t> holdAtNs;          ///< the main thread is held while the clock is stopped here,
    std::atomic<std::int64_t> holdFromLook;      ///< from this look at it on, counted from 1
    std::atomic<std::int64_t> held;              ///< told: 1 while it stands there
    // With slow handlers:
    std::atomic<std::int64_t> handlerWaits; ///< told: 1 while another thread waits for a lock that is held
    std::atomic<std::int64_t> holdRemovals; ///< 1: what has erased an object is held before its next lock
    std::atomic<std::int64_t> removalHeld;  ///< told: 1 while it stands there
};

/// Where the program in the box finds the page's file.
constexpr const char* kClockVariable = "VEXABOX_CLOCK";

} // namespace kit
