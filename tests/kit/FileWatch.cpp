// SPDX-License-Identifier: MIT
#include "tests/kit/FileWatch.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kit
{

const std::string kGone = "(gone)";

namespace
{

constexpr unsigned kEvents = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM;
constexpr const char* kSyncName = ".sync"; // created and removed to find out how far the queue is read
constexpr int kPriority = -10;             // so that files are read before another process overwrites them

Handle openRegular(const std::string& path)
{
    struct stat info {
    };
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return {}; // a firmware link, or a FIFO, which must not get a reader here
    }
    return Handle(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
}

bool isSameFile(const Handle& one, const Handle& other)
{
    struct stat first {
    };
    struct stat second {
    };
    return one.valid() && other.valid() && fstat(one.get(), &first) == 0 &&
           fstat(other.get(), &second) == 0 && first.st_ino == second.st_ino;
}

} // namespace

FileWatch::FileWatch(const std::string& folder)
    : mFolder(folder), mNotify(inotify_init1(IN_CLOEXEC)), mStop(eventfd(0, EFD_CLOEXEC))
{
    if (!mStop.valid() || inotify_add_watch(mNotify.get(), folder.c_str(), kEvents) < 0) {
        throw std::system_error(errno, std::generic_category(), "can't watch " + folder);
    }
    mThread = std::thread([this] { run(); });
}

FileWatch::~FileWatch()
{
    eventfd_write(mStop.get(), 1);
    mThread.join();
}

void FileWatch::run()
{
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kPriority); // only root may; nothing depends on it
    std::array<pollfd, 2> watched = {pollfd{mNotify.get(), POLLIN, 0}, pollfd{mStop.get(), POLLIN, 0}};
    alignas(inotify_event) std::array<char, 8192> buffer{};
    while (poll(watched.data(), watched.size(), -1) >= 0 || errno == EINTR) {
        if (watched[1].revents != 0) {
            return;
        }
        const ssize_t size = read(mNotify.get(), buffer.data(), buffer.size());
        for (ssize_t at = 0; at < size;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (event->len > 0) {
                handle(event->name, event->mask);
            }
        }
    }
}

void FileWatch::handle(const std::string& name, unsigned mask)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (name == kSyncName) {
        mSynced += (mask & IN_DELETE) != 0 ? 1 : 0;
    } else {
        File& file = mFiles[name];
        file.writes += (mask & IN_CLOSE_WRITE) != 0 ? 1 : 0;
        look(file, name);
    }
    mChanged.notify_all();
}

// The event's kind doesn't matter: the current file is what counts, and the previous file's last content can
// still be read through its open handle.
void FileWatch::look(File& file, const std::string& name)
{
    Handle now = openRegular(mFolder + "/" + name);
    if (file.handle.valid()) {
        record(file, readAtOnce(file.handle));
        if (!isSameFile(file.handle, now)) {
            record(file, kGone + "\n");
        }
    }
    file.handle = std::move(now);
    if (file.handle.valid()) {
        record(file, readAtOnce(file.handle));
    }
}

void FileWatch::record(File& file, const std::string& content)
{
    if (content.empty() || content.back() != '\n') {
        return; // read between the truncation and the end of the write
    }
    // The text after the first line can be the end of a longer line that is being written in its place.
    const std::string line = content.substr(0, content.find('\n'));
    if (file.moments.empty() || file.moments.back().content != line) {
        file.moments.push_back({std::chrono::steady_clock::now(), line});
    }
}

bool FileWatch::awaitLast(const std::string& name, const std::string& content,
                          std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, limit, [&] {
        const auto file = mFiles.find(name);
        return file != mFiles.end() && !file->second.moments.empty() &&
               file->second.moments.back().content == content;
    });
}

bool FileWatch::await(const std::string& name, const std::string& content,
                      std::chrono::milliseconds limit) const
{
    return awaitLast(name, content, limit);
}

bool FileWatch::awaitGone(const std::string& name, std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, limit, [&] {
        struct stat info {
        };
        return lstat((mFolder + "/" + name).c_str(), &info) != 0;
    });
}

bool FileWatch::awaitWrites(const std::string& name, std::size_t count, std::chrono::milliseconds limit) const
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, limit, [&] {
        const auto file = mFiles.find(name);
        return file != mFiles.end() && file->second.writes >= count;
    });
}

std::size_t FileWatch::writes(const std::string& name) const
{
    sync();
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto file = mFiles.find(name);
    return file == mFiles.end() ? 0 : file->second.writes;
}

std::vector<FileWatch::Moment> FileWatch::moments(const std::string& name) const
{
    sync();
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto file = mFiles.find(name);
    return file == mFiles.end() ? std::vector<Moment>{} : file->second.moments;
}

std::vector<std::string> FileWatch::course(const std::string& name) const
{
    std::vector<std::string> contents;
    for (const Moment& moment : moments(name)) {
        contents.push_back(moment.content);
    }
    return contents;
}

void FileWatch::sync() const
{
    std::unique_lock<std::mutex> lock(mMutex);
    const std::size_t wanted = ++mSyncs;
    const std::string path = mFolder + "/" + kSyncName;
    const Handle file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    unlink(path.c_str());
    mChanged.wait_for(lock, kPatience, [&] { return mSynced >= wanted; });
}

void FileWatch::forget()
{
    sync();
    const std::lock_guard<std::mutex> lock(mMutex);
    for (auto& [name, file] : mFiles) {
        file.writes = 0;
        if (!file.moments.empty()) {
            file.moments.erase(file.moments.begin(), file.moments.end() - 1);
        }
        if (!file.moments.empty() && file.moments.back().content == kGone) {
            file.moments.clear();
        }
    }
}

std::string FileWatch::summary() const
{
    sync();
    const std::lock_guard<std::mutex> lock(mMutex);
    std::string text;
    for (const auto& [name, file] : mFiles) {
        text += "    " + name + ":";
        for (const Moment& moment : file.moments) {
            text += " \"" + moment.content + "\"";
        }
        text += " (" + std::to_string(file.writes) + " writes)\n";
    }
    return text;
}

} // namespace kit
