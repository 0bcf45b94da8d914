// SPDX-License-Identifier: MIT
#include "tests/library/STBLoggerChild.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <sys/time.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

// The linker sends the library's calls of these functions here (--wrap).
int realMutexLock(pthread_mutex_t* mutex) __asm__("__real_pthread_mutex_lock");
int realMutexUnlock(pthread_mutex_t* mutex) __asm__("__real_pthread_mutex_unlock");
int realGettimeofday(timeval* now, void* zone) __asm__("__real_gettimeofday");
int realFputs(const char* text, FILE* stream) __asm__("__real_fputs");
int wrappedMutexLock(pthread_mutex_t* mutex) __asm__("__wrap_pthread_mutex_lock");
int wrappedMutexUnlock(pthread_mutex_t* mutex) __asm__("__wrap_pthread_mutex_unlock");
int wrappedGettimeofday(timeval* now, void* zone) __asm__("__wrap_gettimeofday");
int wrappedFputs(const char* text, FILE* stream) __asm__("__wrap_fputs");
void wrappedOpenlog(const char* identity, int options, int facility) __asm__("__wrap_openlog");
void wrappedCloselog() __asm__("__wrap_closelog");
void wrappedSyslog(int priority, const char* format, ...) __asm__("__wrap_syslog");
void wrappedSyslogChk(int priority, int flag, const char* format, ...) __asm__("__wrap___syslog_chk");

void (*onStep)(const std::string& step) = nullptr;

namespace
{

bool clockStands = false;

void tell(const std::string& step)
{
    if (onStep != nullptr) {
        onStep(step);
    }
}

void recordSyslog(int priority, const char* format, va_list arguments)
{
    tell("syslog");
    const char* text = va_arg(arguments, const char*);
    dprintf(STDOUT_FILENO, "syslog %d %s <%s>\n", priority, format, text);
}

std::string nameOf(const void* lock)
{
    static std::map<const void*, std::string> names;
    return names.try_emplace(lock, std::string(1, static_cast<char>('A' + names.size()))).first->second;
}

} // namespace

int wrappedMutexLock(pthread_mutex_t* mutex)
{
    if (onStep == nullptr) {
        return realMutexLock(mutex);
    }
    tell("before lock " + nameOf(mutex));
    const int result = realMutexLock(mutex);
    tell("lock " + nameOf(mutex));
    return result;
}

int wrappedMutexUnlock(pthread_mutex_t* mutex)
{
    if (onStep == nullptr) {
        return realMutexUnlock(mutex);
    }
    tell("unlock " + nameOf(mutex));
    const int result = realMutexUnlock(mutex);
    tell("after unlock " + nameOf(mutex));
    return result;
}

// 12:34:56.789999 UTC
int wrappedGettimeofday(timeval* now, void* zone)
{
    tell("clock");
    if (!clockStands) {
        return realGettimeofday(now, zone);
    }
    now->tv_sec = 12 * 3600 + 34 * 60 + 56;
    now->tv_usec = 789999;
    return 0;
}

int wrappedFputs(const char* text, FILE* stream)
{
    if (stream == stderr && onStep != nullptr) {
        tell(std::string("write ") + (text + 1));
    }
    return realFputs(text, stream);
}

void wrappedOpenlog(const char* identity, int options, int facility)
{
    dprintf(STDOUT_FILENO, "openlog %s %d %d\n", identity != nullptr ? identity : "null", options, facility);
}

void wrappedCloselog()
{
    dprintf(STDOUT_FILENO, "closelog\n");
}

void wrappedSyslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSyslog(priority, format, arguments);
    va_end(arguments);
}

void wrappedSyslogChk(int priority, int /*flag*/, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    recordSyslog(priority, format, arguments);
    va_end(arguments);
}

STBLoggerLogParams daemonParams()
{
    STBLoggerLogParams params{};
    params.prefix = "    ";
    params.application = "VEXA";
    params.defaultLevel = "debug";
    params.lineNumbers = true;
    params.useColors = true;
    return params;
}

void say(const Message& message, STBLoggerLogParams params)
{
    STBLogger_log(&params, "", message.level, message.line, message.file.c_str(), "%s", message.text.c_str());
}

void say(STBLogLevel level, const std::string& text)
{
    say({level, text});
}

kit::Outcome withEnvironment(const Environment& environment, const std::function<void()>& body)
{
    return kit::inChild([&] {
        for (const char* suffix : {"SYSLOG", "LEVEL", "LINENUM", "THREAD_ID", "USE_COLORS", "WARN_MODULES",
                                   "INFO_MODULES", "DEBUG_MODULES", "TRACE_MODULES"}) {
            unsetenv((std::string("VEXA_LOG_") + suffix).c_str());
        }
        for (const auto& [name, value] : environment) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        setenv("TZ", "UTC", 1);
        clockStands = true;
        body();
    });
}

Environment plain(Environment more)
{
    more.insert({"VEXA_LOG_USE_COLORS", "0"});
    return more;
}

Environment onSyslogOnly(Environment more)
{
    more.insert({"VEXA_LOG_SYSLOG", "1"});
    return more;
}

std::vector<std::string> told(const kit::Outcome& outcome)
{
    std::vector<std::string> texts;
    for (const std::string& line : kit::linesOf(outcome.errors)) {
        EXPECT_THAT(line, StartsWith(kHead));
        texts.push_back(line.substr(std::min(line.size(), std::strlen(kHead))));
    }
    return texts;
}

std::vector<std::string> logged(const Environment& more, const std::function<void()>& body)
{
    const kit::Outcome outcome = withEnvironment(plain(more), body);
    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    auto texts = told(outcome);
    EXPECT_THAT(texts, Not(IsEmpty()));
    if (!texts.empty()) {
        texts.erase(texts.begin());
    }
    return texts;
}

std::vector<std::string> sent(const Environment& more, const std::function<void()>& body)
{
    const kit::Outcome outcome = withEnvironment(onSyslogOnly(more), body);
    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_EQ("", outcome.errors);
    auto records = kit::linesOf(outcome.output);
    EXPECT_GE(records.size(), 3U) << outcome;
    if (records.size() < 3) {
        return records;
    }
    EXPECT_THAT(records[1], HasSubstr("Logger for application"));
    EXPECT_EQ("closelog", records.back());
    return {records.begin() + 2, records.end() - 1};
}
