// SPDX-License-Identifier: MIT
#include "STBLogger.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

// The cost of a message for the code that logs it. Standard error is /dev/null here: a terminal or a pipe to
// a journal adds its own time to a written message, and none to a dropped one.

namespace
{

// Each application has a logger of its own, created by its first message.
STBLoggerLogParams params(const char* application, bool useColors)
{
    STBLoggerLogParams result{};
    result.prefix = "    ";
    result.application = application;
    result.defaultLevel = "debug";
    result.lineNumbers = true;
    result.useColors = useColors;
    return result;
}

void logTo(STBLoggerLogParams& record, STBLogLevel level)
{
    STBLogger_log(&record, "", level, __LINE__, "utils/vexabluetoohtd/main.cpp", "Device %s %s",
                  "/org/bluez/hci0/dev_00_11_22_33_44_55", "connected");
}

/// Redirects standard error to /dev/null for its lifetime.
class SilentErrors
{
public:
    SilentErrors() : mErrors(dup(STDERR_FILENO))
    {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }
    ~SilentErrors()
    {
        dup2(mErrors, STDERR_FILENO);
        close(mErrors);
    }
    SilentErrors(const SilentErrors&) = delete;
    SilentErrors& operator=(const SilentErrors&) = delete;

private:
    int mErrors;
};

void measure(benchmark::State& state, const char* application, bool useColors, STBLogLevel level)
{
    STBLoggerLogParams record = params(application, useColors);
    const SilentErrors silent;
    for (auto _ : state) {
        logTo(record, level);
    }
}

void droppedMessage(benchmark::State& state)
{
    measure(state, "DROPPED", false, STBLogLevel_eTrace);
}
BENCHMARK(droppedMessage);

void droppedMessageOfAModuleWithALevel(benchmark::State& state)
{
    setenv("QUIET_LOG_WARN_MODULES", "Bluez,RcuOtaUpdater,STBThread,main", 1);
    measure(state, "QUIET", false, STBLogLevel_eInfo);
}
BENCHMARK(droppedMessageOfAModuleWithALevel);

void writtenMessage(benchmark::State& state)
{
    measure(state, "PLAIN", false, STBLogLevel_eInfo);
}
BENCHMARK(writtenMessage);

void writtenMessageInColour(benchmark::State& state)
{
    measure(state, "COLOUR", true, STBLogLevel_eInfo);
}
BENCHMARK(writtenMessageInColour);

} // namespace
