// SPDX-License-Identifier: MIT
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <algorithm>
#include <future>
#include <map>
#include <ostream>

namespace
{

using Characteristic = Bluez::Service::Characteristic;
using Descriptor = Bluez::Service::Characteristic::Descriptor;
using Type = Bluez::Service::Type;
using Bytes = std::vector<std::uint8_t>;

std::string deviceAdded(const std::string& path = kDevice)
{
    return "onDeviceAdded " + path;
}
std::string serviceAdded(const std::string& path = kService)
{
    return "onServiceAdded " + path;
}
std::string characteristicAdded(const std::string& path = kCharacteristic)
{
    return "onCharacteristicAdded " + path;
}
std::string descriptorAdded(const std::string& path = kDescriptor)
{
    return "onDescriptorAdded " + path;
}

using ATrackedTree = ABusWithBlueZ;

// --- Arrival ---

struct Arrival {
    const char* name;
    const char* path;
    const char* interface;
    const char* event;
};
std::ostream& operator<<(std::ostream& out, const Arrival& arrival)
{
    return out << arrival.path;
}

const auto kEveryKind = testing::Values(
    Arrival{"OfAnAdapter", kAdapter, kAdapterInterface, "onAdapterAdded "},
    Arrival{"OfADevice", kDevice, kDeviceInterface, "onDeviceAdded "},
    Arrival{"OfAService", kService, kServiceInterface, "onServiceAdded "},
    Arrival{"OfACharacteristic", kCharacteristic, kCharacteristicInterface, "onCharacteristicAdded "},
    Arrival{"OfADescriptor", kDescriptor, kDescriptorInterface, "onDescriptorAdded "});

class TheArrival : public ATrackedTree, public testing::WithParamInterface<Arrival>
{
};

TEST_P(TheArrival, MakesOneProxyOfItsInterfaceAndIsTold)
{
    const Arrival& kind = GetParam();
    start();
    log.clear();
    const GioSpy spy;

    addObject(kind.path, kind.interface);
    settle();

    EXPECT_EQ(listener.events(), Lines{std::string(kind.event) + kind.path});
    EXPECT_EQ(log.lines(), Lines{std::string("T + ") + kind.path});
    const auto made = spy.calls("org.bluez");
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(made[0].function, "g_dbus_proxy_new_sync");
    EXPECT_EQ(made[0].path, kind.path);
    EXPECT_EQ(made[0].interface, kind.interface);
    EXPECT_EQ(made[0].parameters, "null") << "no interface info";
    EXPECT_EQ(made[0].flags, 0);
    EXPECT_FALSE(made[0].cancellable);
    EXPECT_FALSE(made[0].error);
}

// The interfaces that the object offers play no part: here it offers one of a wrong kind.
TEST_P(TheArrival, IsToldByThePathWhateverTheObjectOffers)
{
    const Arrival& kind = GetParam();
    start();
    const GioSpy spy;

    addObject(kind.path, "org.example.Other1");
    settle();

    EXPECT_EQ(listener.events(), Lines{std::string(kind.event) + kind.path});
    ASSERT_EQ(spy.calls("org.bluez").size(), 1U);
    EXPECT_EQ(spy.calls("org.bluez")[0].interface, kind.interface);
}

TEST_P(TheArrival, IsToldInTheSameWayAtTheStart)
{
    const Arrival& kind = GetParam();
    addObject(kind.path, kind.interface);

    start();

    EXPECT_EQ(listener.events(), Lines{std::string(kind.event) + kind.path});
    EXPECT_EQ(log.count(std::string("T Object ") + kind.path), 1U);
    EXPECT_EQ(log.count(std::string("T + ") + kind.path), 0U);
}

// What an operation has asked for in vain stands in the way of the object.
TEST_P(TheArrival, OfAPathThatIsTakenDropsTheNewProxy)
{
    const Arrival& kind = GetParam();
    start();
    std::string word;
    EXPECT_FALSE(client->getCachedProperty(kind.path, "UUID", word));
    log.clear();

    addObject(kind.path, kind.interface, {{"UUID", text(kBatteryUuid)}});
    settle();

    EXPECT_EQ(listener.events(), Lines{std::string(kind.event) + kind.path});
    EXPECT_EQ(unrefs(), 1U);
    EXPECT_FALSE(client->getCachedProperty(kind.path, "UUID", word)) << "it stays unusable";
    GlibMessages::instance().take(); // of the signal that is connected to no proxy: see below

    sim->removeObject(kind.path);
    addObject(kind.path, kind.interface, {{"UUID", text(kBatteryUuid)}});
    settle();

    EXPECT_TRUE(client->getCachedProperty(kind.path, "UUID", word))
        << "until its removal has cleared the way";
    EXPECT_EQ(word, kBatteryUuid);
}

INSTANTIATE_TEST_SUITE_P(Of, TheArrival, kEveryKind, [](const auto& test) { return test.param.name; });

TEST_F(ATrackedTree, ConnectsNoSignalToTheEmptyEntryOfADevice)
{
    start();
    bool paired = false;
    EXPECT_FALSE(client->deviceGetPaired(kDevice, paired));
    EXPECT_EQ(client->getDevices(), Lines{kDevice});

    addDevice(kDevice, {{"Paired", boolean(true)}});
    ASSERT_TRUE(listener.await(deviceAdded()));
    sim->setProperty(kDevice, kDeviceInterface, "Paired", boolean(false));
    settle();

    EXPECT_EQ(listener.events(), Lines{deviceAdded()});
    EXPECT_FALSE(client->deviceGetPaired(kDevice, paired));
    expectFromGlib(
        {"GLib-GObject-WARNING: invalid (NULL) pointer instance",
         "GLib-GObject-CRITICAL: g_signal_connect_data: assertion 'G_TYPE_CHECK_INSTANCE (instance)' "
         "failed"});
}

TEST_F(ATrackedTree, PassesOverAnObjectOfNoKind)
{
    start();
    log.clear();

    addObject("/org/bluez/test", kDeviceInterface);
    settle();

    EXPECT_EQ(log.lines(), (Lines{"T + /org/bluez/test", "T Unhandled object: /org/bluez/test"}));
    EXPECT_EQ(listener.events(), Lines{});
    EXPECT_EQ(client->getDevices(), Lines{});
}

TEST_F(ATrackedTree, PassesOverBlueZItself)
{
    addObject("/org/bluez", "org.bluez.AgentManager1");

    start();

    EXPECT_EQ(log.count("T Unhandled object: /org/bluez"), 1U);
    EXPECT_EQ(listener.events(), Lines{});
}

struct TwoKinds {
    const char* name;
    const char* component;
    const char* added;
    const char* removed;
};
std::ostream& operator<<(std::ostream& out, const TwoKinds& kinds)
{
    return out << kinds.component;
}

class AComponentOfTwoKinds : public ATrackedTree, public testing::WithParamInterface<TwoKinds>
{
};

// The order in which kinds are tested on arrival is the opposite of the one on removal.
TEST_P(AComponentOfTwoKinds, ArrivesAsTheOneAndGoesAsTheOther)
{
    const std::string path = std::string("/x/") + GetParam().component;
    start();

    addObject(path, "org.example.Other1");
    sim->removeObject(path);
    settle();

    EXPECT_EQ(listener.events(), (Lines{GetParam().added + path, GetParam().removed + path}));
}

INSTANTIATE_TEST_SUITE_P(Such, AComponentOfTwoKinds,
                         testing::Values(TwoKinds{"AsAdapterAndDevice", "dev_AA_BB_CC_DD_EE_FFhci0",
                                                  "onAdapterAdded ", "onDeviceRemoved "},
                                         TwoKinds{"AsDeviceAndService", "service0001dev_AA_BB_CC_DD_EE_FF",
                                                  "onDeviceAdded ", "onServiceRemoved "},
                                         TwoKinds{"AsServiceAndCharacteristic", "char0001service0001",
                                                  "onServiceAdded ", "onCharacteristicRemoved "},
                                         TwoKinds{"AsCharacteristicAndDescriptor", "desc0001char0001",
                                                  "onCharacteristicAdded ", "onDescriptorRemoved "},
                                         TwoKinds{"AsAllFive",
                                                  "desc0001char0001service0001dev_AA_BB_CC_DD_EE_FFhci0",
                                                  "onAdapterAdded ", "onDescriptorRemoved "}),
                         [](const auto& test) { return test.param.name; });

// --- Records ---

TEST_F(ATrackedTree, TellsOfAServiceWithItsRecord)
{
    start();

    addService();
    ASSERT_TRUE(listener.await(serviceAdded()));

    const Bluez::Service service = listener.services().at(0);
    EXPECT_EQ(service.uuid, kBatteryUuid);
    EXPECT_EQ(service.path, kService);
    EXPECT_EQ(service.parent, kDevice);
    EXPECT_EQ(service.type, Type::Battery);
    EXPECT_EQ(service.val, "");
    EXPECT_TRUE(service.characteristics.empty());
}

TEST_F(ATrackedTree, TellsOfACharacteristicWithItsRecord)
{
    start();

    addCharacteristic();
    ASSERT_TRUE(listener.await(characteristicAdded()));

    const Characteristic characteristic = listener.characteristics().at(0);
    EXPECT_EQ(characteristic.uuid, kLevelUuid);
    EXPECT_EQ(characteristic.path, kCharacteristic);
    EXPECT_EQ(characteristic.parent, kService);
    EXPECT_EQ(characteristic.val, "");
    EXPECT_TRUE(characteristic.descriptors.empty());
}

TEST_F(ATrackedTree, TellsOfADescriptorWithItsRecord)
{
    start();

    addDescriptor();
    ASSERT_TRUE(listener.await(descriptorAdded()));

    const Descriptor descriptor = listener.descriptors().at(0);
    EXPECT_EQ(descriptor.uuid, kConfigurationUuid);
    EXPECT_EQ(descriptor.path, kDescriptor);
    EXPECT_EQ(descriptor.parent, kCharacteristic);
    EXPECT_EQ(descriptor.val, "");
}

TEST_F(ATrackedTree, KeepsEachRecordUnderItsParent)
{
    start();

    addAll();
    ASSERT_TRUE(listener.await(descriptorAdded()));

    const auto services = tree();
    ASSERT_EQ(services.size(), 1U);
    const Bluez::Service& service = services.at(kService);
    EXPECT_EQ(service.uuid, kBatteryUuid);
    EXPECT_EQ(service.type, Type::Battery);
    const Characteristic& characteristic = service.characteristics.at(kCharacteristic);
    EXPECT_EQ(characteristic.uuid, kLevelUuid);
    EXPECT_EQ(characteristic.parent, kService);
    const Descriptor& descriptor = characteristic.descriptors.at(kDescriptor);
    EXPECT_EQ(descriptor.uuid, kConfigurationUuid);
    EXPECT_EQ(descriptor.path, kDescriptor);
    EXPECT_EQ(descriptor.parent, kCharacteristic);
    EXPECT_EQ(keys<inside::AdapterProxies>(), Lines{kAdapter});
    EXPECT_EQ(keys<inside::DeviceProxies>(), Lines{kDevice});
    EXPECT_EQ(keys<inside::ServiceProxies>(), Lines{kService});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});
    EXPECT_EQ(keys<inside::DescriptorProxies>(), Lines{kDescriptor});
}

