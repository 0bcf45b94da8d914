// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Hci.h"
#include "sim/air/PairingToolbox.h"

// What the controller answers to commands, and the events that it sends.

namespace vexasim::air::hci
{

// ---- what a command complete event returns behind its status

struct StatusOnly {
    Status status = Status::Success;
    template <class Fields>
    void fields(Fields& f)
    {
        f(status);
    }
};

/// A status and a structure of the command's own.
template <class Result>
struct Returned {
    Status status = Status::Success;
    Result result;
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, result);
    }
};

struct LocalVersion {
    uint8_t hciVersion = 0;
    uint16_t hciRevision = 0;
    uint8_t linkVersion = 0;
    uint16_t manufacturer = 0;
    uint16_t linkRevision = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(hciVersion, hciRevision, linkVersion, manufacturer, linkRevision);
    }
};

struct LocalCommands {
    std::array<uint8_t, 64> map{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(map);
    }
};

struct FeatureMap {
    uint64_t features = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(features);
    }
};

struct BufferSize {
    uint16_t aclLength = 0;
    uint8_t synchronousLength = 0;
    uint16_t aclCount = 0;
    uint16_t synchronousCount = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(aclLength, synchronousLength, aclCount, synchronousCount);
    }
};

struct LeBufferSize {
    uint16_t length = 0;
    uint8_t count = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(length, count);
    }
};

/// One byte: a list's size, or a power in dBm.
struct Octet {
    uint8_t value = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(value);
    }
};

struct HandleAndOctet {
    uint16_t handle = 0;
    uint8_t value = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, value);
    }
};

struct ChannelMap {
    uint16_t handle = 0;
    std::array<uint8_t, 5> map{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, map);
    }
};

struct BlockResult {
    Key128 block{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(block);
    }
};

struct RandomNumber {
    std::array<uint8_t, 8> number{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(number);
    }
};

struct MaximumDataLength {
    uint16_t sendOctets = 0;
    uint16_t sendTimeUs = 0;
    uint16_t receiveOctets = 0;
    uint16_t receiveTimeUs = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(sendOctets, sendTimeUs, receiveOctets, receiveTimeUs);
    }
};

// ---- events

struct CommandComplete {
    uint8_t commandsAllowed = 1;
    Opcode opcode{};
    Bytes returned;
    template <class Fields>
    void fields(Fields& f)
    {
        f(commandsAllowed, opcode, returned);
    }
};

struct CommandStatus {
    Status status = Status::Success;
    uint8_t commandsAllowed = 1;
    Opcode opcode{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, commandsAllowed, opcode);
    }
};

struct DisconnectionComplete {
    Status status = Status::Success;
    uint16_t handle = 0;
    Status reason{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, handle, reason);
    }
};

struct EncryptionChange {
    Status status = Status::Success;
    uint16_t handle = 0;
    uint8_t enabled = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, handle, enabled);
    }
};

struct KeyRefreshComplete {
    Status status = Status::Success;
    uint16_t handle = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, handle);
    }
};

struct RemoteVersion {
    Status status = Status::Success;
    uint16_t handle = 0;
    uint8_t version = 0;
    uint16_t manufacturer = 0;
    uint16_t revision = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, handle, version, manufacturer, revision);
    }
};

/// For one link; the event could name several.
struct CompletedPackets {
    uint8_t handles = 1;
    uint16_t handle = 0;
    uint16_t count = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handles, handle, count);
    }
};

struct LeMeta {
    LeEvent event{};
    Bytes parameters;
    template <class Fields>
    void fields(Fields& f)
    {
        f(event, parameters);
    }
};

struct ConnectionComplete {
    Status status = Status::Success;
    uint16_t handle = 0;
    uint8_t role = 0; ///< 0: central
    Address peer;
    uint16_t interval = 0; ///< units of 1.25 ms
    uint16_t latency = 0;
    uint16_t timeout = 0; ///< units of 10 ms
    uint8_t clockAccuracy = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, handle, role, peer, interval, latency, timeout, clockAccuracy);
    }
};

struct AdvertisingReport {
    enum class Type : uint8_t { Connectable = 0x00, NonConnectable = 0x03, ScanResponse = 0x04 };

    uint8_t count = 1; ///< of reports in the event; here always one
    Type type{};
    Address address;
    uint8_t length = 0;
    /// The data, and behind it the signal strength in dBm.
    Bytes dataAndRssi;
    template <class Fields>
    void fields(Fields& f)
    {
        f(count, type, address, length, dataAndRssi);
    }
};

struct ConnectionUpdateComplete {
    Status status = Status::Success;
    uint16_t handle = 0;
    uint16_t interval = 0; ///< units of 1.25 ms
    uint16_t latency = 0;
    uint16_t timeout = 0; ///< units of 10 ms
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, handle, interval, latency, timeout);
    }
};

struct RemoteFeatures {
    Status status = Status::Success;
    uint16_t handle = 0;
    uint64_t features = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(status, handle, features);
    }
};

struct DataLengthChange {
    uint16_t handle = 0;
    MaximumDataLength lengths;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, lengths);
    }
};

} // namespace vexasim::air::hci
