// SPDX-License-Identifier: MIT
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <algorithm>
#include <ostream>

namespace
{

using namespace std::chrono_literals;

using Bytes = std::vector<std::uint8_t>;
using Characteristic = Bluez::Service::Characteristic;

const std::string kUnknown = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01/service0010/char0077";
const std::string kNoProxy = "E No proxy found for characteristic " + kUnknown;

Characteristic recordOf(const std::string& path, const std::string& value = "")
{
    Characteristic record;
    record.path = path;
    record.val = value;
    return record;
}

/// The reply of ReadValue.
Variant reply(const Bytes& bytes)
{
    return {g_variant_new("(@ay)",
                          g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1))};
}

class ACharacteristic : public ABusWithBlueZ
{
protected:
    /// Starts the client with one characteristic, and begins the record of calls anew.
    void startWithAll()
    {
        addAll();
        start();
        sim->clearCalls();
        log.clear();
    }
};

// --- Notifications and writing: what they have in common ---

struct Operation {
    const char* name;
    const char* method;
    bool (*call)(Bluez&, const std::string&);
    bool (*callRecord)(Bluez&, const Characteristic&);
    const char* parameters; // on the bus
};
std::ostream& operator<<(std::ostream& out, const Operation& operation)
{
    return out << operation.name;
}

class AnOperationOnACharacteristic : public ACharacteristic, public testing::WithParamInterface<Operation>
{
protected:
    bool call(const std::string& path) { return GetParam().call(*client, path); }
};

TEST_P(AnOperationOnACharacteristic, IsOneCallOnItsInterface)
{
    startWithAll();
    sim->bend(Bend::answer(GetParam().method, nothing()));

    EXPECT_TRUE(call(kCharacteristic));
    EXPECT_TRUE(GetParam().callRecord(*client, recordOf(kCharacteristic)));

    const auto calls = sim->calls();
    ASSERT_EQ(calls.size(), 2U);
    for (const vexasim::Call& made : calls) {
        EXPECT_EQ(made.path, kCharacteristic);
        EXPECT_EQ(made.interface, kCharacteristicInterface);
        EXPECT_EQ(made.member, GetParam().method);
        EXPECT_EQ(made.parameters.text(), GetParam().parameters);
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AnOperationOnACharacteristic, GoesThroughTheProxyWithTheLibrarysTimeout)
{
    startWithAll();
    sim->bend(Bend::answer(GetParam().method, nothing()));
    const GioSpy spy;

    call(kCharacteristic);

    const auto calls = spy.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].function, "g_dbus_proxy_call_sync");
    EXPECT_EQ(calls[0].flags, 0);
    EXPECT_EQ(calls[0].timeoutMs, -1);
    EXPECT_FALSE(calls[0].cancellable);
    EXPECT_TRUE(calls[0].error);
}

TEST_P(AnOperationOnACharacteristic, LogsWhyItWasRefused)
{
    startWithAll();
    sim->bend(Bend::error(GetParam().method, "org.bluez.Error.InProgress", "Operation already in progress"));

    EXPECT_FALSE(call(kCharacteristic));

    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.InProgress: Operation already in progress"});
}

TEST_P(AnOperationOnACharacteristic, LogsThatItTimedOut)
{
    startWithAll();
    sim->bend(Bend::silence(GetParam().method));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    EXPECT_FALSE(call(kCharacteristic));

    EXPECT_EQ(log.lines(), Lines{"E Timeout was reached"});
}

TEST_P(AnOperationOnACharacteristic, IsDoneIfNeitherAReplyNorAnErrorCame)
{
    startWithAll();
    GioSpy spy;
    spy.answer(GetParam().method, [](GError**) { return nullptr; });

    EXPECT_TRUE(call(kCharacteristic));

    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AnOperationOnACharacteristic, IgnoresTheBodyOfItsReply)
{
    startWithAll();
    sim->bend(Bend::answer(GetParam().method, g_variant_new("(s)", "unasked")));

    EXPECT_TRUE(call(kCharacteristic));
}

TEST_P(AnOperationOnACharacteristic, IsRefusedForAnEmptyPath)
{
    startWithAll();

    EXPECT_FALSE(call(""));
    EXPECT_FALSE(GetParam().callRecord(*client, Characteristic{}));

    EXPECT_EQ(log.lines(), (Lines{"E Empty obj path", "E Empty obj path"}));
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});
    EXPECT_TRUE(sim->calls().empty());
}

