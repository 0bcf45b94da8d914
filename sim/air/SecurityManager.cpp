// SPDX-License-Identifier: MIT
#include "sim/air/SecurityManager.h"

#include <algorithm>

namespace vexasim::air
{

namespace
{

// The security manager's own limit for the whole of a pairing.
constexpr std::chrono::seconds kPairingLimit{30};

namespace code
{
constexpr uint8_t kPairingRequest = 0x01;
constexpr uint8_t kPairingResponse = 0x02;
constexpr uint8_t kConfirm = 0x03;
constexpr uint8_t kRandom = 0x04;
constexpr uint8_t kFailed = 0x05;
constexpr uint8_t kEncryptionInformation = 0x06;
constexpr uint8_t kCentralIdentification = 0x07;
constexpr uint8_t kIdentityInformation = 0x08;
constexpr uint8_t kIdentityAddress = 0x09;
constexpr uint8_t kSecurityRequest = 0x0b;
constexpr uint8_t kPublicKey = 0x0c;
constexpr uint8_t kCheck = 0x0d;
} // namespace code

namespace reason
{
constexpr uint8_t kConfirmFailed = 0x04;
constexpr uint8_t kNotSupported = 0x05;
constexpr uint8_t kKeySize = 0x06;
constexpr uint8_t kUnspecified = 0x08;
constexpr uint8_t kRepeatedAttempts = 0x09;
constexpr uint8_t kInvalidParameters = 0x0a;
constexpr uint8_t kCheckFailed = 0x0b;
} // namespace reason

constexpr uint8_t kNoInputNoOutput = 0x03;
constexpr uint8_t kBonding = 0x01;
constexpr uint8_t kBondingMask = 0x03;
constexpr uint8_t kSecureConnections = 0x08;
constexpr uint8_t kKeySize = 16;
constexpr uint8_t kEncryptionKey = 0x01;
constexpr uint8_t kIdentityKey = 0x02;

// Nothing is shown and nothing typed: "just works" has zeroes for both.
constexpr Key128 kTemporaryKey{};
constexpr Key128 kNoPasskey{};

struct PairingParameters {
    uint8_t code = 0;
    uint8_t capability = 0;
    uint8_t outOfBand = 0;
    uint8_t requirements = 0;
    uint8_t keySize = 0;
    uint8_t centralKeys = 0;
    uint8_t peripheralKeys = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(code, capability, outOfBand, requirements, keySize, centralKeys, peripheralKeys);
    }
};

struct ValuePacket {
    uint8_t code = 0;
    Key128 value{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(code, value);
    }
};

struct PublicKeyPacket {
    uint8_t code = code::kPublicKey;
    Scalar x{};
    Scalar y{};
    template <class Fields>
    void fields(Fields& f)
    {
        f(code, x, y);
    }
};

struct CentralIdentification {
    uint8_t code = code::kCentralIdentification;
    uint16_t diversifier = 0;
    uint64_t random = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(code, diversifier, random);
    }
};

struct IdentityAddress {
    uint8_t code = code::kIdentityAddress;
    Address address;
    template <class Fields>
    void fields(Fields& f)
    {
        f(code, address);
    }
};

/// A packet with one octet: a reason, or requirements.
struct OctetPacket {
    uint8_t code = 0;
    uint8_t octet = 0;
    template <class Fields>
    void fields(Fields& f)
    {
        f(code, octet);
    }
};

// The ciphers have the most significant octet first, the air the least.
Scalar swapped(Scalar scalar)
{
    std::reverse(scalar.begin(), scalar.end());
    return scalar;
}

std::array<uint8_t, 7> sevenOctets(const PairingParameters& parameters)
{
    const Bytes bytes = encode(parameters);
    std::array<uint8_t, 7> octets{};
    std::copy(bytes.begin(), bytes.end(), octets.begin());
    return octets;
}

std::array<uint8_t, 3> capabilities(const std::array<uint8_t, 7>& parameters)
{
    return {parameters[1], parameters[2], parameters[3]};
}

uint64_t randomNumber()
{
    uint64_t number = 0;
    const Bytes bytes = randomBytes(sizeof number);
    Decoder decoder(bytes);
    decoder(number);
    return number;
}

} // namespace

SecurityManager::SecurityManager(Clock& clock, Surroundings surroundings)
    : mSurroundings(std::move(surroundings)), mTimeout(clock)
{
}

