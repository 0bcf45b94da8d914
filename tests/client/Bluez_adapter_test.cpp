// SPDX-License-Identifier: MIT
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <ostream>

namespace
{

using namespace std::chrono_literals;

const std::string kUnknown = "/org/bluez/hci7";

class AnAdapter : public ABusWithBlueZ
{
protected:
    /// Starts the client with one adapter, and begins the record of calls anew.
    void startWith(const PropertyMap& properties = {})
    {
        addAdapter(kAdapter, properties);
        start();
        sim->clearCalls();
        log.clear();
    }
};

// --- What the proxy last saw ---

TEST_F(AnAdapter, GivesItsAddressFromTheCache)
{
    startWith({{"Address", text("00:1A:7D:DA:71:13")}});
    const OutgoingMessages outgoing(connection());
    std::string address = "a text that is longer than the address itself";

    EXPECT_TRUE(client->adapterGetAddress(kAdapter, address));

    EXPECT_EQ(address, "00:1A:7D:DA:71:13");
    settle();
    EXPECT_EQ(outgoing.count(), 0);
}

TEST_F(AnAdapter, LeavesTheTextAsItWasWithoutAnAddress)
{
    startWith({{"Address", int16(7)}});
    std::string address = "before";

    EXPECT_FALSE(client->adapterGetAddress(kAdapter, address)) << "of a wrong type";
    EXPECT_FALSE(client->adapterGetAddress(kUnknown, address));
    EXPECT_FALSE(client->adapterGetAddress("", address));

    EXPECT_EQ(address, "before");
    EXPECT_EQ(client->getAdapters(), (Lines{kAdapter, kUnknown}));
    EXPECT_EQ(log.lines(), Lines{});
}

// --- Methods ---

struct Method {
    const char* name;
    bool (*call)(Bluez&, const std::string&);
    const char* parameters; // on the bus
    bool trueWhenRefused;
};
std::ostream& operator<<(std::ostream& out, const Method& method)
{
    return out << method.name;
}

class AMethodOfAnAdapter : public AnAdapter, public testing::WithParamInterface<Method>
{
protected:
    bool call(const std::string& path) { return GetParam().call(*client, path); }
};

TEST_P(AMethodOfAnAdapter, IsCalledOnceOnItsInterface)
{
    startWith();
    sim->bend(Bend::answer(GetParam().name, nothing()));

    EXPECT_TRUE(call(kAdapter));

    const auto calls = sim->calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, kAdapter);
    EXPECT_EQ(calls[0].interface, kAdapterInterface);
    EXPECT_EQ(calls[0].member, GetParam().name);
    EXPECT_EQ(calls[0].parameters.text(), GetParam().parameters);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AMethodOfAnAdapter, GoesThroughTheProxyWithTheLibrarysTimeout)
{
    startWith();
    sim->bend(Bend::answer(GetParam().name, nothing()));
    const GioSpy spy;

    call(kAdapter);

    const auto calls = spy.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].function, "g_dbus_proxy_call_sync");
    EXPECT_EQ(calls[0].method, GetParam().name);
    EXPECT_EQ(calls[0].flags, 0);
    EXPECT_EQ(calls[0].timeoutMs, -1);
    EXPECT_FALSE(calls[0].cancellable);
    EXPECT_TRUE(calls[0].error);
}

TEST_P(AMethodOfAnAdapter, LogsWhyItWasRefused)
{
    startWith();
    sim->bend(Bend::error(GetParam().name, "org.bluez.Error.NotReady", "Resource Not Ready"));

    EXPECT_EQ(call(kAdapter), GetParam().trueWhenRefused);

    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.NotReady: Resource Not Ready"});
}

TEST_P(AMethodOfAnAdapter, LogsThatItTimedOut)
{
    startWith();
    sim->bend(Bend::silence(GetParam().name));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    EXPECT_EQ(call(kAdapter), GetParam().trueWhenRefused);

    EXPECT_EQ(log.lines(), Lines{"E Timeout was reached"});
}