TEST_F(ATrackedTree, TellsOfObjectsWithoutAUuidWithAnEmptyOne)
{
    start();

    addObject(kService, kServiceInterface);
    addObject(kCharacteristic, kCharacteristicInterface);
    addObject(kDescriptor, kDescriptorInterface);
    ASSERT_TRUE(listener.await(descriptorAdded()));

    EXPECT_EQ(listener.services().at(0).uuid, "");
    EXPECT_EQ(listener.services().at(0).type, Type::Unknown);
    EXPECT_EQ(listener.services().at(0).path, kService);
    EXPECT_EQ(listener.characteristics().at(0).uuid, "");
    EXPECT_EQ(listener.descriptors().at(0).uuid, "");
    EXPECT_EQ(log.lines("EW"), Lines{});
}

TEST_F(ATrackedTree, TakesAUuidOfAWrongTypeForNone)
{
    start();

    addObject(kService, kServiceInterface, {{"UUID", int16(0x180F)}});
    ASSERT_TRUE(listener.await(serviceAdded()));

    EXPECT_EQ(listener.services().at(0).uuid, "");
    EXPECT_EQ(listener.services().at(0).type, Type::Unknown);
    expectFromGlib({});
}

TEST_F(ATrackedTree, DoesntKeepARecordUpToDate)
{
    start();
    addService();
    ASSERT_TRUE(listener.await(serviceAdded()));

    sim->setProperty(kService, kServiceInterface, "UUID", text("0000ffd0-0000-1000-8000-00805f9b34fb"));
    settle();

    EXPECT_EQ(tree().at(kService).uuid, kBatteryUuid);
    EXPECT_EQ(client->objectForService(kService).uuid, "0000ffd0-0000-1000-8000-00805f9b34fb");
}

