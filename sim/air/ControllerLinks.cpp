// SPDX-License-Identifier: MIT
// The controller's second half: links, and what comes from the air.
#include "sim/air/Controller.h"

#include "sim/air/ControllerTraits.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

constexpr std::array<uint8_t, 5> kAllChannels = {0xff, 0xff, 0xff, 0xff, 0x1f};

constexpr uint16_t timeFor(uint16_t octets)
{
    // 14 octets of framing, eight microseconds to the octet.
    return static_cast<uint16_t>((octets + 14) * 8);
}

bool intervalsAreValid(uint16_t minimum, uint16_t maximum, uint16_t latency, uint16_t timeout)
{
    const bool inRange = minimum >= 6 && minimum <= maximum && maximum <= 3200 && latency <= 499 &&
                         timeout >= 10 && timeout <= 3200;
    // In units of 1.25 ms: the timeout outlasts two rounds of silence.
    return inRange && uint32_t{timeout} * 8 > uint32_t{maximum} * (latency + 1U) * 2;
}

hci::MaximumDataLength lengths(uint16_t octets)
{
    return {octets, timeFor(octets), octets, timeFor(octets)};
}

} // namespace

// ---- links

void Controller::createConnection(const hci::CreateConnection& command)
{
    if (mInitiating)
        return commandStatus(hci::Status::CommandDisallowed);
    if (!intervalsAreValid(command.minimumInterval, command.maximumInterval, command.latency,
                           command.timeout))
        return commandStatus(hci::Status::InvalidParameters);
    if (command.useAcceptList == 0 && connectedTo(command.peer))
        return commandStatus(hci::Status::ConnectionExists);
    mInitiating = command;
    updateListening();
    commandStatus(hci::Status::Success);
}

void Controller::cancelConnection(const hci::NoParameters&)
{
    if (!mInitiating)
        return done(hci::Status::CommandDisallowed);
    hci::ConnectionComplete canceled;
    canceled.status = hci::Status::UnknownConnection;
    canceled.peer = mInitiating->peer;
    mInitiating.reset();
    updateListening();
    done();
    leEvent(hci::LeEvent::ConnectionComplete, canceled);
}

void Controller::disconnect(const hci::Disconnect& command)
{
    Link* link = find(command.handle);
    if (link == nullptr)
        return commandStatus(hci::Status::UnknownConnection);
    commandStatus(hci::Status::Success);
    link->endFromCentral();
}

void Controller::updateConnection(const hci::ConnectionUpdate& command)
{
    Link* link = find(command.handle);
    if (link == nullptr)
        return commandStatus(hci::Status::UnknownConnection);
    if (!intervalsAreValid(command.minimumInterval, command.maximumInterval, command.latency,
                           command.timeout))
        return commandStatus(hci::Status::InvalidParameters);
    commandStatus(hci::Status::Success);
    link->update({command.minimumInterval, command.latency, command.timeout});
}

void Controller::readRemoteVersion(const hci::HandleOnly& command)
{
    Link* link = find(command.handle);
    if (link == nullptr)
        return commandStatus(hci::Status::UnknownConnection);
    commandStatus(hci::Status::Success);
    link->exchange([this, handle = command.handle] {
        event(hci::EventCode::ReadRemoteVersionComplete,
              hci::RemoteVersion{hci::Status::Success, handle, traits::kBluetooth50, traits::kNoManufacturer,
                                 0});
    });
}

void Controller::readRemoteFeatures(const hci::HandleOnly& command)
{
    Link* link = find(command.handle);
    if (link == nullptr)
        return commandStatus(hci::Status::UnknownConnection);
    commandStatus(hci::Status::Success);
    link->exchange([this, link, handle = command.handle] {
        const bool longPackets = link->device()->maximumPayload() > traits::kMinimumPayload;
        const uint64_t features = traits::kLeEncryption | (longPackets ? traits::kLeDataLength : 0);
        leEvent(hci::LeEvent::ReadRemoteFeaturesComplete,
                hci::RemoteFeatures{hci::Status::Success, handle, features});
    });
}

void Controller::readChannelMap(const hci::HandleOnly& command)
{
    if (find(command.handle) == nullptr)
        return done(hci::Status::UnknownConnection);
    answer(hci::ChannelMap{command.handle, kAllChannels});
}

void Controller::startEncryption(const hci::StartEncryption& command)
{
    Link* link = find(command.handle);
    if (link == nullptr)
        return commandStatus(hci::Status::UnknownConnection);
    commandStatus(hci::Status::Success);
    link->startEncryption(command.random, command.diversifier, command.key);
}

void Controller::replyWithKey(const hci::LongTermKeyReply&)
{
    // The box is central on all its links, so no key is ever asked of its host.
    done(hci::Status::CommandDisallowed);
}

void Controller::replyWithoutKey(const hci::HandleOnly&)
{
    done(hci::Status::CommandDisallowed);
}

void Controller::setDataLength(const hci::SetDataLength& command)
{
    Link* link = find(command.handle);
    if (link == nullptr)
        return done(hci::Status::UnknownConnection);
    if (command.octets < traits::kMinimumPayload || command.octets > traits::kMaximumPayload)
        return done(hci::Status::InvalidParameters);
    answer(hci::HandleOnly{command.handle});
    link->setMaximumPayload(command.octets);
}

