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

/// A place with a /tmp, a /sys/class and a /run of its own for one program. Both sides see the same files in
/// them. It vanishes with the test, however that ends. A sanitizer's report by the program fails the case,
/// however the program ends.
class Room
{
public:
    Room();
    virtual ~Room();
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    /// Starts a program that lies at the same place inside, such as /bin/sh.
    void start(const std::string& path, const std::vector<std::string>& arguments,
               const Environment& environment = {});
    /// Starts a program of the build, wherever it lies, with the test's clock. After the end of one another
    /// may be started.
    void startOwn(const std::string& path, const std::vector<std::string>& arguments = {},
                  const Environment& environment = {});

    /// Programs of the build started from now on are interrupted as soon as they have a handler for that,
    /// while they make their first objects, and go by the true clock.
    void interruptEarly() { mInterruptedEarly = true; }

    /// In programs of the build started from now on the main thread wins every race for a lock.
    void slowHandlers() { mHandlersSlow = true; }

    /// Programs started from now on have a /dev of their own, with the few devices that everybody needs.
    /// Returns where it lies outside.
    std::string makeDeviceFolder();

    Program& program() { return *mProgram; }
    Log& log() { return mProgram->log(); }
    /// What the program wrote to its standard output.
    Log& output() { return mProgram->output(); }
    FileWatch& files() { return *mFiles; }
    Clock& clock() { return *mClock; }

    // --- files under /tmp ---
    /// Where a file under the program's /tmp lies outside.
    std::string file(const std::string& name) const;
    bool exists(const std::string& name) const;
    /// What it holds now, the newline included; nothing if it isn't there.
    std::optional<std::string> content(const std::string& name) const;
    void writeText(const std::string& name, const std::string& text) const;
    /// "pair" or "reset": makes the empty flag file.
    void setFlag(const std::string& flag) const;
    bool awaitFlagTaken(const std::string& flag) const;
    /// Offers `image`, a path as the program sees it, for the remote.
    void linkFirmware(const std::string& image) const;

    // --- the button ---
    /// The file is replaced in one go: the program sees the old text or the new one.
    void writeAdc(const std::string& text) const;
    void removeAdc() const;
    /// Where the button's file lies outside.
    std::string adcFile() const;
    void pressButton() const { writeAdc("12\n"); }
    void releaseButton() const { writeAdc("1023\n"); }

    // --- signals ---
    /// SIGINT, wherever the program stands.
    void interrupt();
    /// Two, of which the second comes before the main thread can go on; at a moment when it waits, since the
    /// daemon's logger puts both off to its end.
    void interruptTwice();
    std::optional<Exit> awaitExit(std::chrono::milliseconds limit = kPatience);

    /// What was seen: the end of the log, the courses of the files.
    virtual std::string describe();

protected:
    /// Outside path of the folder that is the program's /run.
    std::string runFolder() const { return mFolder + "/run"; }

private:
    std::string showSuppressions(const std::string& options) const;
    void launch(ProgramOptions options);

    std::string mFolder;
    Handle mJanitor; ///< when it closes, the janitor sweeps the folder away
    pid_t mJanitorPid = -1;
    bool mInterruptedEarly = false;
    bool mHandlersSlow = false;
    bool mHasDeviceFolder = false;
    std::unique_ptr<Clock> mClock;
    std::unique_ptr<FileWatch> mFiles;
    std::unique_ptr<Program> mProgram;
};

} // namespace kit
