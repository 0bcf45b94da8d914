// SPDX-License-Identifier: MIT
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

/// What became of a program.
struct ProgramResult {
    int status = -1;    ///< exit status; -1 if it was ended by a signal
    std::string output; ///< standard output
    std::string errors; ///< standard error
};

/// Runs a program with its arguments, found along PATH if it has no slash, and
/// waits for its end.
inline ProgramResult runProgram(std::vector<std::string> command)
{
    std::FILE* output = std::tmpfile();
    std::FILE* errors = std::tmpfile();
    if (output == nullptr || errors == nullptr) {
        throw std::runtime_error("can't make a temporary file");
    }
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (auto& word : command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);

    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(output), STDOUT_FILENO);
        dup2(fileno(errors), STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);

    const auto take = [](std::FILE* file) {
        std::string text;
        char piece[4096];
        std::rewind(file);
        for (std::size_t got = 0; (got = std::fread(piece, 1, sizeof piece, file)) > 0;) {
            text.append(piece, got);
        }
        std::fclose(file);
        return text;
    };
    ProgramResult result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.output = take(output);
    result.errors = take(errors);
    return result;
}
