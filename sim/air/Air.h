// SPDX-License-Identifier: MIT
#pragma once

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "sim/air/Address.h"
#include "sim/air/Bytes.h"
#include "sim/air/LinkCipher.h"
#include "sim/model/Scheduler.h"

namespace vexasim::air
{

class Link;

/// What a device sends on the advertising channels.
struct Advertisement {
    Bytes data;         ///< at most 31 bytes
    Bytes scanResponse; ///< at most 31 bytes, sent to those who ask
};

/// A peripheral's radio: what the air asks of it and tells it. It is owned by whoever put it on the air.
/// Everything on the air's one thread.
class RadioDevice
{
public:
    virtual ~RadioDevice() = default;

    virtual Address address() const = 0;

    /// Empty while it doesn't advertise.
    virtual std::optional<Advertisement> advertisement() const = 0;

    /// From one advertisement to the next.
    virtual std::chrono::milliseconds advertisingInterval() const = 0;

    /// Signal strength at the box in dBm.
    virtual std::int8_t rssi() const = 0;

    /// The longest link packet that it takes, 27 to 251 bytes.
    virtual std::uint16_t maximumPayload() const = 0;

    /// A central connects. False leaves the request unheard.
    virtual bool linkOpened(Link& link) = 0;

    /// A data packet arrived.
    virtual void linkReceived(const LinkPacket& packet) = 0;

    /// The central starts encryption and names the key by these two numbers;
    /// empty if the device knows no such key.
    virtual std::optional<Key128> longTermKey(std::uint64_t random, std::uint16_t diversifier) = 0;

    /// Encryption is on from here.
    virtual void linkEncrypted() = 0;

    /// Interval, latency or timeout of the link have changed.
    virtual void linkParametersChanged() = 0;

    /// The link is gone, and the Link object right behind it.
    virtual void linkClosed() = 0;
};

/// The space between the box and the devices around it: carries advertisements to whoever listens. Costs
/// nothing while nobody does. One thread.
class Air
{
public:
    /// The one receiver of advertisements: the box's controller.
    class Listener
    {
    public:
        virtual ~Listener() = default;
        virtual void advertised(RadioDevice& device, const Advertisement& advertisement) = 0;
        /// The device is about to go for good; nobody may touch it afterwards.
        virtual void removed(RadioDevice& device) = 0;
    };

    explicit Air(Scheduler& scheduler) : mScheduler(scheduler) {}

    void setListener(Listener* listener) { mListener = listener; }

    /// Whether advertisements are wanted; they begin within one interval.
    void listen(bool on);

    void add(RadioDevice& device);
    void remove(RadioDevice& device);

private:
    struct Advertiser {
        Advertiser(Scheduler& scheduler, RadioDevice& radio) : device(&radio), timer(scheduler) {}
        RadioDevice* device;
        Timer timer;
    };

    void scheduleNext(Advertiser& advertiser);
    void advertise(Advertiser& advertiser);

    Scheduler& mScheduler;
    Listener* mListener = nullptr;
    bool mListening = false;
    std::uint32_t mJitter = 1;
    std::list<Advertiser> mAdvertisers;
};

} // namespace vexasim::air
