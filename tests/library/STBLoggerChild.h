// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "STBLogger.h"
#include "tests/kit/ChildProcess.h"

// Helpers of the logger's tests. A logger's settings are fixed by the first message of a process, so each
// test logs in a child of its own. There the clock stands still at 12:34:56.789999 UTC, and what goes to
// syslog becomes lines on standard output.

using Environment = std::map<std::string, std::string>;

constexpr const char* kHead = "    12:34:56.789 ";
constexpr const char* kReset = "\x1b[0m";
const std::string kGreeting = "Logger for application \"VEXA\" was successfully initialized (level:DEBUG)";

/// The record that the daemon passes.
STBLoggerLogParams daemonParams();

/// A message as the daemon logs it: from line 42 of the module's file.
struct Message {
    STBLogLevel level = STBLogLevel_eInfo;
    std::string text = "text";
    std::string file = "some/where/Bluez.cpp";
    int line = 42;
};

/// Logs with this record, the daemon's if none is given.
void say(const Message& message, STBLoggerLogParams params = daemonParams());
void say(STBLogLevel level, const std::string& text);

/// Runs `body` in a process that hasn't logged yet, with these variables of the logger and no others.
kit::Outcome withEnvironment(const Environment& environment, const std::function<void()>& body);

/// Adds to the variables that colours are off.
Environment plain(Environment more = {});

/// Adds to the variables that syslog is on.
Environment onSyslogOnly(Environment more = {});

/// The lines on standard error without the head that all of them have.
std::vector<std::string> told(const kit::Outcome& outcome);

/// What `body` logs after the greeting with colours off; expects that its process ends with status 0.
std::vector<std::string> logged(const Environment& more, const std::function<void()>& body);

/// The records that syslog gets after the greeting; expects that the process ends with status 0.
std::vector<std::string> sent(const Environment& more, const std::function<void()>& body);

// --- What happens inside the library's calls, in this process ---

/// Called with each step into and out of the calls: "before lock A", "lock A", "unlock A", "after unlock A",
/// "write [34m" for colours, "clock", "syslog". The locks are named in the order of their first use.
extern void (*onStep)(const std::string& step);
