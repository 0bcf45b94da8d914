// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

#include "sim/air/AttributeTable.h"
#include "sim/air/DelayedTasks.h"
#include "sim/air/L2cap.h"
#include "sim/model/Peripheral.h"

namespace vexasim::air
{

/// The attribute server of a peripheral on one link: discovery, reads, writes and notifications, Bluetooth
/// Core 5.3, Vol 3, F and G. The peripheral provides the values and the answers. One thread.
class AttributeServer
{
public:
    /// What it needs of the link and the device on which it runs.
    struct Context {
        Peripheral* peripheral = nullptr; ///< outlives this object
        std::function<void(Channel, const Bytes&)> send;
        std::function<bool()> encrypted;
        /// Called with each write that the peripheral has accepted, by value handle.
        std::function<void(std::uint16_t, const Bytes&)> written;
    };

    AttributeServer(Scheduler& scheduler, Context context);

    void received(const Bytes& packet);

    /// Sends a notification, cut to what fits into the MTU.
    void notify(std::uint16_t valueHandle, const Bytes& value);

private:
    enum class Op : std::uint8_t;

    // The handlers' parameters are the fields of their packets after the code.
    void confirm(const Bytes& indication);
    void exchangeMtu(std::uint16_t mtu);
    void findInformation(std::uint16_t first, std::uint16_t last);
    void findByTypeValue(std::uint16_t first, std::uint16_t last, std::uint16_t type, const Bytes& value);
    void readByGroupType(std::uint16_t first, std::uint16_t last, const Bytes& type);
    void readByType(std::uint16_t first, std::uint16_t last, const Bytes& type);
    void read(std::uint16_t handle);
    void readBlob(std::uint16_t handle, std::uint16_t offset);
    void write(std::uint16_t handle, const Bytes& value);
    void writeCommand(std::uint16_t handle, const Bytes& value);

    using Finish = std::function<void(const Bytes&)>;
    void fetch(std::uint16_t handle, const Finish& finish);
    AttReply store(std::uint16_t handle, const Bytes& value, Peripheral::WriteKind kind);
    AttReply configure(const Attribute& row, const Bytes& value) const;
    bool wellFormed(std::uint16_t first, std::uint16_t last);
    void sendEntries(Op response, const std::vector<Bytes>& entries, std::uint16_t asked);
    void respondWith(Bytes packet, const std::vector<Bytes>& entries);
    void respond(const Bytes& packet) { mContext.send(Channel::Attributes, packet); }
    void refuse(std::uint16_t about, std::uint8_t error);

    const Context mContext;
    const AttributeTable mTable;
    DelayedTasks mDelayed;
    std::uint8_t mRequest = 0;
};

} // namespace vexasim::air
