// SPDX-License-Identifier: MIT
#include "STBThread.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "STBLogger.h"

#if defined(__arm__)
static_assert(SYS_gettid == 224, "the kernel's number of gettid on 32-bit ARM");
#endif

STBThread::UniqueThreadPtr::~UniqueThreadPtr()
{
    delete _record;
}

void STBThread::UniqueThreadPtr::reset(pthread_helper::thread<STBThread>* record)
{
    delete _record;
    _record = record;
}

STBThread::~STBThread()
{
    stopAndJoin(false);
}

void STBThread::startThread(OnThreadCompletedListener* listener)
{
    const pthread_helper::scoped_lock lock(_mutex);
    const pthread_helper::scoped_lock sleepLock(_sleepMutex);
    _listener = listener; // even if the start is refused
    if (_running) {
        LOG_ERROR("Thread %p already running", static_cast<void*>(this));
        return;
    }
    _running = true; // before the thread exists: run() finds it set
    auto* record = new pthread_helper::thread<STBThread>(this, &STBThread::thread);
    record->start();
    if (!_name.empty()) {
        pthread_setname_np(record->_id, _name.c_str());
    }
    _thread.reset(record);
}

void STBThread::start(OnThreadCompletedListener* listener)
{
    startThread(listener);
}

// Leaves _running and _thread alone: a thread that has ended by itself stays marked as running.
void STBThread::thread()
{
    run();
    OnThreadCompletedListener* const listener = listenerAtEnd(); // read once: it may be changing
    if (listener != nullptr) {
        listener->onThreadCompleted(this);
    }
}

// Kept: read without a lock, though a refused start may be replacing it.
STBThread::OnThreadCompletedListener* STBThread::listenerAtEnd() const
{
    return _listener;
}

void STBThread::stopThread()
{
    stopAndJoin(true);
}

void STBThread::stop()
{
    stopThread();
}

void STBThread::stopAndJoin(bool reportStopped)
{
    const pthread_helper::scoped_lock lock(_mutex);
    const pthread_helper::scoped_lock sleepLock(_sleepMutex);
    _sleepCond.broadcast(); // even if the thread isn't running
    if (!_running) {
        if (reportStopped) {
            LOG_ERROR("Thread %p already stopped", static_cast<void*>(this));
        }
        return;
    }
    _running = false;
    if (_thread) {
        // Lets a sleeper that is waking up finish. Kept: the guard unlocks a second time, which has no
        // effect.
        _sleepMutex.unlock();
        pthread_join(_thread->_id, nullptr);
        _thread->_joined = true;
        _thread.reset(nullptr);
    }
}

void STBThread::sleepMs(unsigned int milliseconds)
{
    const pthread_helper::scoped_lock lock(_sleepMutex);
    if (!_running) {
        return;
    }
    _sleepCond.timedWait(_sleepMutex, milliseconds);
}

void STBThread::threadSleepMs(unsigned int milliseconds)
{
    sleepMs(milliseconds);
}

void STBThread::notify()
{
    _sleepCond.broadcast();
}

// Kept: read without a lock and not atomic.
bool STBThread::isRunning() const
{
    return _running;
}

void STBThread::setPriority(const Priority& priority)
{
    int nice = 0;
    if (priority == Priority_eLow) {
        nice = 15;
    } else if (priority == Priority_eHigh) {
        nice = -5;
    }
    const auto caller = static_cast<id_t>(syscall(SYS_gettid));
    setpriority(PRIO_PROCESS, caller, nice);
}
