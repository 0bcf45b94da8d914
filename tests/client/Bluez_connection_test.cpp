// SPDX-License-Identifier: MIT
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <stdexcept>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using namespace std::chrono_literals;

// The library's own limit for a call is 25 s: a client that ends well before hasn't waited for it.
constexpr auto kSoon = 20s;

// A sanitizer makes a start, with the reading of all objects, and an event far longer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kManyStarts = 20;
constexpr std::size_t kManyEvents = 50;
#else
constexpr int kManyStarts = 100;
constexpr std::size_t kManyEvents = 200;
#endif

std::ptrdiff_t placeOf(const Lines& lines, const std::string& line)
{
    return std::distance(lines.begin(), std::find(lines.begin(), lines.end(), line));
}

// --- Start and stop ---

using AClient = ABusWithBlueZ;

TEST_F(AClient, LogsItsStartStepByStep)
{
    addAdapter();

    start();

    const Lines lines = log.lines();
    const Lines expected = {"D Bluez constructor", "D Initing Bluez..", "D Init Bluez completed",
                            std::string("T Object ") + kAdapter};
    for (const std::string& line : expected) {
        EXPECT_EQ(log.count(line), 1U) << line;
    }
    EXPECT_TRUE(std::is_sorted(expected.begin(), expected.end(), [&](const auto& a, const auto& b) {
        return placeOf(lines, a) < placeOf(lines, b);
    })) << testing::PrintToString(lines);
    EXPECT_EQ(log.lines("E"), Lines{});
}

TEST_F(AClient, LogsItsEndStepByStep)
{
    addAdapter();
    start();
    log.clear();

    destroy();

    const Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 5U) << testing::PrintToString(lines);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 4),
              (Lines{"T Posting stopping task", "D Stopping loop task", "D Deiniting Bluez..",
                     "D Deiniting Bluez completed"}));
    // The proxies go last, when the connection has been given back.
    EXPECT_EQ(lines.back().rfind("T Unref object 0x", 0), 0U) << lines.back();
}

TEST_F(AClient, ConnectsWithTheArgumentsOfAStartThatCanBeCancelled)
{
    const GioSpy spy;

    start();
    destroy();

    const auto buses = spy.calls("SystemBus");
    ASSERT_EQ(buses.size(), 1U);
    EXPECT_TRUE(buses[0].cancellable);
    EXPECT_FALSE(buses[0].error);
    const auto managers = spy.calls("org.bluez");
    ASSERT_FALSE(managers.empty());
    EXPECT_EQ(managers[0].function, "g_dbus_object_manager_client_new_sync");
    EXPECT_EQ(managers[0].path, "/");
    EXPECT_EQ(managers[0].flags, 0);
    EXPECT_TRUE(managers[0].cancellable);
    EXPECT_FALSE(managers[0].error);
}

// The context is never taken a reference on, and given one back all the same.
TEST_F(AClient, GivesBackWhatItTookAndOneReferenceMoreOnTheContext)
{
    start();
    const GioSpy spy;

    destroy();

    EXPECT_EQ(spy.releases(), (Lines{"GDBusObjectManagerClient", "GDBusConnection", "GCancellable",
                                     "GMainLoop", "GMainContext"}));
}

TEST_F(AClient, GivesItsProxiesBackAfterEverythingElse)
{
    addAll();
    start();
    const GioSpy spy;

    destroy();

    const Lines releases = spy.releases();
    ASSERT_EQ(releases.size(), 10U);
    EXPECT_EQ(releases[4], "GMainContext");
    EXPECT_EQ(std::count(releases.begin(), releases.end(), "GDBusProxy"), 5);
    EXPECT_EQ(releases[5], "GDBusProxy");
}

TEST_F(AClient, CanBeBuiltAgainAndAgain)
{
    addAdapter();
    for (int i = 0; i < 10; ++i) {
        listener.clear();
        construct();
        EXPECT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter));
        destroy();
    }
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

TEST_F(AClient, ReturnsFromItsConstructorWhileTheThreadStillStarts)
{
    sim->bend(Bend::silence("GetManagedObjects"));

    construct();

    ASSERT_TRUE(sim->awaitCall("GetManagedObjects"));
    EXPECT_EQ(log.count("D Init Bluez completed"), 0U);
}

