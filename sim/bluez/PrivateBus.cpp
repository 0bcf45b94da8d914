// SPDX-License-Identifier: MIT
#include "sim/bluez/PrivateBus.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vexasim
{

namespace
{
constexpr const char* kSocketName = "bus";
constexpr const char* kConfigName = "bus.conf";
constexpr const char* kLogName = "bus.log"; ///< dbus-daemon's standard error
constexpr int kReportDescriptor = 3;        ///< where dbus-daemon writes its address

// ANONYMOUS admits a client from another user namespace, which claims a user id that the bus doesn't see.
constexpr const char* kConfigHead =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <auth>EXTERNAL</auth>
  <auth>ANONYMOUS</auth>
  <allow_anonymous/>
)";
constexpr const char* kConfigTail = R"(  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow eavesdrop="true"/>
  </policy>
  <limit name="max_replies_per_connection">50000</limit>
  <limit name="reply_timeout">3600000</limit>
</busconfig>
)";

std::runtime_error systemError(const std::string& what)
{
    return std::runtime_error(what + ": " + std::strerror(errno));
}

std::string makeTemporaryDirectory()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vexasim-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw systemError("can't make a directory for the bus at " + pattern);
    }
    return pattern;
}

/// Runs in the child; makes only calls that are safe after fork.
[[noreturn]] void becomeBus(pid_t parent, const char* configuration, int report, int log)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(1);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(log, STDERR_FILENO);
    if (report == kReportDescriptor) {
        fcntl(report, F_SETFD, 0);
    } else {
        dup2(report, kReportDescriptor);
    }
    execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", "--print-address=3",
           configuration, static_cast<char*>(nullptr));
    _exit(127);
}

std::string contentOf(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}
} // namespace

/// The thread that is dbus-daemon's parent. PR_SET_PDEATHSIG fires when the thread that forked ends, so the
/// caller's thread, which may end earlier than the process, can't be the parent.
class PrivateBus::Keeper
{
public:
    explicit Keeper(const std::string& directory)
        : mConfig("--config-file=" + directory + "/" + kConfigName), mLog(directory + "/" + kLogName)
    {
        std::array<int, 2> pipes{};
        if (pipe2(pipes.data(), O_CLOEXEC) != 0) {
            throw systemError("pipe");
        }
        mThread = std::thread([this, write = pipes[1]] { keep(write); });
        const bool ready = awaitAddress(pipes[0]);
        ::close(pipes[0]);
        if (ready) {
            return;
        }
        mThread.join();
        throw std::runtime_error(
            "dbus-daemon doesn't start; is it installed (Debian: dbus-daemon)? It says: " + contentOf(mLog));
    }

    ~Keeper()
    {
        {
            std::unique_lock lock(mMutex);
            if (mChild > 0) {
                kill(mChild, SIGTERM);
            }
        }
        if (mThread.joinable()) {
            mThread.join();
        }
    }

private:
    void keep(int report)
    {
        const int log = open(mLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const pid_t parent = getpid();
        // The bus may be up, and asked to stop, before fork returns here.
        std::unique_lock starting(mMutex);
        const pid_t child = fork();
        if (child == 0) {
            becomeBus(parent, mConfig.c_str(), report, log);
        }
        mChild = child;
        starting.unlock();
        ::close(log);
        ::close(report);
        if (child < 0) {
            return;
        }
        // Reaped only after its id is cleared, so that kill can't hit another process.
        siginfo_t info{};
        while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        std::lock_guard lock(mMutex);
        mChild = -1;
        waitpid(child, nullptr, 0);
    }

    static bool awaitAddress(int report)
    {
        std::array<char, 256> text{};
        ssize_t count = 0;
        do {
            count = read(report, text.data(), text.size());
        } while (count < 0 && errno == EINTR);
        return count > 0;
    }

    std::string mConfig;
    std::string mLog;
    std::mutex mMutex;
    pid_t mChild = -1;
    std::thread mThread;
};

PrivateBus::PrivateBus(const std::string& directory) : mDirectory(directory), mTemporary(directory.empty())
{
    if (mTemporary) {
        mDirectory = makeTemporaryDirectory();
    }
    std::filesystem::create_directories(mDirectory);
    // A client of another user must reach the socket.
    chmod(mDirectory.c_str(), 0755);
    std::ofstream config(mDirectory + "/" + kConfigName);
    config << kConfigHead << "  <listen>" << address() << "</listen>\n" << kConfigTail;
    config.close();
    if (!config) {
        throw std::runtime_error("can't write " + mDirectory + "/" + kConfigName);
    }
    start();
}

PrivateBus::~PrivateBus()
{
    stop();
    std::error_code ignored;
    if (mTemporary) {
        std::filesystem::remove_all(mDirectory, ignored);
    }
}

std::string PrivateBus::address() const
{
    return "unix:path=" + socketPath();
}

std::string PrivateBus::socketPath() const
{
    return mDirectory + "/" + kSocketName;
}

void PrivateBus::stop()
{
    mKeeper.reset();
    unlink(socketPath().c_str());
}

void PrivateBus::start()
{
    if (mKeeper != nullptr) {
        return;
    }
    unlink(socketPath().c_str()); // a leftover socket would keep dbus-daemon from listening
    mKeeper = std::make_unique<Keeper>(mDirectory);
}

bool PrivateBus::running() const
{
    return mKeeper != nullptr;
}

} // namespace vexasim