TEST_F(ATrackedTree, BuildsBlankRecordsForAnEmptyPath)
{
    start();
    log.clear();

    const Bluez::Service service = client->objectForService("");
    const Characteristic characteristic = client->objectForCharacteristic("");
    const Descriptor descriptor = client->objectForDescriptor("");

    EXPECT_EQ(service.uuid + service.path + service.parent + service.val, "");
    EXPECT_EQ(static_cast<std::uint32_t>(service.type), 0U);
    EXPECT_EQ(characteristic.uuid + characteristic.path + characteristic.parent + characteristic.val, "");
    EXPECT_EQ(descriptor.uuid + descriptor.path + descriptor.parent + descriptor.val, "");
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ATrackedTree, BuildsARecordForAnUnknownPathFromThePathAlone)
{
    start();

    const Bluez::Service service = client->objectForService(kService);

    EXPECT_EQ(service.uuid, "");
    EXPECT_EQ(service.type, Type::Unknown);
    EXPECT_EQ(service.path, kService);
    EXPECT_EQ(service.parent, kDevice);
    EXPECT_EQ(keys<inside::ServiceProxies>(), Lines{kService}) << "the lookup creates";
}

TEST_F(ATrackedTree, BuildsAServiceWithoutAUuidAsUnknown)
{
    start();

    EXPECT_EQ(client->objectForService("/of/no/kind").type, Type::Unknown);
    EXPECT_EQ(client->objectForService("/of/no/kind").parent, "/of/no");
}

