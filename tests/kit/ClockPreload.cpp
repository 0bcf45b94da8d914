// SPDX-License-Identifier: MIT
// Preloaded into the program in the box: moves the clocks as the test says, for
// calls that come from the program's own code. What GLib and the C library ask
// on their own account is answered truly, so their timers aren't moved.
//
// Works by bare system calls: the sanitizers replace the C library's functions
// and aren't ready when this library is loaded.

#include "tests/kit/ClockPage.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace
{

using kit::ClockPage;

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kUsPerSecond = 1000000;

ClockPage* page = nullptr;
uintptr_t programBegin = 0;
uintptr_t programEnd = 0;

void findProgram()
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel gives addresses as numbers
    const auto* headers = reinterpret_cast<const ElfW(Phdr)*>(getauxval(AT_PHDR));
    const auto* const end = headers + getauxval(AT_PHNUM);
    uintptr_t base = 0;
    for (const auto* header = headers; header != end; ++header) {
        if (header->p_type == PT_PHDR) {
            base = reinterpret_cast<uintptr_t>(headers) - header->p_vaddr;
        }
    }
    for (const auto* header = headers; header != end; ++header) {
        if (header->p_type == PT_LOAD && (header->p_flags & PF_X) != 0) {
            programBegin = base + header->p_vaddr;
            programEnd = programBegin + header->p_memsz;
        }
    }
}

__attribute__((constructor)) void setUp()
{
    const char* path = getenv(kit::kClockVariable);
    if (path == nullptr) {
        return;
    }
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return;
    }
    const long address =
        syscall(SYS_mmap, nullptr, sizeof(ClockPage), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0L);
    syscall(SYS_close, file);
    if (address != -1) {
        findProgram();
        page = reinterpret_cast<ClockPage*>(address); // NOLINT(performance-no-int-to-ptr)
    }
}

bool isMoved(const void* caller)
{
    const auto address = reinterpret_cast<uintptr_t>(caller);
    return page != nullptr && address >= programBegin && address < programEnd;
}

// The main thread stands here as long as the test holds it at the time that the
// stopped clock shows.
void standIfHeld(int64_t stoppedAtNs)
{
    static int64_t lastSeenNs = 0;
    static int64_t looks = 0;
    if (syscall(SYS_gettid) != syscall(SYS_getpid)) {
        return;
    }
    looks = stoppedAtNs == lastSeenNs ? looks + 1 : 1;
    lastSeenNs = stoppedAtNs;
    while (stoppedAtNs == page->holdAtNs.load() && looks >= page->holdFromLook.load()) {
        page->held.store(1);
        constexpr timespec kMillisecond = {0, 1000000};
        syscall(SYS_nanosleep, &kMillisecond, nullptr);
    }
    page->held.store(0);
}

} // namespace

// The C library names its parameters in ways that are reserved to it.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    const void* caller = __builtin_return_address(0);
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (result != 0 || clock != CLOCK_MONOTONIC || !isMoved(caller)) {
        return static_cast<int>(result);
    }
    int64_t ns = page->stoppedAtNs.load();
    if (ns != 0) {
        standIfHeld(ns);
    } else {
        ns = time->tv_sec * kNsPerSecond + time->tv_nsec + page->monotonicOffsetNs.load();
    }
    time->tv_sec = ns / kNsPerSecond;
    time->tv_nsec = ns % kNsPerSecond;
    return 0;
}

extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval* time, void* zone) noexcept
{
    const void* caller = __builtin_return_address(0);
    const long result = syscall(SYS_gettimeofday, time, zone);
    if (result != 0 || !isMoved(caller)) {
        return static_cast<int>(result);
    }
    const int64_t us = time->tv_sec * kUsPerSecond + time->tv_usec + page->wallOffsetUs.load();
    time->tv_sec = us / kUsPerSecond;
    time->tv_usec = us % kUsPerSecond;
    return 0;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
