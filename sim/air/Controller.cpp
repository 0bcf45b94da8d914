// SPDX-License-Identifier: MIT
#include "sim/air/Controller.h"

#include "sim/air/ControllerTraits.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

constexpr uint64_t kDefaultEventMask = 0x00001fffffffffff;
constexpr uint64_t kDefaultLeEventMask = 0x1f;

// LMP features: no BR/EDR, LE.
constexpr uint64_t kLocalFeatures = 0x0000006000000000;
// Every combination of scanning, initiating and being central that legacy
// controllers list.
constexpr uint64_t kSupportedStates = 0x000003ffffffffff;

constexpr uint16_t kBufferLength = 251;
constexpr uint8_t kBufferCount = 8;
constexpr uint8_t kAcceptListSize = 16;
constexpr uint16_t kMinimumPayloadTimeUs = 328;
constexpr uint8_t kTransmitPower = 4;
constexpr int8_t kNoRssi = 127;

} // namespace

// Turns a handler of decoded parameters into one of bytes.
template <class Parameters, void (Controller::*method)(const Parameters&)>
struct Controller::Run<method> {
    static void run(Controller& controller, const Bytes& bytes)
    {
        const auto parameters = decode<Parameters>(bytes);
        if (!parameters)
            return controller.done(hci::Status::InvalidParameters);
        (controller.*method)(*parameters);
    }
};

const std::vector<Controller::Command>& Controller::commands()
{
    using hci::Opcode;
    static const std::vector<Command> table = {
        {Opcode::Disconnect, 0, 5, Run<&Controller::disconnect>::run},
        {Opcode::ReadRemoteVersion, 2, 7, Run<&Controller::readRemoteVersion>::run},
        {Opcode::SetEventMask, 5, 6, Run<&Controller::setEventMask>::run},
        {Opcode::Reset, 5, 7, Run<&Controller::reset>::run},
        {Opcode::ReadTransmitPowerLevel, 10, 2, Run<&Controller::readTransmitPower>::run},
        {Opcode::ReadLocalVersion, 14, 3, Run<&Controller::readLocalVersion>::run},
        {Opcode::ReadLocalCommands, 14, 4, Run<&Controller::readLocalCommands>::run},
        {Opcode::ReadLocalFeatures, 14, 5, Run<&Controller::readLocalFeatures>::run},
        {Opcode::ReadBufferSize, 14, 7, Run<&Controller::readBufferSize>::run},
        {Opcode::ReadAddress, 15, 1, Run<&Controller::readAddress>::run},
        {Opcode::ReadRssi, 15, 5, Run<&Controller::readRssi>::run},
        {Opcode::SetEventMaskPage2, 22, 2, Run<&Controller::setEventMaskPage2>::run},
        {Opcode::ReadLeHostSupport, 24, 5, Run<&Controller::readLeHostSupport>::run},
        {Opcode::WriteLeHostSupport, 24, 6, Run<&Controller::writeLeHostSupport>::run},
        {Opcode::LeSetEventMask, 25, 0, Run<&Controller::setLeEventMask>::run},
        {Opcode::LeReadBufferSize, 25, 1, Run<&Controller::leReadBufferSize>::run},
        {Opcode::LeReadLocalFeatures, 25, 2, Run<&Controller::leReadLocalFeatures>::run},
        {Opcode::LeSetRandomAddress, 25, 4, Run<&Controller::setRandomAddress>::run},
        {Opcode::LeSetAdvertisingParameters, 25, 5, Run<&Controller::setAdvertisingParameters>::run},
        {Opcode::LeReadAdvertisingPower, 25, 6, Run<&Controller::readAdvertisingPower>::run},
        {Opcode::LeSetAdvertisingData, 25, 7, Run<&Controller::setAdvertisingData>::run},
        {Opcode::LeSetScanResponseData, 26, 0, Run<&Controller::setAdvertisingData>::run},
        {Opcode::LeSetAdvertisingEnable, 26, 1, Run<&Controller::setAdvertisingEnable>::run},
        {Opcode::LeSetScanParameters, 26, 2, Run<&Controller::setScanParameters>::run},
        {Opcode::LeSetScanEnable, 26, 3, Run<&Controller::setScanEnable>::run},
        {Opcode::LeCreateConnection, 26, 4, Run<&Controller::createConnection>::run},
        {Opcode::LeCreateConnectionCancel, 26, 5, Run<&Controller::cancelConnection>::run},
        {Opcode::LeReadAcceptListSize, 26, 6, Run<&Controller::readAcceptListSize>::run},
        {Opcode::LeClearAcceptList, 26, 7, Run<&Controller::clearAcceptList>::run},
        {Opcode::LeAddToAcceptList, 27, 0, Run<&Controller::addToAcceptList>::run},
        {Opcode::LeRemoveFromAcceptList, 27, 1, Run<&Controller::removeFromAcceptList>::run},
        {Opcode::LeConnectionUpdate, 27, 2, Run<&Controller::updateConnection>::run},
        {Opcode::LeSetHostChannels, 27, 3, Run<&Controller::setHostChannels>::run},
        {Opcode::LeReadChannelMap, 27, 4, Run<&Controller::readChannelMap>::run},
        {Opcode::LeReadRemoteFeatures, 27, 5, Run<&Controller::readRemoteFeatures>::run},
        {Opcode::LeEncrypt, 27, 6, Run<&Controller::encrypt>::run},
        {Opcode::LeRand, 27, 7, Run<&Controller::random>::run},
        {Opcode::LeStartEncryption, 28, 0, Run<&Controller::startEncryption>::run},
        {Opcode::LeLongTermKeyReply, 28, 1, Run<&Controller::replyWithKey>::run},
        {Opcode::LeLongTermKeyNegativeReply, 28, 2, Run<&Controller::replyWithoutKey>::run},
        {Opcode::LeReadSupportedStates, 28, 3, Run<&Controller::leReadSupportedStates>::run},
        {Opcode::LeSetDataLength, 33, 6, Run<&Controller::setDataLength>::run},
        {Opcode::LeReadDefaultDataLength, 33, 7, Run<&Controller::readDefaultDataLength>::run},
        {Opcode::LeWriteDefaultDataLength, 34, 0, Run<&Controller::writeDefaultDataLength>::run},
        {Opcode::LeReadMaximumDataLength, 35, 3, Run<&Controller::readMaximumDataLength>::run},
    };
    return table;
}

