// SPDX-License-Identifier: MIT
#pragma once

#include <cstdlib>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/kit/ClockPage.h"

// Code shared by the preloaded libraries. It uses raw system calls: the sanitizers replace the C library's
// functions and aren't ready when these libraries are loaded.

namespace kit
{

/// Maps the test's page; null if there is none.
inline ClockPage* mapClockPage()
{
    const char* path = getenv(kClockVariable);
    if (path == nullptr) {
        return nullptr;
    }
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return nullptr;
    }
    const long address =
        syscall(SYS_mmap, nullptr, sizeof(ClockPage), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0L);
    syscall(SYS_close, file);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel returns addresses as numbers
    return address == -1 ? nullptr : reinterpret_cast<ClockPage*>(address);
}

/// The addresses of the program's own code.
class OwnCode
{
public:
    OwnCode()
    {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel returns addresses as numbers
        const auto* headers = reinterpret_cast<const ElfW(Phdr)*>(getauxval(AT_PHDR));
        const auto* const end = headers + getauxval(AT_PHNUM);
        std::uintptr_t base = 0;
        for (const auto* header = headers; header != end; ++header) {
            if (header->p_type == PT_PHDR) {
                base = reinterpret_cast<std::uintptr_t>(headers) - header->p_vaddr;
            }
        }
        for (const auto* header = headers; header != end; ++header) {
            if (header->p_type == PT_LOAD && (header->p_flags & PF_X) != 0) {
                mBegin = base + header->p_vaddr;
                mEnd = mBegin + header->p_memsz;
            }
        }
    }
    bool has(const void* caller) const
    {
        const auto address = reinterpret_cast<std::uintptr_t>(caller);
        return address >= mBegin && address < mEnd;
    }

private:
    std::uintptr_t mBegin = 0;
    std::uintptr_t mEnd = 0;
};

inline bool inMainThread()
{
    return syscall(SYS_gettid) == syscall(SYS_getpid);
}

} // namespace kit
