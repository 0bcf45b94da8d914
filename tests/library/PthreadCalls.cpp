// SPDX-License-Identifier: MIT
#include "tests/library/PthreadCalls.h"

#include <cstring>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#define WRAPPED(function) __asm__("__wrap_" #function)
#define REAL(function) __asm__("__real_" #function)
int realAttributeInit(pthread_mutexattr_t*) REAL(pthread_mutexattr_init);
int realAttributeSettype(pthread_mutexattr_t*, int) REAL(pthread_mutexattr_settype);
int realAttributeDestroy(pthread_mutexattr_t*) REAL(pthread_mutexattr_destroy);
int realMutexInit(pthread_mutex_t*, const pthread_mutexattr_t*) REAL(pthread_mutex_init);
int realMutexDestroy(pthread_mutex_t*) REAL(pthread_mutex_destroy);
int realMutexLock(pthread_mutex_t*) REAL(pthread_mutex_lock);
int realMutexUnlock(pthread_mutex_t*) REAL(pthread_mutex_unlock);
int realCondInit(pthread_cond_t*, const pthread_condattr_t*) REAL(pthread_cond_init);
int realCondDestroy(pthread_cond_t*) REAL(pthread_cond_destroy);
int realCondTimedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*) REAL(pthread_cond_timedwait);
int realCondSignal(pthread_cond_t*) REAL(pthread_cond_signal);
int realCondBroadcast(pthread_cond_t*) REAL(pthread_cond_broadcast);
int realCreate(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) REAL(pthread_create);
int realJoin(pthread_t, void**) REAL(pthread_join);
int realSetname(pthread_t, const char*) REAL(pthread_setname_np);
int realGettimeofday(timeval*, void*) REAL(gettimeofday);
int wrappedAttributeInit(pthread_mutexattr_t*) WRAPPED(pthread_mutexattr_init);
int wrappedAttributeSettype(pthread_mutexattr_t*, int) WRAPPED(pthread_mutexattr_settype);
int wrappedAttributeDestroy(pthread_mutexattr_t*) WRAPPED(pthread_mutexattr_destroy);
int wrappedMutexInit(pthread_mutex_t*, const pthread_mutexattr_t*) WRAPPED(pthread_mutex_init);
int wrappedMutexDestroy(pthread_mutex_t*) WRAPPED(pthread_mutex_destroy);
int wrappedMutexLock(pthread_mutex_t*) WRAPPED(pthread_mutex_lock);
int wrappedMutexUnlock(pthread_mutex_t*) WRAPPED(pthread_mutex_unlock);
int wrappedCondInit(pthread_cond_t*, const pthread_condattr_t*) WRAPPED(pthread_cond_init);
int wrappedCondDestroy(pthread_cond_t*) WRAPPED(pthread_cond_destroy);
int wrappedCondTimedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*) WRAPPED(pthread_cond_timedwait);
int wrappedCondSignal(pthread_cond_t*) WRAPPED(pthread_cond_signal);
int wrappedCondBroadcast(pthread_cond_t*) WRAPPED(pthread_cond_broadcast);
int wrappedCreate(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) WRAPPED(pthread_create);
int wrappedJoin(pthread_t, void**) WRAPPED(pthread_join);
int wrappedSetname(pthread_t, const char*) WRAPPED(pthread_setname_np);
int wrappedGettimeofday(timeval*, void*) WRAPPED(gettimeofday);
int wrappedSetpriority(int, id_t, int) WRAPPED(setpriority);

std::atomic<const char*> injectedFunction{nullptr};
std::atomic<int> injectedResult{0};
std::atomic<const timeval*> fixedClock{nullptr};
std::atomic<long long> clockAheadUs{0};
std::atomic<void (*)()> onTimedwait{nullptr};
std::atomic<void (*)()> onJoin{nullptr};
thread_local CallTrace* callTrace = nullptr;
thread_local timespec givenDeadline{};
std::atomic<int> mutexKind{-1};
std::atomic<int> attributeDestructions{0};
std::atomic<const void*> condAttributes{nullptr};
std::atomic<const void*> threadAttributes{nullptr};
std::atomic<int> timedwaits{0};
std::atomic<int> joins{0};
std::atomic<int> namings{0};
thread_local PriorityCall givenPriority{};

namespace
{

bool isInjected(const char* function)
{
    const char* injected = injectedFunction;
    return injected != nullptr && std::strcmp(injected, function) == 0;
}

// The counts are those of one test, also where the whole program runs in one process.
class CountsFromZero : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override
    {
        attributeDestructions = 0;
        timedwaits = 0;
        joins = 0;
        namings = 0;
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
    mutexKind = kind;
    return isInjected("pthread_mutexattr_settype") ? injectedResult.load()
                                                   : realAttributeSettype(attributes, kind);
}

int wrappedAttributeDestroy(pthread_mutexattr_t* attributes)
{
    ++attributeDestructions;
    return realAttributeDestroy(attributes);
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
    condAttributes = attributes;
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
    threadAttributes = attributes;
    return isInjected("pthread_create") ? injectedResult.load() : realCreate(id, attributes, entry, argument);
}

int wrappedJoin(pthread_t id, void** result)
{
    trace("join");
    ++joins;
    callHook(onJoin);
    return realJoin(id, result);
}

int wrappedSetname(pthread_t id, const char* name)
{
    ++namings;
    return realSetname(id, name);
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
