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

/// The adapters, discovery, and what is on the air for them to hear. Used on the scheduler's thread.
class Adapters
{
public:
    Adapters(Core& core, Devices& devices);

    static std::string pathFor(const std::string& name);

    /// Puts an adapter on the bus, with the devices that are paired.
    std::string add(const AdapterOptions& options);
    /// Takes it off the bus with its devices, children first.
    void remove(const std::string& path);
    void setPowered(const std::string& path, bool on);
    bool discovering(const std::string& path) const;

    void addPeripheral(const std::shared_ptr<Peripheral>& peripheral);
    void removePeripheral(const std::shared_ptr<Peripheral>& peripheral);
    /// Adverts are heard, or end, or carry another name or strength.
    void onAdvertising(Peripheral& peripheral);
    void clientGone(const std::string& sender);

    // --- bluetoothd comes and goes ---
    /// Publishes the adapters that are plugged in, powered as given or as they were.
    void serviceStarted(std::optional<bool> powered);
    void serviceStopped(bool announce);

private:
    struct Adapter {
        AdapterOptions options;
        std::set<std::string> discoverers; ///< unique names
        bool discovering = false;
        unsigned discovery = 0; ///< counts the ends of discoveries: a report of an older one is void
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
