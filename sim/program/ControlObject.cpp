// SPDX-License-Identifier: MIT
#include "sim/program/ControlObject.h"

#include "sim/program/Interface.h"

#include <stdexcept>
#include <utility>

namespace vexasim
{

namespace
{
[[noreturn]] void throwError(GError* error)
{
    const std::string text = error->message;
    g_error_free(error);
    throw std::runtime_error(text);
}
} // namespace

ControlObject::~ControlObject()
{
    if (mConnection != nullptr) {
        g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
        g_object_unref(mConnection);
    }
    if (mInfo != nullptr)
        g_dbus_node_info_unref(mInfo);
}

void ControlObject::method(const std::string& member, Method method)
{
    mMethods[member] = std::move(method);
}

void ControlObject::action(const std::string& member, Action action)
{
    mMethods[member] = [action = std::move(action)](GVariant* arguments) {
        action(arguments);
        return Variant{};
    };
}

void ControlObject::publish(const std::string& busAddress)
{
    GError* error = nullptr;
    mInfo = g_dbus_node_info_new_for_xml(control::kXml, &error);
    if (mInfo == nullptr)
        throwError(error);
    mConnection = g_dbus_connection_new_for_address_sync(
        busAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (mConnection == nullptr)
        throwError(error);
    const GDBusInterfaceVTable table{&ControlObject::onCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(mConnection, control::kPath, mInfo->interfaces[0], &table, this,
                                      nullptr, &error);
    if (error != nullptr)
        throwError(error);
    const Variant reply = g_dbus_connection_call_sync(
        mConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", control::kName, 0U), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (!reply)
        throwError(error);
}

void ControlObject::tell(const std::string& what)
{
    if (mConnection != nullptr)
        g_dbus_connection_emit_signal(mConnection, nullptr, control::kPath, control::kInterface, "Happened",
                                      g_variant_new("(s)", what.c_str()), nullptr);
}

void ControlObject::onCall(GDBusConnection*, const char*, const char*, const char*, const char* member,
                           GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self)
{
    const auto& methods = static_cast<ControlObject*>(self)->mMethods;
    const auto found = methods.find(member);
    try {
        if (found == methods.end())
            throw std::runtime_error(std::string(member) + " is for another face of vexasim, see --help");
        const Variant reply = found->second(parameters);
        g_dbus_method_invocation_return_value(invocation, reply.get());
    } catch (const std::exception& error) {
        g_dbus_method_invocation_return_dbus_error(invocation, control::kError, error.what());
    }
}

} // namespace vexasim
