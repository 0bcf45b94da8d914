// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sim/air/Air.h"
#include "sim/air/AttributeServer.h"
#include "sim/air/L2cap.h"
#include "sim/air/SecurityManager.h"
#include "sim/model/Peripheral.h"

namespace vexasim::air
{

/// The connection parameters that a peripheral requests from its central.
struct PreferredParameters {
    std::uint16_t minimumInterval = 0; ///< units of 1.25 ms
    std::uint16_t maximumInterval = 0;
    std::uint16_t latency = 0;
    std::uint16_t timeout = 0; ///< units of 10 ms
    auto fields() { return std::tie(minimumInterval, maximumInterval, latency, timeout); }
};

/// How a peripheral behaves on the air. May be changed while it runs.
struct RadioOptions {
    bool nameInScanResponse = false; ///< else in the advertisement
    std::chrono::milliseconds advertisingInterval{100};
    std::uint16_t maximumPayload = 27; ///< bytes of a link packet; up to 251
    bool secureConnections = true;     ///< else only legacy pairing
    bool refusesRepeated = false;      ///< won't pair again with a bonded central
    bool failsConfirm = false;         ///< agrees to pair, then rejects the confirm or check value
    bool asksForSecurity = false;      ///< sends a security request after each connection
    bool privateAddress = false;       ///< a resolvable one, new for each link
    /// Requested one second after each connection.
    std::optional<PreferredParameters> preferredParameters;
};

/// The radio of one peripheral of the model: its advertisements, its end of a link, pairing and attributes.
/// Everything on the air's one thread, on which the model must be used too.
class PeripheralRadio : public RadioDevice,
                        public PeripheralListener,
                        public std::enable_shared_from_this<PeripheralRadio>
{
public:
    /// Called with one line of text for each event.
    using OnEvent = std::function<void(const std::string&)>;

    /// On the air from here until the destructor. Throws std::invalid_argument if the peripheral's address or
    /// one of its UUIDs is malformed.
    static std::shared_ptr<PeripheralRadio> create(Scheduler& scheduler, Air& air,
                                                   const std::shared_ptr<Peripheral>& peripheral,
                                                   const RadioOptions& options = {}, OnEvent onEvent = {});
    ~PeripheralRadio() override;

    const RadioOptions& options() const { return mOptions; }
    /// They apply from the next advertisement, link or pairing on.
    void setOptions(const RadioOptions& options) { mOptions = options; }

    /// Forgets all keys at once; Peripheral::setForgotBond does so at the next use.
    void forgetBonds() { mBonds.clear(); }

    /// Ends the link from the peripheral's side.
    void hangUp();

    // --- RadioDevice ---
    Address address() const override { return mAddress; }
    std::optional<Advertisement> advertisement() const override;
    std::chrono::milliseconds advertisingInterval() const override { return mOptions.advertisingInterval; }
    std::int8_t rssi() const override;
    std::uint16_t maximumPayload() const override { return mOptions.maximumPayload; }
    bool linkOpened(Link& link) override;
    void linkReceived(const LinkPacket& packet) override;
    std::optional<Key128> longTermKey(std::uint64_t random, std::uint16_t diversifier) override;
    void linkEncrypted() override;
    void linkParametersChanged() override;
    void linkClosed() override;

    // --- PeripheralListener ---
    void onLinkLost(Peripheral& peripheral) override;
    void onNotification(Peripheral& peripheral, std::uint16_t valueHandle, const Bytes& value) override;

private:
    struct Session;

    PeripheralRadio(Scheduler& scheduler, Air& air, std::shared_ptr<Peripheral> peripheral,
                    const RadioOptions& options, OnEvent onEvent);
    void renewAddress();
    SecurityManager::Context securityContext(Link& link);
    AttributeServer::Context attributeContext();
    PairingPolicy pairingPolicy();
    void request(const PreferredParameters& parameters);
    void send(Channel channel, const Bytes& packet);
    void written(std::uint16_t valueHandle, const Bytes& value);
    void reportEvent(const std::string& what) const;

    Scheduler& mScheduler;
    Air& mAir;
    const std::shared_ptr<Peripheral> mPeripheral;
    RadioOptions mOptions;
    const OnEvent mOnEvent;
    const Address mIdentityAddress;
    const Key128 mIdentityKey;
    Address mAddress;
    BondStore mBonds;
    Link* mLink = nullptr;
    std::unique_ptr<Session> mSession;
    Timer mSessionEnd;
};

} // namespace vexasim::air
