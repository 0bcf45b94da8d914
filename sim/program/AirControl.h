// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <string>

#include "sim/air/AirBox.h"
#include "sim/program/ControlObject.h"
#include "sim/program/RemoteMethods.h"

namespace vexasim::air
{

/// The object /sim that controls the remote on the air and its radio by D-Bus. Lives on the thread of the
/// default main context, which must be iterated.
class AirControl
{
public:
    /// `quit` ends the program. Throws std::runtime_error.
    AirControl(AirBox& box, const std::string& busAddress, Narrator& narrator, BoxFiles files,
               std::function<void()> quit);

private:
    void addRadioMethods();
    void addAirMethods();

    AirBox& mBox;
    ControlObject mObject;
    RemoteMethods mRemote;
};

} // namespace vexasim::air
