// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gio/gio.h>

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

/// The number of bytes in an array of bytes ("ay").
std::size_t sizeOf(GVariant* array);

/// Copies the bytes of an array of bytes to `out`, which has room for all of them.
void copyBytes(GVariant* array, void* out);

/// The one parameter of GattCharacteristic1.ReadValue: no options. Floating.
GVariant* readParameters();

/// The parameters of GattCharacteristic1.WriteValue: the bytes and no options. Floating.
GVariant* writeParameters(const std::vector<std::uint8_t>& bytes);

} // namespace bluez_variant
