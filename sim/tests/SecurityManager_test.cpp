// SPDX-License-Identifier: MIT
// The peripheral's security manager with an initiator controlled by the test, over a complete link: HCI,
// connection events, channels.
#include "sim/tests/AirBench.h"
#include "sim/tests/AirInitiator.h"

namespace vexasim::air
{

namespace
{

using hci::Status;

const Address kRemote = Address::parse("C0:FF:EE:00:00:01").value();

class APairing : public testing::Test
{
protected:
    APairing()
    {
        host.setUp();
        putOnAir(RadioOptions{});
    }

    void putOnAir(const RadioOptions& options)
    {
        radio.reset();
        PeripheralOptions peripheral;
        peripheral.address = kRemote.text();
        peripheral.name = "VEXA RC";
        remote = std::make_shared<Peripheral>(peripheral);
        radio = PeripheralRadio::create(host.scheduler(), host.air(), remote, options,
                                        [this](const std::string& line) { events.push_back(line); });
    }

    void putOnAir(bool RadioOptions::*option)
    {
        RadioOptions options;
        options.*option = !(options.*option);
        putOnAir(options);
    }

    /// A new link, which keeps the bonds of the last one.
    void reconnect()
    {
        if (remote->connected()) {
            EXPECT_EQ(host.disconnect(), Status::Success);
            EXPECT_TRUE(host.linkEnd());
        }
        host.connect(radio->address());
    }

