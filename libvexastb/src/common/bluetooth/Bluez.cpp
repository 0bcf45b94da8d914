// SPDX-License-Identifier: MIT
#include "Bluez.h"

#include <algorithm>
#include <array>
#include <utility>

#include "BluezVariant.h"
#include "GlibOwner.h"
#include "Printable.h"
#include "STBLogger.h"

namespace
{

constexpr const char* kBusName = "org.bluez";
constexpr const char* kRootPath = "/";
constexpr const char* kAdapterInterface = "org.bluez.Adapter1";
constexpr const char* kDeviceInterface = "org.bluez.Device1";
constexpr const char* kServiceInterface = "org.bluez.GattService1";
constexpr const char* kCharacteristicInterface = "org.bluez.GattCharacteristic1";
constexpr const char* kDescriptorInterface = "org.bluez.GattDescriptor1";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

constexpr int kLibraryTimeout = -1; // the D-Bus library's default, 25 s
constexpr int kPairTimeoutMs = 5000;
constexpr int kPairPolls = 30;
constexpr unsigned int kPairPollPauseMs = 500;

using Bytes = std::vector<std::uint8_t>;
using Characteristic = Bluez::Service::Characteristic;
using Descriptor = Bluez::Service::Characteristic::Descriptor;
using GVariantHolder = Bluez::GVariantHolder;

// Logs the error of a D-Bus call; returns whether there was one.
bool reportError(const glib_owner::Error& error)
{
    if (!error) {
        return false;
    }
    LOG_ERROR("%s", Printable(error.message()).text());
    return true;
}

GVariantHolder callProxy(GDBusProxy* proxy, const char* method, GVariant* parameters,
                         glib_owner::Error& error)
{
    return GVariantHolder(g_dbus_proxy_call_sync(proxy, method, parameters, G_DBUS_CALL_FLAGS_NONE,
                                                 kLibraryTimeout, nullptr, error.out()));
}

// Calls a method whose reply carries nothing of interest; true if a reply came.
bool callMethod(GDBusProxy* proxy, const char* method, GVariant* parameters = nullptr)
{
    glib_owner::Error error;
    const GVariantHolder reply = callProxy(proxy, method, parameters, error);
    reportError(error);
    return reply.variant != nullptr;
}

bool isArrayOfBytes(GVariant* variant)
{
    if (g_variant_is_of_type(variant, G_VARIANT_TYPE_BYTESTRING) != FALSE) {
        return true;
    }
    LOG_ERROR("Not an array of bytes: %s", g_variant_get_type_string(variant));
    return false;
}

// The reply to Pair is ignored, even an error: the outcome is polled instead.
void pairCompleted(GObject* /*proxy*/, GAsyncResult* /*result*/, gpointer /*client*/) {}

thread_local Bluez* clientOfThisThread = nullptr;

// After this, GDBus ends the process with SIGTERM, which a supervisor may take for a clean exit: it must
// restart the daemon after every exit.
void connectionClosed(GDBusConnection* /*connection*/, gboolean /*vanished*/, GError* error,
                      gpointer /*none*/)
{
    LOG_ERROR("System bus connection closed: %s",
              Printable(error != nullptr ? error->message : "by this side").text());
}

} // namespace

// --- Connection and event thread ---

Bluez::Bluez(Listener* listener)
{
    LOG_DEBUG("Bluez constructor");
    if (listener != nullptr) {
        const pthread_helper::scoped_lock lock(_mutex);
        _listeners[listener] = true;
    }
    startThread(nullptr);
}

Bluez::~Bluez()
{
    stopEvents();
    // Kept: these pointers belong to the event thread and are read here without a lock. If they aren't set
    // yet, nothing is posted, and the event thread, which then comes second, doesn't enter its loop.
    if (_loopMadeOrForgone.exchange(true)) {
        g_cancellable_cancel(_cancellable);
        LOG_TRACE("Posting stopping task");
        const glib_owner::Source source(g_idle_source_new());
        g_source_set_callback(source.get(), quit_task, _loop, nullptr);
        g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
        g_source_attach(source.get(), _context);
    }
    stopThread();
}

