// SPDX-License-Identifier: MIT
#include "tests/client/GioSpy.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <mutex>

namespace
{

struct Record {
    std::mutex mutex;
    bool on = false;
    std::vector<GioSpy::Call> calls;
    std::map<std::string, GioSpy::Stand> stands;
    std::function<void(const GioSpy::Call&)> hook;
    std::vector<GMainLoop*> loops;
    Lines releases;
    std::vector<gconstpointer> releasedObjects;
    int defaultTimeout = -1;
    bool failNewProxies = false;
};

Record& theRecord()
{
    static Record& record = *new Record; // calls come until the process has ended
    return record;
}

std::string textOf(GVariant* parameters)
{
    if (parameters == nullptr) {
        return "null";
    }
    gchar* text = g_variant_print(parameters, TRUE);
    std::string copy = text;
    g_free(text);
    return copy;
}

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

void note(const GioSpy::Call& call)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    if (record.on) {
        record.calls.push_back(call);
    }
}

void runHook(const GioSpy::Call& call)
{
    Record& record = theRecord();
    std::unique_lock lock(record.mutex);
    const std::function<void(const GioSpy::Call&)> hook = record.hook;
    lock.unlock();
    if (hook) {
        hook(call);
    }
}

void observe(const GioSpy::Call& call)
{
    note(call);
    runHook(call);
}

// An access to the cache is no call: it is led to the hook alone.
GioSpy::Call cacheAccess(const char* function, GDBusProxy* proxy, const gchar* property)
{
    GioSpy::Call access;
    access.function = function;
    access.path = g_dbus_proxy_get_object_path(proxy);
    access.interface = g_dbus_proxy_get_interface_name(proxy);
    access.parameters = property;
    return access;
}

void noteRelease(const std::string& type, gconstpointer object)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    if (record.on) {
        record.releases.push_back(type);
        record.releasedObjects.push_back(object);
    }
}

int timeoutFor(int timeoutMs)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    return timeoutMs == -1 ? record.defaultTimeout : timeoutMs;
}

bool newProxiesFail()
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    return record.failNewProxies;
}

GioSpy::Stand standFor(const std::string& method)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    const auto found = record.stands.find(method);
    return found != record.stands.end() ? found->second : GioSpy::Stand{};
}

} // namespace

GioSpy::GioSpy()
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.on = true;
    record.calls.clear();
    record.releases.clear();
    record.releasedObjects.clear();
}

GioSpy::~GioSpy()
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.on = false;
    record.stands.clear();
    record.hook = nullptr;
    record.defaultTimeout = -1;
    record.failNewProxies = false;
}

std::vector<GioSpy::Call> GioSpy::calls() const
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    return record.calls;
}

std::vector<GioSpy::Call> GioSpy::calls(const std::string& method) const
{
    const std::vector<Call> all = calls();
    std::vector<Call> wanted;
    std::copy_if(all.begin(), all.end(), std::back_inserter(wanted),
                 [&](const Call& call) { return call.method == method; });
    return wanted;
}

Lines GioSpy::releases() const
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    return record.releases;
}

std::ptrdiff_t GioSpy::releasesOf(gconstpointer object) const
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    return std::count(record.releasedObjects.begin(), record.releasedObjects.end(), object);
}

void GioSpy::answer(const std::string& method, Stand stand)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.stands[method] = std::move(stand);
}

void GioSpy::onCall(std::function<void(const Call&)> hook)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.hook = std::move(hook);
}

void GioSpy::setDefaultTimeout(std::chrono::milliseconds timeout)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.defaultTimeout = static_cast<int>(timeout.count());
}

void GioSpy::failNewProxies()
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.failNewProxies = true;
}

std::ostream& operator<<(std::ostream& out, const GioSpy::Call& call)
{
    return out << call.function << "(" << call.path << ", " << call.interface << "." << call.method << " "
               << call.parameters << ", flags " << call.flags << ", timeout " << call.timeoutMs
               << (call.cancellable ? ", cancellable" : "") << (call.error ? ", error" : "") << ")";
}

// --- In the place of GIO's own ---

// The linker's names.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

// GIO's own, as the linker names it for a program in which calls of it are wrapped.
decltype(g_dbus_proxy_call_sync) __real_g_dbus_proxy_call_sync;
decltype(g_dbus_proxy_call) __real_g_dbus_proxy_call;
decltype(g_dbus_connection_call_sync) __real_g_dbus_connection_call_sync;
decltype(g_dbus_proxy_new_sync) __real_g_dbus_proxy_new_sync;
decltype(g_bus_get_sync) __real_g_bus_get_sync;
decltype(g_dbus_object_manager_client_new_sync) __real_g_dbus_object_manager_client_new_sync;
decltype(g_dbus_proxy_get_cached_property) __real_g_dbus_proxy_get_cached_property;
decltype(g_dbus_proxy_set_cached_property) __real_g_dbus_proxy_set_cached_property;
decltype(g_object_unref) __real_g_object_unref;
decltype(g_variant_builder_unref) __real_g_variant_builder_unref;
decltype(g_main_context_unref) __real_g_main_context_unref;

