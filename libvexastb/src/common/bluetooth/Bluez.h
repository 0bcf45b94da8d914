// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <gio/gio.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "RemovalGate.h"
#include "STBThread.h"
#include "pthread_helper.h"

/**
 * The daemon's one connection to BlueZ: a local copy of BlueZ's object tree, an event thread that turns what
 * BlueZ reports into Listener callbacks, and blocking operations on adapters, devices and characteristics.
 *
 * Every object is identified by its D-Bus path, whose last component alone determines its kind. `App` owns
 * the only instance through a shared pointer and lends it to a firmware update.
 *
 * The event thread iterates GLib's global default main context and drops one reference more to it than it
 * took. A process that creates several clients must take a reference of its own for each.
 *
 * Unless stated otherwise, any thread may call an operation, which blocks that thread until the bus has
 * answered.
 */
class Bluez : public STBThread
{
public:
    /// A GATT service as BlueZ exports it (org.bluez.GattService1): a plain copy, linked by path.
    struct Service {
        /// A GATT characteristic (org.bluez.GattCharacteristic1).
        struct Characteristic {
            /// A GATT descriptor (org.bluez.GattDescriptor1).
            struct Descriptor {
                std::string val;    ///< never filled by the client
                std::string uuid;   ///< the object's "UUID", as BlueZ gives it
                std::string path;   ///< the object's own path
                std::string parent; ///< path of the characteristic

                /// Four lines of text, for a log or a debugger.
                std::string toString() const;
            };

            std::string
                val; ///< filled by readCharacteristic(Characteristic&) only; the value and a zero byte
            std::string uuid;                              ///< the object's "UUID", as BlueZ gives it
            std::string path;                              ///< the object's own path
            std::string parent;                            ///< path of the service
            std::map<std::string, Descriptor> descriptors; ///< by path

            /// Four lines and one more for the value of each descriptor.
            std::string toString() const;
        };

        /// The kind of a service; its value is the service's 16-bit UUID.
        enum class Type : std::uint32_t {
            Battery = 0x180F,
            OtaNormal = 0xFFD0,
            OtaNew = 0xD0FF,
            Dfu = 0x6287,
            Unknown,
        };

        std::string val;                  ///< never filled by the client
        std::string uuid;                 ///< the object's "UUID", as BlueZ gives it
        std::string path;                 ///< the object's own path
        std::string parent;               ///< path of the device
        Type type = static_cast<Type>(0); ///< 0, which is no enumerator, until the record is filled
        std::map<std::string, Characteristic> characteristics; ///< by path

        /// Five lines and then each characteristic's own text.
        std::string toString() const;
    };

    /// Owns one reference to a GVariant, so that a reply is always released.
    struct GVariantHolder {
        /// Sinks a floating reference and keeps a full one; null is allowed.
        explicit GVariantHolder(GVariant* value);
        ~GVariantHolder();
        GVariantHolder(const GVariantHolder&) = delete;
        GVariantHolder& operator=(const GVariantHolder&) = delete;

        GVariant* variant; ///< may be null
    };

    /**
     * The client's events. A listener overrides those it needs; the default bodies do nothing.
     *
     * All callbacks run on the event thread with no lock of the client held, so they may call its operations;
     * while one blocks, no further event is delivered. References are valid for the call only.
     */
    class Listener
    {
    public:
        virtual void onAdapterAdded(const std::string& /*path*/) {}
        virtual void onAdapterRemoved(const std::string& /*path*/) {}
        virtual void onDeviceAdded(const std::string& /*path*/) {}
        virtual void onDeviceRemoved(const std::string& /*path*/) {}
        virtual void onDeviceRSSIChanged(const std::string& /*path*/, std::int16_t /*dBm*/) {}
        virtual void onDevicePairedStatusChanged(const std::string& /*path*/, bool /*paired*/) {}
        virtual void onDeviceConnectionStatusChanged(const std::string& /*path*/, bool /*connected*/) {}
        virtual void onDeviceServicesResolvedStatusChanged(const std::string& /*path*/, bool /*resolved*/) {}
        virtual void onServiceAdded(const std::string& /*path*/, const Service& /*service*/) {}
        virtual void onServiceRemoved(const std::string& /*path*/) {}
        virtual void onCharacteristicAdded(const std::string& /*path*/,
                                           const Service::Characteristic& /*characteristic*/)
        {
        }
        virtual void onCharacteristicRemoved(const std::string& /*path*/) {}
        virtual void onDescriptorAdded(const std::string& /*path*/,
                                       const Service::Characteristic::Descriptor& /*descriptor*/)
        {
        }
        virtual void onDescriptorRemoved(const std::string& /*path*/) {}
        /// `characteristic` is built for the call; `bytes` is the new value.
        virtual void onGattCharacteristicChanged(const Service::Characteristic& /*characteristic*/,
                                                 const std::vector<std::uint8_t>& /*bytes*/)
        {
        }
        virtual ~Listener() = default;
    };