gboolean quit_task(gpointer loop)
{
    if (loop != nullptr) {
        LOG_DEBUG("Stopping loop task");
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    }
    return FALSE;
}

void Bluez::run()
{
    clientOfThisThread = this;
    LOG_DEBUG("Initing Bluez..");
    const bool loopIsKnown = createLoop();
    if (!loopIsKnown) {
        g_cancellable_cancel(_cancellable); // the destructor had none to cancel
    }
    if (!connectToBlueZ()) {
        // Kept: nothing is released or retried; the client stays without objects.
        return;
    }
    LOG_DEBUG("Init Bluez completed");
    fetchObjects();
    if (isRunning() && loopIsKnown) {
        g_main_loop_run(_loop);
    }
    LOG_DEBUG("Deiniting Bluez..");
    releaseConnection();
    LOG_DEBUG("Deiniting Bluez completed");
}

// False if the destructor was first: it has posted no stopping task, so the loop would never end.
bool Bluez::createLoop()
{
    _loop = g_main_loop_new(nullptr, TRUE);
    _context = g_main_loop_get_context(_loop); // no reference is taken
    _cancellable = g_cancellable_new();
    return !_loopMadeOrForgone.exchange(true);
}

bool Bluez::connectToBlueZ()
{
    _connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, _cancellable, nullptr);
    if (_connection == nullptr) {
        LOG_ERROR("Connection failed");
        return false;
    }
    g_signal_connect(_connection, "closed", G_CALLBACK(connectionClosed), nullptr);
    _objectManager =
        g_dbus_object_manager_client_new_sync(_connection, G_DBUS_OBJECT_MANAGER_CLIENT_FLAGS_NONE, kBusName,
                                              kRootPath, nullptr, nullptr, nullptr, _cancellable, nullptr);
    if (_objectManager == nullptr) {
        LOG_ERROR("Creating object manager failed");
        return false;
    }
    g_signal_connect(_objectManager, "object-added", G_CALLBACK(objectAdded), this);
    g_signal_connect(_objectManager, "object-removed", G_CALLBACK(objectRemoved), this);
    return true;
}

void Bluez::releaseConnection()
{
    // The members keep their values: they are still compared until the destructor has joined this thread.
    if (_objectManager != nullptr) {
        g_object_unref(_objectManager);
    }
    if (_connection != nullptr) {
        g_object_unref(_connection);
    }
    if (_cancellable != nullptr) {
        g_object_unref(_cancellable);
    }
    g_main_loop_unref(_loop);
    // Kept: the start took no reference on the context, so this drops one more than was taken.
    g_main_context_unref(_context);
}

void Bluez::fetchObjects()
{
    if (_objectManager == nullptr) {
        return;
    }
    std::vector<std::string> paths;
    GList* objects = g_dbus_object_manager_get_objects(_objectManager);
    for (GList* item = objects; item != nullptr; item = item->next) {
        const char* path = g_dbus_object_get_object_path(G_DBUS_OBJECT(item->data));
        LOG_TRACE("Object %s", path);
        paths.emplace_back(path);
    }
    g_list_free_full(objects, g_object_unref);

    // A path sorts before every path that extends it: parents are reported before their children.
    std::sort(paths.begin(), paths.end());
    for (const std::string& path : paths) {
        if (_stopping) {
            return; // each object costs calls on the bus, which may stay unanswered
        }
        onObjectAdded(path);
    }
}

void Bluez::subscribe(Listener* listener)
{
    if (listener == nullptr) {
        return;
    }
    const pthread_helper::scoped_lock lock(_mutex);
    _listeners[listener] = true;
}

