// SPDX-License-Identifier: MIT
#include "tests/kit/Program.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace kit
{

namespace
{

constexpr int kPipeSize = 1 << 20; // so that a slow reader never holds up the program

/// The steps of the new process; a step that fails is reported through a pipe.
enum class Step { Namespace, UserMap, Private, Mount, Death, Standard, Execute };

struct Failure {
    Step step;
    int error;
};

std::string explain(const Failure& failure)
{
    static const std::array<const char*, 7> steps = {
        "make a mount namespace: run the tests as root, or let ordinary users have user namespaces "
        "(sysctl kernel.unprivileged_userns_clone=1, and no seccomp filter against unshare)",
        "map its user",
        "take the mounts private",
        "mount",
        "die with the test",
        "set up its streams",
        "execute"};
    return std::string("the box can't ") + steps[static_cast<std::size_t>(failure.step)] + ": " +
           std::strerror(failure.error);
}

/// What a program inherits from the test's environment.
constexpr std::array kInherited = {"PATH",         "TZ",           "LD_LIBRARY_PATH",
                                   "ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS",
                                   "TSAN_OPTIONS", "G_SLICE"};

#ifdef __SANITIZE_ADDRESS__
constexpr const char* kAsanOptions = ":verify_asan_link_order=0"; // the clock is preloaded before it
#endif

/// All variables that the program gets, "NAME=value".
std::vector<std::string> wholeEnvironment(const Environment& extra)
{
    Environment all;
    for (const char* name : kInherited) {
        if (const char* value = getenv(name)) {
            all[name] = value;
        }
    }
#ifdef __SANITIZE_ADDRESS__
    all["ASAN_OPTIONS"] += kAsanOptions;
#endif
    for (const auto& [name, value] : extra) {
        all[name] = value;
    }
    std::vector<std::string> list;
    for (const auto& [name, value] : all) {
        list.push_back(std::string(name).append("=").append(value));
    }
    return list;
}

bool beginsReport(const LogRecord& record)
{
    static const std::array beginnings = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                          "WARNING: ThreadSanitizer", "FATAL: ThreadSanitizer",
                                          ": runtime error: "};
    return std::any_of(beginnings.begin(), beginnings.end(), [&](const char* beginning) {
        return record.raw.find(beginning) != std::string::npos;
    });
}

/// If a sanitizer has found an error in the program, the case fails, whatever it tests.
void expectNoReport(const std::vector<LogRecord>& records)
{
    auto record = std::find_if(records.begin(), records.end(), beginsReport);
    if (record == records.end()) {
        return;
    }
    std::string report;
    for (; record != records.end(); ++record) {
        report += record->raw + "\n";
    }
    ADD_FAILURE() << "the program was caught by a sanitizer:\n" << report;
}

/// Everything that the new process needs. Prepared before the fork, because other threads of the test may
/// hold the allocator's lock at that moment.
struct Launch {
    explicit Launch(const ProgramOptions& options)
        : path(options.path),
          texts(options.arguments),
          mounts(options.mounts),
          variables(wholeEnvironment(options.environment))
    {
        texts.insert(texts.begin(), options.path);
        std::transform(texts.begin(), texts.end(), std::back_inserter(arguments),
                       [](std::string& text) { return text.data(); });
        std::transform(variables.begin(), variables.end(), std::back_inserter(environment),
                       [](std::string& text) { return text.data(); });
        arguments.push_back(nullptr);
        environment.push_back(nullptr);
    }

    std::string path;
    std::vector<std::string> texts;
    std::vector<std::pair<std::string, std::string>> mounts;
    std::vector<std::string> variables;
    std::vector<char*> arguments;
    std::vector<char*> environment;
    std::string userMap = std::to_string(geteuid()) + " " + std::to_string(geteuid()) + " 1";
    std::string groupMap = std::to_string(getegid()) + " " + std::to_string(getegid()) + " 1";
    pid_t parent = getpid();
    int input = -1;
    int output = -1;
    int errors = -1;
    int failures = -1;
};

[[noreturn]] void fail(const Launch& launch, Step step)
{
    const Failure failure{step, errno};
    [[maybe_unused]] const ssize_t written = write(launch.failures, &failure, sizeof failure);
    _exit(127);
}

bool writeText(const char* path, const std::string& text)
{
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    const bool good = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(file);
    return good;
}

void enterNamespace(const Launch& launch)
{
    if (unshare(CLONE_NEWNS) == 0) {
        return;
    }
    if (errno != EPERM || unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        fail(launch, Step::Namespace);
    }
    if (!writeText("/proc/self/setgroups", "deny") || !writeText("/proc/self/uid_map", launch.userMap) ||
        !writeText("/proc/self/gid_map", launch.groupMap)) {
        fail(launch, Step::UserMap);
    }
}

void mountAll(const Launch& launch)
{
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail(launch, Step::Private);
    }
    for (const auto& [outside, inside] : launch.mounts) {
        if (mount(outside.c_str(), inside.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            fail(launch, Step::Mount);
        }
    }
}

void resetSignals()
{
    for (int number = 1; number < NSIG; ++number) {
        ::signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// The new process, between fork and exec: nothing here may allocate or lock.
[[noreturn]] void become(const Launch& launch)
{
    setsid(); // a ^C in the terminal is for the tests, not for the program
    if (!launch.mounts.empty()) {
        enterNamespace(launch);
        mountAll(launch);
    }
    // After entering the namespace: new credentials clear this setting.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != launch.parent) {
        fail(launch, Step::Death);
    }
    if (dup2(launch.input, STDIN_FILENO) < 0 || dup2(launch.output, STDOUT_FILENO) < 0 ||
        dup2(launch.errors, STDERR_FILENO) < 0 || chdir("/") != 0) {
        fail(launch, Step::Standard);
    }
    resetSignals();
    execve(launch.path.c_str(), launch.arguments.data(), launch.environment.data());
    fail(launch, Step::Execute);
}

std::string ofMainThread(pid_t pid, const char* file)
{
    const std::string id = std::to_string(pid);
    std::ifstream stream("/proc/" + id + "/task/" + id + "/" + file);
    return std::string((std::istreambuf_iterator<char>(stream)), {});
}

void require(bool good, const char* what)
{
    if (!good) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
}

std::pair<Handle, Handle> makePipe()
{
    std::array<int, 2> ends{};
    require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    return {Handle(ends[0]), Handle(ends[1])};
}

/// The reading and writing ends of a terminal in raw mode.
std::pair<Handle, Handle> makeTerminal()
{
    Handle master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    std::array<char, 64> name{};
    require(master.valid() && grantpt(master.get()) == 0 && unlockpt(master.get()) == 0 &&
                ptsname_r(master.get(), name.data(), name.size()) == 0,
            "terminal");
    Handle slave(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios mode{};
    require(slave.valid() && tcgetattr(slave.get(), &mode) == 0, "terminal");
    cfmakeraw(&mode);
    require(tcsetattr(slave.get(), TCSANOW, &mode) == 0, "terminal");
    return {std::move(master), std::move(slave)};
}

} // namespace

Program::Program(const ProgramOptions& options)
{
    start(options);
}

Program::~Program()
{
    if (mPid > 0) {
        kill(-mPid, SIGKILL); // with its children, which may hold its streams
        if (!mExit) {
            waitpid(mPid, nullptr, 0);
        }
    }
    if (mLog) {
        mLog->awaitEnd();
        expectNoReport(mLog->records());
    }
}

void Program::start(const ProgramOptions& options)
{
    Launch launch(options);
    const Handle input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    auto [outputReader, outputWriter] = makeTerminal();
    auto [errorReader, errorWriter] = makePipe();
    auto [failureReader, failureWriter] = makePipe();
    fcntl(errorReader.get(), F_SETPIPE_SZ, kPipeSize); // the kernel may allow less
    launch.input = input.get();
    launch.output = outputWriter.get();
    launch.errors = errorWriter.get();
    launch.failures = failureWriter.get();

    mPid = fork();
    require(mPid >= 0, "fork");
    if (mPid == 0) {
        become(launch);
    }
    failureWriter.reset();
    Failure failure{};
    if (read(failureReader.get(), &failure, sizeof failure) == sizeof failure) {
        awaitDeath(kPatience);
        throw std::runtime_error(explain(failure) + " (" + options.path + ")");
    }
    mOutput = std::make_unique<Log>(std::move(outputReader));
    mLog = std::make_unique<Log>(std::move(errorReader));
}

void Program::fillErrors() const
{
    const Handle errors(
        open(("/proc/" + std::to_string(mPid) + "/fd/2").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    require(errors.valid(), "open standard error");
    const std::string line = std::string(PIPE_BUF - 1, '-') + "\n"; // written as a whole or not at all
    while (write(errors.get(), line.data(), line.size()) > 0) {
    }
    require(errno == EAGAIN, "fill standard error");
}

void Program::signal(int number) const
{
    kill(mPid, number);
}

void Program::signalMainThread(int number) const
{
    syscall(SYS_tgkill, mPid, mPid, number);
}

bool Program::handles(int number) const
{
    const std::string status = ofMainThread(mPid, "status");
    static const std::string key = "\nSigCgt:";
    const std::size_t at = status.find(key);
    return at != std::string::npos &&
           (std::strtoull(status.c_str() + at + key.size(), nullptr, 16) >> (number - 1) & 1U) != 0;
}

char Program::mainThreadState() const
{
    const std::string line = ofMainThread(mPid, "stat");
    const std::size_t name = line.rfind(')'); // the program's name may contain anything
    return name != std::string::npos && name + 2 < line.size() ? line[name + 2] : '?';
}

// The number of the system call that the main thread is in; 0 or less if none.
long Program::mainThreadCall() const
{
    const std::string call = ofMainThread(mPid, "syscall");
    if (call.empty()) {
        throw std::runtime_error(
            "/proc/PID/syscall can't be read: the kernel is to have CONFIG_HAVE_ARCH_TRACEHOOK, "
            "and the tests need leave to trace their own children");
    }
    return std::strtol(call.c_str(), nullptr, 10); // 0 for "running"
}

bool Program::mainThreadIsInUsleep() const
{
    const long call = mainThreadCall();
#ifdef SYS_clock_nanosleep_time64
    return call == SYS_clock_nanosleep || call == SYS_clock_nanosleep_time64;
#else
    return call == SYS_clock_nanosleep;
#endif
}

bool Program::mainThreadIsOnCondition() const
{
    const long call = mainThreadCall();
#ifdef SYS_futex_time64
    return call == SYS_futex || call == SYS_futex_time64;
#else
    return call == SYS_futex;
#endif
}

bool Program::mainThreadIsInWrite() const
{
    const std::string errors = std::to_string(SYS_write) + " 0x" + std::to_string(STDERR_FILENO) + " ";
    return ofMainThread(mPid, "syscall").rfind(errors, 0) == 0;
}

// How often the main thread has waited in the kernel, for whatever reason.
long Program::mainThreadWaits() const
{
    const std::string status = ofMainThread(mPid, "status");
    static const std::string key = "\nvoluntary_ctxt_switches:";
    const std::size_t at = status.find(key);
    return at == std::string::npos ? 0 : std::strtol(status.c_str() + at + key.size(), nullptr, 10);
}

// The kernel provides no events for these.
bool Program::awaitHandlerOf(int number, std::chrono::milliseconds limit) const
{
    return eventually([this, number] { return handles(number); }, limit);
}

bool Program::awaitMainThreadAsleep(std::chrono::milliseconds limit) const
{
    return eventually([this] { return mainThreadState() == 'S'; }, limit);
}

bool Program::awaitMainThreadOnCondition(std::chrono::milliseconds limit) const
{
    return eventually([this] { return mainThreadIsOnCondition(); }, limit);
}

bool Program::awaitMainThreadInUsleep(std::chrono::milliseconds limit) const
{
    return eventually([this] { return mainThreadIsInUsleep(); }, limit);
}

bool Program::awaitMainThreadInWrite(std::chrono::milliseconds limit) const
{
    return eventually([this] { return mainThreadIsInWrite(); }, limit);
}

bool Program::awaitAnew(bool (Program::*place)() const, std::chrono::milliseconds limit) const
{
    const long before = mainThreadWaits();
    // Two more waits: the first may already have been about to begin.
    return eventually([&] { return mainThreadWaits() >= before + 2 && (this->*place)(); }, limit);
}

bool Program::awaitMainThreadOnNextCondition(std::chrono::milliseconds limit) const
{
    return awaitAnew(&Program::mainThreadIsOnCondition, limit);
}

bool Program::awaitMainThreadInNextSleep(std::chrono::milliseconds limit) const
{
    return awaitAnew(&Program::mainThreadIsInUsleep, limit);
}

bool Program::awaitMainThreadWaits(unsigned count, std::chrono::milliseconds limit) const
{
    const long before = mainThreadWaits();
    return eventually([&] { return mainThreadWaits() >= before + static_cast<long>(count); }, limit);
}

void Program::freeze() const
{
    kill(mPid, SIGSTOP);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(mPid), &info, WSTOPPED | WEXITED | WNOWAIT);
}

void Program::thaw() const
{
    kill(mPid, SIGCONT);
}

bool Program::running()
{
    int status = 0;
    if (!mExit && mPid > 0 && waitpid(mPid, &status, WNOHANG) == mPid) {
        mExit = Exit::of(status);
    }
    return !mExit && mPid > 0;
}

bool Program::awaitDeath(std::chrono::milliseconds limit)
{
    if (!running()) {
        return true;
    }
    const Handle process(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
    require(process.valid(), "pidfd_open");
    const auto end = std::chrono::steady_clock::now() + limit;
    pollfd watched{process.get(), POLLIN, 0};
    while (running()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() < 0) {
            return false;
        }
        ::poll(&watched, 1, static_cast<int>(left.count()) + 1);
    }
    return true;
}

std::optional<Exit> Program::awaitExit(std::chrono::milliseconds limit)
{
    if (awaitDeath(limit)) {
        mLog->awaitEnd();
        mOutput->awaitEnd();
    }
    return mExit;
}

} // namespace kit
