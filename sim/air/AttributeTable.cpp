// SPDX-License-Identifier: MIT
#include "sim/air/AttributeTable.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace vexasim::air
{

namespace
{

constexpr std::uint16_t kPrimaryService = 0x2800;
constexpr std::uint16_t kSecondaryService = 0x2801;
constexpr std::uint16_t kCharacteristic = 0x2803;
constexpr std::uint16_t kClientConfiguration = 0x2902;

constexpr size_t kUuidTextLength = 36;
constexpr size_t kLongUuid = 16;
constexpr size_t kShortUuid = 2;
constexpr size_t kShortUuidAt = 12;

// 00000000-0000-1000-8000-00805f9b34fb, the least significant octet first.
const Bytes kBaseUuid = {0xfb, 0x34, 0x9b, 0x5f, 0x80, 0x00, 0x00, 0x80,
                         0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

// Properties of a characteristic, Bluetooth Core 5.3, Vol 3, G 3.3.1.1, and their names.
const std::vector<std::pair<std::string, std::uint8_t>> kProperties = {
    {"read", 0x02}, {"write-without-response", 0x04}, {"write", 0x08}, {"notify", 0x10}, {"indicate", 0x20}};

Bytes declaration(const GattCharacteristic& characteristic)
{
    unsigned properties = 0;
    for (const auto& [word, bit] : kProperties) {
        properties |= characteristic.has(word) ? bit : 0U;
    }
    return encode(static_cast<std::uint8_t>(properties), characteristic.valueHandle,
                  uuidBytes(characteristic.uuid));
}

} // namespace

Bytes uuidBytes(const std::string& text)
{
    std::string digits;
    std::copy_if(text.begin(), text.end(), std::back_inserter(digits), [](char c) { return c != '-'; });
    const bool hexadecimal = digits.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (text.size() != kUuidTextLength || digits.size() != 2 * kLongUuid || !hexadecimal) {
        throw std::invalid_argument("'" + text + "' is not a UUID");
    }
    Bytes uuid;
    for (size_t at = digits.size(); at > 0; at -= 2) {
        uuid.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(at - 2, 2), nullptr, 16)));
    }
    const Bytes shortForm(uuid.begin() + kShortUuidAt, uuid.begin() + kShortUuidAt + kShortUuid);
    return longUuid(shortForm) == uuid ? shortForm : uuid;
}

Bytes longUuid(const Bytes& uuid)
{
    if (uuid.size() != kShortUuid) {
        return uuid;
    }
    Bytes result = kBaseUuid;
    std::copy(uuid.begin(), uuid.end(), result.begin() + kShortUuidAt);
    return result;
}

AttributeTable::AttributeTable(const GattTable& services)
{
    for (const auto& service : services) {
        Attribute row;
        row.handle = service.handle;
        row.kind = Attribute::Kind::Service;
        row.type = encode(service.primary ? kPrimaryService : kSecondaryService);
        row.value = uuidBytes(service.uuid);
        row.groupEnd = service.endHandle;
        mRows.push_back(row);
        for (const auto& characteristic : service.characteristics) {
            addCharacteristic(characteristic);
        }
    }
    std::sort(mRows.begin(), mRows.end(),
              [](const Attribute& left, const Attribute& right) { return left.handle < right.handle; });
}

void AttributeTable::addCharacteristic(const GattCharacteristic& characteristic)
{
    Attribute row;
    row.valueHandle = characteristic.valueHandle;

    row.handle = characteristic.handle;
    row.kind = Attribute::Kind::Characteristic;
    row.type = encode(kCharacteristic);
    row.value = declaration(characteristic);
    mRows.push_back(row);

    row.handle = characteristic.valueHandle;
    row.kind = Attribute::Kind::Value;
    row.type = uuidBytes(characteristic.uuid);
    row.value.clear();
    row.readEncrypted = characteristic.has("encrypt-read");
    row.writeEncrypted = characteristic.has("encrypt-write");
    mRows.push_back(row);

    for (const auto& descriptor : characteristic.descriptors) {
        row.handle = descriptor.handle;
        row.type = uuidBytes(descriptor.uuid);
        row.kind = row.type == encode(kClientConfiguration) ? Attribute::Kind::Configuration
                                                            : Attribute::Kind::Descriptor;
        mRows.push_back(row);
    }
}

const Attribute* AttributeTable::find(std::uint16_t handle) const
{
    const auto found = std::find_if(mRows.begin(), mRows.end(),
                                    [handle](const Attribute& row) { return row.handle == handle; });
    return found == mRows.end() ? nullptr : &*found;
}

std::vector<const Attribute*> AttributeTable::between(std::uint16_t first, std::uint16_t last) const
{
    std::vector<const Attribute*> rows;
    for (const auto& row : mRows) {
        if (row.handle >= first && row.handle <= last) {
            rows.push_back(&row);
        }
    }
    return rows;
}

std::vector<const Attribute*> AttributeTable::ofType(std::uint16_t first, std::uint16_t last,
                                                     const Bytes& type) const
{
    auto rows = between(first, last);
    const auto other = [&](const Attribute* row) { return longUuid(row->type) != longUuid(type); };
    rows.erase(std::remove_if(rows.begin(), rows.end(), other), rows.end());
    return rows;
}

} // namespace vexasim::air