void Bluez::unsubscribe(Listener* listener)
{
    const pthread_helper::scoped_lock lock(_mutex);
    // An entry is never erased.
    _listeners[listener] = false;
}

Bluez& Bluez::ofThisThread()
{
    return *clientOfThisThread;
}

void Bluez::runAfterEvents(std::function<void()> task)
{
    using Task = std::function<void()>;
    const glib_owner::Source source(g_idle_source_new());
    g_source_set_callback(
        source.get(),
        [](gpointer data) -> gboolean {
            (*static_cast<Task*>(data))();
            return G_SOURCE_REMOVE;
        },
        new Task(std::move(task)), [](gpointer data) { delete static_cast<Task*>(data); });
    g_source_set_priority(source.get(), G_PRIORITY_DEFAULT);
    g_source_attach(source.get(), nullptr);
}

void Bluez::stopEvents()
{
    _stopping = true;
}

Bluez::ListenerMap Bluez::getListeners() const
{
    const pthread_helper::scoped_lock lock(_mutex);
    return _listeners;
}

// Calls `callback` with each subscribed listener, unless the client is stopping; the caller must not hold
// _mutex.
template <typename Callback>
void Bluez::fanOut(Callback callback) const
{
    for (const auto& [listener, subscribed] : getListeners()) {
        if (subscribed && !_stopping) {
            callback(*listener);
        }
    }
}

// --- Object tracking ---

void Bluez::objectAdded(GDBusObjectManager* /*manager*/, GDBusObject* object, gpointer self)
{
    if (static_cast<Bluez*>(self)->_stopping) {
        return; // a long queue of events must not delay the end
    }
    const std::string path = g_dbus_object_get_object_path(object);
    LOG_TRACE("+ %s", path.c_str());
    static_cast<Bluez*>(self)->onObjectAdded(path);
}

void Bluez::objectRemoved(GDBusObjectManager* /*manager*/, GDBusObject* object, gpointer self)
{
    if (static_cast<Bluez*>(self)->_stopping) {
        return; // a long queue of events must not delay the end
    }
    const std::string path = g_dbus_object_get_object_path(object);
    LOG_TRACE("- %s", path.c_str());
    static_cast<Bluez*>(self)->onObjectRemoved(path);
}

void Bluez::propertiesChanged(GDBusProxy* proxy, GVariant* changed, const gchar* const* invalidated,
                              gpointer self)
{
    if (!static_cast<Bluez*>(self)->_stopping) {
        static_cast<Bluez*>(self)->onPropertiesChanged(proxy, changed, invalidated);
    }
}

void Bluez::onObjectAdded(const std::string& path)
{
    if (_connection == nullptr) {
        LOG_ERROR("Not connected");
        return;
    }
    // The path alone decides; the interfaces that the object offers are never checked.
    if (isAdapter(path)) {
        addAdapter(path);
    } else if (isDevice(path)) {
        addDevice(path);
    } else if (isService(path)) {
        addService(path);
    } else if (isCharacteristic(path)) {
        addCharacteristic(path);
    } else if (isDescriptor(path)) {
        addDescriptor(path);
    } else {
        LOG_TRACE("Unhandled object: %s", path.c_str());
    }
}

void Bluez::addAdapter(const std::string& path)
{
    {
        const pthread_helper::scoped_lock lock(_mutex);
        storeProxy(_adapterProxies, path, kAdapterInterface);
    }
    fanOut([&](Listener& listener) { listener.onAdapterAdded(path); });
}

void Bluez::addDevice(const std::string& path)
{
    {
        const pthread_helper::scoped_lock lock(_mutex);
        storeProxy(_deviceProxies, path, kDeviceInterface);
        watchProperties(_deviceProxies, path);
    }
    fanOut([&](Listener& listener) { listener.onDeviceAdded(path); });
}

