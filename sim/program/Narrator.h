// SPDX-License-Identifier: MIT
#pragma once

#include "sim/program/ControlObject.h"

#include <mutex>
#include <string>
#include <vector>

namespace vexasim
{

/// Prints what happens, one line each, and passes it to the control object
/// once there is one. Any thread.
class Narrator
{
public:
    explicit Narrator(bool quiet) : mQuiet(quiet) {}

    /// Null for nobody; the object must outlive the next call of this.
    void hear(ControlObject* control);

    void tell(const std::string& what);

    /// A line of its own first of all, even if quiet, for scripts that read one
    /// line and go on; then what has happened so far.
    void begin(const std::string& firstLine);

private:
    static void print(const std::string& what);

    bool mQuiet;
    std::mutex mMutex;
    bool mBegun = false;
    std::vector<std::string> mHeld;
    ControlObject* mControl = nullptr;
};

/// The narrator passes things on for as long as this lives.
class Hearing
{
public:
    Hearing(Narrator& narrator, ControlObject& control) : mNarrator(narrator) { mNarrator.hear(&control); }
    ~Hearing() { mNarrator.hear(nullptr); }
    Hearing(const Hearing&) = delete;
    Hearing& operator=(const Hearing&) = delete;

private:
    Narrator& mNarrator;
};

} // namespace vexasim
