// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace vexasim
{

/// Prints each event as one line and also passes it to a receiver, if there is one. Any thread.
class Narrator
{
public:
    explicit Narrator(bool quiet) : mQuiet(quiet) {}

    /// Null for none. Once this returns, the previous receiver is no longer called.
    void forwardTo(std::function<void(const std::string&)> receiver);

    void tell(const std::string& what);

    /// Prints `firstLine`, even if quiet, for scripts that read only one line; then the events so far.
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
