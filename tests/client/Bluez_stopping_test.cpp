// SPDX-License-Identifier: MIT
// How the client and its event thread end, and which resources they release.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "Bluez.h"
#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

namespace
{

constexpr unsigned int kLongMs = 600000;

// The library's timeout for a call is 25 s: a client that ends well before that hasn't waited for it.
constexpr auto kSoon = std::chrono::seconds{20};

// With a sanitizer, a start, which reads all objects, and an event take far longer.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kManyStarts = 20;
constexpr std::size_t kManyEvents = 50;
#else
constexpr int kManyStarts = 100;
constexpr std::size_t kManyEvents = 200;
#endif

using AClient = ABusWithBlueZ;

TEST_F(AClient, LogsItsEndStepByStep)
{
    addAdapter();
    start();
    log.clear();

    destroy();

    const kit::Lines lines = log.lines();
    ASSERT_EQ(lines.size(), 5U) << testing::PrintToString(lines);
    EXPECT_EQ(kit::Lines(lines.begin(), lines.begin() + 4),
              (kit::Lines{"T Posting stopping task", "D Stopping loop task", "D Deiniting Bluez..",
                          "D Deiniting Bluez completed"}));
    // The proxies are released last, after the connection.
    EXPECT_EQ(lines.back().rfind("T Unref object 0x", 0), 0U) << lines.back();
}

// The client takes no reference to the context, but drops one.
TEST_F(AClient, GivesBackWhatItTookAndOneReferenceMoreOnTheContextAndItsProxiesLast)
{
    addAll();
    start();
    const GioSpy spy;

    destroy();

    EXPECT_EQ(spy.releases(), (kit::Lines{"GDBusObjectManagerClient", "GDBusConnection", "GCancellable",
                                          "GMainLoop", "GMainContext", "GDBusProxy", "GDBusProxy",
                                          "GDBusProxy", "GDBusProxy", "GDBusProxy"}));
}

// --- At any time ---

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
    // Holds the initial reporting of objects until the destructor has posted its task.
    listener.onEvent = [&](const std::string&) { EXPECT_TRUE(log.await("T Posting stopping task")); };
    construct();
    ASSERT_TRUE(listener.await(kAdapterKind.added()));

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
    EXPECT_EQ(log.count("D Init Bluez completed"), 0U) << "the constructor has waited for it";
    const auto begin = std::chrono::steady_clock::now();

    destroy();

    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSoon);
    EXPECT_EQ(log.lines("E"), kit::Lines{"E Creating object manager failed"});
    EXPECT_EQ(log.count("D Stopping loop task"), 0U);
}

using AClientWithoutBlueZ = ABus;

