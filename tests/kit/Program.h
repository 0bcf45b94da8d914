// SPDX-License-Identifier: MIT
#pragma once

#include "tests/kit/Handle.h"
#include "tests/kit/Limits.h"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vexabox
{

/// How a program ended: by its exit status or by a signal.
struct Exit {
    std::optional<int> status;
    std::optional<int> signal;

    static Exit with(int status) { return {status, {}}; }
    static Exit by(int signal) { return {{}, signal}; }
    bool operator==(const Exit& other) const { return status == other.status && signal == other.signal; }
};
std::ostream& operator<<(std::ostream& stream, const Exit& exit);

struct ProgramOptions {
    std::string path; ///< as seen inside, behind the mounts
    std::vector<std::string> arguments;
    std::vector<std::string> environment; ///< the whole of it, "NAME=value"
    /// Files and folders outside to be seen at other places inside, bound in this order.
    std::vector<std::pair<std::string, std::string>> mounts;
};

/// A program in a mount namespace of its own; in a user namespace as well where
/// the caller may not make one without, with its own user mapped to itself so
/// that D-Bus knows it. It dies with the thread that started it.
///
/// Its standard output is a terminal, so that nothing is left in a buffer when
/// it kills itself; its standard error is a pipe.
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
    /// The reading ends, for the one who asks first.
    Handle takeOutput() { return std::move(mOutput); }
    Handle takeErrors() { return std::move(mErrors); }

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
    /// Nothing if it still runs at the limit.
    std::optional<Exit> awaitExit(std::chrono::milliseconds limit = kPatience);
    bool running();

private:
    void start(const ProgramOptions& options);
    void readExit(int status);
    bool handles(int number) const;
    char mainThreadState() const;
    long mainThreadCall() const;
    bool mainThreadIsInUsleep() const;
    bool mainThreadIsOnCondition() const;
    bool mainThreadIsInWrite() const;
    bool awaitAnew(bool (Program::*place)() const, std::chrono::milliseconds limit) const;
    long mainThreadWaits() const;
    template <typename Condition>
    bool poll(std::chrono::milliseconds limit, Condition condition) const;

    pid_t mPid = -1;
    std::optional<Exit> mExit;
    Handle mOutput;
    Handle mErrors;
};

} // namespace vexabox
