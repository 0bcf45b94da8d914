// SPDX-License-Identifier: MIT
#include "tests/client/GioSpy.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace
{

struct Record {
    /// What a spy has requested.
    struct Wishes {
        std::map<std::string, GioSpy::Stand> stands;
        std::function<void(const GioSpy::Call&)> hook;
        int defaultTimeoutMs = -1;
        bool failNewProxies = false;
    };

    std::mutex mutex;
    bool on = false;
    Wishes wishes;
    std::vector<GioSpy::Call> calls;
    std::vector<std::pair<std::string, gconstpointer>> releases; ///< type and object
    std::vector<GMainLoop*> loops;
};

/// Holds the lock of the only record while it exists.
class Locked
{
public:
    Locked() : mRecord(theOne()), mLock(mRecord.mutex) {}
    Record* operator->() { return &mRecord; }

private:
    static Record& theOne()
    {
        static Record& record = *new Record; // calls arrive until the process has ended
        return record;
    }

    Record& mRecord;
    std::lock_guard<std::mutex> mLock;
};

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
    Locked record;
    if (record->on) {
        record->calls.push_back(call);
    }
}

void runHook(const GioSpy::Call& call)
{
    // A copy, since the hook runs without the lock.
    if (const std::function<void(const GioSpy::Call&)> hook = Locked()->wishes.hook) {
        hook(call);
    }
}

void observe(const GioSpy::Call& call)
{
    note(call);
    runHook(call);
}

GioSpy::Call callOn(GDBusProxy* proxy, const char* function, const gchar* method,
                    const std::string& parameters)
{
    GioSpy::Call call;
    call.function = function;
    call.path = g_dbus_proxy_get_object_path(proxy);
    call.interface = g_dbus_proxy_get_interface_name(proxy);
    call.method = method;
    call.parameters = parameters;
    return call;
}

void noteRelease(const std::string& type, gconstpointer object)
{
    Locked record;
    if (record->on) {
        record->releases.emplace_back(type, object);
    }
}

int timeoutFor(int timeoutMs)
{
    return timeoutMs == -1 ? Locked()->wishes.defaultTimeoutMs : timeoutMs;
}

GioSpy::Stand standFor(const std::string& method)
{
    Locked record;
    const auto found = record->wishes.stands.find(method);
    return found != record->wishes.stands.end() ? found->second : GioSpy::Stand{};
}

} // namespace

GioSpy::GioSpy()
{
    Locked record;
    record->on = true;
    record->calls.clear();
    record->releases.clear();
}

GioSpy::~GioSpy()
{
    Locked record;
    record->on = false;
    record->wishes = {};
}

std::vector<GioSpy::Call> GioSpy::calls() const
{
    return Locked()->calls;
}

kit::Lines GioSpy::releases() const
{
    Locked record;
    kit::Lines types;
    for (const auto& release : record->releases) {
        types.push_back(release.first);
    }
    return types;
}

bool GioSpy::hasReleased(gconstpointer object) const
{
    Locked record;
    return std::any_of(record->releases.begin(), record->releases.end(),
                       [&](const auto& release) { return release.second == object; });
}

void GioSpy::answer(const std::string& method, Stand stand)
{
    Locked()->wishes.stands[method] = std::move(stand);
}

void GioSpy::onCall(std::function<void(const Call&)> hook)
{
    Locked()->wishes.hook = std::move(hook);
}

void GioSpy::setDefaultTimeout(std::chrono::milliseconds timeout)
{
    Locked()->wishes.defaultTimeoutMs = static_cast<int>(timeout.count());
}

void GioSpy::failNewProxies()
{
    Locked()->wishes.failNewProxies = true;
}

// --- Replacements for GIO's functions ---

// The linker's names.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" {

// GIO's own function, as the linker names it in a program that wraps it.
decltype(g_dbus_proxy_call_sync) __real_g_dbus_proxy_call_sync;
decltype(g_dbus_proxy_call) __real_g_dbus_proxy_call;
decltype(g_dbus_connection_call_sync) __real_g_dbus_connection_call_sync;
decltype(g_dbus_proxy_new_sync) __real_g_dbus_proxy_new_sync;
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
        GioSpy::Call call = callOn(proxy, "g_dbus_proxy_call_sync", method, textOf(parameters));
        call.flags = static_cast<int>(flags);
        call.timeoutMs = timeout;
        call.cancellable = cancellable != nullptr;
        call.error = error != nullptr;
        observe(call);
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
    GioSpy::Call call = callOn(proxy, "g_dbus_proxy_call", method, textOf(parameters));
    call.flags = static_cast<int>(flags);
    call.timeoutMs = timeout;
    call.cancellable = cancellable != nullptr;
    observe(call);
    __real_g_dbus_proxy_call(proxy, method, parameters, flags, timeout, cancellable, callback, data);
}

GVariant* __wrap_g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* bus, const gchar* path,
                                             const gchar* interface, const gchar* method,
                                             GVariant* parameters, const GVariantType* type,
                                             GDBusCallFlags flags, gint timeout, GCancellable* cancellable,
                                             GError** error)
{
    int limit = timeout;
    if (orEmpty(bus) == "org.bluez") { // the simulator's own calls aren't recorded
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
    if (Locked()->wishes.failNewProxies) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no proxy today");
        return nullptr;
    }
    return __real_g_dbus_proxy_new_sync(connection, flags, info, name, path, interface, cancellable, error);
}

GVariant* __wrap_g_dbus_proxy_get_cached_property(GDBusProxy* proxy, const gchar* property)
{
    runHook(callOn(proxy, "g_dbus_proxy_get_cached_property", "", property)); // not a call, so not recorded
    return __real_g_dbus_proxy_get_cached_property(proxy, property);
}

void __wrap_g_dbus_proxy_set_cached_property(GDBusProxy* proxy, const gchar* property, GVariant* value)
{
    runHook(callOn(proxy, "g_dbus_proxy_set_cached_property", "", property));
    __real_g_dbus_proxy_set_cached_property(proxy, property, value);
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

// Loops of this program's own code are kept alive. A stopping task that wasn't needed any more stays in the
// context and points to its loop. The daemon, which has one client, never runs that context again; a test
// with a second client does.
void __wrap_g_main_loop_unref(GMainLoop* loop)
{
    noteRelease("GMainLoop", loop);
    Locked()->loops.push_back(loop);
}

void __wrap_g_main_context_unref(GMainContext* context)
{
    noteRelease("GMainContext", context);
    __real_g_main_context_unref(context);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