TEST_P(AMethodOfAnAdapter, IgnoresTheBodyOfItsReply)
{
    startWith();
    sim->bend(Bend::answer(GetParam().name, g_variant_new("(si)", "unasked", 7)));

    EXPECT_TRUE(call(kAdapter));

    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AMethodOfAnAdapter, IsRefusedForAnEmptyPathWithoutAnEntry)
{
    startWith();

    EXPECT_FALSE(call(""));

    EXPECT_EQ(client->getAdapters(), Lines{kAdapter});
    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AMethodOfAnAdapter, IsRefusedForAnUnknownPathAndLeavesAnEntry)
{
    startWith();

    EXPECT_FALSE(call(kUnknown));

    EXPECT_EQ(client->getAdapters(), (Lines{kAdapter, kUnknown}));
    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(
    Such, AMethodOfAnAdapter,
    testing::Values(Method{"StartDiscovery",
                           [](Bluez& client, const std::string& path) { return client.adapterScanOn(path); },
                           "()", true},
                    Method{"StopDiscovery",
                           [](Bluez& client, const std::string& path) { return client.adapterScanOff(path); },
                           "()", true},
                    Method{"RemoveDevice",
                           [](Bluez& client, const std::string& path) {
                               return client.adapterRemoveDevice(path, kDevice);
                           },
                           "(objectpath '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01',)", false}),
    [](const auto& test) { return std::string("As") + test.param.name; });

TEST_F(AnAdapter, RefusesToRemoveADeviceWithAnEmptyPathBeforeItLooksItselfUp)
{
    startWith();

    EXPECT_FALSE(client->adapterRemoveDevice(kUnknown, ""));

    EXPECT_EQ(client->getAdapters(), Lines{kAdapter});
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AnAdapter, RefusesToRemoveADeviceWhoseTextIsNoPath)
{
    startWith();

    EXPECT_FALSE(client->adapterRemoveDevice(kAdapter, "no path"));
    EXPECT_FALSE(client->adapterRemoveDevice(kAdapter, "/org/bluez/"));

    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), Lines{});
    expectFromGlib({});
}

TEST_F(AnAdapter, StaysUnusableAfterSomeoneAskedForItTooEarlyUntilItIsRemoved)
{
    start();
    EXPECT_FALSE(client->adapterScanOn(kAdapter));
    EXPECT_EQ(client->getAdapters(), Lines{kAdapter});
    sim->bend(Bend::answer("StartDiscovery", nothing()));

    addAdapter();
    ASSERT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter));
    EXPECT_FALSE(client->adapterScanOn(kAdapter));

    sim->removeObject(kAdapter);
    addAdapter();
    ASSERT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter, 2));
    EXPECT_TRUE(client->adapterScanOn(kAdapter));
}

// --- Properties that are written ---

using SetFlag = bool (Bluez::*)(const std::string&, const bool&);

struct Setting {
    const char* property;
    SetFlag set;
};
std::ostream& operator<<(std::ostream& out, const Setting& setting)
{
    return out << setting.property;
}

class ASettingOfAnAdapter : public AnAdapter, public testing::WithParamInterface<Setting>
{
protected:
    bool set(const std::string& path, bool value) { return (client.get()->*GetParam().set)(path, value); }
};

