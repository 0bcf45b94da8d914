// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <string>

#include "sim/bluez/Core.h"
#include "sim/bluez/Device.h"

namespace vexasim
{

class BatteryProfile;
class Devices;
class GattObjects;

/// Connecting, pairing, service discovery and the ends of links: the methods of Device1. Used on the
/// scheduler's thread.
class Links
{
public:
    Links(Core& core, Devices& devices, GattObjects& gatt, BatteryProfile& battery);

    /// It advertises: a pending connection attempt may continue.
    void heard(const DevicePtr& device);
    /// The link is lost: operations that depend on it fail.
    void lost(const DevicePtr& device);
    /// This side ends the link, if there is one.
    void end(const DevicePtr& device);
    /// RemoveDevice of a connected device: the link ends first.
    void endForRemoval(const DevicePtr& device, const RequestPtr& request);
    /// The device is removed: pending operations fail, without signals.
    void abandon(const DevicePtr& device);

private:
    using Step = void (Links::*)(const DevicePtr&);

    void connect(const DevicePtr& device, const RequestPtr& request);
    void pair(const DevicePtr& device, const RequestPtr& request);
    void cancelPairing(const DevicePtr& device, const RequestPtr& request);
    void disconnect(const DevicePtr& device, const RequestPtr& request);

    void establish(const DevicePtr& device, std::function<void(bool)> done);
    void linked(const DevicePtr& device, bool success);
    void bond(const DevicePtr& device);
    void exchangeKeys(const DevicePtr& device);
    void bonded(const DevicePtr& device);
    void failPairing(const DevicePtr& device, const errors::Error& error);
    void resolve(const DevicePtr& device);
    void resolved(const DevicePtr& device);
    void readBattery(const DevicePtr& device);
    void startEnding(const DevicePtr& device);
    void tellTheEnd(const DevicePtr& device, const PropertyMap& changed);

    /// Runs `step` after the delay, if the device and its link are still the same then.
    void later(const DevicePtr& device, std::chrono::milliseconds delay, Step step);
    bool powered(const DevicePtr& device) const;
    void onMethod(const std::string& member, void (Links::*handler)(const DevicePtr&, const RequestPtr&));

    Core& mCore;
    Devices& mDevices;
    GattObjects& mGatt;
    BatteryProfile& mBattery;
};

} // namespace vexasim
