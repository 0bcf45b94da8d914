// SPDX-License-Identifier: MIT
#include "sim/bluez/BusConnection.h"

#include <mutex>
#include <stdexcept>
#include <utility>

#include "sim/model/Scheduler.h"

namespace vexasim
{

namespace
{
constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr const char* kGoneNames =
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";
constexpr std::uint32_t kDoNotQueue = 4;
constexpr std::uint32_t kPrimaryOwner = 1;
} // namespace

std::string takeMessage(GError* error)
{
    std::string text = error != nullptr ? error->message : "no reason given";
    g_clear_error(&error);
    return text;
}

GDBusConnection* connectToBus(const std::string& address)
{
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (connection == nullptr) {
        throw std::runtime_error("no connection to the bus at " + address + ": " + takeMessage(error));
    }
    return connection;
}

Variant callBus(GDBusConnection* connection, const char* method, const Variant& parameters)
{
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_sync(connection, kBusName, kBusPath, kBusName, method, parameters.get(),
                                    nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply == nullptr) {
        throw std::runtime_error(std::string(method) + " failed: " + takeMessage(error));
    }
    return reply;
}

Request::Request(Scheduler& scheduler, GDBusConnection* connection, GDBusMessage* message, Call call)
    : mScheduler(scheduler),
      mConnection(G_DBUS_CONNECTION(g_object_ref(connection))),
      mMessage(G_DBUS_MESSAGE(g_object_ref(message))),
      mCall(std::move(call))
{
}

Request::~Request()
{
    g_object_unref(mMessage);
    g_object_unref(mConnection);
}

std::string Request::signature() const
{
    return g_dbus_message_get_signature(mMessage);
}

void Request::reply(const Variant& parameters)
{
    GDBusMessage* answer = g_dbus_message_new_method_reply(mMessage);
    if (parameters) {
        g_dbus_message_set_body(answer, parameters.get());
    }
    send(answer);
}

void Request::fail(const std::string& name, const std::string& message)
{
    send(g_dbus_message_new_method_error_literal(mMessage, name.c_str(), message.c_str()));
}

void Request::send(GDBusMessage* answer)
{
    const std::shared_ptr<GDBusMessage> owned(answer, g_object_unref);
    const bool wanted = (g_dbus_message_get_flags(mMessage) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
    if (std::exchange(mAnswered, true) || !wanted) {
        return;
    }
    const std::shared_ptr<GDBusConnection> connection(G_DBUS_CONNECTION(g_object_ref(mConnection)),
                                                      g_object_unref);
    const auto deliver = [connection, owned] {
        // Fails only on a closed connection, where nobody waits.
        g_dbus_connection_send_message(connection.get(), owned.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
    };
    if (mDelay.count() > 0) {
        mScheduler.after(mDelay, deliver);
    } else {
        deliver();
    }
}

/// What GDBus's thread calls. Its lock shows the thread sanitizer, which doesn't see GDBus's own, the order
/// of the two threads.
struct BusConnection::Handlers {
    std::mutex mutex;
    MessageHandler onCall;
    NameHandler onNameGone;

    static void destroy(gpointer data)
    {
        auto* handlers = static_cast<Handlers*>(data);
        {
            std::lock_guard lock(handlers->mutex);
        }
        delete handlers;
    }
};

BusConnection::~BusConnection()
{
    close();
}

void BusConnection::open(const std::string& address, MessageHandler onCall, NameHandler onNameGone)
{
    mConnection = connectToBus(address);
    auto* handlers = new Handlers;
    {
        std::lock_guard lock(handlers->mutex);
        handlers->onCall = std::move(onCall);
        handlers->onNameGone = std::move(onNameGone);
    }
    mFilter = g_dbus_connection_add_filter(mConnection, &BusConnection::filter, handlers, &Handlers::destroy);
    callBus(mConnection, "AddMatch", g_variant_new("(s)", kGoneNames));
}

void BusConnection::close()
{
    if (mConnection == nullptr) {
        return;
    }
    g_dbus_connection_remove_filter(mConnection, mFilter);
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr); // already closed: nothing to do
    g_clear_object(&mConnection);
}

GDBusMessage* BusConnection::filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                                    gpointer data)
{
    if (incoming == FALSE) {
        return message;
    }
    auto* handlers = static_cast<Handlers*>(data);
    std::lock_guard lock(handlers->mutex);
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    if (type == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        handlers->onCall(connection, message);
        g_object_unref(message);
        return nullptr;
    }
    const char* member = g_dbus_message_get_member(message);
    if (type == G_DBUS_MESSAGE_TYPE_SIGNAL && g_strcmp0(member, "NameOwnerChanged") == 0) {
        handlers->onNameGone(g_dbus_message_get_arg0(message));
    }
    return message;
}

void BusConnection::requestName(const std::string& name)
{
    const Variant reply =
        callBus(mConnection, "RequestName", g_variant_new("(su)", name.c_str(), kDoNotQueue));
    std::uint32_t result = 0;
    g_variant_get(reply.get(), "(u)", &result);
    if (result != kPrimaryOwner) {
        throw std::runtime_error(name + " has an owner already on this bus; is a bluetoothd or another "
                                        "simulator running?");
    }
}

void BusConnection::releaseName(const std::string& name)
{
    callBus(mConnection, "ReleaseName", g_variant_new("(s)", name.c_str()));
}

void BusConnection::emit(const std::string& path, const std::string& interface, const std::string& member,
                         const Variant& parameters)
{
    if (mConnection == nullptr) {
        return;
    }
    const std::shared_ptr<GDBusMessage> signal(
        g_dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str()), g_object_unref);
    if (parameters) {
        g_dbus_message_set_body(signal.get(), parameters.get());
    }
    g_dbus_connection_send_message(mConnection, signal.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
}

void BusConnection::roundTrip()
{
    if (mConnection == nullptr) {
        return;
    }
    try {
        callBus(mConnection, "GetId");
    } catch (const std::runtime_error&) {
        // A closed connection has nothing left to route.
        if (g_dbus_connection_is_closed(mConnection) == FALSE) {
            throw;
        }
    }
}

} // namespace vexasim
