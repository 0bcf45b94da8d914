// SPDX-License-Identifier: MIT
#include "sim/program/BlueZControl.h"

#include <stdexcept>
#include <utility>

#include "sim/program/Dictionaries.h"

namespace vexasim
{

namespace
{
Variant listOf(const std::vector<Call>& calls)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(xsssss)"));
    for (const Call& call : calls) {
        g_variant_builder_add(&builder, "(xsssss)", call.timeUs, call.sender.c_str(), call.path.c_str(),
                              call.interface.c_str(), call.member.c_str(), call.parameters.text().c_str());
    }
    return g_variant_builder_end(&builder);
}
} // namespace

BlueZControl::BlueZControl(Simulator& simulator, Narrator& narrator, BoxFiles files,
                           std::function<void()> quit)
    : mSimulator(simulator),
      mObject(narrator),
      mRemote(
          mObject, [&simulator]() -> Remote& { return simulator.remote(); }, std::move(files))
{
    addAirMethods();
    addServiceMethods();
    addObjectMethods();
    mObject.method("Quit", {}, std::move(quit));
    mObject.publish(simulator.busAddress());
}

// --- other devices and adapters ---

void BlueZControl::addAirMethods()
{
    mObject.method("AddDevice", {"address", "name"},
                   [this](const std::string& address, const std::string& name) {
                       PeripheralOptions options;
                       options.address = address;
                       if (!name.empty()) {
                           options.name = name;
                       }
                       const auto device = std::make_shared<Peripheral>(options);
                       if (!mOthers.emplace(address, device).second) {
                           throw std::invalid_argument(address + " was already added");
                       }
                       mSimulator.addPeripheral(device);
                   });
    mObject.method("RemoveDevice", {"address"}, [this](const std::string& address) {
        const auto found = mOthers.find(address);
        if (found == mOthers.end()) {
            throw std::invalid_argument(address + " is not an added device");
        }
        mSimulator.removePeripheral(found->second);
        mOthers.erase(found);
    });
    mObject.method("AddAdapter", {"name", "address"},
                   [this](const std::string& name, const std::string& address) {
                       mSimulator.addAdapter({name, address, true});
                   });
    mObject.method("RemoveAdapter", {"name"},
                   [this](const std::string& name) { mSimulator.removeAdapter(name); });
    mObject.method("SetPowered", {"adapter", "powered"}, [this](const std::string& adapter, bool powered) {
        mSimulator.setPowered(powered, adapter);
    });
}

// --- bluetoothd ---

void BlueZControl::addServiceMethods()
{
    mObject.method("StopService", {"how"},
                   [this](const std::string& how) { mSimulator.stopService(control::stop(how)); });
    mObject.method("StartService", {}, [this] { mSimulator.startService(); });
    mObject.method("Bend", {"member", "how"},
                   [this](const std::string& member, const PropertyMap& how) {
                       return Variant(g_variant_new_uint64(mSimulator.bend(control::bend(member, how))));
                   },
                   {"id", "t"});
    mObject.method("Unbend", {"id"}, [this](std::uint64_t id) { mSimulator.unbend(id); });
    mObject.method("ClearBends", {}, [this] { mSimulator.clearBends(); });
    mObject.method("Calls", {}, [this] { return listOf(mSimulator.calls()); }, {"calls", "a(xsssss)"});
    mObject.method("ClearCalls", {}, [this] { mSimulator.clearCalls(); });
}

// --- objects on the bus ---

void BlueZControl::addObjectMethods()
{
    using control::ObjectPath;
    mObject.method("SetProperty", {"object", "interface", "property", "value", "emit"},
                   [this](const ObjectPath& object, const std::string& interface, const std::string& property,
                          const Variant& value, bool emit) {
                       mSimulator.setProperty(object.text, interface, property, value,
                                              emit ? Simulator::Emit::Yes : Simulator::Emit::No);
                   });
    mObject.method("EmitSignal", {"object", "interface", "member", "parameters"},
                   [this](const ObjectPath& object, const std::string& interface, const std::string& member,
                          const Variant& parameters) {
                       if (g_variant_is_of_type(parameters.get(), G_VARIANT_TYPE_TUPLE) == FALSE) {
                           throw std::invalid_argument(
                               "signal parameters must be a tuple, such as <('a', 1)>");
                       }
                       mSimulator.emitSignal(object.text, interface, member, parameters);
                   });
    mObject.method("AddObject", {"object", "interfaces"},
                   [this](const ObjectPath& object, const InterfaceMap& interfaces) {
                       mSimulator.addObject(object.text, interfaces);
                   });
    mObject.method("RemoveObject", {"object"},
                   [this](const ObjectPath& object) { mSimulator.removeObject(object.text); });
}

} // namespace vexasim
