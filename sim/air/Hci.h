// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Address.h"
#include "sim/air/Bytes.h"

// The packets between the host and its controller: Bluetooth Core 5.0, Vol 2,
// E 7, of which an LE-only controller with legacy advertising needs these.

namespace vexasim::air::hci
{

/// The byte before every packet on the host's transport.
enum class PacketType : uint8_t {
    Command = 0x01,
    AclData = 0x02,
    Event = 0x04,
    Vendor = 0xff,
};

enum class Opcode : uint16_t {
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

enum class EventCode : uint8_t {
    DisconnectionComplete = 0x05,
    EncryptionChange = 0x08,
    ReadRemoteVersionComplete = 0x0c,
    CommandComplete = 0x0e,
    CommandStatus = 0x0f,
    NumberOfCompletedPackets = 0x13,
    EncryptionKeyRefreshComplete = 0x30,
    LeMeta = 0x3e,
};

enum class LeEvent : uint8_t {
    ConnectionComplete = 0x01,
    AdvertisingReport = 0x02,
    ConnectionUpdateComplete = 0x03,
    ReadRemoteFeaturesComplete = 0x04,
    DataLengthChange = 0x07,
};

/// Error codes, Vol 2, D.
enum class Status : uint8_t {
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

// ---- the frames

struct CommandPacket {
    Opcode opcode{};
    uint8_t length = 0;
    Bytes parameters;
    template <class Fields>
    void fields(Fields& f)
    {
        f(opcode, length, parameters);
    }
};

struct EventPacket {
    EventCode code{};
    uint8_t length = 0;
    Bytes parameters;
    template <class Fields>
    void fields(Fields& f)
    {
        f(code, length, parameters);
    }
};

struct AclPacket {
    static constexpr uint16_t kHandleMask = 0x0fff;
    /// The packet boundary flags, in place above the handle.
    static constexpr uint16_t kBoundaryMask = 0x3000;
    static constexpr uint16_t kStartFromHost = 0x0000;
    static constexpr uint16_t kContinuation = 0x1000;
    static constexpr uint16_t kStart = 0x2000;

    uint16_t handleAndFlags = 0;
    uint16_t length = 0;
    Bytes data;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handleAndFlags, length, data);
    }
};

} // namespace vexasim::air::hci
