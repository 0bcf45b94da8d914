// SPDX-License-Identifier: MIT
// Preloaded into the program in the box: interrupts it once, as soon as it reads the clock with its SIGINT
// handler installed, which is while it creates its first objects.
//
// Uses raw system calls, as the clock does. Only raise(3) is the C library's or the thread sanitizer's, which
// would delay a signal sent in any other way.

#include <csignal>
#include <cstdint>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

/// The start of what rt_sigaction(2) writes; `rest` is space for the remainder.
struct KernelAction {
    std::uintptr_t handler = 0;
    unsigned char rest[64] = {};
};

bool handlerInstalled()
{
    constexpr std::size_t kKernelSetSize = 8; // bytes
    KernelAction action;
    return syscall(SYS_rt_sigaction, SIGINT, nullptr, &action, kKernelSetSize) == 0 && action.handler > 1;
}

/// Needed because a sanitizer's own thread reads the clock, too.
bool inMainThread()
{
    return syscall(SYS_gettid) == syscall(SYS_getpid);
}

bool interrupted = false;

} // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library uses reserved names
extern "C" int clock_gettime(clockid_t clock, timespec* time)
{
    if (!interrupted && inMainThread() && handlerInstalled()) {
        interrupted = true;
        raise(SIGINT);
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}