// Kept, in this and the next two: the guard releases _mutex a second time when it goes out of scope. The
// mutex isn't locked then, which unlock() ignores.
void Bluez::addService(const std::string& path)
{
    const pthread_helper::scoped_lock lock(_mutex);
    storeProxy(_serviceProxies, path, kServiceInterface);
    const Service service = objectForService(path);
    _services[path] = service;
    _mutex.unlock();
    fanOut([&](Listener& listener) { listener.onServiceAdded(path, service); });
}

void Bluez::addCharacteristic(const std::string& path)
{
    const pthread_helper::scoped_lock lock(_mutex);
    storeProxy(_characteristicProxies, path, kCharacteristicInterface);
    const Characteristic characteristic = objectForCharacteristic(path);
    // A parent that isn't there yet becomes a blank placeholder.
    _services[characteristic.parent].characteristics[path] = characteristic;
    watchProperties(_characteristicProxies, path);
    _mutex.unlock();
    fanOut([&](Listener& listener) { listener.onCharacteristicAdded(path, characteristic); });
}

void Bluez::addDescriptor(const std::string& path)
{
    const pthread_helper::scoped_lock lock(_mutex);
    storeProxy(_descriptorProxies, path, kDescriptorInterface);
    const Descriptor descriptor = objectForDescriptor(path);
    // Parents that aren't there yet become blank placeholders.
    Service& service = _services[getParent(descriptor.parent)];
    service.characteristics[descriptor.parent].descriptors[path] = descriptor;
    _mutex.unlock();
    fanOut([&](Listener& listener) { listener.onDescriptorAdded(path, descriptor); });
}

// An existing entry is kept, even an empty one left by an operation, and the new proxy is dropped. Called
// under _mutex although it blocks on the bus, since the maps change only under it.
void Bluez::storeProxy(ProxyMap& proxies, const std::string& path, const char* interface)
{
    proxies.emplace(path, makeSharedProxy(_connection, kBusName, path, interface, G_DBUS_PROXY_FLAGS_NONE,
                                          nullptr, nullptr, nullptr));
}

void Bluez::watchProperties(ProxyMap& proxies, const std::string& path)
{
    g_signal_connect_data(proxies[path].get(), "g-properties-changed", G_CALLBACK(propertiesChanged), this,
                          nullptr, static_cast<GConnectFlags>(0));
}

void Bluez::onObjectRemoved(const std::string& path)
{
    const RemovalGate::Removal removal(_removals, path);
    {
        // A thread that holds the gate during a call looks up no object that is gone, and learns of the
        // removal only afterwards.
        const pthread_helper::scoped_lock unused(_removals.hold());
        forgetObject(path);
    }
    // The listeners are notified whether or not any map held the path.
    if (isDescriptor(path)) {
        fanOut([&](Listener& listener) { listener.onDescriptorRemoved(path); });
    } else if (isCharacteristic(path)) {
        fanOut([&](Listener& listener) { listener.onCharacteristicRemoved(path); });
    } else if (isService(path)) {
        fanOut([&](Listener& listener) { listener.onServiceRemoved(path); });
    } else if (isDevice(path)) {
        fanOut([&](Listener& listener) { listener.onDeviceRemoved(path); });
    } else if (isAdapter(path)) {
        fanOut([&](Listener& listener) { listener.onAdapterRemoved(path); });
    }
}

void Bluez::forgetObject(const std::string& path)
{
    const pthread_helper::scoped_lock lock(_mutex);
    // Dropping the last reference ends a proxy and with it its signal connection.
    _adapterProxies.erase(path);
    _deviceProxies.erase(path);
    _serviceProxies.erase(path);
    _characteristicProxies.erase(path);
    _descriptorProxies.erase(path);
    _services.erase(path);
    for (auto& [servicePath, service] : _services) {
        service.characteristics.erase(path);
        for (auto& [characteristicPath, characteristic] : service.characteristics) {
            characteristic.descriptors.erase(path);
        }
    }
}