Controller::Controller(Clock& clock, Air& air, const ControllerOptions& options, ToHost toHost)
    : mClock(clock),
      mAir(air),
      mOptions(options),
      mToHost(std::move(toHost)),
      mEventMask(kDefaultEventMask),
      mLeEventMask(kDefaultLeEventMask),
      mScanner(clock),
      mDefaultDataLength{traits::kMinimumPayload, kMinimumPayloadTimeUs},
      mNextHandle(traits::kFirstHandle)
{
    mAir.setListener(this);
}

Controller::~Controller()
{
    dropLinks();
    mAir.listen(false);
    mAir.setListener(nullptr);
}

// ---- from the host

void Controller::receive(const Bytes& packet)
{
    if (packet.empty())
        return;
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
    if (!command)
        return;
    mCurrent = command->opcode;
    const auto& table = commands();
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const Command& entry) { return entry.opcode == command->opcode; });
    if (found == table.end())
        return commandStatus(hci::Status::UnknownCommand);
    if (command->length != command->parameters.size())
        return done(hci::Status::InvalidParameters);
    found->run(*this, command->parameters);
}

void Controller::receiveData(const Bytes& packet)
{
    const auto acl = decode<hci::AclPacket>(packet);
    if (!acl || acl->length != acl->data.size() || acl->data.size() > kBufferLength)
        return;
    Link* link = find(acl->handleAndFlags & hci::AclPacket::kHandleMask);
    if (link == nullptr)
        return;
    const bool continues =
        (acl->handleAndFlags & hci::AclPacket::kBoundaryMask) == hci::AclPacket::kContinuation;
    link->sendFromCentral({continues ? LinkPacket::Continuation : LinkPacket::Start, acl->data});
}

void Controller::reset(const hci::NoParameters&)
{
    dropLinks();
    mScanner.setParameters({});
    mScanner.enable(false, false);
    mInitiating.reset();
    mAcceptList.clear();
    mRandomAddress = {};
    mEventMask = kDefaultEventMask;
    mLeEventMask = kDefaultLeEventMask;
    mDefaultDataLength = {traits::kMinimumPayload, kMinimumPayloadTimeUs};
    updateListening();
    done();
}

void Controller::readLocalVersion(const hci::NoParameters&)
{
    answer(hci::LocalVersion{traits::kBluetooth50, 0, traits::kBluetooth50, traits::kNoManufacturer, 0});
}

void Controller::readLocalCommands(const hci::NoParameters&)
{
    hci::LocalCommands supported;
    for (const auto& command : commands())
        supported.map[command.octet] |= static_cast<uint8_t>(1U << command.bit);
    answer(supported);
}

