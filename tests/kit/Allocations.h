// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>

// Counts the heap allocations of a program with Allocations.cpp among its sources. Freed memory is
// overwritten, so that any later use of it shows.

extern std::atomic<int> allocations; ///< number of allocations so far
extern void (*onAllocation)();       ///< if set, called before each allocation