// --- Second arrivals and placeholders ---

TEST_F(ATrackedTree, KeepsTheFirstProxyOfADeviceThatArrivesTwice)
{
    start();
    addDevice();
    ASSERT_TRUE(listener.await(deviceAdded()));
    GDBusProxy* const first = proxyOf<inside::DeviceProxies>(kDevice);
    log.clear();

    emitObjectAdded(kDevice);

    EXPECT_EQ(listener.events(), (Lines{deviceAdded(), deviceAdded()}));
    EXPECT_EQ(proxyOf<inside::DeviceProxies>(kDevice), first);
    EXPECT_EQ(unrefs(), 1U);
    char dropped[64];
    std::snprintf(dropped, sizeof dropped, "T Unref object %p", static_cast<void*>(first));
    EXPECT_EQ(log.count(dropped), 0U) << "the new one is dropped, not the first";
}

TEST_F(ATrackedTree, DeliversEveryChangeOfADeviceThatArrivedTwiceTwice)
{
    start();
    addDevice();
    ASSERT_TRUE(listener.await(deviceAdded()));
    emitObjectAdded(kDevice);
    listener.clear();
    log.clear();

    sim->emitPropertiesChanged(kDevice, kDeviceInterface, {{"Paired", boolean(true)}});
    settle();

    const std::string paired = std::string("onDevicePairedStatusChanged ") + kDevice + " true";
    EXPECT_EQ(listener.events(), (Lines{paired, paired}));
    EXPECT_EQ(log.count(std::string("D props changed: ") + kDevice), 2U);
}

TEST_F(ATrackedTree, KeepsTheFirstProxyAndNoDescriptorOfACharacteristicThatArrivesTwice)
{
    start();
    addAll();
    ASSERT_TRUE(listener.await(descriptorAdded()));
    GDBusProxy* const first = proxyOf<inside::CharacteristicProxies>(kCharacteristic);
    log.clear();

    emitObjectAdded(kCharacteristic);

    EXPECT_EQ(listener.count(characteristicAdded()), 2U);
    EXPECT_EQ(proxyOf<inside::CharacteristicProxies>(kCharacteristic), first);
    EXPECT_EQ(unrefs(), 1U) << "of the new one";
    const Characteristic characteristic = tree().at(kService).characteristics.at(kCharacteristic);
    EXPECT_EQ(characteristic.uuid, kLevelUuid);
    EXPECT_TRUE(characteristic.descriptors.empty()) << "the record is assigned whole";
}

TEST_F(ATrackedTree, DeliversEveryValueOfACharacteristicThatArrivedTwiceTwice)
{
    start();
    addCharacteristic();
    ASSERT_TRUE(listener.await(characteristicAdded()));
    emitObjectAdded(kCharacteristic);
    listener.clear();

    sim->emitPropertiesChanged(kCharacteristic, kCharacteristicInterface, {{"Value", Variant::bytes({80})}});
    settle();

    const std::string value = std::string("onGattCharacteristicChanged ") + kCharacteristic + " 80";
    EXPECT_EQ(listener.events(), (Lines{value, value}));
}

