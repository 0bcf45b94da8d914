// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/bluez/Simulator.h"
#include "tests/kit/Bus.h"
#include "tests/kit/Room.h"

namespace kit
{

struct BoxOptions {
    vexasim::SimulatorOptions simulator;
    /// Overrides the daemon's defaults. The trace of "main" shows every pass.
    Environment environment = {{"VEXA_LOG_TRACE_MODULES", "main"}};
};

/// With a remote that is already paired.
BoxOptions pairedRemote();
/// With no remote.
BoxOptions noRemote();

/// A simulated set-top box in which the daemon's real binary runs: the room, a bus, and the simulated BlueZ
/// with its remote.
class Box : public Room
{
public:
    explicit Box(BoxOptions options = {});

    vexasim::Simulator& sim() { return *mSimulator; }
    vexasim::Remote& remote() { return mSimulator->remote(); }
    BoxOptions& options() { return mOptions; }

    /// Starts the daemon and returns at once.
    void startDaemon(const std::vector<std::string>& arguments = {});
    /// Starts the daemon and returns after the first pass of its main loop. Skips the five seconds' wait for
    /// the remote.
    bool startToIdle();
    /// Starts the daemon and skips the five seconds' wait; doesn't wait for a pass of the main loop.
    bool startAndSkipWait();
    /// Starts the daemon with a paired remote (see pairedRemote()): returns when the daemon has connected it,
    /// knows its services and publishes it.
    bool startConnected();
    /// Waits until `count` more idle passes have begun and ended.
    bool awaitPasses(unsigned count = 2);
    /// Waits until the daemon has handled everything that BlueZ has reported so far. A log line can precede
    /// the action that it reports: a handler first logs and then acts.
    bool awaitEvents();
    /// Stops the daemon's clock between two passes of its main loop. From then on only pass() lets it make
    /// one.
    bool stopClock();
    /// Advances the stopped clock and waits for one complete pass in State_eIdle or State_eActivation.
    bool pass(std::chrono::microseconds step = std::chrono::milliseconds{500});
    /// Whether the loop reads the stopped clock again and makes no pass.
    bool makesNoPass();
    /// Interrupts the daemon and expects it to end with status 0.
    ::testing::AssertionResult stops();

    bool awaitLog(Level level, const std::string& module, const std::string& text,
                  std::chrono::milliseconds limit = kPatience);
    std::size_t countLog(Level level, const std::string& module, const std::string& text);
    /// Summaries of one module's records up to a level, in order.
    std::vector<std::string> logOf(const std::string& module, Level upTo = DEBUG);
    bool awaitStatus(const std::string& word);
    /// Waits until pair() has published "scanning" or "pairing" and is waiting for the result.
    bool awaitWaitAt(const std::string& word);
    /// The history of /tmp/bluetooth_status.
    std::vector<std::string> statusCourse() { return files().course("bluetooth_status"); }

    // --- calls to BlueZ ---
    /// The daemon's calls in order, as "hci0 Adapter1.StartDiscovery ()". Those that GDBus makes to load a
    /// proxy's properties are left out.
    std::vector<std::string> busCalls() const;
    /// The same for these members only.
    std::vector<std::string> busCalls(const std::vector<std::string>& members) const;

    // --- the remote on the bus ---
    std::string remotePath() { return mSimulator->remotePath(); }
    std::string pathOf(const std::string& uuid);
    /// Connects the remote as another program of the box; returns when its services are known.
    void connectRemote();
    void disconnectRemote();
    /// BlueZ reports the removal of the adapter, but not yet of its devices.
    void loseAdapterAlone();
    /// Makes a call as another program of the box. Returns whether it succeeded.
    bool callAsAnother(const std::string& path, const std::string& interface, const std::string& member);

    std::string describe() override;

private:
    std::size_t passesBegun();
    bool isOfDaemon(const vexasim::Call& call) const;

    BoxOptions mOptions;
    std::unique_ptr<vexasim::Simulator> mSimulator;
    std::unique_ptr<BusConnection> mAnother;
    unsigned mMarkers = 0;
};

/// "/org/bluez/hci0/dev_X" becomes "hci0/dev_X", "org.bluez.Device1" "Device1".
std::string shortText(const vexasim::Call& call);

/// An error of BlueZ as GDBus words it in the daemon's log.
std::string busError(const std::string& name, const std::string& message);

/// The base fixture: one box, and a report of what was seen if a case fails.
class InABox : public ::testing::Test
{
protected:
    explicit InABox(BoxOptions options = {}) : box(std::move(options)) {}
    void TearDown() override;

    /// Starts the daemon and stops its clock between two passes of the main loop.
    void startAtRest();
    /// The same with a remote that the daemon has connected; see pairedRemote().
    void startConnectedAtRest();
    /// The same with a paired remote that is disconnected. The daemon noticed that in its first pass, at the
    /// time that the clock shows.
    void startDisconnectedAtRest();

    /// Expects handlers that need the daemon's lock to wait for the answer to the first call of `member`,
    /// which the case has delayed by kLateAnswer.
    void expectHandlersToWaitFor(const std::string& member);
    static constexpr std::chrono::milliseconds kLateAnswer{1000};

    Box box;
};

} // namespace kit

/// Awaits a record after the one awaited last.
#define EXPECT_LOG(box, level, module, text)                                                                 \
    EXPECT_TRUE((box).awaitLog(kit::level, module, text)) << "no " #level " of " << (module) << ": " << (text)
#define ASSERT_LOG(box, level, module, text)                                                                 \
    ASSERT_TRUE((box).awaitLog(kit::level, module, text)) << "no " #level " of " << (module) << ": " << (text)
/// Expects no such record so far; await a later event first.
#define EXPECT_NO_LOG(box, level, module, text) EXPECT_EQ(0U, (box).countLog(kit::level, module, text))
