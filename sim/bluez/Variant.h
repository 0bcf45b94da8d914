// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <gio/gio.h>
#include <map>
#include <string>
#include <vector>

namespace vexasim
{

/// Owner of one GVariant reference. It sinks a floating GVariant, so that a newly built value can be passed
/// directly: `setProperty(path, iface, "RSSI", g_variant_new_int16(-40))`.
class Variant
{
public:
    Variant() = default;
    Variant(GVariant* value); // NOLINT(google-explicit-constructor): the point of the class
    Variant(const Variant& other);
    Variant(Variant&& other) noexcept;
    Variant& operator=(Variant other) noexcept;
    ~Variant();

    /// Parses GVariant text such as "<'a text'>" or "@(q) (7,)". Throws std::invalid_argument with GLib's
    /// message.
    static Variant parse(const std::string& text);
    static Variant bytes(const std::vector<std::uint8_t>& bytes); ///< "ay"
    static Variant strings(const std::vector<std::string>& texts);

    GVariant* get() const { return mValue; }
    explicit operator bool() const { return mValue != nullptr; }
    /// With type annotations; "" if empty.
    std::string text() const;
    std::string type() const;

private:
    GVariant* mValue = nullptr;
};

using PropertyMap = std::map<std::string, Variant>;
using InterfaceMap = std::map<std::string, PropertyMap>; ///< interface name to properties

Variant toVariant(bool value);
Variant toVariant(std::int16_t value);
Variant toVariant(const std::string& value);
Variant toVariant(const char* value);              ///< without it a literal would convert to bool
Variant toVariant(const PropertyMap& properties);  ///< "a{sv}"
Variant toVariant(const InterfaceMap& interfaces); ///< "a{sa{sv}}"
Variant toObjectPath(const std::string& value);

std::vector<std::uint8_t> toBytes(GVariant* array); ///< of an "ay"
PropertyMap toPropertyMap(GVariant* dictionary);    ///< of an "a{sv}"
InterfaceMap toInterfaceMap(GVariant* dictionary);  ///< of an "a{sa{sv}}"

} // namespace vexasim
