// SPDX-License-Identifier: MIT
#include "tests/kit/Box.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>

namespace kit
{

namespace
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

constexpr const char* kRoot = "/org/bluez/";
constexpr const char* kBlueZ = "org.bluez.";
constexpr const char* kFreedesktop = "org.freedesktop.";

std::string without(const std::string& beginning, const std::string& text)
{
    return text.compare(0, beginning.size(), beginning) == 0 ? text.substr(beginning.size()) : text;
}

bool isOfGDBus(const vexasim::Call& call)
{
    return call.member == "GetAll" || call.member == "GetManagedObjects" || call.member == "Introspect";
}

LogPredicate passBegins()
{
    return [](const LogRecord& record) {
        return record.level == TRACE && (record.text == "IDLING..." || record.text == "ACTIVATING...");
    };
}

} // namespace

std::string shortText(const vexasim::Call& call)
{
    return without(kRoot, call.path) + " " + without(kFreedesktop, without(kBlueZ, call.interface)) + "." +
           call.member + " " + call.parameters.text();
}

std::string busError(const std::string& name, const std::string& message)
{
    return "GDBus.Error:" + name + ": " + message;
}

BoxOptions pairedRemote()
{
    BoxOptions options;
    options.simulator.remote.paired = true;
    return options;
}

BoxOptions noRemote()
{
    BoxOptions options;
    options.simulator.withRemote = false;
    return options;
}

Box::Box(BoxOptions options) : mOptions(std::move(options))
{
    mOptions.simulator.busDirectory = runFolder() + "/dbus";
    mSimulator = std::make_unique<vexasim::Simulator>(mOptions.simulator);
    mAnother = std::make_unique<BusConnection>(mSimulator->busAddress());
}

void Box::startDaemon(const std::vector<std::string>& arguments)
{
    Environment environment = mOptions.environment;
    environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/run/dbus/bus";
    startOwn(VEXABOX_DAEMON, arguments, environment);
}

bool Box::startAndSkipWait()
{
    startDaemon();
    const LogPredicate loop = isLog(DEBUG, "main", "process loop start");
    if (!log().await(isLog(DEBUG, "main", "Waiting RC..."))) {
        return false;
    }
    // The daemon reads the clock after that line, perhaps only now: try again.
    const auto end = std::chrono::steady_clock::now() + kPatience;
    do {
        clock().advance(5s);
        if (log().await(loop, 200ms)) {
            return true;
        }
    } while (std::chrono::steady_clock::now() < end && program().running());
    return false;
}

bool Box::startToIdle()
{
    return startAndSkipWait() && awaitPasses(1);
}

bool Box::startConnected()
{
    startDaemon();
    return mSimulator->awaitProperty(remotePath(), "org.bluez.Device1", "ServicesResolved",
                                     g_variant_new_boolean(TRUE), kPatience) &&
           log().awaitCount(isLog(DEBUG, "main", "VEXA RC services resolved status changed: resolved"), 1) &&
           awaitStatus("connected");
}

bool Box::awaitPasses(unsigned count)
{
    // The current pass may have checked things before they changed, and the start of the next pass is the end
    // of the previous one.
    return log().awaitCount(passBegins(), passesBegun() + count + 1);
}

std::size_t Box::passesBegun()
{
    return log().count(passBegins());
}

bool Box::awaitEvents()
{
    // The daemon only logs the arrival of this object; its event thread handles one event at a time.
    std::array<char, 40> path{};
    std::snprintf(path.data(), path.size(), "/org/bluez/marker/desc%04x", ++mMarkers);
    mSimulator->addObject(path.data(), {{"org.bluez.GattDescriptor1", {{"UUID", g_variant_new_string("")}}}});
    return log().awaitCount(isLog(DEBUG, "main", std::string("+GATT Descriptor: ") + path.data()), 1);
}

bool Box::stopClock()
{
    clock().stop();
    return program().awaitMainThreadInNextSleep();
}

bool Box::pass(std::chrono::microseconds step)
{
    const std::size_t begun = passesBegun();
    clock().advance(step);
    // Between passes the loop only sleeps, so its next sleep marks the end of the pass.
    return log().awaitCount(passBegins(), begun + 1) && program().awaitMainThreadInUsleep();
}

bool Box::makesNoPass()
{
    const std::size_t begun = passesBegun();
    return program().awaitMainThreadInNextSleep() && program().awaitMainThreadInNextSleep() &&
           passesBegun() == begun;
}

::testing::AssertionResult Box::stops()
{
    interrupt();
    const auto exit = awaitExit();
    if (exit && *exit == Exit::with(0)) {
        return ::testing::AssertionSuccess();
    }
    auto failure = ::testing::AssertionFailure();
    return exit ? failure << "ended by " << *exit : failure << "still runs";
}

bool Box::awaitLog(Level level, const std::string& module, const std::string& text,
                   std::chrono::milliseconds limit)
{
    return log().await(isLog(level, module, text), limit);
}

std::size_t Box::countLog(Level level, const std::string& module, const std::string& text)
{
    return log().count(isLog(level, module, text));
}

