// SPDX-License-Identifier: MIT
// The client's one lock: which operations wait for it, which don't, and how long an operation that doesn't
// lock it keeps the proxy that it has found.
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <future>
#include <mutex>
#include <pthread.h>
#include <thread>

#include "Bluez.h"
#include "tests/client/BluezOperations.h"
#include "tests/client/GioSpy.h"

int realLock(pthread_mutex_t*) __asm__("__real_pthread_mutex_lock");
int realUnlock(pthread_mutex_t*) __asm__("__real_pthread_mutex_unlock");
int wrappedLock(pthread_mutex_t*) __asm__("__wrap_pthread_mutex_lock");
int wrappedUnlock(pthread_mutex_t*) __asm__("__wrap_pthread_mutex_unlock");

namespace
{

constexpr const char* kOtherDevice = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_02";

// --- What the threads do to the client's lock ---

std::atomic<const void*> watchedLock{nullptr};
std::atomic<int> refusedReleases{0};

/// Whether an operation has tried to take the lock while another thread held it, or has ended.
struct Race {
    std::mutex mutex;
    std::condition_variable news;
    bool waits = false;
    bool ended = false;
};

Race& theRace()
{
    static Race& race = *new Race; // its users may live longer than a case
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

template <typename Fixture>
class WithAWatchedLock : public Fixture
{
public:
    ~WithAWatchedLock() override { watchedLock = nullptr; }

protected:
    /// Starts the client with the objects that exist and then watches its lock.
    void startWatched()
    {
        Fixture::start();
        watchedLock = &((*this->client).*inside::kMembers.mutex);
        refusedReleases = 0;
    }
};

using AClientWhoseLockIsWatched = WithAWatchedLock<ABusWithBlueZ>;

class AnOperation : public WithAWatchedLock<ABusWithEverything>, public testing::WithParamInterface<Operation>
{
protected:
    void SetUp() override
    {
        ABusWithEverything::SetUp();
        startWatched();
    }

    std::string call() { return operation.call(*client, operation.kind->path); }

    const Operation& operation = GetParam();
};

// --- While a proxy is created ---

/// Holds the event thread while it creates a device's proxy, which it does under the lock.
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

    /// Runs `task` on a thread of its own. True if it has to wait for the lock, false if it ends without.
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
    std::string outcome;

    EXPECT_FALSE(making.makesWait([&] { outcome = call(); }));

    making.goOn();
    EXPECT_TRUE(making.awaitTask());
    EXPECT_NE(outcome, operation.refused) << testing::PrintToString(log.lines("EW"));
    settle();
}

INSTANTIATE_TEST_SUITE_P(OnAPath, AnOperation, testing::ValuesIn(operations()), kit::named);

struct Lister : kit::NamedCase {
    void (*call)(Bluez&, Bluez::Listener&);
};

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
    EXPECT_EQ(client->getDevices(), kit::Lines{kOtherDevice});
}

INSTANTIATE_TEST_SUITE_P(
    Such, AnOperationOnTheTables,
    testing::Values(
        Lister{{"AsSubscribe"}, [](Bluez& client, Bluez::Listener& one) { client.subscribe(&one); }},
        Lister{{"AsUnsubscribe"}, [](Bluez& client, Bluez::Listener& one) { client.unsubscribe(&one); }},
        Lister{{"AsGetListeners"}, [](Bluez& client, Bluez::Listener&) { client.getListeners(); }},
        Lister{{"AsGetAdapters"}, [](Bluez& client, Bluez::Listener&) { client.getAdapters(); }},
        Lister{{"AsGetDevices"}, [](Bluez& client, Bluez::Listener&) { client.getDevices(); }},
        Lister{{"AsDebugPrintProxies"}, [](Bluez& client, Bluez::Listener&) { client.debugPrintProxies(); }}),
    kit::named);

// --- When an object is removed during an operation ---

class AnOperationThroughAProxy : public AnOperation
{
protected:
    void SetUp() override
    {
        AnOperation::SetUp();
        // So that GLib still gets a valid object from an operation that has dropped its reference.
        mKept = proxyOf(*operation.kind);
        ASSERT_NE(mKept, nullptr);
        g_object_ref(mKept);
    }
    void TearDown() override { g_clear_object(&mKept); }

private:
    GDBusProxy* mKept = nullptr;
};

TEST_P(AnOperationThroughAProxy, KeepsItAloneIfItSharesIt)
{
    const std::size_t keeps = operation.proxy == Proxy::Shared ? 1 : 0;
    std::size_t releasedWithin = 0;
    bool removed = false;
    GioSpy spy;
    spy.onCall([&](const GioSpy::Call& call) {
        if (!removed && call.path == operation.kind->path) {
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

INSTANTIATE_TEST_SUITE_P(OnAPath, AnOperationThroughAProxy, testing::ValuesIn(operationsThroughAProxy()),
                         kit::named);

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
        asked += client->adapterSetPowered(kAdapter, true) ? 1 : 0; // also a call over the bus
    };
    sim->bend(Bend::answer("Set", nothing()));
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
    EXPECT_EQ(asked, 2 * 15U) << testing::PrintToString(listener.events());
}

class AnObject : public AClientWhoseLockIsWatched, public testing::WithParamInterface<Kind>
{
};

TEST_P(AnObject, ReleasesTheLockASecondTimeOnlyAfterAGattArrival)
{
    const Kind& kind = GetParam();
    const int refusals = kind.path == kAdapter || kind.path == kDevice ? 0 : 1;
    std::vector<int> refusedAtCallback;
    listener.onEvent = [&](const std::string&) { refusedAtCallback.push_back(refusedReleases); };
    startWatched();

    emitObjectAdded(kind.path);
    EXPECT_EQ(refusedReleases, refusals);
    emitObjectRemoved(kind.path);
    EXPECT_EQ(refusedReleases, refusals);

    destroy();
    EXPECT_EQ(refusedAtCallback, (std::vector<int>{0, refusals}));
}

INSTANTIATE_TEST_SUITE_P(Such, AnObject, testing::ValuesIn(kKinds), kit::named);

} // namespace
