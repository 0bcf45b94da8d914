// SPDX-License-Identifier: MIT
#pragma once

#include <cstdarg>
#include <map>
#include <string>

#include "pthread_helper.h"

/// How severe a message is; a lower number is more severe. The underlying type is fixed, so any other number
/// is a valid value, too: it is logged without letter and colour.
enum STBLogLevel : int {
    STBLogLevel_eNone = 0,
    STBLogLevel_eError = 1,
    STBLogLevel_eWarn = 2,
    STBLogLevel_eInfo = 3,
    STBLogLevel_eDebug = 4,
    STBLogLevel_eTrace = 5,
};

/// The settings of a logger. Read only when an application logs its first message; later only `application`
/// is used, as the key. The environment variables `<application>_LOG_...` take precedence.
struct STBLoggerLogParams {
    const char* prefix;       ///< at the head of every line on standard error
    const char* application;  ///< key of the logger and prefix of its environment variables
    const char* defaultLevel; ///< name of a level, in any case
    const char* warnModules;  ///< comma-separated modules that get the level WARN; may be null
    const char* infoModules;  ///< the same for INFO
    const char* debugModules; ///< the same for DEBUG
    const char* traceModules; ///< the same for TRACE
    bool lineNumbers;         ///< show the source line
    bool threadId;            ///< show the calling thread
    bool useColors;           ///< colour the lines on standard error
};

/// Logs one message through the logger of `params->application`, which the first call creates. `module` is
/// the message's tag; if it is empty, the base name of `file` is. `level`, `format` and the arguments are
/// those of the message; a failure to write it is never reported. A null `module`, or at the first message a
/// null `application`, `prefix` or `defaultLevel`, throws std::logic_error.
///
/// Any thread may call it at any time, even in constructors and destructors of static objects; once the exit
/// handlers have shut the loggers down, messages are dropped. A message that is dropped, or that goes to
/// standard error, allocates nothing as long as the module's name has at most 15 letters.
void STBLogger_log(STBLoggerLogParams* params, const char* module, STBLogLevel level, int line,
                   const char* file, const char* format, ...) __attribute__((format(printf, 6, 7)));

/// For a signal handler that logs: it must call this first, with its own argument. Returns false if the
/// handler may go on. If the handler has interrupted its thread in the logger, where the thread may hold a
/// lock of the logger or of the C library's output, the function counts the signal and returns true: the
/// handler must then return at once. When the thread leaves the logger, it raises the signal as often as it
/// was counted, so that the handler runs again. Two signals stay two; of more, some may be merged, as the
/// kernel does with blocked signals.
///
/// Async-signal-safe; makes no system call.
bool STBLogger_deferSignal(int signal);

/// The logger of one application: its settings, which never change once it is created, and its two outputs,
/// standard error and syslog. The registry used by STBLogger_log owns it.
class STBLogger
{
public:
    /// Reads the settings and the environment and logs a greeting.
    explicit STBLogger(STBLoggerLogParams* params);

    /// Gives each module of the comma-separated list this level, which replaces an earlier one.
    void setModulesSTBLogLevel(const std::string& modules, STBLogLevel level);

    /// Writes one line of at most 1023 characters to standard error.
    void log_print(const char* module, const char* letter, int line, const char* file, const char* format,
                   va_list arguments) const __attribute__((format(printf, 6, 0)));

    /// Sends the message, of at most 1023 characters, to syslog line by line.
    void log_send_syslog(const char* module, int priority, int line, const char* file, const char* format,
                         va_list arguments) const __attribute__((format(printf, 6, 0)));

    /// Filters a message and writes it to the one output that is in use. The module is taken as it is.
    void log(const char* module, STBLogLevel level, int line, const char* file, const char* format, ...)
        __attribute__((format(printf, 6, 7)));

private:
    friend class STBLoggerContainer;
    friend void STBLogger_log(STBLoggerLogParams* params, const char* module, STBLogLevel level, int line,
                              const char* file, const char* format, ...);

    void readLevel(const std::string& application, const char* defaultLevel);
    void readModules(const std::string& application, const STBLoggerLogParams& params);
    void readFlags(const std::string& application);
    bool wants(const std::string& module, STBLogLevel level) const;
    void write(const char* module, STBLogLevel level, int line, const char* file, const char* format,
               va_list arguments) const __attribute__((format(printf, 6, 0)));

    STBLogLevel _level = STBLogLevel_eInfo;
    std::map<std::string, STBLogLevel> _moduleLevels;
    bool _lineNumbers;
    bool _threadId;
    bool _useColors;
    bool _useSyslog = false;
    std::string _prefix;
    static pthread_helper::mutex& _staticMutex; ///< serialises writes to standard error; never destroyed
};

// All messages of the daemon are logged by this macro.
#define STB_LOG(level, ...)                                                                                  \
    do {                                                                                                     \
        STBLoggerLogParams stbLogParams = {};                                                                \
        stbLogParams.prefix = "    ";                                                                        \
        stbLogParams.application = "VEXA";                                                                   \
        stbLogParams.defaultLevel = "debug";                                                                 \
        stbLogParams.lineNumbers = true;                                                                     \
        stbLogParams.useColors = true;                                                                       \
        STBLogger_log(&stbLogParams, "", level, __LINE__, __FILE__, __VA_ARGS__);                            \
    } while (false)

#define LOG_ERROR(...) STB_LOG(STBLogLevel_eError, __VA_ARGS__)
#define LOG_WARN(...) STB_LOG(STBLogLevel_eWarn, __VA_ARGS__)
#define LOG_INFO(...) STB_LOG(STBLogLevel_eInfo, __VA_ARGS__)
#define LOG_DEBUG(...) STB_LOG(STBLogLevel_eDebug, __VA_ARGS__)
#define LOG_TRACE(...) STB_LOG(STBLogLevel_eTrace, __VA_ARGS__)
