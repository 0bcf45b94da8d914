// SPDX-License-Identifier: MIT
// The client's start, with and without a bus, BlueZ and its objects.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <thread>

#include "Bluez.h"
#include "tests/client/BluezOperations.h"
#include "tests/client/GioSpy.h"

namespace
{

// --- A start ---

using AClient = ABusWithBlueZ;

TEST_F(AClient, LogsItsStartStepByStep)
{
    addAdapter();

    start();

    const kit::Lines lines = log.lines();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(kit::Lines(lines.begin(), lines.begin() + 3),
              (kit::Lines{"D Bluez constructor", "D Initing Bluez..", "D Init Bluez completed"}));
    EXPECT_EQ(log.count(std::string("T Object ") + kAdapter), 1U);
    EXPECT_EQ(log.lines("EW"), kit::Lines{});
}

TEST_F(AClient, AsksForBlueZToBeStartedAndForAllThatItHas)
{
    const OutgoingMessages outgoing(connection());

    start();

    const kit::Lines sent = outgoing.members();
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "StartServiceByName"), 1);
    const auto calls = sim->calls("GetManagedObjects");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].path, "/");
}

TEST_F(AClient, ReportsOnOneThreadOfItsOwn)
{
    addAll();
    start();
    sim->removeObject(kAdapter);
    settle();

    EXPECT_EQ(listener.events().size(), 10U);
    EXPECT_EQ(listener.threads().size(), 1U);
    EXPECT_EQ(listener.threads().count(std::this_thread::get_id()), 0U);
}

TEST_F(AClient, RunsATaskOnItsThreadAfterTheEventUnderWay)
{
    addAdapter();
    start();
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> delivering{false};
    listener.onEvent = [&](const std::string&) {
        delivering = true;
        entered.set_value();
        leave.get_future().wait();
        delivering = false;
    };
    addDevice();
    entered.get_future().wait();
    std::promise<std::thread::id> thread;
    bool within = true;

    client->runAfterEvents([&] {
        within = delivering;
        thread.set_value(std::this_thread::get_id());
    });
    leave.set_value(); // the call has returned while the event was being delivered

    EXPECT_EQ(listener.threads().count(thread.get_future().get()), 1U);
    EXPECT_FALSE(within);
}

TEST_F(AClient, ReportsWhatExistsInAscendingOrderOfThePaths)
{
    const std::string second = "/org/bluez/hci1";
    const std::string device2 = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_02";
    const std::string service0 = std::string(kDevice) + "/service000a";
    // Published in an order that isn't sorted in any way.
    addAdapter(second);
    addDescriptor();
    addDevice(device2);
    addCharacteristic();
    addService();
    addService(service0);
    addDevice();
    addAdapter();
    addAdapter("/org/bluez/hci10");

    start();
    addDevice(second + "/dev_AA_BB_CC_DD_EE_03");
    settle();

    EXPECT_EQ(listener.events(),
              (kit::Lines{kAdapterKind.added(), kDeviceKind.added(), kServiceKind.added(service0),
                          kServiceKind.added(), kCharacteristicKind.added(), kDescriptorKind.added(),
                          kDeviceKind.added(device2), kAdapterKind.added(second),
                          kAdapterKind.added("/org/bluez/hci10"),
                          kDeviceKind.added(second + "/dev_AA_BB_CC_DD_EE_03")}));
    const auto services = tree();
    EXPECT_EQ(services.size(), 2U) << "no placeholder is left";
    EXPECT_EQ(services.at(kService).characteristics.at(kCharacteristic).descriptors.count(kDescriptor), 1U);
}

TEST_F(AClient, HearsOfABlueZThatComesLaterAndOfOneThatComesBack)
{
    sim->stopService(vexasim::Simulator::Stop::Kill);
    start();
    EXPECT_EQ(listener.events(), kit::Lines{});

    sim->startService();
    addAdapter();
    ASSERT_TRUE(listener.await(kAdapterKind.added()));

    sim->stopService(vexasim::Simulator::Stop::Kill);
    ASSERT_TRUE(listener.await(kAdapterKind.removed()));
    EXPECT_EQ(client->getAdapters(), kit::Lines{});

    sim->startService();
    addAdapter();
    ASSERT_TRUE(listener.await(kAdapterKind.added(), 2));
    EXPECT_EQ(client->getAdapters(), kit::Lines{kAdapter});
    sim->bend(Bend::answer("StartDiscovery", nothing()));
    EXPECT_TRUE(client->adapterScanOn(kAdapter));
    EXPECT_EQ(log.lines("E"), kit::Lines{});
}

// --- No bus ---

class AClientWithoutABus : public ABus
{
protected:
    void SetUp() override
    {
        ABus::SetUp();
        bus->stop();
        construct();
        ASSERT_TRUE(log.await("E Connection failed"));
    }
};

