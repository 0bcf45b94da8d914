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
    unsigned link = 0;     ///< counts the ends of links, and of the device: a step of an older link is void

    /// The link that is being made: who waits for it, and until when.
    std::function<void(bool)> onLinked;
    bool linkUnderway = false; ///< the peripheral was heard, the link comes
    Scheduler::TaskId linkTimer = 0;
    Scheduler::TaskId temporaryTimer = 0; ///< 0 while the device is to stay

    RequestPtr pairing;
    RequestPtr connecting;
    std::vector<RequestPtr> disconnecting;
    RequestPtr removing; ///< RemoveDevice of a connected device

    std::map<std::uint16_t, std::vector<RequestPtr>> reads; ///< by value handle
    std::map<std::uint16_t, RequestPtr> writes;
    std::map<std::uint16_t, std::set<std::string>> notifyClients; ///< unique names by value handle
    std::set<std::uint16_t> ownNotifications; ///< value handles that bluetoothd itself listens to
};

using DevicePtr = std::shared_ptr<Device>;

} // namespace vexasim
