// SPDX-License-Identifier: MIT
#include "tests/client/BluezTest.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <stdexcept>

ABus::ABus()
{
    kit::GlibMessages::instance().take();
    log.clear();
    bus = std::make_unique<vexasim::PrivateBus>();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus->address().c_str(), 1);
}

ABus::~ABus()
{
    client.reset();
    if (mConnection != nullptr) {
        // The bus ends now, and GDBus would then end the process.
        g_dbus_connection_set_exit_on_close(mConnection, FALSE);
        g_object_unref(mConnection);
    }
    const kit::Lines unexpected = kit::GlibMessages::instance().take();
    EXPECT_TRUE(unexpected.empty()) << testing::PrintToString(unexpected);
}

void ABus::SetUp()
{
    // A failed start releases nothing, and GIO returns the same connection as long as it exists.
    GDBusConnection* left = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    const bool used = left != nullptr && g_dbus_connection_is_closed(left) != FALSE;
    g_clear_object(&left);
    ASSERT_FALSE(used) << "an earlier case has used up this process's system bus: run the cases by ctest, "
                          "which gives each a process of its own";
}

void ABus::construct(Bluez::Listener* first)
{
    // Each client drops one more reference than it takes.
    g_main_context_ref(g_main_context_default());
    client = std::make_unique<Bluez>(first);
}

void ABus::start(Bluez::Listener* first)
{
    construct(first);
    ASSERT_TRUE(log.await("D Init Bluez completed"));
    onEventThread([] {});
    connection();
}

void ABus::onEventThread(const std::function<void()>& task)
{
    struct Errand {
        std::function<void()> task;
        std::promise<void> done;
    };
    auto* const errand = new Errand{task, {}};
    std::future<void> done = errand->done.get_future();
    // Tells the thread sanitizer, which doesn't see GLib's locks, that the errand is handed over. The
    // client's own runAfterEvents would read it before.
    static std::atomic<int> handovers{0};
    handovers.fetch_add(1, std::memory_order_release);
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT); // behind the signals that are queued, not behind all
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            handovers.load(std::memory_order_acquire);
            auto& job = *static_cast<Errand*>(data);
            job.task();
            job.done.set_value();
            return G_SOURCE_REMOVE;
        },
        errand, [](gpointer data) { delete static_cast<Errand*>(data); });
    g_source_attach(source, nullptr);
    g_source_unref(source);
    if (done.wait_for(kit::kPatience) != std::future_status::ready) {
        throw std::runtime_error("the event thread doesn't run its loop");
    }
}

GDBusConnection* ABus::connection()
{
    if (mConnection == nullptr) {
        mConnection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    }
    return mConnection;
}

void ABus::settle()
{
    // The bus answers in order: when the reply is here, everything sent before it has been read and queued.
    GVariant* reply = g_dbus_connection_call_sync(
        connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, static_cast<int>(kit::kPatience.count()), nullptr, nullptr);
    ASSERT_NE(reply, nullptr) << "the bus doesn't answer";
    g_variant_unref(reply);
    onEventThread([] {});
}

kit::Lines ABus::known()
{
    kit::Lines found;
    onEventThread([&] {
        for (const Kind& kind : kKinds) {
            for (const auto& entry : (*client).*kind.proxies) {
                found.push_back(kind.entry(entry.first));
            }
        }
    });
    return found;
}

void ABus::expectFromGlib(const kit::Lines& messages)
{
    EXPECT_EQ(kit::GlibMessages::instance().take(), messages);
}

ABusWithBlueZ::ABusWithBlueZ(const vexasim::SimulatorOptions& options)
{
    vexasim::SimulatorOptions here = options;
    here.busAddress = bus->address();
    sim = std::make_unique<vexasim::Simulator>(here);
}

vexasim::SimulatorOptions ABusWithBlueZ::bare()
{
    vexasim::SimulatorOptions options;
    options.adapters.clear();
    options.withRemote = false;
    return options;
}

