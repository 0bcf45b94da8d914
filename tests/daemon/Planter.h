// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/kit/FirmwareImage.h"
#include "tests/kit/Handle.h"

namespace kit
{

constexpr uid_t kAnotherUser = 65534; // neither root nor the test's user

/// Plants anything that may be found at one of the daemon's paths. Paths are as seen from outside the box.
class Planter
{
public:
    /// Symbolic links to a file point to `target`, hard links to `victim`. What opening would disturb is
    /// first made at `elsewhere`.
    Planter(std::string target, std::string victim, std::string elsewhere)
        : mTarget(std::move(target)), mVictim(std::move(victim)), mElsewhere(std::move(elsewhere))
    {
    }
    ~Planter()
    {
        mDone = true;
        if (mWriter.joinable()) {
            mWriter.join();
        }
    }
    Planter(const Planter&) = delete;
    Planter& operator=(const Planter&) = delete;

    void nothing(const std::string& /*path*/) {}
    void emptyFile(const std::string& path) { std::ofstream(path).flush(); }
    void fifo(const std::string& path) { must(mkfifo(path.c_str(), 0666), path); }
    void fifoWithSilentWriter(const std::string& path)
    {
        fifo(path);
        hold(path);
    }
    /// A FIFO whose content never ends.
    void fifoOfBlanks(const std::string& path)
    {
        fifo(path);
        const int pipe = hold(path);
        mWriter = std::thread([this, pipe] {
            const std::string blanks(4096, ' ');
            while (!mDone) {
                pollfd writable{pipe, POLLOUT, 0};
                poll(&writable, 1, 10);
                [[maybe_unused]] const ssize_t written = write(pipe, blanks.data(), blanks.size());
            }
        });
    }
    /// A FIFO with the header of a newer image.
    void fifoWithImage(const std::string& path)
    {
        fifo(path);
        const std::vector<std::uint8_t> image = FirmwareImage::ofWords(5).file();
        must(static_cast<int>(write(hold(path), image.data(), image.size())), path);
    }
    void folder(const std::string& path) { std::filesystem::create_directory(path); }
    void fullFolder(const std::string& path)
    {
        folder(path);
        std::ofstream(path + "/file").flush();
    }
    void linkToAnothersFile(const std::string& path) { link(mTarget, path); }
    void linkToNothing(const std::string& path) { link(mTarget + ".made", path); }
    void linkToDevice(const std::string& path) { link("/dev/zero", path); }
    void linkToTerminal(const std::string& path)
    {
        mHeld.emplace_back(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        must(grantpt(mHeld.back().get()), path);
        must(unlockpt(mHeld.back().get()), path);
        link(ptsname(mHeld.back().get()), path);
    }
    void hardLink(const std::string& path) { std::filesystem::create_hard_link(mVictim, path); }
    void anothersFile(const std::string& path)
    {
        std::ofstream(path) << "forged\n" << std::flush;
        must(chmod(path.c_str(), 0666), path);
        must(chown(path.c_str(), kAnotherUser, kAnotherUser), path);
        hold(path);
    }
    void socketFile(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        mHeld.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        must(bind(mHeld.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), path);
    }
    /// A file under a lease: whoever opens it waits until the owner gives the lease up, or for 45 seconds.
    void leasedFile(const std::string& path)
    {
        ::signal(SIGIO, SIG_IGN); // how the kernel asks for the lease back
        const std::string elsewhere = mElsewhere + ".leased";
        const std::vector<std::uint8_t> image = FirmwareImage::ofWords(5).file();
        std::ofstream(elsewhere).write(reinterpret_cast<const char*>(image.data()),
                                       static_cast<std::streamsize>(image.size()));
        must(fcntl(hold(elsewhere), F_SETLEASE, F_WRLCK), path);
        std::filesystem::rename(elsewhere, path);
    }
    /// A huge file that begins with a number below the threshold.
    void hugeFile(const std::string& path)
    {
        std::ofstream(path) << "12" << std::flush;
        must(truncate(path.c_str(), off_t{1} << 30), path);
    }

private:
    static void must(int result, const std::string& path)
    {
        if (result < 0) {
            throw std::system_error(errno, std::generic_category(), "can't plant " + path);
        }
    }
    static void link(const std::string& target, const std::string& path)
    {
        std::filesystem::create_symlink(target, path);
    }
    int hold(const std::string& path)
    {
        mHeld.emplace_back(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        must(mHeld.back().get(), path);
        return mHeld.back().get();
    }

    const std::string mTarget;
    const std::string mVictim;
    const std::string mElsewhere;
    std::vector<Handle> mHeld;
    std::atomic<bool> mDone = false;
    std::thread mWriter;
};

using Plant = void (Planter::*)(const std::string& path);

/// Whether the file was published by the daemon itself.
inline bool isOwnFile(const std::string& path)
{
    struct stat info {
    };
    return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
           info.st_nlink == 1;
}

} // namespace kit
