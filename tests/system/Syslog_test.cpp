// SPDX-License-Identifier: MIT
// The daemon's log goes to syslog when VEXA_LOG_SYSLOG says so.

#include "box/Box.h"

#include <gmock/gmock.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <array>
#include <regex>
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
    static const std::regex form(R"(<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^ \[]+)\[(\d+)\]: ([^]*))");
    SyslogRecord record;
    record.message = raw;
    std::smatch parts;
    if (std::regex_match(raw, parts, form)) {
        record.priority = std::stoi(parts[1]);
        record.program = parts[2];
        record.pid = std::stoi(parts[3]);
        record.message = parts[4];
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
        const std::regex expression(form);
        while (readOne()) {
            const SyslogRecord& record = mRecords.back();
            if (record.priority == (LOG_USER | priority) && std::regex_match(record.message, expression)) {
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
    ASSERT_TRUE(syslog.await(LOG_INFO, R"(\.\d{3} Logger for application "VEXA" was .*)"))
        << syslog.describe();
    ASSERT_TRUE(syslog.await(LOG_INFO, R"(\.\d{3} \[main:\d+\] Adapter powered)")) << syslog.describe();
    ASSERT_TRUE(syslog.await(LOG_DEBUG, R"(\.\d{3} \[main:\d+\] process loop start)")) << syslog.describe();
    ASSERT_TRUE(syslog.await(LOG_DEBUG, R"(\.\d{3} TRACE \[main:\d+\] IDLING\.\.\.)")) << syslog.describe();
    box.interrupt();
    ASSERT_TRUE(syslog.await(LOG_WARNING, R"(\.\d{3} \[main:\d+\] Interrupt!)")) << syslog.describe();
    ASSERT_TRUE(syslog.await(LOG_WARNING, R"(\.\d{3} \[main:\d+\] REMOVE /tmp/bluetooth_rc_fw_version)"))
        << syslog.describe();

    EXPECT_EQ(box.awaitExit(), Exit::with(0));
    EXPECT_THAT(syslog.records(), Each(::testing::Field(&SyslogRecord::program, "vexabluetoohtd")));
    EXPECT_THAT(syslog.records(), Each(::testing::Field(&SyslogRecord::pid, box.program().pid())));
    EXPECT_THAT(box.log().records(), IsEmpty());
}

} // namespace
