// SPDX-License-Identifier: MIT
#include "sim/bluez/Variant.h"

#include <stdexcept>
#include <utility>

namespace vexasim
{

Variant::Variant(GVariant* value) : mValue(value != nullptr ? g_variant_take_ref(value) : nullptr) {}

Variant::Variant(const Variant& other)
    : mValue(other.mValue != nullptr ? g_variant_ref(other.mValue) : nullptr)
{
}

Variant::Variant(Variant&& other) noexcept : mValue(std::exchange(other.mValue, nullptr)) {}

Variant& Variant::operator=(Variant other) noexcept
{
    std::swap(mValue, other.mValue);
    return *this;
}

Variant::~Variant()
{
    if (mValue != nullptr) {
        g_variant_unref(mValue);
    }
}

Variant Variant::parse(const std::string& text)
{
    GError* error = nullptr;
    GVariant* value = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, &error);
    if (value != nullptr) {
        return {value};
    }
    const std::string reason = error->message;
    g_error_free(error);
    throw std::invalid_argument("\"" + text + "\" is no GVariant text: " + reason);
}

Variant Variant::bytes(const std::vector<std::uint8_t>& bytes)
{
    return {g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1)};
}

Variant Variant::strings(const std::vector<std::string>& texts)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
    for (const std::string& text : texts) {
        g_variant_builder_add(&builder, "s", text.c_str());
    }
    return {g_variant_builder_end(&builder)};
}

std::string Variant::text() const
{
    if (mValue == nullptr) {
        return "";
    }
    char* printed = g_variant_print(mValue, TRUE);
    std::string result = printed;
    g_free(printed);
    return result;
}

std::string Variant::type() const
{
    return mValue != nullptr ? g_variant_get_type_string(mValue) : "";
}

Variant toVariant(bool value)
{
    return g_variant_new_boolean(value ? TRUE : FALSE);
}

Variant toVariant(std::int16_t value)
{
    return g_variant_new_int16(value);
}

Variant toVariant(const std::string& value)
{
    return g_variant_new_string(value.c_str());
}

Variant toVariant(const char* value)
{
    return g_variant_new_string(value);
}

Variant toVariant(const PropertyMap& properties)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    for (const auto& [name, value] : properties) {
        g_variant_builder_add(&builder, "{sv}", name.c_str(), value.get());
    }
    return g_variant_builder_end(&builder);
}

Variant toVariant(const InterfaceMap& interfaces)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sa{sv}}"));
    for (const auto& [name, properties] : interfaces) {
        g_variant_builder_add(&builder, "{s@a{sv}}", name.c_str(), toVariant(properties).get());
    }
    return g_variant_builder_end(&builder);
}

Variant toObjectPath(const std::string& value)
{
    return g_variant_new_object_path(value.c_str());
}

std::vector<std::uint8_t> toBytes(GVariant* array)
{
    gsize count = 0;
    const auto* data = static_cast<const std::uint8_t*>(g_variant_get_fixed_array(array, &count, 1));
    return {data, data + count};
}

PropertyMap toPropertyMap(GVariant* dictionary)
{
    PropertyMap properties;
    GVariantIter iter;
    g_variant_iter_init(&iter, dictionary);
    const char* name = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_next(&iter, "{&sv}", &name, &value) != FALSE) {
        properties[name] = value;
    }
    return properties;
}

InterfaceMap toInterfaceMap(GVariant* dictionary)
{
    InterfaceMap interfaces;
    GVariantIter iter;
    g_variant_iter_init(&iter, dictionary);
    const char* name = nullptr;
    GVariant* properties = nullptr;
    while (g_variant_iter_next(&iter, "{&s@a{sv}}", &name, &properties) != FALSE) {
        interfaces[name] = toPropertyMap(Variant(properties).get());
    }
    return interfaces;
}

} // namespace vexasim
