// SPDX-License-Identifier: MIT
#pragma once

#include <cerrno>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>

#include "STBBackTrace.h"

/// Reports a failed check and ends the process; `object` is the wrapper whose call failed.
#define PTHREAD_HELPER_FATAL(expression, result, object)                                                     \
    STBBackTrace::failedCheck(expression, result, __FILE__, __LINE__, object)

/// Checks a result; the report of a failed check quotes the condition as written.
#define PTHREAD_HELPER_CHECK(condition, result, object)                                                      \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            PTHREAD_HELPER_FATAL(#condition, result, object);                                                \
        }                                                                                                    \
    } while (false)

/**
 * Thin owners of POSIX locks, conditions and threads. A call that fails is a programming error: it is
 * reported with a stack trace and the process kills itself, so callers don't check results.
 */
namespace pthread_helper
{

/// An error-checking mutex: a second lock by its holder ends the process; an unlock by any other thread has
/// no effect.
class mutex
{
public:
    mutex()
    {
        pthread_mutexattr_t attributes; // not destroyed after use, which costs nothing with the C library
        int res = pthread_mutexattr_init(&attributes);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
        res = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
        res = pthread_mutex_init(&_mutex, &attributes);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

    /// Destroying a lock that is held ends the process.
    ~mutex()
    {
        const int res = pthread_mutex_destroy(&_mutex);
        PTHREAD_HELPER_CHECK(res != 16, res, this); // EBUSY
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

    mutex(const mutex&) = delete;
    mutex& operator=(const mutex&) = delete;

    void lock()
    {
        const int res = pthread_mutex_lock(&_mutex);
        PTHREAD_HELPER_CHECK(res != 35, res, this); // EDEADLK
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

    /// Kept: the result 1 (EPERM, the caller doesn't hold it) is accepted, so that a scope may unlock before
    /// its guard does.
    void unlock()
    {
        const int res = pthread_mutex_unlock(&_mutex);
        if (res != EPERM) {
            PTHREAD_HELPER_CHECK(res == 0, res, this);
        }
    }

private:
    friend class cond;

    pthread_mutex_t _mutex{};
};

/// Holds a mutex for a scope. Always unlocks at the end of the scope, even if the scope has already done so.
class scoped_lock
{
public:
    explicit scoped_lock(mutex& lock) : _lock(lock) { _lock.lock(); }
    ~scoped_lock() { _lock.unlock(); }
    scoped_lock(const scoped_lock&) = delete;
    scoped_lock& operator=(const scoped_lock&) = delete;

private:
    mutex& _lock;
};

/// A condition variable on the wall clock: setting that clock lengthens or shortens a wait.
class cond
{
public:
    cond()
    {
        const int res = pthread_cond_init(&_cond, nullptr);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

    ~cond()
    {
        const int res = pthread_cond_destroy(&_cond);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

    cond(const cond&) = delete;
    cond& operator=(const cond&) = delete;

    /// Waits for at most `milliseconds`; meanwhile it releases `held`, which the caller holds. Returns 0 when
    /// woken, for whatever reason, and 110 (ETIMEDOUT) on timeout.
    int timedWait(mutex& held, unsigned int milliseconds)
    {
        const timespec limit = deadline(milliseconds);
        const int res = pthread_cond_timedwait(&_cond, &held._mutex, &limit);
        PTHREAD_HELPER_CHECK(res == 0 || res == 110, res, this);
        return res;
    }

    /// Wakes one waiter.
    void signal()
    {
        const int res = pthread_cond_signal(&_cond);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

    /// Wakes all waiters.
    void broadcast()
    {
        const int res = pthread_cond_broadcast(&_cond);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

private:
    static timespec deadline(unsigned int milliseconds)
    {
        constexpr long long kUsPerSecond = 1000000;
        timeval now{};
        gettimeofday(&now, nullptr);
        const long long us = now.tv_sec * kUsPerSecond + now.tv_usec + milliseconds * 1000LL;
        timespec result{};
        result.tv_sec = static_cast<std::time_t>(us / kUsPerSecond);
        result.tv_nsec = static_cast<long>(us % kUsPerSecond) * 1000;
        return result;
    }

    pthread_cond_t _cond{};
};

/// The record of one started thread. Deleting it neither joins nor detaches the thread.
template <typename T>
struct thread { // NOLINT(readability-identifier-naming): as mutex and cond
    using Method = void (T::*)();

    thread(T* object, Method method) : _object(object), _method(method) {}

    /// Starts the thread. The record outlives it.
    void start()
    {
        const int res = pthread_create(&_id, nullptr, thread_callback, this);
        PTHREAD_HELPER_CHECK(res == 0, res, this);
    }

    /// The entry point for pthread_create; takes the record.
    static void* thread_callback(void* record) // NOLINT(readability-identifier-naming): as above
    {
        auto* self = static_cast<thread*>(record);
        (self->_object->*self->_method)();
        return nullptr;
    }

    T* _object;
    Method _method;
    pthread_t _id{};
    bool _joined = false; ///< set after a join; nothing reads it
};

} // namespace pthread_helper