void ABusWithBlueZ::settle()
{
    sim->sync();
    ABus::settle();
}

void ABusWithBlueZ::addObject(const std::string& path, const std::string& interface,
                              const PropertyMap& properties)
{
    sim->addObject(path, {{interface, properties}, {kPropertiesInterface, {}}});
}

void ABusWithBlueZ::addAdapter(const std::string& path, const PropertyMap& properties)
{
    addObject(path, kAdapterInterface, properties);
}

void ABusWithBlueZ::addDevice(const std::string& path, const PropertyMap& properties)
{
    addObject(path, kDeviceInterface, properties);
}

void ABusWithBlueZ::addService(const std::string& path, const std::string& uuid)
{
    addObject(path, kServiceInterface, {{"UUID", text(uuid)}});
}

void ABusWithBlueZ::addCharacteristic(const std::string& path, const std::string& uuid)
{
    addObject(path, kCharacteristicInterface, {{"UUID", text(uuid)}});
}

void ABusWithBlueZ::addDescriptor(const std::string& path, const std::string& uuid)
{
    addObject(path, kDescriptorInterface, {{"UUID", text(uuid)}});
}

void ABusWithBlueZ::removeAlone(const std::string& path, const std::string& interface)
{
    sim->removeInterface(path, interface);
    sim->removeInterface(path, kPropertiesInterface);
}

void ABusWithBlueZ::addAll()
{
    addAdapter();
    addDevice();
    addService();
    addCharacteristic();
    addDescriptor();
}

void ABusWithBlueZ::startWithAll()
{
    addAll();
    start();
    sim->clearCalls();
    listener.clear();
    log.clear();
}

void ABusWithBlueZ::change(const Kind& kind, const PropertyMap& properties)
{
    sim->emitPropertiesChanged(kind.path, kind.interface, properties);
    settle();
}

std::map<std::string, Bluez::Service> ABusWithBlueZ::tree()
{
    std::map<std::string, Bluez::Service> copy;
    onEventThread([&] { copy = (*client).*inside::kMembers.services; });
    return copy;
}

GDBusProxy* ABusWithBlueZ::proxyOf(const Kind& kind, const std::string& path)
{
    GDBusProxy* proxy = nullptr;
    onEventThread([&] { proxy = ((*client).*kind.proxies).at(path).get(); });
    return proxy;
}

std::size_t ABusWithBlueZ::unrefs() const
{
    const kit::Lines lines = log.lines("T");
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("T Unref object ", 0) == 0;
    }));
}

void ABusWithBlueZ::emitFromManager(const char* signal, const std::string& path)
{
    onEventThread([&] {
        GDBusObjectSkeleton* object = g_dbus_object_skeleton_new(path.c_str());
        g_signal_emit_by_name((*client).*inside::kMembers.objectManager, signal, object);
        g_object_unref(object);
    });
}

OutgoingMessages::OutgoingMessages(GDBusConnection* connection)
    : mConnection(static_cast<GDBusConnection*>(g_object_ref(connection))),
      mFilter(g_dbus_connection_add_filter(
          mConnection, note, new std::shared_ptr<Record>(mRecord),
          [](gpointer record) { delete static_cast<std::shared_ptr<Record>*>(record); }))
{
}

OutgoingMessages::~OutgoingMessages()
{
    g_dbus_connection_remove_filter(mConnection, mFilter);
    g_object_unref(mConnection);
}

GDBusMessage* OutgoingMessages::note(GDBusConnection* /*connection*/, GDBusMessage* message,
                                     gboolean incoming, gpointer record)
{
    const char* member = g_dbus_message_get_member(message);
    if (incoming == FALSE && member != nullptr && std::strcmp(member, "GetId") != 0) {
        Record& to = **static_cast<std::shared_ptr<Record>*>(record);
        const std::lock_guard lock(to.mutex);
        to.members.emplace_back(member);
    }
    return message;
}

kit::Lines OutgoingMessages::members() const
{
    const std::lock_guard lock(mRecord->mutex);
    return mRecord->members;
}
