// SPDX-License-Identifier: MIT
#pragma once

#include <unistd.h>

#include <utility>

namespace vexabox
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

} // namespace vexabox
