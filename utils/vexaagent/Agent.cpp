// SPDX-License-Identifier: MIT
#include "Agent.h"

#include <memory>
#include <vector>

#include "BluezVariant.h"
#include "GlibOwner.h"
#include "OtaFormat.h"
#include "Printable.h"
#include "STBLogger.h"

namespace
{

constexpr const char* kStack = "org.bluez";
constexpr const char* kManagerPath = "/org/bluez";
constexpr const char* kManager = "org.bluez.AgentManager1";
constexpr const char* kDevice = "org.bluez.Device1";
constexpr const char* kPath = "/org/vexabluetoohtd/agent";
constexpr const char* kCapability = "NoInputNoOutput";
constexpr const char* kRejected = "org.bluez.Error.Rejected";

constexpr guint kRetrySeconds = 1;
constexpr int kCallTimeoutMs = 5000;
// On a slow machine, bluetoothd owns its name long before it answers, and without the agent nothing pairs. If
// it dies, the bus ends the call.
constexpr int kNoTimeout = G_MAXINT;

constexpr const char* kInterfaces = R"xml(<node>
 <interface name="org.bluez.Agent1">
  <method name="Release"/>
  <method name="RequestPinCode">
   <arg name="device" type="o" direction="in"/><arg name="code" type="s" direction="out"/>
  </method>
  <method name="DisplayPinCode">
   <arg name="device" type="o" direction="in"/><arg name="code" type="s" direction="in"/>
  </method>
  <method name="RequestPasskey">
   <arg name="device" type="o" direction="in"/><arg name="passkey" type="u" direction="out"/>
  </method>
  <method name="DisplayPasskey">
   <arg name="device" type="o" direction="in"/><arg name="passkey" type="u" direction="in"/>
   <arg name="entered" type="q" direction="in"/>
  </method>
  <method name="RequestConfirmation">
   <arg name="device" type="o" direction="in"/><arg name="passkey" type="u" direction="in"/>
  </method>
  <method name="RequestAuthorization"><arg name="device" type="o" direction="in"/></method>
  <method name="AuthorizeService">
   <arg name="device" type="o" direction="in"/><arg name="uuid" type="s" direction="in"/>
  </method>
  <method name="Cancel"/>
 </interface>
</node>)xml";

using glib_owner::Error;

bool isCancelled(const Error& error)
{
    return error.matches(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

void refuse(GDBusMethodInvocation* invocation, const char* why)
{
    g_dbus_method_invocation_return_dbus_error(invocation, kRejected, why);
}

} // namespace

/// A request from bluetoothd that waits for the name of a device.
struct Agent::Question {
    Agent* agent;
    GDBusMethodInvocation* invocation;
    std::string device;
};

Agent::Agent()
    : mInterfaces(g_dbus_node_info_new_for_xml(kInterfaces, nullptr)),
      mName(std::string(ota_format::kRemoteNamePattern) + "|" + ota_format::kUpdateNamePart, REG_EXTENDED)
{
}

Agent::~Agent()
{
    if (mRetry != 0) {
        g_source_remove(mRetry);
    }
    leave();
    g_dbus_node_info_unref(mInterfaces);
}

// --- the bus ---

void Agent::start()
{
    if (!connect()) {
        retryLater();
    }
}

void Agent::retryLater()
{
    if (mRetry == 0) {
        mRetry = g_timeout_add_seconds(kRetrySeconds, onRetry, this);
    }
}

gboolean Agent::onRetry(gpointer self)
{
    auto* agent = static_cast<Agent*>(self);
    if (!agent->connect()) {
        return G_SOURCE_CONTINUE;
    }
    agent->mRetry = 0;
    return G_SOURCE_REMOVE;
}

bool Agent::connect()
{
    Error error;
    const glib_owner::Text address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                         G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    if (address) {
        mConnection =
            g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr, nullptr, error.out());
    }
    if (mConnection == nullptr) {
        if (!mWaiting) {
            LOG_WARN("no system bus yet, waiting for it: %s", Printable(error.message()).text());
        }
        mWaiting = true;
        return false;
    }
    mWaiting = false;
    mCancellable = g_cancellable_new();
    g_signal_connect(mConnection, "closed", G_CALLBACK(onBusClosed), this);
    const GDBusInterfaceVTable table{onCall, nullptr, nullptr, {}};
    mObject = g_dbus_connection_register_object(mConnection, kPath, mInterfaces->interfaces[0], &table, this,
                                                nullptr, nullptr);
    mWatch = g_bus_watch_name_on_connection(mConnection, kStack, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                            onStackAppeared, onStackVanished, this, nullptr);
    return true;
}

