// SPDX-License-Identifier: MIT
#include "sim/bluez/Introspection.h"

#include <stdexcept>

namespace vexasim::introspection
{

namespace
{
constexpr const char* kXml = R"(<node>
 <interface name="org.freedesktop.DBus.Introspectable">
  <method name="Introspect"><arg name="xml" type="s" direction="out"/></method>
 </interface>
 <interface name="org.freedesktop.DBus.ObjectManager">
  <method name="GetManagedObjects"><arg name="objects" type="a{oa{sa{sv}}}" direction="out"/></method>
  <signal name="InterfacesAdded"><arg name="object" type="o"/><arg name="interfaces" type="a{sa{sv}}"/></signal>
  <signal name="InterfacesRemoved"><arg name="object" type="o"/><arg name="interfaces" type="as"/></signal>
 </interface>
 <interface name="org.freedesktop.DBus.Properties">
  <method name="Get">
   <arg name="interface" type="s" direction="in"/><arg name="name" type="s" direction="in"/>
   <arg name="value" type="v" direction="out"/>
  </method>
  <method name="Set">
   <arg name="interface" type="s" direction="in"/><arg name="name" type="s" direction="in"/>
   <arg name="value" type="v" direction="in"/>
  </method>
  <method name="GetAll">
   <arg name="interface" type="s" direction="in"/><arg name="properties" type="a{sv}" direction="out"/>
  </method>
  <signal name="PropertiesChanged">
   <arg name="interface" type="s"/><arg name="changed_properties" type="a{sv}"/>
   <arg name="invalidated_properties" type="as"/>
  </signal>
 </interface>
 <interface name="org.bluez.AgentManager1">
  <method name="RegisterAgent">
   <arg name="agent" type="o" direction="in"/><arg name="capability" type="s" direction="in"/>
  </method>
  <method name="UnregisterAgent"><arg name="agent" type="o" direction="in"/></method>
  <method name="RequestDefaultAgent"><arg name="agent" type="o" direction="in"/></method>
 </interface>
 <interface name="org.bluez.ProfileManager1">
  <method name="RegisterProfile">
   <arg name="profile" type="o" direction="in"/><arg name="UUID" type="s" direction="in"/>
   <arg name="options" type="a{sv}" direction="in"/>
  </method>
  <method name="UnregisterProfile"><arg name="profile" type="o" direction="in"/></method>
 </interface>
 <interface name="org.bluez.Adapter1">
  <method name="StartDiscovery"/>
  <method name="StopDiscovery"/>
  <method name="SetDiscoveryFilter"><arg name="properties" type="a{sv}" direction="in"/></method>
  <method name="GetDiscoveryFilters"><arg name="filters" type="as" direction="out"/></method>
  <method name="RemoveDevice"><arg name="device" type="o" direction="in"/></method>
  <property name="Address" type="s" access="read"/>
  <property name="AddressType" type="s" access="read"/>
  <property name="Name" type="s" access="read"/>
  <property name="Alias" type="s" access="readwrite"/>
  <property name="Class" type="u" access="read"/>
  <property name="Powered" type="b" access="readwrite"/>
  <property name="Discoverable" type="b" access="readwrite"/>
  <property name="DiscoverableTimeout" type="u" access="readwrite"/>
  <property name="Pairable" type="b" access="readwrite"/>
  <property name="PairableTimeout" type="u" access="readwrite"/>
  <property name="Discovering" type="b" access="read"/>
  <property name="UUIDs" type="as" access="read"/>
  <property name="Modalias" type="s" access="read"/>
  <property name="Roles" type="as" access="read"/>
 </interface>
 <interface name="org.bluez.Device1">
  <method name="Connect"/>
  <method name="Disconnect"/>
  <method name="ConnectProfile"><arg name="UUID" type="s" direction="in"/></method>
  <method name="DisconnectProfile"><arg name="UUID" type="s" direction="in"/></method>
  <method name="Pair"/>
  <method name="CancelPairing"/>
  <property name="Address" type="s" access="read"/>
  <property name="AddressType" type="s" access="read"/>
  <property name="Name" type="s" access="read"/>
  <property name="Alias" type="s" access="readwrite"/>
  <property name="Appearance" type="q" access="read"/>
  <property name="Paired" type="b" access="read"/>
  <property name="Bonded" type="b" access="read"/>
  <property name="Trusted" type="b" access="readwrite"/>
  <property name="Blocked" type="b" access="readwrite"/>
  <property name="LegacyPairing" type="b" access="read"/>
  <property name="RSSI" type="n" access="read"/>
  <property name="Connected" type="b" access="read"/>
  <property name="UUIDs" type="as" access="read"/>
  <property name="Modalias" type="s" access="read"/>
  <property name="Adapter" type="o" access="read"/>
  <property name="ServicesResolved" type="b" access="read"/>
  <property name="AdvertisingFlags" type="ay" access="read"/>
  <property name="WakeAllowed" type="b" access="readwrite"/>
 </interface>
 <interface name="org.bluez.Battery1">
  <property name="Percentage" type="y" access="read"/>
  <property name="Source" type="s" access="read"/>
 </interface>
 <interface name="org.bluez.GattService1">
  <property name="UUID" type="s" access="read"/>
  <property name="Device" type="o" access="read"/>
  <property name="Primary" type="b" access="read"/>
  <property name="Includes" type="ao" access="read"/>
 </interface>
 <interface name="org.bluez.GattCharacteristic1">
  <method name="ReadValue">
   <arg name="options" type="a{sv}" direction="in"/><arg name="value" type="ay" direction="out"/>
  </method>
  <method name="WriteValue">
   <arg name="value" type="ay" direction="in"/><arg name="options" type="a{sv}" direction="in"/>
  </method>
  <method name="AcquireWrite">
   <arg name="options" type="a{sv}" direction="in"/>
   <arg name="fd" type="h" direction="out"/><arg name="mtu" type="q" direction="out"/>
  </method>
  <method name="AcquireNotify">
   <arg name="options" type="a{sv}" direction="in"/>
   <arg name="fd" type="h" direction="out"/><arg name="mtu" type="q" direction="out"/>
  </method>
  <method name="StartNotify"/>
  <method name="StopNotify"/>
  <property name="UUID" type="s" access="read"/>
  <property name="Service" type="o" access="read"/>
  <property name="Value" type="ay" access="read"/>
  <property name="Notifying" type="b" access="read"/>
  <property name="Flags" type="as" access="read"/>
  <property name="WriteAcquired" type="b" access="read"/>
  <property name="NotifyAcquired" type="b" access="read"/>
  <property name="MTU" type="q" access="read"/>
 </interface>
 <interface name="org.bluez.GattDescriptor1">
  <method name="ReadValue">
   <arg name="options" type="a{sv}" direction="in"/><arg name="value" type="ay" direction="out"/>
  </method>
  <method name="WriteValue">
   <arg name="value" type="ay" direction="in"/><arg name="options" type="a{sv}" direction="in"/>
  </method>
  <property name="UUID" type="s" access="read"/>
  <property name="Characteristic" type="o" access="read"/>
  <property name="Value" type="ay" access="read"/>
 </interface>
</node>)";

GDBusNodeInfo* node()
{
    // Lives as long as the process, like the text from which it is parsed.
    static GDBusNodeInfo* const info = [] {
        GError* error = nullptr;
        GDBusNodeInfo* parsed = g_dbus_node_info_new_for_xml(kXml, &error);
        if (parsed == nullptr) {
            throw std::logic_error(error->message);
        }
        return parsed;
    }();
    return info;
}
} // namespace

