// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "pthread_helper.h"

/**
 * A thread whose sleep ends early when the thread is stopped. A subclass implements run() and stops the
 * thread in its own destructor, since its run() no longer exists when the destructor of this class runs.
 *
 * There is no timeout and no forced end: run() checks isRunning() or is woken by its subclass. Every
 * operation may be called on any thread; start, stop and destruction wait for one another.
 */
class STBThread
{
public:
    /// Is notified, on the ending thread, that run() has returned.
    class OnThreadCompletedListener
    {
    public:
        virtual void onThreadCompleted(STBThread* thread) = 0;
        virtual ~OnThreadCompletedListener() = default;
    };

    enum Priority {
        Priority_eLow = 0,    ///< nice value 15
        Priority_eNormal = 1, ///< nice value 0
        Priority_eHigh = 2,   ///< nice value -5
    };

    /// Owns the record of a started thread.
    class UniqueThreadPtr
    {
    public:
        UniqueThreadPtr() = default;
        ~UniqueThreadPtr();
        UniqueThreadPtr(const UniqueThreadPtr&) = delete;
        UniqueThreadPtr& operator=(const UniqueThreadPtr&) = delete;

        /// Deletes the old record and keeps the new one.
        void reset(pthread_helper::thread<STBThread>* record);
        pthread_helper::thread<STBThread>* operator->() const { return _record; }
        explicit operator bool() const { return _record != nullptr; }

    private:
        pthread_helper::thread<STBThread>* _record = nullptr;
    };

    STBThread() = default;
    /// Stops the thread; logs nothing if none runs.
    virtual ~STBThread();
    STBThread(const STBThread&) = delete;
    STBThread& operator=(const STBThread&) = delete;

    /// The thread's body.
    virtual void run() = 0;

    /// Starts the thread; `listener` may be null. If the thread is already running, that is logged and only
    /// the listener is replaced.
    void startThread(OnThreadCompletedListener* listener);
    /// The same as startThread.
    void start(OnThreadCompletedListener* listener);
    /// Clears the running flag, wakes all sleepers and joins without a timeout. If the thread is already
    /// stopped, that is logged and only the sleepers are woken.
    void stopThread();
    /// The same as stopThread.
    void stop();
    /// Sleeps for up to `milliseconds` on the wall clock: a stop, a notify or a spurious wake-up ends the
    /// sleep early. Returns at once if the thread isn't running.
    void sleepMs(unsigned int milliseconds);
    /// The same as sleepMs.
    void threadSleepMs(unsigned int milliseconds);
    /// Wakes all sleepers; has no effect if there are none.
    void notify();
    /// Whether the thread is meant to run: set by start, cleared by stop, whether or not run() has returned.
    bool isRunning() const;
    /// Sets the nice value of the calling thread, not of this object's.
    void setPriority(const Priority& priority);

private:
    void thread();
    OnThreadCompletedListener* listenerAtEnd() const;
    void stopAndJoin(bool reportStopped);

    UniqueThreadPtr _thread;
    bool _running = false;
    pthread_helper::mutex _mutex; ///< serialises start, stop and destruction; locked before _sleepMutex
    OnThreadCompletedListener* _listener = nullptr;
    pthread_helper::mutex _sleepMutex; ///< guards _running against the sleepers
    pthread_helper::cond _sleepCond;
    std::string _name; ///< nothing sets it: the daemon's threads stay unnamed
};
