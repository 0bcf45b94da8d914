// SPDX-License-Identifier: MIT
#pragma once

#include "sim/bluez/Adapters.h"
#include "sim/bluez/CallLog.h"
#include "sim/bluez/Core.h"
#include "sim/bluez/Devices.h"
#include "sim/bluez/Simulator.h"

#include <memory>
#include <string>
#include <vector>

namespace vexasim
{

/// The simulated bluetoothd behind Simulator: its parts put together, calls
/// taken from the bus to them, and the process's life. Used on the loop's
/// thread, but for the members that say otherwise.
class Engine
{
public:
    Engine(const SimulatorOptions& options, std::string busAddress);
    /// On the thread that made it, not the loop's.
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    Loop& loop() const { return *mCore.loop; } ///< any thread
    CallLog& callLog() { return mCallLog; }    ///< any thread
    BendTable& bends() { return mBends; }      ///< any thread
    Core& core() { return mCore; }
    Adapters& adapters() { return mAdapters; }
    Devices& devices() { return mDevices; }
    std::vector<std::shared_ptr<Remote>>& remotes() { return mRemotes; }

    void addRemote(const std::shared_ptr<Remote>& remote);
    void addPeripheral(const std::shared_ptr<Peripheral>& peripheral);
    void startService();
    void stopService(Simulator::Stop how);

private:
    class Ears;

    void onCall(GDBusConnection* connection, GDBusMessage* message);
    void take(const RequestPtr& request);
    void bendCall(const Bend& bend, const RequestPtr& request);
    void publishRoot();
    void registerAgentMethods();
    void clientGone(const std::string& sender);

    Core mCore;
    CallLog mCallLog;
    BendTable mBends;
    Devices mDevices;
    Adapters mAdapters;
    std::shared_ptr<Ears> mEars;
    std::vector<std::shared_ptr<Remote>> mRemotes;
    std::string mBusAddress;
    bool mAutoEnable;
    bool mStartedOnce = false;
    bool mWasKilled = false;
};

} // namespace vexasim