TEST_P(AnOperationOnACharacteristic, IsRefusedForAnUnknownPathAndLeavesAnEntry)
{
    startWithAll();

    EXPECT_FALSE(call(kUnknown));

    EXPECT_EQ(log.lines(), Lines{kNoProxy});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), (Lines{kCharacteristic, kUnknown}));
    EXPECT_TRUE(sim->calls().empty());
}

TEST_P(AnOperationOnACharacteristic, FindsNoProxyOnceTheCharacteristicIsRemoved)
{
    startWithAll();
    sim->removeObject(kCharacteristic);
    settle();
    log.clear();

    EXPECT_FALSE(call(kCharacteristic));

    EXPECT_EQ(log.lines(), Lines{std::string("E No proxy found for characteristic ") + kCharacteristic});
}

// The path isn't classified: what counts is the map.
TEST_P(AnOperationOnACharacteristic, FindsNoProxyForADescriptor)
{
    startWithAll();

    EXPECT_FALSE(call(kDescriptor));

    EXPECT_EQ(log.lines(), Lines{std::string("E No proxy found for characteristic ") + kDescriptor});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), (Lines{kCharacteristic, kDescriptor}));
}

INSTANTIATE_TEST_SUITE_P(
    Such, AnOperationOnACharacteristic,
    testing::Values(Operation{"AsStartNotify", "StartNotify",
                              [](Bluez& client, const std::string& path) {
                                  return client.characteristicStartNotify(path);
                              },
                              [](Bluez& client, const Characteristic& record) {
                                  return client.characteristicStartNotify(record);
                              },
                              "()"},
                    Operation{"AsStopNotify", "StopNotify",
                              [](Bluez& client, const std::string& path) {
                                  return client.characteristicStopNotify(path);
                              },
                              [](Bluez& client, const Characteristic& record) {
                                  return client.characteristicStopNotify(record);
                              },
                              "()"},
                    Operation{"AsWriteValue", "WriteValue",
                              [](Bluez& client, const std::string& path) {
                                  return client.writeCharacteristic(path, {0x00, 0x7f, 0xff});
                              },
                              [](Bluez& client, const Characteristic& record) {
                                  return client.writeCharacteristic(record, {0x00, 0x7f, 0xff});
                              },
                              "([byte 0x00, 0x7f, 0xff], @a{sv} {})"}),
    [](const auto& test) { return test.param.name; });

TEST_F(ACharacteristic, IsAskedAgainToNotifyAndTheStackDecides)
{
    startWithAll();
    sim->bend(Bend::error("StartNotify", "org.bluez.Error.InProgress", "In Progress"));
    sim->bend(Bend::answer("StartNotify", nothing()).times(1)); // the newest first

    EXPECT_TRUE(client->characteristicStartNotify(kCharacteristic));
    EXPECT_FALSE(client->characteristicStartNotify(kCharacteristic));

    EXPECT_EQ(sim->calls("StartNotify", kCharacteristic).size(), 2U);
    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.InProgress: In Progress"});
}

// --- Writing ---

TEST_F(ACharacteristic, IsNotLookedUpForNothingToWrite)
{
    startWithAll();

    EXPECT_FALSE(client->writeCharacteristic(kUnknown, {}));
    EXPECT_FALSE(client->writeCharacteristic(recordOf(kUnknown), {}));
    EXPECT_EQ(log.lines(), (Lines{"E Nothing to write", "E Nothing to write"}));
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});

    log.clear();
    EXPECT_FALSE(client->writeCharacteristic(kUnknown, {1}));
    EXPECT_EQ(log.lines(), Lines{kNoProxy});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), (Lines{kCharacteristic, kUnknown}));
}

TEST_F(ACharacteristic, RefusesNothingToWriteOnAnEmptyPathByThePath)
{
    startWithAll();

    EXPECT_FALSE(client->writeCharacteristic("", {}));

    EXPECT_EQ(log.lines(), Lines{"E Empty obj path"});
}

TEST_F(ACharacteristic, TakesEveryByteThatIsWritten)
{
    startWithAll();
    sim->bend(Bend::answer("WriteValue", nothing()));
    Bytes bytes;
    for (int i = 0; i < 512; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(i * 7));
    }

    EXPECT_TRUE(client->writeCharacteristic(kCharacteristic, bytes));

    const auto calls = sim->calls("WriteValue");
    ASSERT_EQ(calls.size(), 1U);
    GVariant* expected[] = {g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1),
                            g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0)};
    EXPECT_TRUE(g_variant_equal(calls[0].parameters.get(), Variant(g_variant_new_tuple(expected, 2)).get()));
}

