// SPDX-License-Identifier: MIT
#include "sim/bluez/Simulator.h"

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>

#include "sim/bluez/Adapters.h"
#include "sim/bluez/Core.h"
#include "sim/bluez/Devices.h"
#include "sim/bluez/Names.h"

namespace vexasim
{

namespace
{
constexpr std::chrono::milliseconds kPollInterval{2};
} // namespace

/// Runs `function` on the simulator's thread and returns its result.
template <typename Function>
auto Simulator::run(Function function) const
{
    using Result = std::invoke_result_t<Function>;
    if constexpr (std::is_void_v<Result>) {
        mCore->scheduler->run(function);
    } else {
        Result result{};
        mCore->scheduler->run([&] { result = function(); });
        return result;
    }
}

/// Runs `function` on the simulator's thread and returns when its signals are on the bus.
template <typename Function>
void Simulator::change(Function function)
{
    run(function);
    sync();
}

Simulator::Simulator(const SimulatorOptions& options)
{
    if (options.busAddress.empty()) {
        mBus = std::make_unique<PrivateBus>(options.busDirectory);
    }
    mAddress = mBus ? mBus->address() : options.busAddress;
    mCore = std::make_unique<Core>(options, mAddress);
    if (options.withRemote) {
        addRemote(Remote::create(options.remote));
    }
    if (options.startService) {
        startService();
    }
}

Simulator::~Simulator() = default;

std::string Simulator::busAddress() const
{
    return mAddress;
}

PrivateBus* Simulator::bus()
{
    return mBus.get();
}

// --- the remote and other devices ---

Remote& Simulator::remote()
{
    return *run([this] {
        if (mCore->remotes.empty()) {
            throw std::logic_error("there is no remote on the air");
        }
        return mCore->remotes.front();
    });
}

void Simulator::addRemote(const std::shared_ptr<Remote>& remote)
{
    run([&] { mCore->addRemote(remote); });
}

void Simulator::addPeripheral(const std::shared_ptr<Peripheral>& peripheral)
{
    run([&] { mCore->addPeripheral(peripheral); });
}

void Simulator::removePeripheral(const std::shared_ptr<Peripheral>& peripheral)
{
    change([&] { mCore->adapters().removePeripheral(peripheral); });
}

std::string Simulator::announce(const std::shared_ptr<Peripheral>& peripheral, const std::string& adapter)
{
    return run([&] { return mCore->devices().seen(adapterPath(adapter), peripheral)->path; });
}

// --- object paths ---

std::string Simulator::adapterPath(const std::string& adapter) const
{
    return Adapters::pathFor(adapter);
}

std::string Simulator::devicePath(const Peripheral& peripheral, const std::string& adapter) const
{
    return Devices::pathFor(adapterPath(adapter), peripheral.address());
}

std::string Simulator::pathOf(const Peripheral& peripheral, const std::string& uuid,
                              const std::string& adapter) const
{
    return Devices::attributePath(devicePath(peripheral, adapter), peripheral, uuid);
}

std::string Simulator::remotePath() const
{
    return devicePath(*const_cast<Simulator*>(this)->remote().normal());
}

std::string Simulator::updateDevicePath() const
{
    return devicePath(*const_cast<Simulator*>(this)->remote().update());
}

// --- adapters ---

std::string Simulator::addAdapter(const AdapterOptions& adapter)
{
    change([&] { mCore->adapters().add(adapter); });
    return adapterPath(adapter.name);
}

void Simulator::removeAdapter(const std::string& adapter)
{
    change([&] { mCore->adapters().remove(adapterPath(adapter)); });
}

void Simulator::setPowered(bool powered, const std::string& adapter)
{
    change([&] { mCore->adapters().setPowered(adapterPath(adapter), powered); });
}

bool Simulator::discovering(const std::string& adapter) const
{
    return run([&] { return mCore->adapters().discovering(adapterPath(adapter)); });
}

// --- bluetoothd as a process ---

void Simulator::stopService(Stop how)
{
    run([&] { mCore->stopService(how); });
}

void Simulator::startService()
{
    run([&] { mCore->startService(); });
}

void Simulator::releaseName()
{
    run([&] { mCore->bus.releaseName(names::kBlueZ); });
}

void Simulator::takeName()
{
    run([&] { mCore->bus.requestName(names::kBlueZ); });
}

// --- changing objects ---

void Simulator::addObjects(const std::vector<std::pair<std::string, InterfaceMap>>& objects)
{
    change([&] {
        for (const auto& [path, interfaces] : objects) {
            mCore->tree.add(path, interfaces);
        }
    });
}

void Simulator::removeObject(const std::string& path, bool announce)
{
    change([&] { mCore->tree.remove(path, announce); });
}

void Simulator::removeInterface(const std::string& path, const std::string& interface, bool announce)
{
    change([&] { mCore->tree.removeInterface(path, interface, announce); });
}

void Simulator::setProperty(const std::string& path, const std::string& interface,
                            const std::string& property, const Variant& value, Emit emit)
{
    const bool known = run([&] {
        ObjectTree& tree = mCore->tree;
        if (!tree.set(path, interface, property, value)) {
            return false;
        }
        if (emit == Emit::Yes) {
            tree.emitChanged(path, interface, {{property, value}});
        }
        return true;
    });
    if (!known) {
        throw std::invalid_argument("no " + interface + " on " + path);
    }
    sync();
}

void Simulator::dropProperty(const std::string& path, const std::string& interface,
                             const std::string& property, Emit emit)
{
    change([&] {
        mCore->tree.drop(path, interface, property);
        if (emit == Emit::Yes) {
            mCore->tree.emitChanged(path, interface, {}, {property});
        }
    });
}

Variant Simulator::property(const std::string& path, const std::string& interface,
                            const std::string& property) const
{
    return run([&] { return mCore->tree.get(path, interface, property); });
}

std::vector<std::string> Simulator::objects() const
{
    return run([&] { return mCore->tree.paths(); });
}

void Simulator::emitPropertiesChanged(const std::string& path, const std::string& interface,
                                      const PropertyMap& changed, const std::vector<std::string>& invalidated)
{
    change([&] { mCore->tree.emitChanged(path, interface, changed, invalidated); });
}

void Simulator::emitSignal(const std::string& path, const std::string& interface, const std::string& member,
                           const Variant& parameters)
{
    change([&] { mCore->bus.emit(path, interface, member, parameters); });
}

void Simulator::setChildrenFirst(bool childrenFirst)
{
    run([&] { mCore->tree.setChildrenFirst(childrenFirst); });
}

// --- bending methods ---

BendId Simulator::bend(const Bend& bend)
{
    return mCore->bends.add(bend);
}

void Simulator::unbend(BendId id)
{
    mCore->bends.remove(id);
}

void Simulator::clearBends()
{
    mCore->bends.clear();
}

// --- recorded calls ---

std::vector<Call> Simulator::calls() const
{
    return mCore->callLog.all();
}

namespace
{
CallPredicate byName(const std::string& member, const std::string& path)
{
    return [member, path](const Call& call) {
        return (member.empty() || call.member == member) && (path.empty() || call.path == path);
    };
}
} // namespace

std::vector<Call> Simulator::calls(const std::string& member, const std::string& path) const
{
    const CallPredicate matches = byName(member, path);
    std::vector<Call> found;
    for (const Call& call : calls()) {
        if (matches(call)) {
            found.push_back(call);
        }
    }
    return found;
}

void Simulator::clearCalls()
{
    mCore->callLog.clear();
}

bool Simulator::awaitCall(const CallPredicate& predicate, unsigned count,
                          std::chrono::milliseconds limit) const
{
    return mCore->callLog.await(predicate, count, limit);
}

bool Simulator::awaitCall(const std::string& member, const std::string& path, unsigned count,
                          std::chrono::milliseconds limit) const
{
    return awaitCall(byName(member, path), count, limit);
}

bool Simulator::awaitProperty(const std::string& path, const std::string& interface, const std::string& name,
                              const Variant& value, std::chrono::milliseconds limit) const
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        const Variant current = property(path, interface, name);
        if (current && g_variant_equal(current.get(), value.get()) != FALSE) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
}

void Simulator::sync() const
{
    run([this] { mCore->bus.roundTrip(); });
}

Timings Simulator::timings() const
{
    return run([this] { return mCore->timings; });
}

void Simulator::setTimings(const Timings& timings)
{
    run([&] { mCore->timings = timings; });
}

void Simulator::setRequireAgent(bool required)
{
    run([&] { mCore->requireAgent = required; });
}

} // namespace vexasim
