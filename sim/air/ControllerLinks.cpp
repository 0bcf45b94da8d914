// SPDX-License-Identifier: MIT
// The controller's second half: links, and events from the air.
#include <algorithm>

#include "sim/air/Controller.h"

namespace vexasim::air
{

namespace
{

constexpr std::array<std::uint8_t, 5> kAllChannels = {0xff, 0xff, 0xff, 0xff, 0x1f};

constexpr std::uint16_t timeFor(std::uint16_t octets)
{
    // 14 octets of framing, eight microseconds to the octet.
    return static_cast<std::uint16_t>((octets + 14) * 8);
}

bool valid(const hci::ConnectionParameters& wanted)
{
    const bool inRange = wanted.minimumInterval >= 6 && wanted.minimumInterval <= wanted.maximumInterval &&
                         wanted.maximumInterval <= 3200 && wanted.latency <= 499 && wanted.timeout >= 10 &&
                         wanted.timeout <= 3200;
    // In units of 1.25 ms: the timeout must exceed twice the longest silence that the latency allows.
    return inRange && std::uint32_t{wanted.timeout} * 8 >
                          std::uint32_t{wanted.maximumInterval} * (wanted.latency + 1U) * 2;
}

LinkParameters agreed(const hci::ConnectionParameters& wanted)
{
    return {wanted.minimumInterval, wanted.latency, wanted.timeout};
}

} // namespace

// --- links ---

void Controller::createConnection(const hci::CreateConnection& command)
{
    if (mInitiating) {
        return commandStatus(hci::Status::CommandDisallowed);
    }
    if (!valid(command.parameters)) {
        return commandStatus(hci::Status::InvalidParameters);
    }
    if (command.useAcceptList == 0 && connectedTo(command.peer)) {
        return commandStatus(hci::Status::ConnectionExists);
    }
    mInitiating = command;
    updateListening();
    commandStatus(hci::Status::Success);
}

void Controller::cancelConnection()
{
    if (!mInitiating) {
        return done(hci::Status::CommandDisallowed);
    }
    hci::ConnectionComplete canceled;
    canceled.status = hci::Status::UnknownConnection;
    canceled.peer = mInitiating->peer;
    mInitiating.reset();
    updateListening();
    done();
    event(canceled);
}

void Controller::disconnect(std::uint16_t handle, hci::Status /*reason*/)
{
    if (Link* link = startOn(handle)) {
        link->endFromCentral();
    }
}

void Controller::updateConnection(std::uint16_t handle, const hci::ConnectionParameters& parameters)
{
    if (find(handle) != nullptr && !valid(parameters)) {
        return commandStatus(hci::Status::InvalidParameters);
    }
    if (Link* link = startOn(handle)) {
        link->update(agreed(parameters));
    }
}

void Controller::readRemoteVersion(std::uint16_t handle)
{
    if (Link* link = startOn(handle)) {
        link->exchange([this, handle] {
            event(hci::RemoteVersion{hci::Status::Success, handle, kBluetooth50, kNoManufacturer, 0});
        });
    }
}

void Controller::readRemoteFeatures(std::uint16_t handle)
{
    if (Link* link = startOn(handle)) {
        link->exchange([this, link, handle] {
            const bool longPackets = link->device()->maximumPayload() > kMinimumPayload;
            const std::uint64_t features = kLeEncryption | (longPackets ? kLeDataLength : 0);
            event(hci::RemoteFeatures{hci::Status::Success, handle, features});
        });
    }
}

void Controller::readChannelMap(std::uint16_t handle)
{
    if (find(handle) == nullptr) {
        return done(hci::Status::UnknownConnection);
    }
    answer(handle, kAllChannels);
}

void Controller::startEncryption(std::uint16_t handle, std::uint64_t random, std::uint16_t diversifier,
                                 const Key128& key)
{
    if (Link* link = startOn(handle)) {
        link->startEncryption(random, diversifier, key);
    }
}

// The box is central on all its links, so its host is never asked for a key.
void Controller::replyWithKey(std::uint16_t /*handle*/, const Key128& /*key*/)
{
    done(hci::Status::CommandDisallowed);
}

void Controller::replyWithoutKey(std::uint16_t /*handle*/)
{
    done(hci::Status::CommandDisallowed);
}

void Controller::setDataLength(std::uint16_t handle, std::uint16_t octets, std::uint16_t /*timeUs*/)
{
    Link* link = find(handle);
    if (link == nullptr) {
        return done(hci::Status::UnknownConnection);
    }
    if (octets < kMinimumPayload || octets > kMaximumPayload) {
        return done(hci::Status::InvalidParameters);
    }
    answer(handle);
    link->setMaximumPayload(octets);
}

void Controller::writeDefaultDataLength(std::uint16_t octets, std::uint16_t timeUs)
{
    if (octets < kMinimumPayload || octets > kMaximumPayload) {
        return done(hci::Status::InvalidParameters);
    }
    mDefaultOctets = octets;
    mDefaultTimeUs = timeUs;
    done();
}

// --- from the air ---

void Controller::advertised(RadioDevice& device, const Advertisement& advertisement)
{
    using Type = hci::AdvertisingReport::Type;
    if (mScanner.enabled() && (!mScanner.acceptListOnly() || mAcceptList.count(device.address()) != 0)) {
        report(device, Type::Connectable, advertisement.data);
        if (mScanner.active()) {
            report(device, Type::ScanResponse, advertisement.scanResponse);
        }
    }
    if (mInitiating && wanted(device.address())) {
        connect(device);
    }
}

void Controller::removed(RadioDevice& device)
{
    for (auto& [handle, link] : mLinks) {
        if (link->device() == &device) {
            link->abandon();
        }
    }
}

void Controller::report(RadioDevice& device, hci::AdvertisingReport::Type type, const Bytes& data)
{
    hci::AdvertisingReport report;
    report.type = type;
    report.address = device.address();
    report.length = static_cast<std::uint8_t>(data.size());
    report.dataAndRssi = data + Bytes{static_cast<std::uint8_t>(device.rssi())};
    if (mScanner.wants(report)) {
        event(report);
    }
}

bool Controller::wanted(const Address& address) const
{
    if (connectedTo(address)) {
        return false;
    }
    return mInitiating->useAcceptList != 0 ? mAcceptList.count(address) != 0 : mInitiating->peer == address;
}

void Controller::connect(RadioDevice& device)
{
    const LinkParameters parameters = agreed(mInitiating->parameters);
    Address own = mOptions.address;
    if ((mInitiating->ownAddressKind & 1) != 0) {
        own = {AddressKind::Random, mRandomAddress};
    }
    const std::uint16_t handle = mNextHandle;
    auto link = std::make_unique<Link>(mScheduler, static_cast<Link::Central&>(*this), device, own, handle,
                                       parameters, mOptions.pace);
    if (!device.linkOpened(*link)) {
        return;
    }

    mNextHandle = mNextHandle == kLastHandle ? kFirstHandle : static_cast<std::uint16_t>(mNextHandle + 1);
    mInitiating.reset();
    updateListening();
    Link& opened = *link;
    mLinks[handle] = std::move(link);
    event(hci::ConnectionComplete{hci::Status::Success, handle, 0, device.address(), parameters.interval,
                                  parameters.latency, parameters.timeout, 0});
    opened.setMaximumPayload(mDefaultOctets);
}

void Controller::linkReceived(Link& link, const LinkPacket& packet)
{
    const auto flags =
        packet.kind == LinkPacket::Start ? hci::AclPacket::kStart : hci::AclPacket::kContinuation;
    mToHost(encode(hci::PacketType::AclData, static_cast<std::uint16_t>(link.handle() | flags),
                   static_cast<std::uint16_t>(packet.payload.size()), packet.payload));
}

void Controller::linkDelivered(Link& link)
{
    event(hci::CompletedPackets{1, link.handle(), 1});
}

void Controller::linkEncrypted(Link& link, hci::Status status, bool refreshed)
{
    if (refreshed) {
        return event(hci::KeyRefreshComplete{status, link.handle()});
    }
    const std::uint8_t enabled = status == hci::Status::Success ? 1 : 0;
    event(hci::EncryptionChange{status, link.handle(), enabled});
}

void Controller::linkUpdated(Link& link)
{
    const LinkParameters& parameters = link.parameters();
    event(hci::ConnectionUpdateComplete{hci::Status::Success, link.handle(), parameters.interval,
                                        parameters.latency, parameters.timeout});
}

void Controller::linkLengthChanged(Link& link)
{
    const std::uint16_t octets = link.maximumPayload();
    event(hci::DataLengthChange{link.handle(), octets, timeFor(octets), octets, timeFor(octets)});
}

void Controller::linkClosed(Link& link, hci::Status reason)
{
    const std::uint16_t handle = link.handle();
    mLinks.erase(handle);
    event(hci::DisconnectionComplete{hci::Status::Success, handle, reason});
}

// --- state ---

Link* Controller::find(std::uint16_t handle) const
{
    const auto found = mLinks.find(handle);
    return found == mLinks.end() ? nullptr : found->second.get();
}

bool Controller::connectedTo(const Address& address) const
{
    return std::any_of(mLinks.begin(), mLinks.end(),
                       [&](const auto& entry) { return entry.second->deviceAddress() == address; });
}

bool Controller::acceptListInUse() const
{
    return (mScanner.enabled() && mScanner.acceptListOnly()) ||
           (mInitiating && mInitiating->useAcceptList != 0);
}

void Controller::updateListening()
{
    mAir.listen(mScanner.enabled() || mInitiating.has_value());
}

void Controller::dropLinks()
{
    for (auto& [handle, link] : mLinks) {
        link->cut();
    }
    mLinks.clear();
}

} // namespace vexasim::air
