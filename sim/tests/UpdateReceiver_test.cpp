// SPDX-License-Identifier: MIT
// The receiving side of the update, with packets built by the test.
#include <deque>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>

#include "sim/model/Remote.h"
#include "tests/kit/Cipher.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/ScratchFolder.h"

using testing::ElementsAre;
using testing::HasSubstr;
using vexasim::AttReply;
using vexasim::Bytes;
using vexasim::ImageHeader;
using vexasim::Peripheral;
using vexasim::Remote;
using vexasim::UpdateAppearance;
using vexasim::UpdateFault;
using vexasim::UpdatePacket;
using vexasim::UpdateStep;

namespace
{
Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes part(const Bytes& bytes, std::size_t from, std::size_t to)
{
    return {bytes.begin() + static_cast<std::ptrdiff_t>(from),
            bytes.begin() + static_cast<std::ptrdiff_t>(to)};
}

Bytes imageOf(std::size_t words, std::size_t payloadBytes)
{
    ImageHeader header;
    header.signature = 0x1234;
    header.version = 0x01a4;
    header.length = static_cast<std::uint16_t>(words);
    header.otaFlag = 1;
    Bytes image = header.encode();
    for (std::size_t i = 0; i < payloadBytes; ++i) {
        image.push_back(static_cast<std::uint8_t>(i * 7));
    }
    return image;
}

/// Records the remote's events.
class Air : public vexasim::PeripheralListener
{
public:
    void onLinkLost(Peripheral&) override { ++linksLost; }
    void onAdvertisingChanged(Peripheral& peripheral) override
    {
        if (peripheral.advertising()) {
            appeared.push_back(peripheral.advertisedName().value_or("nameless"));
        }
    }
    void onNotification(Peripheral&, std::uint16_t, const Bytes& value) override { answers.push_back(value); }

    int linksLost = 0;
    std::vector<std::string> appeared;
    std::vector<Bytes> answers;
};
} // namespace

const Bytes kVerify = {0x03, 0x34, 0x12};
const Bytes kReset = {0x04};
const Bytes kGetImageInfo = {0x06, 0x34, 0x12};
const Bytes kImageInfo = {0x02, 0x34, 0x12, 12, 0, 0, 0};
const Bytes kConnectionParameters = {0x07, 0x06, 0x00, 0x11, 0x00, 0x00, 0x00, 0xf4, 0x01};

/// The test runs the remote's delayed actions itself.
class ARemoteInTheHand : public testing::Test
{
protected:
    ARemoteInTheHand()
    {
        remote->setSchedule([this](std::chrono::milliseconds delay, std::function<void()> action) {
            delays.push_back(delay);
            pending.push_back(std::move(action));
        });
        remote->normal()->addListener(air);
        remote->update()->addListener(air);
    }

    void appear(bool UpdateAppearance::*how)
    {
        UpdateAppearance appearance;
        appearance.*how = true;
        remote->setUpdateAppearance(appearance);
    }

    void letTimePass()
    {
        while (!pending.empty()) {
            const auto action = pending.front();
            pending.pop_front();
            action();
        }
    }

    AttReply writeSwitch(const Bytes& bytes = {0x01})
    {
        remote->normal()->connect();
        return remote->normal()->write(remote->normal()->handleOf(vexasim::uuid::kSwitch), bytes);
    }

    void enterUpdateMode()
    {
        ASSERT_EQ(writeSwitch().error, 0);
        letTimePass();
        ASSERT_TRUE(remote->update()->connect());
        ASSERT_EQ(remote->update()->subscribe(controlPoint(), true).error, 0);
    }

    std::uint16_t controlPoint() const { return remote->update()->handleOf(vexasim::uuid::kControlPoint); }

    AttReply command(const Bytes& bytes)
    {
        const AttReply reply = remote->update()->write(controlPoint(), bytes);
        letTimePass();
        return reply;
    }

    AttReply data(const Bytes& bytes)
    {
        return remote->update()->write(remote->update()->handleOf(vexasim::uuid::kData), bytes);
    }

    void start(const Bytes& image)
    {
        command(Bytes{0x01} + kit::enciphered(part(image, 0, 12) + Bytes(4), key));
    }

    void upload(const Bytes& image)
    {
        for (std::size_t at = ImageHeader::kSize; at < image.size(); at += 20) {
            Bytes block = part(image, at, std::min(image.size(), at + 20));
            if (block.size() >= 16) {
                block = kit::enciphered(part(block, 0, 16), key) + part(block, 16, block.size());
            }
            data(block);
        }
    }

