// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <gio/gio.h>
#include <string>
#include <vector>

#include "Bluez.h"

/**
 * Builds the parameters of the client's calls and unpacks the replies. Nothing here logs or keeps state, so
 * any thread may call it.
 */
namespace bluez_variant
{

/// The value in the reply of Properties.Get; holds null unless the reply is one variant.
Bluez::GVariantHolder unwrapProperty(const Bluez::GVariantHolder& reply);

/// Extracts the value; if BlueZ sent another type, returns false and leaves `value` unchanged.
bool read(GVariant* variant, bool& value);
bool read(GVariant* variant, std::int16_t& value);
bool read(GVariant* variant, std::string& value);

/// The first element of a tuple; holds null for anything else and for an empty tuple.
Bluez::GVariantHolder firstOf(GVariant* tuple);

/// The bytes of `array`, which must be an array of bytes ("ay").
std::vector<std::uint8_t> bytesOf(GVariant* array);

/// The one parameter of GattCharacteristic1.ReadValue: no options. Floating.
GVariant* readParameters();

/// The parameters of GattCharacteristic1.WriteValue: the bytes and no options. Floating.
GVariant* writeParameters(const std::vector<std::uint8_t>& bytes);

} // namespace bluez_variant
