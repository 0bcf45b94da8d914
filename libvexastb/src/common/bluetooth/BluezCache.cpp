// SPDX-License-Identifier: MIT
#include "Bluez.h"
#include "BluezVariant.h"

namespace
{

template <typename Map>
std::vector<std::string> keysOf(const Map& map)
{
    std::vector<std::string> keys;
    keys.reserve(map.size());
    for (const auto& entry : map) {
        keys.push_back(entry.first);
    }
    return keys;
}

} // namespace

std::vector<std::string> Bluez::getAdapters() const
{
    const pthread_helper::scoped_lock lock(_mutex);
    return keysOf(_adapterProxies);
}

std::vector<std::string> Bluez::getDevices() const
{
    const pthread_helper::scoped_lock lock(_mutex);
    return keysOf(_deviceProxies);
}

std::vector<Bluez::Service> Bluez::getServices(const std::string& devicePath, Service::Type type)
{
    std::vector<Service> services;
    if (!isDevice(devicePath)) {
        return services;
    }
    // Kept: no lock, though the event thread may change the tree meanwhile.
    for (const auto& [path, service] : _services) {
        if (service.type == type && service.parent == devicePath) {
            services.push_back(service);
        }
    }
    return services;
}

// The fields that the three GATT records share; blank for an empty path. Takes no lock.
template <typename Record>
Record Bluez::recordFor(const std::string& path)
{
    Record record;
    if (path.empty()) {
        return record;
    }
    getCachedProperty(path, "UUID", record.uuid); // one that can't be read stays empty
    record.path = path;
    record.parent = getParent(path);
    return record;
}

Bluez::Service Bluez::objectForService(const std::string& path)
{
    auto service = recordFor<Service>(path);
    if (!path.empty()) {
        service.type = serviceTypeByString(service.uuid);
    }
    return service;
}

Bluez::Service::Characteristic Bluez::objectForCharacteristic(const std::string& path)
{
    return recordFor<Service::Characteristic>(path);
}

Bluez::Service::Characteristic::Descriptor Bluez::objectForDescriptor(const std::string& path)
{
    return recordFor<Service::Characteristic::Descriptor>(path);
}

// Kept: finds or creates, without a lock and without a reference of its own. An unknown path leaves an empty
// entry behind, and the path stays unusable until its object is removed.
GDBusProxy* Bluez::findProxy(ProxyMap& proxies, const std::string& path)
{
    if (_connection == nullptr || path.empty()) {
        return nullptr;
    }
    return proxies[path].get();
}

Bluez::ProxyPtr Bluez::findProxyOfAnyKind(const std::string& path)
{
    if (isAdapter(path)) {
        return _adapterProxies[path];
    }
    if (isDevice(path)) {
        return _deviceProxies[path];
    }
    if (isService(path)) {
        return _serviceProxies[path];
    }
    if (isCharacteristic(path)) {
        return _characteristicProxies[path];
    }
    if (isDescriptor(path)) {
        return _descriptorProxies[path];
    }
    return {};
}

template <typename Value>
bool Bluez::getCached(ProxyMap& proxies, const std::string& path, const char* property, Value& value)
{
    GDBusProxy* proxy = findProxy(proxies, path);
    if (proxy == nullptr) {
        return false;
    }
    const Bluez::GVariantHolder cached(g_dbus_proxy_get_cached_property(proxy, property));
    return cached.variant != nullptr && bluez_variant::read(cached.variant, value);
}

bool Bluez::adapterGetAddress(const std::string& path, std::string& address)
{
    return getCached(_adapterProxies, path, "Address", address);
}

bool Bluez::adapterGetPairable(const std::string& path, bool& pairable)
{
    return getCached(_adapterProxies, path, "Pairable", pairable);
}

bool Bluez::adapterGetPowered(const std::string& path, bool& powered)
{
    return getCached(_adapterProxies, path, "Powered", powered);
}

bool Bluez::adapterGetDiscovering(const std::string& path, bool& discovering)
{
    return getCached(_adapterProxies, path, "Discovering", discovering);
}

bool Bluez::deviceGetAddress(const std::string& path, std::string& address)
{
    return getCached(_deviceProxies, path, "Address", address);
}

bool Bluez::deviceGetAliasName(const std::string& path, std::string& alias)
{
    return getCached(_deviceProxies, path, "Alias", alias);
}

bool Bluez::deviceGetConnected(const std::string& path, bool& connected)
{
    return getCached(_deviceProxies, path, "Connected", connected);
}

bool Bluez::deviceGetPaired(const std::string& path, bool& paired)
{
    return getCached(_deviceProxies, path, "Paired", paired);
}

bool Bluez::deviceGetTrusted(const std::string& path, bool& trusted)
{
    return getCached(_deviceProxies, path, "Trusted", trusted);
}

bool Bluez::deviceGetRSSI(const std::string& path, std::int16_t& dBm)
{
    return getCached(_deviceProxies, path, "RSSI", dBm);
}

bool Bluez::deviceIsServicesResolved(const std::string& path)
{
    bool resolved = false;
    return getCached(_deviceProxies, path, "ServicesResolved", resolved) && resolved;
}

bool Bluez::deviceSetTrusted(const std::string& path, const bool& trusted)
{
    GDBusProxy* proxy = findProxy(_deviceProxies, path);
    if (proxy == nullptr) {
        return false;
    }
    // Kept: sets only the proxy's cache; nothing is sent over the bus and BlueZ's own value doesn't change.
    const Bluez::GVariantHolder value(g_variant_new_boolean(trusted ? TRUE : FALSE));
    g_dbus_proxy_set_cached_property(proxy, "Trusted", value.variant);
    return true;
}
