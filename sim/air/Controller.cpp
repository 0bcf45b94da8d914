// SPDX-License-Identifier: MIT
#include "sim/air/Controller.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

// LMP features: no BR/EDR, LE.
constexpr std::uint64_t kLocalFeatures = 0x0000006000000000;
// All combinations of scanning, initiating and the central role that legacy controllers list.
constexpr std::uint64_t kSupportedStates = 0x000003ffffffffff;

constexpr std::uint16_t kBufferLength = 251;
constexpr std::uint8_t kBufferCount = 8;
constexpr std::uint8_t kAcceptListSize = 16;
constexpr std::uint16_t kMaximumPayloadTimeUs = 2120;
constexpr std::uint8_t kTransmitPower = 4;
constexpr std::int8_t kNoRssi = 127;
constexpr std::uint8_t kNone = 0;

} // namespace

template <auto method>
void Controller::handle(Controller& controller, const Bytes& parameters)
{
    if (!callDecoded<method>(controller, parameters)) {
        controller.done(hci::Status::InvalidParameters);
    }
}

template <class... Field>
Controller::Run Controller::answering(const Field&... fields)
{
    return [answer = encode(hci::Status::Success, fields...)](Controller& controller, const Bytes& none) {
        return none.empty() ? controller.complete(answer) : controller.done(hci::Status::InvalidParameters);
    };
}

template <std::size_t size>
void Controller::accept(Controller& controller, const Bytes& parameters)
{
    controller.done(parameters.size() == size ? hci::Status::Success : hci::Status::InvalidParameters);
}

const std::vector<Controller::Command> Controller::kCommands = {
    {hci::Opcode::Disconnect, 0, 5, handle<&Controller::disconnect>},
    {hci::Opcode::ReadRemoteVersion, 2, 7, handle<&Controller::readRemoteVersion>},
    {hci::Opcode::SetEventMask, 5, 6, handle<&Controller::setEventMask>},
    {hci::Opcode::Reset, 5, 7, handle<&Controller::reset>},
    {hci::Opcode::ReadTransmitPowerLevel, 10, 2, handle<&Controller::readTransmitPower>},
    {hci::Opcode::ReadLocalVersion, 14, 3,
     answering(kBluetooth50, std::uint16_t{kNone}, kBluetooth50, kNoManufacturer, std::uint16_t{kNone})},
    {hci::Opcode::ReadLocalCommands, 14, 4, handle<&Controller::readLocalCommands>},
    {hci::Opcode::ReadLocalFeatures, 14, 5, answering(kLocalFeatures)},
    {hci::Opcode::ReadBufferSize, 14, 7,
     answering(kBufferLength, kNone, std::uint16_t{kBufferCount}, std::uint16_t{kNone})},
    {hci::Opcode::ReadAddress, 15, 1, handle<&Controller::readAddress>},
    {hci::Opcode::ReadRssi, 15, 5, handle<&Controller::readRssi>},
    {hci::Opcode::SetEventMaskPage2, 22, 2, accept<8>},
    {hci::Opcode::ReadLeHostSupport, 24, 5, answering(std::uint8_t{1}, kNone)},
    {hci::Opcode::WriteLeHostSupport, 24, 6, accept<2>},
    {hci::Opcode::LeSetEventMask, 25, 0, handle<&Controller::setLeEventMask>},
    {hci::Opcode::LeReadBufferSize, 25, 1, answering(kBufferLength, kBufferCount)},
    {hci::Opcode::LeReadLocalFeatures, 25, 2, answering(kLeEncryption | kLeDataLength)},
    {hci::Opcode::LeSetRandomAddress, 25, 4, handle<&Controller::setRandomAddress>},
    {hci::Opcode::LeSetAdvertisingParameters, 25, 5, accept<15>},
    {hci::Opcode::LeReadAdvertisingPower, 25, 6, answering(kTransmitPower)},
    {hci::Opcode::LeSetAdvertisingData, 25, 7, accept<32>},
    {hci::Opcode::LeSetScanResponseData, 26, 0, accept<32>},
    {hci::Opcode::LeSetAdvertisingEnable, 26, 1, accept<1>},
    {hci::Opcode::LeSetScanParameters, 26, 2, handle<&Controller::setScanParameters>},
    {hci::Opcode::LeSetScanEnable, 26, 3, handle<&Controller::setScanEnable>},
    {hci::Opcode::LeCreateConnection, 26, 4, handle<&Controller::createConnection>},
    {hci::Opcode::LeCreateConnectionCancel, 26, 5, handle<&Controller::cancelConnection>},
    {hci::Opcode::LeReadAcceptListSize, 26, 6, answering(kAcceptListSize)},
    {hci::Opcode::LeClearAcceptList, 26, 7, handle<&Controller::clearAcceptList>},
    {hci::Opcode::LeAddToAcceptList, 27, 0, handle<&Controller::addToAcceptList>},
    {hci::Opcode::LeRemoveFromAcceptList, 27, 1, handle<&Controller::removeFromAcceptList>},
    {hci::Opcode::LeConnectionUpdate, 27, 2, handle<&Controller::updateConnection>},
    {hci::Opcode::LeSetHostChannels, 27, 3, accept<5>},
    {hci::Opcode::LeReadChannelMap, 27, 4, handle<&Controller::readChannelMap>},
    {hci::Opcode::LeReadRemoteFeatures, 27, 5, handle<&Controller::readRemoteFeatures>},
    {hci::Opcode::LeEncrypt, 27, 6, handle<&Controller::encrypt>},
    {hci::Opcode::LeRand, 27, 7, handle<&Controller::random>},
    {hci::Opcode::LeStartEncryption, 28, 0, handle<&Controller::startEncryption>},
    {hci::Opcode::LeLongTermKeyReply, 28, 1, handle<&Controller::replyWithKey>},
    {hci::Opcode::LeLongTermKeyNegativeReply, 28, 2, handle<&Controller::replyWithoutKey>},
    {hci::Opcode::LeReadSupportedStates, 28, 3, answering(kSupportedStates)},
    {hci::Opcode::LeSetDataLength, 33, 6, handle<&Controller::setDataLength>},
    {hci::Opcode::LeReadDefaultDataLength, 33, 7, handle<&Controller::readDefaultDataLength>},
    {hci::Opcode::LeWriteDefaultDataLength, 34, 0, handle<&Controller::writeDefaultDataLength>},
    {hci::Opcode::LeReadMaximumDataLength, 35, 3,
     answering(kMaximumPayload, kMaximumPayloadTimeUs, kMaximumPayload, kMaximumPayloadTimeUs)},
};

