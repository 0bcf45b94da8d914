// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

/**
 * Reads what the process writes to `stderr`, line by line, as records of the log, and lets a test wait for
 * one. Everything goes on to standard error. The one instance is made before the first message, since the
 * logger reads its environment then, and lives until the process has ended.
 *
 * A record reads "E Not connected": the letter of the level and the text. One that wasn't logged by Bluez.cpp
 * carries its module, too: "E [STBThread] ...".
 */
class LogRecorder
{
public:
    static constexpr std::chrono::seconds kLimit{60};

    /// Sets every level and no colours, and takes over `stderr`.
    static LogRecorder& instance();

    void clear();
    /// The records of these levels since the last clear().
    Lines lines(const std::string& levels = "EWIDT") const;
    std::size_t count(const std::string& line) const;
    /// Waits until the record has been there `times` times; false if the limit passed first.
    bool await(const std::string& line, std::size_t times = 1) const;
    /// Waits for a record that begins so; false if the limit passed first.
    bool awaitBeginning(const std::string& beginning) const;

private:
    LogRecorder();
    static ssize_t write(void* recorder, const char* text, std::size_t size);
    void append(const char* text, std::size_t size);
    std::size_t countLocked(const std::string& line) const;

    mutable std::mutex mMutex;
    mutable std::condition_variable mNews;
    std::string mUnfinished;
    Lines mLines;
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
