// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <optional>

#include "sim/air/L2cap.h"
#include "sim/air/PairingToolbox.h"
#include "sim/model/Scheduler.h"

namespace vexasim::air
{

/// The keys that a peripheral keeps for one central.
struct Bond {
    Key128 key{};
    std::uint64_t random = 0;
    std::uint16_t diversifier = 0;
};

/// A peripheral's bonds, by the central's address.
using BondStore = std::map<Address, Bond>;

/// How the peripheral pairs.
struct PairingPolicy {
    enum class Behavior {
        Willing,
        Refuses,         ///< answers the request with Pairing Failed
        RefusesRepeated, ///< does so only to bonded centrals
        Silent,          ///< never answers the request
        FailsConfirm,    ///< agrees, then rejects the confirm or check value
    };
    Behavior behavior = Behavior::Willing;
    bool secureConnections = true; ///< else only legacy pairing
};

/// What a peripheral with a private address sends to centrals that it pairs with.
struct Identity {
    Key128 key{};
    Address address;
};

/// The security manager of a peripheral without keyboard or display: answers pairing, legacy or with secure
/// connections, always "just works"; sends and receives keys; provides the key when the link is to be
/// encrypted. One per link. Bluetooth Core 5.3, Vol 3, H 2 and 3. One thread.
class SecurityManager
{
public:
    /// What it needs of the link and the device on which it runs.
    struct Context {
        Address central;                       ///< as the link knows it
        Address self;                          ///< as the link knows it
        BondStore* bonds = nullptr;            ///< outlives this object
        std::optional<Identity> identity;      ///< only with a private address
        std::function<PairingPolicy()> policy; ///< called at every pairing request
        std::function<void(Channel, const Bytes&)> send;
        std::function<void(bool secure)> paired; ///< after the last key is exchanged
    };

    SecurityManager(Scheduler& scheduler, Context context);

    void received(const Bytes& packet);

    /// The key that these two numbers identify; empty if unknown.
    std::optional<Key128> longTermKey(std::uint64_t random, std::uint16_t diversifier) const;

    /// The link is encrypted from here.
    void encrypted();

    /// Asks the central to pair or to encrypt.
    void requestSecurity();

private:
    using Value = Key128;
    enum class Awaiting {
        Request,
        LegacyConfirm,
        LegacyRandom,
        PublicKey,
        SecureRandom,
        SecureCheck,
        Encryption,
        CentralKeys,
    };

    // The handlers' parameters are the fields of their packets after the code.
    void onRequest(const Bytes& packet);
    void onLegacyConfirm(const Value& confirm);
    void onLegacyRandom(const Value& random);
    void onPublicKey(const Scalar& x, const Scalar& y);
    void onSecureRandom(const Value& random);
    void onSecureCheck(const Value& check);
    void onCentralKey(std::uint8_t code);
    void distributeKeys();
    void finish();
    void fail(std::uint8_t reason);
    template <class... Field>
    void send(const Field&... fields)
    {
        mContext.send(Channel::Security, encode(fields...));
    }
    void await(Awaiting what);

    const Context mContext;
    Awaiting mAwaiting = Awaiting::Request;
    Timer mTimeout;
    PairingPolicy mPolicy;
    bool mSecure = false;
    bool mBonding = false;
    std::array<std::uint8_t, 7> mRequest{};
    std::array<std::uint8_t, 7> mResponse{};
    Value mCentralConfirm{};
    Value mCentralRandom{};
    Value mOwnRandom{};
    Scalar mSharedSecret{};
    Key128 mMacKey{};
    Key128 mKey{};
    std::uint8_t mKeysToCome = 0;
};

} // namespace vexasim::air
