// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/kit/Handle.h"
#include "tests/kit/Limits.h"

namespace kit
{

/// The letters of the log's levels. NONE is a record without a letter.
enum Level : char { NONE = ' ', ERROR = 'E', WARN = 'W', INFO = 'I', DEBUG = 'D', TRACE = 'T' };

/// One line of a program's output.
struct LogRecord {
    std::chrono::steady_clock::time_point arrival;
    bool foreign = false; ///< not from the daemon's logger: a warning of GLib, a sanitizer's report
    std::string time;     ///< "12:34:56.789"
    Level level = NONE;
    std::string module; ///< "" if there is no tag
    int line = 0;       ///< 0 if there is none
    std::string text;
    std::string raw; ///< the bytes since the last newline, colours included

    /// "W main REMOVE /tmp/bluetooth_status"; a foreign line is preceded by "! ".
    std::string summary() const;
};

/// Parses one line; `raw` has no newline.
LogRecord parseLogLine(const std::string& raw);

using LogPredicate = std::function<bool(const LogRecord&)>;

/// Matches level, module and the whole text.
LogPredicate isLog(Level level, const std::string& module, const std::string& text);
/// Matches level, module and the text's beginning.
LogPredicate beginsLog(Level level, const std::string& module, const std::string& beginning);
/// Matches a line of any kind that contains the words.
LogPredicate contains(const std::string& words);

/// The lines of a log as they arrive. Every method may be called on any thread.
class Log
{
public:
    /// A log that is filled by append().
    Log() = default;
    /// Reads the log on a thread of its own until the program has closed its side.
    explicit Log(Handle source);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    void append(std::string_view text);

    /// Waits for a record after the last one awaited, so a test that awaits several records in turn proves
    /// their order.
    bool await(const LogPredicate& predicate, std::chrono::milliseconds limit = kPatience);
    /// Waits until there are `count` such records in the whole log; doesn't move the position of await().
    bool awaitCount(const LogPredicate& predicate, std::size_t count,
                    std::chrono::milliseconds limit = kPatience) const;
    /// Waits for the program to close its side.
    bool awaitEnd(std::chrono::milliseconds limit = kPatience) const;
    /// Waits for the line after the one awaited last and returns it; empty at the log's end.
    std::optional<std::string> next();

    /// Nothing is read while the lock exists, so the program blocks when its output fills up. The holder must
    /// not call any other method meanwhile.
    std::unique_lock<std::mutex> pause() { return std::unique_lock<std::mutex>(mMutex); }

    // These first make sure that everything that the program has written so far is read.

    /// Skips the records so far: only later ones are awaited.
    void skip();
    /// Removes the records so far.
    void clear();
    std::vector<LogRecord> records() const;
    std::size_t count(const LogPredicate& predicate) const;
    std::string tail(std::size_t lines) const;

private:
    void read();
    bool readSome();
    void appendLocked(std::string_view text);
    void endLine();
    std::unique_lock<std::mutex> lockAfterReading() const;
    template <typename Condition>
    bool awaitLocked(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds limit,
                     Condition condition) const;

    Handle mSource;
    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::string mLine; ///< the unfinished line
    std::vector<LogRecord> mRecords;
    std::size_t mCursor = 0;
    bool mEnded = false;
    std::thread mThread;
};

} // namespace kit