// A read gives the builder of its empty options back, a write doesn't.
TEST_F(ACharacteristic, KeepsTheBuilderOfEachWriteButNotOfARead)
{
    startWithAll();
    GioSpy spy;
    for (const char* method : {"ReadValue", "WriteValue"}) {
        spy.answer(method, [](GError**) { return nullptr; });
    }
    const auto builders = [&] {
        const Lines releases = spy.releases();
        return std::count(releases.begin(), releases.end(), "GVariantBuilder");
    };

    client->readCharacteristic(kCharacteristic);
    EXPECT_EQ(builders(), 1);
    client->valueFor(kCharacteristic);
    EXPECT_EQ(builders(), 2);
    EXPECT_TRUE(client->writeCharacteristic(kCharacteristic, {1}));
    EXPECT_EQ(builders(), 2);
}

// --- Reading into a vector ---

TEST_F(ACharacteristic, IsReadIntoAVector)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", reply({0, 80, 255})));

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), (Bytes{0, 80, 255}));

    const auto calls = sim->calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, kCharacteristic);
    EXPECT_EQ(calls[0].interface, kCharacteristicInterface);
    EXPECT_EQ(calls[0].member, "ReadValue");
    EXPECT_EQ(calls[0].parameters.text(), "(@a{sv} {},)");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ACharacteristic, IsReadThroughTheProxyWithTheLibrarysTimeout)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", reply({1})));
    const GioSpy spy;

    client->readCharacteristic(kCharacteristic);
    client->valueFor(kCharacteristic);

    const auto calls = spy.calls();
    ASSERT_EQ(calls.size(), 2U);
    for (const GioSpy::Call& call : calls) {
        EXPECT_EQ(call.function, "g_dbus_proxy_call_sync");
        EXPECT_EQ(call.method, "ReadValue");
        EXPECT_EQ(call.parameters, "(@a{sv} {},)");
        EXPECT_EQ(call.flags, 0);
        EXPECT_EQ(call.timeoutMs, -1);
        EXPECT_FALSE(call.cancellable);
        EXPECT_TRUE(call.error);
    }
}

TEST_F(ACharacteristic, IsReadAsNothingIfItsValueIsEmpty)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", reply({})));

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), Bytes{});

    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ACharacteristic, LogsThreeLinesForAReadThatFails)
{
    startWithAll();
    sim->bend(Bend::error("ReadValue", "org.bluez.Error.Failed", "ATT error: 0x0e"));

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), Bytes{});

    EXPECT_EQ(log.lines(), (Lines{"E GDBus.Error:org.bluez.Error.Failed: ATT error: 0x0e", "E Empty variant",
                                  "E Not an array"}));
}

TEST_F(ACharacteristic, LogsThreeLinesForAReadThatTimesOut)
{
    startWithAll();
    sim->bend(Bend::silence("ReadValue"));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), Bytes{});

    EXPECT_EQ(log.lines(), (Lines{"E Timeout was reached", "E Empty variant", "E Not an array"}));
}

TEST_F(ACharacteristic, IsNotReadByAPathOfAnotherKind)
{
    startWithAll();

    for (const std::string& path : {std::string(kDescriptor), std::string(kService), std::string(kDevice),
                                    std::string(kCharacteristic) + "/below", std::string()}) {
        log.clear();
        EXPECT_EQ(client->readCharacteristic(path), Bytes{});
        EXPECT_EQ(log.lines(), Lines{"E Not a characteristic"}) << path;
    }
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});
    EXPECT_TRUE(sim->calls().empty());
}

TEST_F(ACharacteristic, IsNotReadIfItIsUnknownAndLeavesAnEntry)
{
    startWithAll();

    EXPECT_EQ(client->readCharacteristic(kUnknown), Bytes{});

    EXPECT_EQ(log.lines(), Lines{kNoProxy});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), (Lines{kCharacteristic, kUnknown}));
}

