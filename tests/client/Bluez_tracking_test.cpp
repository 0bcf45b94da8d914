// SPDX-License-Identifier: MIT
// Objects that arrive and are removed: what the client stores, and what it reports to its listeners.
#include <algorithm>

#include "Bluez.h"
#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

namespace
{

const kit::Lines kNullReleased = {
    "GLib-GObject-CRITICAL: g_object_unref: assertion 'G_IS_OBJECT (object)' failed"};
const kit::Lines kNullConnected = {
    "GLib-GObject-WARNING: invalid (NULL) pointer instance",
    "GLib-GObject-CRITICAL: g_signal_connect_data: assertion 'G_TYPE_CHECK_INSTANCE (instance)' failed"};

std::string releaseOf(GDBusProxy* proxy)
{
    char text[64];
    std::snprintf(text, sizeof text, "T Unref object %p", static_cast<void*>(proxy));
    return text;
}

using ATrackedTree = ABusWithBlueZ;

// --- Arrival and removal ---

class AnObject : public ATrackedTree, public testing::WithParamInterface<Kind>
{
protected:
    const Kind& kind = GetParam();
    const std::string path = kind.path;
};

TEST_P(AnObject, GetsOneProxyOfItsInterfaceAndIsReported)
{
    start();
    log.clear();
    const GioSpy spy;

    addObject(path, kind.interface);
    settle();

    EXPECT_EQ(listener.events(), kit::Lines{kind.added()});
    EXPECT_EQ(log.lines(), kit::Lines{"T + " + path});
    EXPECT_EQ(known(), kit::Lines{kind.entry()});
    const auto made = spy.calls();
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(made[0].function, "g_dbus_proxy_new_sync");
    EXPECT_EQ(made[0].path, path);
    EXPECT_EQ(made[0].interface, kind.interface);
    EXPECT_EQ(made[0].parameters, "null") << "no interface info";
    EXPECT_EQ(made[0].flags, 0);
    EXPECT_FALSE(made[0].cancellable);
    EXPECT_FALSE(made[0].error);
}

// The interfaces that the object offers don't matter: here it offers a wrong one.
TEST_P(AnObject, IsReportedByThePathWhateverItOffers)
{
    start();
    const GioSpy spy;

    addObject(path, "org.example.Other1");
    settle();

    EXPECT_EQ(listener.events(), kit::Lines{kind.added()});
    ASSERT_EQ(spy.calls().size(), 1U);
    EXPECT_EQ(spy.calls()[0].interface, kind.interface);
}

TEST_P(AnObject, IsReportedInTheSameWayAtTheStart)
{
    addObject(path, kind.interface);

    start();

    EXPECT_EQ(listener.events(), kit::Lines{kind.added()});
    EXPECT_EQ(log.count("T Object " + path), 1U);
    EXPECT_EQ(log.count("T + " + path), 0U);
}

// The empty entry of an earlier failed lookup blocks the object's proxy.
TEST_P(AnObject, LosesItsProxyIfItsPathIsTaken)
{
    start();
    std::string word;
    EXPECT_FALSE(client->getCachedProperty(path, "UUID", word));
    log.clear();

    addObject(path, kind.interface, {{"UUID", text(kBatteryUuid)}});
    settle();

    EXPECT_EQ(listener.events(), kit::Lines{kind.added()});
    EXPECT_EQ(unrefs(), 1U);
    EXPECT_FALSE(client->getCachedProperty(path, "UUID", word)) << "it stays unusable";
    change(kind, {{"Paired", boolean(true)}, {"Value", Variant::bytes({1})}});
    EXPECT_EQ(listener.events().size(), 1U) << "no signal is connected";
    const bool watched = kind.path == kDevice || kind.path == kCharacteristic;
    expectFromGlib(watched ? kNullConnected : kit::Lines{});

    sim->removeObject(path);
    addObject(path, kind.interface, {{"UUID", text(kBatteryUuid)}});
    settle();

    EXPECT_TRUE(client->getCachedProperty(path, "UUID", word)) << "until its removal has cleared the way";
    EXPECT_EQ(word, kBatteryUuid);
}

TEST_P(AnObject, LosesItsProxyAndIsReportedWhenItGoes)
{
    start();
    addObject(path, kind.interface);
    settle();
    listener.clear();
    log.clear();

    sim->removeObject(path);
    settle();
    const kit::Lines lines = log.lines();
    change(kind, {{"Paired", boolean(true)}, {"Value", Variant::bytes({1})}});

    EXPECT_EQ(listener.events(), kit::Lines{kind.removed()});
    ASSERT_EQ(lines.size(), 2U) << testing::PrintToString(lines);
    EXPECT_EQ(lines[0], "T - " + path);
    EXPECT_EQ(lines[1].rfind("T Unref object 0x", 0), 0U);
    EXPECT_EQ(known(), kit::Lines{});
    EXPECT_EQ(log.lines(), lines) << "no change is heard of any more";
}

TEST_P(AnObject, IsReportedWhenItGoesWhetherOrNotAnyoneKnewIt)
{
    start();
    log.clear();

    emitObjectRemoved(path);

    EXPECT_EQ(listener.events(), kit::Lines{kind.removed()});
    EXPECT_EQ(log.lines(), kit::Lines{"T - " + path});
}

TEST_P(AnObject, AloneIsRemovedWithItsOwnPath)
{
    startWithAll();
    kit::Lines left = known();

    removeAlone(path, kind.interface);
    settle();

    left.erase(std::find(left.begin(), left.end(), kind.entry()));
    EXPECT_EQ(known(), left);
    EXPECT_EQ(listener.events(), kit::Lines{kind.removed()});
}

INSTANTIATE_TEST_SUITE_P(Such, AnObject, testing::ValuesIn(kKinds), kit::named);

TEST_F(ATrackedTree, PassesOverAnObjectOfNoKind)
{
    addObject("/org/bluez", "org.bluez.AgentManager1");
    start();
    EXPECT_EQ(log.count("T Unhandled object: /org/bluez"), 1U);
    log.clear();

    addObject("/org/bluez/test", kDeviceInterface);
    sim->removeObject("/org/bluez/test");
    settle();

    EXPECT_EQ(log.lines(), (kit::Lines{"T + /org/bluez/test", "T Unhandled object: /org/bluez/test",
                                       "T - /org/bluez/test"}));
    EXPECT_EQ(listener.events(), kit::Lines{});
    EXPECT_EQ(known(), kit::Lines{});
}

TEST_F(ATrackedTree, ErasesAPathFromEveryMapThatHoldsIt)
{
    start();
    addDescriptor();
    settle();
    client->valueFor(kDescriptor); // searches the characteristics
    kit::GlibMessages::instance().take();
    ASSERT_EQ(known(), (kit::Lines{kCharacteristicKind.entry(kDescriptor), kDescriptorKind.entry()}));

    sim->removeObject(kDescriptor);
    settle();

    EXPECT_EQ(known(), kit::Lines{});
}

TEST_F(ATrackedTree, ReportsChildrenBeforeTheirParentsAsBlueZRemovesThem)
{
    startWithAll();

    sim->removeObject(kAdapter);
    settle();

    EXPECT_EQ(listener.events(),
              (kit::Lines{kDescriptorKind.removed(), kCharacteristicKind.removed(), kServiceKind.removed(),
                          kDeviceKind.removed(), kAdapterKind.removed()}));
}

// --- Second arrivals ---

TEST_F(ATrackedTree, KeepsTheFirstProxyOfAnObjectThatArrivesTwice)
{
    startWithAll();
    for (const Kind& kind : {kDeviceKind, kCharacteristicKind}) {
        GDBusProxy* const first = proxyOf(kind);
        log.clear();

        emitObjectAdded(kind.path);

        EXPECT_EQ(listener.count(kind.added()), 1U);
        EXPECT_EQ(proxyOf(kind), first);
        EXPECT_EQ(unrefs(), 1U);
        EXPECT_EQ(log.count(releaseOf(first)), 0U) << "the new one is dropped, not the first";
    }
}

TEST_F(ATrackedTree, ReportsEveryChangeOfAnObjectThatArrivedTwiceTwice)
{
    startWithAll();
    emitObjectAdded(kDevice);
    emitObjectAdded(kCharacteristic);
    listener.clear();

    change(kDeviceKind, {{"Paired", boolean(true)}});
    change(kCharacteristicKind, {{"Value", Variant::bytes({80})}});

    const std::string paired = std::string("onDevicePairedStatusChanged ") + kDevice + " true";
    const std::string value = std::string("onGattCharacteristicChanged ") + kCharacteristic + " 80";
    EXPECT_EQ(listener.events(), (kit::Lines{paired, paired, value, value}));
    EXPECT_EQ(log.count(std::string("D props changed: ") + kDevice), 2U);
}

// --- Proxies that can't be created ---

class AnObjectWithoutAProxy : public ATrackedTree
{
protected:
    AnObjectWithoutAProxy()
    {
        start();
        log.clear();
        spy.failNewProxies();
    }

