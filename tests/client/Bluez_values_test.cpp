// SPDX-License-Identifier: MIT
// The values of characteristics, beyond the cases for reading and writing in BluezOperations.h.
#include <algorithm>

#include "Bluez.h"
#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

namespace
{

using Bytes = std::vector<std::uint8_t>;
using Characteristic = Bluez::Service::Characteristic;

const std::string kUnknown = std::string(kCharacteristic) + "7";

std::string noProxyFor(const std::string& path)
{
    return "E No proxy found for characteristic " + path;
}

Bytes everyByteTwice()
{
    Bytes bytes;
    for (int i = 0; i < 512; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(i));
    }
    return bytes;
}

/// The reply to ReadValue.
Variant reply(const Bytes& bytes)
{
    return {g_variant_new("(@ay)", Variant::bytes(bytes).get())};
}

class ACharacteristic : public ABusWithBlueZ
{
protected:
    void SetUp() override
    {
        ABusWithBlueZ::SetUp();
        startWithAll();
    }

    void answerOnTheSpot(const std::string& method)
    {
        spy.answer(method, [](GError**) { return nullptr; });
    }

    GioSpy spy;
};

// --- Notifying and writing ---

TEST_F(ACharacteristic, IsAskedAgainToNotifyAndTheStackDecides)
{
    sim->bend(Bend::error("StartNotify", "org.bluez.Error.InProgress", "In Progress"));
    sim->bend(Bend::answer("StartNotify", nothing()).times(1)); // the newest first

    EXPECT_TRUE(client->characteristicStartNotify(kCharacteristic));
    EXPECT_FALSE(client->characteristicStartNotify(kCharacteristic));

    EXPECT_EQ(sim->calls("StartNotify", kCharacteristic).size(), 2U);
}

TEST_F(ACharacteristic, IsNotLookedUpForNothingToWrite)
{
    EXPECT_FALSE(client->writeCharacteristic(kUnknown, {}));
    EXPECT_FALSE(client->writeCharacteristic("", {}));

    EXPECT_EQ(log.lines(), (kit::Lines{"E Nothing to write", "E Empty obj path"}));
    EXPECT_EQ(known().size(), kKinds.size());
}

TEST_F(ACharacteristic, TakesEveryByteThatIsWritten)
{
    sim->bend(Bend::answer("WriteValue", nothing()));
    const Bytes bytes = everyByteTwice();

    EXPECT_TRUE(client->writeCharacteristic(kCharacteristic, bytes));

    const auto calls = sim->calls("WriteValue");
    ASSERT_EQ(calls.size(), 1U);
    const Variant expected(g_variant_new("(@ay@a{sv})", Variant::bytes(bytes).get(),
                                         g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0)));
    EXPECT_TRUE(g_variant_equal(calls[0].parameters.get(), expected.get()));
}

// A read releases the builder of its empty options, a write doesn't.
TEST_F(ACharacteristic, KeepsTheBuilderOfEachWriteButNotOfARead)
{
    answerOnTheSpot("ReadValue");
    answerOnTheSpot("WriteValue");
    const auto builders = [&] {
        const kit::Lines releases = spy.releases();
        return std::count(releases.begin(), releases.end(), "GVariantBuilder");
    };

    client->readCharacteristic(kCharacteristic);
    EXPECT_EQ(builders(), 1);
    client->valueFor(kCharacteristic);
    EXPECT_EQ(builders(), 2);
    EXPECT_TRUE(client->writeCharacteristic(kCharacteristic, {1}));
    EXPECT_EQ(builders(), 2);
}

