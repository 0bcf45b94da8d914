// SPDX-License-Identifier: MIT
#include "tests/kit/ChildProcess.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/kit/Handle.h"
#include "tests/kit/Limits.h"

namespace kit
{

namespace
{

constexpr int kExpectationFailed = 99;
constexpr int kNotStarted = 127;
constexpr auto kChildLimit = std::chrono::duration_cast<std::chrono::seconds>(2 * kPatience);

/// The end of the text, as much as fits on a screen.
std::string endOf(const std::string& text)
{
    constexpr std::size_t kShown = 4000;
    return text.size() <= kShown ? text : "...\n" + text.substr(text.size() - kShown);
}

/// Runs `body`, which never returns, in a child process and collects what it wrote.
Outcome outcomeOf(const std::function<void()>& body)
{
    const Handle output(memfd_create("output", MFD_CLOEXEC));
    const Handle errors(memfd_create("errors", MFD_CLOEXEC));
    std::fflush(nullptr); // or the child would write the parent's buffered output, too
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(output.get(), STDOUT_FILENO);
        dup2(errors.get(), STDERR_FILENO);
        body();
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return {Exit::of(status), contentOf(output.get()), contentOf(errors.get())};
}

} // namespace

Exit Exit::of(int waitStatus)
{
    return WIFEXITED(waitStatus) ? with(WEXITSTATUS(waitStatus)) : by(WTERMSIG(waitStatus));
}

std::ostream& operator<<(std::ostream& stream, const Exit& exit)
{
    if (exit.status) {
        return stream << "status " << *exit.status;
    }
    return stream << "signal " << exit.signal.value_or(0);
}

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome)
{
    return stream << "ended by " << outcome.exit << "\n-- standard output:\n"
                  << endOf(outcome.output) << "-- standard error:\n"
                  << endOf(outcome.errors) << "--\n";
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string contentOf(int descriptor)
{
    std::string text;
    std::array<char, 4096> piece{};
    for (ssize_t size = 0;
         (size = pread(descriptor, piece.data(), piece.size(), static_cast<off_t>(text.size()))) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(size));
    }
    return text;
}

Outcome inChild(const std::function<void()>& body)
{
    return outcomeOf([&] {
        alarm(static_cast<unsigned>(kChildLimit.count()));
        body();
        std::exit(testing::Test::HasFailure() ? kExpectationFailed : EXIT_SUCCESS);
    });
}

Outcome runProgram(std::vector<std::string> command)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (auto& word : command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    return outcomeOf([&] {
        execvp(arguments[0], arguments.data());
        _exit(kNotStarted);
    });
}

} // namespace kit
