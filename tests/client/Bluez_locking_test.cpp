// SPDX-License-Identifier: MIT
// The client's one lock: which operations wait for it, which don't, and how long an operation that takes none
// keeps the proxy that it has found.
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <future>
#include <mutex>
#include <ostream>
#include <thread>

#include <pthread.h>

int realLock(pthread_mutex_t*) __asm__("__real_pthread_mutex_lock");
int realUnlock(pthread_mutex_t*) __asm__("__real_pthread_mutex_unlock");
int wrappedLock(pthread_mutex_t*) __asm__("__wrap_pthread_mutex_lock");
int wrappedUnlock(pthread_mutex_t*) __asm__("__wrap_pthread_mutex_unlock");

namespace
{

using Bytes = std::vector<std::uint8_t>;
using Characteristic = Bluez::Service::Characteristic;

constexpr const char* kOtherDevice = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_02";

// --- What the threads do to the client's lock ---

std::atomic<const void*> watchedLock{nullptr};
std::atomic<int> refusedReleases{0};

/// Whether an operation has met the lock while another thread held it, or has ended.
struct Race {
    std::mutex mutex;
    std::condition_variable news;
    bool waits = false;
    bool ended = false;
};

Race& theRace()
{
    static Race& race = *new Race; // its users may outlive a case
    return race;
}

void tell(bool Race::*what)
{
    Race& race = theRace();
    const std::lock_guard lock(race.mutex);
    race.*what = true;
    race.news.notify_all();
}

} // namespace

int wrappedLock(pthread_mutex_t* lock)
{
    if (lock != watchedLock) {
        return realLock(lock);
    }
    if (pthread_mutex_trylock(lock) == 0) {
        return 0;
    }
    tell(&Race::waits);
    return realLock(lock);
}

int wrappedUnlock(pthread_mutex_t* lock)
{
    const int result = realUnlock(lock);
    if (lock == watchedLock && result == EPERM) {
        ++refusedReleases;
    }
    return result;
}

