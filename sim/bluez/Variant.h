// SPDX-License-Identifier: MIT
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vexasim
{

/// Owner of one GVariant reference. Made from a floating GVariant it sinks it,
/// so that a freshly built value can be handed over as it is:
/// `setProperty(path, iface, "RSSI", g_variant_new_int16(-40))`.
class Variant
{
public:
    Variant() = default;
    Variant(GVariant* value); // NOLINT(google-explicit-constructor): the point of the class
    Variant(const Variant& other);
    Variant(Variant&& other) noexcept;
    Variant& operator=(Variant other) noexcept;
    ~Variant();

    /// Parses GVariant text such as "<'a text'>" or "@(q) (7,)". Throws
    /// std::invalid_argument with GLib's message.
    static Variant parse(const std::string& text);
    static Variant bytes(const std::vector<uint8_t>& bytes); ///< "ay"
    static Variant strings(const std::vector<std::string>& texts);

    GVariant* get() const { return mValue; }
    explicit operator bool() const { return mValue != nullptr; }
    /// With type annotations; "" if empty.
    std::string text() const;
    std::string type() const;

private:
    GVariant* mValue = nullptr;
};

} // namespace vexasim
