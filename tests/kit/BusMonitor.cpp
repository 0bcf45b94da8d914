// SPDX-License-Identifier: MIT
#include "tests/kit/BusMonitor.h"

#include <stdexcept>

namespace vexabox
{

namespace
{

[[noreturn]] void raise(GError* error)
{
    const std::string text = error->message;
    g_error_free(error);
    throw std::runtime_error("the monitor of the bus: " + text);
}

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

} // namespace

BusMonitor::BusMonitor(const std::string& address)
{
    GError* error = nullptr;
    mConnection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (mConnection == nullptr) {
        raise(error);
    }
    mFilter = g_dbus_connection_add_filter(mConnection, &BusMonitor::filter, this, nullptr);
    const char* noRules[] = {nullptr};
    GVariant* reply = g_dbus_connection_call_sync(mConnection, "org.freedesktop.DBus",
                                                  "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
                                                  "BecomeMonitor", g_variant_new("(^asu)", noRules, 0U),
                                                  nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (reply == nullptr) {
        raise(error);
    }
    g_variant_unref(reply);
}

BusMonitor::~BusMonitor()
{
    g_dbus_connection_remove_filter(mConnection, mFilter);
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
    g_object_unref(mConnection);
    // The filter's thread has closed the connection, so the filter runs no more; the thread sanitizer doesn't
    // see that by GDBus's locks, but by this one.
    const std::lock_guard<std::mutex> lock(mMutex);
}

// On GDBus's own thread. Swallows what it sees: a monitor must not answer, and
// GDBus would answer a call to an object that it doesn't know.
GDBusMessage* BusMonitor::filter(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming,
                                 gpointer self)
{
    auto* monitor = static_cast<BusMonitor*>(self);
    const std::string destination = orEmpty(g_dbus_message_get_destination(message));
    const char* own = g_dbus_connection_get_unique_name(monitor->mConnection);
    if (incoming == FALSE || own == nullptr || destination == own) {
        return message;
    }
    const Seen seen{orEmpty(g_dbus_message_get_sender(message)),
                    destination + " " + orEmpty(g_dbus_message_get_path(message)) + " " +
                        orEmpty(g_dbus_message_get_interface(message)) + "." +
                        orEmpty(g_dbus_message_get_member(message))};
    g_object_unref(message);
    const std::lock_guard<std::mutex> lock(monitor->mMutex);
    monitor->mSeen.push_back(seen);
    return nullptr;
}

std::vector<std::string> BusMonitor::messagesOf(const std::string& sender) const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> texts;
    for (const Seen& seen : mSeen) {
        if (seen.sender == sender) {
            texts.push_back(seen.text);
        }
    }
    return texts;
}

std::size_t BusMonitor::count() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mSeen.size();
}

} // namespace vexabox