void Controller::readLocalFeatures(const hci::NoParameters&)
{
    answer(hci::FeatureMap{kLocalFeatures});
}

void Controller::readBufferSize(const hci::NoParameters&)
{
    answer(hci::BufferSize{kBufferLength, 0, kBufferCount, 0});
}

void Controller::readAddress(const hci::NoParameters&)
{
    answer(hci::RandomAddress{mOptions.address.octets});
}

void Controller::readRssi(const hci::HandleOnly& command)
{
    const Link* link = find(command.handle);
    if (link == nullptr)
        return done(hci::Status::UnknownConnection);
    const int8_t rssi = link->device() != nullptr ? link->device()->rssi() : kNoRssi;
    answer(hci::HandleAndOctet{command.handle, static_cast<uint8_t>(rssi)});
}

void Controller::readTransmitPower(const hci::ReadTransmitPowerLevel& command)
{
    if (find(command.handle) == nullptr)
        return done(hci::Status::UnknownConnection);
    answer(hci::HandleAndOctet{command.handle, kTransmitPower});
}

void Controller::readLeHostSupport(const hci::NoParameters&)
{
    answer(hci::LeHostSupport{1, 0});
}

void Controller::leReadBufferSize(const hci::NoParameters&)
{
    answer(hci::LeBufferSize{kBufferLength, kBufferCount});
}

void Controller::leReadLocalFeatures(const hci::NoParameters&)
{
    answer(hci::FeatureMap{traits::kLeEncryption | traits::kLeDataLength});
}

void Controller::leReadSupportedStates(const hci::NoParameters&)
{
    answer(hci::FeatureMap{kSupportedStates});
}

void Controller::setRandomAddress(const hci::RandomAddress& command)
{
    if (mScanner.enabled())
        return done(hci::Status::CommandDisallowed);
    mRandomAddress = command.octets;
    done();
}

void Controller::readAdvertisingPower(const hci::NoParameters&)
{
    answer(hci::Octet{kTransmitPower});
}

void Controller::encrypt(const hci::Encrypt& command)
{
    answer(hci::BlockResult{encryptBlock(command.key, command.block)});
}

void Controller::random(const hci::NoParameters&)
{
    answer(hci::RandomNumber{randomArray<8>()});
}

// ---- scanning

void Controller::setScanParameters(const hci::ScanParameters& command)
{
    if (mScanner.enabled())
        return done(hci::Status::CommandDisallowed);
    mScanner.setParameters(command);
    done();
}

void Controller::setScanEnable(const hci::ScanEnable& command)
{
    mScanner.enable(command.enable != 0, command.filterDuplicates != 0);
    updateListening();
    done();
}

void Controller::readAcceptListSize(const hci::NoParameters&)
{
    answer(hci::Octet{kAcceptListSize});
}

void Controller::clearAcceptList(const hci::NoParameters&)
{
    if (acceptListInUse())
        return done(hci::Status::CommandDisallowed);
    mAcceptList.clear();
    done();
}

void Controller::addToAcceptList(const hci::AcceptListEntry& command)
{
    if (acceptListInUse())
        return done(hci::Status::CommandDisallowed);
    if (accepts(command.address))
        return done();
    if (mAcceptList.size() == kAcceptListSize)
        return done(hci::Status::MemoryExceeded);
    mAcceptList.push_back(command.address);
    done();
}

void Controller::removeFromAcceptList(const hci::AcceptListEntry& command)
{
    if (acceptListInUse())
        return done(hci::Status::CommandDisallowed);
    mAcceptList.erase(std::remove(mAcceptList.begin(), mAcceptList.end(), command.address),
                      mAcceptList.end());
    done();
}

// ---- to the host

void Controller::done(hci::Status status)
{
    complete(encode(hci::StatusOnly{status}));
}

void Controller::complete(const Bytes& returned)
{
    event(hci::EventCode::CommandComplete, hci::CommandComplete{1, mCurrent, returned});
}

void Controller::commandStatus(hci::Status status)
{
    event(hci::EventCode::CommandStatus, hci::CommandStatus{status, 1, mCurrent});
}

void Controller::sendEvent(hci::EventCode code, const Bytes& parameters)
{
    Encoder encoder;
    encoder(hci::PacketType::Event, code, static_cast<uint8_t>(parameters.size()), parameters);
    mToHost(encoder.take());
}

} // namespace vexasim::air
