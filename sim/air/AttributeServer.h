// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/AttributeTable.h"
#include "sim/air/DelayedCalls.h"
#include "sim/air/L2cap.h"
#include "sim/model/Peripheral.h"

#include <functional>

namespace vexasim::air
{

/// The attribute server of a peripheral on one link: discovery, reads, writes
/// and notifications, Bluetooth Core 5.3, Vol 3, F and G. What an attribute
/// holds and how it answers is the peripheral's. One thread.
class AttributeServer
{
public:
    struct Surroundings {
        Peripheral* peripheral = nullptr; ///< outlives this object
        std::function<void(Channel, const Bytes&)> send;
        std::function<bool()> encrypted;
        /// Hears of each write that the peripheral has accepted, by value handle.
        std::function<void(uint16_t, const Bytes&)> written;
    };

    AttributeServer(Clock& clock, Surroundings surroundings);

    void received(const Bytes& packet);

    /// Sends a notification, cut to what the link's packets hold.
    void notify(uint16_t valueHandle, const Bytes& value);

private:
    void confirm(const Bytes& packet);
    void exchangeSizes(const Bytes& packet);
    void findInformation(const Bytes& packet);
    void findByTypeValue(const Bytes& packet);
    void readByGroupType(const Bytes& packet);
    void readByType(const Bytes& packet);
    void read(const Bytes& packet);
    void readBlob(const Bytes& packet);
    void write(const Bytes& packet);
    void writeCommand(const Bytes& packet);

    using Finish = std::function<void(const Bytes&)>;
    void fetch(const Attribute& row, const Finish& finish);
    AttReply store(const Attribute& row, const Bytes& value, Peripheral::WriteKind kind);
    AttReply configure(const Attribute& row, const Bytes& value) const;
    bool wellFormed(uint16_t first, uint16_t last);
    void sendLists(uint8_t response, const std::vector<Bytes>& entries, uint16_t asked);
    void respond(const Bytes& packet) { mSurroundings.send(Channel::Attributes, packet); }
    void refuse(uint16_t about, uint8_t error);

    const Surroundings mSurroundings;
    const AttributeTable mTable;
    DelayedCalls mDelayed;
    uint8_t mRequest = 0;
};

} // namespace vexasim::air
