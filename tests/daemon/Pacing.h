// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

namespace kit
{

/// The intervals between repeated events, mostly the blocks of an upload, from the times at which they were
/// recorded. An event recorded late makes one interval longer and the next one shorter by the same amount;
/// the sum is affected only by the delays at its two ends.
class Pacing
{
public:
    static constexpr std::int64_t kPaceUs = 13000; ///< from the start of a block to that of the next

    /// Takes at least two times, in microseconds and in order.
    explicit Pacing(const std::vector<std::int64_t>& times)
    {
        for (std::size_t i = 1; i < times.size(); ++i) {
            mIntervals.push_back(times[i] - times[i - 1]);
        }
        mWholeUs = times.back() - times.front();
    }

    std::size_t count() const { return mIntervals.size(); }
    std::int64_t wholeUs() const { return mWholeUs; }
    /// The rate relative to the pace: 1 is the maximum.
    double rate() const
    {
        return static_cast<double>(kPaceUs) * static_cast<double>(count()) / static_cast<double>(mWholeUs);
    }
    /// The median interval, which the recorder's jitter doesn't affect.
    std::int64_t medianUs() const
    {
        std::vector<std::int64_t> sorted = mIntervals;
        const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
        std::nth_element(sorted.begin(), middle, sorted.end());
        return *middle;
    }

    /// Prints a table of all intervals, by millisecond.
    void print() const
    {
        std::map<std::int64_t, unsigned> table;
        for (const std::int64_t us : mIntervals) {
            ++table[us / 1000];
        }
        std::printf("ms between two blocks | how often\n");
        for (const auto& [ms, count] : table) {
            std::printf("%21lld | %u\n", static_cast<long long>(ms), count);
        }
        std::printf("median %.2f ms, %.1f %% of the rate that 13 ms allow\n",
                    static_cast<double>(medianUs()) / 1000, 100 * rate());
    }

private:
    std::vector<std::int64_t> mIntervals;
    std::int64_t mWholeUs = 0;
};

} // namespace kit
