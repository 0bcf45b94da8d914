// SPDX-License-Identifier: MIT
// The peripheral's attribute server, queried with raw packets of the protocol over a complete link.
#include "sim/air/AttributeTable.h"
#include "sim/tests/AirBench.h"
#include "sim/tests/AirInitiator.h"
#include "tests/kit/NamedCase.h"

namespace vexasim::air
{

namespace
{

const Address kRemote = Address::parse("C0:FF:EE:00:00:01").value();

// The remote's table: battery service 0x0010 to 0x0013, vendor service 0x0020 to 0x0024.
class AnAttributeServer : public testing::Test
{
protected:
    AnAttributeServer() : remote(Remote::create())
    {
        radio = PeripheralRadio::create(host.scheduler(), host.air(), remote->normal());
        host.setUp();
        host.connect(kRemote);
    }

    void allowOnlyEncrypted(const std::string& uuid, const std::string& flag)
    {
        auto services = remote->normal()->services();
        for (auto& service : services) {
            for (auto& characteristic : service.characteristics) {
                if (characteristic.uuid == uuid) {
                    characteristic.flags.push_back(flag);
                }
            }
        }
        remote->normal()->setServices(services);
        reconnect();
    }

    void reconnect()
    {
        host.disconnect();
        host.linkEnd();
        host.connect(kRemote);
    }

