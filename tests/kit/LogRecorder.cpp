// SPDX-License-Identifier: MIT
#include "tests/kit/LogRecorder.h"

#include <cstdlib>
#include <glib.h>
#include <unistd.h>
#include <utility>

namespace kit
{

namespace
{

// The logger's greeting isn't tagged.
bool isTagged(const LogRecord& record)
{
    return !record.foreign && (!record.module.empty() || record.line > 0);
}

std::string lineOf(const LogRecord& record)
{
    if (!isTagged(record)) {
        return record.raw;
    }
    const std::string level(1, record.level);
    return record.module == "Bluez" ? level + " " + record.text
                                    : level + " [" + record.module + "] " + record.text;
}

LogPredicate is(const std::string& line)
{
    return [=](const LogRecord& record) { return lineOf(record) == line; };
}

} // namespace

LogRecorder& LogRecorder::instance()
{
    static LogRecorder& recorder = *new LogRecorder; // never destroyed: messages are logged at exit, too
    return recorder;
}

LogRecorder::LogRecorder()
{
    setenv("VEXA_LOG_LEVEL", "trace", 1);
    setenv("VEXA_LOG_USE_COLORS", "0", 1);
    // The C library lets a process replace the stream: without a pipe in between, the recorder has a record
    // as soon as the call that logs it returns.
    stderr = fopencookie(this, "w", {nullptr, write, nullptr, nullptr});
    setvbuf(stderr, nullptr, _IOLBF, BUFSIZ);
}

LogRecorder& LogRecorder::cleared()
{
    instance().clear();
    return instance();
}

ssize_t LogRecorder::write(void* recorder, const char* text, std::size_t size)
{
    static_cast<LogRecorder*>(recorder)->mLog.append({text, size});
    return ::write(STDERR_FILENO, text, size) < 0 ? 0 : static_cast<ssize_t>(size);
}

Lines LogRecorder::lines(const std::string& levels) const
{
    Lines wanted;
    for (const LogRecord& record : mLog.records()) {
        if (isTagged(record) && levels.find(record.level) != std::string::npos) {
            wanted.push_back(lineOf(record));
        }
    }
    return wanted;
}

Lines LogRecorder::linesOf(const std::string& module, const std::string& levels) const
{
    Lines wanted;
    for (const LogRecord& record : mLog.records()) {
        if (record.module == module && levels.find(record.level) != std::string::npos) {
            wanted.push_back(std::string(1, record.level) + " " + record.text);
        }
    }
    return wanted;
}

std::string LogRecorder::text() const
{
    std::string all;
    for (const LogRecord& record : mLog.records()) {
        all += record.raw + "\n";
    }
    return all;
}

std::size_t LogRecorder::count(const std::string& line) const
{
    return mLog.count(is(line));
}

bool LogRecorder::await(const std::string& line, std::size_t times) const
{
    return mLog.awaitCount(is(line), times);
}

bool LogRecorder::awaitBeginning(const std::string& beginning) const
{
    return mLog.awaitCount([&](const LogRecord& record) { return lineOf(record).rfind(beginning, 0) == 0; },
                           1);
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

} // namespace kit
