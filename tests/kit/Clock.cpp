// SPDX-License-Identifier: MIT
#include "tests/kit/Clock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

#include "tests/kit/Limits.h"

namespace kit
{

namespace
{

std::int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

Clock::Clock(const std::string& path)
{
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0 || ftruncate(file, sizeof(ClockPage)) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    void* address = mmap(nullptr, sizeof(ClockPage), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (address == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    mPage = static_cast<ClockPage*>(address); // a new file reads as zeros: no offsets
}

Clock::~Clock()
{
    munmap(mPage, sizeof(ClockPage));
}

void Clock::stop()
{
    if (mPage->stoppedAtNs.load() == 0) {
        mPage->stoppedAtNs.store(nowNs() + mPage->monotonicOffsetNs.load());
    }
}

void Clock::run()
{
    const std::int64_t stoppedAt = mPage->stoppedAtNs.load();
    if (stoppedAt != 0) {
        mPage->monotonicOffsetNs.store(stoppedAt - nowNs());
        mPage->stoppedAtNs.store(0);
    }
}

void Clock::advance(Duration duration)
{
    if (mPage->stoppedAtNs.load() != 0) {
        mPage->stoppedAtNs.fetch_add(duration.count());
    } else {
        mPage->monotonicOffsetNs.fetch_add(duration.count());
    }
}

void Clock::hold()
{
    mPage->holdFromLook.store(1);
    mPage->holdAtNs.store(mPage->stoppedAtNs.load());
}

void Clock::advanceAndHold(Duration duration, unsigned look)
{
    mPage->holdFromLook.store(look);
    mPage->holdAtNs.store(mPage->stoppedAtNs.load() + duration.count());
    mPage->stoppedAtNs.fetch_add(duration.count());
}

bool Clock::awaitSet(const std::atomic<std::int64_t>& field)
{
    return eventually([&field] { return field.load() != 0; });
}

bool Clock::awaitHeld() const
{
    return awaitSet(mPage->held);
}

void Clock::letGo()
{
    mPage->holdAtNs.store(0);
}

bool Clock::awaitHandlerWaiting() const
{
    return awaitSet(mPage->handlerWaits);
}

void Clock::holdRemovals()
{
    mPage->holdRemovals.store(1);
}

bool Clock::awaitRemovalHeld() const
{
    return awaitSet(mPage->removalHeld);
}

void Clock::letRemovalsGo()
{
    mPage->holdRemovals.store(0);
}

void Clock::stepWallClock(std::chrono::microseconds step)
{
    mPage->wallOffsetUs.fetch_add(step.count());
}

} // namespace kit