void SecurityManager::received(const Bytes& packet)
{
    if (packet.empty())
        return;
    const uint8_t code = packet.front();
    if (code == code::kPairingRequest)
        return onRequest(packet);
    if (code == code::kFailed)
        return await(Awaiting::Request);

    const auto value = decode<ValuePacket>(packet);
    const auto is = [&](Awaiting what, uint8_t wanted) {
        return mAwaiting == what && code == wanted && value;
    };
    if (is(Awaiting::LegacyConfirm, code::kConfirm))
        return onLegacyConfirm(value->value);
    if (is(Awaiting::LegacyRandom, code::kRandom))
        return onLegacyRandom(value->value);
    if (is(Awaiting::SecureRandom, code::kRandom))
        return onSecureRandom(value->value);
    if (is(Awaiting::SecureCheck, code::kCheck))
        return onSecureCheck(value->value);
    if (mAwaiting == Awaiting::PublicKey && code == code::kPublicKey)
        if (const auto key = decode<PublicKeyPacket>(packet))
            return onPublicKey({key->x, key->y});
    if (mAwaiting == Awaiting::CentralKeys)
        return onCentralKey(code);
    if (mAwaiting != Awaiting::Request)
        fail(reason::kUnspecified);
}

// The request and what the peripheral makes of it.

void SecurityManager::onRequest(const Bytes& packet)
{
    using Temper = PairingManner::Temper;
    mManner = mSurroundings.manner();
    const bool bonded = mSurroundings.bonds->count(mSurroundings.central) != 0;
    const auto request = decode<PairingParameters>(packet);
    if (mManner.temper == Temper::Silent)
        return;
    if (!request)
        return fail(reason::kInvalidParameters);
    if (mManner.temper == Temper::Refuses)
        return fail(reason::kNotSupported);
    if (mManner.temper == Temper::RefusesRepeated && bonded)
        return fail(reason::kRepeatedAttempts);
    if (request->keySize != kKeySize)
        return fail(reason::kKeySize);

    mSecure = mManner.secureConnections && (request->requirements & kSecureConnections) != 0;
    mBonding = (request->requirements & kBondingMask) == kBonding;
    PairingParameters response;
    response.code = code::kPairingResponse;
    response.capability = kNoInputNoOutput;
    response.requirements =
        static_cast<uint8_t>((mBonding ? kBonding : 0) | (mSecure ? kSecureConnections : 0));
    response.keySize = kKeySize;
    if (mBonding) {
        // With secure connections both ends have computed the key already.
        const uint8_t offered = static_cast<uint8_t>((mSecure ? 0 : kEncryptionKey) |
                                                     (mSurroundings.identity ? kIdentityKey : 0));
        response.centralKeys = request->centralKeys & kIdentityKey;
        response.peripheralKeys = request->peripheralKeys & offered;
    }
    mRequest = sevenOctets(*request);
    mResponse = sevenOctets(response);
    await(mSecure ? Awaiting::PublicKey : Awaiting::LegacyConfirm);
    mSurroundings.send(Channel::Security, encode(response));
}

// Legacy pairing: commitments first, then what was committed to.

void SecurityManager::onLegacyConfirm(const Value& confirm)
{
    mCentralConfirm = confirm;
    mOwnRandom = randomArray<16>();
    await(Awaiting::LegacyRandom);
    sendValue(code::kConfirm,
              c1(kTemporaryKey, mOwnRandom, mRequest, mResponse, mSurroundings.central, mSurroundings.self));
}

void SecurityManager::onLegacyRandom(const Value& random)
{
    const Value expected =
        c1(kTemporaryKey, random, mRequest, mResponse, mSurroundings.central, mSurroundings.self);
    if (expected != mCentralConfirm || mManner.temper == PairingManner::Temper::FailsConfirm)
        return fail(reason::kConfirmFailed);
    mKey = s1(kTemporaryKey, mOwnRandom, random);
    await(Awaiting::Encryption);
    sendValue(code::kRandom, mOwnRandom);
}

// Secure connections: public keys, the peripheral's commitment, random numbers,
// and the proof that both have the same key.

void SecurityManager::onPublicKey(const Point& onAir)
{
    mKeyPair = std::make_unique<KeyPair>();
    const auto secret = mKeyPair->agree({swapped(onAir.x), swapped(onAir.y)});
    if (!secret)
        return fail(reason::kInvalidParameters);
    mSharedSecret = swapped(*secret);
    mOwnRandom = randomArray<16>();
    PublicKeyPacket own;
    own.x = swapped(mKeyPair->publicKey().x);
    own.y = swapped(mKeyPair->publicKey().y);
    await(Awaiting::SecureRandom);
    mSurroundings.send(Channel::Security, encode(own));
    sendValue(code::kConfirm, f4(own.x, onAir.x, mOwnRandom, 0));
}