    void send(const Bytes& image, const Bytes& verify = kVerify)
    {
        start(image);
        upload(image);
        command(verify);
    }

    vexasim::UpdateKey key = vexasim::developmentKey();
    std::shared_ptr<Remote> remote = Remote::create();
    std::shared_ptr<Air> air = std::make_shared<Air>();
    std::deque<std::function<void()>> pending;
    std::vector<std::chrono::milliseconds> delays;
};

TEST_F(ARemoteInTheHand, ChangesItsPersonalityOnTheSwitchByte)
{
    ASSERT_EQ(writeSwitch().error, 0);
    EXPECT_TRUE(remote->normal()->connected());
    letTimePass();
    EXPECT_TRUE(remote->inUpdateMode());
    EXPECT_EQ(air->linksLost, 1);
    EXPECT_THAT(air->appeared, ElementsAre("BeeTgt"));
    EXPECT_NE(remote->update()->address(), remote->normal()->address());
}

TEST_F(ARemoteInTheHand, StaysAsItIsOnAnyOtherByte)
{
    writeSwitch({0x02});
    letTimePass();
    EXPECT_FALSE(remote->inUpdateMode());
}

TEST_F(ARemoteInTheHand, AnswersTheCommandsOfAnUpdate)
{
    enterUpdateMode();
    const Bytes image = imageOf(10, 40);
    remote->receiver().setExpectedImage(image);
    command(kConnectionParameters);
    command(kGetImageInfo);
    start(image);
    command(kImageInfo);
    upload(image);
    command(kVerify);
    EXPECT_THAT(air->answers, ElementsAre(Bytes{0x07, 0, 1}, Bytes{0x06, 0, 1, 0xa3, 0x01, 0, 0, 0, 0},
                                          Bytes{0x01, 0, 1}, Bytes{0x03, 0, 1}));
    EXPECT_EQ(remote->receiver().payload(), part(image, 12, 52));
    EXPECT_EQ(remote->receiver().blocks(), 2U);
    EXPECT_EQ(remote->receiver().header()->version, 0x01a4);
    EXPECT_EQ(remote->receiver().startBlock(), part(image, 0, 12) + Bytes(4));
}

TEST_F(ARemoteInTheHand, ComesBackWithTheNewVersionAfterAReset)
{
    enterUpdateMode();
    send(imageOf(10, 40));
    command(kReset);
    EXPECT_FALSE(remote->inUpdateMode());
    EXPECT_EQ(remote->versionBytes(), (Bytes{0xa4, 0x01}));
    EXPECT_THAT(air->appeared.back(), "VEXA RC");
}

TEST_F(ARemoteInTheHand, ComesBackWithTheOldVersionIfNothingWasVerified)
{
    enterUpdateMode();
    start(imageOf(10, 40));
    command(kReset);
    EXPECT_FALSE(remote->inUpdateMode());
    EXPECT_EQ(remote->versionBytes(), (Bytes{0xa3, 0x01}));
}

class AnImageThatEndsIn : public ARemoteInTheHand, public testing::WithParamInterface<std::size_t>
{
};

TEST_P(AnImageThatEndsIn, ABlockOfThisSizeArrivesWhole)
{
    enterUpdateMode();
    const Bytes image = imageOf((20 + GetParam()) / 4, 20 + GetParam());
    remote->receiver().setExpectedImage(image);
    start(image);
    upload(image);
    EXPECT_EQ(remote->receiver().payload(), part(image, 12, image.size()));
    command(kVerify);
    EXPECT_TRUE(remote->receiver().verified()) << remote->receiver().complaint();
}

INSTANTIATE_TEST_SUITE_P(Sizes, AnImageThatEndsIn, testing::Values(0, 1, 4, 15, 16, 17, 19),
                         testing::PrintToStringParamName());

TEST_F(ARemoteInTheHand, AcceptsALastBlockThatGoesOnBehindTheAnnouncedLength)
{
    enterUpdateMode();
    send(imageOf(1, 20));
    EXPECT_TRUE(remote->receiver().verified());
}

TEST_F(ARemoteInTheHand, RejectsAnImageThatIsTooShort)
{
    enterUpdateMode();
    send(imageOf(10, 20));
    EXPECT_EQ(air->answers.back(), (Bytes{0x03, 0, 0}));
    EXPECT_THAT(remote->receiver().complaint(), HasSubstr("20 bytes came, 40 were announced"));
}