GDBusInterfaceInfo* find(const std::string& interface)
{
    return g_dbus_node_info_lookup_interface(node(), interface.c_str());
}

const GDBusMethodInfo* findMethod(const std::string& interface, const std::string& member)
{
    GDBusInterfaceInfo* info = find(interface);
    return info != nullptr ? g_dbus_interface_info_lookup_method(info, member.c_str()) : nullptr;
}

const GDBusPropertyInfo* findProperty(const std::string& interface, const std::string& property)
{
    GDBusInterfaceInfo* info = find(interface);
    return info != nullptr ? g_dbus_interface_info_lookup_property(info, property.c_str()) : nullptr;
}

std::string inSignature(const GDBusMethodInfo* method)
{
    std::string signature;
    for (GDBusArgInfo** arg = method->in_args; arg != nullptr && *arg != nullptr; ++arg) {
        signature += (*arg)->signature;
    }
    return signature;
}

std::string xml(const std::string& interface)
{
    GDBusInterfaceInfo* info = find(interface);
    if (info == nullptr) {
        return "  <interface name=\"" + interface + "\"/>\n";
    }
    GString* text = g_string_new(nullptr);
    g_dbus_interface_info_generate_xml(info, 2, text);
    std::string result = text->str;
    g_string_free(text, TRUE);
    return result;
}

} // namespace vexasim::introspection