void Agent::leave()
{
    if (mConnection == nullptr) {
        return;
    }
    g_cancellable_cancel(mCancellable);
    g_clear_object(&mCancellable);
    g_signal_handlers_disconnect_by_data(mConnection, this);
    g_bus_unwatch_name(mWatch);
    g_dbus_connection_unregister_object(mConnection, mObject);
    // bluetoothd forgets an agent when its connection closes.
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
    g_clear_object(&mConnection);
}

void Agent::onBusClosed(GDBusConnection*, gboolean, GError*, gpointer self)
{
    auto* agent = static_cast<Agent*>(self);
    LOG_WARN("the system bus is gone, waiting for it");
    agent->mWaiting = true;
    agent->leave();
    agent->retryLater();
}

// --- bluetoothd ---

void Agent::onStackAppeared(GDBusConnection*, const char*, const char*, gpointer self)
{
    static_cast<Agent*>(self)->callManager("RegisterAgent", g_variant_new("(os)", kPath, kCapability),
                                           onRegistered);
}

void Agent::onStackVanished(GDBusConnection* connection, const char*, gpointer)
{
    // The bus itself may have vanished; that is logged elsewhere.
    if (connection != nullptr && g_dbus_connection_is_closed(connection) == FALSE) {
        LOG_INFO("bluetoothd isn't running; registering when it starts");
    }
}

void Agent::callManager(const char* method, GVariant* parameters, GAsyncReadyCallback done)
{
    g_dbus_connection_call(mConnection, kStack, kManagerPath, kManager, method, parameters, nullptr,
                           G_DBUS_CALL_FLAGS_NONE, kNoTimeout, mCancellable, done, this);
}

void Agent::onRegistered(GObject* connection, GAsyncResult* result, gpointer self)
{
    Error error;
    const Bluez::GVariantHolder reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, error.out()));
    if (error && isCancelled(error)) {
        return;
    }
    if (error) {
        LOG_ERROR("bluetoothd rejected the agent: %s", Printable(error.message()).text());
        return;
    }
    static_cast<Agent*>(self)->callManager("RequestDefaultAgent", g_variant_new("(o)", kPath), onMadeDefault);
}

void Agent::onMadeDefault(GObject* connection, GAsyncResult* result, gpointer)
{
    Error error;
    const Bluez::GVariantHolder reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, error.out()));
    if (error && isCancelled(error)) {
        return;
    }
    if (error) {
        LOG_ERROR("bluetoothd didn't make the agent the default: %s", Printable(error.message()).text());
    } else {
        LOG_INFO("registered as the default agent");
    }
}

// --- requests from bluetoothd ---

void Agent::onCall(GDBusConnection*, const char*, const char*, const char*, const char* method,
                   GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self)
{
    const std::string asked = method;
    if (asked == "Release") {
        LOG_INFO("bluetoothd released the agent");
    }
    if (asked == "Release" || asked == "Cancel") {
        return g_dbus_method_invocation_return_value(invocation, nullptr);
    }

    const char* device = nullptr;
    g_variant_get_child(parameters, 0, "&o", &device);
    if (asked == "RequestAuthorization") {
        return static_cast<Agent*>(self)->askForName(device, invocation);
    }
    LOG_WARN("%s refused to %s: this box has neither keys nor a display", method, device);
    refuse(invocation, "this box pairs only its remote, and without a passkey");
}

void Agent::askForName(const char* device, GDBusMethodInvocation* invocation)
{
    // Not the alias, which any client of the bus can set.
    g_dbus_connection_call(mConnection, kStack, device, "org.freedesktop.DBus.Properties", "Get",
                           g_variant_new("(ss)", kDevice, "Name"), G_VARIANT_TYPE("(v)"),
                           G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, mCancellable, onName,
                           new Question{this, invocation, device});
}

void Agent::onName(GObject* connection, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Question> question(static_cast<Question*>(data));
    Error error;
    const Bluez::GVariantHolder reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, error.out()));
    if (error) {
        if (!isCancelled(error)) {
            LOG_WARN("pairing refused to %s, whose name can't be read: %s", question->device.c_str(),
                     Printable(error.message()).text());
        }
        return refuse(question->invocation, "a device without a name isn't the remote");
    }
    std::string name;
    bluez_variant::read(bluez_variant::unwrapProperty(reply).variant, name); // stays empty if not a string
    if (!question->agent->isRemote(name)) {
        LOG_WARN("pairing refused to %s \"%s\": not the remote", question->device.c_str(),
                 Printable(name).text());
        return refuse(question->invocation, "not the remote");
    }
    LOG_INFO("pairing granted to %s \"%s\"", question->device.c_str(), Printable(name).text());
    g_dbus_method_invocation_return_value(question->invocation, nullptr);
}

bool Agent::isRemote(const std::string& name)
{
    std::vector<std::string> groups;
    return mName.match(name, groups, 0);
}