// A bus answers with a tuple, always; a proxy of GIO's might not.
TEST_F(ACharacteristic, IsReadIntoAVectorFromAReplyThatIsABareArray)
{
    startWithAll();
    GioSpy spy;
    spy.answer("ReadValue", [](GError**) {
        const guchar bytes[] = {1, 2, 3};
        return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes, sizeof bytes, 1);
    });

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), (Bytes{1, 2, 3}));
    EXPECT_EQ(client->valueFor(kCharacteristic), "") << "but not into a text";

    EXPECT_EQ(log.lines(), Lines{});
}

struct WrongReply {
    const char* name;
    const char* reply;
    const char* complaint;
    const char* complaintOfText; // empty for silence
};
std::ostream& operator<<(std::ostream& out, const WrongReply& wrong)
{
    return out << wrong.reply;
}

class AReplyOfAWrongType : public ACharacteristic, public testing::WithParamInterface<WrongReply>
{
};

TEST_P(AReplyOfAWrongType, IsReadAsNothing)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", Variant::parse(GetParam().reply)));

    EXPECT_EQ(client->readCharacteristic(kCharacteristic), Bytes{});
    EXPECT_EQ(log.lines(), Lines{std::string("E ") + GetParam().complaint});

    log.clear();
    EXPECT_EQ(client->valueFor(kCharacteristic), "");
    const std::string complaint = GetParam().complaintOfText;
    EXPECT_EQ(log.lines(), complaint.empty() ? Lines{} : Lines{"E " + complaint});
    expectFromGlib({});
}

INSTANTIATE_TEST_SUITE_P(
    Such, AReplyOfAWrongType,
    testing::Values(
        WrongReply{"AsAText", "('no bytes',)", "Not an array", "Not an array of bytes: s"},
        WrongReply{"AsNothing", "()", "Not an array", ""},
        WrongReply{"AsANumber", "(7,)", "Not an array", "Not an array of bytes: i"},
        WrongReply{"AsTexts", "(['a', 'b'],)", "Not an array of bytes: as", "Not an array of bytes: as"},
        WrongReply{"AsWideNumbers", "([1, 2],)", "Not an array of bytes: ai", "Not an array of bytes: ai"},
        WrongReply{"AsADictionary", "({'a': <1>},)", "Not an array of bytes: a{sv}",
                   "Not an array of bytes: a{sv}"},
        WrongReply{"AsAVariant", "(<[byte 1]>,)", "Not an array", "Not an array of bytes: v"}),
    [](const auto& test) { return test.param.name; });

// --- Reading into a text ---

TEST_F(ACharacteristic, IsReadIntoATextWithAZeroBehindIt)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", reply({'a', 0, 'c'})));

    EXPECT_EQ(client->valueFor(kCharacteristic), std::string("a\0c\0", 4));

    const auto calls = sim->calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].member, "ReadValue");
    EXPECT_EQ(calls[0].interface, kCharacteristicInterface);
    EXPECT_EQ(calls[0].parameters.text(), "(@a{sv} {},)");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ACharacteristic, IsReadIntoATextOfOneZeroIfItsValueIsEmpty)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", reply({})));

    EXPECT_EQ(client->valueFor(kCharacteristic), std::string(1, '\0'));
}

TEST_F(ACharacteristic, IsReadIntoATextWithEveryByte)
{
    startWithAll();
    Bytes bytes;
    for (int i = 0; i < 256; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(i));
    }
    sim->bend(Bend::answer("ReadValue", reply(bytes)));

    EXPECT_EQ(client->valueFor(kCharacteristic), std::string(bytes.begin(), bytes.end()) + '\0');
    EXPECT_EQ(client->readCharacteristic(kCharacteristic), bytes);
}

TEST_F(ACharacteristic, IsReadIntoNoTextIfTheReadFails)
{
    startWithAll();
    sim->bend(Bend::error("ReadValue", "org.bluez.Error.NotPermitted", "Read not permitted"));

    EXPECT_EQ(client->valueFor(kCharacteristic), "");

    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.NotPermitted: Read not permitted"});
}

TEST_F(ACharacteristic, IsReadIntoNoTextIfTheReadTimesOut)
{
    startWithAll();
    sim->bend(Bend::silence("ReadValue"));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    EXPECT_EQ(client->valueFor(kCharacteristic), "");

    EXPECT_EQ(log.lines(), Lines{"E Timeout was reached"});
}