TEST_F(ATrackedTree, EmptiesAServiceThatArrivesTwice)
{
    start();
    addService();
    addCharacteristic();
    ASSERT_TRUE(listener.await(characteristicAdded()));

    emitObjectAdded(kService);

    EXPECT_TRUE(tree().at(kService).characteristics.empty());
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});
    EXPECT_EQ(listener.services().size(), 2U);
}

TEST_F(ATrackedTree, MakesAPlaceholderForACharacteristicBeforeItsService)
{
    start();

    addCharacteristic();
    ASSERT_TRUE(listener.await(characteristicAdded()));

    const auto services = tree();
    ASSERT_EQ(services.count(kService), 1U);
    const Bluez::Service& placeholder = services.at(kService);
    EXPECT_EQ(placeholder.uuid + placeholder.path + placeholder.parent + placeholder.val, "");
    EXPECT_EQ(static_cast<std::uint32_t>(placeholder.type), 0U);
    EXPECT_EQ(placeholder.characteristics.count(kCharacteristic), 1U);
    EXPECT_EQ(placeholder.toString().substr(0, 49),
              std::string("Service:\npath: \nparent: \nuuid: \nType: Unknown\nGATT ").substr(0, 49));
    for (const Type type : {static_cast<Type>(0), Type::Unknown, Type::Battery}) {
        EXPECT_TRUE(client->getServices(kDevice, type).empty());
    }
    EXPECT_EQ(keys<inside::ServiceProxies>(), Lines{}) << "it is in the tree alone";
}

TEST_F(ATrackedTree, ReplacesAPlaceholderWholeWhenItsServiceArrives)
{
    start();
    addCharacteristic();
    addService();
    ASSERT_TRUE(listener.await(serviceAdded()));

    const auto services = client->getServices(kDevice, Type::Battery);
    ASSERT_EQ(services.size(), 1U);
    EXPECT_TRUE(services[0].characteristics.empty()) << "the characteristic is gone from the tree";
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic}) << "and its proxy stays";
    EXPECT_EQ(client->itemsFor(kService), Lines{kCharacteristic});
}

TEST_F(ATrackedTree, MakesPlaceholdersOnBothLevelsForADescriptorAlone)
{
    start();

    addDescriptor();
    ASSERT_TRUE(listener.await(descriptorAdded()));

    const auto services = tree();
    ASSERT_EQ(services.count(kService), 1U);
    EXPECT_EQ(services.at(kService).path, "");
    EXPECT_EQ(static_cast<std::uint32_t>(services.at(kService).type), 0U);
    ASSERT_EQ(services.at(kService).characteristics.count(kCharacteristic), 1U);
    const Characteristic& placeholder = services.at(kService).characteristics.at(kCharacteristic);
    EXPECT_EQ(placeholder.uuid + placeholder.path + placeholder.parent + placeholder.val, "");
    EXPECT_EQ(placeholder.descriptors.at(kDescriptor).uuid, kConfigurationUuid);
}

TEST_F(ATrackedTree, MakesPlaceholdersForADescriptorWhoseCharacteristicHasAProxyAndNoRecord)
{
    start();
    addService();
    addCharacteristic();
    ASSERT_TRUE(listener.await(characteristicAdded()));
    removeAlone(kService, kServiceInterface); // takes the record of the characteristic along
    settle();
    ASSERT_TRUE(tree().empty());
    ASSERT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});

    addDescriptor();
    ASSERT_TRUE(listener.await(descriptorAdded()));

    const auto services = tree();
    EXPECT_EQ(services.at(kService).uuid, "");
    EXPECT_EQ(services.at(kService).characteristics.at(kCharacteristic).uuid, "");
    EXPECT_EQ(services.at(kService).characteristics.at(kCharacteristic).descriptors.count(kDescriptor), 1U);
}

TEST_F(ATrackedTree, FillsTheDescriptorOfAKnownServiceIntoABlankCharacteristic)
{
    start();
    addService();
    addDescriptor();
    ASSERT_TRUE(listener.await(descriptorAdded()));

    const auto services = client->getServices(kDevice, Type::Battery);

    ASSERT_EQ(services.size(), 1U);
    EXPECT_EQ(services[0].characteristics.at(kCharacteristic).path, "");
    EXPECT_EQ(services[0].characteristics.at(kCharacteristic).descriptors.at(kDescriptor).path, kDescriptor);
}

