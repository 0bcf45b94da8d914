// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/PeripheralRadio.h"
#include "sim/bluez/Simulator.h"

#include <map>
#include <string>

/// The dictionaries of the control interface, read into the simulator's
/// records. Each throws std::invalid_argument that names the key it doesn't
/// know or whose value has another type than it wants.
namespace vexasim::control
{

/// The elements of an "a{sv}".
std::map<std::string, Variant> dictionary(GVariant* value);
/// The elements of an "a{sa{sv}}".
InterfaceMap interfaces(GVariant* value);

UpdateFault updateFault(GVariant* source);
UpdateAppearance updateAppearance(GVariant* source);
/// Changes what the dictionary names, leaves the rest.
void changeRadio(air::RadioOptions& options, GVariant* source);
Bend bend(const std::string& member, GVariant* source);
Peripheral::Pairing pairing(const std::string& word);
Simulator::Stop stop(const std::string& word);
Bytes bytes(GVariant* array);

} // namespace vexasim::control