TEST_F(AClient, IsntBlockedByWhatAListenerOfItsOwnEventsAsks)
{
    addAdapter(kAdapter, {{"Powered", boolean(true)}});
    RecordingListener& other = others[0];
    std::string seen;
    listener.onEvent = [&](const std::string&) {
        client->subscribe(&other);
        client->unsubscribe(&other);
        seen += std::to_string(client->getListeners().size()) + std::to_string(client->getAdapters().size()) +
                std::to_string(client->getDevices().size());
        client->debugPrintProxies();
        bool powered = false;
        seen += client->adapterGetPowered(kAdapter, powered) && powered ? " powered" : " unpowered";
        seen += client->adapterSetPowered(kAdapter, true) ? " set" : " refused";
    };
    sim->bend(Bend::answer("Set", nothing()));
    start();
    seen.clear();

    addDevice();
    ASSERT_TRUE(listener.await(std::string("onDeviceAdded ") + kDevice));
    settle();

    EXPECT_EQ(seen, "211 powered set");
}

// --- What is there at the start ---

TEST_F(AClient, ReportsWhatExistsInAscendingOrderOfThePaths)
{
    const std::string second = "/org/bluez/hci1";
    const std::string device2 = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_02";
    // Published in an order in which nothing is sorted.
    addAdapter(second);
    addDescriptor();
    addDevice(device2);
    addCharacteristic();
    addService();
    addService(std::string(kDevice) + "/service000a");
    addDevice();
    addAdapter();
    addAdapter("/org/bluez/hci10");

    start();
    addDevice(second + "/dev_AA_BB_CC_DD_EE_03");
    settle();

    EXPECT_EQ(listener.events(),
              (Lines{std::string("onAdapterAdded ") + kAdapter, std::string("onDeviceAdded ") + kDevice,
                     std::string("onServiceAdded ") + kDevice + "/service000a",
                     std::string("onServiceAdded ") + kService,
                     std::string("onCharacteristicAdded ") + kCharacteristic,
                     std::string("onDescriptorAdded ") + kDescriptor, "onDeviceAdded " + device2,
                     "onAdapterAdded " + second, "onAdapterAdded /org/bluez/hci10",
                     "onDeviceAdded " + second + "/dev_AA_BB_CC_DD_EE_03"}));
}

TEST_F(AClient, LeavesNoPlaceholderAtTheStart)
{
    addDescriptor();
    addCharacteristic();
    addService();
    addDevice();

    start();

    const std::vector<Bluez::Service> services = client->getServices(kDevice, Bluez::Service::Type::Battery);
    ASSERT_EQ(services.size(), 1U);
    ASSERT_EQ(services[0].characteristics.count(kCharacteristic), 1U);
    EXPECT_EQ(services[0].characteristics.at(kCharacteristic).descriptors.count(kDescriptor), 1U);
    EXPECT_EQ(keys<inside::Services>(), Lines{kService});
}

TEST_F(AClient, HearsOfABlueZThatComesLater)
{
    sim->stopService(vexasim::Simulator::Stop::Kill);
    start();
    EXPECT_EQ(listener.events(), Lines{});

    sim->startService();
    addAdapter();

    EXPECT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter));
}

TEST_F(AClient, HearsOfABlueZThatGoesAndComesBack)
{
    addAdapter();
    start();
    listener.clear();

    sim->stopService(vexasim::Simulator::Stop::Kill);
    ASSERT_TRUE(listener.await(std::string("onAdapterRemoved ") + kAdapter));
    EXPECT_EQ(client->getAdapters(), Lines{});
    sim->startService();
    addAdapter();
    ASSERT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter));

    EXPECT_EQ(client->getAdapters(), Lines{kAdapter});
    sim->bend(Bend::answer("StartDiscovery", nothing()));
    EXPECT_TRUE(client->adapterScanOn(kAdapter));
    EXPECT_EQ(log.lines("E"), Lines{});
}

// --- Listeners ---

TEST_F(AClient, WithoutAListenerStartsAndCanGetOneLater)
{
    addAdapter();
    start(nullptr);
    EXPECT_TRUE(client->getListeners().empty());
    EXPECT_EQ(client->getAdapters(), Lines{kAdapter});

    client->subscribe(&listener);
    addDevice();

    EXPECT_TRUE(listener.await(std::string("onDeviceAdded ") + kDevice));
    EXPECT_EQ(listener.events().size(), 1U);
}

