// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <gmock/gmock.h>
#include <vector>

#include "tests/kit/Box.h"

namespace kit
{

// Real times, in microseconds: how long the daemon paused, measured from outside.

/// Neither much shorter nor much longer. A busy machine usually lengthens a measured time, so the upper bound
/// is wider.
inline ::testing::Matcher<std::int64_t> isAbout(std::chrono::microseconds nominal)
{
    return ::testing::AllOf(::testing::Ge(nominal.count() * 6 / 10), ::testing::Le(nominal.count() * 3));
}

/// The same for times of several seconds, which a busy machine lengthens by a smaller share.
inline ::testing::Matcher<std::int64_t> isNearly(std::chrono::microseconds nominal)
{
    return ::testing::AllOf(::testing::Ge(nominal.count() * 9 / 10),
                            ::testing::Le(nominal.count() * 18 / 10));
}

/// On the clock of vexasim::Call and vexasim::UpdatePacket.
inline std::int64_t microseconds(std::chrono::steady_clock::time_point time)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

inline std::int64_t microseconds(std::chrono::microseconds duration)
{
    return duration.count();
}

/// When such records arrived.
inline std::vector<std::int64_t> arrivals(Box& box, const LogPredicate& predicate)
{
    std::vector<std::int64_t> times;
    for (const LogRecord& record : box.log().records()) {
        if (predicate(record)) {
            times.push_back(microseconds(record.arrival));
        }
    }
    return times;
}

/// When these calls arrived from the bus.
inline std::vector<std::int64_t> times(const std::vector<vexasim::Call>& calls)
{
    std::vector<std::int64_t> times;
    for (const vexasim::Call& call : calls) {
        times.push_back(call.timeUs);
    }
    return times;
}

/// The total duration of the next `count` waits of the daemon's main thread, which must do nothing but wait
/// and check whether to continue.
inline std::int64_t timeOfWaits(Box& box, unsigned count)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(box.program().awaitMainThreadWaits(count));
    return microseconds(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start));
}

} // namespace kit
