// SPDX-License-Identifier: MIT
#include "sim/air/Air.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

// Advertising events are delayed by up to this much, so that two devices with the same interval don't collide
// for ever.
constexpr std::uint32_t kMaximumJitterUs = 10'000;

} // namespace

void Air::listen(bool on)
{
    if (on == mListening) {
        return;
    }
    mListening = on;
    for (auto& advertiser : mAdvertisers) {
        advertiser.timer.stop();
        if (on) {
            scheduleNext(advertiser);
        }
    }
}

void Air::add(RadioDevice& device)
{
    auto& advertiser = mAdvertisers.emplace_back(mScheduler, device);
    if (mListening) {
        scheduleNext(advertiser);
    }
}

void Air::remove(RadioDevice& device)
{
    const auto found =
        std::find_if(mAdvertisers.begin(), mAdvertisers.end(),
                     [&](const Advertiser& advertiser) { return advertiser.device == &device; });
    if (found == mAdvertisers.end()) {
        return;
    }
    if (mListener != nullptr) {
        mListener->removed(device);
    }
    mAdvertisers.erase(found);
}

void Air::scheduleNext(Advertiser& advertiser)
{
    // A linear congruential generator: the delay needn't be unpredictable, and tests see the same one each
    // time.
    mJitter = mJitter * 1664525U + 1013904223U;
    const std::chrono::microseconds jitter{(mJitter >> 8) % kMaximumJitterUs};
    advertiser.timer.start(advertiser.device->advertisingInterval() + jitter,
                           [this, &advertiser] { advertise(advertiser); });
}

void Air::advertise(Advertiser& advertiser)
{
    scheduleNext(advertiser);
    const auto advertisement = advertiser.device->advertisement();
    if (advertisement && mListener != nullptr) {
        mListener->advertised(*advertiser.device, *advertisement);
    }
}

} // namespace vexasim::air
