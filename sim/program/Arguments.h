// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/bluez/Variant.h"

/// Maps the C++ types of the control methods' parameters to D-Bus: `kType` is the D-Bus type, and `read`
/// takes a value of that type, which GDBus has checked.
namespace vexasim::control
{

template <typename Value>
struct Argument;

template <typename Value, char kLetter>
struct NumberArgument {
    static constexpr char kType[] = {kLetter, '\0'};
    static Value read(GVariant* value)
    {
        Value number{};
        g_variant_get(value, kType, &number);
        return number;
    }
};

template <>
struct Argument<std::uint8_t> : NumberArgument<std::uint8_t, 'y'> {
};
template <>
struct Argument<std::int16_t> : NumberArgument<std::int16_t, 'n'> {
};
template <>
struct Argument<std::uint16_t> : NumberArgument<std::uint16_t, 'q'> {
};
template <>
struct Argument<std::uint32_t> : NumberArgument<std::uint32_t, 'u'> {
};
template <>
struct Argument<std::uint64_t> : NumberArgument<std::uint64_t, 't'> {
};

template <>
struct Argument<bool> {
    static constexpr char kType[] = "b";
    static bool read(GVariant* value) { return g_variant_get_boolean(value) != FALSE; }
};

template <>
struct Argument<std::string> {
    static constexpr char kType[] = "s";
    static std::string read(GVariant* value) { return g_variant_get_string(value, nullptr); }
};

struct ObjectPath {
    std::string text;
};

template <>
struct Argument<ObjectPath> {
    static constexpr char kType[] = "o";
    static ObjectPath read(GVariant* value) { return {g_variant_get_string(value, nullptr)}; }
};

template <>
struct Argument<std::vector<std::uint8_t>> {
    static constexpr char kType[] = "ay";
    static std::vector<std::uint8_t> read(GVariant* value) { return toBytes(value); }
};

template <>
struct Argument<PropertyMap> {
    static constexpr char kType[] = "a{sv}";
    static PropertyMap read(GVariant* value) { return toPropertyMap(value); }
};

template <>
struct Argument<InterfaceMap> {
    static constexpr char kType[] = "a{sa{sv}}";
    static InterfaceMap read(GVariant* value) { return toInterfaceMap(value); }
};

template <>
struct Argument<Variant> {
    static constexpr char kType[] = "v";
    static Variant read(GVariant* value) { return g_variant_get_variant(value); }
};

} // namespace vexasim::control
