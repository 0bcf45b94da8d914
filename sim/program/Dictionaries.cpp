// SPDX-License-Identifier: MIT
#include "sim/program/Dictionaries.h"

#include <functional>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

namespace vexasim::control
{

namespace
{
using Setter = std::function<void(const Variant&)>;
using Setters = std::map<std::string, Setter>;

/// The words of a table, for error messages.
template <typename Table>
std::string list(const Table& table)
{
    std::string words;
    for (const auto& [word, meaning] : table) {
        words += (words.empty() ? "" : ", ") + std::string(word);
    }
    return words;
}

void apply(const PropertyMap& source, const Setters& setters)
{
    for (const auto& [key, value] : source) {
        const auto setter = setters.find(key);
        if (setter == setters.end()) {
            throw std::invalid_argument("unknown key \"" + key + "\": use one of " + list(setters));
        }
        setter->second(value);
    }
}

/// Accepts any integer type, since gdbus sends 5 as an int32 by default.
std::int64_t integer(const Variant& value)
{
    GVariant* number = value.get();
    switch (g_variant_classify(number)) {
    case G_VARIANT_CLASS_BYTE:
        return g_variant_get_byte(number);
    case G_VARIANT_CLASS_INT16:
        return g_variant_get_int16(number);
    case G_VARIANT_CLASS_UINT16:
        return g_variant_get_uint16(number);
    case G_VARIANT_CLASS_INT32:
        return g_variant_get_int32(number);
    case G_VARIANT_CLASS_UINT32:
        return g_variant_get_uint32(number);
    case G_VARIANT_CLASS_INT64:
        return g_variant_get_int64(number);
    case G_VARIANT_CLASS_UINT64:
        return static_cast<std::int64_t>(g_variant_get_uint64(number));
    default:
        throw std::invalid_argument("expected a number, got " + value.text());
    }
}

template <typename Integer>
Integer inRange(const Variant& value)
{
    const std::int64_t number = integer(value);
    if (number < 0 || static_cast<std::uint64_t>(number) > std::numeric_limits<Integer>::max()) {
        throw std::invalid_argument(std::to_string(number) + " is out of range");
    }
    return static_cast<Integer>(number);
}

bool boolean(const Variant& value)
{
    if (value.type() != "b") {
        throw std::invalid_argument("expected true or false, got " + value.text());
    }
    return g_variant_get_boolean(value.get()) != FALSE;
}

std::string text(const Variant& value)
{
    if (value.type() != "s" && value.type() != "o") {
        throw std::invalid_argument("expected a string, got " + value.text());
    }
    return g_variant_get_string(value.get(), nullptr);
}

std::chrono::milliseconds milliseconds(const Variant& value)
{
    return std::chrono::milliseconds{inRange<std::uint32_t>(value)};
}

// Setters for the keys of a dictionary.

Setter to(bool& target)
{
    return [&target](const Variant& value) { target = boolean(value); };
}

Setter to(std::string& target)
{
    return [&target](const Variant& value) { target = text(value); };
}

Setter to(std::chrono::milliseconds& target)
{
    return [&target](const Variant& value) { target = milliseconds(value); };
}

/// A number that an `Integer` can hold.
template <typename Integer, typename Target>
Setter number(Target& target)
{
    return [&target](const Variant& value) { target = inRange<Integer>(value); };
}

/// Replies are tuples on the bus; a single value stands for a tuple of one.
Variant tuple(const Variant& value)
{
    if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_TUPLE) != FALSE) {
        return value;
    }
    GVariant* single = value.get();
    return g_variant_new_tuple(&single, 1);
}

std::string errorName(const Variant& value)
{
    const std::string name = text(value);
    if (g_dbus_is_interface_name(name.c_str()) == FALSE) {
        throw std::invalid_argument("invalid error name \"" + name +
                                    "\": expected one like \"org.bluez.Error.Failed\"");
    }
    return name;
}

template <typename Value>
using Words = std::vector<std::pair<const char*, Value>>;

template <typename Value>
Value meaning(const std::string& word, const Words<Value>& known)
{
    for (const auto& [candidate, value] : known) {
        if (word == candidate) {
            return value;
        }
    }
    throw std::invalid_argument("unknown word \"" + word + "\": use one of " + list(known));
}
} // namespace

UpdateFault updateFault(const PropertyMap& source)
{
    UpdateFault fault;
    apply(source, {
                      {"silent", to(fault.silent)},
                      {"late", to(fault.late)},
                      {"status", number<std::uint8_t>(fault.status)},
                      {"length", number<std::uint16_t>(fault.length)},
                      {"copies", number<std::uint8_t>(fault.copies)},
                      {"refuse", number<std::uint8_t>(fault.refuse)},
                      {"no-write-reply", to(fault.noWriteReply)},
                      {"vanish", to(fault.vanish)},
                      {"block", number<std::uint32_t>(fault.block)},
                      {"times", number<std::uint16_t>(fault.times)},
                  });
    return fault;
}

UpdateAppearance updateAppearance(const PropertyMap& source)
{
    UpdateAppearance appearance;
    apply(source, {
                      {"never", to(appearance.never)},
                      {"nameless", to(appearance.nameless)},
                      {"before-scan", to(appearance.beforeScan)},
                      {"without-control-point", to(appearance.withoutControlPoint)},
                      {"without-data", to(appearance.withoutData)},
                  });
    return appearance;
}

void changeRadio(air::RadioOptions& options, const PropertyMap& source)
{
    apply(source, {
                      {"name-in-scan-response", to(options.nameInScanResponse)},
                      {"secure-connections", to(options.secureConnections)},
                      {"refuses-repeated", to(options.refusesRepeated)},
                      {"fails-confirm", to(options.failsConfirm)},
                      {"asks-for-security", to(options.asksForSecurity)},
                      {"private-address", to(options.privateAddress)},
                      {"advertising-interval", to(options.advertisingInterval)},
                  });
}

Bend bend(const std::string& member, const PropertyMap& source)
{
    Bend result = Bend::silence(member);
    const auto late = [&result](Bend::Kind kind) {
        return [&result, kind](const Variant& value) {
            result.kind = kind;
            result.delay = milliseconds(value);
        };
    };
    const auto error = [&result](const Variant& value) {
        result.kind = Bend::Kind::Error;
        result.errorName = errorName(value);
    };
    const auto answer = [&result](const Variant& value) {
        result.kind = Bend::Kind::Answer;
        result.parameters = tuple(value);
    };
    apply(source, {
                      {"error", error},
                      {"message", to(result.errorMessage)},
                      {"answer", answer},
                      {"silent", [](const Variant& value) { boolean(value); }},
                      {"late", late(Bend::Kind::Late)},
                      {"late-reply", late(Bend::Kind::LateReply)},
                      {"object", to(result.objectPath)},
                      {"interface", to(result.interfaceName)},
                      {"property", to(result.propertyName)},
                      {"times", number<std::uint16_t>(result.count)},
                  });
    return result;
}

Peripheral::Pairing pairing(const std::string& word)
{
    using Pairing = Peripheral::Pairing;
    return meaning<Pairing>(word, {{"willing", Pairing::Willing},
                                   {"refuses", Pairing::Refuses},
                                   {"silent", Pairing::Silent},
                                   {"drops-link", Pairing::DropsLink}});
}

Simulator::Stop stop(const std::string& word)
{
    using Stop = Simulator::Stop;
    return meaning<Stop>(word, {{"terminate", Stop::Terminate}, {"kill", Stop::Kill}});
}

} // namespace vexasim::control
