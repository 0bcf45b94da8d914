// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sim/bluez/Core.h"
#include "sim/bluez/Devices.h"

namespace vexasim
{

/// The adapters, discovery, and the peripherals in range. Used on the scheduler's thread.
class Adapters
{
public:
    Adapters(Core& core, Devices& devices);

    static std::string pathFor(const std::string& name);

    /// Adds an adapter to the bus, with the paired devices.
    std::string add(const AdapterOptions& options);
    /// Removes it from the bus with its devices, children first.
    void remove(const std::string& path);
    void setPowered(const std::string& path, bool on);
    bool discovering(const std::string& path) const;

    void addPeripheral(const std::shared_ptr<Peripheral>& peripheral);
    void removePeripheral(const std::shared_ptr<Peripheral>& peripheral);
    /// Advertising started or stopped, or the name or signal strength changed.
    void onAdvertising(Peripheral& peripheral);
    void clientGone(const std::string& sender);

    // --- bluetoothd starts and stops ---
    /// Publishes the adapters that are plugged in, powered as given or, if empty, as before.
    void serviceStarted(std::optional<bool> powered);
    void serviceStopped(bool announce);

private:
    struct Adapter {
        AdapterOptions options;
        std::set<std::string> discoverers; ///< unique names
        bool discovering = false;
        unsigned discovery = 0; ///< counts ended discoveries; reports of earlier ones are dropped
        bool onBus = false;
    };

    void publish(const std::string& path, Adapter& adapter);
    void startDiscovery(const RequestPtr& request);
    void stopDiscovery(const RequestPtr& request);
    void onSetPowered(const RequestPtr& request, const Variant& value);
    void onMethod(const std::string& member, void (Adapters::*handler)(const RequestPtr&));
    void beginDiscovery(const std::string& path);
    void endDiscovery(const std::string& path);
    void reportSoon(const std::string& path, const std::shared_ptr<Peripheral>& peripheral);
    void reportAgain(const std::string& path);
    bool powered(const std::string& path) const;
    Adapter* find(const std::string& path);
    std::shared_ptr<Peripheral> share(const Peripheral& peripheral) const;

    Core& mCore;
    Devices& mDevices;
    std::map<std::string, Adapter> mAdapters; ///< by path
    std::vector<std::shared_ptr<Peripheral>> mAir;
};

} // namespace vexasim
