// SPDX-License-Identifier: MIT
// The daemon's log goes to syslog when VEXA_LOG_SYSLOG says so.

#include "tests/kit/Box.h"

#include <gmock/gmock.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <array>
#include <cstdio>
#include <stdexcept>
#include <vector>

using namespace vexabox;
using ::testing::Each;
using ::testing::IsEmpty;

namespace
{

struct SyslogRecord {
    int priority = -1; ///< with the facility; -1 if it has another form than all have
    std::string program;
    pid_t pid = 0;
    std::string message; ///< behind the head that the C library puts before it
};

SyslogRecord parse(const std::string& raw)
{
    SyslogRecord record;
    record.message = raw;
    std::array<char, 64> program{};
    int priority = 0;
    int pid = 0;
    int head = 0;
    // The priority, fifteen characters of time, the program and its process.
    const int parts = std::sscanf(raw.c_str(), "<%d>%*15c %63[^ [][%d]: %n", &priority, program.data(), &pid,
                                  &head); // NOLINT(cert-err34-c): what is none is told by the count
    if (parts == 3 && head > 0) {
        record.priority = priority;
        record.program = program.data();
        record.pid = pid;
        record.message = raw.substr(static_cast<std::size_t>(head));
    }
    return record;
}

/// The system's end of syslog. The daemon waits for it when much is unread.
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

    /// Waits for a record with this priority, of the user's facility, whose message has this form.
    bool await(int priority, const std::string& form)
    {
        const auto matches = ::testing::MatchesRegex(form);
        while (readOne()) {
            const SyslogRecord& record = mRecords.back();
            if (record.priority == (LOG_USER | priority) && ::testing::Value(record.message, matches)) {
                return true;
            }
        }
        return false;
    }

    const std::vector<SyslogRecord>& records() const { return mRecords; }
    std::string describe() const
    {
        std::string text;
        for (const SyslogRecord& record : mRecords) {
            text += std::to_string(record.priority) + " " + record.message + "\n";
        }
        return text;
    }

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
        mRecords.push_back(parse(std::string(buffer.data(), static_cast<std::size_t>(size))));
        return true;
    }

    Handle mSocket;
    std::vector<SyslogRecord> mRecords;
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

    SyslogSocket syslog;
};

TEST_F(ABoxWithSyslog, HasTheWholeLogThereAndNoneOnStandardError)
{
    box.startDaemon();
    // The milliseconds, then the tag; the time and the program are the C library's.
    ASSERT_TRUE(syslog.await(LOG_INFO, R"(\.[0-9]{3} Logger for application "VEXA" was .*)"))
        << syslog.describe();
    ASSERT_TRUE(syslog.await(LOG_INFO, R"(\.[0-9]{3} \[main:[0-9]+\] Adapter powered)")) << syslog.describe();
    ASSERT_TRUE(syslog.await(LOG_DEBUG, R"(\.[0-9]{3} \[main:[0-9]+\] process loop start)"))
        << syslog.describe();
    ASSERT_TRUE(syslog.await(LOG_DEBUG, R"(\.[0-9]{3} TRACE \[main:[0-9]+\] IDLING\.\.\.)"))
        << syslog.describe();
    box.interrupt();
    ASSERT_TRUE(syslog.await(LOG_WARNING, R"(\.[0-9]{3} \[main:[0-9]+\] Interrupt!)")) << syslog.describe();
    ASSERT_TRUE(
        syslog.await(LOG_WARNING, R"(\.[0-9]{3} \[main:[0-9]+\] REMOVE /tmp/bluetooth_rc_fw_version)"))
        << syslog.describe();

    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    EXPECT_THAT(syslog.records(), Each(::testing::Field(&SyslogRecord::program, "vexabluetoohtd")));
    EXPECT_THAT(syslog.records(), Each(::testing::Field(&SyslogRecord::pid, box.program().pid())));
    EXPECT_THAT(box.log().records(), IsEmpty());
}

} // namespace