TEST_F(AClient, EntersTheListenerOfItsConstructorAsSubscribed)
{
    start();

    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, true}}));
}

TEST_F(AClient, CallsAListenerThatSubscribedTwiceOnce)
{
    start();

    client->subscribe(&listener);
    client->subscribe(&listener);
    addAdapter();
    settle();

    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, true}}));
    EXPECT_EQ(listener.events(), Lines{std::string("onAdapterAdded ") + kAdapter});
}

TEST_F(AClient, KeepsAnEntryForAListenerThatUnsubscribesWithoutHavingSubscribed)
{
    start();
    RecordingListener& stranger = others[0];

    client->unsubscribe(&stranger);
    addAdapter();
    settle();

    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, true}, {&stranger, false}}));
    EXPECT_EQ(stranger.events(), Lines{});
    EXPECT_EQ(listener.events().size(), 1U);
}

TEST_F(AClient, TakesAListenerUpAgain)
{
    start();

    client->unsubscribe(&listener);
    addAdapter();
    settle();
    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, false}}));
    EXPECT_EQ(listener.events(), Lines{});
    client->subscribe(&listener);
    addDevice();
    settle();

    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, true}}));
    EXPECT_EQ(listener.events(), Lines{std::string("onDeviceAdded ") + kDevice});
}

TEST_F(AClient, PassesOverASubscriptionOfNull)
{
    start();

    client->subscribe(nullptr);

    EXPECT_EQ(client->getListeners().count(nullptr), 0U);
}

TEST_F(AClient, KeepsAnEntryForNullThatUnsubscribesAndNeverCallsIt)
{
    start();

    client->unsubscribe(nullptr);
    addAdapter();
    settle();

    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{nullptr, false}, {&listener, true}}));
    EXPECT_EQ(listener.events().size(), 1U);
}

TEST_F(AClient, CallsItsListenersInAscendingOrderOfTheirAddresses)
{
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < others.size(); ++i) {
        others[i].onEvent = [&order, i](const std::string&) { order.push_back(i); };
    }
    start(nullptr);

    for (const std::size_t i : {1U, 3U, 0U, 2U}) {
        client->subscribe(&others[i]);
    }
    addAdapter();
    settle();

    EXPECT_EQ(order, (std::vector<std::size_t>{0, 1, 2, 3}));
}

TEST_F(AClient, StillCallsAListenerThatIsUnsubscribedInTheMiddleOfAnEvent)
{
    RecordingListener& first = others.front();
    RecordingListener& second = others.back();
    first.onEvent = [&](const std::string&) { client->unsubscribe(&second); };
    start(nullptr);
    client->subscribe(&first);
    client->subscribe(&second);

    addAdapter();
    addDevice();
    settle();

    EXPECT_EQ(first.events().size(), 2U);
    EXPECT_EQ(second.events(), Lines{std::string("onAdapterAdded ") + kAdapter});
}

TEST_F(AClient, DoesntCallAListenerThatIsSubscribedInTheMiddleOfAnEventBeforeTheNext)
{
    RecordingListener& first = others.front();
    RecordingListener& second = others.back();
    first.onEvent = [&](const std::string&) { client->subscribe(&second); };
    start(nullptr);
    client->subscribe(&first);

    addAdapter();
    addDevice();
    settle();

    EXPECT_EQ(second.events(), Lines{std::string("onDeviceAdded ") + kDevice});
}

TEST_F(AClient, HandsOutACopyOfItsListeners)
{
    start();

    Bluez::ListenerMap copy = client->getListeners();
    copy.clear();

    EXPECT_EQ(client->getListeners().size(), 1U);
}

TEST_F(AClient, TakesListenersFromManyThreadsWhileEventsCome)
{
    start();
    std::vector<std::thread> threads;
    for (RecordingListener& one : others) {
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                client->subscribe(&one);
                client->getListeners();
                client->unsubscribe(&one);
            }
            client->subscribe(&one);
        });
    }
    for (int round = 0; round < 10; ++round) {
        addAdapter();
        sim->removeObject(kAdapter);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    settle();

    addDevice();
    for (RecordingListener& one : others) {
        EXPECT_TRUE(one.await(std::string("onDeviceAdded ") + kDevice));
    }
    EXPECT_EQ(listener.events().size(), 21U);
    destroy();
}

// --- Destruction ---