    GioSpy spy;
};

TEST_F(AnObjectWithoutAProxy, IsStillReportedForADeviceAndAnswersNothing)
{
    addDevice(kDevice, {{"Paired", boolean(true)}});
    settle();

    EXPECT_EQ(listener.events(), kit::Lines{kDeviceKind.added()});
    EXPECT_EQ(proxyOf(kDeviceKind), nullptr);
    onEventThread([&] { EXPECT_EQ(((*client).*kDeviceKind.proxies).at(kDevice).use_count(), 1); });
    bool paired = false;
    EXPECT_FALSE(client->deviceGetPaired(kDevice, paired));
    EXPECT_FALSE(client->deviceConnect(kDevice));
    EXPECT_FALSE(client->devicePair(kDevice));
    EXPECT_EQ(log.lines("EWID"), kit::Lines{});
    expectFromGlib(kNullConnected);

    sim->removeObject(kDevice);
    settle();
    EXPECT_EQ(log.count("T Unref object (nil)"), 1U);
    expectFromGlib(kNullReleased);
}

TEST_F(AnObjectWithoutAProxy, IsStillReportedForAServiceWithoutUuid)
{
    addService();
    settle();

    ASSERT_EQ(listener.events(), kit::Lines{kServiceKind.added()});
    EXPECT_EQ(listener.services().at(0).uuid, "");
    EXPECT_EQ(listener.services().at(0).type, Bluez::Service::Type::Unknown);
    EXPECT_EQ(listener.services().at(0).parent, kDevice);
    destroy();
    expectFromGlib(kNullReleased);
}

TEST_F(AnObjectWithoutAProxy, RefusesTheOperationsOfACharacteristic)
{
    addCharacteristic();
    settle();
    log.clear();

    EXPECT_FALSE(client->characteristicStartNotify(kCharacteristic));

    EXPECT_EQ(log.lines(), kit::Lines{std::string("E No proxy found for characteristic ") + kCharacteristic});
    destroy();
    kit::GlibMessages::instance().take(); // as for the device
}

// --- Creating a proxy ---

class ASharedProxy : public ATrackedTree
{
protected:
    ASharedProxy()
    {
        start();
        log.clear();
    }

