// SPDX-License-Identifier: MIT
#include "sim/air/Link.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

constexpr std::chrono::microseconds kIntervalUnit{1250};
constexpr std::chrono::milliseconds kTimeoutUnit{10};
constexpr std::chrono::milliseconds kHurriedInterval{1};
constexpr std::uint16_t kDefaultPayload = 27;
constexpr size_t kPacketsPerEvent = 4;

// How many connection events the link layer's procedures take.
constexpr unsigned kExchangeEvents = 2;
constexpr unsigned kEncryptionEvents = 3;
constexpr unsigned kUpdateEvents = 6;
constexpr unsigned kTerminateEvents = 1;
// A link on which nothing was received in this many events was never established.
constexpr unsigned kEstablishEvents = 6;

// The control packet by which each end proves to the other that it has the key.
const LinkPacket kStartEncryptionResponse{LinkPacket::Control, {0x06}};

} // namespace

Link::Link(Scheduler& scheduler, Central& central, RadioDevice& device, const Address& centralAddress,
           std::uint16_t handle, const LinkParameters& parameters, Pace pace)
    : mScheduler(scheduler),
      mCentral(central),
      mDevice(&device),
      mCentralAddress(centralAddress),
      mDeviceAddress(device.address()),
      mHandle(handle),
      mParameters(parameters),
      mPace(pace),
      mMaximumPayload(kDefaultPayload),
      mDeviceMaximumPayload(device.maximumPayload()),
      mAnchor(scheduler.now()),
      mEventTimer(scheduler),
      mEndTimer(scheduler)
{
    scheduleEvent();
}

void Link::sendFromCentral(LinkPacket packet)
{
    const size_t size = packet.payload.size();
    for (size_t at = 0; at == 0 || at < size; at += mMaximumPayload) {
        const size_t end = std::min<size_t>(size, at + mMaximumPayload);
        const auto from = packet.payload.begin();
        Outgoing piece;
        piece.packet.kind = at == 0 ? packet.kind : LinkPacket::Continuation;
        piece.packet.payload.assign(from + static_cast<std::ptrdiff_t>(at),
                                    from + static_cast<std::ptrdiff_t>(end));
        piece.last = end == size;
        mFromCentral.push_back(std::move(piece));
    }
    scheduleEvent();
}

void Link::startEncryption(std::uint64_t random, std::uint16_t diversifier, const Key128& key)
{
    after(kEncryptionEvents, [this, random, diversifier, key] { encryptNow(random, diversifier, key); });
}

void Link::update(const LinkParameters& parameters)
{
    after(kUpdateEvents, [this, parameters] {
        mParameters = parameters;
        mAnchor = mScheduler.now();
        mDevice->linkParametersChanged();
        mCentral.linkUpdated(*this);
    });
}

void Link::setMaximumPayload(std::uint16_t octets)
{
    const std::uint16_t agreed = std::max(kDefaultPayload, std::min(octets, mDeviceMaximumPayload));
    if (agreed == mMaximumPayload) {
        return;
    }
    after(kExchangeEvents, [this, agreed] {
        mMaximumPayload = agreed;
        mCentral.linkLengthChanged(*this);
    });
}

void Link::exchange(std::function<void()> answered)
{
    after(kExchangeEvents, std::move(answered));
}

void Link::endFromCentral()
{
    // If nobody acknowledges, the link ends at the supervision timeout.
    mLossReason = hci::Status::LocalHostEnded;
    after(kTerminateEvents, [this] { close(hci::Status::LocalHostEnded); });
}

void Link::cut()
{
    if (mDevice != nullptr) {
        mDevice->linkClosed();
    }
    mDevice = nullptr;
}

void Link::sendFromDevice(LinkPacket packet)
{
    mFromDevice.push_back(std::move(packet));
    scheduleEvent();
}

void Link::endFromDevice(hci::Status reason)
{
    after(kTerminateEvents, [this, reason] { close(reason); });
}

void Link::abandon()
{
    if (mClosing || mDevice == nullptr) {
        return;
    }
    mDevice = nullptr;
    mEventTimer.stop();
    const bool established = mEvents > 0;
    if (!established) {
        mLossReason = hci::Status::FailedToEstablish;
    }
    const Scheduler::Duration timeout =
        established ? Scheduler::Duration(mParameters.timeout * kTimeoutUnit) : interval() * kEstablishEvents;
    mEndTimer.start(timeout, [this] { mCentral.linkClosed(*this, mLossReason); });
}

Scheduler::Duration Link::interval() const
{
    const Scheduler::Duration agreed = mParameters.interval * kIntervalUnit;
    return mPace == Pace::Hurried ? std::min<Scheduler::Duration>(agreed, kHurriedInterval) : agreed;
}

