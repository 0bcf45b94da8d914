// SPDX-License-Identifier: MIT
#include <cstddef>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "Bluez.h"
#include "NSRegExp.h"

namespace
{

constexpr const char* kBluetoothBase = "-0000-1000-8000-00805f9b34fb";
constexpr const char* kVendorBase = "-3c17-d293-8e48-14fe2e4da212";

// Maximal runs of characters other than the separator: there are no empty tokens.
std::vector<std::string> tokenize(const std::string& text, char separator)
{
    std::vector<std::string> tokens;
    std::size_t start = text.find_first_not_of(separator);
    while (start != std::string::npos) {
        const std::size_t end = text.find(separator, start);
        tokens.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(separator, end);
    }
    return tokens;
}

std::uint32_t parseCode(const std::string& text)
{
    constexpr int kHexadecimal = 16;
    const unsigned long code = std::stoul(text, nullptr, kHexadecimal);
    // Where unsigned long is wider than on the box: don't drop the upper bits.
    if (code > std::numeric_limits<std::uint32_t>::max()) {
        throw std::out_of_range(text);
    }
    return static_cast<std::uint32_t>(code);
}

} // namespace

const std::map<std::uint32_t, Bluez::Service::Type>& Bluez::_codeToServiceType =
    *new std::map<std::uint32_t, Bluez::Service::Type>{
        {0x180F, Bluez::Service::Type::Battery},
        {0xFFD0, Bluez::Service::Type::OtaNormal},
        {0xD0FF, Bluez::Service::Type::OtaNew},
        {0x6287, Bluez::Service::Type::Dfu},
    };

std::string Bluez::Service::Characteristic::Descriptor::toString() const
{
    std::ostringstream text;
    text << "GATT Descriptor:\n"
         << "path: " << path << '\n'
         << "parent: " << parent << '\n'
         << "uuid: " << uuid << " val: " << val << '\n';
    return text.str();
}

std::string Bluez::Service::Characteristic::toString() const
{
    std::ostringstream text;
    text << "GATT Characteristic:\n"
         << "path: " << path << '\n'
         << "parent: " << parent << '\n'
         << "uuid: " << uuid << '\n';
    for (const auto& [descriptorPath, descriptor] : descriptors) {
        // Kept: the value alone, which stays empty, so a descriptor usually shows as a blank line.
        text << descriptor.val << '\n';
    }
    return text.str();
}

std::string Bluez::Service::toString() const
{
    std::ostringstream text;
    text << "Service:\n"
         << "path: " << path << '\n'
         << "parent: " << parent << '\n'
         << "uuid: " << uuid << '\n'
         << "Type: " << serviceTypeToString(type) << '\n';
    for (const auto& [characteristicPath, characteristic] : characteristics) {
        text << characteristic.toString();
    }
    return text.str();
}

std::string Bluez::toString(const std::vector<Service>& services) const
{
    std::string text = "Services:\n";
    for (const Service& service : services) {
        text += service.toString();
    }
    return text;
}

std::pair<std::string, std::string> Bluez::splitPath(const std::string& path) const
{
    const std::vector<std::string> tokens = tokenize(path, '/');
    if (tokens.empty()) {
        return {"/", "/"};
    }
    if (tokens.size() == 1) {
        // Kept: with one component the endpoint keeps the slash, too.
        return {"/" + tokens.front(), "/" + tokens.front()};
    }
    std::string parent;
    for (std::size_t i = 0; i + 1 < tokens.size(); ++i) {
        parent += "/" + tokens[i];
    }
    return {parent, tokens.back()};
}

std::string Bluez::getParent(const std::string& path) const
{
    return splitPath(path).first;
}

std::string Bluez::getEndpoint(const std::string& path) const
{
    return splitPath(path).second;
}

// Kept: the patterns are searched for, not anchored, and their character classes differ.
bool Bluez::isAdapter(const std::string& path) const
{
    return endpointMatches(path, "hci[0-9]+");
}

bool Bluez::isDevice(const std::string& path) const
{
    return endpointMatches(path, "dev(_[A-F0-9]{2}){6}");
}

bool Bluez::isService(const std::string& path) const
{
    return endpointMatches(path, "service[0-9a-f]{4}");
}

bool Bluez::isCharacteristic(const std::string& path) const
{
    return endpointMatches(path, "char[a-f0-9]{4}");
}

bool Bluez::isDescriptor(const std::string& path) const
{
    return endpointMatches(path, "desc[a-f0-9]{4}");
}

bool Bluez::endpointMatches(const std::string& path, const char* pattern) const
{
    NSRegExp expression(pattern, REG_EXTENDED);
    std::vector<std::string> groups;
    return expression.match(getEndpoint(path), groups, 0);
}

Bluez::Service::Type Bluez::serviceTypeByString(const std::string& uuid)
{
    if (uuid.find(kBluetoothBase) == std::string::npos && uuid.find(kVendorBase) == std::string::npos) {
        return Service::Type::Unknown;
    }
    try {
        return _codeToServiceType.at(parseCode(tokenize(uuid, '-').at(0)));
    } catch (...) {
        // No token, no digit, a number too large, or a service that has no type here.
        return Service::Type::Unknown;
    }
}

std::string Bluez::serviceTypeToString(Service::Type type)
{
    switch (type) {
    case Service::Type::Battery:
        return "Battery service";
    case Service::Type::OtaNormal:
        return "OTA normal service";
    case Service::Type::OtaNew:
        return "OTA new service";
    case Service::Type::Dfu:
        return "DFU service";
    case Service::Type::Unknown:
        break;
    }
    return "Unknown";
}
