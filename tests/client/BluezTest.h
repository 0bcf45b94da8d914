// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Bluez.h"
#include "sim/bluez/PrivateBus.h"
#include "sim/bluez/Simulator.h"
#include "tests/client/BluezInside.h"
#include "tests/client/RecordingListener.h"
#include "tests/kit/LogRecorder.h"
#include "tests/kit/NamedCase.h"

using vexasim::Bend;
using vexasim::InterfaceMap;
using vexasim::PropertyMap;
using vexasim::Variant;

/// The paths of the tests' standard objects.
constexpr const char* kAdapter = "/org/bluez/hci0";
constexpr const char* kDevice = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01";
constexpr const char* kService = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01/service0010";
constexpr const char* kCharacteristic = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01/service0010/char0011";
constexpr const char* kDescriptor = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01/service0010/char0011/desc0013";

constexpr const char* kAdapterInterface = "org.bluez.Adapter1";
constexpr const char* kDeviceInterface = "org.bluez.Device1";
constexpr const char* kServiceInterface = "org.bluez.GattService1";
constexpr const char* kCharacteristicInterface = "org.bluez.GattCharacteristic1";
constexpr const char* kDescriptorInterface = "org.bluez.GattDescriptor1";
constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

constexpr const char* kBatteryUuid = "0000180f-0000-1000-8000-00805f9b34fb";
constexpr const char* kLevelUuid = "00002a19-0000-1000-8000-00805f9b34fb";
constexpr const char* kConfigurationUuid = "00002902-0000-1000-8000-00805f9b34fb";

/// A kind of object that the client tracks, with the standard object of that kind.
struct Kind : kit::NamedCase {
    const char* path;
    const char* interface;
    inside::Members::ProxyMap Bluez::*proxies;

    /// The event for the arrival or removal of such an object.
    std::string added(const std::string& of) const { return std::string("on") + name + "Added " + of; }
    std::string removed(const std::string& of) const { return std::string("on") + name + "Removed " + of; }
    std::string added() const { return added(path); }
    std::string removed() const { return removed(path); }
    /// The entry of a path in the client's map of proxies, as ABus::known() gives it.
    std::string entry(const std::string& of) const { return std::string(name) + " " + of; }
    std::string entry() const { return entry(path); }
};

/// From the top down.
inline const std::array<Kind, 5> kKinds{{
    {{"Adapter"}, kAdapter, kAdapterInterface, inside::kMembers.adapterProxies},
    {{"Device"}, kDevice, kDeviceInterface, inside::kMembers.deviceProxies},
    {{"Service"}, kService, kServiceInterface, inside::kMembers.serviceProxies},
    {{"Characteristic"}, kCharacteristic, kCharacteristicInterface, inside::kMembers.characteristicProxies},
    {{"Descriptor"}, kDescriptor, kDescriptorInterface, inside::kMembers.descriptorProxies},
}};
inline const Kind& kAdapterKind = kKinds[0];
inline const Kind& kDeviceKind = kKinds[1];
inline const Kind& kServiceKind = kKinds[2];
inline const Kind& kCharacteristicKind = kKinds[3];
inline const Kind& kDescriptorKind = kKinds[4];

inline Variant boolean(bool value)
{
    return {g_variant_new_boolean(value ? TRUE : FALSE)};
}
inline Variant text(const std::string& value)
{
    return {g_variant_new_string(value.c_str())};
}
inline Variant int16(std::int16_t value)
{
    return {g_variant_new_int16(value)};
}
/// The reply to a method without a result.
inline Variant nothing()
{
    return {g_variant_new_tuple(nullptr, 0)};
}

/// A private bus that is this process's system bus, and a client to be started on it. Each case has its own.
class ABus : public testing::Test
{
public:
    ~ABus() override;

protected:
    ABus();
    void SetUp() override;

    /// Creates the client. `first` may get events before this returns.
    void construct(Bluez::Listener* first);
    void construct() { construct(&listener); }
    /// Creates the client and returns when it has reported all existing objects and its event loop runs.
    void start(Bluez::Listener* first);
    void start() { start(&listener); }
    void destroy() { client.reset(); }

