// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sim/bluez/BusConnection.h"
#include "sim/model/Peripheral.h"
#include "sim/model/Scheduler.h"

namespace vexasim
{

/// What the simulated bluetoothd knows of one device on one adapter.
struct Device {
    std::string path;
    std::string adapterPath;
    std::shared_ptr<Peripheral> peripheral;

    bool paired = false;
    bool connected = false;
    bool resolved = false; ///< the attribute client is ready
    bool exported = false; ///< GATT objects are on the bus
    unsigned link = 0; ///< counts ended links, and the device's removal; steps of an earlier link are dropped

    /// The link being established: who waits for it, and until when.
    std::function<void(bool)> onLinked;
    bool linkUnderway = false; ///< the peripheral was found and is being connected
    Scheduler::TaskId linkTimer = 0;
    Scheduler::TaskId temporaryTimer = 0; ///< 0 while the device is kept

    RequestPtr pairing;
    RequestPtr connecting;
    std::vector<RequestPtr> disconnecting;
    RequestPtr removing; ///< RemoveDevice of a connected device

    std::map<std::uint16_t, std::vector<RequestPtr>> reads; ///< by value handle
    std::map<std::uint16_t, RequestPtr> writes;
    std::map<std::uint16_t, std::set<std::string>> notifyClients; ///< unique names by value handle
    std::set<std::uint16_t> ownNotifications; ///< value handles to which bluetoothd itself has subscribed
};

using DevicePtr = std::shared_ptr<Device>;

} // namespace vexasim