void Bluez::onPropertiesChanged(GDBusProxy* proxy, GVariant* changed, const gchar* const* /*invalidated*/)
{
    const std::string path = g_dbus_proxy_get_object_path(proxy);
    LOG_DEBUG("props changed: %s", path.c_str());

    GVariantIter iterator;
    g_variant_iter_init(&iterator, changed);
    const gchar* name = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_loop(&iterator, "{&sv}", &name, &value) !=
           FALSE) { // frees the value before the next
        onPropertyChanged(path, name, value);
    }
}

void Bluez::onPropertyChanged(const std::string& path, const std::string& name, GVariant* value)
{
    if (isDevice(path)) {
        onDevicePropertyChanged(path, name, value);
    } else if (isCharacteristic(path) && name == "Value") {
        onValueChanged(path, value);
    }
}

void Bluez::onDevicePropertyChanged(const std::string& path, const std::string& name, GVariant* value)
{
    struct BoolProperty {
        const char* name;
        void (Listener::*callback)(const std::string&, bool);
    };
    static constexpr std::array<BoolProperty, 3> kBoolProperties = {{
        {"Paired", &Listener::onDevicePairedStatusChanged},
        {"Connected", &Listener::onDeviceConnectionStatusChanged},
        {"ServicesResolved", &Listener::onDeviceServicesResolvedStatusChanged},
    }};

    const auto* const found =
        std::find_if(kBoolProperties.begin(), kBoolProperties.end(),
                     [&](const BoolProperty& property) { return name == property.name; });
    bool flag = false;
    std::int16_t dBm = 0;
    if (found == kBoolProperties.end() && name != "RSSI") {
        return;
    }
    if (found != kBoolProperties.end() && bluez_variant::read(value, flag)) {
        fanOut([&](Listener& listener) { (listener.*found->callback)(path, flag); });
    } else if (found == kBoolProperties.end() && bluez_variant::read(value, dBm)) {
        fanOut([&](Listener& listener) { listener.onDeviceRSSIChanged(path, dBm); });
    } else {
        LOG_WARN("Ignoring %s of %s: unexpected type %s", name.c_str(), path.c_str(),
                 g_variant_get_type_string(value));
    }
}

void Bluez::onValueChanged(const std::string& path, GVariant* value)
{
    const Bytes bytes = getBytesArray(value);
    fanOut([&](Listener& listener) {
        // Built only for a listener that is called.
        listener.onGattCharacteristicChanged(objectForCharacteristic(path), bytes);
    });
}

std::vector<std::string> Bluez::itemsFor(const std::string& path)
{
    if (_connection == nullptr || path.empty() || isDescriptor(path)) {
        return {};
    }
    LOG_TRACE("Fetching item for %s", path.c_str());
    const ProxyMap* children = nullptr;
    if (isDevice(path)) {
        LOG_TRACE("%s is device", path.c_str());
        children = &_serviceProxies;
    } else if (isService(path)) {
        LOG_TRACE("%s is service", path.c_str());
        children = &_characteristicProxies;
    } else if (isCharacteristic(path)) {
        LOG_TRACE("%s is characteristic", path.c_str());
        children = &_descriptorProxies;
    } else {
        return {};
    }
    std::vector<std::string> items;
    for (const auto& [childPath, proxy] : *children) {
        // Kept: a plain comparison of prefixes.
        if (childPath.compare(0, path.size(), path) == 0) {
            items.push_back(childPath);
        }
    }
    return items;
}

// --- Building blocks of the operations ---

Bluez::ProxyPtr Bluez::makeSharedProxy(GDBusConnection* connection, const std::string& name,
                                       const std::string& path, const std::string& interface,
                                       GDBusProxyFlags flags, GError** error, GCancellable* cancellable,
                                       GDBusInterfaceInfo* info)
{
    if (_connection == nullptr || name.empty() || path.empty() || interface.empty()) {
        return {};
    }
    // Null is wrapped, too. If the control block can't be allocated, the deleter runs and the exception
    // propagates.
    return {g_dbus_proxy_new_sync(connection, flags, info, name.c_str(), path.c_str(), interface.c_str(),
                                  cancellable, error),
            [](GDBusProxy* proxy) {
                LOG_TRACE("Unref object %p", static_cast<void*>(proxy));
                g_object_unref(proxy);
            }};
}

