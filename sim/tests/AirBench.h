// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/air/Controller.h"
#include "sim/air/L2cap.h"
#include "sim/air/PeripheralRadio.h"
#include "sim/model/Remote.h"
#include "tests/kit/Hex.h"

namespace vexasim::air
{

/// A clock that a test advances.
class ManualScheduler : public Scheduler
{
public:
    Time now() const override { return mNow; }

    /// Advances to the next task, but not beyond `limit`; false if none is due until then.
    bool step(Time limit)
    {
        const auto next = nextTime();
        if (!next || *next > limit) {
            mNow = limit;
            return false;
        }
        mNow = std::max(mNow, *next);
        runDue(mNow);
        return true;
    }

protected:
    void rescheduled() override {}

private:
    Time mNow{1'000'000};
};

/// The controller's host, controlled by the test: sends HCI packets and keeps the answers.
class ScriptedHost
{
public:
    using Opcode = hci::Opcode;
    using Status = hci::Status;
    static constexpr std::chrono::seconds kDefaultLimit{10};

    explicit ScriptedHost(const ControllerOptions& options = defaults())
        : mAir(mScheduler),
          mController(mScheduler, mAir, options, [this](const Bytes& packet) { keep(packet); })
    {
    }

    static ControllerOptions defaults()
    {
        ControllerOptions options;
        options.address = Address::parse("00:1A:7D:DA:71:13").value();
        return options;
    }

    ManualScheduler& scheduler() { return mScheduler; }
    Air& air() { return mAir; }

    /// Sends a packet as given, with its type byte in front.
    void send(const Bytes& packet) { mController.receive(packet); }

    /// Advances the time.
    void pass(Scheduler::Duration duration)
    {
        until([] { return false; }, duration);
    }

    /// Advances the time until `happened` returns true; false if the limit is reached first.
    template <class Condition>
    bool until(Condition happened, Scheduler::Duration limit = kDefaultLimit)
    {
        const auto end = mScheduler.now() + limit;
        while (!happened()) {
            if (!mScheduler.step(end)) {
                return happened();
            }
        }
        return true;
    }

    // --- commands ---
    /// What command complete returned after its status, which must be success.
    template <class... Parameter>
    Bytes command(Opcode opcode, const Parameter&... parameters)
    {
        const Bytes returned = rawCommand(opcode, encode(parameters...)).value_or(Bytes{});
        if (returned.empty() || returned.front() != static_cast<std::uint8_t>(Status::Success)) {
            ADD_FAILURE() << "command " << std::hex << static_cast<unsigned>(opcode) << ": "
                          << (returned.empty() ? "no command complete" : kit::toHex(returned));
            return {};
        }
        return Bytes(returned.begin() + 1, returned.end());
    }

    /// The status with which a command was answered, by a command status or a command complete event.
    template <class... Parameter>
    Status status(Opcode opcode, const Parameter&... parameters)
    {
        const auto returned = rawCommand(opcode, encode(parameters...));
        if (returned && !returned->empty()) {
            return static_cast<Status>(returned->front());
        }
        return mStatus && mStatus->opcode == opcode ? mStatus->status : Status{0xff};
    }

    /// The command complete event's contents; empty if there was none.
    std::optional<Bytes> rawCommand(Opcode opcode, const Bytes& parameters)
    {
        mComplete.reset();
        mStatus.reset();
        send(encode(hci::PacketType::Command, opcode, static_cast<std::uint8_t>(parameters.size()),
                    parameters));
        if (!mComplete || mComplete->opcode != opcode) {
            return std::nullopt;
        }
        return mComplete->returned;
    }

    /// Sets up the controller as the kernel does before it uses one.
    void setUp()
    {
        command(Opcode::Reset);
        command(Opcode::SetEventMask, std::uint64_t{0x3dbff807fffbffff});
        command(Opcode::LeSetEventMask, std::uint64_t{0x5f});
    }

    void scan(bool on, bool active = true, bool filterDuplicates = true, bool acceptListOnly = false)
    {
        if (on) {
            command(Opcode::LeSetScanParameters, active, std::uint16_t{0x24}, std::uint16_t{0x12},
                    std::uint8_t{0}, acceptListOnly);
        }
        command(Opcode::LeSetScanEnable, on, filterDuplicates);
    }

    static hci::CreateConnection connectionTo(const Address& peer)
    {
        return {0x60, 0x30, 0, peer, 0, {0x18, 0x28, 0, 0x2a, 0, 0}};
    }

    /// Returns the handle of the new link.
    std::uint16_t connect(const Address& peer)
    {
        EXPECT_EQ(status(Opcode::LeCreateConnection, connectionTo(peer)), Status::Success);
        const auto complete = await<hci::ConnectionComplete>();
        EXPECT_TRUE(complete && complete->status == Status::Success && complete->peer == peer);
        mPeer = peer;
        mHandle = complete ? complete->handle : std::uint16_t{0};
        return mHandle;
    }

