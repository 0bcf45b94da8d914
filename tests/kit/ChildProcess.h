// SPDX-License-Identifier: MIT
#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

/// How a child process ended, and what it wrote.
struct Outcome {
    int status = 0;     ///< as waitpid gives it
    std::string output; ///< standard output
    std::string errors; ///< standard error

    bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    bool killedBy(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }

    friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
    {
        if (WIFSIGNALED(outcome.status)) {
            out << "killed by signal " << WTERMSIG(outcome.status);
        } else {
            out << "ended with status " << WEXITSTATUS(outcome.status);
        }
        return out << "\n-- standard output:\n"
                   << endOf(outcome.output) << "-- standard error:\n"
                   << endOf(outcome.errors) << "--\n";
    }

    /// What fits on a screen.
    static std::string endOf(const std::string& text)
    {
        constexpr std::size_t kShown = 4000;
        return text.size() <= kShown ? text : "...\n" + text.substr(text.size() - kShown);
    }
};

/// The text's lines, without their ends.
inline std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// Everything in the file behind a descriptor, which it closes.
inline std::string takeContent(int descriptor)
{
    std::string text;
    char buffer[4096];
    for (ssize_t size = 0;
         (size = pread(descriptor, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
        text.append(buffer, static_cast<std::size_t>(size));
    }
    close(descriptor);
    return text;
}

/// Runs `body` in a child of its own and then the exit handlers there: for what can be done once in a
/// process, or ends it. A failed expectation within the child gives status 99 and its text on standard
/// output. Standard output is a file and so buffered; the child is ended after a minute.
inline Outcome inChild(const std::function<void()>& body)
{
    constexpr unsigned int kLimitSeconds = 60;
    constexpr int kExpectationFailed = 99;
    const int output = memfd_create("output", 0);
    const int errors = memfd_create("errors", 0);
    std::fflush(nullptr); // what is buffered is the parent's to write
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(kLimitSeconds);
        dup2(output, STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        body();
        std::exit(testing::Test::HasFailure() ? kExpectationFailed : EXIT_SUCCESS);
    }
    Outcome outcome;
    EXPECT_EQ(child, waitpid(child, &outcome.status, 0));
    outcome.output = takeContent(output);
    outcome.errors = takeContent(errors);
    return outcome;
}
