// SPDX-License-Identifier: MIT
// An interrupt in the middle of a storm of events ends the daemon cleanly.

#include <atomic>
#include <random>
#include <thread>

#include "tests/kit/Box.h"
#include "tests/kit/Objects.h"

namespace kit
{

using std::chrono_literals::operator""ms;

namespace
{

constexpr int kRounds = 15;
constexpr int kDevices = 6;

/// Adds, changes and removes devices for as long as it lives, in batches, as fast as the bus takes them. Each
/// batch waits until the daemon has asked for the names of the last one's devices, so that the queues stay
/// equally full on a slow machine. With no daemon to ask, it continues after a while.
class Storm
{
public:
    explicit Storm(vexasim::Simulator& sim) : mSim(sim), mThread([this] { blow(); }) {}
    ~Storm()
    {
        mEnding = true;
        mThread.join();
    }
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;

private:
    void blow()
    {
        while (!mEnding) {
            mSim.clearCalls();
            for (int i = 0; i < kDevices; ++i) {
                comeAndGo(i);
            }
            mSim.awaitCall("Get", "", kDevices, 500ms);
        }
    }

    void comeAndGo(int i)
    {
        const std::string path = "/org/bluez/hci0/dev_00_00_00_00_00_0" + std::to_string(i);
        const std::string name = i % 2 == 0 ? "VEXA RC" : "TV";
        mSim.addObject(path, deviceObject(name, "00:00:00:00:00:00", true, false));
        for (const gboolean value : {gboolean{TRUE}, gboolean{FALSE}, gboolean{TRUE}}) {
            mSim.setProperty(path, "org.bluez.Device1", "Connected", g_variant_new_boolean(value));
            mSim.setProperty(path, "org.bluez.Device1", "Paired", g_variant_new_boolean(TRUE));
            mSim.setProperty(path, "org.bluez.Device1", "RSSI", g_variant_new_int16(-50));
        }
        mSim.removeObject(path);
    }

    vexasim::Simulator& mSim;
    std::atomic<bool> mEnding{false};
    std::thread mThread;
};

class AStormOfEvents : public InABox
{
protected:
    AStormOfEvents() : InABox(noRemote()) {}
};

TEST_F(AStormOfEvents, DoesntKeepAnInterruptFromStoppingTheDaemonInOrder)
{
    std::minstd_rand random(1);
    const Storm storm(box.sim());
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        box.startDaemon();
        ASSERT_TRUE(box.log().await(beginsLog(DEBUG, "main", "Device: + ")));
        // Somewhere in the start-up or the first passes; it makes no difference where.
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 900));
        ASSERT_TRUE(box.stops());
        for (const char* name : {"bluetooth_status", "bluetooth_rc", "bluetooth_rc_battery"}) {
            EXPECT_FALSE(box.exists(name)) << name;
        }
    }
}

} // namespace

} // namespace kit
