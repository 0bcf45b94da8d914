// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace vexasim
{

/// Prints what happens, one line each, and passes it on to one more receiver. Any thread.
class Narrator
{
public:
    explicit Narrator(bool quiet) : mQuiet(quiet) {}

    /// Null for nobody. After the return the earlier receiver isn't called any more.
    void forwardTo(std::function<void(const std::string&)> receiver);

    void tell(const std::string& what);

    /// Prints a line of its own before all others, even if quiet, for scripts that read one line and go on;
    /// then what has happened so far.
    void begin(const std::string& firstLine);

private:
    static void print(const std::string& what);

    bool mQuiet;
    std::mutex mMutex;
    bool mBegun = false;
    std::vector<std::string> mHeld;
    std::function<void(const std::string&)> mReceiver;
};

} // namespace vexasim
