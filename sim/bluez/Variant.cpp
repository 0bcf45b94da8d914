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
    if (mValue != nullptr)
        g_variant_unref(mValue);
}

Variant Variant::parse(const std::string& text)
{
    GError* error = nullptr;
    GVariant* value = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, &error);
    if (value != nullptr)
        return {value};
    const std::string reason = error->message;
    g_error_free(error);
    throw std::invalid_argument("\"" + text + "\" is no GVariant text: " + reason);
}

Variant Variant::bytes(const std::vector<uint8_t>& bytes)
{
    return {g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1)};
}

Variant Variant::strings(const std::vector<std::string>& texts)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
    for (const std::string& text : texts)
        g_variant_builder_add(&builder, "s", text.c_str());
    return {g_variant_builder_end(&builder)};
}

std::string Variant::text() const
{
    if (mValue == nullptr)
        return "";
    char* printed = g_variant_print(mValue, TRUE);
    std::string result = printed;
    g_free(printed);
    return result;
}

std::string Variant::type() const
{
    return mValue != nullptr ? g_variant_get_type_string(mValue) : "";
}

} // namespace vexasim
