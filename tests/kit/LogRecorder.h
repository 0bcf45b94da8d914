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
 * Records what the process writes to `stderr` as records of the log, and lets a test wait for one. Everything
 * goes on to standard error. The one instance is made before the first message, since the logger reads its
 * environment then, and lives until the process has ended.
 *
 * A record reads "E Not connected": the letter of the level and the text. One that wasn't logged by Bluez.cpp
 * carries its module, too: "E [STBThread] ...".
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
    /// Waits until the record has been there `times` times; false if the limit passed first.
    bool await(const std::string& line, std::size_t times = 1) const;
    /// Waits for a record that begins so; false if the limit passed first.
    bool awaitBeginning(const std::string& beginning) const;

private:
    LogRecorder();
    static ssize_t write(void* recorder, const char* text, std::size_t size);

    Log mLog;
};

/**
 * Takes what GLib has to say (its criticals and warnings) instead of printing it, so that a test can expect
 * the ones that the design provokes. One instance for the process.
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
