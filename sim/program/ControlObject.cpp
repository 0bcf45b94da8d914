// SPDX-License-Identifier: MIT
#include "sim/program/ControlObject.h"

#include <stdexcept>

#include "sim/bluez/BusConnection.h"

namespace vexasim
{

namespace
{
constexpr const char* kName = "org.vexabluetoohtd.Sim"; ///< bus name and interface
constexpr const char* kPath = "/sim";
constexpr const char* kError = "org.vexabluetoohtd.Sim.Error.Failed";
constexpr const char* kSignal = "Happened";

std::string argument(const std::string& name, const std::string& type, const std::string& direction)
{
    return "<arg name='" + name + "' type='" + type + "' direction='" + direction + "'/>";
}
} // namespace

ControlObject::~ControlObject()
{
    mNarrator.forwardTo(nullptr);
    if (mConnection == nullptr) {
        return;
    }
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
    g_object_unref(mConnection);
}

void ControlObject::describe(const std::string& member, const Names& names, const Names& types,
                             const Result& result)
{
    mDescriptions += "<method name='" + member + "'>";
    for (std::size_t i = 0; i < types.size(); ++i) {
        mDescriptions += argument(names.at(i), types[i], "in");
    }
    if (!result.type.empty()) {
        mDescriptions += argument(result.name, result.type, "out");
    }
    mDescriptions += "</method>";
}

void ControlObject::publish(const std::string& busAddress)
{
    mConnection = connectToBus(busAddress);
    const std::string description = std::string("<node><interface name='") + kName + "'>" + mDescriptions +
                                    "<signal name='" + kSignal +
                                    "'><arg name='what' type='s'/></signal></interface></node>";
    GError* error = nullptr;
    const std::shared_ptr<GDBusNodeInfo> info(g_dbus_node_info_new_for_xml(description.c_str(), &error),
                                              g_dbus_node_info_unref);
    if (error == nullptr) {
        const GDBusInterfaceVTable table{&ControlObject::onCall, nullptr, nullptr, {}};
        g_dbus_connection_register_object(mConnection, kPath, info->interfaces[0], &table, this, nullptr,
                                          &error);
    }
    if (error != nullptr) {
        throw std::runtime_error(takeMessage(error));
    }
    callBus(mConnection, "RequestName", g_variant_new("(su)", kName, 0U));
    mNarrator.forwardTo([this](const std::string& what) {
        g_dbus_connection_emit_signal(mConnection, nullptr, kPath, kName, kSignal,
                                      g_variant_new("(s)", what.c_str()), nullptr);
    });
}

void ControlObject::onCall(GDBusConnection*, const char*, const char*, const char*, const char* member,
                           GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self)
{
    try {
        const Variant result = static_cast<ControlObject*>(self)->mMethods.at(member)(parameters);
        GVariant* value = result.get();
        g_dbus_method_invocation_return_value(invocation, result ? g_variant_new_tuple(&value, 1) : nullptr);
    } catch (const std::exception& error) {
        g_dbus_method_invocation_return_dbus_error(invocation, kError, error.what());
    }
}

} // namespace vexasim
