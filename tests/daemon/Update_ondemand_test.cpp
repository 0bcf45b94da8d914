// SPDX-License-Identifier: MIT
// The largest image that the format allows: every packet, every word, and the daemon's memory. Takes about
// three minutes, so it runs on demand.

#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <string>
#include <sys/types.h>

#include "tests/daemon/UpdateStory.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""min;
using ::testing::ElementsAreArray;

namespace
{

constexpr std::uint16_t kMostWords = 65535;
constexpr std::size_t kMostBytes = 262140;
constexpr std::size_t kBlocks = 13107;
constexpr auto kReport = 10s;
constexpr auto kLimit = 15min * kSlowness; // five times the pace of 13 ms
// Each write leaks its builder: about two megabytes for a whole image. This is four times as much, which
// leaves room for the allocator; a copy of the image kept for each percent would exceed it.
constexpr long kMostGrowthKiB = 8L * 1024;

// In KiB, from the kernel's record of the process.
long residentMemory(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

class TheLargestImageForLong : public UpdateStory
{
protected:
    void SetUp() override { ASSERT_TRUE(remoteIsRead()); }

    /// Waits for the update to succeed; prints its progress every ten seconds.
    bool succeeds()
    {
        const auto end = std::chrono::steady_clock::now() + kLimit;
        while (std::chrono::steady_clock::now() < end && box.program().running()) {
            if (ends("succeed", kReport)) {
                return true;
            }
            std::printf("%5u of %zu blocks, VmRSS %ld KiB\n", box.remote().receiver().blocks(), kBlocks,
                        residentMemory(box.program().pid()));
            std::fflush(stdout);
            if (box.countLog(ERROR, "main", "Firmware update failed") != 0) {
                return false;
            }
        }
        return false;
    }
};

TEST_F(TheLargestImageForLong, ArrivesWholeAndCostsLittleMemory)
{
    const FirmwareImage image = newerImage(kMostWords);
    ASSERT_EQ(image.payload.size(), kMostBytes);
    const std::vector<int> numbers = publishedNumbers(kMostBytes, kMostBytes);
    const long before = residentMemory(box.program().pid());
    ASSERT_GT(before, 0);

    offer(image);
    ASSERT_TRUE(succeeds());

    const long after = residentMemory(box.program().pid());
    std::printf("VmRSS: %ld KiB before, %ld KiB after, %ld KiB more: %.0f bytes for each of %zu blocks\n",
                before, after, after - before, 1024.0 * static_cast<double>(after - before) / kBlocks,
                kBlocks);
    RecordProperty("VmRSS_before_KiB", std::to_string(before));
    RecordProperty("VmRSS_after_KiB", std::to_string(after));
    EXPECT_LT(after - before, kMostGrowthKiB);
    ASSERT_TRUE(idlesWith("disconnected"));
    EXPECT_EQ(numbers.front(), 1);
    EXPECT_THAT(course(), ElementsAreArray(words(numbers, {"rc_fw_update_succeed", "disconnected"})));
    EXPECT_EQ(box.remote().receiver().blocks(), kBlocks);
    EXPECT_THAT(exchange(), ElementsAreArray(goodExchange(image, kMostBytes)));
    EXPECT_TRUE(box.remote().receiver().verified()) << box.remote().receiver().complaint();
}

} // namespace

} // namespace kit
