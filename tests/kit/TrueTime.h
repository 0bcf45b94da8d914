// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <gmock/gmock.h>
#include <vector>

#include "tests/kit/Box.h"

namespace kit
{

// Times of the true clock, in microseconds: how long the daemon paused, seen from outside.

/// Neither much shorter nor much longer. A busy machine mostly lengthens what is measured, so the upper bound
/// is the wider one.
inline ::testing::Matcher<std::int64_t> isAbout(std::chrono::microseconds nominal)
{
    return ::testing::AllOf(::testing::Ge(nominal.count() * 6 / 10), ::testing::Le(nominal.count() * 3));
}

/// The same for some seconds, which a busy machine lengthens by less of themselves.
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

/// When such calls came off the bus.
inline std::vector<std::int64_t> times(const std::vector<vexasim::Call>& calls)
{
    std::vector<std::int64_t> times;
    for (const vexasim::Call& call : calls) {
        times.push_back(call.timeUs);
    }
    return times;
}

/// How long the next `count` waits of the daemon's main thread take together. It is to do nothing but to wait
/// and to look whether it shall go on.
inline std::int64_t timeOfWaits(Box& box, unsigned count)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(box.program().awaitMainThreadWaits(count));
    return microseconds(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start));
}

} // namespace kit
