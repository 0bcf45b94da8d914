// SPDX-License-Identifier: MIT
#pragma once

#include "sim/bluez/Simulator.h"
#include "sim/program/ControlObject.h"
#include "sim/program/RemoteControl.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace vexasim
{

/// The object /sim that plays with a Simulator by D-Bus. Lives on the thread of
/// the default main context, which must be iterated.
class Control
{
public:
    /// `quit` ends the program. Throws std::runtime_error.
    Control(Simulator& simulator, BoxFiles files, std::function<void()> quit);

    ControlObject& object() { return mObject; }

private:
    void addAirMethods();
    void addBlueZMethods();
    void addObjectMethods();
    Variant calls();

    Simulator& mSimulator;
    std::map<std::string, std::shared_ptr<Peripheral>> mOthers; ///< by address
    ControlObject mObject;
    RemoteControl mRemote;
};

} // namespace vexasim