    /// Every listener ever subscribed or unsubscribed, and whether it is subscribed now.
    using ListenerMap = std::map<Listener*, bool>;
    /// Shares one reference to a proxy; its deleter logs at TRACE and drops the reference.
    using ProxyPtr = std::shared_ptr<GDBusProxy>;

    /// Starts the event thread and returns at once: `listener`, which may be null, may get events before the
    /// caller has stored the new client.
    explicit Bluez(Listener* listener);
    /// Cancels a start that is under way, ends the event loop and joins the event thread without a timeout.
    ~Bluez() override;
    Bluez(const Bluez&) = delete;
    Bluez& operator=(const Bluez&) = delete;

    /// The event thread's body: connects, reports the existing objects, runs the loop. Event thread only.
    void run() override;

    // --- Listeners ---

    /// Delivers events to `listener` from now on; null is ignored. The client doesn't own it.
    void subscribe(Listener* listener);
    /// Ends the subscription. An event that is being delivered may still reach the listener once.
    void unsubscribe(Listener* listener);
    /// The client whose event thread is the calling thread, as in a callback. It is set even before the
    /// constructor has returned and while the last owner releases the client. Event threads only.
    static Bluez& ofThisThread();
    /// Runs `task` on the event thread after the event that is being delivered, and returns at once. `task`
    /// may destroy a listener that has unsubscribed: nothing calls that any more. It is destroyed without
    /// being run if the event loop ends first, and must not hold the last reference to the client.
    void runAfterEvents(std::function<void()> task);
    /// Ignores all events from now on: no further object is fetched and no further callback starts. The
    /// destructor does this first. Any thread.
    void stopEvents();
    /// Blocks removals while a caller looks up objects. The event thread waits for the holder, so a holder
    /// must not wait for events.
    RemovalGate& removals() { return _removals; }
    /// A copy of the table of listeners.
    ListenerMap getListeners() const;

    // --- Paths and types; these use no state and may run on several threads at once ---

    /// The parent's path and the last component. A path of one component, and the root, are their own parent
    /// and keep their slash in both halves.
    std::pair<std::string, std::string> splitPath(const std::string& path) const;
    /// The first half of splitPath.
    std::string getParent(const std::string& path) const;
    /// The second half of splitPath.
    std::string getEndpoint(const std::string& path) const;
    /// Whether the last component names an adapter ("hci0").
    bool isAdapter(const std::string& path) const;
    /// Whether the last component names a device ("dev_" and six upper-case octets).
    bool isDevice(const std::string& path) const;
    /// Whether the last component names a service ("service" and four lower-case digits).
    bool isService(const std::string& path) const;
    /// Whether the last component names a characteristic ("char" and four lower-case digits).
    bool isCharacteristic(const std::string& path) const;
    /// Whether the last component names a descriptor ("desc" and four lower-case digits).
    bool isDescriptor(const std::string& path) const;
    /// The type for a 128-bit UUID in text form; Unknown for any other base or number. Doesn't throw.
    static Service::Type serviceTypeByString(const std::string& uuid);
    /// A readable name; "Unknown" for any value outside the enumeration.
    static std::string serviceTypeToString(Service::Type type);
    /// A dump of the services for a log or a debugger.
    std::string toString(const std::vector<Service>& services) const;

    // --- The local copy of BlueZ's tree ---

    /// The service's record, made from the proxy's cached "UUID" and the path; blank for an empty path.
    Service objectForService(const std::string& path);
    /// The same for a characteristic.
    Service::Characteristic objectForCharacteristic(const std::string& path);
    /// The same for a descriptor.
    Service::Characteristic::Descriptor objectForDescriptor(const std::string& path);
    /// All adapter paths in ascending order, including those that an operation only asked for.
    std::vector<std::string> getAdapters() const;
    /// All device paths in ascending order, including those that an operation only asked for.
    std::vector<std::string> getDevices() const;
    /// Deep copies of the device's services of that type; empty if `devicePath` is no device.
    std::vector<Service> getServices(const std::string& devicePath, Service::Type type);
    /// The paths that begin with `path` among a device's services, a service's characteristics or a
    /// characteristic's descriptors; empty for any other path.
    std::vector<std::string> itemsFor(const std::string& path);

