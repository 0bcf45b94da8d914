// SPDX-License-Identifier: MIT
#pragma once

#include "sim/bluez/Variant.h"

#include <string>

/// Reads the arguments of the control interface's methods, whose types GDBus
/// has compared with the interface's description before.
namespace vexasim::control
{

/// The text at a place of the argument tuple.
inline std::string text(GVariant* arguments, gsize index)
{
    const Variant value = g_variant_get_child_value(arguments, index);
    return g_variant_get_string(value.get(), nullptr);
}

/// The only argument of a method, a plain type.
template <typename Value>
Value only(GVariant* arguments, const char* format)
{
    Value value{};
    g_variant_get_child(arguments, 0, format, &value);
    return value;
}

/// The only argument of a method, a boolean.
inline bool onlyBoolean(GVariant* arguments)
{
    return only<gboolean>(arguments, "b") != FALSE;
}

} // namespace vexasim::control
