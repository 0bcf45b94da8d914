// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "sim/bluez/Simulator.h"
#include "sim/program/ControlObject.h"
#include "sim/program/RemoteMethods.h"

namespace vexasim
{

/// The object /sim that controls a Simulator by D-Bus. Lives on the thread of the default main context, which
/// must be iterated.
class BlueZControl
{
public:
    /// `quit` ends the program. Throws std::runtime_error.
    BlueZControl(Simulator& simulator, Narrator& narrator, BoxFiles files, std::function<void()> quit);

private:
    void addAirMethods();
    void addServiceMethods();
    void addObjectMethods();

    Simulator& mSimulator;
    std::map<std::string, std::shared_ptr<Peripheral>> mOthers; ///< by address
    ControlObject mObject;
    RemoteMethods mRemote;
};

} // namespace vexasim
