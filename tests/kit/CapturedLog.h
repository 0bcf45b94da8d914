// SPDX-License-Identifier: MIT
#pragma once

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

/// Takes what goes to standard error into memory, from construction to
/// destruction, and reads it as lines of the log. Make one before the process
/// logs for the first time: it also sets the logger to every level, no colours.
class CapturedLog
{
public:
    CapturedLog()
    {
        setenv("VEXA_LOG_LEVEL", "TRACE", 1);
        setenv("VEXA_LOG_USE_COLORS", "0", 1);
        std::fflush(stderr);
        if (mMemory < 0 || mStandardError < 0 || dup2(mMemory, STDERR_FILENO) < 0) {
            throw std::runtime_error("can't redirect standard error");
        }
    }
    ~CapturedLog()
    {
        std::fflush(stderr);
        const std::string all = text();
        dup2(mStandardError, STDERR_FILENO);
        std::fputs(all.c_str(), stderr); // for the reader of a failed test
        close(mStandardError);
        close(mMemory);
    }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    /// Everything since construction.
    std::string text() const
    {
        std::string all;
        char piece[4096];
        for (ssize_t got = 0;
             (got = pread(mMemory, piece, sizeof piece, static_cast<off_t>(all.size()))) > 0;) {
            all.append(piece, static_cast<std::size_t>(got));
        }
        return all;
    }

    /// "E the message" for each line of that module, in order.
    std::vector<std::string> linesOf(const std::string& module) const
    {
        static const std::regex kLine{R"(^    \d\d:\d\d:\d\d\.\d{3} (.) \[([^\]:]+):\d+\] (.*)$)"};
        std::vector<std::string> lines;
        std::istringstream stream{text()};
        std::smatch match;
        for (std::string line; std::getline(stream, line);) {
            if (std::regex_match(line, match, kLine) && match[2] == module) {
                lines.push_back(match[1].str() + " " + match[3].str());
            }
        }
        return lines;
    }

    /// Those of linesOf with one of the level letters.
    std::vector<std::string> linesOf(const std::string& module, const std::string& levels) const
    {
        std::vector<std::string> lines;
        for (const auto& line : linesOf(module)) {
            if (levels.find(line[0]) != std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }

private:
    int mMemory = memfd_create("log", MFD_CLOEXEC);
    int mStandardError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
};