    ScriptedHost host;
    Initiator initiator{host};
    std::shared_ptr<Peripheral> remote;
    std::shared_ptr<PeripheralRadio> radio;
    std::vector<std::string> events;
};

} // namespace

// --- the two pairing methods ---

TEST_F(APairing, WorksTheLegacyWay)
{
    host.connect(kRemote);
    EXPECT_EQ(initiator.request(false), "02030001100201");
    EXPECT_TRUE(initiator.commit());
    EXPECT_TRUE(initiator.open());
    EXPECT_EQ(initiator.encrypt(), Status::Success);
    EXPECT_FALSE(remote->paired());
    initiator.exchangeBondingKeys();
    EXPECT_TRUE(remote->paired());
    EXPECT_NE(initiator.random, 0U);
    EXPECT_EQ(events.back(), "C0:FF:EE:00:00:01: paired in the legacy way");
}

TEST_F(APairing, WorksWithSecureConnections)
{
    host.connect(kRemote);
    EXPECT_EQ(initiator.request(true), "02030009100200");
    EXPECT_TRUE(initiator.exchangeKeys());
    EXPECT_TRUE(initiator.exchangeRandoms());
    EXPECT_TRUE(initiator.prove());
    EXPECT_EQ(initiator.encrypt(), Status::Success);
    initiator.exchangeBondingKeys();
    EXPECT_TRUE(remote->paired());
    EXPECT_EQ(events.back(), "C0:FF:EE:00:00:01: paired with secure connections");
}

TEST_F(APairing, FallsBackToLegacyWithARemoteThatKnowsNothingElse)
{
    putOnAir(&RadioOptions::secureConnections);
    host.connect(kRemote);
    EXPECT_EQ(initiator.request(true), "02030001100201");
    EXPECT_TRUE(initiator.commit());
    EXPECT_TRUE(initiator.open());
}

TEST_F(APairing, EndsAtOnceWhenNoKeysAreExchanged)
{
    host.connect(kRemote);
    EXPECT_EQ(initiator.request(true, 0, 0), "02030009100000");
    EXPECT_TRUE(initiator.exchangeKeys() && initiator.exchangeRandoms() && initiator.prove());
    EXPECT_EQ(initiator.encrypt(), Status::Success);
    EXPECT_TRUE(remote->paired());
}

// --- the bond ---

TEST_F(APairing, LeavesAKeyForTheNextLink)
{
    for (const auto pair : {&Initiator::pairLegacy, &Initiator::pairSecurely}) {
        reconnect();
        Initiator fresh(host);
        (fresh.*pair)();
        reconnect();
        EXPECT_EQ(fresh.encrypt(), Status::Success);
    }
}

TEST_F(APairing, RefreshesTheKeyOfALinkThatIsEncryptedAlready)
{
    host.connect(kRemote);
    initiator.pairLegacy();
    initiator.startEncryption();
    const auto refresh = host.await<hci::KeyRefreshComplete>();
    ASSERT_TRUE(refresh);
    EXPECT_EQ(refresh->status, Status::Success);
}

TEST_F(APairing, KnowsNoKeyBeforehand)
{
    host.connect(kRemote);
    EXPECT_EQ(initiator.encrypt(), Status::KeyMissing);
    EXPECT_EQ(events.back(), "C0:FF:EE:00:00:01: asked to encrypt with a key that it doesn't know");
}

TEST_F(APairing, IsForgottenByARemoteThatLosesItsBond)
{
    host.connect(kRemote);
    initiator.pairSecurely();
    remote->setForgotBond(true);
    reconnect();
    EXPECT_EQ(initiator.encrypt(), Status::KeyMissing);
    // It accepts a new pairing and keeps the new bond.
    Initiator again(host);
    again.pairSecurely();
    reconnect();
    EXPECT_EQ(again.encrypt(), Status::Success);
}

TEST_F(APairing, EndsTheLinkWhenTheKeysDiffer)
{
    host.connect(kRemote);
    initiator.pairLegacy();
    reconnect();
    initiator.key[0] ^= 1;
    initiator.startEncryption();
    EXPECT_EQ(host.linkEnd(), Status::MicFailure);
}

TEST_F(APairing, IsUnknownUnderOtherNumbers)
{
    host.connect(kRemote);
    initiator.pairLegacy();
    reconnect();
    initiator.diversifier ^= 1;
    EXPECT_EQ(initiator.encrypt(), Status::KeyMissing);
}

// --- the peripheral's behaviour ---

TEST_F(APairing, IsRefused)
{
    remote->setPairing(Peripheral::Pairing::Refuses);
    host.connect(kRemote);
    EXPECT_EQ(initiator.request(true), "0505");
    EXPECT_FALSE(remote->paired());
}

TEST_F(APairing, IsMetWithSilence)
{
    remote->setPairing(Peripheral::Pairing::Silent);
    host.connect(kRemote);
    EXPECT_EQ(initiator.request(true), "silence");
    EXPECT_TRUE(remote->connected());
}

TEST_F(APairing, CostsTheLink)
{
    remote->setPairing(Peripheral::Pairing::DropsLink);
    host.connect(kRemote);
    EXPECT_EQ(initiator.request(true), "silence");
    EXPECT_EQ(host.linkEnd(), Status::ConnectionTimeout);
}

TEST_F(APairing, IsRefusedTheSecondTimeIfTheRemoteIsToldSo)
{
    putOnAir(&RadioOptions::refusesRepeated);
    host.connect(kRemote);
    initiator.pairSecurely();
    reconnect();
    EXPECT_EQ(initiator.request(true), "0509");
}

TEST_F(APairing, MayBeRepeated)
{
    host.connect(kRemote);
    initiator.pairSecurely();
    reconnect();
    Initiator again(host);
    again.pairLegacy();
    reconnect();
    EXPECT_EQ(again.encrypt(), Status::Success);
}

TEST_F(APairing, FailsAtTheProofIfTheRemoteIsToldSo)
{
    putOnAir(&RadioOptions::failsConfirm);
    host.connect(kRemote);
    Initiator secure(host);
    secure.request(true);
    EXPECT_TRUE(secure.exchangeKeys() && secure.exchangeRandoms());
    EXPECT_FALSE(secure.prove());
    Initiator legacy(host);
    legacy.request(false);
    EXPECT_TRUE(legacy.commit());
    EXPECT_FALSE(legacy.open());
}

TEST_F(APairing, TakesAsLongAsTheRemotesAnswers)
{
    remote->setAnswerDelay(std::chrono::milliseconds(700));
    host.connect(kRemote);
    const auto before = host.scheduler().now();
    EXPECT_EQ(initiator.request(false), "02030001100201");
    EXPECT_GE(host.scheduler().now() - before, std::chrono::milliseconds(700));
}

TEST_F(APairing, IsAskedForByARemoteThatWantsIt)
{
    putOnAir(&RadioOptions::asksForSecurity);
    host.connect(kRemote);
    EXPECT_EQ(initiator.next(), "0b09");
}

// --- the initiator's errors ---

TEST_F(APairing, FailsWhenTheInitiatorsCommitmentDoesNotOpen)
{
    host.connect(kRemote);
    initiator.request(false);
    EXPECT_TRUE(initiator.commit());
    EXPECT_EQ(initiator.exchange(Initiator::packet(0x04, {})), "0504");
}

TEST_F(APairing, FailsWhenTheInitiatorsProofIsWrong)
{
    host.connect(kRemote);
    initiator.request(true);
    EXPECT_TRUE(initiator.exchangeKeys() && initiator.exchangeRandoms());
    EXPECT_EQ(initiator.exchange(Initiator::packet(0x0d, {})), "050b");
    EXPECT_FALSE(remote->paired());
}

TEST_F(APairing, FailsWhenThePublicKeyIsOffTheCurve)
{
    host.connect(kRemote);
    initiator.request(true);
    EXPECT_EQ(initiator.exchange(Bytes{0x0c} + Bytes(64, 1)), "050a");
}

TEST_F(APairing, FailsOnAShortKeyAMalformedRequestAndAStepOutOfOrder)
{
    host.connect(kRemote);
    EXPECT_EQ(initiator.exchange(kit::fromHex("01030001070000")), "0506");
    EXPECT_EQ(initiator.exchange(kit::fromHex("0103000110")), "050a");
    initiator.request(false);
    EXPECT_EQ(initiator.exchange(Initiator::packet(0x04, {})), "0508");
}

TEST_F(APairing, IsGivenUpAfterHalfAMinute)
{
    host.connect(kRemote);
    initiator.request(false);
    host.pass(std::chrono::seconds(31));
    initiator.exchange(Initiator::packet(0x03, {}));
    EXPECT_EQ(initiator.request(false), "02030001100201");
}

// --- private addresses ---

TEST_F(APairing, RevealsWhoIsBehindAPrivateAddress)
{
    putOnAir(&RadioOptions::privateAddress);
    const Address first = radio->address();
    EXPECT_EQ(first.kind, AddressKind::Random);
    EXPECT_EQ(first.octets[5] & 0xc0, 0x40);
    host.connect(first);
    initiator.pairSecurely();
    EXPECT_EQ(initiator.identity, kRemote);

    reconnect();
    const Address second = radio->address();
    EXPECT_NE(second, first);
    const auto hash = ah(initiator.identityKey, {second.octets[3], second.octets[4], second.octets[5]});
    EXPECT_TRUE(std::equal(hash.begin(), hash.end(), second.octets.begin()));
    EXPECT_EQ(initiator.encrypt(), Status::Success);
}

} // namespace vexasim::air
