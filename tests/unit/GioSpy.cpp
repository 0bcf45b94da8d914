// SPDX-License-Identifier: MIT
#include "GioSpy.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <typeinfo>

#include <dlfcn.h>

namespace
{

struct Record {
    std::mutex mutex;
    bool on = false;
    std::vector<GioSpy::Call> calls;
    std::map<std::string, GioSpy::Stand> stands;
    std::vector<GMainLoop*> loops;
    int contextUnrefs = 0;
    int defaultTimeout = -1;
    bool failNewProxies = false;
};

Record& theRecord()
{
    static Record& record = *new Record; // calls come until the process has ended
    return record;
}

// GIO's own function of that name.
template <typename Function>
Function original(const char* name)
{
    void* const symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) {
        throw std::runtime_error(std::string("GIO has no ") + name);
    }
    return reinterpret_cast<Function>(symbol);
}

// GIO gives references to the context back, too, by the same function.
bool isOurs(const void* address)
{
    Dl_info caller{};
    Dl_info own{};
    return dladdr(address, &caller) != 0 && dladdr(&typeid(Record), &own) != 0 &&
           caller.dli_fbase == own.dli_fbase;
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
    record.contextUnrefs = 0;
}

GioSpy::~GioSpy()
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.on = false;
    record.stands.clear();
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

int GioSpy::contextUnrefs() const
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    return record.contextUnrefs;
}

void GioSpy::answer(const std::string& method, Stand stand)
{
    Record& record = theRecord();
    const std::lock_guard lock(record.mutex);
    record.stands[method] = std::move(stand);
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

extern "C" {

GVariant* g_dbus_proxy_call_sync(GDBusProxy* proxy, const gchar* method, GVariant* parameters,
                                 GDBusCallFlags flags, gint timeout, GCancellable* cancellable,
                                 GError** error)
{
    static const auto call = original<decltype(&g_dbus_proxy_call_sync)>("g_dbus_proxy_call_sync");
    if (proxy != nullptr) {
        note({"g_dbus_proxy_call_sync", g_dbus_proxy_get_object_path(proxy),
              g_dbus_proxy_get_interface_name(proxy), method, textOf(parameters), static_cast<int>(flags),
              timeout, cancellable != nullptr, error != nullptr});
    }
    if (const GioSpy::Stand stand = standFor(method)) {
        return stand(error);
    }
    return call(proxy, method, parameters, flags, timeoutFor(timeout), cancellable, error);
}

void g_dbus_proxy_call(GDBusProxy* proxy, const gchar* method, GVariant* parameters, GDBusCallFlags flags,
                       gint timeout, GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data)
{
    static const auto call = original<decltype(&g_dbus_proxy_call)>("g_dbus_proxy_call");
    note({"g_dbus_proxy_call", g_dbus_proxy_get_object_path(proxy), g_dbus_proxy_get_interface_name(proxy),
          method, textOf(parameters), static_cast<int>(flags), timeout, cancellable != nullptr, false});
    call(proxy, method, parameters, flags, timeout, cancellable, callback, data);
}

GVariant* g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* bus, const gchar* path,
                                      const gchar* interface, const gchar* method, GVariant* parameters,
                                      const GVariantType* type, GDBusCallFlags flags, gint timeout,
                                      GCancellable* cancellable, GError** error)
{
    static const auto call = original<decltype(&g_dbus_connection_call_sync)>("g_dbus_connection_call_sync");
    int limit = timeout;
    if (orEmpty(bus) == "org.bluez") { // the simulator's own calls are none of our business
        note({"g_dbus_connection_call_sync", orEmpty(path), orEmpty(interface), orEmpty(method),
              textOf(parameters), static_cast<int>(flags), timeout, cancellable != nullptr,
              error != nullptr});
        limit = timeoutFor(timeout);
    }
    return call(connection, bus, path, interface, method, parameters, type, flags, limit, cancellable, error);
}

GDBusProxy* g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                  GDBusInterfaceInfo* info, const gchar* name, const gchar* path,
                                  const gchar* interface, GCancellable* cancellable, GError** error)
{
    static const auto call = original<decltype(&g_dbus_proxy_new_sync)>("g_dbus_proxy_new_sync");
    note({"g_dbus_proxy_new_sync", orEmpty(path), orEmpty(interface), orEmpty(name),
          info == nullptr ? "null" : "info", static_cast<int>(flags), 0, cancellable != nullptr,
          error != nullptr});
    if (newProxiesFail()) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no proxy today");
        return nullptr;
    }
    return call(connection, flags, info, name, path, interface, cancellable, error);
}

GDBusConnection* g_bus_get_sync(GBusType type, GCancellable* cancellable, GError** error)
{
    static const auto call = original<decltype(&g_bus_get_sync)>("g_bus_get_sync");
    if (cancellable != nullptr) { // the test's own come without one
        note({"g_bus_get_sync", "", "", type == G_BUS_TYPE_SYSTEM ? "SystemBus" : "OtherBus", "", 0, 0,
              cancellable != nullptr, error != nullptr});
    }
    return call(type, cancellable, error);
}

GDBusObjectManager* g_dbus_object_manager_client_new_sync(GDBusConnection* connection,
                                                          GDBusObjectManagerClientFlags flags,
                                                          const gchar* name, const gchar* path,
                                                          GDBusProxyTypeFunc proxyType, gpointer data,
                                                          GDestroyNotify destroy, GCancellable* cancellable,
                                                          GError** error)
{
    static const auto call =
        original<decltype(&g_dbus_object_manager_client_new_sync)>("g_dbus_object_manager_client_new_sync");
    note({"g_dbus_object_manager_client_new_sync", orEmpty(path), "", orEmpty(name), "",
          static_cast<int>(flags), 0, cancellable != nullptr, error != nullptr});
    return call(connection, flags, name, path, proxyType, data, destroy, cancellable, error);
}

// Loops of this program's own live on. A stopping task that nobody needed any more stays in the context and
// points to its loop. The daemon, with its one client, never looks there again; a test with a second one
// does.
void g_main_loop_unref(GMainLoop* loop)
{
    static const auto call = original<decltype(&g_main_loop_unref)>("g_main_loop_unref");
    if (isOurs(__builtin_return_address(0))) {
        Record& record = theRecord();
        const std::lock_guard lock(record.mutex);
        record.loops.push_back(loop);
        return;
    }
    call(loop);
}

void g_main_context_unref(GMainContext* context)
{
    static const auto call = original<decltype(&g_main_context_unref)>("g_main_context_unref");
    if (context == g_main_context_default() && isOurs(__builtin_return_address(0))) {
        Record& record = theRecord();
        const std::lock_guard lock(record.mutex);
        record.contextUnrefs += record.on ? 1 : 0;
    }
    call(context);
}
}