    /// Runs the task on the event thread, between two events, and returns when it has finished.
    void onEventThread(const std::function<void()>& task);
    /// Returns when the client has handled all that the bus has sent so far.
    virtual void settle();
    /// The connection that the client uses; the test holds a reference of its own from then on.
    GDBusConnection* connection();

    /// GLib's criticals and warnings that the case expects; any other fails it.
    void expectFromGlib(const kit::Lines& messages);

    /// The client's entries for proxies, including empty ones, kind by kind: "Adapter /org/bluez/hci0".
    kit::Lines known();

    kit::LogRecorder& log = kit::LogRecorder::instance();
    std::unique_ptr<vexasim::PrivateBus> bus;
    RecordingListener listener;
    std::array<RecordingListener, 4> others; ///< for cases with several listeners; their addresses ascend
    std::unique_ptr<Bluez> client;

private:
    GDBusConnection* mConnection = nullptr;
};

/// A simulated BlueZ on that bus, with only the objects that a case adds to it.
class ABusWithBlueZ : public ABus
{
public:
    ~ABusWithBlueZ() override { destroy(); } // before the simulator, whose end would cause another event

protected:
    explicit ABusWithBlueZ(const vexasim::SimulatorOptions& options = bare());

    static vexasim::SimulatorOptions bare();
    void settle() override;

    void addObject(const std::string& path, const std::string& interface, const PropertyMap& properties = {});
    void addAdapter(const std::string& path = kAdapter, const PropertyMap& properties = {});
    void addDevice(const std::string& path = kDevice, const PropertyMap& properties = {});
    void addService(const std::string& path = kService, const std::string& uuid = kBatteryUuid);
    void addCharacteristic(const std::string& path = kCharacteristic, const std::string& uuid = kLevelUuid);
    void addDescriptor(const std::string& path = kDescriptor, const std::string& uuid = kConfigurationUuid);
    /// Removes only the object; the objects below it stay.
    void removeAlone(const std::string& path, const std::string& interface);
    /// Adds the five objects above in that order.
    void addAll();
    /// Starts the client with those five and clears the records of events, calls and log.
    void startWithAll();
    /// Makes the standard object of this kind signal changes; returns when the client has handled them.
    void change(const Kind& kind, const PropertyMap& properties);

    /// A copy of the client's GATT tree.
    std::map<std::string, Bluez::Service> tree();
    /// The proxy that the client holds for this object, null if its entry is empty.
    GDBusProxy* proxyOf(const Kind& kind, const std::string& path);
    GDBusProxy* proxyOf(const Kind& kind) { return proxyOf(kind, kind.path); }
    /// How many proxies the log says were released.
    std::size_t unrefs() const;

    /// Emits the object manager's signal for this path, as GIO does when an object arrives or is removed. For
    /// arrivals that no bus would cause.
    void emitObjectAdded(const std::string& path) { emitFromManager("object-added", path); }
    void emitObjectRemoved(const std::string& path) { emitFromManager("object-removed", path); }

    std::unique_ptr<vexasim::Simulator> sim;

private:
    void emitFromManager(const char* signal, const std::string& path);
};

/// Records the methods of the messages that this process sends on the client's connection, except those of
/// settle().
class OutgoingMessages
{
public:
    explicit OutgoingMessages(GDBusConnection* connection);
    ~OutgoingMessages();
    OutgoingMessages(const OutgoingMessages&) = delete;
    OutgoingMessages& operator=(const OutgoingMessages&) = delete;

    kit::Lines members() const;

private:
    struct Record {
        std::mutex mutex;
        kit::Lines members;
    };
    static GDBusMessage* note(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                              gpointer record);

    GDBusConnection* mConnection;
    // Shared with GDBus's thread, where a filter may still run while it is being removed.
    std::shared_ptr<Record> mRecord = std::make_shared<Record>();
    unsigned mFilter;
};
