// SPDX-License-Identifier: MIT
#include "tests/kit/Log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <regex>
#include <sys/ioctl.h>

namespace kit
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

LogPredicate contains(const std::string& words)
{
    return [=](const LogRecord& record) { return record.raw.find(words) != std::string::npos; };
}

Log::Log(Handle source) : mSource(std::move(source)), mThread([this] { read(); }) {}

Log::~Log()
{
    if (mThread.joinable()) {
        mThread.join();
    }
}

void Log::append(std::string_view text)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    appendLocked(text);
}

// Ends when the program closes its side or exits.
void Log::read()
{
    pollfd watched{mSource.get(), POLLIN, 0};
    bool open = true;
    while (open) {
        poll(&watched, 1, -1);
        // Held from reading the pipe to storing the records, so that all text is in one or the other.
        const std::lock_guard<std::mutex> lock(mMutex);
        open = readSome();
        mEnded = !open;
        mChanged.notify_all();
    }
}

bool Log::readSome()
{
    std::array<char, 4096> buffer{};
    const ssize_t size = ::read(mSource.get(), buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) {
        return true;
    }
    if (size <= 0) { // a terminal whose other side is closed answers EIO
        endLine();
        return false;
    }
    appendLocked({buffer.data(), static_cast<std::size_t>(size)});
    return true;
}

void Log::appendLocked(std::string_view text)
{
    for (const char c : text) {
        if (c == '\n') {
            endLine();
        } else {
            mLine += c;
        }
    }
    mChanged.notify_all();
}

void Log::endLine()
{
    LogRecord record = parseLogLine(mLine);
    mLine.clear();
    if (!record.foreign || !record.text.empty()) { // GLib's warnings begin with an empty line
        mRecords.push_back(std::move(record));
    }
}

// Waits until everything that the program has written is in the records.
std::unique_lock<std::mutex> Log::lockAfterReading() const
{
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait_for(lock, kPatience, [&] {
        int unread = 0;
        return mEnded || !mSource.valid() || (ioctl(mSource.get(), FIONREAD, &unread) == 0 && unread == 0);
    });
    return lock;
}

template <typename Condition>
bool Log::awaitLocked(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds limit,
                      Condition condition) const
{
    bool found = false;
    mChanged.wait_for(lock, limit, [&] { return (found = condition()) || mEnded; });
    return found;
}

bool Log::await(const LogPredicate& predicate, std::chrono::milliseconds limit)
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

bool Log::awaitCount(const LogPredicate& predicate, std::size_t count, std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return awaitLocked(lock, limit, [&] {
        return static_cast<std::size_t>(std::count_if(mRecords.begin(), mRecords.end(), predicate)) >= count;
    });
}

bool Log::awaitEnd(std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, limit, [&] { return mEnded; });
}

std::optional<std::string> Log::next()
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (!awaitLocked(lock, kPatience, [&] { return mCursor < mRecords.size(); })) {
        return {};
    }
    return mRecords[mCursor++].raw;
}

void Log::skip()
{
    const auto lock = lockAfterReading();
    mCursor = mRecords.size();
}

void Log::clear()
{
    const auto lock = lockAfterReading();
    mRecords.clear();
    mCursor = 0;
}

std::vector<LogRecord> Log::records() const
{
    const auto lock = lockAfterReading();
    return mRecords;
}

std::size_t Log::count(const LogPredicate& predicate) const
{
    const auto lock = lockAfterReading();
    return static_cast<std::size_t>(std::count_if(mRecords.begin(), mRecords.end(), predicate));
}

std::string Log::tail(std::size_t lines) const
{
    const auto lock = lockAfterReading();
    std::string text;
    for (std::size_t i = mRecords.size() - std::min(lines, mRecords.size()); i < mRecords.size(); ++i) {
        text += "    " + (mRecords[i].foreign ? "            " : mRecords[i].time) + " " +
                mRecords[i].summary() + "\n";
    }
    return text;
}

} // namespace kit