// The path isn't classified: only the map counts.
TEST_F(ACharacteristic, IsNotMistakenForItsDescriptor)
{
    EXPECT_FALSE(client->characteristicStartNotify(kDescriptor));
    EXPECT_FALSE(client->characteristicStopNotify(kDescriptor));
    EXPECT_FALSE(client->writeCharacteristic(kDescriptor, {1}));
    EXPECT_EQ(log.lines(), kit::Lines(3, noProxyFor(kDescriptor)));
    EXPECT_EQ(client->valueFor(kDescriptor), "");

    expectFromGlib(
        {"GLib-GIO-CRITICAL: g_dbus_proxy_call_sync_internal: assertion 'G_IS_DBUS_PROXY (proxy)' failed"});
    EXPECT_TRUE(sim->calls().empty()) << "the descriptor isn't read";
    const kit::Lines entries = known();
    EXPECT_EQ(std::count(entries.begin(), entries.end(), kCharacteristicKind.entry(kDescriptor)), 1);
}

// --- Reading ---

TEST_F(ACharacteristic, IsReadWithEveryByte)
{
    const Bytes bytes = everyByteTwice();
    sim->bend(Bend::answer("ReadValue", reply(bytes)));

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), bytes);
    EXPECT_EQ(client->valueFor(kCharacteristic), std::string(bytes.begin(), bytes.end()) + '\0');
}

TEST_F(ACharacteristic, IsReadAsATextOfOneZeroIfItsValueIsEmpty)
{
    sim->bend(Bend::answer("ReadValue", reply({})));
    Characteristic record;
    record.path = kCharacteristic;

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), Bytes{});
    EXPECT_EQ(client->valueFor(kCharacteristic), std::string(1, '\0'));
    EXPECT_TRUE(client->readCharacteristic(record));

    EXPECT_EQ(record.val, std::string(1, '\0'));
    EXPECT_EQ(log.lines(), kit::Lines{});
}

TEST_F(ACharacteristic, IsNotReadByAPathOfAnotherKind)
{
    for (const std::string& path :
         {std::string(kService), std::string(kDevice), std::string(kCharacteristic) + "/below"}) {
        EXPECT_EQ(client->valueFor(path), "");
        EXPECT_EQ(log.lines(), kit::Lines{});
        EXPECT_EQ(client->readCharacteristic(path), Bytes{});
        EXPECT_EQ(log.lines(), kit::Lines{"E Not a characteristic"}) << path;
        log.clear();
    }
    EXPECT_EQ(client->readCharacteristic(kDescriptor), Bytes{});
    EXPECT_EQ(log.lines(), kit::Lines{"E Not a characteristic"});
    EXPECT_EQ(known().size(), kKinds.size());
    EXPECT_TRUE(sim->calls().empty());
}

// --- Malformed replies ---

TEST_F(ACharacteristic, IsDoneIfNeitherAReplyNorAnErrorCame)
{
    for (const char* method : {"StartNotify", "StopNotify", "WriteValue", "ReadValue"}) {
        answerOnTheSpot(method);
    }

    EXPECT_TRUE(client->characteristicStartNotify(kCharacteristic));
    EXPECT_TRUE(client->characteristicStopNotify(kCharacteristic));
    EXPECT_TRUE(client->writeCharacteristic(kCharacteristic, {1}));
    EXPECT_EQ(client->valueFor(kCharacteristic), "") << "but there is nothing to read";
    EXPECT_EQ(log.lines(), kit::Lines{});
}

// A bus always answers with a tuple, but a GIO proxy might not.
TEST_F(ACharacteristic, IsReadIntoAVectorFromAReplyThatIsABareArray)
{
    spy.answer("ReadValue", [](GError**) {
        const guchar bytes[] = {1, 2, 3};
        return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes, sizeof bytes, 1);
    });

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), (Bytes{1, 2, 3}));
    EXPECT_EQ(client->valueFor(kCharacteristic), "") << "but not into a text";

    EXPECT_EQ(log.lines(), kit::Lines{});
}

struct WrongReply : kit::NamedCase {
    const char* reply;
    const char* complaint;
    kit::Lines complaintOfText;
};

class AReplyOfAWrongType : public ACharacteristic, public testing::WithParamInterface<WrongReply>
{
};

