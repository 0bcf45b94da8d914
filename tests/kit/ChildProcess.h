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
    /// From the status that waitpid gives.
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
/// Includes the end of its output, as much as fits on a screen.
std::ostream& operator<<(std::ostream& stream, const Outcome& outcome);

/// The text's lines, without their newlines.
std::vector<std::string> linesOf(const std::string& text);

/// The whole content of the file behind a descriptor, whatever its position.
std::string contentOf(int descriptor);

/// Runs `body` and then the exit handlers in a child process: for code that can run only once in a process,
/// or that ends it. A failed expectation in the child gives status 99 and its text on standard output.
/// Standard output is a file and so is buffered; the child is killed after twice kPatience.
Outcome inChild(const std::function<void()>& body);

/// Runs a program with its arguments, found along PATH if it has no slash, and waits for its end.
Outcome runProgram(std::vector<std::string> command);

} // namespace kit
