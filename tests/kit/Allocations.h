// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>

// What a program with Allocations.cpp among its sources asks of the heap. What it frees is spoilt, so that
// nobody goes on using it unnoticed.

extern std::atomic<int> allocations; ///< how often so far
extern void (*onAllocation)();       ///< if set, called before each
