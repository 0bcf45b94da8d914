// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <unistd.h>
#include <utility>

namespace kit
{

/// Owner of a file descriptor.
class Handle
{
public:
    Handle() = default;
    explicit Handle(int fd) : mFd(fd) {}
    ~Handle() { reset(); }
    Handle(Handle&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        if (this != &other) {
            reset();
            mFd = std::exchange(other.mFd, -1);
        }
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    int get() const { return mFd; }
    bool valid() const { return mFd >= 0; }
    void reset()
    {
        if (mFd >= 0) {
            close(std::exchange(mFd, -1));
        }
    }

private:
    int mFd = -1;
};

/// The content of a file of up to 4,096 bytes, read with one call; empty if it can't be read. The daemon
/// writes its files in place, so a second read could return part of a different content.
inline std::string readAtOnce(const Handle& file)
{
    std::array<char, 4096> buffer{};
    const ssize_t size = pread(file.get(), buffer.data(), buffer.size(), 0);
    return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

} // namespace kit
