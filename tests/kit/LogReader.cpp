// SPDX-License-Identifier: MIT
#include "tests/kit/LogReader.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <regex>

namespace vexabox
{

namespace
{

std::string withoutColors(const std::string& raw)
{
    static const std::regex color("\x1b"
                                  R"(\[[0-9]*m)");
    return std::regex_replace(raw, color, "");
}

} // namespace

std::string LogRecord::summary() const
{
    if (foreign) {
        return "! " + text;
    }
    return std::string(1, static_cast<char>(level)) + " " + (module.empty() ? "" : module + " ") + text;
}

LogRecord parseLogLine(const std::string& raw)
{
    // Four blanks, the time, the letter, the tag if there is one, the message.
    static const std::regex form(
        R"(    (\d\d:\d\d:\d\d\.\d{3}) ([EWIDT]?) (?:\[([^:\]]*)(?::(\d+))?\] )?(.*))");
    LogRecord record;
    record.arrival = std::chrono::steady_clock::now();
    record.raw = raw;
    const std::string plain = withoutColors(raw);
    std::smatch parts;
    if (!std::regex_match(plain, parts, form)) {
        record.foreign = true;
        record.text = plain;
        return record;
    }
    record.time = parts[1];
    record.level = parts[2].length() == 0 ? NONE : static_cast<Level>(parts[2].str().front());
    record.module = parts[3];
    record.line = parts[4].matched ? std::stoi(parts[4]) : 0;
    record.text = parts[5];
    return record;
}

LogPredicate isLog(Level level, const std::string& module, const std::string& text)
{
    return [=](const LogRecord& record) {
        return !record.foreign && record.level == level && record.module == module && record.text == text;
    };
}

LogPredicate beginsLog(Level level, const std::string& module, const std::string& beginning)
{
    return [=](const LogRecord& record) {
        return !record.foreign && record.level == level && record.module == module &&
               record.text.compare(0, beginning.size(), beginning) == 0;
    };
}

LogReader::LogReader(Handle source) : mSource(std::move(source)), mThread([this] { read(); }) {}

LogReader::~LogReader()
{
    mThread.join();
}

// Ends when the program has closed its side, which its end does.
void LogReader::read()
{
    pollfd watched{mSource.get(), POLLIN, 0};
    bool open = true;
    while (open) {
        poll(&watched, 1, -1);
        // Held from the pipe to the records: what isn't in the one is in the other.
        const std::lock_guard<std::mutex> lock(mMutex);
        open = readSome();
        mEnded = !open;
        mChanged.notify_all();
    }
}

bool LogReader::readSome()
{
    std::array<char, 4096> buffer{};
    const ssize_t size = ::read(mSource.get(), buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) {
        return true;
    }
    if (size <= 0) { // a terminal whose other side is closed answers EIO
        append();
        return false;
    }
    for (const char* c = buffer.data(); c != buffer.data() + size; ++c) {
        if (*c == '\n') {
            append();
        } else {
            mLine += *c;
        }
    }
    return true;
}

void LogReader::append()
{
    LogRecord record = parseLogLine(mLine);
    mLine.clear();
    if (!record.foreign || !record.text.empty()) { // GLib begins its warnings with an empty line
        mRecords.push_back(std::move(record));
    }
}

// Waits until all that the program has written is in the records.
std::unique_lock<std::mutex> LogReader::lockAfterReading() const
{
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait_for(lock, kPatience, [&] {
        int unread = 0;
        return mEnded || (ioctl(mSource.get(), FIONREAD, &unread) == 0 && unread == 0);
    });
    return lock;
}

template <typename Condition>
bool LogReader::awaitLocked(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds limit,
                            Condition condition) const
{
    bool found = false;
    mChanged.wait_for(lock, limit, [&] { return (found = condition()) || mEnded; });
    return found;
}

bool LogReader::await(const LogPredicate& predicate, std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mMutex);
    std::size_t next = mCursor;
    return awaitLocked(lock, limit, [&] {
        for (; next < mRecords.size(); ++next) {
            if (predicate(mRecords[next])) {
                mCursor = next + 1;
                return true;
            }
        }
        return false;
    });
}

bool LogReader::awaitCount(const LogPredicate& predicate, std::size_t count,
                           std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return awaitLocked(lock, limit, [&] {
        return static_cast<std::size_t>(std::count_if(mRecords.begin(), mRecords.end(), predicate)) >= count;
    });
}

bool LogReader::awaitEnd(std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, limit, [&] { return mEnded; });
}

void LogReader::skip()
{
    const auto lock = lockAfterReading();
    mCursor = mRecords.size();
}

std::vector<LogRecord> LogReader::records() const
{
    const auto lock = lockAfterReading();
    return mRecords;
}

std::size_t LogReader::count(const LogPredicate& predicate) const
{
    const auto lock = lockAfterReading();
    return static_cast<std::size_t>(std::count_if(mRecords.begin(), mRecords.end(), predicate));
}

std::string LogReader::tail(std::size_t lines) const
{
    const auto lock = lockAfterReading();
    std::string text;
    for (std::size_t i = mRecords.size() - std::min(lines, mRecords.size()); i < mRecords.size(); ++i) {
        text += "    " + (mRecords[i].foreign ? "            " : mRecords[i].time) + " " +
                mRecords[i].summary() + "\n";
    }
    return text;
}

} // namespace vexabox
