// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <ctime>
#include <map>
#include <string>
#include <sys/time.h>
#include <vector>

// What a test sees and bends of the system calls below the locks and threads. The linker sends the calls of
// the program and its static libraries here (--wrap); those of shared libraries go their usual way.

/// The C function whose calls do nothing but give `injectedResult`; null: none.
extern std::atomic<const char*> injectedFunction;
extern std::atomic<int> injectedResult;

/// What gettimeofday gives: this, if it isn't null, or else the clock and so many microseconds more.
extern std::atomic<const timeval*> fixedClock;
extern std::atomic<long long> clockAheadUs;

/// Called on the calling thread before a timed wait and before a join; null: nothing.
extern std::atomic<void (*)()> onTimedwait;
extern std::atomic<void (*)()> onJoin;

/// Calls in their order, as "lock A", "timedwait", "broadcast", "unlock A", "create", "join", "destroy A" and
/// "destroy cond"; the mutexes are named in the order in which they are met.
struct CallTrace {
    std::vector<std::string> calls;
    std::map<const void*, char> names;
};
/// Gets this thread's calls; null: nothing.
extern thread_local CallTrace* callTrace;

/// The deadline of this thread's last timed wait.
extern thread_local timespec givenDeadline;

/// Counts of calls within the test.
extern std::atomic<int> timedwaits;
extern std::atomic<int> joins;

/// What setpriority was asked for last. The call is only recorded.
struct PriorityCall {
    int which;
    int who;
    int nice;
};
extern thread_local PriorityCall givenPriority;