void Link::scheduleEvent()
{
    if (mEventTimer.running() || mClosing || mDevice == nullptr) {
        return;
    }
    // The next anchor point strictly after now: events stay at multiples of the interval, however long the
    // link was idle.
    const auto passed = (mScheduler.now() - mAnchor) / interval();
    mEventTimer.startAt(mAnchor + interval() * (passed + 1), [this] { connectionEvent(); });
}

void Link::connectionEvent()
{
    ++mEvents;
    // Answers to these packets are sent at the next event.
    size_t fromCentral = std::min(mFromCentral.size(), kPacketsPerEvent);
    size_t fromDevice = std::min(mFromDevice.size(), kPacketsPerEvent);
    for (; fromCentral > 0 && !mFromCentral.empty(); --fromCentral) {
        Outgoing outgoing = std::move(mFromCentral.front());
        mFromCentral.pop_front();
        deliverToDevice(std::move(outgoing));
    }
    for (; fromDevice > 0 && !mFromDevice.empty(); --fromDevice) {
        LinkPacket packet = std::move(mFromDevice.front());
        mFromDevice.pop_front();
        deliverToCentral(std::move(packet));
    }
    advanceProcedures();
    if (!mFromCentral.empty() || !mFromDevice.empty() || !mProcedures.empty()) {
        scheduleEvent();
    }
}

void Link::deliverToDevice(Outgoing outgoing)
{
    // A received packet may make the device disappear.
    if (mClosing || mDevice == nullptr) {
        return;
    }
    if (mCentralCipher) {
        outgoing.packet.payload = mCentralCipher->seal(outgoing.packet);
        const auto opened = mDeviceCipher->open(outgoing.packet);
        if (!opened) {
            return close(hci::Status::MicFailure);
        }
        outgoing.packet.payload = *opened;
    }
    mDevice->linkReceived(outgoing.packet);
    if (outgoing.last) {
        mCentral.linkDelivered(*this);
    }
}

void Link::deliverToCentral(LinkPacket packet)
{
    if (mClosing || mDevice == nullptr) {
        return;
    }
    if (mDeviceCipher) {
        packet.payload = mDeviceCipher->seal(packet);
        const auto opened = mCentralCipher->open(packet);
        if (!opened) {
            return close(hci::Status::MicFailure);
        }
        packet.payload = *opened;
    }
    mCentral.linkReceived(*this, packet);
}

void Link::after(unsigned events, std::function<void()> finish)
{
    mProcedures.push_back({events, std::move(finish)});
    scheduleEvent();
}

void Link::advanceProcedures()
{
    // One at a time, as in the link layer. A link about to end runs none.
    if (mClosing || mDevice == nullptr || mProcedures.empty()) {
        return;
    }
    Procedure& procedure = mProcedures.front();
    if (procedure.events-- > 1) {
        return;
    }
    const auto finish = std::move(procedure.finish);
    mProcedures.erase(mProcedures.begin());
    finish();
}

void Link::encryptNow(std::uint64_t random, std::uint16_t diversifier, const Key128& key)
{
    const auto deviceKey = mDevice->longTermKey(random, diversifier);
    if (!deviceKey) {
        return mCentral.linkEncrypted(*this, hci::Status::KeyMissing, false);
    }

    const EncryptionHalves halves{randomArray<8>(), randomArray<4>(), randomArray<8>(), randomArray<4>()};
    LinkCipher central(LinkCipher::End::Central, key, halves);
    LinkCipher device(LinkCipher::End::Peripheral, *deviceKey, halves);
    LinkPacket proof = kStartEncryptionResponse;
    proof.payload = central.seal(kStartEncryptionResponse);
    const bool deviceSatisfied = device.open(proof).has_value();
    proof.payload = device.seal(kStartEncryptionResponse);
    if (!deviceSatisfied || !central.open(proof)) {
        return close(hci::Status::MicFailure);
    }

    const bool refreshed = encrypted();
    mCentralCipher = central;
    mDeviceCipher = device;
    mCentral.linkEncrypted(*this, hci::Status::Success, refreshed);
    mDevice->linkEncrypted();
}

void Link::close(hci::Status reason)
{
    if (mClosing) {
        return;
    }
    mClosing = true;
    mEventTimer.stop();
    // Not at once: the callers still use this object.
    mEndTimer.start(Scheduler::Duration{0}, [this, reason] {
        if (mDevice != nullptr) {
            mDevice->linkClosed();
        }
        mCentral.linkClosed(*this, reason);
    });
}

} // namespace vexasim::air
