// SPDX-License-Identifier: MIT
// The ciphers of the air with the sample data of the Bluetooth core documents and of the standards on which
// they build.
#include "sim/air/PairingToolbox.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

#include "sim/air/LinkCipher.h"
#include "tests/kit/Hex.h"

namespace vexasim::air
{

namespace
{

/// As the documents print it: the most significant octet first.
template <class Array>
Array printed(const std::string& hex)
{
    const auto bytes = kit::fromHex(hex);
    Array array{};
    if (bytes.size() != array.size()) {
        throw std::invalid_argument("wrong size: " + hex);
    }
    std::copy(bytes.begin(), bytes.end(), array.begin());
    return array;
}

/// The same number as sent over the air: the least significant octet first.
template <class Array>
Array onAir(const std::string& hex)
{
    Array array = printed<Array>(hex);
    std::reverse(array.begin(), array.end());
    return array;
}

Key128 key(const std::string& hex)
{
    return onAir<Key128>(hex);
}

template <class Array>
std::string print(Array array)
{
    std::reverse(array.begin(), array.end());
    return kit::toHex(array);
}

Address address(const std::string& text, AddressKind kind = AddressKind::Public)
{
    return Address::parse(text, kind).value();
}

const std::string kPrivateA = "3f49f6d4a3c55f3874c9b3e3d2103f504aff607beb40b7995899b8a6cd3c1abd";
const std::string kPrivateB = "55188b3d32f6bb9a900afcfbeed4e72a59cb9ac2f19d7cfb6b4fdd49f47fc5fd";
const std::string kPublicAx = "20b003d2f297be2c5e2c83a7e9f9a5b9eff49111acf4fddbcc0301480e359de6";
const std::string kPublicAy = "dc809c49652aeb6d63329abf5a52155c766345c28fed3024741c8ed01589d28b";
const std::string kPublicBx = "1ea1f0f01faf1d9609592284f19e4c0047b58afd8615a69f559077b22faaa190";
const std::string kPublicBy = "4c55f33e429dad377356703a9ab85160472d1130e28e36765f89aff915b1214a";
const std::string kSharedSecret = "ec0234a357c8ad05341010a60a397d9b99796b13b4f866f1868d34f373bfa698";

const std::string kNumber1 = "d5cb8454d177733effffb2ec712baeab";
const std::string kNumber2 = "a6e8e7cc25a75f6e216583f7ff3dc4cf";
const std::string kMacKey = "2965f176a1084a02fd3f6a20ce636e20";

const Key128 kLinkKey = key("4c68384139f574d836bcf34e9dfb01bf");

EncryptionHalves sampleHalves()
{
    return {onAir<std::array<std::uint8_t, 8>>("acbdcedfe0f10213"),
            onAir<std::array<std::uint8_t, 4>>("badcab24"),
            onAir<std::array<std::uint8_t, 8>>("0213243546576879"),
            onAir<std::array<std::uint8_t, 4>>("deafbabe")};
}

} // namespace

// --- the standards ---

TEST(Aes, EnciphersTheBlockOfTheStandard)
{
    const auto result = aes128(printed<Block>("000102030405060708090a0b0c0d0e0f"),
                               printed<Block>("00112233445566778899aabbccddeeff"));
    EXPECT_EQ(kit::toHex(result), "69c4e0d86a7b0430d8cdb78070b4c55a");
}

TEST(AesCmac, AnswersAsRfc4493Prints)
{
    const auto k = printed<Block>("2b7e151628aed2a6abf7158809cf4f3c");
    const std::string first = "6bc1bee22e409f96e93d7e117393172a";
    const std::string third = first + "ae2d8a571e03ac9c9eb76fac45af8e5130c81c46a35ce411";
    const std::string fourth = third + "e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
    EXPECT_EQ(kit::toHex(aesCmac(k, {})), "bb1d6929e95937287fa37d129b756746");
    EXPECT_EQ(kit::toHex(aesCmac(k, kit::fromHex(first))), "070a16b46b4d4144f79bdd9dd04a287c");
    EXPECT_EQ(kit::toHex(aesCmac(k, kit::fromHex(third))), "dfa66747de9ae63030ca32611497c827");
    EXPECT_EQ(kit::toHex(aesCmac(k, kit::fromHex(fourth))), "51f0bebf7e3b9d92fc49741779363cfe");
}

// --- key agreement, Bluetooth Core 5.3, Vol 2, G 7.1.2 ---

TEST(KeyAgreement, GivesBothTheSecretOfTheSampleData)
{
    const KeyPair a(printed<Scalar>(kPrivateA));
    const KeyPair b(printed<Scalar>(kPrivateB));
    EXPECT_EQ(kit::toHex(a.publicKey().x), kPublicAx);
    EXPECT_EQ(kit::toHex(a.publicKey().y), kPublicAy);
    EXPECT_EQ(kit::toHex(b.publicKey().x), kPublicBx);
    EXPECT_EQ(kit::toHex(b.publicKey().y), kPublicBy);
    EXPECT_EQ(kit::toHex(a.agree(b.publicKey()).value()), kSharedSecret);
    EXPECT_EQ(kit::toHex(b.agree(a.publicKey()).value()), kSharedSecret);
}

TEST(KeyAgreement, RefusesAPointOffTheCurve)
{
    const KeyPair a;
    Point point = KeyPair().publicKey();
    point.y[0] ^= 1;
    EXPECT_FALSE(a.agree(point));
    EXPECT_FALSE(a.agree(Point{}));
}

TEST(KeyAgreement, MakesAnotherPairEachTime)
{
    EXPECT_FALSE(KeyPair().publicKey() == KeyPair().publicKey());
}

// --- legacy pairing, Vol 3, H 2.2 ---

TEST(LegacyPairing, ConfirmsAsTheSampleData)
{
    const std::array<std::uint8_t, 7> request = onAir<std::array<std::uint8_t, 7>>("07071000000101");
    const std::array<std::uint8_t, 7> response = onAir<std::array<std::uint8_t, 7>>("05000800000302");
    const auto confirm = c1({}, key("5783d52156ad6f0e6388274ec6702ee0"), request, response,
                            address("A1:A2:A3:A4:A5:A6", AddressKind::Random), address("B1:B2:B3:B4:B5:B6"));
    EXPECT_EQ(print(confirm), "1e1e3fef878988ead2a74dc5bef13b86");
}

TEST(LegacyPairing, MakesTheShortTermKeyOfTheSampleData)
{
    const auto k = s1({}, key("000f0e0d0c0b0a091122334455667788"), key("010203040506070899aabbccddeeff00"));
    EXPECT_EQ(print(k), "9a1fe1f0e8b0f49b5b4216ae796da062");
}

// --- secure connections, Vol 3, H, sample data of the toolbox ---

TEST(SecureConnections, ConfirmsAsTheSampleData)
{
    const auto confirm = f4(onAir<Scalar>(kPublicAx), onAir<Scalar>(kPrivateB), key(kNumber1), 0);
    EXPECT_EQ(print(confirm), "f2c916f107a9bd1cf1eda1bea974872d");
}

TEST(SecureConnections, MakesTheKeysOfTheSampleData)
{
    const auto keys = f5(onAir<Scalar>(kSharedSecret), key(kNumber1), key(kNumber2),
                         address("56:12:37:37:BF:CE"), address("A7:13:70:2D:CF:C1"));
    EXPECT_EQ(print(keys.macKey), kMacKey);
    EXPECT_EQ(print(keys.longTermKey), "6986791169d7cd23980522b594750a38");
}

TEST(SecureConnections, ProvesAsTheSampleData)
{
    const auto proof = f6(key(kMacKey), key(kNumber1), key(kNumber2), key("12a3343bb453bb5408da42d20c2d0fc8"),
                          onAir<std::array<std::uint8_t, 3>>("010102"), address("56:12:37:37:BF:CE"),
                          address("A7:13:70:2D:CF:C1"));
    EXPECT_EQ(print(proof), "e3c473989cd0e8c5d26c0b09da958f61");
}

TEST(PrivateAddress, HashesAsTheSampleData)
{
    const auto hash =
        ah(key("ec0234a357c8ad05341010a60a397d9b"), onAir<std::array<std::uint8_t, 3>>("708194"));
    EXPECT_EQ(print(hash), "0dfbaa");
}

// --- the encrypted link, Vol 6, C 1 ---

TEST(EncryptedLink, HasTheSessionKeyOfTheSampleData)
{
    const auto halves = sampleHalves();
    const auto session = sessionKey(kLinkKey, halves.centralDiversifier, halves.peripheralDiversifier);
    EXPECT_EQ(print(session), "99ad1b5226a37e3e058e3b8e27c2c666");
}

TEST(EncryptedLink, SealsThePacketsOfTheSampleData)
{
    LinkCipher central(LinkCipher::End::Central, kLinkKey, sampleHalves());
    LinkCipher peripheral(LinkCipher::End::Peripheral, kLinkKey, sampleHalves());
    const LinkPacket startResponse{LinkPacket::Control, {0x06}};
    EXPECT_EQ(kit::toHex(central.seal(startResponse)), "9fcda7f448");
    EXPECT_EQ(kit::toHex(peripheral.seal(startResponse)), "a34c13a415");

    const std::string message = "cdefghijklmnopq1234567890";
    const LinkPacket data{LinkPacket::Start, Bytes{0x17, 0x00} + Bytes(message.begin(), message.end())};
    EXPECT_EQ(kit::toHex(central.seal(data)),
              "7a70d66415226df26b17839a060405596bd6564f796b5b9ce6ff32f75a6d33");
}

TEST(EncryptedLink, OpensWhatTheOtherEndSealed)
{
    LinkCipher central(LinkCipher::End::Central, kLinkKey, sampleHalves());
    LinkCipher peripheral(LinkCipher::End::Peripheral, kLinkKey, sampleHalves());
    for (std::uint8_t i = 0; i < 3; ++i) {
        const LinkPacket down{LinkPacket::Start, {i, 1, 2}};
        const LinkPacket up{LinkPacket::Continuation, {i, 3}};
        EXPECT_EQ(peripheral.open({down.kind, central.seal(down)}), down.payload);
        EXPECT_EQ(central.open({up.kind, peripheral.seal(up)}), up.payload);
    }
}

TEST(EncryptedLink, RefusesAnotherKeyAChangedPacketAndALostOne)
{
    const LinkPacket packet{LinkPacket::Start, {1, 2, 3}};
    LinkCipher central(LinkCipher::End::Central, kLinkKey, sampleHalves());
    LinkCipher stranger(LinkCipher::End::Peripheral, Key128{}, sampleHalves());
    EXPECT_FALSE(stranger.open({packet.kind, central.seal(packet)}));

    LinkCipher changed(LinkCipher::End::Peripheral, kLinkKey, sampleHalves());
    LinkCipher sender(LinkCipher::End::Central, kLinkKey, sampleHalves());
    EXPECT_FALSE(changed.open({LinkPacket::Continuation, sender.seal(packet)}));

    LinkCipher late(LinkCipher::End::Peripheral, kLinkKey, sampleHalves());
    EXPECT_FALSE(late.open({packet.kind, sender.seal(packet)}));
}

} // namespace vexasim::air
