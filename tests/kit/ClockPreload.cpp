// SPDX-License-Identifier: MIT
// Preloaded into the program in the box: changes the clocks as the test requests, for calls from the
// program's own code. Calls that GLib and the C library make for themselves get the real time, so their
// timers aren't affected.

#include <ctime>
#include <sys/time.h>

#include "tests/kit/InsideProgram.h"

namespace
{

using kit::ClockPage;

constexpr std::int64_t kNsPerSecond = 1000000000;
constexpr std::int64_t kUsPerSecond = 1000000;

ClockPage* page = nullptr;
const kit::OwnCode program;

__attribute__((constructor)) void setUp()
{
    page = kit::mapClockPage();
}

bool isMoved(const void* caller)
{
    return page != nullptr && program.has(caller);
}

// Holds the main thread here as long as the test wants it held at the time that the stopped clock shows.
void standIfHeld(std::int64_t stoppedAtNs)
{
    static std::int64_t lastSeenNs = 0;
    static std::int64_t looks = 0;
    if (!kit::inMainThread()) {
        return;
    }
    looks = stoppedAtNs == lastSeenNs ? looks + 1 : 1;
    lastSeenNs = stoppedAtNs;
    while (stoppedAtNs == page->holdAtNs.load() && looks >= page->holdFromLook.load()) {
        page->held.store(1);
        constexpr timespec kMillisecond = {0, 1000000};
        syscall(SYS_nanosleep, &kMillisecond, nullptr);
    }
    page->held.store(0);
}

} // namespace

// The C library uses reserved names for its parameters.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    const void* caller = __builtin_return_address(0);
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (result != 0 || clock != CLOCK_MONOTONIC || !isMoved(caller)) {
        return static_cast<int>(result);
    }
    std::int64_t ns = page->stoppedAtNs.load();
    if (ns != 0) {
        standIfHeld(ns);
    } else {
        ns = time->tv_sec * kNsPerSecond + time->tv_nsec + page->monotonicOffsetNs.load();
    }
    time->tv_sec = ns / kNsPerSecond;
    time->tv_nsec = ns % kNsPerSecond;
    return 0;
}

extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval* time, void* zone) noexcept
{
    const void* caller = __builtin_return_address(0);
    const long result = syscall(SYS_gettimeofday, time, zone);
    if (result != 0 || !isMoved(caller)) {
        return static_cast<int>(result);
    }
    const std::int64_t us = time->tv_sec * kUsPerSecond + time->tv_usec + page->wallOffsetUs.load();
    time->tv_sec = us / kUsPerSecond;
    time->tv_usec = us % kUsPerSecond;
    return 0;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
