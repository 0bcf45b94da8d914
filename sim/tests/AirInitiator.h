// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <optional>
#include <string>

#include "sim/air/PairingToolbox.h"
#include "sim/tests/AirBench.h"

namespace vexasim::air
{

/// The box's security manager, controlled by the test: the initiator of a pairing, packet by packet, so that
/// a test can introduce an error at any of them.
class Initiator
{
public:
    static constexpr std::uint8_t kEncryptionKey = 1;
    static constexpr std::uint8_t kIdentityKey = 2;

    explicit Initiator(ScriptedHost& host) : mHost(host) {}

    /// Returns what the peripheral sent, in hexadecimal; "silence" if it sent nothing.
    std::string exchange(const Bytes& packet)
    {
        mHost.sendOn(Channel::Security, packet);
        return next();
    }
    std::string next()
    {
        const auto answer = mHost.awaitOn(Channel::Security);
        mLast = answer.value_or(Bytes{});
        return answer ? kit::toHex(*answer) : "silence";
    }

    // --- both pairing methods start alike ---
    /// "Just works", bonding, keys of 16 bytes.
    std::string request(bool secure, std::uint8_t ownKeys = kIdentityKey,
                        std::uint8_t theirKeys = kEncryptionKey | kIdentityKey)
    {
        mRequest = {0x01, 0x03,    0x00,     static_cast<std::uint8_t>(secure ? 0x09 : 0x01),
                    16,   ownKeys, theirKeys};
        const std::string answer = exchange(Bytes(mRequest.begin(), mRequest.end()));
        if (mLast.size() == mResponse.size()) {
            std::copy(mLast.begin(), mLast.end(), mResponse.begin());
        }
        return answer;
    }

    // --- legacy ---
    /// Sends the confirm value; true if the peripheral sends its own.
    bool commit()
    {
        mRandom = randomArray<16>();
        exchange(packet(0x03, c1({}, mRandom, mRequest, mResponse, mHost.self(), mHost.peer())));
        return takeValue(0x03, mTheirConfirm);
    }
    /// Exchanges the random numbers; true if the peripheral's matches its confirm value.
    bool open()
    {
        exchange(packet(0x04, mRandom));
        if (!takeValue(0x04, mTheirRandom)) {
            return false;
        }
        key = s1({}, mTheirRandom, mRandom);
        return c1({}, mTheirRandom, mRequest, mResponse, mHost.self(), mHost.peer()) == mTheirConfirm;
    }

    // --- secure connections ---
    /// Exchanges public keys; true if the peripheral sent a valid one and a confirm value.
    bool exchangeKeys()
    {
        const Point own = mPair.publicKey();
        mOwnX = swapped(own.x);
        exchange(encode(std::uint8_t{0x0c}, mOwnX, swapped(own.y)));
        if (mLast.size() != 65 || mLast.front() != 0x0c) {
            return false;
        }
        Point theirs;
        std::tie(std::ignore, theirs.x, theirs.y) = decodeFields<std::uint8_t, Scalar, Scalar>(mLast).value();
        mTheirX = theirs.x;
        const auto secret = mPair.agree({swapped(theirs.x), swapped(theirs.y)});
        mSecret = swapped(secret.value_or(Scalar{}));
        next();
        return secret && takeValue(0x03, mTheirConfirm);
    }
    /// Exchanges the random numbers; true if the peripheral's matches its confirm value.
    bool exchangeRandoms()
    {
        mRandom = randomArray<16>();
        exchange(packet(0x04, mRandom));
        if (!takeValue(0x04, mTheirRandom)) {
            return false;
        }
        const auto keys = f5(mSecret, mRandom, mTheirRandom, mHost.self(), mHost.peer());
        mMacKey = keys.macKey;
        key = keys.longTermKey;
        return f4(mTheirX, mOwnX, mTheirRandom, 0) == mTheirConfirm;
    }
    /// Exchanges the check values; true if the peripheral's is correct.
    bool prove()
    {
        const auto proof = f6(mMacKey, mRandom, mTheirRandom, {}, {mRequest[1], mRequest[2], mRequest[3]},
                              mHost.self(), mHost.peer());
        exchange(packet(0x0d, proof));
        Key128 theirs{};
        return takeValue(0x0d, theirs) &&
               theirs == f6(mMacKey, mTheirRandom, mRandom, {}, {mResponse[1], mResponse[2], mResponse[3]},
                            mHost.peer(), mHost.self());
    }

    // --- encryption and keys ---
    void startEncryption()
    {
        EXPECT_EQ(mHost.status(hci::Opcode::LeStartEncryption, mHost.handle(), random, diversifier, key),
                  hci::Status::Success);
    }
    /// Returns the status of the attempt to encrypt.
    hci::Status encrypt()
    {
        startEncryption();
        const auto change = mHost.await<hci::EncryptionChange>();
        return change ? change->status : hci::Status{0xff};
    }

    /// Receives the keys that the peripheral agreed to send, and sends ours.
    void exchangeBondingKeys()
    {
        if ((mResponse[6] & kEncryptionKey) != 0) {
            next();
            takeValue(0x06, key);
            next();
            std::tie(std::ignore, diversifier, random) =
                decodeFields<std::uint8_t, std::uint16_t, std::uint64_t>(mLast).value();
        }
        if ((mResponse[6] & kIdentityKey) != 0) {
            next();
            takeValue(0x08, identityKey);
            next();
            std::tie(std::ignore, identity) = decodeFields<std::uint8_t, Address>(mLast).value();
        }
        if ((mResponse[5] & kIdentityKey) != 0) {
            mHost.sendOn(Channel::Security, packet(0x08, randomArray<16>()));
            mHost.sendOn(Channel::Security, encode(std::uint8_t{0x09}, mHost.self()));
        }
        mHost.pass(std::chrono::seconds(1));
    }

    void pairLegacy()
    {
        request(false);
        EXPECT_TRUE(commit());
        EXPECT_TRUE(open());
        EXPECT_EQ(encrypt(), hci::Status::Success);
        exchangeBondingKeys();
    }

    void pairSecurely()
    {
        request(true);
        EXPECT_TRUE(exchangeKeys());
        EXPECT_TRUE(exchangeRandoms());
        EXPECT_TRUE(prove());
        EXPECT_EQ(encrypt(), hci::Status::Success);
        exchangeBondingKeys();
    }

    static Bytes packet(std::uint8_t code, const Key128& value) { return encode(code, value); }

    /// What encrypts the next link.
    Key128 key{};
    std::uint64_t random = 0;
    std::uint16_t diversifier = 0;
    /// Of a peripheral with a private address.
    Key128 identityKey{};
    Address identity;

private:
    static Scalar swapped(Scalar scalar)
    {
        std::reverse(scalar.begin(), scalar.end());
        return scalar;
    }
    bool takeValue(std::uint8_t code, Key128& value)
    {
        if (mLast.size() != 17 || mLast.front() != code) {
            return false;
        }
        std::copy(mLast.begin() + 1, mLast.end(), value.begin());
        return true;
    }

    ScriptedHost& mHost;
    Bytes mLast;
    std::array<std::uint8_t, 7> mRequest{};
    std::array<std::uint8_t, 7> mResponse{};
    Key128 mRandom{};
    Key128 mTheirRandom{};
    Key128 mTheirConfirm{};
    KeyPair mPair;
    Scalar mOwnX{};
    Scalar mTheirX{};
    Scalar mSecret{};
    Key128 mMacKey{};
};

} // namespace vexasim::air
