// SPDX-License-Identifier: MIT
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tests/kit/Log.h"

namespace kit
{

using Lines = std::vector<std::string>;

/**
 * Stores what the process writes to `stderr` as log records, and lets a test wait for one. Everything is also
 * passed on to standard error. The only instance is created before the first message, when the logger reads
 * its environment, and is never destroyed.
 *
 * A record reads "E Not connected": the letter of the level and the text. One not logged by Bluez.cpp
 * includes its module, too: "E [STBThread] ...".
 */
class LogRecorder
{
public:
    /// Sets every level and no colours, and takes over `stderr`.
    static LogRecorder& instance();
    /// The same, cleared.
    static LogRecorder& cleared();

    void clear() { mLog.clear(); }
    /// The records of these levels since the last clear().
    Lines lines(const std::string& levels = "EWIDT") const;
    /// Those of one module, without its name.
    Lines linesOf(const std::string& module, const std::string& levels = "EWIDT") const;
    /// Everything since the last clear(), as it was written.
    std::string text() const;
    std::size_t count(const std::string& line) const;
    /// Waits until the record has occurred `times` times; false on timeout.
    bool await(const std::string& line, std::size_t times = 1) const;
    /// Waits for a record that begins with `beginning`; false on timeout.
    bool awaitBeginning(const std::string& beginning) const;

private:
    LogRecorder();
    static ssize_t write(void* recorder, const char* text, std::size_t size);

    Log mLog;
};

/**
 * Collects GLib's criticals and warnings instead of printing them, so that a test can expect those that the
 * design provokes. One instance per process.
 */
class GlibMessages
{
public:
    static GlibMessages& instance();

    /// Everything since the last take(), as "GLib-GIO-CRITICAL: text".
    Lines take();

private:
    GlibMessages();

    mutable std::mutex mMutex;
    Lines mMessages;
};

} // namespace kit
