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
    bool foreign = false; ///< not the daemon's logger's: a warning of GLib, a sanitizer's report
    std::string time;     ///< "12:34:56.789"
    Level level = NONE;
    std::string module; ///< "" without a tag
    int line = 0;       ///< 0 without one
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

/// The lines of a log as they come. Every method may be called on any thread.
class Log
{
public:
    /// Its owner appends to it.
    Log() = default;
    /// Reads the log on a thread of its own until the program has closed its side.
    explicit Log(Handle source);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    void append(std::string_view text);

    /// Waits for a record behind the one that was awaited last: a test that awaits one record after the other
    /// proves their order.
    bool await(const LogPredicate& predicate, std::chrono::milliseconds limit = kPatience);
    /// Waits until there are `count` such records in the whole log; moves nothing.
    bool awaitCount(const LogPredicate& predicate, std::size_t count,
                    std::chrono::milliseconds limit = kPatience) const;
    /// Waits for the program to close its side.
    bool awaitEnd(std::chrono::milliseconds limit = kPatience) const;
    /// Waits for the line behind the one that was awaited last, and returns it; nothing at the log's end.
    std::optional<std::string> next();

    /// Nothing is read while the lock lives, so the program comes to wait for its reader. Its holder may ask
    /// this object nothing meanwhile.
    std::unique_lock<std::mutex> pause() { return std::unique_lock<std::mutex>(mMutex); }

    // These first see to it that all that the program has written so far is read.

    /// Awaits what comes from now on; what came is passed over.
    void skip();
    /// Forgets what came.
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
    std::string mLine; ///< begun, not ended
    std::vector<LogRecord> mRecords;
    std::size_t mCursor = 0;
    bool mEnded = false;
    std::thread mThread;
};

} // namespace kit
