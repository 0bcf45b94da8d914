// SPDX-License-Identifier: MIT
// How fast an image is sent, how often its percentage is told, and how long everything else takes.
#include "RcuOtaUpdaterTest.h"

#include <algorithm>
#include <cstdio>

#include <gmock/gmock.h>

namespace
{

constexpr std::int64_t kPaceUs = 13'000; // from the start of a block to that of the next
constexpr std::int64_t kLongestPaceUs = 3 * kPaceUs;

// -------------------------------------------------------------------------------------- Words and pacing

/// How long one write takes when nothing paces it, in microseconds: the middle of many.
std::int64_t medianWriteTime(Bluez& bluez, const std::string& path)
{
    constexpr std::size_t kWrites = 41;
    std::vector<std::int64_t> times;
    for (std::size_t i = 0; i < kWrites; ++i) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(bluez.writeCharacteristic(path, Bytes(kBlockBytes, 0)));
        const auto taken = std::chrono::steady_clock::now() - start;
        times.push_back(std::chrono::duration_cast<std::chrono::microseconds>(taken).count());
    }
    std::nth_element(times.begin(), times.begin() + kWrites / 2, times.end());
    return times[kWrites / 2];
}

void printIntervals(std::vector<std::int64_t> intervals)
{
    std::sort(intervals.begin(), intervals.end());
    std::printf("intervals between blocks, in microseconds, of %zu:\n", intervals.size());
    for (const int percent : {0, 1, 5, 25, 50, 75, 95, 99, 100}) {
        const std::size_t rank = (intervals.size() - 1) * static_cast<std::size_t>(percent) / 100;
        std::printf("  %3d %% within  %7ld\n", percent, static_cast<long>(intervals[rank]));
    }
}

TEST_F(AnUpdate, IsPacedAndItsWordsRiseByOne)
{
    // One word short, so that it ends after its last block.
    const FirmwareImage image = FirmwareImage::ofBytes(1000, 3996);

    EXPECT_FALSE(update(image));

    // 15, 27, 30, 54 and 60 lie just above in single precision, and 99.9 isn't published.
    std::vector<int> numbers;
    for (int number = 1; number <= 99; ++number) {
        const bool above = number == 15 || number == 27 || number == 30 || number == 54 || number == 60;
        numbers.push_back(above ? number + 1 : number);
    }
    EXPECT_EQ(words(numbers), mWords);

    const std::int64_t announced = timeOf(0x02);
    const std::vector<std::int64_t> times = dataTimes();
    ASSERT_EQ(200U, times.size());
    std::vector<std::int64_t> intervals;
    for (std::size_t i = 1; i < times.size(); ++i) {
        intervals.push_back(times[i] - times[i - 1]);
        // The record is late by the way to the remote, but never early: from the start of the first block on,
        // no block may come before its turn.
        EXPECT_GE(times[i] - announced, kPaceUs * static_cast<std::int64_t>(i)) << "block " << i;
    }
    printIntervals(intervals);
    std::nth_element(intervals.begin(), intervals.begin() + 100, intervals.end());
    const std::int64_t median = intervals[100];
    const std::int64_t writing = medianWriteTime(*mBluez, updatePath(vexasim::uuid::kData));
    // Without the bus, whose time in a row of writes can be more than in a paced one; never under the pace.
    const std::int64_t own = std::max(median - writing, kPaceUs);
    std::printf("a write takes %ld microseconds; the upload keeps %.1f %% of the rate, %.1f %% if the bus "
                "answered at once\n",
                static_cast<long>(writing), 100.0 * 13'000.0 / static_cast<double>(median),
                100.0 * 13'000.0 / static_cast<double>(own));
    // Wide, since others may keep the machine busy. The lower bound of each block is the exact one above.
    EXPECT_LE(own, kLongestPaceUs);
    EXPECT_GE(median, 12'500);
}

} // namespace
