// SPDX-License-Identifier: MIT
#include "sim/program/Options.h"

#include <functional>
#include <limits>
#include <stdexcept>

namespace vexasim::control
{

namespace
{
using Setter = std::function<void(GVariant*)>;
using Setters = std::map<std::string, Setter>;

std::string list(const Setters& setters)
{
    std::string words;
    for (const auto& [word, setter] : setters)
        words += (words.empty() ? "" : ", ") + word;
    return words;
}

void apply(GVariant* source, const Setters& setters)
{
    for (const auto& [key, value] : dictionary(source)) {
        const auto setter = setters.find(key);
        if (setter == setters.end())
            throw std::invalid_argument("\"" + key + "\" is unknown here; known are " + list(setters));
        setter->second(value.get());
    }
}

/// Any integer type, since gdbus writes 5 as an int32 unless told otherwise.
int64_t integer(GVariant* value)
{
    switch (g_variant_classify(value)) {
    case G_VARIANT_CLASS_BYTE:
        return g_variant_get_byte(value);
    case G_VARIANT_CLASS_INT16:
        return g_variant_get_int16(value);
    case G_VARIANT_CLASS_UINT16:
        return g_variant_get_uint16(value);
    case G_VARIANT_CLASS_INT32:
        return g_variant_get_int32(value);
    case G_VARIANT_CLASS_UINT32:
        return g_variant_get_uint32(value);
    case G_VARIANT_CLASS_INT64:
        return g_variant_get_int64(value);
    case G_VARIANT_CLASS_UINT64:
        return static_cast<int64_t>(g_variant_get_uint64(value));
    default:
        throw std::invalid_argument("a number is wanted, not " + Variant(g_variant_ref(value)).text());
    }
}

template <typename Integer>
Integer inRange(GVariant* value)
{
    const int64_t number = integer(value);
    if (number < 0 || static_cast<uint64_t>(number) > std::numeric_limits<Integer>::max())
        throw std::invalid_argument(std::to_string(number) + " is out of range");
    return static_cast<Integer>(number);
}

bool boolean(GVariant* value)
{
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN) == FALSE)
        throw std::invalid_argument("true or false is wanted, not " + Variant(g_variant_ref(value)).text());
    return g_variant_get_boolean(value) != FALSE;
}

std::string text(GVariant* value)
{
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) == FALSE &&
        g_variant_is_of_type(value, G_VARIANT_TYPE_OBJECT_PATH) == FALSE)
        throw std::invalid_argument("a text is wanted, not " + Variant(g_variant_ref(value)).text());
    return g_variant_get_string(value, nullptr);
}

std::chrono::milliseconds milliseconds(GVariant* value)
{
    return std::chrono::milliseconds{inRange<uint32_t>(value)};
}

/// Replies are tuples on the bus; a single value stands for a tuple of one.
Variant tuple(GVariant* value)
{
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_TUPLE) != FALSE)
        return g_variant_ref(value);
    return g_variant_new_tuple(&value, 1);
}
} // namespace

std::map<std::string, Variant> dictionary(GVariant* value)
{
    std::map<std::string, Variant> elements;
    GVariantIter iter;
    g_variant_iter_init(&iter, value);
    const char* key = nullptr;
    GVariant* element = nullptr;
    while (g_variant_iter_next(&iter, "{&sv}", &key, &element) != FALSE)
        elements[key] = element;
    return elements;
}

InterfaceMap interfaces(GVariant* value)
{
    InterfaceMap result;
    GVariantIter iter;
    g_variant_iter_init(&iter, value);
    const char* name = nullptr;
    GVariant* properties = nullptr;
    while (g_variant_iter_next(&iter, "{&s@a{sv}}", &name, &properties) != FALSE) {
        const Variant owned(properties);
        result[name] = dictionary(properties);
    }
    return result;
}

Bytes bytes(GVariant* array)
{
    gsize count = 0;
    const auto* data = static_cast<const uint8_t*>(g_variant_get_fixed_array(array, &count, 1));
    return count != 0 ? Bytes(data, data + count) : Bytes{};
}

