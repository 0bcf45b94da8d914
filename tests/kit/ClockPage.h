// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>

namespace kit
{

/// The memory page through which a test controls the clocks and threads of the program in the box. Both map
/// it; the test writes it, except for the fields that the program reports.
struct ClockPage {
    std::atomic<std::int64_t> monotonicOffsetNs; ///< added to CLOCK_MONOTONIC
    std::atomic<std::int64_t> stoppedAtNs;       ///< if not 0, the value of CLOCK_MONOTONIC
    std::atomic<std::int64_t> wallOffsetUs;      ///< added to gettimeofday
    std::atomic<std::int64_t> holdAtNs; ///< the main thread is held while the clock is stopped at this time,
    std::atomic<std::int64_t> holdFromLook; ///< from this reading of it on, counted from 1
    std::atomic<std::int64_t> held;         ///< reported: 1 while held
    // With slow handlers:
    std::atomic<std::int64_t> handlerWaits; ///< reported: 1 while another thread waits for a lock
    std::atomic<std::int64_t> holdRemovals; ///< 1: a thread that erased an object is held at its next lock
    std::atomic<std::int64_t> removalHeld;  ///< reported: 1 while held
};

/// The environment variable that names the page's file.
constexpr const char* kClockVariable = "VEXABOX_CLOCK";

} // namespace kit
