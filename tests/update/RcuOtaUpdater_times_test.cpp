// SPDX-License-Identifier: MIT
// How fast an image is sent, how often its percentage is told, and how long everything else takes.
#include "tests/update/RcuOtaUpdaterTest.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <thread>

#include <unistd.h>

#include <gmock/gmock.h>

namespace
{

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Ge;
using testing::Le;

constexpr std::int64_t kPaceUs = 13'000; // from the start of a block to that of the next
constexpr std::int64_t kLongestPaceUs = 4 * kPaceUs;
constexpr std::int64_t kAnswerUs = 1'000'000;
constexpr std::int64_t kPauseUs = 5'000'000; // before the verification

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

// ----------------------------------------------------------------------------- How often words are published

/// The percentage behind one block, rounded up: no percentage of these images is so near to a whole number
/// that single precision could make it another.
int roundedUp(std::size_t sent, std::size_t total)
{
    return static_cast<int>((100 * sent + total - 1) / total);
}

// A block is 0.9506 percent of it, so each one is told. The last has four bytes, and isn't.
TEST_F(AnUpdate, Of526WordsPublishesEachBlock)
{
    constexpr std::size_t kTotal = 2104;
    std::vector<int> numbers;
    for (std::size_t block = 1; block <= 105; ++block) {
        numbers.push_back(roundedUp(block * kBlockBytes, kTotal));
    }

    EXPECT_TRUE(update(FirmwareImage::ofWords(526)));

    EXPECT_EQ(words(numbers), mWords);
    EXPECT_EQ(1, numbers.front());
    EXPECT_EQ(100, numbers.back());
    EXPECT_EQ(106U, dataSent().size());
}

// A block is 0.9488 percent of it, so every second one is told. The last two together are 1.3 percent.
TEST_F(AnUpdate, Of527WordsPublishesEverySecondBlock)
{
    constexpr std::size_t kTotal = 2108;
    std::vector<int> numbers;
    for (std::size_t block = 2; block <= 104; block += 2) {
        numbers.push_back(roundedUp(block * kBlockBytes, kTotal));
    }
    numbers.push_back(100);

    EXPECT_TRUE(update(FirmwareImage::ofWords(527)));

    EXPECT_EQ(words(numbers), mWords);
    EXPECT_EQ(2, numbers.front());
    EXPECT_EQ(106U, dataSent().size());
}

// --------------------------------------------------------------------------------------- An answer's second

// The remote's record is late by the way to it, but never early.
TEST_F(AnUpdate, WaitsASecondForTheAnswerToTheParameters)
{
    receiver().setFault(UpdateStep::ConnectionParameters, silence());
    receiver().setFault(UpdateStep::GetImageInfo, refusal());

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    EXPECT_THAT(timeOf(0x06) - timeOf(0x07), AllOf(Ge(kAnswerUs), Le(3 * kAnswerUs)));
}

// ------------------------------------------------------------------------------ Signals at the update's
// thread

void ignore(int /*signal*/) {}

/// Signals that interrupt what the update's thread sleeps in, until the object's end.
class Interrupter
{
public:
    Interrupter()
    {
        struct sigaction action = {};
        action.sa_handler = ignore; // and no SA_RESTART
        sigaction(SIGUSR1, &action, nullptr);
    }
    ~Interrupter()
    {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

    /// Takes the calling thread for its target; a second call changes nothing.
    void aimHere()
    {
        if (mThread.joinable()) {
            return;
        }
        mThread = std::thread{[this, target = gettid()] {
            while (!mStop) {
                mSent += tgkill(getpid(), target, SIGUSR1) == 0 ? 1 : 0;
                std::this_thread::sleep_for(kBetweenSignals);
            }
        }};
    }

    unsigned sent() const { return mSent; }

private:
    static constexpr auto kBetweenSignals = 3ms; // several in one block's time

    std::atomic<bool> mStop{false};
    std::atomic<unsigned> mSent{0};
    std::thread mThread;
};

// The remote's record is late by the way to it, but never early, so the lower bounds are exact.
TEST_F(AnUpdate, IsntHurriedBySignals)
{
    constexpr std::int64_t kBlocks = 25;
    Interrupter interrupter;
    mOnWord = [&interrupter](const std::string&) { interrupter.aimHere(); };

    EXPECT_TRUE(update(FirmwareImage::ofWords(kBlocks * 5)));

    const std::vector<std::int64_t> times = dataTimes();
    ASSERT_EQ(kBlocks, static_cast<std::int64_t>(times.size()));
    for (std::size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - timeOf(0x02), kPaceUs * static_cast<std::int64_t>(i)) << "block " << i;
    }
    // Nor held up: what is left of a sleep goes on, and doesn't begin anew.
    EXPECT_THAT(timeOf(0x03) - times.back(), AllOf(Ge(kPauseUs), Le(2 * kPauseUs)));
    EXPECT_GE(interrupter.sent(), 100U);
}

} // namespace
