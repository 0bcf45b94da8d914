// SPDX-License-Identifier: MIT
#pragma once

#include "Bluez.h"

/**
 * Gives access to the client's private members, for the few things that it doesn't expose: placeholders in
 * the tree and entries with an empty proxy. The daemon has no hooks for tests, but in C++ an explicit
 * instantiation may name a private member. Use them on the event thread only.
 */
namespace inside
{

struct Members {
    using ProxyMap = std::map<std::string, Bluez::ProxyPtr>;

    std::map<std::string, Bluez::Service> Bluez::*services;
    ProxyMap Bluez::*adapterProxies;
    ProxyMap Bluez::*deviceProxies;
    ProxyMap Bluez::*serviceProxies;
    ProxyMap Bluez::*characteristicProxies;
    ProxyMap Bluez::*descriptorProxies;
    GDBusObjectManager* Bluez::*objectManager;
    GMainLoop* Bluez::*loop;
    GCancellable* Bluez::*cancellable;
    pthread_helper::mutex Bluez::*mutex;
    void (Bluez::*onObjectAdded)(const std::string&);
    void (Bluez::*onObjectRemoved)(const std::string&);
};

struct Key {
    friend Members open(Key);
};

template <typename Key, auto... kMembers>
struct Opener {
    friend Members open(Key /*key*/) { return {kMembers...}; }
};

template struct Opener<Key, &Bluez::_services, &Bluez::_adapterProxies, &Bluez::_deviceProxies,
                       &Bluez::_serviceProxies, &Bluez::_characteristicProxies, &Bluez::_descriptorProxies,
                       &Bluez::_objectManager, &Bluez::_loop, &Bluez::_cancellable, &Bluez::_mutex,
                       &Bluez::onObjectAdded, &Bluez::onObjectRemoved>;

/// client.*inside::kMembers.services
inline const Members kMembers = open(Key{});

} // namespace inside