bool Bluez::getCachedProperty(const std::string& path, const std::string& property, std::string& value)
{
    if (_connection == nullptr) {
        LOG_ERROR("No connection");
        return false;
    }
    if (path.empty()) {
        LOG_ERROR("Empty object path");
        return false;
    }
    if (property.empty()) {
        LOG_ERROR("Empty property name");
        return false;
    }
    const ProxyPtr proxy = findProxyOfAnyKind(path);
    if (!proxy) {
        return false;
    }
    const GVariantHolder cached(g_dbus_proxy_get_cached_property(proxy.get(), property.c_str()));
    return cached.variant != nullptr && bluez_variant::read(cached.variant, value);
}

void Bluez::debugPrintProxies() const
{
    struct Group {
        const char* heading;
        const char* kind;
        const ProxyMap& proxies;
    };
    const pthread_helper::scoped_lock lock(_mutex);
    const Group groups[] = {
        {"Adapters:", "Adapter", _adapterProxies},
        {"Devices:", "Device", _deviceProxies},
        {"Services:", "Service", _serviceProxies},
        {"Characteristics:", "Characteristic", _characteristicProxies},
        {"Descriptors:", "Descriptor", _descriptorProxies},
    };
    for (const Group& group : groups) {
        LOG_DEBUG("%s", group.heading);
        for (const auto& [path, proxy] : group.proxies) {
            LOG_DEBUG("%s: %s: %p", group.kind, path.c_str(), static_cast<void*>(proxy.get()));
        }
        LOG_DEBUG("======================");
    }
}

// --- Adapters and devices: methods ---

bool Bluez::adapterScanOn(const std::string& path)
{
    GDBusProxy* proxy = findProxy(_adapterProxies, path);
    if (proxy == nullptr) {
        return false;
    }
    // Kept: true even if BlueZ refuses; a caller learns only whether the adapter is known.
    callMethod(proxy, "StartDiscovery");
    return true;
}

bool Bluez::adapterScanOff(const std::string& path)
{
    GDBusProxy* proxy = findProxy(_adapterProxies, path);
    if (proxy == nullptr) {
        return false;
    }
    // Kept: as for adapterScanOn.
    callMethod(proxy, "StopDiscovery");
    return true;
}

bool Bluez::adapterRemoveDevice(const std::string& path, const std::string& devicePath)
{
    // Checked before the lookup, so that no entry is left for the adapter; GLib crashes on a malformed path.
    if (g_variant_is_object_path(devicePath.c_str()) == FALSE) {
        return false;
    }
    GDBusProxy* proxy = findProxy(_adapterProxies, path);
    return proxy != nullptr && callMethod(proxy, "RemoveDevice", g_variant_new("(o)", devicePath.c_str()));
}

bool Bluez::deviceConnect(const std::string& path)
{
    GDBusProxy* proxy = findProxy(_deviceProxies, path);
    return proxy != nullptr && callMethod(proxy, "Connect");
}

bool Bluez::deviceDisconnect(const std::string& path)
{
    GDBusProxy* proxy = findProxy(_deviceProxies, path);
    return proxy != nullptr && callMethod(proxy, "Disconnect");
}

// --- Adapters and devices: current properties ---

GVariant* Bluez::callProperties(const std::string& path, const char* method, GVariant* parameters,
                                GError** error)
{
    return g_dbus_connection_call_sync(_connection, kBusName, path.c_str(), kPropertiesInterface, method,
                                       parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, kLibraryTimeout, nullptr,
                                       error);
}