Controller::Controller(Scheduler& scheduler, Air& air, const ControllerOptions& options, ToHost toHost)
    : mScheduler(scheduler), mAir(air), mOptions(options), mToHost(std::move(toHost)), mScanner(scheduler)
{
    mAir.setListener(this);
}

Controller::~Controller()
{
    dropLinks();
    mAir.listen(false);
    mAir.setListener(nullptr);
}

// --- from the host ---

void Controller::receive(const Bytes& packet)
{
    if (packet.empty()) {
        return;
    }
    const Bytes body(packet.begin() + 1, packet.end());
    switch (static_cast<hci::PacketType>(packet.front())) {
    case hci::PacketType::Command:
        return receiveCommand(body);
    case hci::PacketType::AclData:
        return receiveData(body);
    default:
        return;
    }
}

void Controller::receiveCommand(const Bytes& packet)
{
    const auto command = decode<hci::CommandPacket>(packet);
    if (!command) {
        return;
    }
    mCurrent = command->opcode;
    const auto found = std::find_if(kCommands.begin(), kCommands.end(),
                                    [&](const Command& entry) { return entry.opcode == command->opcode; });
    if (found == kCommands.end()) {
        return commandStatus(hci::Status::UnknownCommand);
    }
    if (command->length != command->parameters.size()) {
        return done(hci::Status::InvalidParameters);
    }
    found->run(*this, command->parameters);
}

void Controller::receiveData(const Bytes& packet)
{
    const auto acl = decode<hci::AclPacket>(packet);
    if (!acl || acl->length != acl->data.size() || acl->data.size() > kBufferLength) {
        return;
    }
    Link* link = find(acl->handleAndFlags & hci::AclPacket::kHandleMask);
    if (link == nullptr) {
        return;
    }
    const bool continues =
        (acl->handleAndFlags & hci::AclPacket::kBoundaryMask) == hci::AclPacket::kContinuation;
    link->sendFromCentral({continues ? LinkPacket::Continuation : LinkPacket::Start, acl->data});
}

