// SPDX-License-Identifier: MIT
#include "STBLogger.h"

#include <array>
#include <atomic>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include <sys/time.h>
#include <syslog.h>

namespace
{

constexpr std::size_t kBufferSize = 1024; // of one message, its end mark included
constexpr int kTracePriority = 8;         // private: syslog has nothing below LOG_DEBUG
constexpr int kNoColor = -1;

struct LevelTraits {
    const char* name;
    const char* letter;
    int color; // of an SGR escape sequence
    int priority;
};

constexpr std::array<LevelTraits, 6> kLevels = {{
    {"NONE", "", kNoColor, LOG_NOTICE},
    {"ERROR", "E", 31, LOG_ERR},
    {"WARN", "W", 33, LOG_WARNING},
    {"INFO", "I", 34, LOG_INFO},
    {"DEBUG", "D", 0, LOG_DEBUG},
    {"TRACE", "T", 0, kTracePriority},
}};

bool isLevel(int level)
{
    return level >= 0 && level < static_cast<int>(kLevels.size());
}

// A level outside of the table is treated as the first one.
const LevelTraits& traitsOf(int level)
{
    return kLevels[isLevel(level) ? static_cast<std::size_t>(level) : 0];
}

const char* nameOf(int level)
{
    return isLevel(level) ? traitsOf(level).name : "";
}

// The base name of a source file without its extension.
std::string_view moduleOf(const char* file)
{
    std::string_view path(file != nullptr ? file : "");
    const std::size_t slash = path.rfind('/');
    const std::size_t start = slash == std::string_view::npos ? 0 : slash + 1;
    const std::size_t dot = path.rfind('.');
    if (dot == std::string_view::npos || dot < start) {
        return path.substr(start);
    }
    return path.substr(start, dot - start);
}

std::string upperCase(std::string text)
{
    for (char& letter : text) {
        letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    }
    return text;
}

const char* environment(const std::string& application, const char* suffix)
{
    return std::getenv((application + suffix).c_str());
}

bool meansYes(const char* value)
{
    return std::strcmp(value, "1") == 0 || std::strcmp(value, "y") == 0;
}

void writeColor(int code)
{
    constexpr int kEscape = 27;
    std::array<char, 16> sequence{};
    std::snprintf(sequence.data(), sequence.size(), "%c[%dm", kEscape, code);
    std::fputs(sequence.data(), stderr);
}

// One message under construction: what doesn't fit is cut without a mark.
class Line
{
public:
    void append(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list arguments;
        va_start(arguments, format);
        appendList(format, arguments);
        va_end(arguments);
    }

    void appendList(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)))
    {
        std::vsnprintf(_text.data() + _length, _text.size() - _length, format, arguments);
        _length += std::strlen(_text.data() + _length);
    }

    void appendTags(bool withThread, bool withLine, const char* module, int line)
    {
        if (withThread) {
            append("%p ", reinterpret_cast<void*>(pthread_self())); // NOLINT(performance-no-int-to-ptr)
        }
        if (withLine && line > 0) {
            append("[%s:%d] ", module, line);
        } else if (*module != '\0') {
            append("[%s] ", module);
        }
    }

    void dropNewline()
    {
        if (_length > 0 && _text[_length - 1] == '\n') {
            _text[--_length] = '\0';
        }
    }

    char* text() { return _text.data(); }

private:
    std::array<char, kBufferSize> _text{};
    std::size_t _length = 0;
};

int millisecondsOf(const timeval& time)
{
    return static_cast<int>(time.tv_usec / 1000);
}

// Kept: an empty line doesn't move the start. What stands behind it is not sent; an empty text goes instead.
void sendLines(int priority, char* text)
{
    char* start = text;
    char* position = text;
    for (; *position != '\0'; ++position) {
        if (*position != '\n') {
            continue;
        }
        *position = '\0';
        if (*start != '\0') {
            syslog(priority, "%s", start);
            start = position + 1;
        }
    }
    if (start < position) {
        syslog(priority, "%s", start);
    }
}

// While the process exits, other threads still log: the event thread after a second interrupt, and App, which
// is destroyed last. These two outlive every static object, since they need no destruction.
std::atomic<bool> loggersGone{false};
std::atomic<int> messagesInFlight{0};