    Status disconnect() { return status(Opcode::Disconnect, mHandle, Status::RemoteUserEnded); }

    /// The reason why the link ended; empty if it didn't within `limit`.
    std::optional<Status> linkEnd(Scheduler::Duration limit = kDefaultLimit)
    {
        const auto end = await<hci::DisconnectionComplete>(limit);
        return end ? std::optional(end->reason) : std::nullopt;
    }

    // --- events, each returned once ---
    template <class Packet>
    std::optional<Packet> take()
    {
        const Bytes code = eventCode(Packet::kCode);
        const auto found = std::find_if(mEvents.begin(), mEvents.end(), [&](const Bytes& event) {
            return std::equal(code.begin(), code.end(), event.begin());
        });
        if (found == mEvents.end()) {
            return std::nullopt;
        }
        const auto packet =
            decode<Packet>(Bytes(found->begin() + static_cast<std::ptrdiff_t>(code.size()), found->end()));
        mEvents.erase(found);
        return packet;
    }
    template <class Packet>
    std::optional<Packet> await(Scheduler::Duration limit = kDefaultLimit)
    {
        std::optional<Packet> packet;
        until([&] { return (packet = take<Packet>()).has_value(); }, limit);
        return packet;
    }

    // --- upper packets on the link ---
    void sendOn(Channel channel, const Bytes& payload)
    {
        const Bytes frame =
            encode(L2capHeader{static_cast<std::uint16_t>(payload.size()), channel}) + payload;
        send(encode(hci::PacketType::AclData, mHandle, static_cast<std::uint16_t>(frame.size()), frame));
    }

    std::optional<Bytes> awaitOn(Channel channel, Scheduler::Duration limit = kDefaultLimit)
    {
        const auto of = [channel](const auto& packet) { return packet.channel == channel; };
        auto found = mPackets.end();
        until(
            [&] {
                found = std::find_if(mPackets.begin(), mPackets.end(), of);
                return found != mPackets.end();
            },
            limit);
        if (found == mPackets.end()) {
            return std::nullopt;
        }
        const Bytes payload = found->payload;
        mPackets.erase(found);
        return payload;
    }

    /// The answer to an attribute request, in hexadecimal; "silence" if none came.
    std::string ask(const std::string& request)
    {
        sendOn(Channel::Attributes, kit::fromHex(request));
        const auto answer = awaitOn(Channel::Attributes);
        return answer ? kit::toHex(*answer) : "silence";
    }

    std::uint16_t handle() const { return mHandle; }
    Address peer() const { return mPeer; }
    Address self() const { return defaults().address; }
    unsigned completedPackets() const { return mCompletedPackets; }

private:
    static Bytes eventCode(hci::EventCode code) { return encode(code); }
    static Bytes eventCode(hci::LeEvent code) { return encode(hci::EventCode::LeMeta, code); }

    void keep(const Bytes& packet)
    {
        const Bytes body(packet.begin() + 1, packet.end());
        switch (static_cast<hci::PacketType>(packet.front())) {
        case hci::PacketType::Event:
            return keepEvent(decode<hci::EventPacket>(body).value());
        case hci::PacketType::AclData:
            return keepData(body);
        default:
            return;
        }
    }

    void keepEvent(const hci::EventPacket& event)
    {
        EXPECT_EQ(event.length, event.parameters.size());
        if (event.code == hci::EventCode::CommandComplete) {
            mComplete = decode<hci::CommandComplete>(event.parameters);
        } else if (event.code == hci::EventCode::CommandStatus) {
            mStatus = decode<hci::CommandStatus>(event.parameters);
        } else if (event.code == hci::EventCode::NumberOfCompletedPackets) {
            mCompletedPackets += decode<hci::CompletedPackets>(event.parameters).value().count;
        } else {
            mEvents.push_back(encode(event.code, event.parameters));
        }
    }

    void keepData(const Bytes& body)
    {
        const auto acl = decode<hci::AclPacket>(body).value();
        EXPECT_EQ(acl.length, acl.data.size());
        EXPECT_EQ(acl.handleAndFlags & hci::AclPacket::kHandleMask, mHandle);
        const bool first = (acl.handleAndFlags & hci::AclPacket::kBoundaryMask) == hci::AclPacket::kStart;
        const auto packet =
            mReassembler.add({first ? LinkPacket::Start : LinkPacket::Continuation, acl.data});
        if (packet) {
            mPackets.push_back(*packet);
        }
    }

    ManualScheduler mScheduler;
    Air mAir;
    std::optional<hci::CommandComplete> mComplete;
    std::optional<hci::CommandStatus> mStatus;
    std::deque<Bytes> mEvents;
    Reassembler mReassembler;
    std::deque<Reassembler::Packet> mPackets;
    unsigned mCompletedPackets = 0;
    std::uint16_t mHandle = 0;
    Address mPeer;
    Controller mController;
};

} // namespace vexasim::air
