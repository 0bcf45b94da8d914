// SPDX-License-Identifier: MIT
// While nothing changes, the daemon sends nothing on the bus.

#include <gmock/gmock.h>

#include "tests/kit/Box.h"
#include "tests/kit/Bus.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""min;
using std::chrono_literals::operator""h;
using ::testing::IsEmpty;
using ::testing::Not;

namespace
{

class AQuietBox : public InABox
{
protected:
    AQuietBox() : InABox(pairedRemote()) {}

    void SetUp() override
    {
        ASSERT_TRUE(box.startConnected());
        box.clock().advance(16s);
        ASSERT_TRUE(box.files().await("bluetooth_rc_fw_version", "1a3"));
        ASSERT_TRUE(box.awaitEvents());
        sender = box.sim().calls("ReadValue").front().sender;
    }

    std::string sender;
};

TEST_F(AQuietBox, HearsNoMessageOfTheDaemonInTenPasses)
{
    const BusMonitor monitor(box.sim().busAddress());
    ASSERT_TRUE(box.awaitPasses(10));
    const std::vector<std::string> heard = monitor.messagesOf(sender);

    EXPECT_THAT(heard, IsEmpty());
    // The monitor works: it sees the next reading.
    box.clock().advance(4h);
    ASSERT_TRUE(box.sim().awaitCall("ReadValue", "", 4, kPatience));
    ASSERT_TRUE(box.awaitPasses(1));
    EXPECT_THAT(monitor.messagesOf(sender), Not(IsEmpty()));
}

// Registered with the label "ondemand".
class AQuietBoxForLong : public AQuietBox
{
};

TEST_F(AQuietBoxForLong, HearsNoMessageOfTheDaemonInTenMinutes)
{
    const BusMonitor monitor(box.sim().busAddress());
    const auto passes = static_cast<unsigned>(std::chrono::minutes{10} / 500ms) -
                        100; // each takes up to a tenth of a second more
    const std::size_t begun = box.log().count(isLog(TRACE, "main", "IDLING..."));
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes{10};
    ASSERT_TRUE(box.log().awaitCount(isLog(TRACE, "main", "IDLING..."), begun + passes, 12min * kSlowness));
    std::this_thread::sleep_until(end);

    EXPECT_THAT(monitor.messagesOf(sender), IsEmpty());
}

} // namespace

} // namespace kit
