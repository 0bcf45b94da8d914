// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sim/air/Bytes.h"
#include "sim/model/Gatt.h"

namespace vexasim::air
{

/// A UUID as the attribute protocol sends it: 2 bytes if it is based on the Bluetooth base UUID, else 16, the
/// least significant first. Throws std::invalid_argument if the text isn't the 36 characters of a UUID.
Bytes uuidBytes(const std::string& text);

/// The 16-byte form of either.
Bytes longUuid(const Bytes& uuid);

/// One row of the attribute table.
struct Attribute {
    enum class Kind {
        Service,        ///< the value is the service's UUID
        Characteristic, ///< the declaration: properties, value handle, UUID
        Value,          ///< provided by the peripheral
        Configuration,  ///< of a characteristic's notifications
        Descriptor,     ///< any other, provided by the peripheral
    };

    std::uint16_t handle = 0;
    Kind kind = Kind::Value;
    Bytes type;                    ///< the attribute's UUID
    Bytes value;                   ///< of services and declarations
    std::uint16_t groupEnd = 0;    ///< of services
    std::uint16_t valueHandle = 0; ///< of the characteristic to which it belongs
    bool readEncrypted = false;    ///< only over an encrypted link
    bool writeEncrypted = false;   ///< only over an encrypted link

    bool declaration() const { return kind == Kind::Service || kind == Kind::Characteristic; }
};

/// A peripheral's services as the attribute protocol sees them: rows in the order of their handles. Rebuilt
/// when the services change. Any thread.
class AttributeTable
{
public:
    explicit AttributeTable(const GattTable& services);

    const Attribute* find(std::uint16_t handle) const;

    /// The rows from `first` to `last` of that type.
    std::vector<const Attribute*> ofType(std::uint16_t first, std::uint16_t last, const Bytes& type) const;

    /// The rows from `first` to `last`.
    std::vector<const Attribute*> between(std::uint16_t first, std::uint16_t last) const;

private:
    void addCharacteristic(const GattCharacteristic& characteristic);

    std::vector<Attribute> mRows;
};

} // namespace vexasim::air
