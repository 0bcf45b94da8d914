// SPDX-License-Identifier: MIT
// How listeners are notified of changed properties and values.
#include <chrono>
#include <future>

#include "Bluez.h"
#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

namespace
{

using Bytes = std::vector<std::uint8_t>;
using Characteristic = Bluez::Service::Characteristic;

using ATrackedTree = ABusWithBlueZ;

// --- Changes of properties ---

struct Change : kit::NamedCase {
    const char* property;
    const char* value;
    const char* event;     ///< empty for a change that is ignored
    const char* type = ""; ///< of a value whose type isn't the property's
};

class AChangeOfADevice : public ATrackedTree, public testing::WithParamInterface<Change>
{
};

TEST_P(AChangeOfADevice, IsReportedIfItMatters)
{
    const Change& given = GetParam();
    const std::string type = given.type;
    kit::Lines said = {std::string("D props changed: ") + kDevice};
    if (!type.empty()) {
        said.push_back(std::string("W Ignoring ") + given.property + " of " + kDevice + ": unexpected type " +
                       type);
    }
    startWithAll();

    change(kDeviceKind, {{given.property, Variant::parse(given.value)}});

    const std::string event = given.event;
    const std::size_t blank = event.find(' ');
    EXPECT_EQ(listener.events(),
              event.empty() ? kit::Lines{}
                            : kit::Lines{event.substr(0, blank) + " " + kDevice + event.substr(blank)});
    EXPECT_EQ(log.lines(), said);
}

INSTANTIATE_TEST_SUITE_P(
    Such, AChangeOfADevice,
    testing::Values(Change{{"AsPaired"}, "Paired", "true", "onDevicePairedStatusChanged true"},
                    Change{{"AsUnpaired"}, "Paired", "false", "onDevicePairedStatusChanged false"},
                    Change{{"AsConnected"}, "Connected", "true", "onDeviceConnectionStatusChanged true"},
                    Change{{"AsDisconnected"}, "Connected", "false", "onDeviceConnectionStatusChanged false"},
                    Change{{"AsItsStrength"}, "RSSI", "@n -71", "onDeviceRSSIChanged -71"},
                    Change{{"AsItsGreatestStrength"}, "RSSI", "@n 127", "onDeviceRSSIChanged 127"},
                    Change{{"AsItsServicesResolved"},
                           "ServicesResolved",
                           "true",
                           "onDeviceServicesResolvedStatusChanged true"},
                    Change{{"AsItsServicesLost"},
                           "ServicesResolved",
                           "false",
                           "onDeviceServicesResolvedStatusChanged false"},
                    Change{{"AsItsName"}, "Name", "'VEXA RC'", ""},
                    Change{{"AsItsAlias"}, "Alias", "'VEXA RC'", ""},
                    Change{{"AsItsTrust"}, "Trusted", "true", ""},
                    Change{{"AsAValueThatIsNone"}, "Value", "[byte 1]", ""},
                    Change{{"AsANameInLowerCase"}, "paired", "true", ""},
                    Change{{"AsANameThatGoesOn"}, "PairedTo", "true", ""},
                    Change{{"AsPairedByAText"}, "Paired", "'yes'", "", "s"},
                    Change{{"AsConnectedByANumber"}, "Connected", "1", "", "i"},
                    Change{{"AsStrengthByAWideNumber"}, "RSSI", "-71", "", "i"},
                    Change{{"AsResolvedByAList"}, "ServicesResolved", "[true]", "", "ab"}),
    kit::named);

TEST_F(ATrackedTree, DeliversEveryChangeOfOneSignalInItsOrder)
{
    startWithAll();

    // In an order other than that of the names.
    sim->emitSignal(kDevice, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                    Variant::parse("('org.bluez.Device1', {'ServicesResolved': <true>, 'RSSI': <@n -50>, "
                                   "'Alias': <'x'>, 'Paired': <true>, 'Connected': <true>}, @as [])"));
    settle();

    const std::string path = kDevice;
    EXPECT_EQ(listener.events(), (kit::Lines{"onDeviceServicesResolvedStatusChanged " + path + " true",
                                             "onDeviceRSSIChanged " + path + " -50",
                                             "onDevicePairedStatusChanged " + path + " true",
                                             "onDeviceConnectionStatusChanged " + path + " true"}));
    EXPECT_EQ(log.count("D props changed: " + path), 1U);
}

TEST_F(ATrackedTree, FinishesTheFanOutOfOneChangeBeforeTheNext)
{
    kit::Lines order;
    RecordingListener& second = others[0];
    listener.onEvent = [&](const std::string& event) { order.push_back(event.substr(0, event.find(' '))); };
    second.onEvent = listener.onEvent;
    addDevice();
    start();
    client->subscribe(&second);
    order.clear();

    sim->emitSignal(kDevice, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                    Variant::parse("('org.bluez.Device1', {'Paired': <true>, 'Connected': <true>}, @as [])"));
    settle();

    EXPECT_EQ(order, (kit::Lines{"onDevicePairedStatusChanged", "onDevicePairedStatusChanged",
                                 "onDeviceConnectionStatusChanged", "onDeviceConnectionStatusChanged"}));
}

TEST_F(ATrackedTree, IgnoresTheInvalidatedNames)
{
    addDevice(kDevice, {{"RSSI", int16(-40)}, {"Paired", boolean(true)}});
    start();
    listener.clear();
    log.clear();

    sim->emitPropertiesChanged(kDevice, kDeviceInterface, {}, {"RSSI", "Paired"});
    settle();

    EXPECT_EQ(log.lines(), kit::Lines{std::string("D props changed: ") + kDevice});
    EXPECT_EQ(listener.events(), kit::Lines{});
    std::int16_t dBm = 7;
    EXPECT_FALSE(client->deviceGetRSSI(kDevice, dBm)) << "but the proxy forgets them";
}

TEST_F(ATrackedTree, DoesntSeeChangesOfOtherKindsAndInterfaces)
{
    startWithAll();

    change(kAdapterKind, {{"Powered", boolean(false)}, {"Paired", boolean(true)}});
    change(kServiceKind, {{"Value", Variant::bytes({1})}});
    change(kDescriptorKind, {{"Value", Variant::bytes({1})}});
    sim->emitPropertiesChanged(kDevice, "org.bluez.Battery1", {{"Paired", boolean(true)}});
    settle();

    EXPECT_EQ(log.lines(), kit::Lines{});
    EXPECT_EQ(listener.events(), kit::Lines{});
}

// --- Values ---

TEST_F(ATrackedTree, ReportsAValueWithItsBytesAndAFreshRecord)
{
    startWithAll();

    change(kCharacteristicKind, {{"Value", Variant::bytes({0, 80, 255})}});

    EXPECT_EQ(listener.events(),
              kit::Lines{std::string("onGattCharacteristicChanged ") + kCharacteristic + " 0 80 255"});
    const Characteristic characteristic = listener.values().at(0).characteristic;
    EXPECT_EQ(characteristic.uuid, kLevelUuid);
    EXPECT_EQ(characteristic.parent, kService);
    EXPECT_EQ(characteristic.val, "");
    EXPECT_TRUE(characteristic.descriptors.empty()) << "whatever the tree holds";
    EXPECT_EQ(log.lines(), kit::Lines{std::string("D props changed: ") + kCharacteristic});
}

TEST_F(ATrackedTree, ReportsAnEmptyValueAndOneOfAWrongTypeWithoutBytes)
{
    startWithAll();

    change(kCharacteristicKind, {{"Value", Variant::bytes({})}});
    EXPECT_EQ(log.lines("EW"), kit::Lines{});
    change(kCharacteristicKind, {{"Value", text("80")}});
    change(kCharacteristicKind, {{"Value", Variant::strings({"80"})}});

    EXPECT_EQ(listener.events(),
              kit::Lines(3, std::string("onGattCharacteristicChanged ") + kCharacteristic));
    EXPECT_EQ(log.lines("EW"), (kit::Lines{"E Not an array", "E Not an array of bytes: as"}));
    expectFromGlib({});
}

TEST_F(ATrackedTree, PassesOverOtherChangesOfACharacteristic)
{
    startWithAll();

    change(kCharacteristicKind, {{"Notifying", boolean(true)}, {"Paired", boolean(true)}});

    EXPECT_EQ(listener.events(), kit::Lines{});
    EXPECT_EQ(log.lines(), kit::Lines{std::string("D props changed: ") + kCharacteristic});
}

// A proxy that outlives its entry, because a call on it is in progress, still receives the value change;
// building the record for that event looks up the path again and so leaves an entry. The entry shows whether
// a record was built.
class AValueOfACharacteristicThatHasGone : public ATrackedTree
{
protected:
    // Changes the value while a call keeps the proxy alive; returns the map's entries afterwards.
    kit::Lines entriesAfterTheChange()
    {
        addCharacteristic();
        start();
        sim->bend(Bend::silence("StartNotify"));
        GioSpy spy;
        spy.setDefaultTimeout(kCallLimit);
        std::future<bool> call = std::async(
            std::launch::async, [&] { return client->characteristicStartNotify(kCharacteristic); });
        EXPECT_TRUE(sim->awaitCall("StartNotify"));
        sim->removeObject(kCharacteristic);
        settle();
        EXPECT_EQ(unrefs(), 0U) << "the call holds the proxy";
        prepare();

        change(kCharacteristicKind, {{"Value", Variant::bytes({7})}});
        EXPECT_EQ(log.count(std::string("D props changed: ") + kCharacteristic), 1U);
        const kit::Lines left = known();

        EXPECT_EQ(call.wait_for(std::chrono::seconds(0)), std::future_status::timeout) << "too slow to tell";
        EXPECT_FALSE(call.get());
        EXPECT_EQ(unrefs(), 1U);
        return left;
    }
    virtual void prepare() {}

private:
    static constexpr std::chrono::seconds kCallLimit{5};
};

TEST_F(AValueOfACharacteristicThatHasGone, BuildsARecordForASubscribedListener)
{
    EXPECT_EQ(entriesAfterTheChange(), kit::Lines{kCharacteristicKind.entry()});
    EXPECT_EQ(listener.values().size(), 1U);
}

class AValueThatNobodyHears : public AValueOfACharacteristicThatHasGone
{
    void prepare() override { client->unsubscribe(&listener); }
};

TEST_F(AValueThatNobodyHears, CostsNoRecord)
{
    EXPECT_EQ(entriesAfterTheChange(), kit::Lines{});
    EXPECT_EQ(listener.values().size(), 0U);
}

TEST_F(ATrackedTree, SharesTheBytesOfAValueAmongTheListeners)
{
    // Only the address distinguishes a shared vector from a copy.
    struct Shared : Bluez::Listener {
        const Bytes* bytes = nullptr;
        void onGattCharacteristicChanged(const Characteristic& /*characteristic*/,
                                         const Bytes& value) override
        {
            bytes = &value;
        }
    };
    Shared first;
    Shared second;
    start();
    client->subscribe(&first);
    client->subscribe(&second);
    addCharacteristic();
    settle();

    change(kCharacteristicKind, {{"Value", Variant::bytes({7})}});

    destroy();
    ASSERT_NE(first.bytes, nullptr);
    EXPECT_EQ(first.bytes, second.bytes);
}

TEST_F(ATrackedTree, BuildsARecordOfAValueForEachListenerWhenItsTurnComes)
{
    RecordingListener& first = others.front();
    RecordingListener& second = others.back();
    // The proxy's cached value changes between the two.
    first.onEvent = [&](const std::string& event) {
        if (event.rfind("onGattCharacteristicChanged", 0) == 0) {
            GDBusProxy* proxy = ((*client).*kCharacteristicKind.proxies).at(kCharacteristic).get();
            g_dbus_proxy_set_cached_property(proxy, "UUID", g_variant_new_string("meanwhile"));
        }
    };
    start(nullptr);
    client->subscribe(&first);
    client->subscribe(&second);
    addCharacteristic();
    settle();

    change(kCharacteristicKind, {{"Value", Variant::bytes({7})}});

    ASSERT_EQ(first.values().size(), 1U);
    ASSERT_EQ(second.values().size(), 1U);
    EXPECT_EQ(first.values()[0].characteristic.uuid, kLevelUuid);
    EXPECT_EQ(second.values()[0].characteristic.uuid, "meanwhile");
}

} // namespace