TEST_P(ASettingOfAnAdapter, IsWrittenToTheBus)
{
    startWith();
    sim->bend(Bend::answer("Set", nothing()));
    for (const bool value : {true, false}) {
        sim->clearCalls();

        EXPECT_TRUE(set(kAdapter, value));

        const auto calls = sim->calls();
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls[0].path, kAdapter);
        EXPECT_EQ(calls[0].interface, "org.freedesktop.DBus.Properties");
        EXPECT_EQ(calls[0].member, "Set");
        EXPECT_EQ(calls[0].parameters.text(), std::string("('org.bluez.Adapter1', '") + GetParam().property +
                                                  "', <" + (value ? "true" : "false") + ">)");
    }
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(ASettingOfAnAdapter, GoesThroughTheConnectionWithTheLibrarysTimeout)
{
    startWith();
    sim->bend(Bend::answer("Set", nothing()));
    const GioSpy spy;

    set(kAdapter, true);

    const auto calls = spy.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].function, "g_dbus_connection_call_sync");
    EXPECT_EQ(calls[0].flags, 0);
    EXPECT_EQ(calls[0].timeoutMs, -1);
    EXPECT_FALSE(calls[0].cancellable);
    EXPECT_TRUE(calls[0].error);
}

TEST_P(ASettingOfAnAdapter, LogsWhyItWasRefused)
{
    startWith();
    sim->bend(Bend::error("Set", "org.bluez.Error.Busy", "try later"));

    EXPECT_FALSE(set(kAdapter, true));

    EXPECT_EQ(log.lines(), Lines{"E GDBus.Error:org.bluez.Error.Busy: try later"});
}

TEST_P(ASettingOfAnAdapter, LogsThatItTimedOut)
{
    startWith();
    sim->bend(Bend::silence("Set"));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    EXPECT_FALSE(set(kAdapter, true));

    EXPECT_EQ(log.lines(), Lines{"E Timeout was reached"});
}

TEST_P(ASettingOfAnAdapter, GoesToTheBusForAnUnknownPathAndLeavesNoEntry)
{
    startWith();

    EXPECT_FALSE(set(kUnknown, true));

    EXPECT_EQ(sim->calls("Set", kUnknown).size(), 1U);
    const Lines errors = log.lines();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].rfind("E GDBus.Error:org.freedesktop.DBus.Error.", 0), 0U) << errors[0];
    EXPECT_EQ(client->getAdapters(), Lines{kAdapter});
}

TEST_P(ASettingOfAnAdapter, IsRefusedForAnEmptyPath)
{
    startWith();

    EXPECT_FALSE(set("", true));

    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Such, ASettingOfAnAdapter,
                         testing::Values(Setting{"Pairable", &Bluez::adapterSetPairable},
                                         Setting{"Powered", &Bluez::adapterSetPowered}),
                         [](const auto& test) { return std::string("As") + test.param.property; });

// --- Texts of any kind of object ---

struct Place {
    const char* name;
    const char* path;
    const char* interface;
};
std::ostream& operator<<(std::ostream& out, const Place& place)
{
    return out << place.path;
}

class ACachedText : public AnAdapter, public testing::WithParamInterface<Place>
{
};