    // --- Adapters (org.bluez.Adapter1) ---
    // Each returns false without a connection, with an empty path or for an unknown adapter.

    /// From the proxy's cache, no bus traffic; `address` is written on success only.
    bool adapterGetAddress(const std::string& path, std::string& address);
    /// From the proxy's cache.
    bool adapterGetPairable(const std::string& path, bool& pairable);
    /// From the proxy's cache.
    bool adapterGetPowered(const std::string& path, bool& powered);
    /// From the proxy's cache.
    bool adapterGetDiscovering(const std::string& path, bool& discovering);
    /// Sets the property over the bus, even for an unknown adapter; true if BlueZ reports success.
    bool adapterSetPairable(const std::string& path, const bool& pairable);
    /// Sets the property over the bus, even for an unknown adapter; true if BlueZ reports success.
    bool adapterSetPowered(const std::string& path, const bool& powered);
    /// Starts discovery; true if the adapter is known, even if BlueZ refuses, which is only logged.
    bool adapterScanOn(const std::string& path);
    /// Stops discovery; true if the adapter is known, even if BlueZ refuses, which is only logged.
    bool adapterScanOff(const std::string& path);
    /// Makes BlueZ forget the device and its pairing; true if BlueZ reports success.
    bool adapterRemoveDevice(const std::string& path, const std::string& devicePath);

    // --- Devices (org.bluez.Device1) ---

    /// From the proxy's cache, no bus traffic; `address` is written on success only.
    bool deviceGetAddress(const std::string& path, std::string& address);
    /// From the proxy's cache.
    bool deviceGetAliasName(const std::string& path, std::string& alias);
    /// The current "Name", read over the bus. A failure isn't logged and leaves `name` unchanged.
    bool deviceGetName(const std::string& path, std::string& name);
    /// From the proxy's cache.
    bool deviceGetConnected(const std::string& path, bool& connected);
    /// From the proxy's cache.
    bool deviceGetPaired(const std::string& path, bool& paired);
    /// From the proxy's cache.
    bool deviceGetTrusted(const std::string& path, bool& trusted);
    /// From the proxy's cache, in dBm.
    bool deviceGetRSSI(const std::string& path, std::int16_t& dBm);
    /// The cached value; false on failure, too.
    bool deviceIsServicesResolved(const std::string& path);
    /// Stores the value in the proxy's cache and nowhere else; true if the device is known.
    bool deviceSetTrusted(const std::string& path, const bool& trusted);
    /// Connects; true if BlueZ reports success. Blocks for up to 25 s, the D-Bus library's default.
    bool deviceConnect(const std::string& path);
    /// Disconnects; true if BlueZ reports success.
    bool deviceDisconnect(const std::string& path);
    /// Asks BlueZ to pair and polls the current "Paired" for about 15 s; true as soon as it is set.
    /// stopThread cuts short the pauses between the polls.
    bool devicePair(const std::string& path);

    // --- Characteristics (org.bluez.GattCharacteristic1); each refusal is logged ---

    /// Turns notifications on; they arrive as onGattCharacteristicChanged.
    bool characteristicStartNotify(const std::string& path);
    bool characteristicStartNotify(const Service::Characteristic& characteristic);
    /// Turns notifications off.
    bool characteristicStopNotify(const std::string& path);
    bool characteristicStopNotify(const Service::Characteristic& characteristic);
    /// Writes the bytes and waits for BlueZ's answer; false if there are none.
    bool writeCharacteristic(const std::string& path, const std::vector<std::uint8_t>& bytes);
    bool writeCharacteristic(const Service::Characteristic& characteristic,
                             const std::vector<std::uint8_t>& bytes);
    /// Reads the value; empty for an empty value and on every failure.
    std::vector<std::uint8_t> readCharacteristic(const std::string& path);
    /// Reads the value into `characteristic.val`, in valueFor's form; false, and an empty `val`, on failure.
    bool readCharacteristic(Service::Characteristic& characteristic);
    /// Reads the value as text and appends a zero byte, which counts in the size; empty on failure.
    std::string valueFor(const std::string& path);
    /// The bytes of an array of bytes; logs and returns none for anything else.
    std::vector<std::uint8_t> getBytesArray(GVariant* variant) const;
    /// The bytes of an array of bytes, or of one that is the first element of a tuple.
    std::vector<std::uint8_t> getBytesArray(const GVariantHolder& holder) const;

