// SPDX-License-Identifier: MIT
#include "sim/air/SecurityManager.h"

#include <algorithm>
#include <map>
#include <utility>

namespace vexasim::air
{

namespace
{

// The security manager's own limit for a whole pairing.
constexpr std::chrono::seconds kPairingLimit{30};

namespace code
{
constexpr std::uint8_t kPairingRequest = 0x01;
constexpr std::uint8_t kPairingResponse = 0x02;
constexpr std::uint8_t kConfirm = 0x03;
constexpr std::uint8_t kRandom = 0x04;
constexpr std::uint8_t kFailed = 0x05;
constexpr std::uint8_t kEncryptionInformation = 0x06;
constexpr std::uint8_t kCentralIdentification = 0x07;
constexpr std::uint8_t kIdentityInformation = 0x08;
constexpr std::uint8_t kIdentityAddress = 0x09;
constexpr std::uint8_t kSecurityRequest = 0x0b;
constexpr std::uint8_t kPublicKey = 0x0c;
constexpr std::uint8_t kCheck = 0x0d;
} // namespace code

namespace reason
{
constexpr std::uint8_t kConfirmFailed = 0x04;
constexpr std::uint8_t kNotSupported = 0x05;
constexpr std::uint8_t kKeySize = 0x06;
constexpr std::uint8_t kUnspecified = 0x08;
constexpr std::uint8_t kRepeatedAttempts = 0x09;
constexpr std::uint8_t kInvalidParameters = 0x0a;
constexpr std::uint8_t kCheckFailed = 0x0b;
} // namespace reason

constexpr std::uint8_t kNoInputNoOutput = 0x03;
constexpr std::uint8_t kBonding = 0x01;
constexpr std::uint8_t kBondingMask = 0x03;
constexpr std::uint8_t kSecureConnections = 0x08;
constexpr std::uint8_t kKeySize = 16;
constexpr std::uint8_t kEncryptionKey = 0x01;
constexpr std::uint8_t kIdentityKey = 0x02;

// No passkey is displayed or entered, so "just works" uses zeroes for both.
constexpr Key128 kTemporaryKey{};
constexpr Key128 kNoPasskey{};

struct PairingParameters {
    std::uint8_t code = 0;
    std::uint8_t capability = 0;
    std::uint8_t outOfBand = 0;
    std::uint8_t requirements = 0;
    std::uint8_t keySize = 0;
    std::uint8_t centralKeys = 0;
    std::uint8_t peripheralKeys = 0;
    auto fields()
    {
        return std::tie(code, capability, outOfBand, requirements, keySize, centralKeys, peripheralKeys);
    }
};

// The ciphers use the most significant octet first, the air the least.
Scalar swapped(Scalar scalar)
{
    std::reverse(scalar.begin(), scalar.end());
    return scalar;
}

std::array<std::uint8_t, 7> sevenOctets(const PairingParameters& parameters)
{
    const Bytes bytes = encode(parameters);
    std::array<std::uint8_t, 7> octets{};
    std::copy(bytes.begin(), bytes.end(), octets.begin());
    return octets;
}

std::array<std::uint8_t, 3> capabilities(const std::array<std::uint8_t, 7>& parameters)
{
    return {parameters[1], parameters[2], parameters[3]};
}

template <class Number>
Number randomNumber()
{
    const auto octets = randomArray<sizeof(Number)>();
    return decode<Number>(Bytes(octets.begin(), octets.end())).value();
}

} // namespace

SecurityManager::SecurityManager(Scheduler& scheduler, Context context)
    : mContext(std::move(context)), mTimeout(scheduler)
{
}

void SecurityManager::received(const Bytes& packet)
{
    using Handler = bool (*)(SecurityManager&, const Bytes&);
    static const std::map<std::pair<Awaiting, std::uint8_t>, Handler> handlers = {
        {{Awaiting::LegacyConfirm, code::kConfirm}, callDecoded<&SecurityManager::onLegacyConfirm>},
        {{Awaiting::LegacyRandom, code::kRandom}, callDecoded<&SecurityManager::onLegacyRandom>},
        {{Awaiting::PublicKey, code::kPublicKey}, callDecoded<&SecurityManager::onPublicKey>},
        {{Awaiting::SecureRandom, code::kRandom}, callDecoded<&SecurityManager::onSecureRandom>},
        {{Awaiting::SecureCheck, code::kCheck}, callDecoded<&SecurityManager::onSecureCheck>},
    };
    if (packet.empty()) {
        return;
    }
    const std::uint8_t code = packet.front();
    if (code == code::kPairingRequest) {
        return onRequest(packet);
    }
    if (code == code::kFailed) {
        return await(Awaiting::Request);
    }
    if (mAwaiting == Awaiting::CentralKeys) {
        return onCentralKey(code);
    }
    const auto found = handlers.find({mAwaiting, code});
    const bool handled =
        found != handlers.end() && found->second(*this, Bytes(packet.begin() + 1, packet.end()));
    if (!handled && mAwaiting != Awaiting::Request) {
        fail(reason::kUnspecified);
    }
}

// The request and its response.

void SecurityManager::onRequest(const Bytes& packet)
{
    using Behavior = PairingPolicy::Behavior;
    mPolicy = mContext.policy();
    const bool bonded = mContext.bonds->count(mContext.central) != 0;
    const auto request = decode<PairingParameters>(packet);
    if (mPolicy.behavior == Behavior::Silent) {
        return;
    }
    if (!request) {
        return fail(reason::kInvalidParameters);
    }
    if (mPolicy.behavior == Behavior::Refuses) {
        return fail(reason::kNotSupported);
    }
    if (mPolicy.behavior == Behavior::RefusesRepeated && bonded) {
        return fail(reason::kRepeatedAttempts);
    }
    if (request->keySize != kKeySize) {
        return fail(reason::kKeySize);
    }

    mSecure = mPolicy.secureConnections && (request->requirements & kSecureConnections) != 0;
    mBonding = (request->requirements & kBondingMask) == kBonding;
    PairingParameters response;
    response.code = code::kPairingResponse;
    response.capability = kNoInputNoOutput;
    response.requirements =
        static_cast<std::uint8_t>((mBonding ? kBonding : 0) | (mSecure ? kSecureConnections : 0));
    response.keySize = kKeySize;
    if (mBonding) {
        // With secure connections both ends have computed the key already.
        const std::uint8_t offered = static_cast<std::uint8_t>((mSecure ? 0 : kEncryptionKey) |
                                                               (mContext.identity ? kIdentityKey : 0));
        response.centralKeys = request->centralKeys & kIdentityKey;
        response.peripheralKeys = request->peripheralKeys & offered;
    }
    mRequest = sevenOctets(*request);
    mResponse = sevenOctets(response);
    await(mSecure ? Awaiting::PublicKey : Awaiting::LegacyConfirm);
    send(response);
}

// Legacy pairing: the confirm values first, then the random numbers that they commit to.

void SecurityManager::onLegacyConfirm(const Value& confirm)
{
    mCentralConfirm = confirm;
    mOwnRandom = randomArray<16>();
    await(Awaiting::LegacyRandom);
    send(code::kConfirm, c1(kTemporaryKey, mOwnRandom, mRequest, mResponse, mContext.central, mContext.self));
}

void SecurityManager::onLegacyRandom(const Value& random)
{
    const Value expected = c1(kTemporaryKey, random, mRequest, mResponse, mContext.central, mContext.self);
    if (expected != mCentralConfirm || mPolicy.behavior == PairingPolicy::Behavior::FailsConfirm) {
        return fail(reason::kConfirmFailed);
    }
    mKey = s1(kTemporaryKey, mOwnRandom, random);
    await(Awaiting::Encryption);
    send(code::kRandom, mOwnRandom);
}

// Secure connections: public keys, the peripheral's confirm value, random numbers, and the check that both
// have the same key.

void SecurityManager::onPublicKey(const Scalar& x, const Scalar& y)
{
    const KeyPair keyPair;
    const auto secret = keyPair.agree({swapped(x), swapped(y)});
    if (!secret) {
        return fail(reason::kInvalidParameters);
    }
    mSharedSecret = swapped(*secret);
    mOwnRandom = randomArray<16>();
    const Scalar ownX = swapped(keyPair.publicKey().x);
    await(Awaiting::SecureRandom);
    send(code::kPublicKey, ownX, swapped(keyPair.publicKey().y));
    send(code::kConfirm, f4(ownX, x, mOwnRandom, 0));
}

void SecurityManager::onSecureRandom(const Value& random)
{
    mCentralRandom = random;
    const SecureKeys keys = f5(mSharedSecret, mCentralRandom, mOwnRandom, mContext.central, mContext.self);
    mMacKey = keys.macKey;
    mKey = keys.longTermKey;
    await(Awaiting::SecureCheck);
    send(code::kRandom, mOwnRandom);
}

void SecurityManager::onSecureCheck(const Value& check)
{
    const Address& central = mContext.central;
    const Address& self = mContext.self;
    const Value expected =
        f6(mMacKey, mCentralRandom, mOwnRandom, kNoPasskey, capabilities(mRequest), central, self);
    if (expected != check || mPolicy.behavior == PairingPolicy::Behavior::FailsConfirm) {
        return fail(reason::kCheckFailed);
    }
    await(Awaiting::Encryption);
    send(code::kCheck,
         f6(mMacKey, mOwnRandom, mCentralRandom, kNoPasskey, capabilities(mResponse), self, central));
}

// Encryption, and the keys for later links.

std::optional<Key128> SecurityManager::longTermKey(std::uint64_t random, std::uint16_t diversifier) const
{
    if (mAwaiting == Awaiting::Encryption && random == 0 && diversifier == 0) {
        return mKey;
    }
    const auto bond = mContext.bonds->find(mContext.central);
    if (bond == mContext.bonds->end() || bond->second.random != random ||
        bond->second.diversifier != diversifier) {
        return std::nullopt;
    }
    return bond->second.key;
}

void SecurityManager::encrypted()
{
    if (mAwaiting == Awaiting::Encryption) {
        distributeKeys();
    }
}

void SecurityManager::distributeKeys()
{
    const std::uint8_t ours = mResponse[6];
    mKeysToCome = mResponse[5];
    Bond bond{mKey, 0, 0};
    if ((ours & kEncryptionKey) != 0) {
        bond = {randomArray<16>(), randomNumber<std::uint64_t>(), randomNumber<std::uint16_t>()};
        send(code::kEncryptionInformation, bond.key);
        send(code::kCentralIdentification, bond.diversifier, bond.random);
    }
    if ((ours & kIdentityKey) != 0) {
        send(code::kIdentityInformation, mContext.identity->key);
        send(code::kIdentityAddress, mContext.identity->address);
    }
    // A short-term key is of no use to the next link.
    const bool lasting = mSecure || (ours & kEncryptionKey) != 0;
    if (mBonding && lasting) {
        (*mContext.bonds)[mContext.central] = bond;
    }
    await(Awaiting::CentralKeys);
    if (mKeysToCome == 0) {
        finish();
    }
}

void SecurityManager::onCentralKey(std::uint8_t code)
{
    // A peripheral that advertises to everybody doesn't need the central's identity; it only has to await it.
    if (code == code::kIdentityAddress) {
        mKeysToCome = static_cast<std::uint8_t>(mKeysToCome & ~kIdentityKey);
    }
    if (mKeysToCome == 0) {
        finish();
    }
}

void SecurityManager::finish()
{
    await(Awaiting::Request);
    mContext.paired(mSecure);
}

void SecurityManager::requestSecurity()
{
    const std::uint8_t secure = mContext.policy().secureConnections ? kSecureConnections : std::uint8_t{0};
    send(code::kSecurityRequest, static_cast<std::uint8_t>(kBonding | secure));
}

void SecurityManager::fail(std::uint8_t reason)
{
    await(Awaiting::Request);
    send(code::kFailed, reason);
}

void SecurityManager::await(Awaiting what)
{
    mAwaiting = what;
    if (what == Awaiting::Request) {
        mTimeout.stop();
    } else if (!mTimeout.running()) {
        mTimeout.start(kPairingLimit, [this] { mAwaiting = Awaiting::Request; });
    }
}

} // namespace vexasim::air
