// SPDX-License-Identifier: MIT
#include "tests/library/PthreadCalls.h"

#include <cstring>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

// The linker sends calls of `function` to wrappedName; realName is the C library's.
#define WRAP(name, function, ...)                                                                            \
    int real##name(__VA_ARGS__) __asm__("__real_" #function);                                                \
    int wrapped##name(__VA_ARGS__) __asm__("__wrap_" #function)

WRAP(AttributeInit, pthread_mutexattr_init, pthread_mutexattr_t*);
WRAP(AttributeSettype, pthread_mutexattr_settype, pthread_mutexattr_t*, int);
WRAP(MutexInit, pthread_mutex_init, pthread_mutex_t*, const pthread_mutexattr_t*);
WRAP(MutexDestroy, pthread_mutex_destroy, pthread_mutex_t*);
WRAP(MutexLock, pthread_mutex_lock, pthread_mutex_t*);
WRAP(MutexUnlock, pthread_mutex_unlock, pthread_mutex_t*);
WRAP(CondInit, pthread_cond_init, pthread_cond_t*, const pthread_condattr_t*);
WRAP(CondDestroy, pthread_cond_destroy, pthread_cond_t*);
WRAP(CondTimedwait, pthread_cond_timedwait, pthread_cond_t*, pthread_mutex_t*, const timespec*);
WRAP(CondSignal, pthread_cond_signal, pthread_cond_t*);
WRAP(CondBroadcast, pthread_cond_broadcast, pthread_cond_t*);
WRAP(Create, pthread_create, pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
WRAP(Join, pthread_join, pthread_t, void**);
WRAP(Gettimeofday, gettimeofday, timeval*, void*);
WRAP(Setpriority, setpriority, int, id_t, int);

std::atomic<const char*> injectedFunction{nullptr};
std::atomic<int> injectedResult{0};
std::atomic<const timeval*> fixedClock{nullptr};
std::atomic<long long> clockAheadUs{0};
std::atomic<void (*)()> onTimedwait{nullptr};
std::atomic<void (*)()> onJoin{nullptr};
thread_local CallTrace* callTrace = nullptr;
thread_local timespec givenDeadline{};
std::atomic<int> timedwaits{0};
std::atomic<int> joins{0};
thread_local PriorityCall givenPriority{};

namespace
{

bool isInjected(const char* function)
{
    const char* injected = injectedFunction;
    return injected != nullptr && std::strcmp(injected, function) == 0;
}

// Resets the counts before each test, since all tests may run in one process.
class CountsFromZero : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override
    {
        timedwaits = 0;
        joins = 0;
    }
};

[[maybe_unused]] const bool counting = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new CountsFromZero);
    return true;
}();

void trace(const char* call)
{
    if (callTrace != nullptr) {
        callTrace->calls.emplace_back(call);
    }
}

void trace(const std::string& call, const void* mutex)
{
    if (callTrace != nullptr) {
        auto& names = callTrace->names;
        const char name = names.try_emplace(mutex, static_cast<char>('A' + names.size())).first->second;
        callTrace->calls.push_back(call + " " + name);
    }
}

void callHook(const std::atomic<void (*)()>& hook)
{
    if (auto* function = hook.load()) {
        function();
    }
}

} // namespace

int wrappedAttributeInit(pthread_mutexattr_t* attributes)
{
    return isInjected("pthread_mutexattr_init") ? injectedResult.load() : realAttributeInit(attributes);
}

int wrappedAttributeSettype(pthread_mutexattr_t* attributes, int kind)
{
    return isInjected("pthread_mutexattr_settype") ? injectedResult.load()
                                                   : realAttributeSettype(attributes, kind);
}

int wrappedMutexInit(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
{
    return isInjected("pthread_mutex_init") ? injectedResult.load() : realMutexInit(mutex, attributes);
}

int wrappedMutexDestroy(pthread_mutex_t* mutex)
{
    trace("destroy", mutex);
    return isInjected("pthread_mutex_destroy") ? injectedResult.load() : realMutexDestroy(mutex);
}

int wrappedMutexLock(pthread_mutex_t* mutex)
{
    trace("lock", mutex);
    return isInjected("pthread_mutex_lock") ? injectedResult.load() : realMutexLock(mutex);
}

int wrappedMutexUnlock(pthread_mutex_t* mutex)
{
    trace("unlock", mutex);
    return isInjected("pthread_mutex_unlock") ? injectedResult.load() : realMutexUnlock(mutex);
}

int wrappedCondInit(pthread_cond_t* condition, const pthread_condattr_t* attributes)
{
    return isInjected("pthread_cond_init") ? injectedResult.load() : realCondInit(condition, attributes);
}

int wrappedCondDestroy(pthread_cond_t* condition)
{
    trace("destroy cond");
    return isInjected("pthread_cond_destroy") ? injectedResult.load() : realCondDestroy(condition);
}

int wrappedCondTimedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline)
{
    trace("timedwait");
    ++timedwaits;
    givenDeadline = *deadline;
    callHook(onTimedwait);
    return isInjected("pthread_cond_timedwait") ? injectedResult.load()
                                                : realCondTimedwait(condition, mutex, deadline);
}

int wrappedCondSignal(pthread_cond_t* condition)
{
    return isInjected("pthread_cond_signal") ? injectedResult.load() : realCondSignal(condition);
}

int wrappedCondBroadcast(pthread_cond_t* condition)
{
    trace("broadcast");
    return isInjected("pthread_cond_broadcast") ? injectedResult.load() : realCondBroadcast(condition);
}

int wrappedCreate(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument)
{
    trace("create");
    return isInjected("pthread_create") ? injectedResult.load() : realCreate(id, attributes, entry, argument);
}

int wrappedJoin(pthread_t id, void** result)
{
    trace("join");
    ++joins;
    callHook(onJoin);
    return realJoin(id, result);
}

int wrappedGettimeofday(timeval* now, void* zone)
{
    if (const timeval* fixed = fixedClock) {
        *now = *fixed;
        return 0;
    }
    constexpr long long kUsPerSecond = 1000000;
    const int result = realGettimeofday(now, zone);
    const long long us = now->tv_sec * kUsPerSecond + now->tv_usec + clockAheadUs;
    now->tv_sec = static_cast<std::time_t>(us / kUsPerSecond);
    now->tv_usec = static_cast<suseconds_t>(us % kUsPerSecond);
    return result;
}

int wrappedSetpriority(int which, id_t who, int nice)
{
    givenPriority = {which, static_cast<int>(who), nice};
    return 0;
}
