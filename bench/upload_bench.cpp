// SPDX-License-Identifier: MIT
// How fast an image is sent to the remote: the daemon's real binary over a real dbus-daemon, timed where the
// remote's side reads the calls from the socket. Needs an otherwise idle machine; 1,000 blocks take 14
// seconds.

#include <cstdio>
#include <fstream>
#include <string>

#include "tests/daemon/Pacing.h"
#include "tests/daemon/UpdateStory.h"

namespace kit
{

using std::chrono_literals::operator""min;

namespace
{

constexpr double kLeastRate = 0.95;
constexpr std::uint16_t kWords = 5000;

std::string load()
{
    std::string line;
    std::ifstream file("/proc/loadavg");
    std::getline(file, line);
    return line;
}

class AnUploadOnAQuietMachine : public UpdateStory
{
};

TEST_F(AnUploadOnAQuietMachine, KeepsThePace)
{
    ASSERT_TRUE(remoteIsRead());
    box.sim().clearBends(); // no bend of the test delays the answer to a block
    std::printf("load before: %s\n", load().c_str());

    offer(newerImage(kWords));
    ASSERT_TRUE(ends("succeed", 5min));

    std::printf("load after:  %s\n", load().c_str());
    std::vector<std::int64_t> times;
    for (const vexasim::Call& call : box.sim().calls("WriteValue", updatePathOf(vexasim::uuid::kData))) {
        times.push_back(call.timeUs);
    }
    ASSERT_EQ(times.size(), std::size_t{kWords} * 4 / 20);
    const Pacing pacing(times);
    pacing.print();
    if (pacing.rate() < kLeastRate) {
        std::printf("less than the 95 %% that a quiet machine reaches\n");
    }
}

} // namespace

} // namespace kit