TEST_F(ARemoteInTheHand, RejectsAnImageWithAWrongByte)
{
    enterUpdateMode();
    const Bytes image = imageOf(10, 40);
    Bytes other = image;
    other.back() ^= 1;
    remote->receiver().setExpectedImage(other);
    send(image);
    EXPECT_EQ(air->answers.back(), (Bytes{0x03, 0, 0}));
}

TEST_F(ARemoteInTheHand, RejectsAStartWithAnotherKey)
{
    enterUpdateMode();
    key[0] ^= 1;
    start(imageOf(10, 40));
    EXPECT_EQ(air->answers.back(), (Bytes{0x01, 0, 0}));
    EXPECT_THAT(remote->receiver().complaint(), HasSubstr("another key"));
}

TEST_F(ARemoteInTheHand, RejectsAnotherSignatureThanAnnounced)
{
    enterUpdateMode();
    send(imageOf(10, 40), {0x03, 0x35, 0x12});
    EXPECT_EQ(air->answers.back(), (Bytes{0x03, 0, 0}));
}

TEST_F(ARemoteInTheHand, AnswersOnlySubscribers)
{
    enterUpdateMode();
    remote->update()->subscribe(controlPoint(), false);
    command(kConnectionParameters);
    EXPECT_TRUE(air->answers.empty());
}

TEST_F(ARemoteInTheHand, RecordsEachPacketWithItsTime)
{
    enterUpdateMode();
    remote->receiver().clearPackets();
    command(kConnectionParameters);
    data(Bytes(20));
    const std::vector<UpdatePacket> packets = remote->receiver().packets();
    ASSERT_EQ(packets.size(), 3U);
    EXPECT_EQ(packets[0].bytes, kConnectionParameters);
    EXPECT_FALSE(packets[0].fromRemote);
    EXPECT_TRUE(packets[1].fromRemote);
    EXPECT_EQ(packets[2].channel, UpdatePacket::Channel::Data);
    EXPECT_LE(packets[0].timeUs, packets[1].timeUs);
    EXPECT_LE(packets[1].timeUs, packets[2].timeUs);
}

// --- faults ---

class ARemoteWithAFault : public ARemoteInTheHand
{
protected:
    /// Sets a fault on GetImageInfo and sends it.
    AttReply ask(const UpdateFault& withFault)
    {
        enterUpdateMode();
        remote->receiver().setFault(UpdateStep::GetImageInfo, withFault);
        delays.clear();
        return command(kGetImageInfo);
    }

    UpdateFault fault;
};

const Bytes kGoodAnswer = {6, 0, 1, 0xa3, 1, 0, 0, 0, 0};

struct FaultCase : kit::NamedCase {
    void (*edit)(UpdateFault&);
    std::vector<Bytes> answers = {kGoodAnswer};
    int error = 0; ///< of the write
    AttReply::Kind kind = AttReply::Kind::Answer;
};

const FaultCase kFaults[] = {
    {"Silent", [](UpdateFault& fault) { fault.silent = true; }, {}},
    {"WrongStatus", [](UpdateFault& fault) { fault.status = 2; }, {{6, 0, 2, 0xa3, 1, 0, 0, 0, 0}}},
    {"TooShort", [](UpdateFault& fault) { fault.length = 8; }, {{6, 0, 1, 0xa3, 1, 0, 0, 0}}},
    {"Twice", [](UpdateFault& fault) { fault.copies = 2; }, {kGoodAnswer, kGoodAnswer}},
    {"AsTold",
     [](UpdateFault& fault) {
         fault.answers = {{1, 2, 3}, {4}};
     },
     {{1, 2, 3}, {4}}},
    {"Refused", [](UpdateFault& fault) { fault.refuse = 0x80; }, {}, 0x80},
    {"NoWriteReply",
     [](UpdateFault& fault) { fault.noWriteReply = true; },
     {kGoodAnswer},
     0,
     AttReply::Kind::NoAnswer},
};

class AFault : public ARemoteWithAFault, public testing::WithParamInterface<FaultCase>
{
};

TEST_P(AFault, ChangesTheAnswersAndTheReply)
{
    GetParam().edit(fault);
    const AttReply reply = ask(fault);
    EXPECT_EQ(reply.error, GetParam().error);
    EXPECT_EQ(reply.kind, GetParam().kind);
    EXPECT_EQ(air->answers, GetParam().answers);
}

