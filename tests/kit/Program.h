// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/Limits.h"
#include "tests/kit/Log.h"

namespace kit
{

/// Variables over those that every program gets.
using Environment = std::map<std::string, std::string>;

struct ProgramOptions {
    std::string path; ///< as seen inside, behind the mounts
    std::vector<std::string> arguments;
    Environment environment;
    /// Files and folders outside to be seen at other places inside, bound in this order.
    std::vector<std::pair<std::string, std::string>> mounts;
};

/// A program that runs beside the test. It dies with the thread that started it. Of the test's own
/// environment it gets only what every program needs. A sanitizer's report by it fails the case.
///
/// If it has mounts it gets a mount namespace of its own; a user namespace as well where the caller may not
/// make one without, with its own user mapped to itself so that D-Bus knows it.
///
/// Its standard output is a terminal, so that nothing is left in a buffer when it kills itself; its standard
/// error is a pipe.
class Program
{
public:
    /// Throws std::runtime_error that says which step failed, and what to do.
    explicit Program(const ProgramOptions& options);
    /// Kills it if it still runs.
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return mPid; }
    /// What it writes to its standard error.
    Log& log() { return *mLog; }
    /// What it writes to its standard output.
    Log& output() { return *mOutput; }

    /// Fills the pipe behind its standard error with foreign lines.
    void fillErrors() const;
    void signal(int number) const;
    /// To the main thread alone.
    void signalMainThread(int number) const;
    /// Until it has a handler of its own for the signal.
    bool awaitHandlerOf(int number, std::chrono::milliseconds limit = kPatience) const;
    /// Until the main thread waits in the kernel.
    bool awaitMainThreadAsleep(std::chrono::milliseconds limit = kPatience) const;
    /// Until the main thread waits on a condition, or for a lock.
    bool awaitMainThreadOnCondition(std::chrono::milliseconds limit = kPatience) const;
    bool awaitMainThreadInUsleep(std::chrono::milliseconds limit = kPatience) const;
    /// Until it waits for the reader of its standard error, which is full.
    bool awaitMainThreadInWrite(std::chrono::milliseconds limit = kPatience) const;
    /// As above, but anew: it has gone through its loop at least once since.
    bool awaitMainThreadOnNextCondition(std::chrono::milliseconds limit = kPatience) const;
    bool awaitMainThreadInNextSleep(std::chrono::milliseconds limit = kPatience) const;
    /// Until it has gone to wait in the kernel so often from now on, for whatever reason.
    bool awaitMainThreadWaits(unsigned count, std::chrono::milliseconds limit = kPatience) const;
    /// Stops every thread of it; returns when it stands.
    void freeze() const;
    void thaw() const;
    /// Behind everything that it wrote. Nothing if it still runs at the limit.
    std::optional<Exit> awaitExit(std::chrono::milliseconds limit = kPatience);
    bool running();

private:
    void start(const ProgramOptions& options);
    bool awaitDeath(std::chrono::milliseconds limit);
    bool handles(int number) const;
    char mainThreadState() const;
    long mainThreadCall() const;
    bool mainThreadIsInUsleep() const;
    bool mainThreadIsOnCondition() const;
    bool mainThreadIsInWrite() const;
    bool awaitAnew(bool (Program::*place)() const, std::chrono::milliseconds limit) const;
    long mainThreadWaits() const;

    pid_t mPid = -1;
    std::optional<Exit> mExit;
    std::unique_ptr<Log> mOutput;
    std::unique_ptr<Log> mLog;
};

} // namespace kit