    // --- Building blocks of the operations ---

    /// Creates a proxy with a blocking call. The result is empty without a connection or if a text is empty;
    /// it holds null if GLib couldn't create the proxy.
    ProxyPtr makeSharedProxy(GDBusConnection* connection, const std::string& name, const std::string& path,
                             const std::string& interface, GDBusProxyFlags flags, GError** error,
                             GCancellable* cancellable, GDBusInterfaceInfo* info);
    /// A text property of an object of any kind, from its proxy's cache; `value` is written on success only.
    bool getCachedProperty(const std::string& path, const std::string& property, std::string& value);
    /// Writes the five tables of proxies to the log at DEBUG.
    void debugPrintProxies() const;

private:
    using ProxyMap = std::map<std::string, ProxyPtr>;

    // GIO's callbacks, with the client as user data; event thread.
    static void objectAdded(GDBusObjectManager* manager, GDBusObject* object, gpointer self);
    static void objectRemoved(GDBusObjectManager* manager, GDBusObject* object, gpointer self);
    static void propertiesChanged(GDBusProxy* proxy, GVariant* changed, const gchar* const* invalidated,
                                  gpointer self);

    bool createLoop();
    bool connectToBlueZ();
    void releaseConnection();
    void fetchObjects();

    void onObjectAdded(const std::string& path);
    void addAdapter(const std::string& path);
    void addDevice(const std::string& path);
    void addService(const std::string& path);
    void addCharacteristic(const std::string& path);
    void addDescriptor(const std::string& path);
    void storeProxy(ProxyMap& proxies, const std::string& path, const char* interface);
    void watchProperties(ProxyMap& proxies, const std::string& path);
    void onObjectRemoved(const std::string& path);
    void forgetObject(const std::string& path);
    void onPropertiesChanged(GDBusProxy* proxy, GVariant* changed, const gchar* const* invalidated);
    void onPropertyChanged(const std::string& path, const std::string& name, GVariant* value);
    void onDevicePropertyChanged(const std::string& path, const std::string& name, GVariant* value);
    void onValueChanged(const std::string& path, GVariant* value);

    template <typename Callback>
    void fanOut(Callback callback) const;
    template <typename Record>
    Record recordFor(const std::string& path);

    GDBusProxy* findProxy(ProxyMap& proxies, const std::string& path);
    ProxyPtr findCharacteristicProxy(const std::string& path);
    ProxyPtr findProxyOfAnyKind(const std::string& path);
    template <typename Value>
    bool getCached(ProxyMap& proxies, const std::string& path, const char* property, Value& value);
    bool setAdapterProperty(const std::string& path, const char* property, bool value);
    GVariant* callProperties(const std::string& path, const char* method, GVariant* parameters,
                             GError** error);
    bool pollPaired(const std::string& path, bool& paired);
    bool callNotify(const std::string& path, const char* method);
    bool endpointMatches(const std::string& path, const char* pattern) const;

    ListenerMap _listeners;
    GDBusConnection* _connection = nullptr;
    GDBusObjectManager* _objectManager = nullptr;
    GMainLoop* _loop = nullptr;
    GCancellable* _cancellable = nullptr;
    GMainContext* _context = nullptr;
    ProxyMap _adapterProxies;
    ProxyMap _deviceProxies;
    ProxyMap _serviceProxies;
    ProxyMap _descriptorProxies;
    ProxyMap _characteristicProxies;
    std::map<std::string, Service> _services;
    mutable pthread_helper::mutex _mutex;
    /// Set by the event thread once _loop, _context and _cancellable are set, and by the destructor. The
    /// first of the two finds it false, which decides whether there is a loop to stop.
    std::atomic<bool> _loopMadeOrForgone{false};
    /// Set first in the destructor: events that are still queued are ignored.
    std::atomic<bool> _stopping{false};
    RemovalGate _removals;

    /// Never destroyed: the event thread may still read it when a second interrupt runs the exit handlers.
    static const std::map<std::uint32_t, Service::Type>& _codeToServiceType;
};

/// A callback for a GLib source that runs once: ends the GMainLoop `loop` unless it is null. Always returns
/// false.
gboolean quit_task(gpointer loop);