TEST_F(ATrackedTree, LosesTheDescriptorsOfACharacteristicThatArrivesAfterThem)
{
    start();
    addService();
    addDescriptor();
    addCharacteristic();
    ASSERT_TRUE(listener.await(characteristicAdded()));

    EXPECT_TRUE(tree().at(kService).characteristics.at(kCharacteristic).descriptors.empty());
    EXPECT_EQ(client->itemsFor(kCharacteristic), Lines{kDescriptor});
}

// --- Proxies that can't be made ---

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

TEST_F(AnObjectWithoutAProxy, IsStillToldForADeviceAndAnswersNothing)
{
    addDevice(kDevice, {{"Paired", boolean(true)}});
    settle();

    EXPECT_EQ(listener.events(), Lines{deviceAdded()});
    EXPECT_EQ(proxyOf<inside::DeviceProxies>(kDevice), nullptr);
    onEventThread([&] { EXPECT_EQ(inside::of<inside::DeviceProxies>(*client).at(kDevice).use_count(), 1); });
    bool paired = false;
    EXPECT_FALSE(client->deviceGetPaired(kDevice, paired));
    EXPECT_FALSE(client->deviceConnect(kDevice));
    EXPECT_FALSE(client->devicePair(kDevice));
    EXPECT_EQ(log.lines("EWID"), Lines{});
    expectFromGlib(
        {"GLib-GObject-WARNING: invalid (NULL) pointer instance",
         "GLib-GObject-CRITICAL: g_signal_connect_data: assertion 'G_TYPE_CHECK_INSTANCE (instance)' "
         "failed"});

    sim->removeObject(kDevice);
    settle();
    EXPECT_EQ(log.count("T Unref object (nil)"), 1U);
    expectFromGlib({"GLib-GObject-CRITICAL: g_object_unref: assertion 'G_IS_OBJECT (object)' failed"});
}

TEST_F(AnObjectWithoutAProxy, IsStillToldForAServiceWithoutUuid)
{
    addService();
    settle();

    ASSERT_EQ(listener.events(), Lines{serviceAdded()});
    EXPECT_EQ(listener.services().at(0).uuid, "");
    EXPECT_EQ(listener.services().at(0).type, Type::Unknown);
    EXPECT_EQ(listener.services().at(0).parent, kDevice);
    destroy();
    expectFromGlib({"GLib-GObject-CRITICAL: g_object_unref: assertion 'G_IS_OBJECT (object)' failed"});
}

TEST_F(AnObjectWithoutAProxy, RefusesTheOperationsOfACharacteristic)
{
    addCharacteristic();
    settle();
    log.clear();

    EXPECT_FALSE(client->characteristicStartNotify(kCharacteristic));

    EXPECT_EQ(log.lines(), Lines{std::string("E No proxy found for characteristic ") + kCharacteristic});
    destroy();
    EXPECT_EQ(GlibMessages::instance().take().size(), 3U); // as for the device, and its release
}

TEST_F(ATrackedTree, MakesNoProxyWithoutAName)
{
    start();
    const auto made = [&](const char* name, const char* path, const char* interface) {
        return client->makeSharedProxy(connection(), name, path, interface, G_DBUS_PROXY_FLAGS_NONE, nullptr,
                                       nullptr, nullptr);
    };
    log.clear();

    EXPECT_EQ(made("", kDevice, kDeviceInterface).use_count(), 0);
    EXPECT_EQ(made("org.bluez", "", kDeviceInterface).use_count(), 0);
    EXPECT_EQ(made("org.bluez", kDevice, "").use_count(), 0);
    EXPECT_EQ(log.lines(), Lines{});
}

// Whether the client is connected counts, not what the caller gives.
TEST_F(AnObjectWithoutAProxy, IsTriedForOnAConnectionThatIsNone)
{
    Bluez::ProxyPtr proxy = client->makeSharedProxy(nullptr, "org.bluez", kDevice, kDeviceInterface,
                                                    G_DBUS_PROXY_FLAGS_NONE, nullptr, nullptr, nullptr);

    EXPECT_EQ(proxy.use_count(), 1) << "it holds the null that GLib gave";
    proxy.reset();
    expectFromGlib({"GLib-GObject-CRITICAL: g_object_unref: assertion 'G_IS_OBJECT (object)' failed"});
}