TEST_P(AReplyOfAWrongType, IsReadAsNothing)
{
    sim->bend(Bend::answer("ReadValue", Variant::parse(GetParam().reply)));

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), Bytes{});
    EXPECT_EQ(log.lines(), kit::Lines{GetParam().complaint});

    log.clear();
    EXPECT_EQ(client->valueFor(kCharacteristic), "");
    EXPECT_EQ(log.lines(), GetParam().complaintOfText);
    expectFromGlib({});
}

INSTANTIATE_TEST_SUITE_P(
    Such, AReplyOfAWrongType,
    testing::Values(
        WrongReply{{"AsAText"}, "('no bytes',)", "E Not an array", {"E Not an array of bytes: s"}},
        WrongReply{{"AsNothing"}, "()", "E Not an array", {}},
        WrongReply{{"AsANumber"}, "(7,)", "E Not an array", {"E Not an array of bytes: i"}},
        WrongReply{
            {"AsTexts"}, "(['a', 'b'],)", "E Not an array of bytes: as", {"E Not an array of bytes: as"}},
        WrongReply{
            {"AsWideNumbers"}, "([1, 2],)", "E Not an array of bytes: ai", {"E Not an array of bytes: ai"}},
        WrongReply{{"AsADictionary"},
                   "({'a': <1>},)",
                   "E Not an array of bytes: a{sv}",
                   {"E Not an array of bytes: a{sv}"}},
        WrongReply{{"AsAVariant"}, "(<[byte 1]>,)", "E Not an array", {"E Not an array of bytes: v"}}),
    kit::named);

// --- Extracting bytes from a variant ---

struct Content : kit::NamedCase {
    const char* variant; ///< null for none
    Bytes bytes;
    kit::Lines complaints;
    bool held; ///< whether the variant is in a holder, and so may be a reply
};

class TheBytesOfAVariant : public ACharacteristic, public testing::WithParamInterface<Content>
{
};

TEST_P(TheBytesOfAVariant, AreThoseOfAnArrayOfBytes)
{
    const char* const given = GetParam().variant;
    const Variant variant = given != nullptr ? Variant::parse(given) : Variant();

    if (GetParam().held) {
        const Bluez::GVariantHolder holder(variant ? g_variant_ref(variant.get()) : nullptr);
        EXPECT_EQ(client->getBytesArray(holder), GetParam().bytes);
    } else {
        EXPECT_EQ(client->getBytesArray(variant.get()), GetParam().bytes);
    }

    EXPECT_EQ(log.lines(), GetParam().complaints);
    expectFromGlib({});
}

const kit::Lines kNoArray = {"E Not an array"};
const kit::Lines kNoVariant = {"E Empty variant", "E Not an array"};

INSTANTIATE_TEST_SUITE_P(
    Plain, TheBytesOfAVariant,
    testing::Values(Content{{"AnArray"}, "[byte 0, 1, 255]", {0, 1, 255}, {}, false},
                    Content{{"AnEmptyArray"}, "@ay []", {}, {}, false},
                    Content{{"ATuple"}, "([byte 1],)", {}, kNoArray, false},
                    Content{{"Null"}, nullptr, {}, kNoVariant, false},
                    Content{{"AText"}, "'80'", {}, kNoArray, false},
                    Content{{"AByte"}, "byte 80", {}, kNoArray, false},
                    Content{{"AnArrayOfTexts"}, "['80']", {}, {"E Not an array of bytes: as"}, false}),
    kit::named);

INSTANTIATE_TEST_SUITE_P(Held, TheBytesOfAVariant,
                         testing::Values(Content{{"AnArray"}, "[byte 1, 2]", {1, 2}, {}, true},
                                         Content{{"ATuple"}, "([byte 5], 'more')", {5}, {}, true},
                                         Content{{"Null"}, nullptr, {}, kNoVariant, true},
                                         Content{{"AnEmptyTuple"}, "()", {}, kNoArray, true}),
                         kit::named);

} // namespace
