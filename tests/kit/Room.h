// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/kit/Clock.h"
#include "tests/kit/FileWatch.h"
#include "tests/kit/Program.h"

namespace kit
{

/// An environment with its own /tmp, /sys/class and /run for one program. The test and the program see the
/// same files there. It is removed with the test, however that ends. A sanitizer report from the program
/// fails the case, however the program ends.
class Room
{
public:
    Room();
    virtual ~Room();
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    /// Starts a program that has the same path inside, such as /bin/sh.
    void start(const std::string& path, const std::vector<std::string>& arguments,
               const Environment& environment = {});
    /// Starts a program of the build, wherever it is, with the test's clock. When it has ended, another may
    /// be started.
    void startOwn(const std::string& path, const std::vector<std::string>& arguments = {},
                  const Environment& environment = {});

    /// Programs of the build started from now on are interrupted as soon as they have a handler for that,
    /// while they create their first objects, and use the real clock.
    void interruptEarly() { mInterruptedEarly = true; }

    /// In programs of the build started from now on, the main thread wins every race for a lock.
    void slowHandlers() { mHandlersSlow = true; }

    /// Programs started from now on have their own /dev with the few devices that every program needs.
    /// Returns its path outside.
    std::string makeDeviceFolder();

    Program& program() { return *mProgram; }
    Log& log() { return mProgram->log(); }
    /// What the program wrote to its standard output.
    Log& output() { return mProgram->output(); }
    FileWatch& files() { return *mFiles; }
    Clock& clock() { return *mClock; }

    // --- files under /tmp ---
    /// The path outside of a file in the program's /tmp.
    std::string file(const std::string& name) const;
    bool exists(const std::string& name) const;
    /// Its current content, including the newline; empty if it doesn't exist.
    std::optional<std::string> content(const std::string& name) const;
    void writeText(const std::string& name, const std::string& text) const;
    /// "pair" or "reset": creates the empty flag file.
    void setFlag(const std::string& flag) const;
    bool awaitFlagTaken(const std::string& flag) const;
    /// Requests an update of the remote with `image`, a path as the program sees it.
    void linkFirmware(const std::string& image) const;

    // --- the button ---
    /// Replaces the file atomically: the program sees either the old text or the new one.
    void writeAdc(const std::string& text) const;
    void removeAdc() const;
    /// The path outside of the button's file.
    std::string adcFile() const;
    void pressButton() const { writeAdc("12\n"); }
    void releaseButton() const { writeAdc("1023\n"); }

    // --- signals ---
    /// Sends SIGINT, whatever the program is doing.
    void interrupt();
    /// Sends SIGINT twice, the second before the main thread can continue. Does so while the main thread
    /// waits, because the daemon's logger would defer both.
    void interruptTwice();
    std::optional<Exit> awaitExit(std::chrono::milliseconds limit = kPatience);

    /// What was seen: the end of the log and the histories of the files.
    virtual std::string describe();

protected:
    /// The path outside of the program's /run.
    std::string runFolder() const { return mFolder + "/run"; }

private:
    std::string showSuppressions(const std::string& options) const;
    void launch(ProgramOptions options);

    std::string mFolder;
    Handle mJanitor; ///< closing it makes the janitor remove the folder
    pid_t mJanitorPid = -1;
    bool mInterruptedEarly = false;
    bool mHandlersSlow = false;
    bool mHasDeviceFolder = false;
    std::unique_ptr<Clock> mClock;
    std::unique_ptr<FileWatch> mFiles;
    std::unique_ptr<Program> mProgram;
};

} // namespace kit