namespace
{

class AClientWhoseLockIsWatched : public ABusWithBlueZ
{
public:
    ~AClientWhoseLockIsWatched() override { watchedLock = nullptr; }

protected:
    /// Starts the client with whatever exists and watches its lock from then on.
    void startWatched()
    {
        start();
        watchedLock = &inside::of<inside::Mutex>(*client);
        refusedReleases = 0;
    }
};

// --- The operations ---

/// Whether an operation shares the proxy that it has found for as long as it uses it.
enum class Proxy { Shared, Borrowed, None };

struct Operation {
    const char* name;
    const char* path;
    bool (*call)(Bluez&, const std::string& path); ///< true if it has done what it is there for
    Proxy proxy;
};
std::ostream& operator<<(std::ostream& out, const Operation& operation)
{
    return out << operation.name;
}

template <typename Value, bool (Bluez::*kGet)(const std::string&, Value&)>
bool get(Bluez& client, const std::string& path)
{
    Value value{};
    return (client.*kGet)(path, value);
}

template <bool (Bluez::*kSet)(const std::string&, const bool&)>
bool set(Bluez& client, const std::string& path)
{
    return (client.*kSet)(path, true);
}

template <bool (Bluez::*kAct)(const std::string&)>
bool act(Bluez& client, const std::string& path)
{
    return (client.*kAct)(path);
}

template <typename Record, Record (Bluez::*kMake)(const std::string&)>
bool make(Bluez& client, const std::string& path)
{
    return !(client.*kMake)(path).uuid.empty();
}

const std::vector<Operation> kOperations = {
    {"adapterGetAddress", kAdapter, get<std::string, &Bluez::adapterGetAddress>, Proxy::Borrowed},
    {"adapterGetPairable", kAdapter, get<bool, &Bluez::adapterGetPairable>, Proxy::Borrowed},
    {"adapterGetPowered", kAdapter, get<bool, &Bluez::adapterGetPowered>, Proxy::Borrowed},
    {"adapterGetDiscovering", kAdapter, get<bool, &Bluez::adapterGetDiscovering>, Proxy::Borrowed},
    {"adapterSetPairable", kAdapter, set<&Bluez::adapterSetPairable>, Proxy::None},
    {"adapterSetPowered", kAdapter, set<&Bluez::adapterSetPowered>, Proxy::None},
    {"adapterScanOn", kAdapter, act<&Bluez::adapterScanOn>, Proxy::Borrowed},
    {"adapterScanOff", kAdapter, act<&Bluez::adapterScanOff>, Proxy::Borrowed},
    {"adapterRemoveDevice", kAdapter,
     [](Bluez& client, const std::string& path) { return client.adapterRemoveDevice(path, kDevice); },
     Proxy::Borrowed},
    {"deviceGetAddress", kDevice, get<std::string, &Bluez::deviceGetAddress>, Proxy::Borrowed},
    {"deviceGetAliasName", kDevice, get<std::string, &Bluez::deviceGetAliasName>, Proxy::Borrowed},
    {"deviceGetName", kDevice, get<std::string, &Bluez::deviceGetName>, Proxy::None},
    {"deviceGetConnected", kDevice, get<bool, &Bluez::deviceGetConnected>, Proxy::Borrowed},
    {"deviceGetPaired", kDevice, get<bool, &Bluez::deviceGetPaired>, Proxy::Borrowed},
    {"deviceGetTrusted", kDevice, get<bool, &Bluez::deviceGetTrusted>, Proxy::Borrowed},
    {"deviceGetRSSI", kDevice, get<std::int16_t, &Bluez::deviceGetRSSI>, Proxy::Borrowed},
    {"deviceIsServicesResolved", kDevice, act<&Bluez::deviceIsServicesResolved>, Proxy::Borrowed},
    {"deviceSetTrusted", kDevice, set<&Bluez::deviceSetTrusted>, Proxy::Borrowed},
    {"deviceConnect", kDevice, act<&Bluez::deviceConnect>, Proxy::Borrowed},
    {"deviceDisconnect", kDevice, act<&Bluez::deviceDisconnect>, Proxy::Borrowed},
    {"devicePair", kDevice, act<&Bluez::devicePair>, Proxy::Borrowed},
    {"characteristicStartNotify", kCharacteristic, act<&Bluez::characteristicStartNotify>, Proxy::Shared},
    {"characteristicStopNotify", kCharacteristic, act<&Bluez::characteristicStopNotify>, Proxy::Shared},
    {"writeCharacteristic", kCharacteristic,
     [](Bluez& client, const std::string& path) { return client.writeCharacteristic(path, {1}); },
     Proxy::Shared},
    {"readCharacteristicIntoAVector", kCharacteristic,
     [](Bluez& client, const std::string& path) { return client.readCharacteristic(path) == Bytes{80}; },
     Proxy::Shared},
    {"readCharacteristicIntoARecord", kCharacteristic,
     [](Bluez& client, const std::string& path) {
         Characteristic record;
         record.path = path;
         return client.readCharacteristic(record);
     },
     Proxy::Borrowed},
    {"valueFor", kCharacteristic,
     [](Bluez& client, const std::string& path) { return !client.valueFor(path).empty(); }, Proxy::Borrowed},
    {"getCachedProperty", kDevice,
     [](Bluez& client, const std::string& path) {
         std::string address;
         return client.getCachedProperty(path, "Address", address);
     },
     Proxy::Shared},
    {"objectForService", kService, make<Bluez::Service, &Bluez::objectForService>, Proxy::Shared},
    {"objectForCharacteristic", kCharacteristic, make<Characteristic, &Bluez::objectForCharacteristic>,
     Proxy::Shared},
    {"objectForDescriptor", kDescriptor, make<Characteristic::Descriptor, &Bluez::objectForDescriptor>,
     Proxy::Shared},
    {"getServices", kDevice,
     [](Bluez& client, const std::string& path) {
         return client.getServices(path, Bluez::Service::Type::Battery).size() == 1;
     },
     Proxy::None},
    {"itemsFor", kDevice,
     [](Bluez& client, const std::string& path) { return client.itemsFor(path) == Lines{kService}; },
     Proxy::None},
};

/// Each of the operations finds on its object what it asks for.
class AnOperation : public AClientWhoseLockIsWatched, public testing::WithParamInterface<Operation>
{
protected:
    void SetUp() override
    {
        AClientWhoseLockIsWatched::SetUp();
        const PropertyMap adapter = {{"Address", text("AA:BB:CC:DD:EE:00")},
                                     {"Pairable", boolean(true)},
                                     {"Powered", boolean(true)},
                                     {"Discovering", boolean(true)}};
        const PropertyMap device = {{"Address", text("AA:BB:CC:DD:EE:01")},
                                    {"Alias", text("VEXA RC")},
                                    {"Name", text("VEXA RC")},
                                    {"Connected", boolean(true)},
                                    {"Paired", boolean(true)},
                                    {"Trusted", boolean(true)},
                                    {"RSSI", int16(-40)},
                                    {"ServicesResolved", boolean(true)}};
        addAdapter(kAdapter, adapter);
        addDevice(kDevice, device);
        addService();
        addCharacteristic();
        addDescriptor();
        for (const char* method : {"StartDiscovery", "StopDiscovery", "RemoveDevice", "Connect", "Disconnect",
                                   "Pair", "Set", "StartNotify", "StopNotify", "WriteValue"}) {
            sim->bend(Bend::answer(method, nothing()));
        }
        sim->bend(Bend::answer("ReadValue", Variant::parse("([byte 80],)")));
        startWatched();
    }

