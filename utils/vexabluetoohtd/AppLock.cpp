// SPDX-License-Identifier: MIT
#include <unistd.h>

#include "App.h"

namespace
{

constexpr useconds_t kYieldUs = 1000;
constexpr int kLongestYield = 1000; // number of slices; one second

} // namespace

App::Lock::Lock(App& app, By by) : mApp(app)
{
    if (by == Handler) {
        mApp.mHandlerWaits = true;
    }
    mApp.mMutex.lock();
    mApp.mLocked = true;
    if (by == Handler) {
        mApp.mHandlerWaits = false;
    }
}

void App::Lock::unlock()
{
    if (mHolding) {
        mHolding = false;
        mApp.mLocked = false;
    }
    mApp.mMutex.unlock();
}

// Without this the main thread, which locks mMutex again within microseconds, would usually get it before a
// waiting handler. The wait ends after a second or at an interrupt; paths that are being removed are then not
// looked up.
App::Section::Section(App& app) : mApp(app), mRemovals(app.mBluez->removals())
{
    mRemovals.hold().lock();
    for (int slice = 0; slice < kLongestYield && app.mRunning; ++slice) {
        if (!mRemovals.removing() && !app.mHandlerWaits) {
            break;
        }
        mRemovals.hold().unlock();
        usleep(kYieldUs);
        mRemovals.hold().lock();
    }
    mLock.emplace(app, Lock::MainThread);
}

App::Section::~Section()
{
    mLock.reset();
    mRemovals.hold().unlock();
}
