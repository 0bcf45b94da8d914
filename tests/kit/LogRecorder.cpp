// SPDX-License-Identifier: MIT
#include "tests/kit/LogRecorder.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

#include <unistd.h>

#include <glib.h>

namespace
{

// "    12:34:56.789 E [Bluez:123] text" becomes "E text"; a line that isn't one of the log stays as it is.
std::string recordFrom(const std::string& line)
{
    constexpr std::size_t kLevel = 17; // behind four blanks, the time and one blank
    constexpr std::size_t kTag = kLevel + 2;
    if (line.size() <= kTag || line.compare(0, 4, "    ") != 0 || line[kTag] != '[') {
        return line;
    }
    const std::size_t colon = line.find(':', kTag);
    const std::size_t end = line.find("] ", kTag);
    if (colon == std::string::npos || end == std::string::npos || colon > end) {
        return line;
    }
    const std::string module = line.substr(kTag + 1, colon - kTag - 1);
    const std::string text = line.substr(end + 2);
    const std::string level(1, line[kLevel]);
    return module == "Bluez" ? level + " " + text : level + " [" + module + "] " + text;
}

} // namespace

LogRecorder& LogRecorder::instance()
{
    static LogRecorder& recorder = *new LogRecorder; // never destroyed: there are messages at exit, too
    return recorder;
}

LogRecorder::LogRecorder()
{
    setenv("VEXA_LOG_LEVEL", "trace", 1);
    setenv("VEXA_LOG_USE_COLORS", "0", 1);
    // The C library lets a process replace the stream: the recorder then has a record as soon as the call
    // that logs it returns, with no pipe in between.
    stderr = fopencookie(this, "w", {nullptr, write, nullptr, nullptr});
    setvbuf(stderr, nullptr, _IOLBF, BUFSIZ);
}

ssize_t LogRecorder::write(void* recorder, const char* text, std::size_t size)
{
    static_cast<LogRecorder*>(recorder)->append(text, size);
    return ::write(STDERR_FILENO, text, size) < 0 ? 0 : static_cast<ssize_t>(size);
}

void LogRecorder::append(const char* text, std::size_t size)
{
    const std::lock_guard lock(mMutex);
    mUnfinished.append(text, size);
    std::size_t end = 0;
    while ((end = mUnfinished.find('\n')) != std::string::npos) {
        mLines.push_back(recordFrom(mUnfinished.substr(0, end)));
        mUnfinished.erase(0, end + 1);
    }
    mNews.notify_all();
}

void LogRecorder::clear()
{
    const std::lock_guard lock(mMutex);
    mLines.clear();
}

Lines LogRecorder::lines(const std::string& levels) const
{
    const std::lock_guard lock(mMutex);
    Lines wanted;
    std::copy_if(mLines.begin(), mLines.end(), std::back_inserter(wanted), [&](const std::string& line) {
        return line.size() > 1 && line[1] == ' ' && levels.find(line[0]) != std::string::npos;
    });
    return wanted;
}

std::size_t LogRecorder::count(const std::string& line) const
{
    const std::lock_guard lock(mMutex);
    return countLocked(line);
}

std::size_t LogRecorder::countLocked(const std::string& line) const
{
    return static_cast<std::size_t>(std::count(mLines.begin(), mLines.end(), line));
}

bool LogRecorder::await(const std::string& line, std::size_t times) const
{
    std::unique_lock lock(mMutex);
    return mNews.wait_for(lock, kLimit, [&] { return countLocked(line) >= times; });
}

bool LogRecorder::awaitBeginning(const std::string& beginning) const
{
    const auto beginsSo = [&](const std::string& line) { return line.rfind(beginning, 0) == 0; };
    std::unique_lock lock(mMutex);
    return mNews.wait_for(lock, kLimit, [&] { return std::any_of(mLines.begin(), mLines.end(), beginsSo); });
}

GlibMessages& GlibMessages::instance()
{
    static GlibMessages& messages = *new GlibMessages;
    return messages;
}

GlibMessages::GlibMessages()
{
    const GLogWriterFunc writer = [](GLogLevelFlags level, const GLogField* fields, gsize count,
                                     gpointer self) -> GLogWriterOutput {
        constexpr int kWorthATest = G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING;
        if ((level & kWorthATest) == 0) {
            return G_LOG_WRITER_HANDLED;
        }
        std::string domain;
        std::string text;
        for (gsize i = 0; i < count; ++i) {
            const std::string key = fields[i].key;
            const char* value = static_cast<const char*>(fields[i].value);
            domain = key == "GLIB_DOMAIN" ? value : domain;
            text = key == "MESSAGE" ? value : text;
        }
        const char* name = (level & G_LOG_LEVEL_WARNING) != 0 ? "-WARNING: " : "-CRITICAL: ";
        auto& messages = *static_cast<GlibMessages*>(self);
        const std::lock_guard lock(messages.mMutex);
        messages.mMessages.push_back(domain + name + text);
        return G_LOG_WRITER_HANDLED;
    };
    g_log_set_writer_func(writer, this, nullptr);
}

Lines GlibMessages::take()
{
    const std::lock_guard lock(mMutex);
    return std::exchange(mMessages, {});
}
