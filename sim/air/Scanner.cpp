// SPDX-License-Identifier: MIT
#include "sim/air/Scanner.h"

namespace vexasim::air
{

namespace
{

constexpr std::chrono::seconds kDuplicateMemory{1};

} // namespace

void Scanner::enable(bool on, bool filterDuplicates)
{
    mEnabled = on;
    mFilterDuplicates = filterDuplicates;
    mReported.clear();
}

bool Scanner::wants(const hci::AdvertisingReport& report)
{
    if (!mFilterDuplicates) {
        return true;
    }
    Bytes data = report.dataAndRssi;
    // The same data with another signal strength is a duplicate.
    data.pop_back();
    const auto now = mScheduler->now();
    const auto [entry, fresh] = mReported.try_emplace({report.address, report.type, data}, now);
    if (!fresh && now - entry->second < kDuplicateMemory) {
        return false;
    }
    entry->second = now;
    return true;
}

} // namespace vexasim::air