TEST_P(ACachedText, IsReadFromTheProxyOfItsKind)
{
    addObject(GetParam().path, GetParam().interface, {{"Word", text("here")}, {"Number", int16(7)}});
    start();
    const OutgoingMessages outgoing(connection());
    log.clear();
    std::string word = "before";

    EXPECT_TRUE(client->getCachedProperty(GetParam().path, "Word", word));
    EXPECT_EQ(word, "here");
    EXPECT_FALSE(client->getCachedProperty(GetParam().path, "Missing", word));
    EXPECT_FALSE(client->getCachedProperty(GetParam().path, "Number", word));
    EXPECT_EQ(word, "here");

    settle();
    EXPECT_EQ(outgoing.count(), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Of, ACachedText,
                         testing::Values(Place{"AnAdapter", kAdapter, kAdapterInterface},
                                         Place{"ADevice", kDevice, kDeviceInterface},
                                         Place{"AService", kService, kServiceInterface},
                                         Place{"ACharacteristic", kCharacteristic, kCharacteristicInterface},
                                         Place{"ADescriptor", kDescriptor, kDescriptorInterface}),
                         [](const auto& test) { return test.param.name; });

TEST_F(AnAdapter, SaysWhatIsMissingForACachedText)
{
    startWith();
    std::string word = "before";

    EXPECT_FALSE(client->getCachedProperty("", "", word));
    EXPECT_FALSE(client->getCachedProperty("", "UUID", word));
    EXPECT_FALSE(client->getCachedProperty(kAdapter, "", word));
    EXPECT_FALSE(client->getCachedProperty("/of/no/kind", "UUID", word));

    EXPECT_EQ(log.lines(), (Lines{"E Empty object path", "E Empty object path", "E Empty property name"}));
    EXPECT_EQ(word, "before");
}

TEST_F(AnAdapter, LeavesAnEntryOfItsKindForEveryUnknownText)
{
    start();
    log.clear();
    std::string word;
    for (const char* path : {kAdapter, kDevice, kService, kCharacteristic, kDescriptor}) {
        EXPECT_FALSE(client->getCachedProperty(path, "UUID", word));
    }

    EXPECT_EQ(keys<inside::AdapterProxies>(), Lines{kAdapter});
    EXPECT_EQ(keys<inside::DeviceProxies>(), Lines{kDevice});
    EXPECT_EQ(keys<inside::ServiceProxies>(), Lines{kService});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});
    EXPECT_EQ(keys<inside::DescriptorProxies>(), Lines{kDescriptor});
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AnAdapter, IsTriedFirstForATextOfAPathOfAllKinds)
{
    start();
    std::string word;
    const std::string all = "/x/desc0001char0001service0001dev_AA_BB_CC_DD_EE_FFhci0";
    const std::string butAdapter = "/x/desc0001char0001service0001dev_AA_BB_CC_DD_EE_FF";
    const std::string butDevice = "/x/desc0001char0001service0001";
    const std::string butService = "/x/desc0001char0001";
    for (const std::string& path : {all, butAdapter, butDevice, butService}) {
        client->getCachedProperty(path, "UUID", word);
    }

    EXPECT_EQ(keys<inside::AdapterProxies>(), Lines{all});
    EXPECT_EQ(keys<inside::DeviceProxies>(), Lines{butAdapter});
    EXPECT_EQ(keys<inside::ServiceProxies>(), Lines{butDevice});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{butService});
    EXPECT_EQ(keys<inside::DescriptorProxies>(), Lines{});
}

// --- With an adapter that behaves as BlueZ's does ---

class ARealAdapter : public ABusWithBlueZ
{
protected:
    ARealAdapter() : ABusWithBlueZ(vexasim::SimulatorOptions{}) {}
};

TEST_F(ARealAdapter, IsPoweredAndScansAndFindsTheRemote)
{
    sim->setPowered(false);
    start();
    ASSERT_EQ(client->getAdapters(), Lines{sim->adapterPath()});
    const std::string adapter = sim->adapterPath();
    bool powered = true;
    ASSERT_TRUE(client->adapterGetPowered(adapter, powered));
    EXPECT_FALSE(powered);

    EXPECT_TRUE(client->adapterScanOn(adapter));
    EXPECT_EQ(log.lines("E"), Lines{"E GDBus.Error:org.bluez.Error.NotReady: Resource Not Ready"});
    EXPECT_TRUE(client->adapterSetPowered(adapter, true));
    settle();
    EXPECT_TRUE(client->adapterGetPowered(adapter, powered));
    EXPECT_TRUE(powered);

    EXPECT_TRUE(client->adapterScanOn(adapter));
    ASSERT_TRUE(listener.await("onDeviceAdded " + sim->remotePath()));
    bool discovering = false;
    settle();
    EXPECT_TRUE(client->adapterGetDiscovering(adapter, discovering));
    EXPECT_TRUE(discovering);
    EXPECT_TRUE(client->adapterScanOff(adapter));
    settle();
    EXPECT_TRUE(client->adapterGetDiscovering(adapter, discovering));
    EXPECT_FALSE(discovering);

    EXPECT_TRUE(client->adapterRemoveDevice(adapter, sim->remotePath()));
    EXPECT_TRUE(listener.await("onDeviceRemoved " + sim->remotePath()));
}

} // namespace
