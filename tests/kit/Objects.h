// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "sim/bluez/Simulator.h"

namespace kit
{

// Passive objects for Simulator::addObject, with the properties that the daemon reads and no methods.

inline vexasim::InterfaceMap deviceObject(const std::string& name, const std::string& address, bool paired,
                                          bool connected)
{
    return {{"org.bluez.Device1",
             {{"Name", g_variant_new_string(name.c_str())},
              {"Address", g_variant_new_string(address.c_str())},
              {"Paired", g_variant_new_boolean(paired ? TRUE : FALSE)},
              {"Connected", g_variant_new_boolean(connected ? TRUE : FALSE)}}}};
}

inline vexasim::InterfaceMap serviceObject(const std::string& uuid, const std::string& devicePath)
{
    return {{"org.bluez.GattService1",
             {{"UUID", g_variant_new_string(uuid.c_str())},
              {"Device", g_variant_new_object_path(devicePath.c_str())}}}};
}

inline vexasim::InterfaceMap characteristicObject(const std::string& uuid, const std::string& servicePath)
{
    return {{"org.bluez.GattCharacteristic1",
             {{"UUID", g_variant_new_string(uuid.c_str())},
              {"Service", g_variant_new_object_path(servicePath.c_str())}}}};
}

} // namespace kit
