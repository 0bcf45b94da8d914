// SPDX-License-Identifier: MIT
#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "sim/air/Air.h"
#include "sim/air/Hci.h"

namespace vexasim::air
{

struct LinkParameters {
    std::uint16_t interval = 0; ///< units of 1.25 ms
    std::uint16_t latency = 0;
    std::uint16_t timeout = 0; ///< units of 10 ms

    bool operator==(const LinkParameters& other) const
    {
        return interval == other.interval && latency == other.latency && timeout == other.timeout;
    }
};

/// How fast links run.
enum class Pace {
    RealTime, ///< packets wait for the connection events of the link's interval
    Hurried,  ///< events occur every millisecond, whatever the interval
};

/// The link layer of one connection, both ends in one object: packets wait for the next connection event, are
/// encrypted and decrypted when encryption is on, and control procedures take as many events as real ones. An
/// idle link schedules nothing. Bluetooth Core 5.0, Vol 6, B 4.5 and 5. One thread.
class Link
{
public:
    /// The controller's end.
    class Central
    {
    public:
        virtual ~Central() = default;
        virtual void linkReceived(Link& link, const LinkPacket& packet) = 0;
        /// One packet given to sendFromCentral has arrived completely.
        virtual void linkDelivered(Link& link) = 0;
        /// `refreshed`: it was already encrypted, with another key.
        virtual void linkEncrypted(Link& link, hci::Status status, bool refreshed) = 0;
        virtual void linkUpdated(Link& link) = 0;
        virtual void linkLengthChanged(Link& link) = 0;
        /// The last call; the link must be released here.
        virtual void linkClosed(Link& link, hci::Status reason) = 0;
    };

    Link(Scheduler& scheduler, Central& central, RadioDevice& device, const Address& centralAddress,
         std::uint16_t handle, const LinkParameters& parameters, Pace pace);

    std::uint16_t handle() const { return mHandle; }
    /// Null once the device is lost.
    RadioDevice* device() const { return mDevice; }
    const Address& centralAddress() const { return mCentralAddress; }
    const Address& deviceAddress() const { return mDeviceAddress; }
    const LinkParameters& parameters() const { return mParameters; }
    /// The longest payload of a packet in either direction.
    std::uint16_t maximumPayload() const { return mMaximumPayload; }
    bool encrypted() const { return mCentralCipher.has_value(); }

    // --- the controller's end ---
    /// Sends a packet from the host, in fragments if it is longer than a payload.
    void sendFromCentral(LinkPacket packet);
    void startEncryption(std::uint64_t random, std::uint16_t diversifier, const Key128& key);
    void update(const LinkParameters& parameters);
    void setMaximumPayload(std::uint16_t octets);
    /// Runs a request to the device that takes one exchange.
    void exchange(std::function<void()> answered);
    void endFromCentral();
    /// The controller is reset: the device loses the link, the host isn't notified.
    void cut();

    // --- the device's end ---
    /// A packet of at most maximumPayload bytes.
    void sendFromDevice(LinkPacket packet);
    /// Ends the link in order; the device gets linkClosed.
    void endFromDevice(hci::Status reason);
    /// The device suddenly falls silent: out of range, or without power. It gets no further calls; the
    /// controller notices at the supervision timeout.
    void abandon();

private:
    struct Outgoing {
        LinkPacket packet;
        bool last = true; ///< of the host's packet
    };
    struct Procedure {
        unsigned events;
        std::function<void()> finish;
    };

    Scheduler::Duration interval() const;
    void scheduleEvent();
    void connectionEvent();
    void deliverToDevice(Outgoing outgoing);
    void deliverToCentral(LinkPacket packet);
    void advanceProcedures();
    void after(unsigned events, std::function<void()> finish);
    void encryptNow(std::uint64_t random, std::uint16_t diversifier, const Key128& key);
    void close(hci::Status reason);

    Scheduler& mScheduler;
    Central& mCentral;
    RadioDevice* mDevice; ///< null after abandon
    const Address mCentralAddress;
    const Address mDeviceAddress;
    const std::uint16_t mHandle;
    LinkParameters mParameters;
    const Pace mPace;
    std::uint16_t mMaximumPayload;
    const std::uint16_t mDeviceMaximumPayload;
    Scheduler::Time mAnchor;
    unsigned mEvents = 0;
    bool mClosing = false;
    hci::Status mLossReason = hci::Status::ConnectionTimeout;
    std::deque<Outgoing> mFromCentral;
    std::deque<LinkPacket> mFromDevice;
    std::vector<Procedure> mProcedures;
    std::optional<LinkCipher> mCentralCipher;
    std::optional<LinkCipher> mDeviceCipher;
    Timer mEventTimer;
    Timer mEndTimer;
};

} // namespace vexasim::air