UpdateFault updateFault(GVariant* source)
{
    UpdateFault fault;
    apply(source, {
                      {"silent", [&](GVariant* value) { fault.silent = boolean(value); }},
                      {"late", [&](GVariant* value) { fault.late = milliseconds(value); }},
                      {"status", [&](GVariant* value) { fault.status = inRange<uint8_t>(value); }},
                      {"length", [&](GVariant* value) { fault.length = inRange<uint16_t>(value); }},
                      {"copies", [&](GVariant* value) { fault.copies = inRange<uint8_t>(value); }},
                      {"refuse", [&](GVariant* value) { fault.refuse = inRange<uint8_t>(value); }},
                      {"no-write-reply", [&](GVariant* value) { fault.noWriteReply = boolean(value); }},
                      {"vanish", [&](GVariant* value) { fault.vanish = boolean(value); }},
                      {"block", [&](GVariant* value) { fault.block = inRange<uint32_t>(value); }},
                      {"times", [&](GVariant* value) { fault.times = inRange<uint16_t>(value); }},
                  });
    return fault;
}

UpdateAppearance updateAppearance(GVariant* source)
{
    UpdateAppearance appearance;
    apply(source, {
                      {"never", [&](GVariant* value) { appearance.never = boolean(value); }},
                      {"nameless", [&](GVariant* value) { appearance.nameless = boolean(value); }},
                      {"before-scan", [&](GVariant* value) { appearance.beforeScan = boolean(value); }},
                      {"without-control-point",
                       [&](GVariant* value) { appearance.withoutControlPoint = boolean(value); }},
                      {"without-data", [&](GVariant* value) { appearance.withoutData = boolean(value); }},
                  });
    return appearance;
}

void changeRadio(air::RadioOptions& options, GVariant* source)
{
    const auto flag = [](bool& target) { return [&target](GVariant* value) { target = boolean(value); }; };
    apply(source, {
                      {"name-in-scan-response", flag(options.nameInScanResponse)},
                      {"secure-connections", flag(options.secureConnections)},
                      {"refuses-repeated", flag(options.refusesRepeated)},
                      {"fails-confirm", flag(options.failsConfirm)},
                      {"asks-for-security", flag(options.asksForSecurity)},
                      {"private-address", flag(options.privateAddress)},
                      {"advertising-interval",
                       [&](GVariant* value) { options.advertisingInterval = milliseconds(value); }},
                  });
}

Bend bend(const std::string& member, GVariant* source)
{
    Bend result = Bend::silence(member);
    const auto late = [&result](Bend::Kind kind) {
        return [&result, kind](GVariant* value) {
            result.kind = kind;
            result.delay = milliseconds(value);
        };
    };
    apply(source, {
                      {"error",
                       [&](GVariant* value) {
                           result.kind = Bend::Kind::Error;
                           result.errorName = text(value);
                           if (g_dbus_is_interface_name(result.errorName.c_str()) == FALSE)
                               throw std::invalid_argument("\"" + result.errorName +
                                                           "\" is no name of an error; one is "
                                                           "\"org.bluez.Error.Failed\"");
                       }},
                      {"message", [&](GVariant* value) { result.errorMessage = text(value); }},
                      {"answer",
                       [&](GVariant* value) {
                           result.kind = Bend::Kind::Answer;
                           result.parameters = tuple(value);
                       }},
                      {"silent", [](GVariant* value) { boolean(value); }},
                      {"late", late(Bend::Kind::Late)},
                      {"late-reply", late(Bend::Kind::LateReply)},
                      {"object", [&](GVariant* value) { result.on(text(value)); }},
                      {"interface", [&](GVariant* value) { result.of(text(value)); }},
                      {"property", [&](GVariant* value) { result.property(text(value)); }},
                      {"times", [&](GVariant* value) { result.times(inRange<uint16_t>(value)); }},
                  });
    return result;
}

Peripheral::Pairing pairing(const std::string& word)
{
    if (word == "willing")
        return Peripheral::Pairing::Willing;
    if (word == "refuses")
        return Peripheral::Pairing::Refuses;
    if (word == "silent")
        return Peripheral::Pairing::Silent;
    if (word == "drops-link")
        return Peripheral::Pairing::DropsLink;
    throw std::invalid_argument("\"" + word + "\" is none of willing, refuses, silent, drops-link");
}

Simulator::Stop stop(const std::string& word)
{
    if (word == "terminate")
        return Simulator::Stop::Terminate;
    if (word == "kill")
        return Simulator::Stop::Kill;
    throw std::invalid_argument("\"" + word + "\" is none of terminate, kill");
}

} // namespace vexasim::control
