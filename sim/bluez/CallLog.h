// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>
#include <vector>

#include "sim/bluez/Bend.h"

namespace vexasim
{

/// The recorded method calls. Any thread.
class CallLog
{
public:
    void add(const Call& call);
    void clear();
    std::vector<Call> all() const;
    bool await(const CallPredicate& predicate, unsigned count, std::chrono::milliseconds limit) const;

private:
    mutable std::mutex mMutex;
    mutable std::condition_variable mAdded;
    std::vector<Call> mCalls;
};

/// The active bends. Any thread.
class BendTable
{
public:
    BendId add(const Bend& bend);
    void remove(BendId id);
    void clear();
    /// Returns the newest bend that matches, and lowers its count.
    std::optional<Bend> take(const Call& call);

private:
    struct Entry {
        BendId id = 0;
        Bend bend;
    };

    std::mutex mMutex;
    std::list<Entry> mEntries; ///< newest first
    BendId mLast = 0;
};

} // namespace vexasim
