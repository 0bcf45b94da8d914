// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/kit/Handle.h"
#include "tests/kit/Limits.h"

namespace kit
{

/// Marks a removal in a file's history.
extern const std::string kGone;

/// Watches the files of one folder and keeps the whole history of each: every change of its content, which is
/// one line, and its removals. Only a file that ends in a newline counts as written; the newline isn't kept.
/// If two contents follow each other faster than this thread wakes up, only the later one may be seen; the
/// last one before a removal is never lost.
class FileWatch
{
public:
    struct Moment {
        std::chrono::steady_clock::time_point time;
        std::string content; ///< or kGone
    };

    explicit FileWatch(const std::string& folder);
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    /// Waits until the file's last content is this one.
    bool await(const std::string& name, const std::string& content,
               std::chrono::milliseconds limit = kPatience) const;
    bool awaitGone(const std::string& name, std::chrono::milliseconds limit = kPatience) const;
    /// Waits until the file has been written `count` times since the watch began; writes of the same content
    /// count, too.
    bool awaitWrites(const std::string& name, std::size_t count,
                     std::chrono::milliseconds limit = kPatience) const;
    // These first make sure that everything that has happened so far is recorded.

    std::size_t writes(const std::string& name) const;
    /// The file's contents, in order; empty if it never existed.
    std::vector<std::string> course(const std::string& name) const;
    std::vector<Moment> moments(const std::string& name) const;
    /// Returns when everything that has happened so far is recorded.
    void sync() const;
    /// Clears the histories, which then start with the current contents.
    void forget();
    /// One line for each file.
    std::string summary() const;

private:
    struct File {
        Handle handle; ///< kept open, so that the last content outlives the name
        std::vector<Moment> moments;
        std::size_t writes = 0;
    };

    void run();
    void handle(const std::string& name, unsigned mask);
    void look(File& file, const std::string& name);
    void record(File& file, const std::string& content);
    bool awaitLast(const std::string& name, const std::string& content,
                   std::chrono::milliseconds limit) const;

    std::string mFolder;
    Handle mNotify;
    Handle mStop;
    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::map<std::string, File> mFiles;
    mutable std::size_t mSyncs = 0;
    std::size_t mSynced = 0;
    std::thread mThread;
};

} // namespace kit