    bool call() { return GetParam().call(*client, GetParam().path); }
};

const auto nameOfOperation = [](const auto& test) { return std::string(test.param.name); };

// --- While a proxy is made ---

/// The event thread stands in the making of a device's proxy, which it does under the lock.
class TheMakingOfAProxy
{
public:
    TheMakingOfAProxy()
    {
        mSpy.onCall([this](const GioSpy::Call& call) {
            if (call.function == "g_dbus_proxy_new_sync") {
                mBegun.set_value();
                mMayGoOn.get_future().wait_for(kit::kPatience);
            }
        });
    }

    bool awaitBegin() { return mBegun.get_future().wait_for(kit::kPatience) == kReady; }
    void goOn() { mMayGoOn.set_value(); }

    /// Runs `task` on a thread of its own. True if it meets the lock on its way, false if it ends before.
    bool makesWait(const std::function<void()>& task)
    {
        mTask = std::async(std::launch::async, [task] {
            task();
            tell(&Race::ended);
        });
        Race& race = theRace();
        std::unique_lock lock(race.mutex);
        EXPECT_TRUE(race.news.wait_for(lock, kit::kPatience, [&] { return race.waits || race.ended; }));
        return !race.ended;
    }
    bool awaitTask() { return mTask.wait_for(kit::kPatience) == kReady; }

private:
    static constexpr auto kReady = std::future_status::ready;

    GioSpy mSpy;
    std::promise<void> mBegun;
    std::promise<void> mMayGoOn;
    std::future<void> mTask;
};

TEST_P(AnOperation, RunsWhileAProxyIsMade)
{
    TheMakingOfAProxy making;
    addDevice(kOtherDevice);
    ASSERT_TRUE(making.awaitBegin());
    std::atomic<bool> done{false};

    const bool waits = making.makesWait([&] { done = call(); });

    EXPECT_FALSE(waits);
    EXPECT_TRUE(waits || done) << testing::PrintToString(log.lines("EW"));
    making.goOn();
    EXPECT_TRUE(making.awaitTask());
    settle();
}

INSTANTIATE_TEST_SUITE_P(OnAPath, AnOperation, testing::ValuesIn(kOperations), nameOfOperation);

struct Lister {
    const char* name;
    void (*call)(Bluez&, Bluez::Listener&);
};
std::ostream& operator<<(std::ostream& out, const Lister& lister)
{
    return out << lister.name;
}

class AnOperationOnTheTables : public AClientWhoseLockIsWatched, public testing::WithParamInterface<Lister>
{
};

TEST_P(AnOperationOnTheTables, WaitsUntilTheProxyIsMade)
{
    startWatched();
    TheMakingOfAProxy making;
    addDevice(kOtherDevice);
    ASSERT_TRUE(making.awaitBegin());

    EXPECT_TRUE(making.makesWait([&] { GetParam().call(*client, others.front()); }));

    making.goOn();
    EXPECT_TRUE(making.awaitTask());
    settle();
    EXPECT_EQ(client->getDevices(), Lines{kOtherDevice});
}

INSTANTIATE_TEST_SUITE_P(
    Such, AnOperationOnTheTables,
    testing::Values(
        Lister{"AsSubscribe", [](Bluez& client, Bluez::Listener& one) { client.subscribe(&one); }},
        Lister{"AsUnsubscribe", [](Bluez& client, Bluez::Listener& one) { client.unsubscribe(&one); }},
        Lister{"AsGetListeners", [](Bluez& client, Bluez::Listener&) { client.getListeners(); }},
        Lister{"AsGetAdapters", [](Bluez& client, Bluez::Listener&) { client.getAdapters(); }},
        Lister{"AsGetDevices", [](Bluez& client, Bluez::Listener&) { client.getDevices(); }},
        Lister{"AsDebugPrintProxies", [](Bluez& client, Bluez::Listener&) { client.debugPrintProxies(); }}),
    nameOfOperation);

// --- When an object goes in the middle of an operation ---

class AnOperationThroughAProxy : public AnOperation
{
protected:
    void SetUp() override
    {
        AnOperation::SetUp();
        // So that GLib gets a living object from an operation that has let go of its own.
        mKept = proxyOf(GetParam().path);
        ASSERT_NE(mKept, nullptr);
        g_object_ref(mKept);
    }
    void TearDown() override { g_clear_object(&mKept); }

private:
    GDBusProxy* proxyOf(const std::string& path)
    {
        using namespace inside;
        if (path == kAdapter) {
            return ABusWithBlueZ::proxyOf<AdapterProxies>(path);
        }
        if (path == kDevice) {
            return ABusWithBlueZ::proxyOf<DeviceProxies>(path);
        }
        if (path == kService) {
            return ABusWithBlueZ::proxyOf<ServiceProxies>(path);
        }
        return path == kCharacteristic ? ABusWithBlueZ::proxyOf<CharacteristicProxies>(path)
                                       : ABusWithBlueZ::proxyOf<DescriptorProxies>(path);
    }

