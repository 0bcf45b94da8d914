// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Address.h"
#include "sim/air/Bytes.h"

// The packets between the host and its controller, Bluetooth Core 5.0, Vol 2, E 7: those that an LE-only
// controller with legacy advertising needs.

namespace vexasim::air::hci
{

/// The byte in front of every packet on the host's transport.
enum class PacketType : std::uint8_t {
    Command = 0x01,
    AclData = 0x02,
    Event = 0x04,
    Vendor = 0xff,
};

enum class Opcode : std::uint16_t {
    Disconnect = 0x0406,
    ReadRemoteVersion = 0x041d,
    SetEventMask = 0x0c01,
    Reset = 0x0c03,
    ReadTransmitPowerLevel = 0x0c2d,
    SetEventMaskPage2 = 0x0c63,
    ReadLeHostSupport = 0x0c6c,
    WriteLeHostSupport = 0x0c6d,
    ReadLocalVersion = 0x1001,
    ReadLocalCommands = 0x1002,
    ReadLocalFeatures = 0x1003,
    ReadBufferSize = 0x1005,
    ReadAddress = 0x1009,
    ReadRssi = 0x1405,
    LeSetEventMask = 0x2001,
    LeReadBufferSize = 0x2002,
    LeReadLocalFeatures = 0x2003,
    LeSetRandomAddress = 0x2005,
    LeSetAdvertisingParameters = 0x2006,
    LeReadAdvertisingPower = 0x2007,
    LeSetAdvertisingData = 0x2008,
    LeSetScanResponseData = 0x2009,
    LeSetAdvertisingEnable = 0x200a,
    LeSetScanParameters = 0x200b,
    LeSetScanEnable = 0x200c,
    LeCreateConnection = 0x200d,
    LeCreateConnectionCancel = 0x200e,
    LeReadAcceptListSize = 0x200f,
    LeClearAcceptList = 0x2010,
    LeAddToAcceptList = 0x2011,
    LeRemoveFromAcceptList = 0x2012,
    LeConnectionUpdate = 0x2013,
    LeSetHostChannels = 0x2014,
    LeReadChannelMap = 0x2015,
    LeReadRemoteFeatures = 0x2016,
    LeEncrypt = 0x2017,
    LeRand = 0x2018,
    LeStartEncryption = 0x2019,
    LeLongTermKeyReply = 0x201a,
    LeLongTermKeyNegativeReply = 0x201b,
    LeReadSupportedStates = 0x201c,
    LeSetDataLength = 0x2022,
    LeReadDefaultDataLength = 0x2023,
    LeWriteDefaultDataLength = 0x2024,
    LeReadMaximumDataLength = 0x202f,
};

enum class EventCode : std::uint8_t {
    DisconnectionComplete = 0x05,
    EncryptionChange = 0x08,
    ReadRemoteVersionComplete = 0x0c,
    CommandComplete = 0x0e,
    CommandStatus = 0x0f,
    NumberOfCompletedPackets = 0x13,
    EncryptionKeyRefreshComplete = 0x30,
    LeMeta = 0x3e,
};

enum class LeEvent : std::uint8_t {
    ConnectionComplete = 0x01,
    AdvertisingReport = 0x02,
    ConnectionUpdateComplete = 0x03,
    ReadRemoteFeaturesComplete = 0x04,
    DataLengthChange = 0x07,
};

/// Error codes, Vol 2, D.
enum class Status : std::uint8_t {
    Success = 0x00,
    UnknownCommand = 0x01,
    UnknownConnection = 0x02,
    KeyMissing = 0x06,
    MemoryExceeded = 0x07,
    ConnectionTimeout = 0x08,
    ConnectionExists = 0x0b,
    CommandDisallowed = 0x0c,
    InvalidParameters = 0x12,
    RemoteUserEnded = 0x13,
    RemotePowerOff = 0x15,
    LocalHostEnded = 0x16,
    UnsupportedRemoteFeature = 0x1a,
    MicFailure = 0x3d,
    FailedToEstablish = 0x3e,
};

// --- the frames ---

struct CommandPacket {
    Opcode opcode{};
    std::uint8_t length = 0;
    Bytes parameters;
    auto fields() { return std::tie(opcode, length, parameters); }
};

struct EventPacket {
    EventCode code{};
    std::uint8_t length = 0;
    Bytes parameters;
    auto fields() { return std::tie(code, length, parameters); }
};

struct AclPacket {
    static constexpr std::uint16_t kHandleMask = 0x0fff;
    /// The packet boundary flags, in place above the handle.
    static constexpr std::uint16_t kBoundaryMask = 0x3000;
    static constexpr std::uint16_t kContinuation = 0x1000;
    static constexpr std::uint16_t kStart = 0x2000;