GVariant* __wrap_g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method, GVariant* parameters,
                                        GDBusCallFlags flags, gint timeout, GCancellable* cancellable,
                                        GError** error)
{
    if (proxy != nullptr) {
        observe({"g_dbus_proxy_call_sync", g_dbus_proxy_get_object_path(proxy),
                 g_dbus_proxy_get_interface_name(proxy), method, textOf(parameters), static_cast<int>(flags),
                 timeout, cancellable != nullptr, error != nullptr});
    }
    if (const GioSpy::Stand stand = standFor(method)) {
        const Bluez::GVariantHolder consumed(parameters != nullptr ? g_variant_ref_sink(parameters)
                                                                   : nullptr);
        return stand(error);
    }
    return __real_g_dbus_proxy_call_sync(proxy, method, parameters, flags, timeoutFor(timeout), cancellable,
                                         error);
}

void __wrap_g_dbus_proxy_call(GDBusProxy* proxy, const gchar* method, GVariant* parameters,
                              GDBusCallFlags flags, gint timeout, GCancellable* cancellable,
                              GAsyncReadyCallback callback, gpointer data)
{
    observe({"g_dbus_proxy_call", g_dbus_proxy_get_object_path(proxy), g_dbus_proxy_get_interface_name(proxy),
             method, textOf(parameters), static_cast<int>(flags), timeout, cancellable != nullptr, false});
    __real_g_dbus_proxy_call(proxy, method, parameters, flags, timeout, cancellable, callback, data);
}

GVariant* __wrap_g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* bus, const gchar* path,
                                             const gchar* interface, const gchar* method,
                                             GVariant* parameters, const GVariantType* type,
                                             GDBusCallFlags flags, gint timeout, GCancellable* cancellable,
                                             GError** error)
{
    int limit = timeout;
    if (orEmpty(bus) == "org.bluez") { // the simulator's own calls are none of our business
        note({"g_dbus_connection_call_sync", orEmpty(path), orEmpty(interface), orEmpty(method),
              textOf(parameters), static_cast<int>(flags), timeout, cancellable != nullptr,
              error != nullptr});
        limit = timeoutFor(timeout);
    }
    return __real_g_dbus_connection_call_sync(connection, bus, path, interface, method, parameters, type,
                                              flags, limit, cancellable, error);
}

GDBusProxy* __wrap_g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                         GDBusInterfaceInfo* info, const gchar* name, const gchar* path,
                                         const gchar* interface, GCancellable* cancellable, GError** error)
{
    observe({"g_dbus_proxy_new_sync", orEmpty(path), orEmpty(interface), orEmpty(name),
             info == nullptr ? "null" : "info", static_cast<int>(flags), 0, cancellable != nullptr,
             error != nullptr});
    if (newProxiesFail()) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no proxy today");
        return nullptr;
    }
    return __real_g_dbus_proxy_new_sync(connection, flags, info, name, path, interface, cancellable, error);
}

GVariant* __wrap_g_dbus_proxy_get_cached_property(GDBusProxy* proxy, const gchar* property)
{
    runHook(cacheAccess("g_dbus_proxy_get_cached_property", proxy, property));
    return __real_g_dbus_proxy_get_cached_property(proxy, property);
}

void __wrap_g_dbus_proxy_set_cached_property(GDBusProxy* proxy, const gchar* property, GVariant* value)
{
    runHook(cacheAccess("g_dbus_proxy_set_cached_property", proxy, property));
    __real_g_dbus_proxy_set_cached_property(proxy, property, value);
}

GDBusConnection* __wrap_g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error)
{
    if (cancellable != nullptr) { // the test's own come without one
        note({"g_bus_get_sync", "", "", type == G_BUS_TYPE_SYSTEM ? "SystemBus" : "OtherBus", "", 0, 0,
              cancellable != nullptr, error != nullptr});
    }
    return __real_g_bus_get_sync(type, cancellable, error);
}

GDBusObjectManager* __wrap_g_dbus_object_manager_client_new_sync(GDBusConnection* connection,
                                                                 GDBusObjectManagerClientFlags flags,
                                                                 const gchar* name, const gchar* path,
                                                                 GDBusProxyTypeFunc proxyType, gpointer data,
                                                                 GDestroyNotify destroy,
                                                                 GCancellable* cancellable, GError** error)
{
    note({"g_dbus_object_manager_client_new_sync", orEmpty(path), "", orEmpty(name), "",
          static_cast<int>(flags), 0, cancellable != nullptr, error != nullptr});
    return __real_g_dbus_object_manager_client_new_sync(connection, flags, name, path, proxyType, data,
                                                        destroy, cancellable, error);
}

void __wrap_g_object_unref(gpointer object)
{
    noteRelease(object != nullptr ? G_OBJECT_TYPE_NAME(object) : "null", object);
    __real_g_object_unref(object);
}

void __wrap_g_variant_builder_unref(GVariantBuilder* builder)
{
    noteRelease("GVariantBuilder", builder);
    __real_g_variant_builder_unref(builder);
}

// Loops of this program's own live on. A stopping task that nobody needed any more stays in the context and
// points to its loop. The daemon, with its one client, never looks there again; a test with a second one
// does.
void __wrap_g_main_loop_unref(GMainLoop* loop)
{
    noteRelease("GMainLoop", loop);
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.loops.push_back(loop);
}

void __wrap_g_main_context_unref(GMainContext* context)
{
    noteRelease("GMainContext", context);
    __real_g_main_context_unref(context);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
