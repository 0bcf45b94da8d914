// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <gio/gio.h>
#include <string>
#include <vector>

#include "Bluez.h"

/**
 * What the client puts into its calls and takes out of the answers. Nothing here logs or keeps state, so any
 * thread may call it.
 */
namespace bluez_variant
{

/// The value in the reply of Properties.Get; holds null unless the reply is one variant.
Bluez::GVariantHolder unwrapProperty(const Bluez::GVariantHolder& reply);

/// Takes the value out; false, with `value` left alone, if BlueZ sent one of another type.
bool read(GVariant* variant, bool& value);
bool read(GVariant* variant, std::int16_t& value);
bool read(GVariant* variant, std::string& value);

/// The first element of a tuple; holds null for anything else and for an empty tuple.
Bluez::GVariantHolder firstOf(GVariant* tuple);

/// The bytes of an array of bytes ("ay"), which `array` has to be.
std::vector<std::uint8_t> bytesOf(GVariant* array);

/// The one parameter of GattCharacteristic1.ReadValue: no options. Floating.
GVariant* readParameters();

/// The parameters of GattCharacteristic1.WriteValue: the bytes and no options. Floating.
GVariant* writeParameters(const std::vector<std::uint8_t>& bytes);

} // namespace bluez_variant