TEST_F(ATrackedTree, WrapsAProxyThatCouldntBeMade)
{
    start();
    GCancellable* cancelled = g_cancellable_new();
    g_cancellable_cancel(cancelled);
    GError* error = nullptr;
    log.clear();
    {
        const Bluez::ProxyPtr proxy =
            client->makeSharedProxy(connection(), "org.bluez", kDevice, kDeviceInterface,
                                    G_DBUS_PROXY_FLAGS_NONE, &error, cancelled, nullptr);
        EXPECT_EQ(proxy.get(), nullptr);
        EXPECT_EQ(proxy.use_count(), 1) << "a control block all the same";
        ASSERT_NE(error, nullptr);
        EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
        g_error_free(error);
        g_object_unref(cancelled);
    }
    EXPECT_EQ(log.lines(), Lines{"T Unref object (nil)"});
    expectFromGlib({"GLib-GObject-CRITICAL: g_object_unref: assertion 'G_IS_OBJECT (object)' failed"});
}

TEST_F(ATrackedTree, LogsTheReleaseOfAProxyOnce)
{
    start();
    Bluez::ProxyPtr proxy = client->makeSharedProxy(connection(), "org.bluez", kDevice, kDeviceInterface,
                                                    G_DBUS_PROXY_FLAGS_NONE, nullptr, nullptr, nullptr);
    ASSERT_NE(proxy, nullptr);
    char release[64];
    std::snprintf(release, sizeof release, "T Unref object %p", static_cast<void*>(proxy.get()));
    Bluez::ProxyPtr second = proxy;

    proxy.reset();
    EXPECT_EQ(log.count(release), 0U);
    second.reset();
    EXPECT_EQ(log.count(release), 1U);
}

// --- Removal ---

class TheRemoval : public ATrackedTree, public testing::WithParamInterface<Arrival>
{
};

TEST_P(TheRemoval, EndsTheProxyAndIsTold)
{
    const Arrival& kind = GetParam();
    std::string event = kind.event;
    event.replace(event.find("Added"), 5, "Removed");
    start();
    addObject(kind.path, kind.interface);
    settle();
    listener.clear();
    log.clear();

    sim->removeObject(kind.path);
    settle();

    EXPECT_EQ(listener.events(), Lines{event + kind.path});
    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 2U) << testing::PrintToString(lines);
    EXPECT_EQ(lines[0], std::string("T - ") + kind.path);
    EXPECT_EQ(lines[1].rfind("T Unref object 0x", 0), 0U);
    EXPECT_EQ(keys<inside::AdapterProxies>().size() + keys<inside::DeviceProxies>().size() +
                  keys<inside::ServiceProxies>().size() + keys<inside::CharacteristicProxies>().size() +
                  keys<inside::DescriptorProxies>().size(),
              0U);
}

TEST_P(TheRemoval, IsToldWhetherOrNotAnyoneKnewTheObject)
{
    const Arrival& kind = GetParam();
    std::string event = kind.event;
    event.replace(event.find("Added"), 5, "Removed");
    start();
    log.clear();

    emitObjectRemoved(kind.path);

    EXPECT_EQ(listener.events(), Lines{event + kind.path});
    EXPECT_EQ(log.lines(), Lines{std::string("T - ") + kind.path});
}

INSTANTIATE_TEST_SUITE_P(Of, TheRemoval, kEveryKind, [](const auto& test) { return test.param.name; });

TEST_F(ATrackedTree, IsSilentOnTheRemovalOfAnObjectOfNoKind)
{
    start();
    addObject("/org/bluez/test", kDeviceInterface);
    settle();
    log.clear();

    sim->removeObject("/org/bluez/test");
    settle();

    EXPECT_EQ(log.lines(), Lines{"T - /org/bluez/test"});
    EXPECT_EQ(listener.events(), Lines{});
}

TEST_F(ATrackedTree, ErasesAPathFromEveryMapThatHoldsIt)
{
    start();
    // valueFor enters a descriptor's path among the characteristics.
    addDescriptor();
    ASSERT_TRUE(listener.await(descriptorAdded()));
    client->valueFor(kDescriptor);
    expectFromGlib({"GLib-GIO-CRITICAL: g_dbus_proxy_call_sync_internal: assertion 'G_IS_DBUS_PROXY (proxy)' "
                    "failed"});
    ASSERT_EQ(keys<inside::CharacteristicProxies>(), Lines{kDescriptor});

    sim->removeObject(kDescriptor);
    settle();

    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{});
    EXPECT_EQ(keys<inside::DescriptorProxies>(), Lines{});
}

