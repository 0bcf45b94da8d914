// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <tuple>

#include "sim/air/Hci.h"
#include "sim/model/Scheduler.h"

namespace vexasim::air
{

/// The controller's scanner: decides which advertisements are reported to the host. One thread.
class Scanner
{
public:
    explicit Scanner(Scheduler& scheduler) : mScheduler(&scheduler) {}

    void setParameters(bool active, bool acceptListOnly)
    {
        mActive = active;
        mAcceptListOnly = acceptListOnly;
    }
    void enable(bool on, bool filterDuplicates);

    bool enabled() const { return mEnabled; }
    bool active() const { return mActive; }
    /// Whether only devices of the accept list are reported.
    bool acceptListOnly() const { return mAcceptListOnly; }

    /// Whether a report goes to the host. If so, the same one is a duplicate for the next second. Real
    /// controllers also forget duplicates, having little memory for them, and BlueZ waits for a new report
    /// when it connects during discovery.
    bool wants(const hci::AdvertisingReport& report);

private:
    using Key = std::tuple<Address, hci::AdvertisingReport::Type, Bytes>;

    Scheduler* mScheduler;
    bool mActive = false;
    bool mAcceptListOnly = false;
    bool mEnabled = false;
    bool mFilterDuplicates = false;
    std::map<Key, Scheduler::Time> mReported;
};

} // namespace vexasim::air