// Counts a message before it looks at loggersGone. The registry does the reverse, so that one sees the other.
class MessageInFlight
{
public:
    MessageInFlight() { ++messagesInFlight; }
    ~MessageInFlight() { --messagesInFlight; }
    MessageInFlight(const MessageInFlight&) = delete;
    MessageInFlight& operator=(const MessageInFlight&) = delete;
};

} // namespace

/// The registry: owns the logger of each application.
class STBLoggerContainer
{
public:
    STBLoggerContainer() = default;
    ~STBLoggerContainer();
    STBLoggerContainer(const STBLoggerContainer&) = delete;
    STBLoggerContainer& operator=(const STBLoggerContainer&) = delete;

    STBLogger& loggerFor(STBLoggerLogParams* params);

private:
    static pthread_helper::mutex& mutex();

    std::map<std::string, STBLogger*> _loggers;
};

// Never destroyed, as STBLogger::staticMutex: destroying a lock that another thread holds is fatal.
pthread_helper::mutex& STBLoggerContainer::mutex()
{
    static auto& mutex = *new pthread_helper::mutex;
    return mutex;
}

STBLoggerContainer::~STBLoggerContainer()
{
    loggersGone = true;
    const pthread_helper::scoped_lock lock(mutex());
    const bool inUse = messagesInFlight != 0; // then the loggers are left to the end of the process
    for (const auto& [application, logger] : _loggers) {
        if (logger->_useSyslog) {
            closelog();
        }
        if (!inUse) {
            delete logger;
        }
    }
}

STBLogger& STBLoggerContainer::loggerFor(STBLoggerLogParams* params)
{
    const pthread_helper::scoped_lock lock(mutex());
    STBLogger*& logger = _loggers[params->application];
    if (logger == nullptr) {
        logger = new STBLogger(params); // greets under the lock
    }
    return *logger;
}

