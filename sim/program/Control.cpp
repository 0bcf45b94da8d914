// SPDX-License-Identifier: MIT
#include "sim/program/Control.h"

#include "sim/program/Arguments.h"
#include "sim/program/Options.h"

#include <stdexcept>
#include <utility>

namespace vexasim
{

Control::Control(Simulator& simulator, BoxFiles files, std::function<void()> quit)
    : mSimulator(simulator),
      mRemote(
          mObject, [&simulator]() -> Remote& { return simulator.remote(); }, std::move(files))
{
    addAirMethods();
    addBlueZMethods();
    addObjectMethods();
    mObject.action("Quit", [quit = std::move(quit)](GVariant*) { quit(); });
    mObject.publish(simulator.busAddress());
}

// ---- other devices and adapters

void Control::addAirMethods()
{
    mObject.action("AddDevice", [this](GVariant* arguments) {
        PeripheralOptions options;
        options.address = control::text(arguments, 0);
        if (const std::string name = control::text(arguments, 1); !name.empty())
            options.name = name;
        const auto device = std::make_shared<Peripheral>(options);
        if (!mOthers.emplace(options.address, device).second)
            throw std::invalid_argument(options.address + " is on the air already");
        mSimulator.addPeripheral(device);
    });
    mObject.action("RemoveDevice", [this](GVariant* arguments) {
        const auto found = mOthers.find(control::text(arguments, 0));
        if (found == mOthers.end())
            throw std::invalid_argument("no such device was added");
        mSimulator.removePeripheral(found->second);
        mOthers.erase(found);
    });
    mObject.action("AddAdapter", [this](GVariant* arguments) {
        AdapterOptions options;
        options.name = control::text(arguments, 0);
        options.address = control::text(arguments, 1);
        mSimulator.addAdapter(options);
    });
    mObject.action("RemoveAdapter",
                   [this](GVariant* arguments) { mSimulator.removeAdapter(control::text(arguments, 0)); });
    mObject.action("SetPowered", [this](GVariant* arguments) {
        gboolean powered = FALSE;
        g_variant_get_child(arguments, 1, "b", &powered);
        mSimulator.setPowered(powered != FALSE, control::text(arguments, 0));
    });
}

// ---- bluetoothd

void Control::addBlueZMethods()
{
    mObject.action("StopService", [this](GVariant* arguments) {
        mSimulator.stopService(control::stop(control::text(arguments, 0)));
    });
    mObject.action("StartService", [this](GVariant*) { mSimulator.startService(); });
    mObject.method("Bend", [this](GVariant* arguments) {
        const Variant how = g_variant_get_child_value(arguments, 1);
        const BendId id = mSimulator.bend(control::bend(control::text(arguments, 0), how.get()));
        return Variant(g_variant_new("(t)", id));
    });
    mObject.action("Unbend", [this](GVariant* arguments) {
        mSimulator.unbend(control::only<uint64_t>(arguments, "t"));
    });
    mObject.action("ClearBends", [this](GVariant*) { mSimulator.clearBends(); });
    mObject.method("Calls", [this](GVariant*) { return calls(); });
    mObject.action("ClearCalls", [this](GVariant*) { mSimulator.clearCalls(); });
}

Variant Control::calls()
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(xsssss)"));
    for (const Call& call : mSimulator.calls())
        g_variant_builder_add(&builder, "(xsssss)", call.timeUs, call.sender.c_str(), call.path.c_str(),
                              call.interface.c_str(), call.member.c_str(), call.parameters.text().c_str());
    return g_variant_new("(a(xsssss))", &builder);
}

void Control::addObjectMethods()
{
    mObject.action("SetProperty", [this](GVariant* arguments) {
        GVariant* boxed = nullptr;
        gboolean emit = FALSE;
        g_variant_get_child(arguments, 3, "v", &boxed);
        const Variant value(boxed);
        g_variant_get_child(arguments, 4, "b", &emit);
        mSimulator.setProperty(control::text(arguments, 0), control::text(arguments, 1),
                               control::text(arguments, 2), value,
                               emit != FALSE ? Simulator::Emit::Yes : Simulator::Emit::No);
    });
    mObject.action("EmitSignal", [this](GVariant* arguments) {
        GVariant* boxed = nullptr;
        g_variant_get_child(arguments, 3, "v", &boxed);
        const Variant parameters(boxed);
        if (g_variant_is_of_type(boxed, G_VARIANT_TYPE_TUPLE) == FALSE)
            throw std::invalid_argument("the parameters of a signal are a tuple, such as <('a', 1)>");
        mSimulator.emitSignal(control::text(arguments, 0), control::text(arguments, 1),
                              control::text(arguments, 2), parameters);
    });
    mObject.action("AddObject", [this](GVariant* arguments) {
        const Variant interfaces = g_variant_get_child_value(arguments, 1);
        mSimulator.addObject(control::text(arguments, 0), control::interfaces(interfaces.get()));
    });
    mObject.action("RemoveObject",
                   [this](GVariant* arguments) { mSimulator.removeObject(control::text(arguments, 0)); });
}

} // namespace vexasim