TEST_F(ACharacteristic, IsReadIntoNoTextIfNeitherAReplyNorAnErrorCame)
{
    startWithAll();
    GioSpy spy;
    spy.answer("ReadValue", [](GError**) { return nullptr; });

    EXPECT_EQ(client->valueFor(kCharacteristic), "");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ACharacteristic, IsReadIntoNoTextByAnEmptyPath)
{
    startWithAll();

    EXPECT_EQ(client->valueFor(""), "");

    EXPECT_EQ(log.lines(), Lines{"D unit empty"});
}

TEST_F(ACharacteristic, IsReadIntoNoTextByAPathOfAnotherKind)
{
    startWithAll();

    EXPECT_EQ(client->valueFor(kService), "");
    EXPECT_EQ(client->valueFor(kDevice), "");
    EXPECT_EQ(client->valueFor("/"), "");

    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});
}

const Lines kRefusedByGlib = {
    "GLib-GIO-CRITICAL: g_dbus_proxy_call_sync_internal: assertion 'G_IS_DBUS_PROXY (proxy)' failed"};

TEST_F(ACharacteristic, IsNotMistakenForItsDescriptorWhoseTextIsEmpty)
{
    startWithAll();

    EXPECT_EQ(client->valueFor(kDescriptor), "");

    expectFromGlib(kRefusedByGlib);
    EXPECT_TRUE(sim->calls().empty()) << "the descriptor isn't read";
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), (Lines{kCharacteristic, kDescriptor}));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ACharacteristic, IsReadIntoNoTextIfItIsUnknownAndLeavesAnEntry)
{
    startWithAll();

    EXPECT_EQ(client->valueFor(kUnknown), "");

    expectFromGlib(kRefusedByGlib);
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), (Lines{kCharacteristic, kUnknown}));
    EXPECT_EQ(log.lines(), Lines{});
}

// --- Reading into a record ---

TEST_F(ACharacteristic, IsReadIntoTheValueOfItsRecord)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", reply({'8', '0'})));
    Characteristic record = recordOf(kCharacteristic, "a longer text than the value");

    EXPECT_TRUE(client->readCharacteristic(record));

    EXPECT_EQ(record.val, std::string("80\0", 3));
    EXPECT_EQ(record.path, kCharacteristic);
}

TEST_F(ACharacteristic, IsReadIntoItsRecordEvenIfItsValueIsEmpty)
{
    startWithAll();
    sim->bend(Bend::answer("ReadValue", reply({})));
    Characteristic record = recordOf(kCharacteristic, "old");

    EXPECT_TRUE(client->readCharacteristic(record));

    EXPECT_EQ(record.val, std::string(1, '\0'));
}

TEST_F(ACharacteristic, EmptiesTheValueOfItsRecordIfTheReadFails)
{
    startWithAll();
    sim->bend(Bend::error("ReadValue", "org.bluez.Error.Failed", "no"));
    Characteristic record = recordOf(kCharacteristic, "old");

    EXPECT_FALSE(client->readCharacteristic(record));

    EXPECT_EQ(record.val, "");
    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.Failed: no"});
}

TEST_F(ACharacteristic, EmptiesTheValueOfARecordWithoutAPath)
{
    startWithAll();
    Characteristic record = recordOf("", "old");

    EXPECT_FALSE(client->readCharacteristic(record));

    EXPECT_EQ(record.val, "");
    EXPECT_EQ(log.lines(), Lines{"D unit empty"});
}

// --- Taking bytes out of a variant ---

class TheBytesOfAVariant : public ACharacteristic
{
protected:
    TheBytesOfAVariant()
    {
        start();
        log.clear();
    }
    Bytes bytesOf(const Variant& variant) { return client->getBytesArray(variant.get()); }
    Bytes bytesOfHeld(const Variant& variant)
    {
        const Bluez::GVariantHolder holder(variant ? g_variant_ref(variant.get()) : nullptr);
        return client->getBytesArray(holder);
    }
};

