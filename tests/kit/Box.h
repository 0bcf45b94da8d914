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
    /// Over the daemon's defaults. The trace of "main" shows every pass.
    Environment environment = {{"VEXA_LOG_TRACE_MODULES", "main"}};
};

/// With a remote that has been paired before.
BoxOptions pairedRemote();
/// With nothing on the air.
BoxOptions noRemote();

/// A set-top box for one daemon: the room, a bus, and the simulated BlueZ with its remote. The daemon's real
/// binary runs in it.
class Box : public Room
{
public:
    explicit Box(BoxOptions options = {});

    vexasim::Simulator& sim() { return *mSimulator; }
    vexasim::Remote& remote() { return mSimulator->remote(); }
    BoxOptions& options() { return mOptions; }

    /// Starts the daemon and returns at once.
    void startDaemon(const std::vector<std::string>& arguments = {});
    /// Starts it and has its start-up behind it: returns in the main loop, after the first pass. The five
    /// seconds for the remote pass at once.
    bool startToIdle();
    /// Starts it and lets the five seconds pass; nothing of the main loop is awaited.
    bool startAndSkipWait();
    /// Starts it with a remote that is paired (see pairedRemote()): returns when the daemon has connected it,
    /// knows its services and publishes it.
    bool startConnected();
    /// Until `count` idle passes have begun and ended from now on.
    bool awaitPasses(unsigned count = 2);
    /// Until the daemon has dealt with everything that BlueZ has told so far. A line of the log may come
    /// before what it tells of: a handler logs, and then does it.
    bool awaitEvents();
    /// Stops the daemon's clock between two passes of its main loop. From here on it makes one only when
    /// pass() lets it.
    bool stopClock();
    /// Moves the stopped clock on and sees one pass in State_eIdle or State_eActivation through.
    bool pass(std::chrono::microseconds step = std::chrono::milliseconds{500});
    /// Sees that the loop looks at the stopped clock again and makes no pass.
    bool makesNoPass();
    /// An interrupt, and the end with status 0.
    ::testing::AssertionResult stops();

    bool awaitLog(Level level, const std::string& module, const std::string& text,
                  std::chrono::milliseconds limit = kPatience);
    std::size_t countLog(Level level, const std::string& module, const std::string& text);
    /// Summaries of one module's records up to a level, in order.
    std::vector<std::string> logOf(const std::string& module, Level upTo = DEBUG);
    bool awaitStatus(const std::string& word);
    /// Until pair() has published "scanning" or "pairing" and waits behind that.
    bool awaitWaitAt(const std::string& word);
    /// The course of /tmp/bluetooth_status.
    std::vector<std::string> statusCourse() { return files().course("bluetooth_status"); }

    // --- what reaches BlueZ ---
    /// The daemon's calls in order, as "hci0 Adapter1.StartDiscovery ()". Those that GDBus makes to load a
    /// proxy's properties are left out.
    std::vector<std::string> busCalls() const;
    /// The same, of these members only.
    std::vector<std::string> busCalls(const std::vector<std::string>& members) const;

    // --- the remote on the bus ---
    std::string remotePath() { return mSimulator->remotePath(); }
    std::string pathOf(const std::string& uuid);
    /// Another program of the box connects it; returns when its services are known.
    void connectRemote();
    void disconnectRemote();
    /// BlueZ tells that the adapter has gone, and nothing of its devices yet.
    void loseAdapterAlone();
    /// A call of another program of the box. Returns whether it was answered well.
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

/// How GDBus words an error of BlueZ in the daemon's log.
std::string busError(const std::string& name, const std::string& message);

/// The fixture of all cases: one box, and a report of what was seen on failure.
class InABox : public ::testing::Test
{
protected:
    explicit InABox(BoxOptions options = {}) : box(std::move(options)) {}
    void TearDown() override;

    /// The daemon in its main loop, its clock stopped between two passes.
    void startAtRest();
    /// The same with a remote that it has connected; see pairedRemote().
    void startConnectedAtRest();
    /// The same with a paired remote that is away. The first pass, at which the daemon saw that, was at the
    /// time that the clock shows.
    void startDisconnectedAtRest();

    /// Expects that what a handler does under the daemon's lock waits for the answer to the first call of
    /// `member`, which the case has bent to be handled kLateAnswer late.
    void expectHandlersToWaitFor(const std::string& member);
    static constexpr std::chrono::milliseconds kLateAnswer{1000};

    Box box;
};

} // namespace kit

/// Awaits a record behind the one awaited last.
#define EXPECT_LOG(box, level, module, text)                                                                 \
    EXPECT_TRUE((box).awaitLog(kit::level, module, text)) << "no " #level " of " << (module) << ": " << (text)
#define ASSERT_LOG(box, level, module, text)                                                                 \
    ASSERT_TRUE((box).awaitLog(kit::level, module, text)) << "no " #level " of " << (module) << ": " << (text)
/// No such record so far; await something later first.
#define EXPECT_NO_LOG(box, level, module, text) EXPECT_EQ(0U, (box).countLog(kit::level, module, text))
