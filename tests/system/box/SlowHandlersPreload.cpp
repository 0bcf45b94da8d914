// SPDX-License-Identifier: MIT
// Preloaded into the program in the box: every lock comes late to its other threads, so that the main thread
// wins each race for one that both want.

#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

namespace
{

constexpr timespec kDelay = {0, 5000000};

} // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's are reserved to it
extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    using Lock = int (*)(pthread_mutex_t*);
    static const auto next = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    if (syscall(SYS_gettid) != syscall(SYS_getpid)) {
        syscall(SYS_nanosleep, &kDelay, nullptr);
    }
    return next(mutex);
}