TEST_F(TheBytesOfAVariant, AreThoseOfAnArrayOfBytes)
{
    EXPECT_EQ(bytesOf(Variant::bytes({0, 1, 255})), (Bytes{0, 1, 255}));
    EXPECT_EQ(bytesOf(Variant::bytes({})), Bytes{});
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(TheBytesOfAVariant, AreThoseOfAHeldArrayOrOfTheFirstOfAHeldTuple)
{
    EXPECT_EQ(bytesOfHeld(Variant::bytes({1, 2})), (Bytes{1, 2}));
    EXPECT_EQ(bytesOfHeld(reply({3, 4})), (Bytes{3, 4}));
    EXPECT_EQ(bytesOfHeld(Variant::parse("([byte 5], 'more')")), (Bytes{5}));
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(TheBytesOfAVariant, AreNoneOfATupleThatIsntHeld)
{
    EXPECT_EQ(bytesOf(reply({1})), Bytes{});
    EXPECT_EQ(log.lines(), Lines{"E Not an array"});
}

TEST_F(TheBytesOfAVariant, AreNoneOfNull)
{
    EXPECT_EQ(bytesOf({}), Bytes{});
    EXPECT_EQ(log.lines(), (Lines{"E Empty variant", "E Not an array"}));
    log.clear();
    EXPECT_EQ(bytesOfHeld({}), Bytes{});
    EXPECT_EQ(log.lines(), (Lines{"E Empty variant", "E Not an array"}));
    expectFromGlib({});
}

TEST_F(TheBytesOfAVariant, AreNoneOfWhatIsNoArray)
{
    EXPECT_EQ(bytesOf(text("80")), Bytes{});
    EXPECT_EQ(bytesOf(Variant::parse("byte 80")), Bytes{});
    EXPECT_EQ(bytesOfHeld(Variant::parse("()")), Bytes{});
    EXPECT_EQ(log.lines(), (Lines{"E Not an array", "E Not an array", "E Not an array"}));
}

TEST_F(TheBytesOfAVariant, AreNoneOfAnArrayOfSomethingElse)
{
    EXPECT_EQ(bytesOf(Variant::strings({"80"})), Bytes{});
    EXPECT_EQ(log.lines(), Lines{"E Not an array of bytes: as"});
    expectFromGlib({});
}

// --- With a remote that behaves as a real one ---

class ARealRemote : public ABusWithBlueZ
{
protected:
    ARealRemote() : ABusWithBlueZ(options())
    {
        sim->announce(sim->remote().normal());
        start();
        EXPECT_TRUE(client->deviceConnect(sim->remotePath()));
        EXPECT_TRUE(listener.await("onDeviceServicesResolvedStatusChanged " + sim->remotePath() + " true"));
        log.clear();
    }
    static vexasim::SimulatorOptions options()
    {
        vexasim::SimulatorOptions real;
        real.remote.paired = true;
        return real;
    }

    std::string pathOf(const std::string& uuid) { return sim->pathOf(*sim->remote().normal(), uuid); }
};

TEST_F(ARealRemote, GivesItsBatteryLevelAndItsVersion)
{
    EXPECT_EQ(client->readCharacteristic(pathOf(vexasim::uuid::kBatteryLevel)), (Bytes{80}));
    EXPECT_EQ(client->readCharacteristic(pathOf(vexasim::uuid::kVersion)), (Bytes{0xa3, 0x01}));
    EXPECT_EQ(log.lines("E"), Lines{});
}

TEST_F(ARealRemote, NotifiesItsBatteryLevelUntilItIsToldToStop)
{
    const std::string level = pathOf(vexasim::uuid::kBatteryLevel);

    ASSERT_TRUE(client->characteristicStartNotify(level));
    sim->remote().setBattery(79);
    EXPECT_TRUE(listener.await("onGattCharacteristicChanged " + level + " 79"));
    ASSERT_TRUE(client->characteristicStopNotify(level));
    settle();
    const std::size_t heard = listener.values().size();
    sim->remote().setBattery(78);
    settle();

    EXPECT_EQ(listener.values().size(), heard);
    EXPECT_EQ(log.lines("E"), Lines{});
}

TEST_F(ARealRemote, IsSwitchedToItsUpdateModeByAByte)
{
    EXPECT_TRUE(client->writeCharacteristic(pathOf(vexasim::uuid::kSwitch), {0x01}));

    const auto calls = sim->calls("WriteValue");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].parameters.text(), "([byte 0x01], @a{sv} {})");
}

TEST_F(ARealRemote, CantBeReadOnceItHasGone)
{
    const std::string level = pathOf(vexasim::uuid::kBatteryLevel);
    sim->remote().leave();
    ASSERT_TRUE(listener.await("onDeviceConnectionStatusChanged " + sim->remotePath() + " false"));

    EXPECT_EQ(client->readCharacteristic(level), Bytes{});

    EXPECT_FALSE(log.lines("E").empty());
}

} // namespace