    GDBusProxy* mKept = nullptr;
};

TEST_P(AnOperationThroughAProxy, KeepsItAloneIfItSharesIt)
{
    const std::size_t keeps = GetParam().proxy == Proxy::Shared ? 1 : 0;
    std::size_t releasedWithin = 0;
    bool removed = false;
    GioSpy spy;
    spy.onCall([&](const GioSpy::Call& call) {
        if (!removed && call.path == GetParam().path) {
            removed = true;
            removeAlone(call.path, call.interface);
            settle();
            releasedWithin = unrefs();
        }
    });

    call();

    ASSERT_TRUE(removed);
    EXPECT_EQ(releasedWithin, 1 - keeps);
    EXPECT_EQ(unrefs(), 1U);
}

std::vector<Operation> operationsThroughAProxy()
{
    std::vector<Operation> found;
    for (const Operation& operation : kOperations) {
        if (operation.proxy != Proxy::None) {
            found.push_back(operation);
        }
    }
    return found;
}

INSTANTIATE_TEST_SUITE_P(OnAPath, AnOperationThroughAProxy, testing::ValuesIn(operationsThroughAProxy()),
                         nameOfOperation);

// --- Callbacks ---

// A callback under the lock would end the process: it isn't recursive.
TEST_F(AClientWhoseLockIsWatched, LetsAListenerAskForTheLockInEveryCallback)
{
    std::size_t asked = 0;
    listener.onEvent = [&](const std::string&) {
        client->subscribe(&others.front());
        client->unsubscribe(&others.front());
        asked += client->getListeners().count(&listener);
        client->getAdapters();
        client->getDevices();
        client->debugPrintProxies();
    };
    startWatched();

    addAll();
    settle();
    sim->emitPropertiesChanged(kDevice, kDeviceInterface,
                               {{"Paired", boolean(true)},
                                {"Connected", boolean(true)},
                                {"ServicesResolved", boolean(true)},
                                {"RSSI", int16(-40)}});
    sim->emitPropertiesChanged(kCharacteristic, kCharacteristicInterface, {{"Value", Variant::bytes({1})}});
    sim->removeObject(kAdapter); // and all below it
    settle();

    destroy();
    EXPECT_EQ(asked, 15U) << testing::PrintToString(listener.events());
}

struct Told {
    const char* name;
    const char* path;
    int refusals; ///< of a second release, when its listeners have been told of it
};
std::ostream& operator<<(std::ostream& out, const Told& told)
{
    return out << told.path;
}

class AnObject : public AClientWhoseLockIsWatched, public testing::WithParamInterface<Told>
{
};

TEST_P(AnObject, ReleasesTheLockASecondTimeOnlyAfterAGattArrival)
{
    std::vector<int> refusedAtCallback;
    listener.onEvent = [&](const std::string&) { refusedAtCallback.push_back(refusedReleases); };
    startWatched();

    emitObjectAdded(GetParam().path);
    EXPECT_EQ(refusedReleases, GetParam().refusals);
    emitObjectRemoved(GetParam().path);
    EXPECT_EQ(refusedReleases, GetParam().refusals);

    destroy();
    EXPECT_EQ(refusedAtCallback, (std::vector<int>{0, GetParam().refusals}));
}

INSTANTIATE_TEST_SUITE_P(Such, AnObject,
                         testing::Values(Told{"AsAnAdapter", kAdapter, 0}, Told{"AsADevice", kDevice, 0},
                                         Told{"AsAService", kService, 1},
                                         Told{"AsACharacteristic", kCharacteristic, 1},
                                         Told{"AsADescriptor", kDescriptor, 1}),
                         nameOfOperation);

} // namespace
