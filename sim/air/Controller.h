// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "sim/air/Air.h"
#include "sim/air/Hci.h"
#include "sim/air/Link.h"
#include "sim/air/Scanner.h"

namespace vexasim::air
{

struct ControllerOptions {
    Address address; ///< the box's public address
    Pace pace = Pace::RealTime;
};

/// The box's Bluetooth controller: LE only, Bluetooth 5.0, central role, legacy advertising and connection
/// commands, eight buffers of 251 bytes. The host exchanges HCI packets with it; the devices are those on the
/// air. Advertising by the box is accepted, but nobody receives it. One thread.
class Controller : private Air::Listener, private Link::Central
{
public:
    /// Takes a packet for the host, with its type byte in front.
    using ToHost = std::function<void(const Bytes&)>;

    Controller(Scheduler& scheduler, Air& air, const ControllerOptions& options, ToHost toHost);
    ~Controller() override;

    /// A packet from the host, with its type byte in front. An invalid one is answered with an error if HCI
    /// defines one, else dropped.
    void receive(const Bytes& packet);

private:
    using Run = std::function<void(Controller&, const Bytes& parameters)>;
    struct Command {
        hci::Opcode opcode;
        std::uint8_t octet; ///< its position in the map of supported commands
        std::uint8_t bit;
        Run run;
    };
    static const std::vector<Command> kCommands;

    /// Runs a command by a member function that takes its parameters.
    template <auto method>
    static void handle(Controller& controller, const Bytes& parameters);
    /// Answers a command without parameters with constant values.
    template <class... Field>
    static Run answering(const Field&... fields);
    /// Accepts a command that has no effect here.
    template <std::size_t size>
    static void accept(Controller& controller, const Bytes& parameters);

    // --- from the host ---
    void receiveCommand(const Bytes& packet);
    void receiveData(const Bytes& packet);

    void reset();
    void setEventMask(std::uint64_t mask) { mEventMask = mask, done(); }
    void setLeEventMask(std::uint64_t mask) { mLeEventMask = mask, done(); }
    void readLocalCommands();
    void readAddress() { answer(mOptions.address.octets); }
    void readRssi(std::uint16_t handle);
    void readTransmitPower(std::uint16_t handle, std::uint8_t type);
    void setRandomAddress(const AddressOctets& octets);
    void encrypt(const Key128& key, const Key128& block) { answer(encryptBlock(key, block)); }
    void random() { answer(randomArray<8>()); }

    void setScanParameters(std::uint8_t active, std::uint16_t interval, std::uint16_t window,
                           std::uint8_t ownAddressKind, std::uint8_t filterPolicy);
    void setScanEnable(std::uint8_t enable, std::uint8_t filterDuplicates);
    void clearAcceptList();
    void addToAcceptList(const Address& address);
    void removeFromAcceptList(const Address& address);

    void createConnection(const hci::CreateConnection& command);
    void cancelConnection();
    void disconnect(std::uint16_t handle, hci::Status reason);
    void updateConnection(std::uint16_t handle, const hci::ConnectionParameters& parameters);
    void readRemoteVersion(std::uint16_t handle);
    void readRemoteFeatures(std::uint16_t handle);
    void readChannelMap(std::uint16_t handle);
    void startEncryption(std::uint16_t handle, std::uint64_t random, std::uint16_t diversifier,
                         const Key128& key);
    void replyWithKey(std::uint16_t handle, const Key128& key);
    void replyWithoutKey(std::uint16_t handle);
    void setDataLength(std::uint16_t handle, std::uint16_t octets, std::uint16_t timeUs);
    void readDefaultDataLength() { answer(mDefaultOctets, mDefaultTimeUs); }
    void writeDefaultDataLength(std::uint16_t octets, std::uint16_t timeUs);

    // --- to the host ---
    void done(hci::Status status = hci::Status::Success) { complete(encode(status)); }
    template <class... Field>
    void answer(const Field&... fields)
    {
        complete(encode(hci::Status::Success, fields...));
    }
    void complete(const Bytes& returned) { event(hci::CommandComplete{1, mCurrent, returned}); }
    void commandStatus(hci::Status status) { event(hci::CommandStatus{status, 1, mCurrent}); }
    /// The link with that handle, or null; sends the command's status either way.
    Link* startOn(std::uint16_t handle);
    /// Sends an event unless the host masks it.
    template <class Packet>
    void event(const Packet& packet)
    {
        send(Packet::kCode, encode(packet));
    }
    void send(hci::EventCode code, const Bytes& parameters);
    void send(hci::LeEvent code, const Bytes& parameters);

    // --- from the air ---
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

    static constexpr std::uint64_t kDefaultEventMask = 0x00001fffffffffff;
    static constexpr std::uint64_t kDefaultLeEventMask = 0x1f;
    /// Bytes in a link packet, and how long the shortest takes.
    static constexpr std::uint16_t kMinimumPayload = 27;
    static constexpr std::uint16_t kMaximumPayload = 251;
    static constexpr std::uint16_t kMinimumPayloadTimeUs = 328;
    static constexpr std::uint16_t kFirstHandle = 0x0040;
    static constexpr std::uint16_t kLastHandle = 0x0eff;
    /// What this controller reports about itself and the devices on the air.
    static constexpr std::uint8_t kBluetooth50 = 0x09;
    static constexpr std::uint16_t kNoManufacturer = 0xffff; ///< reserved for products that aren't for sale
    /// Features of the link layer, Vol 6, B 4.6.
    static constexpr std::uint64_t kLeEncryption = 0x01;
    static constexpr std::uint64_t kLeDataLength = 0x20;

    /// Null if no link has that handle.
    Link* find(std::uint16_t handle) const;
    bool connectedTo(const Address& address) const;
    bool acceptListInUse() const;
    void updateListening();
    void dropLinks();

    Scheduler& mScheduler;
    Air& mAir;
    const ControllerOptions mOptions;
    const ToHost mToHost;
    hci::Opcode mCurrent{};
    std::uint64_t mEventMask = kDefaultEventMask;
    std::uint64_t mLeEventMask = kDefaultLeEventMask;
    Scanner mScanner;
    std::set<Address> mAcceptList;
    AddressOctets mRandomAddress{};
    std::optional<hci::CreateConnection> mInitiating;
    std::uint16_t mDefaultOctets = kMinimumPayload;
    std::uint16_t mDefaultTimeUs = kMinimumPayloadTimeUs;
    std::map<std::uint16_t, std::unique_ptr<Link>> mLinks;
    std::uint16_t mNextHandle = kFirstHandle;
};

} // namespace vexasim::air