INSTANTIATE_TEST_SUITE_P(Faults, AFault, testing::ValuesIn(kFaults), kit::named);

TEST_F(ARemoteWithAFault, IsLate)
{
    fault.late = std::chrono::milliseconds{1500};
    ask(fault);
    EXPECT_THAT(delays, ElementsAre(std::chrono::milliseconds{1500}));
    EXPECT_EQ(air->answers.size(), 1U);
}

TEST_F(ARemoteWithAFault, RecoversAfterTheGivenTimes)
{
    fault.silent = true;
    fault.times = 1;
    ask(fault);
    command(kGetImageInfo);
    EXPECT_EQ(air->answers.size(), 1U);
}

TEST_F(ARemoteWithAFault, VanishesAtTheGivenBlock)
{
    enterUpdateMode();
    fault.vanish = true;
    fault.block = 2;
    remote->receiver().setFault(UpdateStep::Data, fault);
    EXPECT_EQ(data(Bytes(20)).kind, AttReply::Kind::Answer);
    EXPECT_EQ(data(Bytes(20)).kind, AttReply::Kind::Answer);
    EXPECT_EQ(data(Bytes(20)).kind, AttReply::Kind::LinkLost);
    EXPECT_FALSE(remote->update()->reachable());
}

TEST_F(ARemoteWithAFault, RefusesTheSwitchAndStays)
{
    fault.refuse = vexasim::att::kInsufficientAuthentication;
    remote->receiver().setFault(UpdateStep::Switch, fault);
    EXPECT_EQ(writeSwitch().error, fault.refuse);
    letTimePass();
    EXPECT_FALSE(remote->inUpdateMode());
}

TEST_F(ARemoteWithAFault, RefusesNotifications)
{
    fault.refuse = 0x80;
    remote->receiver().setFault(UpdateStep::StartNotify, fault);
    writeSwitch();
    letTimePass();
    remote->update()->connect();
    EXPECT_EQ(remote->update()->subscribe(controlPoint(), true).error, 0x80);
    EXPECT_FALSE(remote->update()->subscribed(controlPoint()));
}

// --- appearance in update mode ---

TEST_F(ARemoteInTheHand, CanFailToAppear)
{
    appear(&UpdateAppearance::never);
    writeSwitch();
    letTimePass();
    EXPECT_TRUE(remote->inUpdateMode());
    EXPECT_FALSE(remote->update()->reachable());
}

TEST_F(ARemoteInTheHand, CanAppearWithoutAName)
{
    appear(&UpdateAppearance::nameless);
    writeSwitch();
    letTimePass();
    EXPECT_EQ(air->appeared.back(), "nameless");
}

TEST_F(ARemoteInTheHand, CanAppearBeforeTheSwitchIsAnswered)
{
    appear(&UpdateAppearance::beforeScan);
    writeSwitch();
    EXPECT_TRUE(remote->update()->advertising());
    EXPECT_TRUE(remote->update()->announcesUnasked());
}

TEST_F(ARemoteInTheHand, CanOfferOneOfItsTwoCharacteristics)
{
    appear(&UpdateAppearance::withoutData);
    EXPECT_EQ(remote->update()->handleOf(vexasim::uuid::kData), 0);
    EXPECT_NE(controlPoint(), 0);
    appear(&UpdateAppearance::withoutControlPoint);
    EXPECT_NE(remote->update()->handleOf(vexasim::uuid::kData), 0);
    EXPECT_EQ(controlPoint(), 0);
}

// --- the key ---

class AKeyFile : public testing::Test
{
protected:
    vexasim::UpdateKey keyOf(const std::string& text)
    {
        return vexasim::readKeyFile(folder.write("key", text));
    }

    kit::ScratchFolder folder;
    const std::string digits = "000102030405060708090a0b0c0d0e0f101112131415161718191A1B1C1D1E1F";
};

TEST_F(AKeyFile, MayHaveBlanksAround)
{
    EXPECT_EQ(keyOf(" \t" + digits + " \n\n"), vexasim::developmentKey());
}

TEST_F(AKeyFile, IsRefusedIfItIsMissingOrMalformed)
{
    EXPECT_THROW(vexasim::readKeyFile(folder.path("missing")), std::runtime_error);
    EXPECT_THROW(keyOf(digits + "0"), std::runtime_error);
    EXPECT_THROW(keyOf("x" + digits.substr(1)), std::runtime_error);
}
