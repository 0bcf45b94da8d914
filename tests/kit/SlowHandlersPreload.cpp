// SPDX-License-Identifier: MIT
// Preloaded into the program in the box: its other threads only check from time to time whether a lock has
// become free, so that the main thread wins every race for a lock. And a thread that has erased an object can
// be held before it takes its next lock.

#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <pthread.h>

#include "tests/kit/InsideProgram.h"

namespace
{

constexpr timespec kPause = {0, 20000000};
constexpr timespec kMillisecond = {0, 1000000};

kit::ClockPage* page = nullptr;
const kit::OwnCode program;
thread_local bool hasErased = false;

__attribute__((constructor)) void setUp()
{
    page = kit::mapClockPage();
}

void standIfHeld()
{
    if (!hasErased) {
        return;
    }
    hasErased = false;
    while (page->holdRemovals.load() != 0) {
        page->removalHeld.store(1);
        syscall(SYS_nanosleep, &kMillisecond, nullptr);
    }
    page->removalHeld.store(0);
}

} // namespace

// The C library and GLib use other names for their parameters.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    using Lock = int (*)(pthread_mutex_t*);
    static const auto next = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    if (page == nullptr || kit::inMainThread()) {
        return next(mutex);
    }
    standIfHeld();
    int result = pthread_mutex_trylock(mutex);
    if (result != EBUSY) {
        return result;
    }
    page->handlerWaits.store(1);
    while (result == EBUSY) {
        syscall(SYS_nanosleep, &kPause, nullptr);
        result = pthread_mutex_trylock(mutex);
    }
    page->handlerWaits.store(0);
    return result;
}

// The event thread releases an object's proxy when it has erased the object.
// NOLINTNEXTLINE(readability-identifier-naming): GLib's name
extern "C" __attribute__((visibility("default"))) void g_object_unref(void* object)
{
    using Unref = void (*)(void*);
    static const auto next = reinterpret_cast<Unref>(dlsym(RTLD_NEXT, "g_object_unref"));
    next(object);
    if (!kit::inMainThread() && program.has(__builtin_return_address(0))) {
        hasErased = true;
    }
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