TEST_F(AClient, CanBeDestroyedRightAfterItsConstruction)
{
    addAll();
    for (int i = 0; i < kManyStarts; ++i) {
        construct();
        destroy();
    }
    EXPECT_EQ(log.count("D Bluez constructor"), std::size_t{kManyStarts});
    EXPECT_EQ(log.count("D Initing Bluez.."), std::size_t{kManyStarts});
}

TEST_F(AClient, CanBeDestroyedAtEveryStepOfItsStart)
{
    addAll();
    for (const std::string& step : {std::string("D Initing Bluez.."), std::string("D Init Bluez completed"),
                                    std::string("T Object ") + kDescriptor}) {
        log.clear();
        construct();
        EXPECT_TRUE(log.await(step));
        destroy();
    }
}

TEST_F(AClient, LeavesItsLoopWhenItIsDestroyedWhileItReportsWhatExists)
{
    addAdapter();
    // Holds the sweep until the destructor has posted its task.
    listener.onEvent = [&](const std::string&) { EXPECT_TRUE(log.await("T Posting stopping task")); };
    construct();
    ASSERT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter));

    destroy();

    EXPECT_EQ(log.count("D Deiniting Bluez completed"), 1U);
}

TEST_F(AClient, CanBeDestroyedInAStormOfEvents)
{
    addAll();
    start();
    std::atomic<bool> storm{true};
    std::thread sky([&] {
        for (std::int16_t dBm = -90; storm; dBm = dBm < -30 ? std::int16_t(dBm + 1) : std::int16_t{-90}) {
            sim->emitPropertiesChanged(kDevice, kDeviceInterface, {{"RSSI", int16(dBm)}});
            sim->emitPropertiesChanged(kCharacteristic, kCharacteristicInterface,
                                       {{"Value", Variant::bytes({1})}});
            sim->removeObject(kDescriptor);
            addDescriptor();
        }
    });
    EXPECT_TRUE(listener.awaitAny(kManyEvents));

    destroy();
    const std::size_t heard = listener.events().size();

    storm = false;
    sky.join();
    sim->sync();
    EXPECT_EQ(log.count("D Deiniting Bluez completed"), 1U);
    EXPECT_EQ(listener.events().size(), heard) << "a callback came after the destructor";
}

TEST_F(AClient, CanBeDestroyedWhileBlueZDoesntAnswerItsFirstQuestion)
{
    sim->bend(Bend::silence("GetManagedObjects"));
    construct();
    ASSERT_TRUE(sim->awaitCall("GetManagedObjects"));
    const auto begin = std::chrono::steady_clock::now();

    destroy();

    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSoon);
    EXPECT_EQ(log.lines("E"), Lines{"E Creating object manager failed"});
    EXPECT_EQ(log.count("D Stopping loop task"), 0U);
}

TEST(TheStoppingTask, EndsTheLoopAndRunsOnce)
{
    LogRecorder::instance().clear();
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GSource* source = g_idle_source_new();
    g_source_set_callback(source, quit_task, loop, nullptr);
    g_source_attach(source, context);

    g_main_loop_run(loop);

    EXPECT_TRUE(g_source_is_destroyed(source));
    EXPECT_EQ(LogRecorder::instance().lines("EWID"), (Lines{"D Stopping loop task"}));
    g_source_unref(source);
    g_main_loop_unref(loop);
    g_main_context_unref(context);
}

TEST(TheStoppingTask, DoesNothingForNull)
{
    LogRecorder::instance().clear();

    EXPECT_EQ(quit_task(nullptr), FALSE);

    EXPECT_EQ(LogRecorder::instance().lines(), Lines{});
}

// --- No bus ---

