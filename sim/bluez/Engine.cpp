// SPDX-License-Identifier: MIT
#include "sim/bluez/Engine.h"

#include <chrono>
#include <utility>

namespace vexasim
{

namespace
{
int64_t nowUs()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

Call callFrom(GDBusMessage* message)
{
    Call call;
    call.timeUs = nowUs();
    call.sender = orEmpty(g_dbus_message_get_sender(message));
    call.path = orEmpty(g_dbus_message_get_path(message));
    call.interface = orEmpty(g_dbus_message_get_interface(message));
    call.member = orEmpty(g_dbus_message_get_member(message));
    GVariant* body = g_dbus_message_get_body(message);
    call.parameters = body != nullptr ? g_variant_ref(body) : g_variant_new_tuple(nullptr, 0);
    return call;
}
} // namespace

/// Hears what happens on the air, on whatever thread a test causes it, and has
/// it handled before the test goes on. Outlives the engine harmlessly.
class Engine::Ears : public PeripheralListener
{
public:
    explicit Ears(Engine& engine) : mEngine(engine), mLoop(engine.mCore.loop) {}

    void onAdvertisingChanged(Peripheral& peripheral) override
    {
        mLoop->run([&] { mEngine.mAdapters.onAdvertising(peripheral); });
    }
    void onRssiChanged(Peripheral& peripheral) override
    {
        mLoop->run([&] { mEngine.mAdapters.onAdvertising(peripheral); });
    }
    void onLinkLost(Peripheral& peripheral) override
    {
        mLoop->run([&] { mEngine.mDevices.onLinkLost(peripheral); });
    }
    void onNotification(Peripheral& peripheral, uint16_t handle, const Bytes& value) override
    {
        mLoop->run([&] { mEngine.mDevices.onNotification(peripheral, handle, value); });
    }

private:
    Engine& mEngine;
    std::shared_ptr<Loop> mLoop;
};

Engine::Engine(const SimulatorOptions& options, std::string busAddress)
    : mDevices(mCore),
      mAdapters(mCore, mDevices),
      mEars(std::make_shared<Ears>(*this)),
      mBusAddress(std::move(busAddress)),
      mAutoEnable(options.autoEnable)
{
    mCore.timings = options.timings;
    mCore.requireAgent = options.requireAgent;
    mCore.onEvent = options.onEvent;
    registerAgentMethods();
    for (const AdapterOptions& adapter : options.adapters)
        mAdapters.add(adapter);
}

Engine::~Engine()
{
    loop().run([this] { stopService(Simulator::Stop::Kill); });
    loop().stop();
}

void Engine::addRemote(const std::shared_ptr<Remote>& remote)
{
    remote->setSchedule([weak = std::weak_ptr<Loop>(mCore.loop)](std::chrono::milliseconds delay,
                                                                 std::function<void()> action) {
        if (const auto loop = weak.lock())
            loop->after(delay, std::move(action));
    });
    mRemotes.push_back(remote);
    addPeripheral(remote->normal());
    addPeripheral(remote->update());
}

void Engine::addPeripheral(const std::shared_ptr<Peripheral>& peripheral)
{
    peripheral->addListener(mEars);
    mAdapters.addPeripheral(peripheral);
}

// ---- bluetoothd as a process

void Engine::startService()
{
    if (mCore.bus.isOpen())
        return;
    mCore.bus.open(
        mBusAddress,
        [this](GDBusConnection* connection, GDBusMessage* message) { onCall(connection, message); },
        [this](const std::string& name) { loop().post([this, name] { clientGone(name); }); });
    try {
        mCore.bus.requestName(names::kBlueZ);
    } catch (...) {
        mCore.bus.close();
        throw;
    }
    mCore.say("org.bluez is on the bus");
    publishRoot();
    // As AutoEnable has it; bluetoothd killed leaves the controller as it is.
    std::optional<bool> powered;
    if (std::exchange(mStartedOnce, true) && (mAutoEnable || !mWasKilled))
        powered = mAutoEnable;
    mAdapters.serviceStarted(powered);
    mCore.bus.roundTrip();
}

void Engine::stopService(Simulator::Stop how)
{
    if (!mCore.bus.isOpen())
        return;
    mWasKilled = how == Simulator::Stop::Kill;
    if (mWasKilled)
        mCore.bus.close(); // from here on nothing that follows is told
    mAdapters.serviceStopped(!mWasKilled);
    mCore.tree.clear();
    mCore.agentOwners.clear();
    mCore.bus.roundTrip(); // closing drops what isn't on the socket yet
    mCore.bus.close();
    mCore.say("org.bluez left the bus");
}

void Engine::publishRoot()
{
    mCore.tree.add("/", {{names::kIntrospectable, {}}, {names::kObjectManager, {}}}, false);
    mCore.tree.add(names::kBlueZPath,
                   {{names::kAgentManager, {}}, {names::kProfileManager, {}}, {names::kIntrospectable, {}}});
}

void Engine::clientGone(const std::string& sender)
{
    mCore.agentOwners.erase(sender);
    mAdapters.clientGone(sender);
    mDevices.clientGone(sender);
}

// ---- calls

void Engine::onCall(GDBusConnection* connection, GDBusMessage* message)
{
    const Call call = callFrom(message);
    const auto request = std::make_shared<Request>(loop(), connection, message, call);
    loop().post([this, request] { take(request); });
    // Behind the post: who awaits the call and then changes something finds the
    // call handled before the change.
    mCallLog.add(call);
}

void Engine::take(const RequestPtr& request)
{
    if (!mCore.bus.isOpen())
        return;
    if (const auto bend = mBends.take(request->call())) {
        mCore.say("bent: " + request->call().text());
        return bendCall(*bend, request);
    }
    mCore.dispatcher.handle(request);
}

void Engine::bendCall(const Bend& bend, const RequestPtr& request)
{
    switch (bend.kind) {
    case Bend::Kind::Error:
        return request->fail(bend.errorName, bend.errorMessage);
    case Bend::Kind::Answer:
        return request->reply(bend.parameters);
    case Bend::Kind::Silence:
        return;
    case Bend::Kind::Late:
        loop().after(bend.delay, [this, request] {
            if (mCore.bus.isOpen())
                mCore.dispatcher.handle(request);
        });
        return;
    case Bend::Kind::LateReply:
        request->delayAnswer(bend.delay);
        return mCore.dispatcher.handle(request);
    }
}

void Engine::registerAgentMethods()
{
    Dispatcher& dispatcher = mCore.dispatcher;
    dispatcher.onMethod(names::kAgentManager, "RegisterAgent", [this](const RequestPtr& request) {
        if (!mCore.agentOwners.insert(request->call().sender).second)
            return fail(request, errors::kAlreadyExists);
        request->reply();
    });
    dispatcher.onMethod(names::kAgentManager, "UnregisterAgent", [this](const RequestPtr& request) {
        if (mCore.agentOwners.erase(request->call().sender) == 0)
            return fail(request, errors::kDoesNotExist);
        request->reply();
    });
    dispatcher.onMethod(names::kAgentManager, "RequestDefaultAgent", [this](const RequestPtr& request) {
        if (mCore.agentOwners.count(request->call().sender) == 0)
            return fail(request, errors::kDoesNotExist);
        request->reply();
    });
    for (const char* member : {"RegisterProfile", "UnregisterProfile"})
        dispatcher.onMethod(names::kProfileManager, member,
                            [](const RequestPtr& request) { request->reply(); });
}

} // namespace vexasim