void Controller::reset()
{
    dropLinks();
    mScanner = Scanner(mScheduler);
    mInitiating.reset();
    mAcceptList.clear();
    mRandomAddress = {};
    mEventMask = kDefaultEventMask;
    mLeEventMask = kDefaultLeEventMask;
    mDefaultOctets = kMinimumPayload;
    mDefaultTimeUs = kMinimumPayloadTimeUs;
    updateListening();
    done();
}

void Controller::readLocalCommands()
{
    std::array<std::uint8_t, 64> supported{};
    for (const auto& command : kCommands) {
        supported[command.octet] |= static_cast<std::uint8_t>(1U << command.bit);
    }
    answer(supported);
}

void Controller::readRssi(std::uint16_t handle)
{
    const Link* link = find(handle);
    if (link == nullptr) {
        return done(hci::Status::UnknownConnection);
    }
    answer(handle, link->device() != nullptr ? link->device()->rssi() : kNoRssi);
}

void Controller::readTransmitPower(std::uint16_t handle, std::uint8_t /*type*/)
{
    if (find(handle) == nullptr) {
        return done(hci::Status::UnknownConnection);
    }
    answer(handle, kTransmitPower);
}

void Controller::setRandomAddress(const AddressOctets& octets)
{
    if (mScanner.enabled()) {
        return done(hci::Status::CommandDisallowed);
    }
    mRandomAddress = octets;
    done();
}

// --- scanning ---

void Controller::setScanParameters(std::uint8_t active, std::uint16_t /*interval*/, std::uint16_t /*window*/,
                                   std::uint8_t /*ownAddressKind*/, std::uint8_t filterPolicy)
{
    constexpr std::uint8_t kAcceptListOnly = 1;
    if (mScanner.enabled()) {
        return done(hci::Status::CommandDisallowed);
    }
    mScanner.setParameters(active != 0, (filterPolicy & kAcceptListOnly) != 0);
    done();
}

void Controller::setScanEnable(std::uint8_t enable, std::uint8_t filterDuplicates)
{
    mScanner.enable(enable != 0, filterDuplicates != 0);
    updateListening();
    done();
}

void Controller::clearAcceptList()
{
    if (acceptListInUse()) {
        return done(hci::Status::CommandDisallowed);
    }
    mAcceptList.clear();
    done();
}

void Controller::addToAcceptList(const Address& address)
{
    if (acceptListInUse()) {
        return done(hci::Status::CommandDisallowed);
    }
    if (mAcceptList.count(address) == 0 && mAcceptList.size() == kAcceptListSize) {
        return done(hci::Status::MemoryExceeded);
    }
    mAcceptList.insert(address);
    done();
}

void Controller::removeFromAcceptList(const Address& address)
{
    if (acceptListInUse()) {
        return done(hci::Status::CommandDisallowed);
    }
    mAcceptList.erase(address);
    done();
}

// --- to the host ---

Link* Controller::startOn(std::uint16_t handle)
{
    Link* link = find(handle);
    commandStatus(link != nullptr ? hci::Status::Success : hci::Status::UnknownConnection);
    return link;
}

void Controller::send(hci::EventCode code, const Bytes& parameters)
{
    // Answers to commands and flow control events can't be masked.
    const bool always = code == hci::EventCode::CommandComplete || code == hci::EventCode::CommandStatus ||
                        code == hci::EventCode::NumberOfCompletedPackets;
    const std::uint64_t bit = std::uint64_t{1} << (static_cast<unsigned>(code) - 1);
    if (always || (mEventMask & bit) != 0) {
        mToHost(
            encode(hci::PacketType::Event, code, static_cast<std::uint8_t>(parameters.size()), parameters));
    }
}

void Controller::send(hci::LeEvent code, const Bytes& parameters)
{
    const std::uint64_t bit = std::uint64_t{1} << (static_cast<unsigned>(code) - 1);
    if ((mLeEventMask & bit) != 0) {
        send(hci::EventCode::LeMeta, encode(code, parameters));
    }
}

} // namespace vexasim::air
