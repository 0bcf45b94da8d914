// SPDX-License-Identifier: MIT
#include "tests/kit/Allocations.h"

#include <cstdlib>
#include <cstring>
#include <new>

std::atomic<int> allocations{0};
void (*onAllocation)() = nullptr;

// Not inlined, or the optimiser pairs this free with the caller's new and warns.
// NOLINTBEGIN(cppcoreguidelines-no-malloc)
[[gnu::noinline]] void* operator new(std::size_t size)
{
    ++allocations;
    if (onAllocation != nullptr) {
        onAllocation();
    }
    if (void* memory = std::malloc(size > 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t size) noexcept
{
    std::memset(memory, 'Z', size);
    std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)
