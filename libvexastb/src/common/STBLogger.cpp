// SPDX-License-Identifier: MIT
#include "STBLogger.h"

#include <array>
#include <atomic>
#include <cctype>
#include <csignal>
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

constexpr std::size_t kBufferSize = 1024; // of one message, with its terminating null
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

// One message under construction; whatever doesn't fit is cut off silently.
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
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers have started it
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

// Kept: an empty line doesn't advance the start. The text after it is not sent; an empty text is sent
// instead.
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

// Per thread, and shared with the handlers that interrupt it; constant-initialised, so that reading them
// allocates nothing. They hold how deeply the thread is nested in sections where a handler that logs must not
// run, and how often each signal has arrived there.
thread_local volatile std::sig_atomic_t deferralDepth = 0;
thread_local volatile std::sig_atomic_t anyDeferred = 0;
thread_local std::array<volatile std::sig_atomic_t, NSIG> deferredSignals{};

// A handler may interrupt between any two steps; it changes these variables only while the depth isn't 0.
void raiseDeferredSignals()
{
    anyDeferred = 0;
    for (int signal = 1; signal < NSIG; ++signal) {
        volatile std::sig_atomic_t& deferred = deferredSignals[static_cast<std::size_t>(signal)];
        const int count = deferred;
        deferred = 0; // before the first is raised: its handler may log and get here, too
        for (int i = 0; i < count; ++i) {
            std::raise(signal);
        }
    }
}

// A section where a handler that logs must not run on this thread: it would take a lock that the thread
// holds, including the C library's for stderr and syslog, or wait for a thread that waits for this one.
// Signals are counted here and raised at the end of the outermost such section. Variables do this rather than
// the thread's signal mask, which would cost two system calls for each message, even a dropped one.
class SignalsDeferred
{
public:
    SignalsDeferred()
    {
        deferralDepth = deferralDepth + 1;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~SignalsDeferred()
    {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        deferralDepth = deferralDepth - 1;
        // Check only now: a signal that arrives between the two steps runs its handler at once.
        if (deferralDepth == 0 && anyDeferred != 0) {
            raiseDeferredSignals();
        }
    }
    SignalsDeferred(const SignalsDeferred&) = delete;
    SignalsDeferred& operator=(const SignalsDeferred&) = delete;
};

// While the process exits, other threads still log, and so may the destructors of static objects. So nothing
// that a message needs is ever destroyed: destroying a lock that is held would end the process.
template <typename T>
union Immortal {
    Immortal() : value() {}
    ~Immortal() {} // NOLINT(modernize-use-equals-default): that would delete it
    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T value;
};

// Built before all other static objects, whose constructors may log.
#define BUILT_FIRST __attribute__((init_priority(101)))
Immortal<pthread_helper::mutex> outputMutex BUILT_FIRST;
Immortal<pthread_helper::mutex> registryMutex BUILT_FIRST;
Immortal<std::map<std::string, STBLogger*>> registryLoggers BUILT_FIRST;

std::atomic<bool> loggersGone{false};
std::atomic<int> messagesInFlight{0};

// Counts a message before it checks loggersGone. The registry does the reverse, so that one sees the other.
class MessageInFlight
{
public:
    MessageInFlight() { ++messagesInFlight; }
    ~MessageInFlight() { --messagesInFlight; }
    MessageInFlight(const MessageInFlight&) = delete;
    MessageInFlight& operator=(const MessageInFlight&) = delete;
};

} // namespace

bool STBLogger_deferSignal(int signal)
{
    if (deferralDepth == 0 || signal <= 0 || signal >= NSIG) {
        return false;
    }
    volatile std::sig_atomic_t& deferred = deferredSignals[static_cast<std::size_t>(signal)];
    deferred = deferred + 1;
    anyDeferred = 1;
    return true;
}

/// The registry: owns the logger of each application, until the one instance is destroyed.
class STBLoggerContainer
{
public:
    STBLoggerContainer() = default;
    ~STBLoggerContainer();
    STBLoggerContainer(const STBLoggerContainer&) = delete;
    STBLoggerContainer& operator=(const STBLoggerContainer&) = delete;

    /// Static, and so are the members: a message may still arrive here when the instance is destroyed.
    static STBLogger& loggerFor(STBLoggerLogParams* params);

private:
    static pthread_helper::mutex& _mutex; ///< guards _loggers
    static std::map<std::string, STBLogger*>& _loggers;
};

pthread_helper::mutex& STBLogger::_staticMutex = outputMutex.value;
pthread_helper::mutex& STBLoggerContainer::_mutex = registryMutex.value;
std::map<std::string, STBLogger*>& STBLoggerContainer::_loggers = registryLoggers.value;

STBLoggerContainer::~STBLoggerContainer()
{
    loggersGone = true;
    // A message in flight may belong to another thread, or to this one if a handler has interrupted it. So
    // don't wait for it; keep the loggers until the process ends.
    const bool inUse = messagesInFlight != 0;
    const SignalsDeferred deferred;
    const pthread_helper::scoped_lock lock(_mutex);
    for (auto& [application, logger] : _loggers) {
        if (logger->_useSyslog) {
            closelog();
        }
        if (!inUse) {
            delete logger;
        }
    }
    if (!inUse) {
        _loggers.clear();
    }
}

STBLogger& STBLoggerContainer::loggerFor(STBLoggerLogParams* params)
{
    const pthread_helper::scoped_lock lock(_mutex);
    const auto found = _loggers.find(params->application);
    if (found != _loggers.end()) {
        return *found->second;
    }
    auto logger = std::make_unique<STBLogger>(params); // logs its greeting under the lock
    return *(_loggers[params->application] = logger.release());
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
    STBLogger* logger = nullptr;
    {
        const SignalsDeferred deferred; // creating the registry isn't re-entrant either
        static const std::unique_ptr<STBLoggerContainer> owner(new STBLoggerContainer);
        logger = &STBLoggerContainer::loggerFor(params);
    }
    if (!logger->wants(tag, level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    logger->write(tag.c_str(), level, line, file, format, arguments);
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
    std::string text(defaultLevel);
    if (fromEnvironment != nullptr) {
        text = fromEnvironment;
    }
    text = upperCase(text);
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

void STBLogger::write(const char* module, STBLogLevel level, int line, const char* file, const char* format,
                      va_list arguments) const
{
    const SignalsDeferred deferred; // from the opening colour to the reset
    const LevelTraits& traits = traitsOf(level);
    if (_useSyslog) {
        log_send_syslog(module, traits.priority, line, file, format, arguments);
        return;
    }
    // Kept: outside of the lock, so on a busy system a colour can land ahead of another thread's line.
    if (_useColors && traits.color != kNoColor) {
        writeColor(traits.color);
    }
    const pthread_helper::scoped_lock lock(_staticMutex);
    log_print(module, traits.letter, line, file, format, arguments);
    if (_useColors) {
        writeColor(0);
    }
}

void STBLogger::log_print(const char* module, const char* letter, int line, const char* /*file*/,
                          const char* format, va_list arguments) const
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
                                const char* format, va_list arguments) const
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