// Whatever it is asked, it refuses at its first test; these without a word.
void expectSilentRefusals(Bluez& client)
{
    std::string word = "as it was";
    bool flag = true;
    std::int16_t dBm = 7;

    EXPECT_FALSE(client.adapterGetAddress(kAdapter, word));
    EXPECT_FALSE(client.adapterGetPairable(kAdapter, flag));
    EXPECT_FALSE(client.adapterGetPowered(kAdapter, flag));
    EXPECT_FALSE(client.adapterGetDiscovering(kAdapter, flag));
    EXPECT_FALSE(client.adapterSetPairable(kAdapter, true));
    EXPECT_FALSE(client.adapterSetPowered(kAdapter, true));
    EXPECT_FALSE(client.adapterScanOn(kAdapter));
    EXPECT_FALSE(client.adapterScanOff(kAdapter));
    EXPECT_FALSE(client.adapterRemoveDevice(kAdapter, kDevice));
    EXPECT_FALSE(client.deviceGetAddress(kDevice, word));
    EXPECT_FALSE(client.deviceGetAliasName(kDevice, word));
    EXPECT_FALSE(client.deviceGetName(kDevice, word));
    EXPECT_FALSE(client.deviceGetConnected(kDevice, flag));
    EXPECT_FALSE(client.deviceGetPaired(kDevice, flag));
    EXPECT_FALSE(client.deviceGetTrusted(kDevice, flag));
    EXPECT_FALSE(client.deviceGetRSSI(kDevice, dBm));
    EXPECT_FALSE(client.deviceIsServicesResolved(kDevice));
    EXPECT_FALSE(client.deviceSetTrusted(kDevice, true));
    EXPECT_FALSE(client.deviceConnect(kDevice));
    EXPECT_FALSE(client.deviceDisconnect(kDevice));
    EXPECT_FALSE(client.devicePair(kDevice));
    EXPECT_EQ(client.itemsFor(kDevice), Lines{});

    EXPECT_EQ(LogRecorder::instance().lines(), Lines{});
    EXPECT_EQ(word, "as it was");
    EXPECT_TRUE(flag);
    EXPECT_EQ(dBm, 7);
    EXPECT_EQ(client.getAdapters(), Lines{});
    EXPECT_EQ(client.getDevices(), Lines{});
}

void expectLoggedRefusals(Bluez& client)
{
    std::string word = "as it was";
    Bluez::Service::Characteristic characteristic;
    characteristic.path = kCharacteristic;
    characteristic.val = "old";

    EXPECT_FALSE(client.getCachedProperty(kDevice, "UUID", word));
    EXPECT_FALSE(client.characteristicStartNotify(kCharacteristic));
    EXPECT_FALSE(client.characteristicStopNotify(kCharacteristic));
    EXPECT_FALSE(client.writeCharacteristic(kCharacteristic, {}));
    // Before the path, and before the bytes.
    EXPECT_FALSE(client.getCachedProperty("", "", word));
    EXPECT_FALSE(client.characteristicStartNotify(""));
    EXPECT_FALSE(client.characteristicStopNotify(""));
    EXPECT_FALSE(client.writeCharacteristic("", {}));
    EXPECT_EQ(client.readCharacteristic("/"), std::vector<std::uint8_t>{});
    EXPECT_EQ(client.valueFor(""), "");
    EXPECT_FALSE(client.readCharacteristic(characteristic));
    EXPECT_EQ(LogRecorder::instance().lines(),
              (Lines{"E No connection", "E Not connected", "E Not connected", "E Not connected",
                     "E No connection", "E Not connected", "E Not connected", "E Not connected",
                     "E Not connected", "D No connection", "D No connection"}));

    EXPECT_EQ(word, "as it was");
    EXPECT_EQ(characteristic.val, "");
    EXPECT_EQ(client
                  .makeSharedProxy(nullptr, "org.bluez", kDevice, kDeviceInterface, G_DBUS_PROXY_FLAGS_NONE,
                                   nullptr, nullptr, nullptr)
                  .use_count(),
              0);
}

class AClientWithoutABus : public ABus
{
protected:
    AClientWithoutABus() { bus->stop(); }
};

TEST_F(AClientWithoutABus, SaysSoAndRefusesEverything)
{
    construct();
    ASSERT_TRUE(log.await("E Connection failed"));
    EXPECT_EQ(log.lines(), (Lines{"D Bluez constructor", "D Initing Bluez..", "E Connection failed"}));
    log.clear();

    expectSilentRefusals(*client);
    expectLoggedRefusals(*client);

    EXPECT_EQ(listener.events(), Lines{});
}

TEST_F(AClientWithoutABus, IsDestroyedAtOnceAndPostsATaskThatNeverRuns)
{
    construct();
    ASSERT_TRUE(log.await("E Connection failed"));
    log.clear();

    destroy();

    EXPECT_EQ(log.lines(), Lines{"T Posting stopping task"});
}

