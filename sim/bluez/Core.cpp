// SPDX-License-Identifier: MIT
#include "sim/bluez/Core.h"

#include <utility>

#include "sim/bluez/Adapters.h"
#include "sim/bluez/Devices.h"

namespace vexasim
{

namespace
{
std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

Call callFrom(GDBusMessage* message)
{
    Call call;
    call.timeUs = g_get_monotonic_time();
    call.sender = orEmpty(g_dbus_message_get_sender(message));
    call.path = orEmpty(g_dbus_message_get_path(message));
    call.interface = orEmpty(g_dbus_message_get_interface(message));
    call.member = orEmpty(g_dbus_message_get_member(message));
    GVariant* body = g_dbus_message_get_body(message);
    call.parameters = body != nullptr ? g_variant_ref(body) : g_variant_new_tuple(nullptr, 0);
    return call;
}
} // namespace

/// Passes on the peripherals' events, whichever thread causes them, and returns once they are handled. May
/// outlive the core.
class Core::Observer : public PeripheralListener
{
public:
    explicit Observer(Core& core) : mCore(core), mThread(core.scheduler) {}

    void onAdvertisingChanged(Peripheral& peripheral) override
    {
        mThread->run([&] { mCore.mAdapters->onAdvertising(peripheral); });
    }
    void onRssiChanged(Peripheral& peripheral) override { onAdvertisingChanged(peripheral); }
    void onLinkLost(Peripheral& peripheral) override
    {
        mThread->run([&] { mCore.mDevices->onLinkLost(peripheral); });
    }
    void onNotification(Peripheral& peripheral, std::uint16_t handle, const Bytes& value) override
    {
        mThread->run([&] { mCore.mDevices->onNotification(peripheral, handle, value); });
    }

private:
    Core& mCore;
    std::shared_ptr<SchedulerThread> mThread;
};

Core::Core(const SimulatorOptions& options, std::string busAddress)
    : tree([this](const std::string& path, const std::string& interface, const std::string& member,
                  const Variant& parameters) { bus.emit(path, interface, member, parameters); }),
      dispatcher(tree),
      timings(options.timings),
      requireAgent(options.requireAgent),
      mOnEvent(options.onEvent),
      mDevices(std::make_unique<Devices>(*this)),
      mAdapters(std::make_unique<Adapters>(*this, *mDevices)),
      mObserver(std::make_shared<Observer>(*this)),
      mBusAddress(std::move(busAddress)),
      mAutoEnable(options.autoEnable)
{
    registerAgentMethods();
    for (const AdapterOptions& adapter : options.adapters) {
        mAdapters->add(adapter);
    }
}

Core::~Core()
{
    scheduler->run([this] { stopService(ServiceStop::Kill); });
    scheduler->stop();
}

void Core::say(const std::string& text) const
{
    if (mOnEvent) {
        mOnEvent(text);
    }
}

Scheduler::TaskId Core::later(const DevicePtr& device, std::chrono::milliseconds delay,
                              std::function<void(const DevicePtr&)> step) const
{
    return scheduler->after(
        delay, [weak = std::weak_ptr<Device>(device), link = device->link, step = std::move(step)] {
            const DevicePtr same = weak.lock();
            if (same != nullptr && same->link == link) {
                step(same);
            }
        });
}

void Core::addRemote(const std::shared_ptr<Remote>& remote)
{
    remote->setSchedule([weak = std::weak_ptr<SchedulerThread>(scheduler)](std::chrono::milliseconds delay,
                                                                           std::function<void()> action) {
        if (const auto thread = weak.lock()) {
            thread->after(delay, std::move(action));
        }
    });
    remotes.push_back(remote);
    addPeripheral(remote->normal());
    addPeripheral(remote->update());
}

void Core::addPeripheral(const std::shared_ptr<Peripheral>& peripheral)
{
    peripheral->addListener(mObserver);
    mAdapters->addPeripheral(peripheral);
}

// --- bluetoothd as a process ---

void Core::startService()
{
    if (bus.isOpen()) {
        return;
    }
    bus.open(
        mBusAddress,
        [this](GDBusConnection* connection, GDBusMessage* message) { onCall(connection, message); },
        [this](const std::string& name) { scheduler->post([this, name] { clientGone(name); }); });
    try {
        bus.requestName(names::kBlueZ);
    } catch (...) {
        bus.close();
        throw;
    }
    say("org.bluez is on the bus");
    publishRoot();
    // As with AutoEnable; a killed bluetoothd leaves the controller as it is.
    std::optional<bool> powered;
    if (std::exchange(mStartedOnce, true) && (mAutoEnable || !mWasKilled)) {
        powered = mAutoEnable;
    }
    mAdapters->serviceStarted(powered);
    bus.roundTrip();
}

void Core::stopService(ServiceStop how)
{
    if (!bus.isOpen()) {
        return;
    }
    mWasKilled = how == ServiceStop::Kill;
    if (mWasKilled) {
        bus.close(); // from here on nothing is announced
    }
    mAdapters->serviceStopped(!mWasKilled);
    tree.clear();
    agentOwners.clear();
    bus.roundTrip(); // closing drops what isn't on the socket yet
    bus.close();
    say("org.bluez left the bus");
}

void Core::publishRoot()
{
    tree.add("/", {{names::kIntrospectable, {}}, {names::kObjectManager, {}}}, false);
    tree.add(names::kBlueZPath,
             {{names::kAgentManager, {}}, {names::kProfileManager, {}}, {names::kIntrospectable, {}}});
}

void Core::clientGone(const std::string& sender)
{
    agentOwners.erase(sender);
    mAdapters->clientGone(sender);
    mDevices->clientGone(sender);
}

// --- calls ---

void Core::onCall(GDBusConnection* connection, GDBusMessage* message)
{
    const Call call = callFrom(message);
    const auto request = std::make_shared<Request>(*scheduler, connection, message, call);
    scheduler->post([this, request] { take(request); });
    // After the post: if a test awaits the call and then changes something, the call is handled before the
    // change.
    callLog.add(call);
}

void Core::take(const RequestPtr& request)
{
    if (!bus.isOpen()) {
        return;
    }
    if (const auto bend = bends.take(request->call())) {
        say("bent: " + request->call().text());
        return bendCall(*bend, request);
    }
    dispatcher.handle(request);
}

void Core::bendCall(const Bend& bend, const RequestPtr& request)
{
    switch (bend.kind) {
    case Bend::Kind::Error:
        return request->fail(bend.errorName, bend.errorMessage);
    case Bend::Kind::Answer:
        return request->reply(bend.parameters);
    case Bend::Kind::Silence:
        return;
    case Bend::Kind::Late:
        scheduler->after(bend.delay, [this, request] {
            if (bus.isOpen()) {
                dispatcher.handle(request);
            }
        });
        return;
    case Bend::Kind::LateReply:
        request->delayAnswer(bend.delay);
        return dispatcher.handle(request);
    }
}

void Core::registerAgentMethods()
{
    dispatcher.onMethod(names::kAgentManager, "RegisterAgent", [this](const RequestPtr& request) {
        if (!agentOwners.insert(request->call().sender).second) {
            return fail(request, errors::kAlreadyExists);
        }
        request->reply();
    });
    dispatcher.onMethod(names::kAgentManager, "UnregisterAgent", [this](const RequestPtr& request) {
        if (agentOwners.erase(request->call().sender) == 0) {
            return fail(request, errors::kDoesNotExist);
        }
        request->reply();
    });
    dispatcher.onMethod(names::kAgentManager, "RequestDefaultAgent", [this](const RequestPtr& request) {
        if (agentOwners.count(request->call().sender) == 0) {
            return fail(request, errors::kDoesNotExist);
        }
        request->reply();
    });
    for (const char* member : {"RegisterProfile", "UnregisterProfile"}) {
        dispatcher.onMethod(names::kProfileManager, member,
                            [](const RequestPtr& request) { request->reply(); });
    }
}

} // namespace vexasim