    ScriptedHost host;
    std::shared_ptr<Remote> remote;
    std::shared_ptr<PeripheralRadio> radio;
};

} // namespace

// --- answers without a bond or a subscription ---

namespace
{

struct Exchange : kit::NamedCase {
    std::vector<std::pair<std::string, std::string>> requestsAndAnswers;
};

class AFreshAttributeServer : public AnAttributeServer, public testing::WithParamInterface<Exchange>
{
};

} // namespace

TEST_P(AFreshAttributeServer, Answers)
{
    for (const auto& [request, answer] : GetParam().requestsAndAnswers) {
        const bool silence = answer == "silence";
        EXPECT_EQ(host.ask(request), silence ? answer : kit::toHex(kit::fromHex(answer))) << "of " << request;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Exchanges, AFreshAttributeServer,
    testing::Values(
        Exchange{{"AgreesOnPacketsOf23Bytes"}, {{"02 0502", "03 1700"}, {"02 05", "01 02 0000 04"}}},
        Exchange{{"ListsThePrimaryServices"},
                 {{"10 0100 ffff 0028", "11 06 010005000018 100013000f18 20002400d0ff"},
                  {"10 2500 ffff 0028", "01 10 2500 0a"},
                  {"10 1100 ffff 0028", "11 06 20002400d0ff"}}},
        Exchange{{"ListsNoSecondaryServices"}, {{"10 0100 ffff 0128", "01 10 0100 0a"}}},
        Exchange{{"RefusesToGroupByWhatIsNoGroup"}, {{"10 0100 ffff 0328", "01 10 0100 10"}}},
        Exchange{{"FindsAServiceByItsUuid"},
                 {{"06 0100 ffff 0028 0f18", "07 10001300"},
                  {"06 0100 ffff 0028 fb349b5f80000080001000000f180000", "07 10001300"},
                  {"06 0100 ffff 0028 1218", "01 06 0100 0a"}}},
        Exchange{{"ListsTheCharacteristics"},
                 {{"08 1000 1300 0328", "09 07 1100 12 1200 192a"},
                  {"08 2000 2400 0328", "09 07 2100 02 2200 d3ff 2300 08 2400 d1ff"},
                  {"08 2500 ffff 0328", "01 08 2500 0a"}}},
        Exchange{{"ListsDescriptors"},
                 {{"04 1300 1300", "05 01 1300 0229"}, {"04 1400 1f00", "01 04 1400 0a"}}},
        Exchange{{"RefusesRangesThatRunBackwardsOrFromZero"},
                 {{"04 0000 ffff", "01 04 0000 01"},
                  {"10 0500 0400 0028", "01 10 0500 01"},
                  {"08 0500 0400 0328", "01 08 0500 01"},
                  {"06 0000 0400 0028 0f18", "01 06 0000 01"}}},
        Exchange{{"GivesAValueByItsType"}, {{"08 0100 ffff 002a", "09 09 0300 56455841205243"}}},
        Exchange{{"GivesDeclarationsAndConfigurations"},
                 {{"0a 1000", "0b 0f18"}, {"0a 1100", "0b 12 1200 192a"}, {"0a 1300", "0b 0000"}}},
        Exchange{{"RefusesToReadWhatIsNotThereOrNotReadable"},
                 {{"0a 1f00", "01 0a 1f00 01"},
                  {"0a 2400", "01 0a 2400 02"},
                  {"0a 12", "01 0a 0000 04"},
                  {"0c 1f00 0000", "01 0c 1f00 01"}}},
        Exchange{{"RefusesToWriteWhatIsNotThereOrNotWritable"},
                 {{"12 1f00 01", "01 12 1f00 01"},
                  {"12 2200 01", "01 12 2200 03"},
                  {"12 1000 01", "01 12 1000 03"}}},
        Exchange{{"RefusesAConfigurationOfAWrongSize"}, {{"12 1300 01", "01 12 1300 0d"}}},
        Exchange{{"ConfirmsWhatTheBoxIndicates"}, {{"1d 0a00 ffff", "1e"}, {"1b 0a00 ffff", "silence"}}},
        Exchange{{"KnowsNoOtherRequests"},
                 {{"16 1200 0000 01", "01 16 0000 06"},
                  {"0e 1200 2200", "01 0e 0000 06"},
                  {"1e", "silence"},
                  {"d2 1200 00", "silence"}}}),
    kit::named);

// --- discovery ---

TEST_F(AnAttributeServer, KeepsLongAndShortUuidsApart)
{
    radio = PeripheralRadio::create(host.scheduler(), host.air(), remote->update());
    remote->enterUpdateMode();
    host.linkEnd();
    host.connect(Address::parse("C0:FF:EE:00:00:02").value());
    EXPECT_EQ(host.ask("10 0100 ffff 0028"), "1106010005000018");
    EXPECT_EQ(host.ask("10 0600 ffff 0028"), "11141000150012a24d2efe14488e93d2173cffd00000");
    EXPECT_EQ(host.ask("08 1000 1500 0328"), "0915110018120012a24d2efe14488e93d2173c87640000");
    EXPECT_EQ(host.ask("04 1200 1300"), "0502120012a24d2efe14488e93d2173c87640000");
}

// --- reading ---

TEST_F(AnAttributeServer, GivesTheBatteryLevel)
{
    EXPECT_EQ(host.ask("0a 1200"), "0b50");
    remote->setBattery(17);
    EXPECT_EQ(host.ask("0a 1200"), "0b11");
}

TEST_F(AnAttributeServer, CutsALongValueAndGivesTheRestInPieces)
{
    Bytes value(50);
    for (size_t i = 0; i < value.size(); ++i) {
        value[i] = static_cast<std::uint8_t>(i);
    }
    remote->setVersionBytes(value);
    const auto from = [&](size_t begin, size_t end) {
        return kit::toHex(Bytes(value.begin() + static_cast<std::ptrdiff_t>(begin),
                                value.begin() + static_cast<std::ptrdiff_t>(end)));
    };
    EXPECT_EQ(host.ask("0a 2200"), "0b" + from(0, 22));
    EXPECT_EQ(host.ask("0c 2200 1600"), "0d" + from(22, 44));
    EXPECT_EQ(host.ask("0c 2200 2c00"), "0d" + from(44, 50));
    EXPECT_EQ(host.ask("0c 2200 3200"), "0d");
    EXPECT_EQ(host.ask("0c 2200 3300"), "010c220007");
}

// --- writing and notifying ---

TEST_F(AnAttributeServer, TakesAWriteAndAnswersIt)
{
    Bytes written;
    remote->normal()->onWrite(0x24, [&](const Bytes& value) {
        written = value;
        return AttReply::ok();
    });
    EXPECT_EQ(host.ask("12 2400 02"), "13");
    EXPECT_EQ(kit::toHex(written), "02");
}

TEST_F(AnAttributeServer, RefusesAWriteWithTheReasonGiven)
{
    remote->normal()->onWrite(0x24, [](const Bytes&) { return AttReply::refused(0x80); });
    EXPECT_EQ(host.ask("12 2400 01"), "0112240080");
}

TEST_F(AnAttributeServer, TakesACommandWithoutAWord)
{
    RemoteOptions options;
    options.dataFlags = {"write-without-response"};
    options.updateAddress = "C0:FF:EE:00:00:03";
    const auto other = Remote::create(options);
    other->enterUpdateMode();
    Bytes written;
    other->update()->onWrite(other->update()->handleOf(uuid::kData), [&](const Bytes& value) {
        written = value;
        return AttReply::ok();
    });
    const auto second = PeripheralRadio::create(host.scheduler(), host.air(), other->update());
    host.connect(Address::parse("C0:FF:EE:00:00:03").value());
    EXPECT_EQ(host.ask("52 1500 0102"), "silence");
    EXPECT_EQ(kit::toHex(written), "0102");
    EXPECT_EQ(host.ask("52 1f00 0102"), "silence");
}

TEST_F(AnAttributeServer, NotifiesWhoAskedForIt)
{
    remote->setBattery(70);
    EXPECT_FALSE(host.awaitOn(Channel::Attributes));
    EXPECT_EQ(host.ask("12 1300 0100"), "13");
    EXPECT_EQ(host.ask("0a 1300"), "0b0100");
    remote->setBattery(69);
    EXPECT_EQ(kit::toHex(host.awaitOn(Channel::Attributes).value()), "1b120045");
    EXPECT_EQ(host.ask("12 1300 0000"), "13");
    remote->setBattery(68);
    EXPECT_FALSE(host.awaitOn(Channel::Attributes));
}

TEST_F(AnAttributeServer, CutsALongNotification)
{
    EXPECT_EQ(host.ask("12 1300 0100"), "13");
    remote->setBatteryBytes(Bytes(40, 7));
    EXPECT_EQ(host.awaitOn(Channel::Attributes).value().size(), 23U);
}

TEST_F(AnAttributeServer, ForgetsSubscriptionsWithTheLink)
{
    EXPECT_EQ(host.ask("12 1300 0100"), "13");
    reconnect();
    EXPECT_EQ(host.ask("0a 1300"), "0b0000");
}

// --- behaviour ---

TEST_F(AnAttributeServer, DemandsEncryptionWhereItIsNeeded)
{
    allowOnlyEncrypted(uuid::kBatteryLevel, "encrypt-read");
    allowOnlyEncrypted(uuid::kSwitch, "encrypt-write");
    EXPECT_EQ(host.ask("0a 1200"), "010a120005");
    EXPECT_EQ(host.ask("12 2400 02"), "0112240005");
    Initiator(host).pairSecurely();
    EXPECT_EQ(host.ask("0a 1200"), "0b50");
    EXPECT_EQ(host.ask("12 2400 02"), "13");
}

TEST_F(AnAttributeServer, AnswersNothingWhenItIsMute)
{
    remote->normal()->setMute(true);
    EXPECT_EQ(host.ask("10 0100 ffff 0028"), "silence");
    EXPECT_EQ(host.ask("0a 1200"), "silence");
    EXPECT_TRUE(remote->normal()->connected());
}

TEST_F(AnAttributeServer, AnswersLateWhenItIsSlow)
{
    remote->normal()->setAnswerDelay(std::chrono::seconds(2));
    const auto before = host.scheduler().now();
    EXPECT_EQ(host.ask("0a 1200"), "0b50");
    EXPECT_GE(host.scheduler().now() - before, std::chrono::seconds(2));
}

// --- the table's parts ---

TEST(AUuid, IsShortIfItIsOfTheBluetoothBase)
{
    EXPECT_EQ(kit::toHex(uuidBytes("0000180f-0000-1000-8000-00805f9b34fb")), "0f18");
    EXPECT_EQ(kit::toHex(uuidBytes("00006487-3C17-d293-8e48-14fe2e4da212")),
              "12a24d2efe14488e93d2173c87640000");
    EXPECT_EQ(uuidBytes("0001180f-0000-1000-8000-00805f9b34fb").size(), 16U);
}

TEST(AUuid, IsRefusedIfItIsMalformed)
{
    EXPECT_THROW(uuidBytes(""), std::invalid_argument);
    EXPECT_THROW(uuidBytes("180f"), std::invalid_argument);
    EXPECT_THROW(uuidBytes("0000180x-0000-1000-8000-00805f9b34fb"), std::invalid_argument);
}

} // namespace vexasim::air
