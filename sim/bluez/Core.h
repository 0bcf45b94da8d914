// SPDX-License-Identifier: MIT
#pragma once

#include "sim/bluez/BusLink.h"
#include "sim/bluez/Dispatcher.h"
#include "sim/bluez/Loop.h"
#include "sim/bluez/ObjectTree.h"
#include "sim/bluez/Simulator.h"

#include <functional>
#include <memory>
#include <set>
#include <string>

namespace vexasim
{

/// What the parts of the simulated bluetoothd share. Used on the loop's thread,
/// but for `loop` itself.
struct Core {
    Core()
        : tree([this](const std::string& path, const std::string& interface, const std::string& member,
                      const Variant& parameters) { bus.emit(path, interface, member, parameters); }),
          dispatcher(tree)
    {
    }

    void say(const std::string& text) const
    {
        if (onEvent)
            onEvent(text);
    }

    std::shared_ptr<Loop> loop = std::make_shared<Loop>();
    BusLink bus;
    ObjectTree tree;
    Dispatcher dispatcher;
    Timings timings;
    bool requireAgent = false;
    std::set<std::string> agentOwners; ///< unique names with a registered agent
    std::function<void(const std::string&)> onEvent;
};

inline Variant toVariant(bool value)
{
    return {g_variant_new_boolean(value ? TRUE : FALSE)};
}
inline Variant toVariant(int16_t value)
{
    return {g_variant_new_int16(value)};
}
inline Variant toVariant(const std::string& value)
{
    return {g_variant_new_string(value.c_str())};
}
// Without it a literal would become a boolean.
inline Variant toVariant(const char* value)
{
    return {g_variant_new_string(value)};
}
inline Variant toObjectPath(const std::string& value)
{
    return {g_variant_new_object_path(value.c_str())};
}

} // namespace vexasim
