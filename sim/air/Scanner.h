// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Clock.h"
#include "sim/air/HciCommands.h"
#include "sim/air/HciEvents.h"

#include <map>
#include <tuple>

namespace vexasim::air
{

/// The controller's scanner: decides which advertisements the host hears of.
/// One thread.
class Scanner
{
public:
    explicit Scanner(Clock& clock) : mClock(clock) {}

    void setParameters(const hci::ScanParameters& parameters) { mParameters = parameters; }
    void enable(bool on, bool filterDuplicates);

    bool enabled() const { return mEnabled; }
    bool active() const { return mParameters.active != 0; }
    /// Only devices of the accept list are reported.
    bool acceptListOnly() const { return (mParameters.filterPolicy & 1) != 0; }

    /// Whether a report goes to the host; one that does is a duplicate for the
    /// next second. Real controllers forget duplicates too, having little
    /// memory for them, and BlueZ waits for a fresh report when it connects
    /// while discovering.
    bool wants(const hci::AdvertisingReport& report);

private:
    using Key = std::tuple<Address, hci::AdvertisingReport::Type, Bytes>;

    Clock& mClock;
    hci::ScanParameters mParameters;
    bool mEnabled = false;
    bool mFilterDuplicates = false;
    std::map<Key, Clock::Time> mReported;
};

} // namespace vexasim::air