std::vector<std::string> Box::logOf(const std::string& module, Level upTo)
{
    static const std::string order = "EWIDT";
    std::vector<std::string> lines;
    for (const LogRecord& record : log().records()) {
        if (!record.foreign && record.module == module && order.find(record.level) <= order.find(upTo)) {
            lines.push_back(std::string(1, static_cast<char>(record.level)) + " " + record.text);
        }
    }
    return lines;
}

bool Box::awaitStatus(const std::string& word)
{
    return files().await("bluetooth_status", word);
}

bool Box::isOfDaemon(const vexasim::Call& call) const
{
    return call.sender != mAnother->uniqueName();
}

bool Box::awaitWaitAt(const std::string& word)
{
    return awaitStatus(word) && program().awaitMainThreadOnCondition();
}

std::vector<std::string> Box::busCalls() const
{
    std::vector<std::string> texts;
    for (const vexasim::Call& call : mSimulator->calls()) {
        if (isOfDaemon(call) && !isOfGDBus(call)) {
            texts.push_back(shortText(call));
        }
    }
    return texts;
}

std::vector<std::string> Box::busCalls(const std::vector<std::string>& members) const
{
    std::vector<std::string> texts;
    for (const vexasim::Call& call : mSimulator->calls()) {
        if (isOfDaemon(call) && std::find(members.begin(), members.end(), call.member) != members.end()) {
            texts.push_back(shortText(call));
        }
    }
    return texts;
}

std::string Box::pathOf(const std::string& uuid)
{
    return mSimulator->pathOf(*remote().normal(), uuid);
}

void Box::loseAdapterAlone()
{
    const std::string path = mSimulator->adapterPath();
    // The object exists for as long as it has an interface.
    for (const char* interface :
         {"org.bluez.Adapter1", "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Properties"}) {
        mSimulator->removeInterface(path, interface);
    }
}

bool Box::callAsAnother(const std::string& path, const std::string& interface, const std::string& member)
{
    return mAnother->call(path, interface + "." + member).error.empty();
}

void Box::connectRemote()
{
    callAsAnother(remotePath(), "org.bluez.Device1", "Connect");
    mSimulator->awaitProperty(remotePath(), "org.bluez.Device1", "ServicesResolved",
                              g_variant_new_boolean(TRUE), kPatience);
}

void Box::disconnectRemote()
{
    callAsAnother(remotePath(), "org.bluez.Device1", "Disconnect");
    mSimulator->awaitProperty(remotePath(), "org.bluez.Device1", "Connected", g_variant_new_boolean(FALSE),
                              kPatience);
}

std::string Box::describe()
{
    constexpr std::size_t kFirst = 20;
    constexpr std::size_t kLast = 40; // in between are the blocks of an update
    const std::vector<std::string> calls = busCalls();
    std::string text = Room::describe() + "  the calls to BlueZ:\n";
    for (std::size_t i = 0; i < calls.size(); ++i) {
        if (i == kFirst && calls.size() > kFirst + kLast) {
            i = calls.size() - kLast;
            text += "    ... " + std::to_string(i - kFirst) + " more ...\n";
        }
        text += "    " + calls[i] + "\n";
    }
    return text;
}

void InABox::startAtRest()
{
    ASSERT_TRUE(box.startToIdle());
    ASSERT_TRUE(box.stopClock());
    box.log().skip();
}

void InABox::startConnectedAtRest()
{
    ASSERT_TRUE(box.startConnected());
    ASSERT_TRUE(box.awaitPasses(1));
    ASSERT_TRUE(box.stopClock());
    box.log().skip();
    box.sim().clearCalls();
}

void InABox::startDisconnectedAtRest()
{
    const vexasim::BendId bend = box.sim().bend(vexasim::Bend::answer("Connect", g_variant_new("()")));
    box.clock().stop();
    box.startDaemon();
    ASSERT_LOG(box, TRACE, "main", "IDLING...");
    ASSERT_TRUE(box.awaitStatus("disconnected"));
    ASSERT_TRUE(box.program().awaitMainThreadInUsleep());
    box.sim().unbend(bend);
    box.log().skip();
    box.sim().clearCalls();
}

void InABox::expectHandlersToWaitFor(const std::string& member)
{
    ASSERT_TRUE(box.sim().awaitCall(member, "", 1, kPatience));
    const std::string path = std::string(kRoot) + "hci0/dev_C0_FF_EE_00_00_0F";
    box.sim().addObject(path, {{"org.bluez.Device1", {{"Name", g_variant_new_string("TV")}}}});
    ASSERT_TRUE(box.sim().awaitCall("Get", path, 1, kPatience)); // for its name

    const std::chrono::microseconds wait(box.sim().calls("Get", path).front().timeUs -
                                         box.sim().calls(member).front().timeUs);
    EXPECT_GT(wait, kLateAnswer / 2) << "the handler went on before " << member << " was answered";
}

void InABox::TearDown()
{
    if (HasFailure()) {
        std::cerr << "What was seen:\n" << box.describe();
    }
}

} // namespace kit
