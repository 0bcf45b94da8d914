// SPDX-License-Identifier: MIT
// The daemon's log goes to syslog when VEXA_LOG_SYSLOG says so.

#include <array>
#include <gmock/gmock.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <vector>

#include "tests/kit/Box.h"

namespace kit
{

using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace
{

/// The receiving end of syslog. The daemon blocks when too much is unread.
class SyslogSocket
{
public:
    explicit SyslogSocket(const std::string& path) : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("can't listen at " + path);
        }
    }

    /// Waits for a record of this form.
    bool await(const std::string& form)
    {
        while (readOne()) {
            if (::testing::Value(mRecords.back(), MatchesRegex(form))) {
                return true;
            }
        }
        return false;
    }

    const std::vector<std::string>& records() const { return mRecords; }

private:
    bool readOne()
    {
        pollfd watched{mSocket.get(), POLLIN, 0};
        if (poll(&watched, 1, static_cast<int>(kPatience.count())) <= 0) {
            return false;
        }
        std::array<char, 4096> buffer{};
        const ssize_t size = recv(mSocket.get(), buffer.data(), buffer.size(), 0);
        if (size < 0) {
            return false;
        }
        mRecords.emplace_back(buffer.data(), static_cast<std::size_t>(size));
        return true;
    }

    Handle mSocket;
    std::vector<std::string> mRecords;
};

BoxOptions withSyslog()
{
    BoxOptions options = noRemote();
    options.environment = {{"VEXA_LOG_SYSLOG", "1"}, {"VEXA_LOG_TRACE_MODULES", "main"}};
    return options;
}

class ABoxWithSyslog : public InABox
{
protected:
    ABoxWithSyslog() : InABox(withSyslog()), syslog(box.makeDeviceFolder() + "/log") {}

    /// A record of the daemon as the C library sends it: the priority with the user's facility, fifteen
    /// characters of time, the program, its process, and the message, which begins with the milliseconds.
    std::string record(const std::string& priority, const std::string& message)
    {
        return "<" + priority + ">.{15} vexabluetoohtd\\[" + std::to_string(box.program().pid()) +
               "\\]: \\.[0-9]{3} " + message;
    }

    void expectRecord(int priority, const std::string& message)
    {
        ASSERT_TRUE(syslog.await(record(std::to_string(LOG_USER | priority), message)))
            << message << " isn't in " << ::testing::PrintToString(syslog.records());
    }

    SyslogSocket syslog;
};

TEST_F(ABoxWithSyslog, HasTheWholeLogThereAndNoneOnStandardError)
{
    box.startDaemon();
    expectRecord(LOG_INFO, "Logger for application \"VEXA\" was .*");
    expectRecord(LOG_INFO, R"(\[main:[0-9]+\] Adapter powered)");
    expectRecord(LOG_DEBUG, R"(\[main:[0-9]+\] process loop start)");
    expectRecord(LOG_DEBUG, R"(TRACE \[main:[0-9]+\] IDLING\.\.\.)");
    box.interrupt();
    expectRecord(LOG_WARNING, R"(\[main:[0-9]+\] Interrupt!)");
    expectRecord(LOG_WARNING, R"(\[main:[0-9]+\] REMOVE /tmp/bluetooth_rc_fw_version)");

    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    EXPECT_THAT(syslog.records(), Each(MatchesRegex(record("[0-9]+", ".*"))));
    EXPECT_THAT(box.log().records(), IsEmpty());
}

} // namespace

} // namespace kit
