// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Hci.h"
#include "sim/air/PairingToolbox.h"

// The parameters of the commands, in the order of the core documents.

namespace vexasim::air::hci
{

struct NoParameters {
    template <class Fields>
    void fields(Fields& f)
    {
        f();
    }
};

struct HandleOnly {
    uint16_t handle = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle);
    }
};

struct EventMask {
    uint64_t mask = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(mask);
    }
};

struct Disconnect {
    uint16_t handle = 0;
    Status reason{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, reason);
    }
};

struct LeHostSupport {
    uint8_t supported = 0;
    uint8_t simultaneous = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(supported, simultaneous);
    }
};

struct ReadTransmitPowerLevel {
    uint16_t handle = 0;
    uint8_t type = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, type);
    }
};

struct RandomAddress {
    std::array<uint8_t, 6> octets{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(octets);
    }
};

struct AdvertisingParameters {
    uint16_t minimum = 0; ///< units of 0.625 ms
    uint16_t maximum = 0;
    uint8_t type = 0;
    uint8_t ownAddressKind = 0;
    Address peer;
    uint8_t channels = 0;
    uint8_t filterPolicy = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(minimum, maximum, type, ownAddressKind, peer, channels, filterPolicy);
    }
};

struct AdvertisingData {
    uint8_t length = 0;
    std::array<uint8_t, 31> data{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(length, data);
    }
};

struct Enable {
    uint8_t enable = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(enable);
    }
};

struct ScanParameters {
    uint8_t active = 0;
    uint16_t interval = 0; ///< units of 0.625 ms
    uint16_t window = 0;   ///< units of 0.625 ms
    uint8_t ownAddressKind = 0;
    uint8_t filterPolicy = 0; ///< bit 0: the accept list alone
    template <class Fields>
    void fields(Fields& f)
    {
        f(active, interval, window, ownAddressKind, filterPolicy);
    }
};

struct ScanEnable {
    uint8_t enable = 0;
    uint8_t filterDuplicates = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(enable, filterDuplicates);
    }
};

struct CreateConnection {
    uint16_t scanInterval = 0; ///< units of 0.625 ms
    uint16_t scanWindow = 0;
    uint8_t useAcceptList = 0;
    Address peer;
    uint8_t ownAddressKind = 0;
    uint16_t minimumInterval = 0; ///< units of 1.25 ms
    uint16_t maximumInterval = 0;
    uint16_t latency = 0; ///< connection events that the peripheral may sleep through
    uint16_t timeout = 0; ///< units of 10 ms
    uint16_t minimumEventLength = 0;
    uint16_t maximumEventLength = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(scanInterval, scanWindow, useAcceptList, peer, ownAddressKind, minimumInterval, maximumInterval,
          latency, timeout, minimumEventLength, maximumEventLength);
    }
};

struct AcceptListEntry {
    Address address;
    template <class Fields>
    void fields(Fields& f)
    {
        f(address);
    }
};

struct ConnectionUpdate {
    uint16_t handle = 0;
    uint16_t minimumInterval = 0; ///< units of 1.25 ms
    uint16_t maximumInterval = 0;
    uint16_t latency = 0;
    uint16_t timeout = 0; ///< units of 10 ms
    uint16_t minimumEventLength = 0;
    uint16_t maximumEventLength = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, minimumInterval, maximumInterval, latency, timeout, minimumEventLength, maximumEventLength);
    }
};

struct Channels {
    std::array<uint8_t, 5> map{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(map);
    }
};

struct Encrypt {
    Key128 key{};
    Key128 block{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(key, block);
    }
};

struct StartEncryption {
    uint16_t handle = 0;
    uint64_t random = 0;
    uint16_t diversifier = 0;
    Key128 key{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, random, diversifier, key);
    }
};

struct LongTermKeyReply {
    uint16_t handle = 0;
    Key128 key{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, key);
    }
};

struct SetDataLength {
    uint16_t handle = 0;
    uint16_t octets = 0;
    uint16_t timeUs = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(handle, octets, timeUs);
    }
};

struct DefaultDataLength {
    uint16_t octets = 0;
    uint16_t timeUs = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(octets, timeUs);
    }
};

} // namespace vexasim::air::hci