bool Bluez::setAdapterProperty(const std::string& path, const char* property, bool value)
{
    if (_connection == nullptr || path.empty()) {
        return false;
    }
    glib_owner::Error error;
    const GVariantHolder reply(callProperties(
        path, "Set",
        g_variant_new("(ssv)", kAdapterInterface, property, g_variant_new("b", value ? TRUE : FALSE)),
        error.out()));
    reportError(error);
    return reply.variant != nullptr;
}

bool Bluez::adapterSetPairable(const std::string& path, const bool& pairable)
{
    return setAdapterProperty(path, "Pairable", pairable);
}

bool Bluez::adapterSetPowered(const std::string& path, const bool& powered)
{
    return setAdapterProperty(path, "Powered", powered);
}

bool Bluez::deviceGetName(const std::string& path, std::string& name)
{
    if (_connection == nullptr || path.empty()) {
        return false;
    }
    const GVariantHolder reply(
        callProperties(path, "Get", g_variant_new("(ss)", kDeviceInterface, "Name"), nullptr));
    const GVariantHolder value = bluez_variant::unwrapProperty(reply);
    return value.variant != nullptr && bluez_variant::read(value.variant, name);
}

bool Bluez::devicePair(const std::string& path)
{
    GDBusProxy* proxy = findProxy(_deviceProxies, path);
    if (proxy == nullptr) {
        return false;
    }
    // BlueZ answers Pair only after service discovery, so the answer isn't waited for: the state is polled.
    g_dbus_proxy_call(proxy, "Pair", nullptr, G_DBUS_CALL_FLAGS_NONE, kPairTimeoutMs, nullptr, pairCompleted,
                      this);
    for (int poll = 0; poll < kPairPolls; ++poll) {
        bool paired = false;
        if (!pollPaired(path, paired)) {
            return false;
        }
        if (paired) {
            return true;
        }
        sleepMs(kPairPollPauseMs);
    }
    return false;
}

// Reads the current "Paired"; false if that fails.
bool Bluez::pollPaired(const std::string& path, bool& paired)
{
    glib_owner::Error error;
    const GVariantHolder reply(
        callProperties(path, "Get", g_variant_new("(ss)", kDeviceInterface, "Paired"), error.out()));
    reportError(error);
    const GVariantHolder value = bluez_variant::unwrapProperty(reply);
    if (value.variant == nullptr) {
        return false;
    }
    if (!bluez_variant::read(value.variant, paired)) {
        LOG_ERROR("Paired of %s: unexpected type %s", path.c_str(), g_variant_get_type_string(value.variant));
        return false;
    }
    return true;
}

// --- Characteristics ---

// A copy of the pointer, so that a removal on the event thread can't destroy the proxy during a call.
Bluez::ProxyPtr Bluez::findCharacteristicProxy(const std::string& path)
{
    ProxyPtr proxy = _characteristicProxies[path]; // finds or creates, as findProxy does
    if (!proxy) {
        LOG_ERROR("No proxy found for characteristic %s", path.c_str());
    }
    return proxy;
}

bool Bluez::callNotify(const std::string& path, const char* method)
{
    if (_connection == nullptr) {
        LOG_ERROR("Not connected");
        return false;
    }
    if (path.empty()) {
        LOG_ERROR("Empty obj path");
        return false;
    }
    const ProxyPtr proxy = findCharacteristicProxy(path);
    if (!proxy) {
        return false;
    }
    glib_owner::Error error;
    const GVariantHolder reply = callProxy(proxy.get(), method, nullptr, error);
    return !reportError(error);
}

bool Bluez::characteristicStartNotify(const std::string& path)
{
    return callNotify(path, "StartNotify");
}

bool Bluez::characteristicStartNotify(const Service::Characteristic& characteristic)
{
    return characteristicStartNotify(characteristic.path);
}

bool Bluez::characteristicStopNotify(const std::string& path)
{
    return callNotify(path, "StopNotify");
}

