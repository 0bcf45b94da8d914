// SPDX-License-Identifier: MIT
#include "sim/air/Air.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

// Advertising events are spread by up to this much so that two devices of the
// same interval don't collide for ever.
constexpr uint32_t kMaximumJitterUs = 10'000;

} // namespace

void Air::listen(bool on)
{
    if (on == mListening)
        return;
    mListening = on;
    for (auto& station : mStations) {
        station.timer.stop();
        if (on)
            scheduleNext(station);
    }
}

void Air::add(RadioDevice& device)
{
    auto& station = mStations.emplace_back(mScheduler, device);
    if (mListening)
        scheduleNext(station);
}

void Air::remove(RadioDevice& device)
{
    const auto found = std::find_if(mStations.begin(), mStations.end(),
                                    [&](const Station& station) { return station.device == &device; });
    if (found == mStations.end())
        return;
    if (mListener != nullptr)
        mListener->removed(device);
    mStations.erase(found);
}

void Air::scheduleNext(Station& station)
{
    // The classic linear congruential step: the spread need not be unforeseeable,
    // and a test sees the same one each time.
    mJitter = mJitter * 1664525U + 1013904223U;
    const std::chrono::microseconds jitter{(mJitter >> 8) % kMaximumJitterUs};
    station.timer.start(station.device->advertisingInterval() + jitter,
                        [this, &station] { advertise(station); });
}

void Air::advertise(Station& station)
{
    scheduleNext(station);
    const auto advertisement = station.device->advertisement();
    if (advertisement && mListener != nullptr)
        mListener->advertised(*station.device, *advertisement);
}

} // namespace vexasim::air
