// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/Air.h"
#include "sim/air/HciCommands.h"
#include "sim/air/HciEvents.h"
#include "sim/air/Link.h"
#include "sim/air/Scanner.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace vexasim::air
{

struct ControllerOptions {
    Address address; ///< the box's public address
    Pace pace = Pace::RealTime;
};

/// The box's Bluetooth controller: LE only, Bluetooth 5.0, central role, legacy
/// advertising and connection commands, eight buffers of 251 bytes. The host
/// talks to it in HCI packets; the devices are those on the air. Advertising of
/// the box itself is accepted and heard by nobody. One thread.
class Controller : private Air::Listener, private Link::Central
{
public:
    /// Takes a packet for the host, with its type byte in front.
    using ToHost = std::function<void(const Bytes&)>;

    Controller(Clock& clock, Air& air, const ControllerOptions& options, ToHost toHost);
    ~Controller() override;

    /// A packet from the host, with its type byte in front. What can't be
    /// understood is answered with an error where HCI has one, else dropped.
    void receive(const Bytes& packet);

private:
    struct Command {
        hci::Opcode opcode;
        uint8_t octet; ///< its place in the map of supported commands
        uint8_t bit;
        void (*run)(Controller&, const Bytes&);
    };
    template <auto method>
    struct Run;
    static const std::vector<Command>& commands();

    // ---- from the host
    void receiveCommand(const Bytes& packet);
    void receiveData(const Bytes& packet);

    void reset(const hci::NoParameters&);
    void setEventMask(const hci::EventMask& mask) { mEventMask = mask.mask, done(); }
    void setEventMaskPage2(const hci::EventMask&) { done(); }
    void setLeEventMask(const hci::EventMask& mask) { mLeEventMask = mask.mask, done(); }
    void readLocalVersion(const hci::NoParameters&);
    void readLocalCommands(const hci::NoParameters&);
    void readLocalFeatures(const hci::NoParameters&);
    void readBufferSize(const hci::NoParameters&);
    void readAddress(const hci::NoParameters&);
    void readRssi(const hci::HandleOnly& command);
    void readTransmitPower(const hci::ReadTransmitPowerLevel& command);
    void readLeHostSupport(const hci::NoParameters&);
    void writeLeHostSupport(const hci::LeHostSupport&) { done(); }
    void leReadBufferSize(const hci::NoParameters&);
    void leReadLocalFeatures(const hci::NoParameters&);
    void leReadSupportedStates(const hci::NoParameters&);
    void setRandomAddress(const hci::RandomAddress& command);
    void setAdvertisingParameters(const hci::AdvertisingParameters&) { done(); }
    void readAdvertisingPower(const hci::NoParameters&);
    void setAdvertisingData(const hci::AdvertisingData&) { done(); }
    void setAdvertisingEnable(const hci::Enable&) { done(); }
    void encrypt(const hci::Encrypt& command);
    void random(const hci::NoParameters&);
    void setHostChannels(const hci::Channels&) { done(); }

    void setScanParameters(const hci::ScanParameters& command);
    void setScanEnable(const hci::ScanEnable& command);
    void readAcceptListSize(const hci::NoParameters&);
    void clearAcceptList(const hci::NoParameters&);
    void addToAcceptList(const hci::AcceptListEntry& command);
    void removeFromAcceptList(const hci::AcceptListEntry& command);

    void createConnection(const hci::CreateConnection& command);
    void cancelConnection(const hci::NoParameters&);
    void disconnect(const hci::Disconnect& command);
    void updateConnection(const hci::ConnectionUpdate& command);
    void readRemoteVersion(const hci::HandleOnly& command);
    void readRemoteFeatures(const hci::HandleOnly& command);
    void readChannelMap(const hci::HandleOnly& command);
    void startEncryption(const hci::StartEncryption& command);
    void replyWithKey(const hci::LongTermKeyReply& command);
    void replyWithoutKey(const hci::HandleOnly& command);
    void setDataLength(const hci::SetDataLength& command);
    void readDefaultDataLength(const hci::NoParameters&);
    void writeDefaultDataLength(const hci::DefaultDataLength& command);
    void readMaximumDataLength(const hci::NoParameters&);

    // ---- to the host
    void done(hci::Status status = hci::Status::Success);
    template <class Result>
    void answer(const Result& result);
    void complete(const Bytes& returned);
    void commandStatus(hci::Status status);
    void sendEvent(hci::EventCode code, const Bytes& parameters);
    template <class Packet>
    void event(hci::EventCode code, const Packet& packet);
    template <class Packet>
    void leEvent(hci::LeEvent code, const Packet& packet);

    // ---- from the air
    void advertised(RadioDevice& device, const Advertisement& advertisement) override;
    void removed(RadioDevice& device) override;
    void report(RadioDevice& device, hci::AdvertisingReport::Type type, const Bytes& data);
    bool wanted(const Address& address) const;
    void connect(RadioDevice& device);
    void linkReceived(Link& link, const LinkPacket& packet) override;
    void linkDelivered(Link& link) override;
    void linkEncrypted(Link& link, hci::Status status, bool refreshed) override;
    void linkUpdated(Link& link) override;
    void linkLengthChanged(Link& link) override;
    void linkClosed(Link& link, hci::Status reason) override;

    /// Null if there is no such link.
    Link* find(uint16_t handle) const;
    bool connectedTo(const Address& address) const;
    bool acceptListInUse() const;
    bool accepts(const Address& address) const;
    void updateListening();
    void dropLinks();

    Clock& mClock;
    Air& mAir;
    const ControllerOptions mOptions;
    const ToHost mToHost;
    hci::Opcode mCurrent{};
    uint64_t mEventMask;
    uint64_t mLeEventMask;
    Scanner mScanner;
    std::vector<Address> mAcceptList;
    std::array<uint8_t, 6> mRandomAddress{};
    std::optional<hci::CreateConnection> mInitiating;
    hci::DefaultDataLength mDefaultDataLength;
    std::map<uint16_t, std::unique_ptr<Link>> mLinks;
    uint16_t mNextHandle;
};

template <class Result>
void Controller::answer(const Result& result)
{
    complete(encode(hci::Returned<Result>{hci::Status::Success, result}));
}

template <class Packet>
void Controller::event(hci::EventCode code, const Packet& packet)
{
    // The answers to commands and the flow control can't be masked.
    const bool always = code == hci::EventCode::CommandComplete || code == hci::EventCode::CommandStatus ||
                        code == hci::EventCode::NumberOfCompletedPackets;
    const uint64_t bit = uint64_t{1} << (static_cast<unsigned>(code) - 1);
    if (always || (mEventMask & bit) != 0)
        sendEvent(code, encode(packet));
}

template <class Packet>
void Controller::leEvent(hci::LeEvent code, const Packet& packet)
{
    const uint64_t bit = uint64_t{1} << (static_cast<unsigned>(code) - 1);
    if ((mLeEventMask & bit) != 0)
        event(hci::EventCode::LeMeta, hci::LeMeta{code, encode(packet)});
}

} // namespace vexasim::air
