// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "sim/bluez/Simulator.h"
#include "tests/kit/Bus.h"

inline constexpr const char* kAdapter = "/org/bluez/hci0";
inline constexpr const char* kDevice = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
inline constexpr const char* kLevel = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01/service0010/char0011";
inline constexpr const char* kSwitch = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01/service0020/char0023";
inline constexpr const char* kBattery = "org.bluez.Battery1";
inline constexpr const char* kStart = "org.bluez.Adapter1.StartDiscovery";
inline constexpr const char* kStop = "org.bluez.Adapter1.StopDiscovery";
inline constexpr const char* kRemove = "org.bluez.Adapter1.RemoveDevice";
inline constexpr const char* kPair = "org.bluez.Device1.Pair";
inline constexpr const char* kConnect = "org.bluez.Device1.Connect";
inline constexpr const char* kDisconnect = "org.bluez.Device1.Disconnect";
inline constexpr const char* kCancelPairing = "org.bluez.Device1.CancelPairing";
inline constexpr const char* kRead = "org.bluez.GattCharacteristic1.ReadValue";
inline constexpr const char* kWrite = "org.bluez.GattCharacteristic1.WriteValue";
inline constexpr const char* kStartNotify = "org.bluez.GattCharacteristic1.StartNotify";
inline constexpr const char* kStopNotify = "org.bluez.GattCharacteristic1.StopNotify";

inline GVariant* noOptions()
{
    return g_variant_new_parsed("(@a{sv} {},)");
}

inline GVariant* oneByte(std::uint8_t byte)
{
    return g_variant_new_parsed("([%y], @a{sv} {})", byte);
}

inline GVariant* objectPath(const char* path)
{
    return g_variant_new("(o)", path);
}
/// A simulated BlueZ with a remote in range, and a plain client on its bus.
class ABoxWithARemoteInRange : public testing::Test
{
protected:
    explicit ABoxWithARemoteInRange(const vexasim::SimulatorOptions& options = {})
        : sim(options), client(sim.busAddress())
    {
    }

    void discover()
    {
        ASSERT_EQ(client.call(kAdapter, kStart).error, "");
        ASSERT_TRUE(client.await("/", "InterfacesAdded", kDevice));
    }

    void pair()
    {
        discover();
        ASSERT_EQ(client.call(kDevice, kPair).error, "");
        ASSERT_TRUE(client.await("/", "InterfacesAdded", kBattery));
    }

    std::string device(const std::string& property)
    {
        return client.get(kDevice, "org.bluez.Device1", property);
    }
    std::string adapter(const std::string& property)
    {
        return client.get(kAdapter, "org.bluez.Adapter1", property);
    }

    void powerOff()
    {
        ASSERT_EQ(client.set(kAdapter, "org.bluez.Adapter1", "Powered", g_variant_new_boolean(FALSE)).error,
                  "");
    }

    void setTiming(std::chrono::milliseconds vexasim::Timings::*timing, std::chrono::milliseconds value)
    {
        auto timings = sim.timings();
        timings.*timing = value;
        sim.setTimings(timings);
    }

    /// Returns when everything that the simulator sent so far has reached the client.
    void settle()
    {
        sim.sync();
        client.call("/", "org.freedesktop.DBus.Peer.Ping");
    }

    vexasim::Simulator sim;
    kit::BusClient client;
};