TEST_F(AClientWithoutBlueZ, CanBeDestroyed)
{
    start();
    log.clear();

    destroy();

    EXPECT_EQ(log.lines(), (kit::Lines{"T Posting stopping task", "D Stopping loop task",
                                       "D Deiniting Bluez..", "D Deiniting Bluez completed"}));
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

// --- The end of the loop ---

TEST(TheStoppingTask, EndsTheLoopAndRunsOnce)
{
    kit::LogRecorder::instance().clear();
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GSource* source = g_idle_source_new();
    g_source_set_callback(source, quit_task, loop, nullptr);
    g_source_attach(source, context);

    g_main_loop_run(loop);

    EXPECT_TRUE(g_source_is_destroyed(source));
    EXPECT_EQ(kit::LogRecorder::instance().lines("EWID"), (kit::Lines{"D Stopping loop task"}));
    EXPECT_EQ(quit_task(nullptr), FALSE);
    EXPECT_EQ(kit::LogRecorder::instance().lines("EWID").size(), 1U) << "for null it does nothing";
    g_source_unref(source);
    g_main_loop_unref(loop);
    g_main_context_unref(context);
}

class AClientThatIsDestroyed : public ABusWithBlueZ
{
protected:
    /// Holds the event thread at the next event until the destructor of `theClient` has posted its task and
    /// has cleared the running flag; `before` runs first.
    void holdTheNextEvent(const std::function<void()>& before = [] {})
    {
        listener.onEvent = [this, before](const std::string&) {
            before();
            Bluez* const held = theClient.get_future().get();
            while (held->isRunning()) {
                held->sleepMs(kLongMs); // the stop ends it
            }
        };
    }
    void destroyHeld()
    {
        theClient.set_value(client.get());
        destroy();
    }

    std::promise<Bluez*> theClient;
};

TEST_F(AClientThatIsDestroyed, DoesntEnterItsLoopIfThatComesBefore)
{
    addAdapter();
    holdTheNextEvent();
    construct();
    ASSERT_TRUE(listener.await(kAdapterKind.added()));

    destroyHeld();

    EXPECT_EQ(log.count("T Posting stopping task"), 1U);
    EXPECT_EQ(log.count("D Stopping loop task"), 0U) << "the loop has run it";
    EXPECT_EQ(log.count("D Deiniting Bluez completed"), 1U);
}

/// A source that runs once and records that.
class OneTask
{
public:
    explicit OneTask(int priority) : mSource(g_idle_source_new())
    {
        g_source_set_priority(mSource, priority);
        g_source_set_callback(
            mSource,
            [](gpointer task) -> gboolean {
                static_cast<OneTask*>(task)->mHasRun = true;
                return G_SOURCE_REMOVE;
            },
            this, nullptr);
    }
    ~OneTask()
    {
        g_source_destroy(mSource);
        g_source_unref(mSource);
    }
    OneTask(const OneTask&) = delete;
    OneTask& operator=(const OneTask&) = delete;

    void post() { g_source_attach(mSource, nullptr); }
    bool hasRun() const { return mHasRun; }

private:
    GSource* mSource;
    std::atomic<bool> mHasRun{false};
};

// The stopping task has the priority of an event: tasks queued before it run first, and tasks of lower
// priority never run.
TEST_F(AClientThatIsDestroyed, StopsBehindTheQueuedEventsAndBeforeAllElse)
{
    OneTask event(G_PRIORITY_DEFAULT);
    OneTask idle(G_PRIORITY_DEFAULT + 1);
    start();
    holdTheNextEvent([&] {
        event.post();
        idle.post();
    });
    addAdapter();
    ASSERT_TRUE(listener.await(kAdapterKind.added()));

    destroyHeld();

    EXPECT_TRUE(event.hasRun());
    EXPECT_FALSE(idle.hasRun());
}

// --- After a start that failed ---

class AClientWithoutABus : public ABus
{
protected:
    AClientWithoutABus() { bus->stop(); }
};

TEST_F(AClientWithoutABus, PostsATaskThatNeverRunsAndGivesNothingBack)
{
    const GioSpy spy;
    construct();
    ASSERT_TRUE(log.await("E Connection failed"));
    log.clear();

    destroy();

    EXPECT_EQ(log.lines(), kit::Lines{"T Posting stopping task"});
    EXPECT_EQ(spy.releases(), kit::Lines{});
}

TEST_F(AClientWithoutABus, CanBeDestroyedRightAfterItsConstruction)
{
    for (int i = 0; i < 100; ++i) {
        construct();
        destroy();
    }
    EXPECT_EQ(log.count("E Connection failed"), 100U);
}

// A socket that accepts a client and never answers, or not after the authentication.
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

    /// Returns when a client has connected and has begun to send.
    void awaitClient()
    {
        mClient = accept(mSocket, nullptr, nullptr);
        char byte = 0;
        EXPECT_EQ(read(mClient, &byte, 1), 1);
    }
    /// Authenticates a client and returns when it has sent Hello.
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
    EXPECT_EQ(log.lines("E"), kit::Lines{"E Connection failed"});
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

// 25 s is the D-Bus library's timeout: its greeting can't be cancelled.
TEST_F(AClientWithoutABus, CanBeDestroyedWithin25SecondsWhileTheBusIgnoresItsGreeting)
{
    AMuteBus mute(bus->socketPath());
    construct();
    mute.awaitHello();
    const auto begin = std::chrono::steady_clock::now();

    destroy();

    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds{25} + kSoon);
    EXPECT_EQ(log.lines("E"), kit::Lines{"E Connection failed"});
}

using AClientWithoutAnObjectManager = ABusWithBlueZ;

TEST_F(AClientWithoutAnObjectManager, PostsATaskThatNeverRunsAndGivesNothingBack)
{
    sim->bend(Bend::error("GetManagedObjects", "org.freedesktop.DBus.Error.AccessDenied"));
    const GioSpy spy;
    construct();
    ASSERT_TRUE(log.await("E Creating object manager failed"));
    GDBusConnection* const shared = connection();
    log.clear();

    destroy();

    EXPECT_EQ(log.lines(), kit::Lines{"T Posting stopping task"});
    // The simulator releases its own connection and messages meanwhile.
    const kit::Lines releases = spy.releases();
    for (const char* type : {"GCancellable", "GMainLoop", "GMainContext"}) {
        EXPECT_EQ(std::count(releases.begin(), releases.end(), type), 0) << type;
    }
    EXPECT_FALSE(spy.hasReleased(shared));
}

} // namespace