bool Bluez::characteristicStopNotify(const Service::Characteristic& characteristic)
{
    return characteristicStopNotify(characteristic.path);
}

bool Bluez::writeCharacteristic(const std::string& path, const std::vector<std::uint8_t>& bytes)
{
    if (_connection == nullptr) {
        LOG_ERROR("Not connected");
        return false;
    }
    if (path.empty()) {
        LOG_ERROR("Empty obj path");
        return false;
    }
    if (bytes.empty()) {
        LOG_ERROR("Nothing to write");
        return false;
    }
    const ProxyPtr proxy = findCharacteristicProxy(path);
    if (!proxy) {
        return false;
    }
    glib_owner::Error error;
    const GVariantHolder reply =
        callProxy(proxy.get(), "WriteValue", bluez_variant::writeParameters(bytes), error);
    return !reportError(error);
}

bool Bluez::writeCharacteristic(const Service::Characteristic& characteristic,
                                const std::vector<std::uint8_t>& bytes)
{
    return writeCharacteristic(characteristic.path, bytes);
}

std::vector<std::uint8_t> Bluez::readCharacteristic(const std::string& path)
{
    if (_connection == nullptr) {
        LOG_ERROR("Not connected");
        return {};
    }
    if (!isCharacteristic(path)) {
        LOG_ERROR("Not a characteristic");
        return {};
    }
    const ProxyPtr proxy = findCharacteristicProxy(path);
    if (!proxy) {
        return {};
    }
    glib_owner::Error error;
    const GVariantHolder reply = callProxy(proxy.get(), "ReadValue", bluez_variant::readParameters(), error);
    reportError(error);
    // Kept: a failed call continues as well and logs two more lines there.
    return getBytesArray(reply);
}

bool Bluez::readCharacteristic(Service::Characteristic& characteristic)
{
    characteristic.val = valueFor(characteristic.path);
    return !characteristic.val.empty();
}

std::string Bluez::valueFor(const std::string& path)
{
    if (_connection == nullptr) {
        LOG_DEBUG("No connection");
        return {};
    }
    if (path.empty()) {
        LOG_DEBUG("unit empty");
        return {};
    }
    if (!isCharacteristic(path) && !isDescriptor(path)) {
        return {};
    }
    // Kept: looks up a descriptor among the characteristics, too, and neither checks nor holds the proxy. A
    // descriptor's proxy is therefore null, and GLib refuses the call on it.
    GDBusProxy* proxy = _characteristicProxies[path].get();
    const GVariantHolder parameters(
        bluez_variant::readParameters()); // held here: GLib doesn't take ownership for a null proxy
    glib_owner::Error error;
    const GVariantHolder reply = callProxy(proxy, "ReadValue", parameters.variant, error);
    reportError(error);
    const GVariantHolder value = bluez_variant::firstOf(reply.variant);
    if (value.variant == nullptr || !isArrayOfBytes(value.variant)) {
        return {};
    }
    const Bytes bytes = bluez_variant::bytesOf(value.variant);
    std::string text(bytes.begin(), bytes.end());
    text.push_back('\0'); // Kept: so an empty value isn't an empty text.
    return text;
}

std::vector<std::uint8_t> Bluez::getBytesArray(GVariant* variant) const
{
    if (variant == nullptr) {
        LOG_ERROR("Empty variant"); // goes on to the next line
    }
    if (variant == nullptr || g_variant_is_of_type(variant, G_VARIANT_TYPE_ARRAY) == FALSE) {
        LOG_ERROR("Not an array");
        return {};
    }
    return isArrayOfBytes(variant) ? bluez_variant::bytesOf(variant) : Bytes{};
}

std::vector<std::uint8_t> Bluez::getBytesArray(const GVariantHolder& holder) const
{
    const GVariantHolder child = bluez_variant::firstOf(holder.variant);
    return getBytesArray(child.variant != nullptr ? child.variant : holder.variant);
}