void Controller::readDefaultDataLength(const hci::NoParameters&)
{
    answer(mDefaultDataLength);
}

void Controller::writeDefaultDataLength(const hci::DefaultDataLength& command)
{
    if (command.octets < traits::kMinimumPayload || command.octets > traits::kMaximumPayload)
        return done(hci::Status::InvalidParameters);
    mDefaultDataLength = command;
    done();
}

void Controller::readMaximumDataLength(const hci::NoParameters&)
{
    answer(lengths(traits::kMaximumPayload));
}

// ---- from the air

void Controller::advertised(RadioDevice& device, const Advertisement& advertisement)
{
    using Type = hci::AdvertisingReport::Type;
    if (mScanner.enabled() && (!mScanner.acceptListOnly() || accepts(device.address()))) {
        report(device, Type::Connectable, advertisement.data);
        if (mScanner.active())
            report(device, Type::ScanResponse, advertisement.scanResponse);
    }
    if (mInitiating && wanted(device.address()))
        connect(device);
}

void Controller::removed(RadioDevice& device)
{
    for (auto& [handle, link] : mLinks)
        if (link->device() == &device)
            link->abandon();
}

void Controller::report(RadioDevice& device, hci::AdvertisingReport::Type type, const Bytes& data)
{
    hci::AdvertisingReport report;
    report.type = type;
    report.address = device.address();
    report.length = static_cast<uint8_t>(data.size());
    report.dataAndRssi = data + Bytes{static_cast<uint8_t>(device.rssi())};
    if (mScanner.wants(report))
        leEvent(hci::LeEvent::AdvertisingReport, report);
}

bool Controller::wanted(const Address& address) const
{
    if (connectedTo(address))
        return false;
    return mInitiating->useAcceptList != 0 ? accepts(address) : mInitiating->peer == address;
}

void Controller::connect(RadioDevice& device)
{
    const hci::CreateConnection& wish = *mInitiating;
    const LinkParameters parameters{wish.minimumInterval, wish.latency, wish.timeout};
    Address own = mOptions.address;
    if ((wish.ownAddressKind & 1) != 0)
        own = {AddressKind::Random, mRandomAddress};
    const uint16_t handle = mNextHandle;
    auto link = std::make_unique<Link>(mClock, static_cast<Link::Central&>(*this), device, own, handle,
                                       parameters, mOptions.pace);
    if (!device.linkOpened(*link))
        return;

    mNextHandle =
        mNextHandle == traits::kLastHandle ? traits::kFirstHandle : static_cast<uint16_t>(mNextHandle + 1);
    mInitiating.reset();
    updateListening();
    Link& opened = *link;
    mLinks[handle] = std::move(link);
    leEvent(hci::LeEvent::ConnectionComplete,
            hci::ConnectionComplete{hci::Status::Success, handle, 0, device.address(), parameters.interval,
                                    parameters.latency, parameters.timeout, 0});
    opened.setMaximumPayload(mDefaultDataLength.octets);
}

void Controller::linkReceived(Link& link, const LinkPacket& packet)
{
    const auto flags =
        packet.kind == LinkPacket::Start ? hci::AclPacket::kStart : hci::AclPacket::kContinuation;
    Encoder encoder;
    encoder(hci::PacketType::AclData, static_cast<uint16_t>(link.handle() | flags),
            static_cast<uint16_t>(packet.payload.size()), packet.payload);
    mToHost(encoder.take());
}

void Controller::linkDelivered(Link& link)
{
    event(hci::EventCode::NumberOfCompletedPackets, hci::CompletedPackets{1, link.handle(), 1});
}

void Controller::linkEncrypted(Link& link, hci::Status status, bool refreshed)
{
    if (refreshed)
        return event(hci::EventCode::EncryptionKeyRefreshComplete,
                     hci::KeyRefreshComplete{status, link.handle()});
    const uint8_t enabled = status == hci::Status::Success ? 1 : 0;
    event(hci::EventCode::EncryptionChange, hci::EncryptionChange{status, link.handle(), enabled});
}

void Controller::linkUpdated(Link& link)
{
    const LinkParameters& parameters = link.parameters();
    leEvent(hci::LeEvent::ConnectionUpdateComplete,
            hci::ConnectionUpdateComplete{hci::Status::Success, link.handle(), parameters.interval,
                                          parameters.latency, parameters.timeout});
}

void Controller::linkLengthChanged(Link& link)
{
    leEvent(hci::LeEvent::DataLengthChange,
            hci::DataLengthChange{link.handle(), lengths(link.maximumPayload())});
}

void Controller::linkClosed(Link& link, hci::Status reason)
{
    const uint16_t handle = link.handle();
    mLinks.erase(handle);
    event(hci::EventCode::DisconnectionComplete,
          hci::DisconnectionComplete{hci::Status::Success, handle, reason});
}

// ---- state

Link* Controller::find(uint16_t handle) const
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

bool Controller::accepts(const Address& address) const
{
    return std::find(mAcceptList.begin(), mAcceptList.end(), address) != mAcceptList.end();
}

void Controller::updateListening()
{
    mAir.listen(mScanner.enabled() || mInitiating.has_value());
}

void Controller::dropLinks()
{
    for (auto& [handle, link] : mLinks)
        link->cut();
    mLinks.clear();
}

} // namespace vexasim::air
