// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Clock.h"
#include "sim/air/Controller.h"
#include "sim/air/L2cap.h"
#include "sim/air/PeripheralRadio.h"
#include "sim/air/VhciTransport.h"
#include "sim/model/Remote.h"

#include <deque>
#include <glib.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "tests/kit/Hex.h"

namespace vexasim::air
{

/// Time that passes only when a test says so.
class ManualClock : public Clock
{
public:
    Time now() const override { return mNow; }

    /// Goes to the next call, but not beyond `limit`; false if none is due till then.
    bool step(Time limit)
    {
        const auto next = nextCall();
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

/// The host's end of the virtual controller, played by the test: it sends HCI
/// packets through a socket, as the kernel through its device, and keeps what
/// comes back.
class ScriptedHost
{
public:
    using Opcode = hci::Opcode;
    using Status = hci::Status;
    static constexpr std::chrono::seconds kPatience{10};

    explicit ScriptedHost(const ControllerOptions& options = defaults()) : mAir(mClock)
    {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends) != 0)
            throw std::runtime_error("socketpair");
        mFile = ends[0];
        mTransport = std::make_unique<VhciTransport>(
            ends[1], [this](const Bytes& packet) { mController->receive(packet); },
            [this](const std::string& why) { mClosed = why; });
        mController = std::make_unique<Controller>(mClock, mAir, options,
                                                   [this](const Bytes& packet) { mTransport->send(packet); });
    }

    ~ScriptedHost()
    {
        if (mFile >= 0)
            ::close(mFile);
    }

    static ControllerOptions defaults()
    {
        ControllerOptions options;
        options.address = Address::parse("00:1A:7D:DA:71:13").value();
        return options;
    }

    ManualClock& clock() { return mClock; }
    Air& air() { return mAir; }
    VhciTransport& transport() { return *mTransport; }
    const std::string& closed() const { return mClosed; }