void SecurityManager::onSecureRandom(const Value& random)
{
    mCentralRandom = random;
    const SecureKeys keys =
        f5(mSharedSecret, mCentralRandom, mOwnRandom, mSurroundings.central, mSurroundings.self);
    mMacKey = keys.macKey;
    mKey = keys.longTermKey;
    await(Awaiting::SecureCheck);
    sendValue(code::kRandom, mOwnRandom);
}

void SecurityManager::onSecureCheck(const Value& check)
{
    const Address& central = mSurroundings.central;
    const Address& self = mSurroundings.self;
    const Value expected =
        f6(mMacKey, mCentralRandom, mOwnRandom, kNoPasskey, capabilities(mRequest), central, self);
    if (expected != check || mManner.temper == PairingManner::Temper::FailsConfirm)
        return fail(reason::kCheckFailed);
    await(Awaiting::Encryption);
    sendValue(code::kCheck,
              f6(mMacKey, mOwnRandom, mCentralRandom, kNoPasskey, capabilities(mResponse), self, central));
}

// Encryption, and the keys for the next time.

std::optional<Key128> SecurityManager::longTermKey(uint64_t random, uint16_t diversifier) const
{
    if (mAwaiting == Awaiting::Encryption && random == 0 && diversifier == 0)
        return mKey;
    const auto bond = mSurroundings.bonds->find(mSurroundings.central);
    if (bond == mSurroundings.bonds->end() || bond->second.random != random ||
        bond->second.diversifier != diversifier)
        return std::nullopt;
    return bond->second.key;
}

void SecurityManager::encrypted()
{
    if (mAwaiting == Awaiting::Encryption)
        distributeKeys();
}

void SecurityManager::distributeKeys()
{
    const uint8_t ours = mResponse[6];
    mKeysToCome = mResponse[5];
    Bond bond{mKey, 0, 0};
    if ((ours & kEncryptionKey) != 0) {
        CentralIdentification identification;
        identification.diversifier = static_cast<uint16_t>(randomNumber());
        identification.random = randomNumber();
        bond = {randomArray<16>(), identification.random, identification.diversifier};
        sendValue(code::kEncryptionInformation, bond.key);
        mSurroundings.send(Channel::Security, encode(identification));
    }
    if ((ours & kIdentityKey) != 0) {
        sendValue(code::kIdentityInformation, mSurroundings.identity->key);
        IdentityAddress identity;
        identity.address = mSurroundings.identity->address;
        mSurroundings.send(Channel::Security, encode(identity));
    }
    // A short-term key is worth nothing to the next link.
    const bool lasting = mSecure || (ours & kEncryptionKey) != 0;
    if (mBonding && lasting)
        (*mSurroundings.bonds)[mSurroundings.central] = bond;
    await(Awaiting::CentralKeys);
    if (mKeysToCome == 0)
        finish();
}

void SecurityManager::onCentralKey(uint8_t code)
{
    // The central's identity is of no use to a peripheral that advertises to
    // everybody; it only has to wait for it.
    if (code == code::kIdentityAddress)
        mKeysToCome = static_cast<uint8_t>(mKeysToCome & ~kIdentityKey);
    if (mKeysToCome == 0)
        finish();
}

void SecurityManager::finish()
{
    await(Awaiting::Request);
    mSurroundings.paired(mSecure);
}

void SecurityManager::requestSecurity()
{
    const uint8_t secure = mSurroundings.manner().secureConnections ? kSecureConnections : uint8_t{0};
    mSurroundings.send(Channel::Security,
                       encode(OctetPacket{code::kSecurityRequest, static_cast<uint8_t>(kBonding | secure)}));
}

void SecurityManager::fail(uint8_t reason)
{
    await(Awaiting::Request);
    mSurroundings.send(Channel::Security, encode(OctetPacket{code::kFailed, reason}));
}

void SecurityManager::sendValue(uint8_t code, const Value& value)
{
    mSurroundings.send(Channel::Security, encode(ValuePacket{code, value}));
}

void SecurityManager::await(Awaiting what)
{
    mAwaiting = what;
    if (what == Awaiting::Request)
        mTimeout.stop();
    else if (!mTimeout.running())
        mTimeout.start(kPairingLimit, [this] { mAwaiting = Awaiting::Request; });
}

} // namespace vexasim::air