void STBLogger_log(STBLoggerLogParams* params, const char* module, STBLogLevel level, int line,
                   const char* file, const char* format, ...)
{
    std::string tag(module);
    if (tag.empty()) {
        tag = moduleOf(file);
    }
    const MessageInFlight inFlight;
    if (loggersGone) {
        return;
    }
    static const std::unique_ptr<STBLoggerContainer> container(new STBLoggerContainer);
    STBLogger& logger = container->loggerFor(params);
    if (!logger.wants(tag, level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    logger.write(tag.c_str(), level, line, file, format, arguments);
    va_end(arguments);
}

STBLogger::STBLogger(STBLoggerLogParams* params)
    : _lineNumbers(params->lineNumbers),
      _threadId(params->threadId),
      _useColors(params->useColors),
      _prefix(params->prefix)
{
    const std::string application(params->application);
    const char* useSyslog = environment(application, "_LOG_SYSLOG");
    if (useSyslog != nullptr && meansYes(useSyslog)) {
        _useSyslog = true;
        openlog(nullptr, LOG_PID | LOG_CONS, LOG_USER); // the C library's own name for the program
    }
    readLevel(application, params->defaultLevel);
    readModules(application, *params);
    readFlags(application);
    log("", STBLogLevel_eInfo, 0, nullptr,
        "Logger for application \"%s\" was successfully initialized (level:%s)", application.c_str(),
        nameOf(_level));
    for (const auto& [module, level] : _moduleLevels) {
        log("", STBLogLevel_eDebug, __LINE__, __FILE__, "Setting loglevel for module '%s' to '%s'",
            module.c_str(), nameOf(level));
    }
}

void STBLogger::readLevel(const std::string& application, const char* defaultLevel)
{
    const char* fromEnvironment = environment(application, "_LOG_LEVEL");
    const std::string text = upperCase(fromEnvironment != nullptr ? fromEnvironment : defaultLevel);
    for (const STBLogLevel level :
         {STBLogLevel_eTrace, STBLogLevel_eDebug, STBLogLevel_eError, STBLogLevel_eWarn, STBLogLevel_eInfo}) {
        if (text == nameOf(level)) {
            _level = level;
            return;
        }
    }
    _level = STBLogLevel_eInfo;
    log("", STBLogLevel_eError, __LINE__, __FILE__, "Unknown log level: '%s', setting to '%s'", text.c_str(),
        nameOf(_level));
}

void STBLogger::readModules(const std::string& application, const STBLoggerLogParams& params)
{
    struct List {
        const char* suffix;
        const char* modules;
        STBLogLevel level;
    };
    // A later list wins over an earlier one.
    const std::array<List, 4> lists = {{
        {"_LOG_WARN_MODULES", params.warnModules, STBLogLevel_eWarn},
        {"_LOG_INFO_MODULES", params.infoModules, STBLogLevel_eInfo},
        {"_LOG_DEBUG_MODULES", params.debugModules, STBLogLevel_eDebug},
        {"_LOG_TRACE_MODULES", params.traceModules, STBLogLevel_eTrace},
    }};
    for (const List& list : lists) {
        const char* fromEnvironment = environment(application, list.suffix);
        const char* modules = fromEnvironment != nullptr ? fromEnvironment : list.modules;
        if (modules != nullptr) {
            setModulesSTBLogLevel(modules, list.level);
        }
    }
}

void STBLogger::readFlags(const std::string& application)
{
    struct Flag {
        const char* suffix;
        bool& value;
    };
    for (const Flag& flag : {Flag{"_LOG_LINENUM", _lineNumbers}, Flag{"_LOG_THREAD_ID", _threadId},
                             Flag{"_LOG_USE_COLORS", _useColors}}) {
        const char* fromEnvironment = environment(application, flag.suffix);
        if (fromEnvironment != nullptr) {
            flag.value = meansYes(fromEnvironment);
        }
    }
}

void STBLogger::setModulesSTBLogLevel(const std::string& modules, STBLogLevel level)
{
    std::size_t start = modules.find_first_not_of(',');
    while (start != std::string::npos) {
        const std::size_t end = modules.find(',', start);
        _moduleLevels[modules.substr(start, end - start)] = level;
        start = modules.find_first_not_of(',', end);
    }
}

bool STBLogger::wants(const std::string& module, STBLogLevel level) const
{
    const auto found = _moduleLevels.find(module);
    const STBLogLevel effective = found != _moduleLevels.end() ? found->second : _level;
    return effective != STBLogLevel_eNone && level <= effective;
}

void STBLogger::log(const char* module, STBLogLevel level, int line, const char* file, const char* format,
                    ...)
{
    if (!wants(module, level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    write(module, level, line, file, format, arguments);
    va_end(arguments);
}

// Never destroyed: see STBLoggerContainer::mutex.
pthread_helper::mutex& STBLogger::staticMutex()
{
    static auto& mutex = *new pthread_helper::mutex;
    return mutex;
}

void STBLogger::write(const char* module, STBLogLevel level, int line, const char* file, const char* format,
                      va_list arguments)
{
    const LevelTraits& traits = traitsOf(level);
    if (_useSyslog) {
        log_send_syslog(module, traits.priority, line, file, format, arguments);
        return;
    }
    // Kept: outside of the lock, so on a busy system a colour can land ahead of another thread's line.
    if (_useColors && traits.color != kNoColor) {
        writeColor(traits.color);
    }
    const pthread_helper::scoped_lock lock(staticMutex());
    log_print(module, traits.letter, line, file, format, arguments);
    if (_useColors) {
        writeColor(0);
    }
}

void STBLogger::log_print(const char* module, const char* letter, int line, const char* /*file*/,
                          const char* format, va_list arguments)
{
    Line text;
    if (!_prefix.empty()) {
        text.append("%s", _prefix.c_str());
    }
    timeval now{};
    gettimeofday(&now, nullptr);
    std::array<char, 16> time{};
    std::strftime(time.data(), time.size(), "%H:%M:%S", std::localtime(&now.tv_sec));
    text.append("%s.%03d %s ", time.data(), millisecondsOf(now), letter);
    text.appendTags(_threadId, _lineNumbers, module, line);
    text.appendList(format, arguments);
    text.dropNewline();
    std::fprintf(stderr, "%s\n", text.text());
    std::fflush(stderr);
}

void STBLogger::log_send_syslog(const char* module, int priority, int line, const char* /*file*/,
                                const char* format, va_list arguments)
{
    Line text;
    timeval now{};
    gettimeofday(&now, nullptr);
    text.append(".%03d ", millisecondsOf(now));
    if (priority == kTracePriority) {
        text.append("TRACE ");
        priority = LOG_DEBUG;
    }
    text.appendTags(_threadId, _lineNumbers, module, line);
    text.appendList(format, arguments);
    text.dropNewline();
    sendLines(priority, text.text());
}
