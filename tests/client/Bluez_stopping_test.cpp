// SPDX-License-Identifier: MIT
// How the event thread comes to its end, and what a start that fails leaves behind.
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>

namespace
{

constexpr unsigned int kLongMs = 600000;

// --- The end of the loop ---

class AClientThatIsDestroyed : public ABusWithBlueZ
{
protected:
    /// Holds the event thread at the next event until the destructor of `theClient` has posted its task and
    /// has cleared the mark; `before` runs first.
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
    ASSERT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter));

    destroyHeld();

    EXPECT_EQ(log.count("T Posting stopping task"), 1U);
    EXPECT_EQ(log.count("D Stopping loop task"), 0U) << "the loop has run it";
    EXPECT_EQ(log.count("D Deiniting Bluez completed"), 1U);
}

/// A source that runs once and notes it.
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

// The stopping task is as urgent as an event: what was queued before comes first, what is less urgent never.
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
    ASSERT_TRUE(listener.await(std::string("onAdapterAdded ") + kAdapter));

    destroyHeld();

    EXPECT_TRUE(event.hasRun());
    EXPECT_FALSE(idle.hasRun());
}

// --- A start that fails ---

using AStartWithoutABus = ABus;

TEST_F(AStartWithoutABus, GivesNothingBack)
{
    bus->stop();
    const GioSpy spy;
    construct();
    ASSERT_TRUE(log.await("E Connection failed"));

    destroy();

    EXPECT_EQ(spy.releases(), Lines{});
}

using AStartWithoutAnObjectManager = ABusWithBlueZ;

TEST_F(AStartWithoutAnObjectManager, GivesNothingBack)
{
    sim->bend(Bend::error("GetManagedObjects", "org.freedesktop.DBus.Error.AccessDenied"));
    const GioSpy spy;
    construct();
    ASSERT_TRUE(log.await("E Creating object manager failed"));
    GDBusConnection* const shared = connection();

    destroy();

    // The simulator gives its own connection and messages back meanwhile.
    const Lines releases = spy.releases();
    for (const char* type : {"GCancellable", "GMainLoop", "GMainContext"}) {
        EXPECT_EQ(std::count(releases.begin(), releases.end(), type), 0) << type;
    }
    EXPECT_EQ(spy.releasesOf(shared), 0);
}

} // namespace
