// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

// Encodes and decodes packets. A field is an integer, an enumerator, an array of octets, a byte string, or a
// structure whose member function `fields` ties its members in the order in which they are sent. Everything
// on the air is little-endian.

namespace vexasim::air
{

using Bytes = std::vector<std::uint8_t>;

/// Appends fields to a byte string. Any thread.
class Encoder
{
public:
    /// Writes a field. A Bytes field is written without a length.
    template <class Value>
    void put(const Value& value)
    {
        if constexpr (std::is_enum_v<Value>) {
            put(static_cast<std::underlying_type_t<Value>>(value));
        } else if constexpr (std::is_integral_v<Value>) {
            for (std::size_t i = 0; i < sizeof value; ++i) {
                mBytes.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i)));
            }
        } else {
            std::apply([this](const auto&... field) { (this->put(field), ...); }, Value(value).fields());
        }
    }
    void put(const Bytes& bytes) { mBytes.insert(mBytes.end(), bytes.begin(), bytes.end()); }
    template <std::size_t size>
    void put(const std::array<std::uint8_t, size>& bytes)
    {
        mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
    }

    /// Moves out the bytes written.
    Bytes take() { return std::move(mBytes); }

private:
    Bytes mBytes;
};

/// Reads fields from the front of a byte string; past the end it yields zeroes and records the failure. Any
/// thread; the bytes must outlive it.
class Decoder
{
public:
    explicit Decoder(const Bytes& bytes) : mBytes(bytes) {}

    /// Reads the fields in order. A Bytes field takes all remaining bytes.
    template <class... Field>
    void operator()(Field&... field)
    {
        (get(field), ...);
    }

    /// Takes `size` bytes, or fails.
    Bytes bytes(std::size_t size)
    {
        if (size > left()) {
            mOk = false;
            size = left();
        }
        const auto from = mBytes.begin() + static_cast<std::ptrdiff_t>(mAt);
        mAt += size;
        return Bytes(from, from + static_cast<std::ptrdiff_t>(size));
    }

    std::size_t left() const { return mBytes.size() - mAt; }

    /// True while no read has gone past the end.
    bool ok() const { return mOk; }

private:
    template <class Value>
    void get(Value& value)
    {
        if constexpr (std::is_enum_v<Value>) {
            std::underlying_type_t<Value> number{};
            get(number);
            value = static_cast<Value>(number);
        } else if constexpr (std::is_integral_v<Value>) {
            std::uint64_t number = 0;
            for (std::size_t i = 0; i < sizeof value; ++i) {
                number |= std::uint64_t{next()} << (8 * i);
            }
            value = static_cast<Value>(number);
        } else {
            std::apply(*this, value.fields());
        }
    }
    void get(Bytes& rest) { rest = bytes(left()); }
    template <std::size_t size>
    void get(std::array<std::uint8_t, size>& octets)
    {
        for (auto& octet : octets) {
            octet = next();
        }
    }
    std::uint8_t next()
    {
        if (mAt < mBytes.size()) {
            return mBytes[mAt++];
        }
        mOk = false;
        return 0;
    }

    const Bytes& mBytes;
    std::size_t mAt = 0;
    bool mOk = true;
};

/// The encoded fields, one after the other.
template <class... Field>
Bytes encode(const Field&... fields)
{
    Encoder encoder;
    (encoder.put(fields), ...);
    return encoder.take();
}

/// Decodes the fields; empty if the bytes are too few or too many.
template <class... Field>
std::optional<std::tuple<Field...>> decodeFields(const Bytes& bytes)
{
    std::tuple<Field...> fields{};
    Decoder decoder(bytes);
    std::apply(decoder, fields);
    if (!decoder.ok() || decoder.left() != 0) {
        return std::nullopt;
    }
    return fields;
}

/// Decodes a single field, usually a packet's structure; empty if the bytes are too few or too many.
template <class Field>
std::optional<Field> decode(const Bytes& bytes)
{
    const auto fields = decodeFields<Field>(bytes);
    return fields ? std::optional(std::get<0>(*fields)) : std::nullopt;
}

/// Calls a member function with its parameters decoded from the bytes; false, without a call, if the bytes
/// are too few or too many.
template <class Object, class... Parameter>
bool callDecoded(Object& object, void (Object::*method)(Parameter...), const Bytes& bytes)
{
    const auto fields = decodeFields<std::decay_t<Parameter>...>(bytes);
    if (fields) {
        std::apply([&](const auto&... field) { (object.*method)(field...); }, *fields);
    }
    return fields.has_value();
}

/// The same for tables of handlers.
template <auto method, class Object>
bool callDecoded(Object& object, const Bytes& bytes)
{
    return callDecoded(object, method, bytes);
}

/// Concatenates two byte strings.
inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace vexasim::air
