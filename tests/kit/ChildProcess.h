// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace kit
{

/// How a program ended: by its exit status or by a signal.
struct Exit {
    std::optional<int> status;
    std::optional<int> signal;

    static Exit with(int status) { return {status, {}}; }
    static Exit by(int signal) { return {{}, signal}; }
    /// Of the status that waitpid gives.
    static Exit of(int waitStatus);
    bool operator==(const Exit& other) const { return status == other.status && signal == other.signal; }
};
std::ostream& operator<<(std::ostream& stream, const Exit& exit);

/// How a child process ended, and what it wrote.
struct Outcome {
    Exit exit;
    std::string output; ///< standard output
    std::string errors; ///< standard error

    bool exitedWith(int status) const { return exit == Exit::with(status); }
    bool killedBy(int signal) const { return exit == Exit::by(signal); }
};
/// With the end of what it wrote, as much as fits on a screen.
std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);

/// The text's lines, without their ends.
std::vector<std::string> linesOf(const std::string& text);

/// Everything in the file behind a descriptor, wherever that stands.
std::string contentOf(int descriptor);

/// Runs `body` in a child of its own and then the exit handlers there: for what can be done once in a
/// process, or ends it. A failed expectation within the child gives status 99 and its text on standard
/// output. Standard output is a file and so buffered; the child is ended after twice the patience.
Outcome inChild(const std::function<void()>& body);

/// Runs a program with its arguments, found along PATH if it has no slash, and waits for its end.
Outcome runProgram(std::vector<std::string> command);

} // namespace kit