    std::uint16_t handleAndFlags = 0;
    std::uint16_t length = 0;
    Bytes data;
    auto fields() { return std::tie(handleAndFlags, length, data); }
};

// --- parameters of commands with more than a few ---

struct ConnectionParameters {
    std::uint16_t minimumInterval = 0; ///< units of 1.25 ms
    std::uint16_t maximumInterval = 0;
    std::uint16_t latency = 0; ///< connection events that the peripheral may skip
    std::uint16_t timeout = 0; ///< units of 10 ms
    std::uint16_t minimumEventLength = 0;
    std::uint16_t maximumEventLength = 0;
    auto fields()
    {
        return std::tie(minimumInterval, maximumInterval, latency, timeout, minimumEventLength,
                        maximumEventLength);
    }
};

struct CreateConnection {
    std::uint16_t scanInterval = 0; ///< units of 0.625 ms
    std::uint16_t scanWindow = 0;
    std::uint8_t useAcceptList = 0;
    Address peer;
    std::uint8_t ownAddressKind = 0;
    ConnectionParameters parameters;
    auto fields()
    {
        return std::tie(scanInterval, scanWindow, useAcceptList, peer, ownAddressKind, parameters);
    }
};

// --- events, each with its code ---

struct CommandComplete {
    static constexpr auto kCode = EventCode::CommandComplete;
    std::uint8_t commandsAllowed = 1;
    Opcode opcode{};
    Bytes returned; ///< the status, then the command's results
    auto fields() { return std::tie(commandsAllowed, opcode, returned); }
};

struct CommandStatus {
    static constexpr auto kCode = EventCode::CommandStatus;
    Status status = Status::Success;
    std::uint8_t commandsAllowed = 1;
    Opcode opcode{};
    auto fields() { return std::tie(status, commandsAllowed, opcode); }
};

struct DisconnectionComplete {
    static constexpr auto kCode = EventCode::DisconnectionComplete;
    Status status = Status::Success;
    std::uint16_t handle = 0;
    Status reason{};
    auto fields() { return std::tie(status, handle, reason); }
};

struct EncryptionChange {
    static constexpr auto kCode = EventCode::EncryptionChange;
    Status status = Status::Success;
    std::uint16_t handle = 0;
    std::uint8_t enabled = 0;
    auto fields() { return std::tie(status, handle, enabled); }
};

struct KeyRefreshComplete {
    static constexpr auto kCode = EventCode::EncryptionKeyRefreshComplete;
    Status status = Status::Success;
    std::uint16_t handle = 0;
    auto fields() { return std::tie(status, handle); }
};

struct RemoteVersion {
    static constexpr auto kCode = EventCode::ReadRemoteVersionComplete;
    Status status = Status::Success;
    std::uint16_t handle = 0;
    std::uint8_t version = 0;
    std::uint16_t manufacturer = 0;
    std::uint16_t revision = 0;
    auto fields() { return std::tie(status, handle, version, manufacturer, revision); }
};

/// For one link; the event could name several.
struct CompletedPackets {
    static constexpr auto kCode = EventCode::NumberOfCompletedPackets;
    std::uint8_t handles = 1;
    std::uint16_t handle = 0;
    std::uint16_t count = 0;
    auto fields() { return std::tie(handles, handle, count); }
};

struct ConnectionComplete {
    static constexpr auto kCode = LeEvent::ConnectionComplete;
    Status status = Status::Success;
    std::uint16_t handle = 0;
    std::uint8_t role = 0; ///< 0: central
    Address peer;
    std::uint16_t interval = 0; ///< units of 1.25 ms
    std::uint16_t latency = 0;
    std::uint16_t timeout = 0; ///< units of 10 ms
    std::uint8_t clockAccuracy = 0;
    auto fields() { return std::tie(status, handle, role, peer, interval, latency, timeout, clockAccuracy); }
};

struct AdvertisingReport {
    static constexpr auto kCode = LeEvent::AdvertisingReport;
    enum class Type : std::uint8_t { Connectable = 0x00, NonConnectable = 0x03, ScanResponse = 0x04 };

    std::uint8_t count = 1; ///< of reports in the event; here always one
    Type type{};
    Address address;
    std::uint8_t length = 0;
    /// The data, then the signal strength in dBm.
    Bytes dataAndRssi;
    auto fields() { return std::tie(count, type, address, length, dataAndRssi); }
};

struct ConnectionUpdateComplete {
    static constexpr auto kCode = LeEvent::ConnectionUpdateComplete;
    Status status = Status::Success;
    std::uint16_t handle = 0;
    std::uint16_t interval = 0; ///< units of 1.25 ms
    std::uint16_t latency = 0;
    std::uint16_t timeout = 0; ///< units of 10 ms
    auto fields() { return std::tie(status, handle, interval, latency, timeout); }
};

struct RemoteFeatures {
    static constexpr auto kCode = LeEvent::ReadRemoteFeaturesComplete;
    Status status = Status::Success;
    std::uint16_t handle = 0;
    std::uint64_t features = 0;
    auto fields() { return std::tie(status, handle, features); }
};

struct DataLengthChange {
    static constexpr auto kCode = LeEvent::DataLengthChange;
    std::uint16_t handle = 0;
    std::uint16_t sendOctets = 0;
    std::uint16_t sendTimeUs = 0;
    std::uint16_t receiveOctets = 0;
    std::uint16_t receiveTimeUs = 0;
    auto fields() { return std::tie(handle, sendOctets, sendTimeUs, receiveOctets, receiveTimeUs); }
};

} // namespace vexasim::air::hci
