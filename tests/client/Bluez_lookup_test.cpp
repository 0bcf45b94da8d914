// SPDX-License-Identifier: MIT
#include <cstdio>

#include "Bluez.h"
#include "tests/client/BluezTest.h"

namespace
{

using Type = Bluez::Service::Type;

using ATrackedTree = ABusWithBlueZ;

// --- Lookups ---

TEST_F(ATrackedTree, ListsAdaptersAndDevicesInAscendingOrder)
{
    start();
    const std::string second = "/org/bluez/hci1";
    addAdapter(second);
    addAdapter();
    addDevice(second + "/dev_AA_BB_CC_DD_EE_02");
    addDevice();
    settle();

    EXPECT_EQ(client->getAdapters(), (kit::Lines{kAdapter, second}));
    EXPECT_EQ(client->getDevices(), (kit::Lines{kDevice, second + "/dev_AA_BB_CC_DD_EE_02"}));
}

TEST_F(ATrackedTree, ListsTheServicesOfADeviceByType)
{
    start();
    const std::string other = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_02";
    const std::string second = std::string(kDevice) + "/service0005";
    addDevice();
    addDevice(other);
    addService();
    addService(second);
    addService(std::string(kDevice) + "/service0020", "0000ffd0-0000-1000-8000-00805f9b34fb");
    addService(std::string(kDevice) + "/service0030", "00001800-0000-1000-8000-00805f9b34fb");
    addService(other + "/service0010");
    settle();

    const auto paths = [&](Type type) {
        kit::Lines found;
        for (const Bluez::Service& service : client->getServices(kDevice, type)) {
            found.push_back(service.path);
        }
        return found;
    };

    EXPECT_EQ(paths(Type::Battery), (kit::Lines{second, kService}));
    EXPECT_EQ(paths(Type::OtaNormal), kit::Lines{std::string(kDevice) + "/service0020"});
    EXPECT_EQ(paths(Type::Unknown), kit::Lines{std::string(kDevice) + "/service0030"});
    EXPECT_EQ(paths(Type::Dfu), kit::Lines{});
}

TEST_F(ATrackedTree, ListsNoServicesForAPathThatIsNoDevice)
{
    addService("/service0001"); // its own parent
    startWithAll();

    EXPECT_TRUE(client->getServices(kAdapter, Type::Battery).empty());
    EXPECT_TRUE(client->getServices(kService, Type::Battery).empty());
    EXPECT_TRUE(client->getServices("/service0001", Type::Battery).empty());
    EXPECT_TRUE(client->getServices("", Type::Battery).empty());
    EXPECT_TRUE(client->getServices(std::string(kDevice) + "/", Type::Battery).empty())
        << "compared as a text";
}

TEST_F(ATrackedTree, ListsTheItemsOfEachKind)
{
    const std::string second = std::string(kService) + "/char0001";
    addCharacteristic(second);
    startWithAll();

    EXPECT_EQ(client->itemsFor(kDevice), kit::Lines{kService});
    EXPECT_EQ(client->itemsFor(kService), (kit::Lines{second, kCharacteristic}));
    EXPECT_EQ(client->itemsFor(kCharacteristic), kit::Lines{kDescriptor});
    EXPECT_EQ(log.lines(), (kit::Lines{std::string("T Fetching item for ") + kDevice,
                                       std::string("T ") + kDevice + " is device",
                                       std::string("T Fetching item for ") + kService,
                                       std::string("T ") + kService + " is service",
                                       std::string("T Fetching item for ") + kCharacteristic,
                                       std::string("T ") + kCharacteristic + " is characteristic"}));
}

TEST_F(ATrackedTree, ListsNoItemsOfOtherPaths)
{
    startWithAll();

    EXPECT_EQ(client->itemsFor(""), kit::Lines{});
    EXPECT_EQ(client->itemsFor(kDescriptor), kit::Lines{});
    EXPECT_EQ(log.lines(), kit::Lines{});
    EXPECT_EQ(client->itemsFor(kAdapter), kit::Lines{});
    EXPECT_EQ(client->itemsFor("/org/bluez"), kit::Lines{});
    EXPECT_EQ(log.lines(),
              (kit::Lines{std::string("T Fetching item for ") + kAdapter, "T Fetching item for /org/bluez"}));
}

TEST_F(ATrackedTree, ListsAsItemsWhateverBeginsWithThePath)
{
    start();
    const std::string service = std::string(kDevice) + "/service0001";
    addCharacteristic(service + "/char0002");
    addCharacteristic(service + "0/char0003"); // below service00010
    addCharacteristic(std::string(kDevice) + "/service0002/char0004");
    settle();

    EXPECT_EQ(client->itemsFor(service), (kit::Lines{service + "/char0002", service + "0/char0003"}));
}

// --- The table of proxies ---

TEST_F(ATrackedTree, PrintsItsProxies)
{
    const std::string unknown = "/org/bluez/hci9";
    const auto printed = [&] {
        log.clear();
        client->debugPrintProxies();
        return log.lines();
    };
    start();
    const kit::Lines printedEmpty = printed();
    addAll();
    settle();
    bool powered = false;
    client->adapterGetPowered(unknown, powered); // leaves an empty entry

    kit::Lines empty;
    kit::Lines full;
    const auto addLine = [&](const Kind& kind, const std::string& path, const GDBusProxy* proxy) {
        char line[512];
        std::snprintf(line, sizeof line, "D %s: %s: %p", kind.name, path.c_str(),
                      static_cast<const void*>(proxy));
        full.push_back(line);
    };
    for (const Kind& kind : kKinds) {
        const std::string heading = std::string("D ") + kind.name + "s:";
        const std::string end = "D ======================";
        empty.insert(empty.end(), {heading, end});
        full.push_back(heading);
        addLine(kind, kind.path, proxyOf(kind));
        if (kind.path == kAdapter) {
            addLine(kind, unknown, nullptr);
        }
        full.push_back(end);
    }
    EXPECT_EQ(printed(), full);
    EXPECT_EQ(printedEmpty, empty);
}

} // namespace
