// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sim/bluez/BusConnection.h"
#include "sim/bluez/CallLog.h"
#include "sim/bluez/Device.h"
#include "sim/bluez/Dispatcher.h"
#include "sim/bluez/ObjectTree.h"
#include "sim/bluez/SchedulerThread.h"
#include "sim/bluez/SimulatorOptions.h"

namespace vexasim
{

class Adapters;
class Devices;

/// The simulated bluetoothd: its parts, what they share, and the start and stop of the process. Used on the
/// scheduler's thread, except for members that say otherwise.
class Core
{
public:
    Core(const SimulatorOptions& options, std::string busAddress);
    /// On the thread that constructed it.
    ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    void addRemote(const std::shared_ptr<Remote>& remote);
    void addPeripheral(const std::shared_ptr<Peripheral>& peripheral);
    /// Joins the bus, unless it already has. Throws std::runtime_error.
    void startService();
    void stopService(ServiceStop how);
    void say(const std::string& text) const;
    /// Runs `step` after the delay, if the device and its link are still the same then.
    Scheduler::TaskId later(const DevicePtr& device, std::chrono::milliseconds delay,
                            std::function<void(const DevicePtr&)> step) const;

    Adapters& adapters() { return *mAdapters; }
    Devices& devices() { return *mDevices; }

    const std::shared_ptr<SchedulerThread> scheduler = std::make_shared<SchedulerThread>(); ///< any thread
    CallLog callLog;                                                                        ///< any thread
    BendTable bends;                                                                        ///< any thread
    BusConnection bus;
    ObjectTree tree;
    Dispatcher dispatcher;
    Timings timings;
    bool requireAgent;
    std::set<std::string> agentOwners; ///< unique names with a registered agent
    std::vector<std::shared_ptr<Remote>> remotes;

private:
    class Observer;

    void onCall(GDBusConnection* connection, GDBusMessage* message);
    void take(const RequestPtr& request);
    void bendCall(const Bend& bend, const RequestPtr& request);
    void publishRoot();
    void registerAgentMethods();
    void clientGone(const std::string& sender);

    std::function<void(const std::string&)> mOnEvent;
    std::unique_ptr<Devices> mDevices;
    std::unique_ptr<Adapters> mAdapters;
    std::shared_ptr<Observer> mObserver;
    std::string mBusAddress;
    bool mAutoEnable;
    bool mStartedOnce = false;
    bool mWasKilled = false;
};

} // namespace vexasim
