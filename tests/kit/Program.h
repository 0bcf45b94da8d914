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

/// Variables in addition to those that every program gets.
using Environment = std::map<std::string, std::string>;

struct ProgramOptions {
    std::string path; ///< as seen inside the mount namespace
    std::vector<std::string> arguments;
    Environment environment;
    /// Bind mounts in this order: the path outside and the path inside.
    std::vector<std::pair<std::string, std::string>> mounts;
};

/// A program that runs alongside the test. It is killed when the thread that started it ends. It inherits
/// only the essential variables of the test's environment. A sanitizer report from it fails the case.
///
/// If it has mounts, it gets its own mount namespace. If the caller isn't allowed to create that alone, it
/// also gets a user namespace in which its user is mapped to itself, so that D-Bus recognises it.
///
/// Its standard output is a terminal, so that nothing is left in a buffer when it kills itself; its standard
/// error is a pipe.
class Program
{
public:
    /// Throws std::runtime_error that says which step failed and what to do about it.
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
    /// Sends the signal to the main thread only.
    void signalMainThread(int number) const;
    /// Waits until the program has installed a handler for the signal.
    bool awaitHandlerOf(int number, std::chrono::milliseconds limit = kPatience) const;
    /// Waits until the main thread waits in the kernel.
    bool awaitMainThreadAsleep(std::chrono::milliseconds limit = kPatience) const;
    /// Waits until the main thread waits on a condition or for a lock.
    bool awaitMainThreadOnCondition(std::chrono::milliseconds limit = kPatience) const;
    bool awaitMainThreadInUsleep(std::chrono::milliseconds limit = kPatience) const;
    /// Waits until the main thread is blocked writing to its standard error, whose pipe is full.
    bool awaitMainThreadInWrite(std::chrono::milliseconds limit = kPatience) const;
    /// The same, but after the main thread has gone through its loop at least once more.
    bool awaitMainThreadOnNextCondition(std::chrono::milliseconds limit = kPatience) const;
    bool awaitMainThreadInNextSleep(std::chrono::milliseconds limit = kPatience) const;
    /// Waits until the main thread has waited in the kernel `count` more times, for whatever reason.
    bool awaitMainThreadWaits(unsigned count, std::chrono::milliseconds limit = kPatience) const;
    /// Stops all its threads; returns when they have stopped.
    void freeze() const;
    void thaw() const;
    /// Waits for the end of the program and of its output. Empty if it still runs at the limit.
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