TEST_F(AClientWithoutABus, SaysSoAndRefusesEverything)
{
    EXPECT_EQ(log.lines(), (kit::Lines{"D Bluez constructor", "D Initing Bluez..", "E Connection failed"}));
    for (const Operation& operation : operations()) {
        SCOPED_TRACE(operation.name);
        const std::string complaint = operation.complaints.unconnected;
        log.clear();

        EXPECT_EQ(operation.call(*client, operation.kind->path), operation.refused);
        EXPECT_EQ(log.lines(), complaint.empty() ? kit::Lines{} : kit::Lines{complaint});

        if (*operation.complaints.emptyPath != '\0') {
            EXPECT_EQ(operation.call(*client, ""), operation.refused);
            EXPECT_EQ(log.lines(), (kit::Lines{complaint, complaint})) << "before the path";
        }
    }
    log.clear();
    EXPECT_FALSE(client->writeCharacteristic(kCharacteristic, {}));
    EXPECT_EQ(log.lines(), kit::Lines{"E Not connected"}) << "before the bytes";
    EXPECT_EQ(client->getAdapters(), kit::Lines{});
    EXPECT_EQ(client->getDevices(), kit::Lines{});
    EXPECT_EQ(listener.events(), kit::Lines{});
}

TEST_F(AClientWithoutABus, DoesntTryAgain)
{
    bus->start();
    log.clear();

    EXPECT_FALSE(client->adapterSetPowered(kAdapter, true));
    EXPECT_TRUE(client->isRunning()) << "the mark says nothing about whether the thread has ended";
    EXPECT_EQ(client
                  ->makeSharedProxy(connection(), "org.bluez", kDevice, kDeviceInterface,
                                    G_DBUS_PROXY_FLAGS_NONE, nullptr, nullptr, nullptr)
                  .use_count(),
              0)
        << "on a connection of the caller's neither";
    EXPECT_EQ(log.lines(), kit::Lines{});
}

TEST_F(AClientWithoutABus, StillTellsOfARemovalButNotOfAnArrival)
{
    log.clear();

    // No signal can arrive without a connection, so the two steps that the signals trigger are called
    // directly.
    ((*client).*inside::kMembers.onObjectAdded)(kDevice);
    ((*client).*inside::kMembers.onObjectRemoved)(kDevice);

    EXPECT_EQ(log.lines(), kit::Lines{"E Not connected"});
    EXPECT_EQ(listener.events(), kit::Lines{kDeviceKind.removed()});
}

// --- A bus, but no BlueZ ---

using AClientWithoutBlueZ = ABus;

TEST_F(AClientWithoutBlueZ, StartsAndWaitsForOneInSilence)
{
    start();
    settle();

    EXPECT_EQ(log.lines(),
              (kit::Lines{"D Bluez constructor", "D Initing Bluez..", "D Init Bluez completed"}));
    EXPECT_EQ(listener.events(), kit::Lines{});
    EXPECT_EQ(client->getAdapters(), kit::Lines{});
}

// --- A bus and a BlueZ, but no object manager ---

class AClientWithoutAnObjectManager : public ABusWithEverything
{
protected:
    AClientWithoutAnObjectManager()
    {
        sim->bend(Bend::error("GetManagedObjects", "org.freedesktop.DBus.Error.AccessDenied"));
        construct();
        EXPECT_TRUE(log.await("E Creating object manager failed"));
        connection();
    }
};

TEST_F(AClientWithoutAnObjectManager, SaysSoAndHearsOfNothing)
{
    EXPECT_EQ(log.lines(),
              (kit::Lines{"D Bluez constructor", "D Initing Bluez..", "E Creating object manager failed"}));
    EXPECT_EQ(listener.events(), kit::Lines{});
    EXPECT_EQ(client->getAdapters(), kit::Lines{});
    EXPECT_EQ(client->getDevices(), kit::Lines{});
}

TEST_F(AClientWithoutAnObjectManager, RefusesWhatNeedsAProxy)
{
    for (const Operation& operation : operationsThroughAProxy()) {
        SCOPED_TRACE(operation.name);
        const std::string complaint = operation.complaints.unknownPath;
        log.clear();

        EXPECT_EQ(operation.call(*client, operation.kind->path), operation.refused);

        EXPECT_EQ(log.lines(),
                  complaint.empty() ? kit::Lines{} : kit::Lines{complaint + operation.kind->path});
    }
    kit::GlibMessages::instance().take(); // of the reads that don't check their proxy
}

TEST_F(AClientWithoutAnObjectManager, StillReachesTheBusWithWhatNeedsNone)
{
    for (const Operation& operation : calls()) {
        if (operation.proxy == Proxy::None) {
            EXPECT_EQ(operation.call(*client, operation.kind->path), operation.message.outcome);
        }
    }
}

// --- A bus that closes ---

TEST_F(AClient, SaysThatTheBusClosedTheConnection)
{
    addAdapter();
    start();
    // Otherwise GDBus ends this process, as it ends the daemon.
    g_dbus_connection_set_exit_on_close(connection(), FALSE);
    log.clear();

    bus->stop();
    // The bus may or may not report the end of BlueZ first.
    ASSERT_TRUE(log.awaitBeginning("E System bus connection closed: "));
    onEventThread([] {});

    EXPECT_EQ(log.lines("E").size(), 1U) << testing::PrintToString(log.lines("E"));
    EXPECT_FALSE(client->adapterSetPowered(kAdapter, true));
    EXPECT_EQ(log.lines("E").back(), "E The connection is closed");
    destroy();
    EXPECT_EQ(log.count("D Deiniting Bluez completed"), 1U);
}

using AClientDeathTest = ABusWithBlueZ;

TEST_F(AClientDeathTest, EndsTheProcessWhenTheBusCloses)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            start();
            bus->stop();
            std::this_thread::sleep_for(std::chrono::seconds{20}); // only reached if the signal doesn't come
        },
        testing::KilledBySignal(SIGTERM), "System bus connection closed: ");
}

} // namespace
