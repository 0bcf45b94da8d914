// SPDX-License-Identifier: MIT
#include "sim/bluez/CallLog.h"

#include <algorithm>

namespace vexasim
{

void CallLog::add(const Call& call)
{
    std::lock_guard lock(mMutex);
    mCalls.push_back(call);
    mAdded.notify_all();
}

void CallLog::clear()
{
    std::lock_guard lock(mMutex);
    mCalls.clear();
}

std::vector<Call> CallLog::all() const
{
    std::lock_guard lock(mMutex);
    return mCalls;
}

bool CallLog::await(const CallPredicate& predicate, unsigned count, std::chrono::milliseconds limit) const
{
    std::unique_lock lock(mMutex);
    return mAdded.wait_for(lock, limit, [&] {
        return std::count_if(mCalls.begin(), mCalls.end(), predicate) >= static_cast<std::ptrdiff_t>(count);
    });
}

BendId BendTable::add(const Bend& bend)
{
    std::lock_guard lock(mMutex);
    mEntries.push_front({++mLast, bend});
    return mLast;
}

void BendTable::remove(BendId id)
{
    std::lock_guard lock(mMutex);
    mEntries.remove_if([id](const Entry& entry) { return entry.id == id; });
}

void BendTable::clear()
{
    std::lock_guard lock(mMutex);
    mEntries.clear();
}

std::optional<Bend> BendTable::take(const Call& call)
{
    std::lock_guard lock(mMutex);
    const auto found = std::find_if(mEntries.begin(), mEntries.end(),
                                    [&call](const Entry& entry) { return entry.bend.matches(call); });
    if (found == mEntries.end()) {
        return {};
    }
    const Bend taken = found->bend;
    if (found->bend.count > 0 && --found->bend.count == 0) {
        mEntries.erase(found);
    }
    return taken;
}

} // namespace vexasim
