// SPDX-License-Identifier: MIT
#pragma once

#include "sim/air/AirBox.h"
#include "sim/program/ControlObject.h"
#include "sim/program/RemoteControl.h"

#include <functional>
#include <string>

namespace vexasim::air
{

/// The object /sim of the remote on the air: what every face can do, and what
/// concerns the radio. Lives on the thread of the default main context.
class AirControl
{
public:
    /// `quit` ends the program. Throws std::runtime_error.
    AirControl(AirBox& box, const std::string& busAddress, BoxFiles files, std::function<void()> quit);

    ControlObject& object() { return mObject; }

private:
    void addRadioMethods();
    void addAirMethods();

    AirBox& mBox;
    ControlObject mObject;
    RemoteControl mRemote;
};

} // namespace vexasim::air
