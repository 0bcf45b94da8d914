// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "sim/air/PeripheralRadio.h"
#include "sim/bluez/Simulator.h"

/// Converts the dictionaries and words of the control interface to the simulator's types. Each function
/// throws std::invalid_argument that names the unknown key or word, or the value of a wrong type.
namespace vexasim::control
{

UpdateFault updateFault(const PropertyMap& source);
UpdateAppearance updateAppearance(const PropertyMap& source);
/// Changes only what the dictionary names.
void changeRadio(air::RadioOptions& options, const PropertyMap& source);
Bend bend(const std::string& member, const PropertyMap& source);
Peripheral::Pairing pairing(const std::string& word);
Simulator::Stop stop(const std::string& word);

} // namespace vexasim::control
