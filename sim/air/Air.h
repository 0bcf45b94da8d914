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
    Bytes scanResponse; ///< at most 31 bytes, sent on request
};

/// A peripheral's radio: what the air requests from it and reports to it. It is owned by whoever put it on
/// the air. Everything on the air's one thread.
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

    /// The longest link packet that it accepts, 27 to 251 bytes.
    virtual std::uint16_t maximumPayload() const = 0;

    /// A central connects. False ignores the request.
    virtual bool linkOpened(Link& link) = 0;

    /// A data packet arrived.
    virtual void linkReceived(const LinkPacket& packet) = 0;

    /// The central starts encryption with the key that these two numbers identify; empty if the device has no
    /// such key.
    virtual std::optional<Key128> longTermKey(std::uint64_t random, std::uint16_t diversifier) = 0;

    /// Encryption is on from here.
    virtual void linkEncrypted() = 0;

    /// Interval, latency or timeout of the link have changed.
    virtual void linkParametersChanged() = 0;

    /// The link is closed, and the Link object about to be destroyed.
    virtual void linkClosed() = 0;
};

/// The medium between the box and the devices around it: delivers advertisements to the listener. Idle while
/// nobody listens. One thread.
class Air
{
public:
    /// The one receiver of advertisements: the box's controller.
    class Listener
    {
    public:
        virtual ~Listener() = default;
        virtual void advertised(RadioDevice& device, const Advertisement& advertisement) = 0;
        /// The device is about to be destroyed; nobody may use it afterwards.
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