TEST_F(AClientWithoutABus, CanBeDestroyedRightAfterItsConstruction)
{
    for (int i = 0; i < 100; ++i) {
        construct();
        destroy();
    }
    EXPECT_EQ(log.count("E Connection failed"), 100U);
}

TEST_F(AClientWithoutABus, DoesntTryAgain)
{
    construct();
    ASSERT_TRUE(log.await("E Connection failed"));
    bus->start();
    log.clear();

    bool powered = false;
    EXPECT_FALSE(client->adapterGetPowered(kAdapter, powered));
    EXPECT_FALSE(client->adapterSetPowered(kAdapter, true));
    EXPECT_TRUE(client->isRunning()) << "the mark says nothing about whether the thread has ended";
    EXPECT_EQ(client
                  ->makeSharedProxy(connection(), "org.bluez", kDevice, kDeviceInterface,
                                    G_DBUS_PROXY_FLAGS_NONE, nullptr, nullptr, nullptr)
                  .use_count(),
              0)
        << "on a connection of the caller's neither";
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_F(AClientWithoutABus, StillTellsOfARemovalButNotOfAnArrival)
{
    construct();
    ASSERT_TRUE(log.await("E Connection failed"));
    log.clear();

    // No signal can come without a connection: the two steps behind the signals are called by themselves.
    (client.get()->*open(inside::OnObjectAdded{}))(kDevice);
    (client.get()->*open(inside::OnObjectRemoved{}))(kDevice);

    EXPECT_EQ(log.lines(), Lines{"E Not connected"});
    EXPECT_EQ(listener.events(), Lines{std::string("onDeviceRemoved ") + kDevice});
}

// A socket that takes a client and never says a word, or none after the authentication.
class AMuteBus
{
public:
    explicit AMuteBus(const std::string& path) : mSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(mSocket, 128) != 0) {
            throw std::runtime_error("can't listen at " + path);
        }
    }
    ~AMuteBus()
    {
        close(mClient);
        close(mSocket);
    }
    AMuteBus(const AMuteBus&) = delete;
    AMuteBus& operator=(const AMuteBus&) = delete;

    /// Returns when a client has come and has begun to speak.
    void awaitClient()
    {
        mClient = accept(mSocket, nullptr, nullptr);
        char byte = 0;
        EXPECT_EQ(read(mClient, &byte, 1), 1);
    }
    /// Authenticates a client and returns when it has said Hello.
    void awaitHello()
    {
        awaitClient();
        for (std::string line = readLine(); line != "BEGIN"; line = readLine()) {
            std::string answer = "OK 0123456789abcdef0123456789abcdef";
            if (line == "AUTH") {
                answer = "REJECTED EXTERNAL";
            } else if (line == "AUTH EXTERNAL") {
                answer = "DATA";
            } else if (line == "NEGOTIATE_UNIX_FD") {
                answer = "AGREE_UNIX_FD";
            }
            answer += "\r\n";
            ASSERT_EQ(write(mClient, answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
        }
        char byte = 0;
        EXPECT_EQ(read(mClient, &byte, 1), 1);
    }

private:
    std::string readLine() const
    {
        std::string line;
        char byte = 0;
        while (read(mClient, &byte, 1) == 1 && byte != '\n') {
            line += byte;
        }
        return line.empty() ? "BEGIN" : line.substr(0, line.size() - 1);
    }

    int mSocket;
    int mClient = -1;
};

TEST_F(AClientWithoutABus, CanBeDestroyedWhileTheBusIsMute)
{
    AMuteBus mute(bus->socketPath());
    construct();
    mute.awaitClient();
    const auto begin = std::chrono::steady_clock::now();

    destroy();

    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSoon);
    EXPECT_EQ(log.lines("E"), Lines{"E Connection failed"});
    EXPECT_EQ(log.count("D Stopping loop task"), 0U);
}

TEST_F(AClientWithoutABus, CanBeDestroyedRightAfterItsConstructionWhileTheBusIsMute)
{
    AMuteBus mute(bus->socketPath());
    const auto begin = std::chrono::steady_clock::now();

    for (int i = 0; i < 50; ++i) {
        construct();
        destroy();
    }

    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSoon);
    EXPECT_EQ(log.count("E Connection failed"), 50U);
}

