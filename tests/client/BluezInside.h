// SPDX-License-Identifier: MIT
#pragma once

#include "Bluez.h"

/**
 * Looks into the client's private members, for the few things that it keeps to itself: placeholders in the
 * tree and entries with an empty proxy. The daemon has no door for its tests; C++ leaves one, since an
 * explicit instantiation may name a private member. Touch them on the event thread only.
 */
namespace inside
{

template <typename Key, typename Key::Type Member>
struct Opener {
    friend typename Key::Type open(Key /*key*/) { return Member; }
};

struct Services {
    using Type = std::map<std::string, Bluez::Service> Bluez::*;
    friend Type open(Services);
};
struct AdapterProxies {
    using Type = std::map<std::string, Bluez::ProxyPtr> Bluez::*;
    friend Type open(AdapterProxies);
};
struct DeviceProxies {
    using Type = AdapterProxies::Type;
    friend Type open(DeviceProxies);
};
struct ServiceProxies {
    using Type = AdapterProxies::Type;
    friend Type open(ServiceProxies);
};
struct CharacteristicProxies {
    using Type = AdapterProxies::Type;
    friend Type open(CharacteristicProxies);
};
struct DescriptorProxies {
    using Type = AdapterProxies::Type;
    friend Type open(DescriptorProxies);
};
struct ObjectManager {
    using Type = GDBusObjectManager* Bluez::*;
    friend Type open(ObjectManager);
};
struct Connection {
    using Type = GDBusConnection* Bluez::*;
    friend Type open(Connection);
};
struct Loop {
    using Type = GMainLoop* Bluez::*;
    friend Type open(Loop);
};
struct Cancellable {
    using Type = GCancellable* Bluez::*;
    friend Type open(Cancellable);
};
struct Mutex {
    using Type = pthread_helper::mutex Bluez::*;
    friend Type open(Mutex);
};
struct OnObjectAdded {
    using Type = void (Bluez::*)(const std::string&);
    friend Type open(OnObjectAdded);
};
struct OnObjectRemoved {
    using Type = OnObjectAdded::Type;
    friend Type open(OnObjectRemoved);
};

template struct Opener<Services, &Bluez::_services>;
template struct Opener<AdapterProxies, &Bluez::_adapterProxies>;
template struct Opener<DeviceProxies, &Bluez::_deviceProxies>;
template struct Opener<ServiceProxies, &Bluez::_serviceProxies>;
template struct Opener<CharacteristicProxies, &Bluez::_characteristicProxies>;
template struct Opener<DescriptorProxies, &Bluez::_descriptorProxies>;
template struct Opener<ObjectManager, &Bluez::_objectManager>;
template struct Opener<Connection, &Bluez::_connection>;
template struct Opener<Loop, &Bluez::_loop>;
template struct Opener<Cancellable, &Bluez::_cancellable>;
template struct Opener<Mutex, &Bluez::_mutex>;
template struct Opener<OnObjectAdded, &Bluez::onObjectAdded>;
template struct Opener<OnObjectRemoved, &Bluez::onObjectRemoved>;

/// inside::of<inside::Services>(client)
template <typename Key>
auto& of(Bluez& client)
{
    return client.*open(Key{});
}

} // namespace inside