TEST_F(ATrackedTree, EmptiesTheTreeAtOnceWhenAServiceGoes)
{
    start();
    addAll();
    ASSERT_TRUE(listener.await(descriptorAdded()));

    removeAlone(kService, kServiceInterface);
    settle();

    EXPECT_TRUE(tree().empty());
    EXPECT_EQ(keys<inside::ServiceProxies>(), Lines{});
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{kCharacteristic});
    EXPECT_EQ(keys<inside::DescriptorProxies>(), Lines{kDescriptor});
}

TEST_F(ATrackedTree, StillTellsOfTheRemovalsThatFollowThatOfAService)
{
    start();
    addAll();
    ASSERT_TRUE(listener.await(descriptorAdded()));
    listener.clear();

    removeAlone(kService, kServiceInterface);
    removeAlone(kCharacteristic, kCharacteristicInterface);
    removeAlone(kDescriptor, kDescriptorInterface);
    settle();

    EXPECT_EQ(listener.events(), (Lines{std::string("onServiceRemoved ") + kService,
                                        std::string("onCharacteristicRemoved ") + kCharacteristic,
                                        std::string("onDescriptorRemoved ") + kDescriptor}));
    EXPECT_EQ(keys<inside::CharacteristicProxies>(), Lines{});
    EXPECT_EQ(keys<inside::DescriptorProxies>(), Lines{});
}

TEST_F(ATrackedTree, TakesACharacteristicOutOfItsServiceWithItsDescriptors)
{
    start();
    addAll();
    const std::string other = std::string(kService) + "/char0020";
    addCharacteristic(other);
    ASSERT_TRUE(listener.await(characteristicAdded(other)));

    removeAlone(kCharacteristic, kCharacteristicInterface);
    settle();

    const auto services = tree();
    ASSERT_EQ(services.at(kService).characteristics.size(), 1U);
    EXPECT_EQ(services.at(kService).characteristics.begin()->first, other);
    EXPECT_EQ(client->itemsFor(kService), Lines{other});
}

TEST_F(ATrackedTree, TakesADescriptorOutOfItsCharacteristic)
{
    start();
    addAll();
    const std::string other = std::string(kCharacteristic) + "/desc0014";
    addDescriptor(other);
    ASSERT_TRUE(listener.await(descriptorAdded(other)));

    sim->removeObject(kDescriptor);
    settle();

    const auto services = tree();
    const auto& descriptors = services.at(kService).characteristics.at(kCharacteristic).descriptors;
    ASSERT_EQ(descriptors.size(), 1U);
    EXPECT_EQ(descriptors.begin()->first, other);
}

TEST_F(ATrackedTree, RemovesOnlyItsOwnKeyWithADevice)
{
    start();
    addAll();
    ASSERT_TRUE(listener.await(descriptorAdded()));

    removeAlone(kDevice, kDeviceInterface);
    settle();

    EXPECT_EQ(client->getDevices(), Lines{});
    EXPECT_EQ(keys<inside::ServiceProxies>(), Lines{kService});
    EXPECT_EQ(client->getServices(kDevice, Type::Battery).size(), 1U);
}

TEST_F(ATrackedTree, HearsNoChangeOfADeviceThatHasGone)
{
    start();
    addDevice();
    ASSERT_TRUE(listener.await(deviceAdded()));
    sim->removeObject(kDevice);
    settle();
    listener.clear();
    log.clear();

    sim->emitPropertiesChanged(kDevice, kDeviceInterface, {{"Paired", boolean(true)}});
    settle();

    EXPECT_EQ(listener.events(), Lines{});
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(ATrackedTree, TellsOfChildrenBeforeTheirParentsAsBlueZRemovesThem)
{
    start();
    addAll();
    ASSERT_TRUE(listener.await(descriptorAdded()));
    listener.clear();

    sim->removeObject(kAdapter);
    settle();

    EXPECT_EQ(listener.events(),
              (Lines{std::string("onDescriptorRemoved ") + kDescriptor,
                     std::string("onCharacteristicRemoved ") + kCharacteristic,
                     std::string("onServiceRemoved ") + kService, std::string("onDeviceRemoved ") + kDevice,
                     std::string("onAdapterRemoved ") + kAdapter}));
}

} // namespace
