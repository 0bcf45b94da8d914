// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

/// The attribute table of a simulated peripheral: plain records, independent of D-Bus and the radio.
/// Handles are those of the attribute protocol.
namespace vexasim
{

using Bytes = std::vector<std::uint8_t>;

/// Error codes of the attribute protocol (Bluetooth Core, Vol 3, Part F, 3.4.1.1).
namespace att
{
constexpr std::uint8_t kOk = 0x00;
constexpr std::uint8_t kInvalidHandle = 0x01;
constexpr std::uint8_t kReadNotPermitted = 0x02;
constexpr std::uint8_t kWriteNotPermitted = 0x03;
constexpr std::uint8_t kInsufficientAuthentication = 0x05;
constexpr std::uint8_t kRequestNotSupported = 0x06;
constexpr std::uint8_t kInsufficientAuthorization = 0x08;
constexpr std::uint8_t kUnlikelyError = 0x0e;
} // namespace att

struct GattDescriptor {
    std::uint16_t handle = 0;
    std::string uuid; ///< 128-bit form, lower case
    Bytes value;
    std::vector<std::string> flags; ///< as BlueZ names them: "read", "write"
};

struct GattCharacteristic {
    std::uint16_t handle = 0;      ///< of the declaration; BlueZ names the object after it
    std::uint16_t valueHandle = 0; ///< where reads, writes and notifications go
    std::string uuid;              ///< 128-bit form, lower case
    /// As BlueZ names them: "read", "write", "write-without-response", "notify", "indicate".
    std::vector<std::string> flags;
    Bytes value; ///< at the time the table was requested
    std::vector<GattDescriptor> descriptors;

    bool has(const std::string& flag) const;
};

struct GattService {
    std::uint16_t handle = 0;
    std::uint16_t endHandle = 0; ///< the last handle that belongs to the service
    std::string uuid;            ///< 128-bit form, lower case
    bool primary = true;
    std::vector<GattCharacteristic> characteristics;
};

using GattTable = std::vector<GattService>;

/// "0000180f-0000-1000-8000-00805f9b34fb" for 0x180f.
std::string uuid128(std::uint16_t uuid16);

/// How the peripheral answers one read or write.
struct AttReply {
    enum class Kind {
        Answer,   ///< after `delay`, with `error` or with `value`
        NoAnswer, ///< never
        LinkLost, ///< the link ended instead
    };
    Kind kind = Kind::Answer;
    std::uint8_t error = att::kOk; ///< a code of the attribute protocol; 0 is success
    Bytes value;                   ///< what was read
    std::chrono::milliseconds delay{0};

    bool isSuccess() const { return kind == Kind::Answer && error == att::kOk; }

    static AttReply ok(Bytes value = {});
    static AttReply refused(std::uint8_t error);
    static AttReply silence();
    static AttReply lost();
};

} // namespace vexasim