// The D-Bus library's own limit: it doesn't let its greeting be cancelled.
TEST_F(AClientWithoutABus, CanBeDestroyedWithin25SecondsWhileTheBusIgnoresItsGreeting)
{
    AMuteBus mute(bus->socketPath());
    construct();
    mute.awaitHello();
    const auto begin = std::chrono::steady_clock::now();

    destroy();

    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds{25} + kSoon);
    EXPECT_EQ(log.lines("E"), Lines{"E Connection failed"});
}

// --- A bus, but no BlueZ ---

class AClientWithoutBlueZ : public ABus
{
};

TEST_F(AClientWithoutBlueZ, StartsAndWaitsForOneInSilence)
{
    start();
    settle();

    EXPECT_EQ(log.lines(), (Lines{"D Bluez constructor", "D Initing Bluez..", "D Init Bluez completed"}));
    EXPECT_EQ(listener.events(), Lines{});
    EXPECT_EQ(client->getAdapters(), Lines{});
}

TEST_F(AClientWithoutBlueZ, CanBeDestroyed)
{
    start();
    log.clear();

    destroy();

    EXPECT_EQ(log.lines(), (Lines{"T Posting stopping task", "D Stopping loop task", "D Deiniting Bluez..",
                                  "D Deiniting Bluez completed"}));
}

TEST_F(AClientWithoutBlueZ, CanBeDestroyedRightAfterItsConstruction)
{
    for (int i = 0; i < 100; ++i) {
        construct();
        destroy();
    }
    EXPECT_EQ(log.count("E Connection failed") + log.count("E Creating object manager failed") +
                  log.count("D Deiniting Bluez completed"),
              100U);
}

// --- A bus and a BlueZ, but no object manager ---

class AClientWithoutAnObjectManager : public ABusWithBlueZ
{
protected:
    AClientWithoutAnObjectManager()
    {
        addAll();
        sim->bend(Bend::error("GetManagedObjects", "org.freedesktop.DBus.Error.AccessDenied"));
        construct();
        EXPECT_TRUE(log.await("E Creating object manager failed"));
        connection();
    }
};

TEST_F(AClientWithoutAnObjectManager, SaysSoAndHearsOfNothing)
{
    EXPECT_EQ(log.lines(),
              (Lines{"D Bluez constructor", "D Initing Bluez..", "E Creating object manager failed"}));
    EXPECT_EQ(listener.events(), Lines{});
    EXPECT_EQ(client->getAdapters(), Lines{});
    EXPECT_EQ(client->getDevices(), Lines{});
}

TEST_F(AClientWithoutAnObjectManager, RefusesWhatNeedsAProxy)
{
    bool powered = false;
    log.clear();

    EXPECT_FALSE(client->adapterScanOn(kAdapter));
    EXPECT_FALSE(client->adapterGetPowered(kAdapter, powered));
    EXPECT_FALSE(client->devicePair(kDevice));
    EXPECT_FALSE(client->characteristicStartNotify(kCharacteristic));

    EXPECT_EQ(log.lines(), Lines{std::string("E No proxy found for characteristic ") + kCharacteristic});
}

TEST_F(AClientWithoutAnObjectManager, StillReachesTheBusWithWhatNeedsNone)
{
    sim->bend(Bend::answer("Set", nothing()));
    sim->bend(Bend::answer("Get", g_variant_new("(v)", g_variant_new_string("VEXA RC"))));
    std::string name;

    EXPECT_TRUE(client->adapterSetPowered(kAdapter, true));
    EXPECT_TRUE(client->adapterSetPairable(kAdapter, true));
    EXPECT_TRUE(client->deviceGetName(kDevice, name));

    EXPECT_EQ(name, "VEXA RC");
    EXPECT_EQ(sim->calls("Set").size(), 2U);
}

TEST_F(AClientWithoutAnObjectManager, CanBeDestroyed)
{
    log.clear();

    destroy();

    EXPECT_EQ(log.lines(), Lines{"T Posting stopping task"});
}

// --- A bus that goes ---

TEST_F(AClient, SaysThatTheBusClosedTheConnection)
{
    addAdapter();
    start();
    // Otherwise GDBus ends this process, as it ends the daemon.
    g_dbus_connection_set_exit_on_close(connection(), FALSE);
    log.clear();

    bus->stop();
    // Whether BlueZ is still seen to go before is up to the bus.
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
            std::this_thread::sleep_for(kSoon); // not reached, but for a limit
        },
        testing::KilledBySignal(SIGTERM), "System bus connection closed: ");
}

} // namespace
