// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <vector>

// How packets become bytes and bytes packets. A packet is a plain structure
// with one member function template, `fields`, that names its fields in the
// order in which they travel; Encoder and Decoder are the two things it is
// given. Everything on the air is little-endian.

namespace vexasim::air
{

using Bytes = std::vector<uint8_t>;

/// Appends fields to a byte string. Any thread.
class Encoder
{
public:
    /// Writes the fields in order. A Bytes field is written without a length.
    template <class... Field>
    void operator()(const Field&... field)
    {
        (put(field), ...);
    }

    /// Gives away what was written.
    Bytes take() { return std::move(mBytes); }

private:
    template <class Value>
    void put(const Value& value)
    {
        if constexpr (std::is_enum_v<Value>)
            put(static_cast<std::underlying_type_t<Value>>(value));
        else if constexpr (std::is_integral_v<Value>)
            putInteger(static_cast<std::make_unsigned_t<Value>>(value));
        else
            Value(value).fields(*this);
    }
    void put(const Bytes& bytes) { mBytes.insert(mBytes.end(), bytes.begin(), bytes.end()); }
    template <size_t size>
    void put(const std::array<uint8_t, size>& bytes)
    {
        mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
    }
    template <class Unsigned>
    void putInteger(Unsigned value)
    {
        for (size_t i = 0; i < sizeof value; ++i)
            mBytes.push_back(static_cast<uint8_t>(uint64_t{value} >> (8 * i)));
    }

    Bytes mBytes;
};

/// Takes fields off the front of a byte string; past the end it yields zeroes
/// and remembers the failure. Any thread; the bytes must outlive it.
class Decoder
{
public:
    explicit Decoder(const Bytes& bytes) : mBytes(bytes) {}

    /// Reads the fields in order. A Bytes field takes all that is left.
    template <class... Field>
    void operator()(Field&... field)
    {
        (get(field), ...);
    }

    /// Takes `size` bytes, or fails.
    Bytes bytes(size_t size)
    {
        if (size > left()) {
            mOk = false;
            size = left();
        }
        const auto from = mBytes.begin() + static_cast<std::ptrdiff_t>(mAt);
        mAt += size;
        return Bytes(from, from + static_cast<std::ptrdiff_t>(size));
    }

    size_t left() const { return mBytes.size() - mAt; }

    /// True while no field has reached past the end.
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
            uint64_t number = 0;
            for (size_t i = 0; i < sizeof value; ++i)
                number |= uint64_t{next()} << (8 * i);
            value = static_cast<Value>(number);
        } else {
            value.fields(*this);
        }
    }
    void get(Bytes& rest) { rest = bytes(left()); }
    template <size_t size>
    void get(std::array<uint8_t, size>& octets)
    {
        for (auto& octet : octets)
            octet = next();
    }
    uint8_t next()
    {
        if (mAt < mBytes.size())
            return mBytes[mAt++];
        mOk = false;
        return 0;
    }

    const Bytes& mBytes;
    size_t mAt = 0;
    bool mOk = true;
};

/// The bytes of a packet as they travel.
template <class Packet>
Bytes encode(Packet packet)
{
    Encoder encoder;
    packet.fields(encoder);
    return encoder.take();
}

/// The packet in the bytes; empty if they are too few or too many for it.
template <class Packet>
std::optional<Packet> decode(const Bytes& bytes)
{
    Packet packet{};
    Decoder decoder(bytes);
    packet.fields(decoder);
    if (!decoder.ok() || decoder.left() != 0)
        return std::nullopt;
    return packet;
}

/// One byte string behind the other.
inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace vexasim::air
