// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <ctime>
#include <map>
#include <string>
#include <sys/time.h>
#include <vector>

// Lets a test observe and change the system calls below the locks and threads. The linker sends the calls of
// the program and its static libraries here (--wrap); shared libraries call the C library as usual.

/// The C function whose calls only return `injectedResult`; null: none.
extern std::atomic<const char*> injectedFunction;
extern std::atomic<int> injectedResult;

/// What gettimeofday gives: `fixedClock` if it isn't null, otherwise the clock plus `clockAheadUs`.
extern std::atomic<const timeval*> fixedClock;
extern std::atomic<long long> clockAheadUs;

/// Called on the calling thread before a timed wait and before a join; null: nothing.
extern std::atomic<void (*)()> onTimedwait;
extern std::atomic<void (*)()> onJoin;

/// Calls in their order, as "lock A", "timedwait", "broadcast", "unlock A", "create", "join", "destroy A" and
/// "destroy cond"; the mutexes are named in the order of their first use.
struct CallTrace {
    std::vector<std::string> calls;
    std::map<const void*, char> names;
};
/// Records this thread's calls; null: none are recorded.
extern thread_local CallTrace* callTrace;

/// The deadline of this thread's last timed wait.
extern thread_local timespec givenDeadline;

/// Counts of calls within the test.
extern std::atomic<int> timedwaits;
extern std::atomic<int> joins;

/// The last call of setpriority, which is recorded but not made.
struct PriorityCall {
    int which;
    int who;
    int nice;
};
extern thread_local PriorityCall givenPriority;