    // ---- raw packets
    void send(const Bytes& packet)
    {
        ASSERT_EQ(::send(mFile, packet.data(), packet.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
        pump();
    }

    /// Everything that can be handed over at this moment is handed over.
    void pump()
    {
        bool busy = true;
        while (busy) {
            busy = g_main_context_iteration(nullptr, FALSE) != FALSE;
            Bytes buffer(2048);
            const ssize_t size = ::recv(mFile, buffer.data(), buffer.size(), 0);
            if (size > 0) {
                buffer.resize(static_cast<size_t>(size));
                keep(buffer);
                busy = true;
            }
        }
    }

    void hangUp()
    {
        ::close(mFile);
        mFile = -1;
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }

    /// Lets time pass.
    void pass(Clock::Duration duration)
    {
        const auto until = mClock.now() + duration;
        while (mClock.step(until))
            pump();
        pump();
    }

    /// Lets time pass until `happened` says so; false when the limit comes first.
    template <class Condition>
    bool until(Condition happened, Clock::Duration limit = kPatience)
    {
        const auto end = mClock.now() + limit;
        pump();
        while (!happened()) {
            if (!mClock.step(end))
                return happened();
            pump();
        }
        return true;
    }

    // ---- commands
    /// What command complete returned behind the status; fails the test otherwise.
    template <class Parameters = hci::NoParameters>
    Bytes command(Opcode opcode, const Parameters& parameters = {}, Status expected = Status::Success)
    {
        const Bytes returned = rawCommand(opcode, encode(parameters)).value_or(Bytes{});
        if (returned.empty()) {
            ADD_FAILURE() << "no command complete for " << std::hex << static_cast<unsigned>(opcode);
            return {};
        }
        EXPECT_EQ(static_cast<unsigned>(returned.front()), static_cast<unsigned>(expected))
            << "of command " << std::hex << static_cast<unsigned>(opcode);
        return Bytes(returned.begin() + 1, returned.end());
    }

    /// The command complete event's contents; empty if there was none.
    std::optional<Bytes> rawCommand(Opcode opcode, const Bytes& parameters)
    {
        mComplete.reset();
        mStatus.reset();
        Encoder encoder;
        encoder(hci::PacketType::Command, opcode, static_cast<uint8_t>(parameters.size()), parameters);
        send(encoder.take());
        if (!mComplete || mComplete->opcode != opcode)
            return std::nullopt;
        return mComplete->returned;
    }

    /// For commands that are answered by a command status.
    template <class Parameters>
    Status start(Opcode opcode, const Parameters& parameters)
    {
        rawCommand(opcode, encode(parameters));
        return mStatus && mStatus->opcode == opcode ? mStatus->status : Status{0xff};
    }

    /// As the kernel sets up a controller before it uses it.
    void setUp()
    {
        command(Opcode::Reset);
        command(Opcode::SetEventMask, hci::EventMask{0x3dbff807fffbffff});
        command(Opcode::LeSetEventMask, hci::EventMask{0x5f});
    }

    void scan(bool on, bool active = true, bool filterDuplicates = true)
    {
        if (on)
            command(Opcode::LeSetScanParameters,
                    hci::ScanParameters{static_cast<uint8_t>(active), 0x24, 0x12, 0, 0});
        command(Opcode::LeSetScanEnable,
                hci::ScanEnable{static_cast<uint8_t>(on), static_cast<uint8_t>(filterDuplicates)});
    }

    static hci::CreateConnection connectionTo(const Address& peer)
    {
        hci::CreateConnection wish;
        wish.scanInterval = 0x60;
        wish.scanWindow = 0x30;
        wish.peer = peer;
        wish.minimumInterval = 0x18;
        wish.maximumInterval = 0x28;
        wish.timeout = 0x2a;
        return wish;
    }

    /// The handle of the new link.
    uint16_t connect(const Address& peer)
    {
        EXPECT_EQ(start(Opcode::LeCreateConnection, connectionTo(peer)), Status::Success);
        const auto complete = awaitLe<hci::ConnectionComplete>(hci::LeEvent::ConnectionComplete);
        EXPECT_TRUE(complete && complete->status == Status::Success && complete->peer == peer);
        mPeer = peer;
        mHandle = complete ? complete->handle : uint16_t{0};
        return mHandle;
    }

    // ---- events, each given out once
    template <class Packet>
    std::optional<Packet> take(hci::EventCode code)
    {
        for (auto event = mEvents.begin(); event != mEvents.end(); ++event)
            if (event->code == code) {
                const auto packet = decode<Packet>(event->parameters);
                mEvents.erase(event);
                return packet;
            }
        return std::nullopt;
    }
    template <class Packet>
    std::optional<Packet> takeLe(hci::LeEvent code)
    {
        for (auto event = mEvents.begin(); event != mEvents.end(); ++event)
            if (event->code == hci::EventCode::LeMeta &&
                event->parameters.front() == static_cast<uint8_t>(code)) {
                const auto packet =
                    decode<Packet>(Bytes(event->parameters.begin() + 1, event->parameters.end()));
                mEvents.erase(event);
                return packet;
            }
        return std::nullopt;
    }
    template <class Packet>
    std::optional<Packet> await(hci::EventCode code, Clock::Duration limit = kPatience)
    {
        std::optional<Packet> packet;
        until([&] { return (packet = take<Packet>(code)).has_value(); }, limit);
        return packet;
    }
    template <class Packet>
    std::optional<Packet> awaitLe(hci::LeEvent code, Clock::Duration limit = kPatience)
    {
        std::optional<Packet> packet;
        until([&] { return (packet = takeLe<Packet>(code)).has_value(); }, limit);
        return packet;
    }

    // ---- upper packets on the link
    void sendOn(Channel channel, const Bytes& payload)
    {
        const Bytes frame = encode(L2capHeader{static_cast<uint16_t>(payload.size()), channel}) + payload;
        Encoder encoder;
        encoder(hci::PacketType::AclData, mHandle, static_cast<uint16_t>(frame.size()), frame);
        send(encoder.take());
    }

    std::optional<Bytes> awaitOn(Channel channel, Clock::Duration limit = kPatience)
    {
        std::optional<Bytes> payload;
        until(
            [&] {
                for (auto packet = mPackets.begin(); packet != mPackets.end(); ++packet)
                    if (packet->channel == channel) {
                        payload = packet->payload;
                        mPackets.erase(packet);
                        return true;
                    }
                return false;
            },
            limit);
        return payload;
    }

    /// The answer to an attribute request, in hexadecimal; "silence" if none came.
    std::string ask(const std::string& request)
    {
        sendOn(Channel::Attributes, fromHex(request));
        const auto answer = awaitOn(Channel::Attributes);
        return answer ? toHex(*answer) : "silence";
    }

    uint16_t handle() const { return mHandle; }
    Address peer() const { return mPeer; }
    Address self() const { return defaults().address; }
    unsigned completedPackets() const { return mCompletedPackets; }
    const std::vector<Bytes>& dataPackets() const { return mDataPackets; }

private:
    void keep(const Bytes& packet)
    {
        const Bytes body(packet.begin() + 1, packet.end());
        switch (static_cast<hci::PacketType>(packet.front())) {
        case hci::PacketType::Event:
            return keepEvent(decode<hci::EventPacket>(body).value());
        case hci::PacketType::AclData:
            return keepData(body);
        default:
            mVendor = packet;
        }
    }

    void keepEvent(const hci::EventPacket& event)
    {
        EXPECT_EQ(event.length, event.parameters.size());
        if (event.code == hci::EventCode::CommandComplete)
            mComplete = decode<hci::CommandComplete>(event.parameters);
        else if (event.code == hci::EventCode::CommandStatus)
            mStatus = decode<hci::CommandStatus>(event.parameters);
        else if (event.code == hci::EventCode::NumberOfCompletedPackets)
            mCompletedPackets += decode<hci::CompletedPackets>(event.parameters).value().count;
        else
            mEvents.push_back(event);
    }

    void keepData(const Bytes& body)
    {
        const auto acl = decode<hci::AclPacket>(body).value();
        EXPECT_EQ(acl.length, acl.data.size());
        EXPECT_EQ(acl.handleAndFlags & hci::AclPacket::kHandleMask, mHandle);
        mDataPackets.push_back(acl.data);
        const bool first = (acl.handleAndFlags & hci::AclPacket::kBoundaryMask) == hci::AclPacket::kStart;
        const auto packet =
            mReassembler.add({first ? LinkPacket::Start : LinkPacket::Continuation, acl.data});
        if (packet)
            mPackets.push_back(*packet);
    }

    ManualClock mClock;
    Air mAir;
    int mFile = -1;
    std::unique_ptr<VhciTransport> mTransport;
    std::unique_ptr<Controller> mController;
    std::string mClosed;
    std::optional<hci::CommandComplete> mComplete;
    std::optional<hci::CommandStatus> mStatus;
    std::deque<hci::EventPacket> mEvents;
    Reassembler mReassembler;
    std::deque<Reassembler::Packet> mPackets;
    std::vector<Bytes> mDataPackets;
    Bytes mVendor;
    unsigned mCompletedPackets = 0;
    uint16_t mHandle = 0;
    Address mPeer;
};

} // namespace vexasim::air