    Bluez::ProxyPtr make(GDBusConnection* on, const char* name = "org.bluez", const char* path = kDevice,
                         const char* interface = kDeviceInterface)
    {
        return client->makeSharedProxy(on, name, path, interface, G_DBUS_PROXY_FLAGS_NONE, &error,
                                       cancellable, nullptr);
    }

    GCancellable* cancellable = nullptr;
    GError* error = nullptr;
};

TEST_F(ASharedProxy, IsNotMadeWithoutAName)
{
    EXPECT_EQ(make(connection(), "").use_count(), 0);
    EXPECT_EQ(make(connection(), "org.bluez", "").use_count(), 0);
    EXPECT_EQ(make(connection(), "org.bluez", kDevice, "").use_count(), 0);
    EXPECT_EQ(log.lines(), kit::Lines{});
}

// What counts is whether the client is connected, not the connection that the caller passes.
TEST_F(ASharedProxy, IsTriedForOnAConnectionThatIsNone)
{
    GioSpy spy;
    spy.failNewProxies();

    EXPECT_EQ(make(nullptr).use_count(), 1) << "it holds the null that GLib gave";

    g_clear_error(&error);
    expectFromGlib(kNullReleased);
}

TEST_F(ASharedProxy, HoldsNullIfItCouldntBeMade)
{
    cancellable = g_cancellable_new();
    g_cancellable_cancel(cancellable);
    {
        const Bluez::ProxyPtr proxy = make(connection());
        EXPECT_EQ(proxy.get(), nullptr);
        EXPECT_EQ(proxy.use_count(), 1) << "a control block all the same";
    }
    EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
    EXPECT_EQ(log.lines(), kit::Lines{"T Unref object (nil)"});
    expectFromGlib(kNullReleased);
    g_clear_error(&error);
    g_clear_object(&cancellable);
}

TEST_F(ASharedProxy, LogsItsReleaseOnce)
{
    Bluez::ProxyPtr proxy = make(connection());
    ASSERT_NE(proxy, nullptr);
    const std::string release = releaseOf(proxy.get());
    Bluez::ProxyPtr second = proxy;

    proxy.reset();
    EXPECT_EQ(log.count(release), 0U);
    second.reset();
    EXPECT_EQ(log.count(release), 1U);
}

} // namespace
