// SPDX-License-Identifier: MIT
#include "sim/control/Control.h"

#include "sim/control/Interface.h"
#include "sim/control/Options.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace vexasim
{

namespace
{
constexpr int kButtonPressed = 10; ///< the ADC reads low while the button is down
constexpr int kButtonReleased = 1023;
constexpr const char* kFlagPrefix = "/bluetooth_";
constexpr const char* kImageLink = "/bluetooth_rc_fw";

[[noreturn]] void throwError(GError* error)
{
    const std::string text = error->message;
    g_error_free(error);
    throw std::runtime_error(text);
}

/// The text at a place of the argument tuple.
std::string text(GVariant* arguments, gsize index)
{
    const Variant value = g_variant_get_child_value(arguments, index);
    return g_variant_get_string(value.get(), nullptr);
}

template <typename Value>
Value only(GVariant* arguments, const char* format)
{
    Value value{};
    g_variant_get_child(arguments, 0, format, &value);
    return value;
}

bool onlyBoolean(GVariant* arguments)
{
    return only<gboolean>(arguments, "b") != FALSE;
}

const char* channelWord(UpdatePacket::Channel channel)
{
    switch (channel) {
    case UpdatePacket::Channel::Switch:
        return "switch";
    case UpdatePacket::Channel::ControlPoint:
        return "control-point";
    case UpdatePacket::Channel::Data:
        return "data";
    }
    return "";
}
} // namespace

Bytes readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(file), {}};
    if (file.bad() || !file.is_open())
        throw std::runtime_error("can't read " + path);
    return bytes;
}

Control::Control(Simulator& simulator, BoxFiles files, std::function<void()> quit)
    : mSimulator(simulator), mFiles(std::move(files)), mQuit(std::move(quit))
{
    addBoxMethods();
    addRemoteMethods();
    addUpdateMethods();
    addAirMethods();
    addBlueZMethods();
    addObjectMethods();
    if (!mFiles.adcFile.empty())
        pressButton(false);

    GError* error = nullptr;
    mInfo = g_dbus_node_info_new_for_xml(control::kXml, &error);
    if (mInfo == nullptr)
        throwError(error);
    mConnection = g_dbus_connection_new_for_address_sync(
        simulator.busAddress().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (mConnection == nullptr)
        throwError(error);
    const GDBusInterfaceVTable table{&Control::onCall, nullptr, nullptr, {}};
    g_dbus_connection_register_object(mConnection, control::kPath, mInfo->interfaces[0], &table, this,
                                      nullptr, &error);
    if (error != nullptr)
        throwError(error);
    const Variant reply = g_dbus_connection_call_sync(
        mConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", control::kName, 0U), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (!reply)
        throwError(error);
}

Control::~Control()
{
    if (mRelease != 0)
        g_source_remove(mRelease);
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
    g_object_unref(mConnection);
    g_dbus_node_info_unref(mInfo);
}

void Control::tell(const std::string& what)
{
    g_dbus_connection_emit_signal(mConnection, nullptr, control::kPath, control::kInterface, "Happened",
                                  g_variant_new("(s)", what.c_str()), nullptr);
}

void Control::onCall(GDBusConnection*, const char*, const char*, const char*, const char* member,
                     GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self)
{
    try {
        const Variant reply = static_cast<Control*>(self)->mMethods.at(member)(parameters);
        g_dbus_method_invocation_return_value(invocation, reply.get());
    } catch (const std::exception& error) {
        g_dbus_method_invocation_return_dbus_error(invocation, control::kError, error.what());
    }
}

void Control::add(const std::string& member, std::function<void(GVariant*)> action)
{
    mMethods[member] = [action = std::move(action)](GVariant* arguments) {
        action(arguments);
        return Variant{};
    };
}

// ---- the box

void Control::addBoxMethods()
{
    add("PressButton", [this](GVariant*) { pressButton(true); });
    add("ReleaseButton", [this](GVariant*) { pressButton(false); });
    add("HoldButton", [this](GVariant* arguments) { holdButton(only<uint32_t>(arguments, "u")); });
    add("SetFlag", [this](GVariant* arguments) { setFlag(text(arguments, 0)); });
    add("OfferImage", [this](GVariant* arguments) { offerImage(text(arguments, 0)); });
    add("Quit", [this](GVariant*) { mQuit(); });
}

void Control::pressButton(bool pressed)
{
    if (mFiles.adcFile.empty())
        throw std::runtime_error("no button: start vexasim with --adc-file");
    // Written aside and moved, so that no reader finds it empty.
    const std::string aside = mFiles.adcFile + ".new";
    std::ofstream file(aside);
    file << (pressed ? kButtonPressed : kButtonReleased) << '\n';
    file.close();
    if (!file)
        throw std::runtime_error("can't write " + aside);
    std::filesystem::rename(aside, mFiles.adcFile);
}

void Control::holdButton(unsigned milliseconds)
{
    pressButton(true);
    if (mRelease != 0)
        g_source_remove(mRelease);
    mRelease = g_timeout_add(
        milliseconds,
        [](gpointer data) {
            auto* self = static_cast<Control*>(data);
            self->mRelease = 0;
            self->pressButton(false);
            return gboolean{G_SOURCE_REMOVE};
        },
        this);
}

void Control::setFlag(const std::string& flag)
{
    if (flag != "pair" && flag != "reset")
        throw std::invalid_argument("\"" + flag + "\" is no flag; flags are pair and reset");
    if (mFiles.tmpDirectory.empty())
        throw std::runtime_error("no folder for flags: start vexasim with --tmp");
    std::ofstream file(mFiles.tmpDirectory + kFlagPrefix + flag);
    if (!file)
        throw std::runtime_error("can't make the flag in " + mFiles.tmpDirectory);
}

void Control::offerImage(const std::string& file)
{
    if (mFiles.tmpDirectory.empty())
        throw std::runtime_error("no folder for the link: start vexasim with --tmp");
    mSimulator.remote().receiver().setExpectedImage(readFile(file));
    const std::string link = mFiles.tmpDirectory + kImageLink;
    std::filesystem::remove(link);
    std::filesystem::create_symlink(std::filesystem::absolute(file), link);
}

// ---- the remote

void Control::addRemoteMethods()
{
    const auto remote = [this]() -> Remote& { return mSimulator.remote(); };
    add("Leave", [=](GVariant*) { remote().leave(); });
    add("ComeBack", [=](GVariant*) { remote().comeBack(); });
    add("Sleep", [=](GVariant*) { remote().sleep(); });
    add("Wake", [=](GVariant*) { remote().wake(); });
    add("LoseLink", [=](GVariant*) { remote().loseLink(); });
    add("SetBattery", [=](GVariant* arguments) { remote().setBattery(only<uint8_t>(arguments, "y")); });
    add("SetBatteryBytes", [=](GVariant* arguments) {
        remote().setBatteryBytes(control::bytes(Variant(g_variant_get_child_value(arguments, 0)).get()));
    });
    add("SetVersion", [=](GVariant* arguments) { remote().setVersion(only<uint16_t>(arguments, "q")); });
    add("SetVersionBytes", [=](GVariant* arguments) {
        remote().setVersionBytes(control::bytes(Variant(g_variant_get_child_value(arguments, 0)).get()));
    });
    add("SetRssi", [=](GVariant* arguments) { remote().setRssi(only<int16_t>(arguments, "n")); });
    add("SetName", [=](GVariant* arguments) {
        const std::string name = text(arguments, 0);
        remote().normal()->setAdvertisedName(name.empty() ? std::nullopt : std::optional<std::string>{name});
    });
    add("SetPairing",
        [=](GVariant* arguments) { remote().setPairing(control::pairing(text(arguments, 0))); });
    add("SetSlow", [=](GVariant* arguments) {
        remote().setAnswerDelay(std::chrono::milliseconds{only<uint32_t>(arguments, "u")});
    });
    add("SetMute", [=](GVariant* arguments) { remote().normal()->setMute(onlyBoolean(arguments)); });
    add("SetForgotBond",
        [=](GVariant* arguments) { remote().normal()->setForgotBond(onlyBoolean(arguments)); });
    mMethods["Status"] = [this](GVariant*) { return status(); };
}

Variant Control::status()
{
    Remote& remote = mSimulator.remote();
    const Peripheral& shown = remote.inUpdateMode() ? *remote.update() : *remote.normal();
    const auto boolean = [](bool value) { return Variant(g_variant_new_boolean(value ? TRUE : FALSE)); };
    const PropertyMap words = {
        {"address", g_variant_new_string(shown.address().c_str())},
        {"update-mode", boolean(remote.inUpdateMode())},
        {"present", boolean(shown.present())},
        {"in-range", boolean(shown.inRange())},
        {"asleep", boolean(shown.asleep())},
        {"connected", boolean(shown.connected())},
        {"paired", boolean(remote.normal()->paired())},
        {"rssi", g_variant_new_int16(shown.rssi())},
        {"version", Variant::bytes(remote.versionBytes())},
        {"battery", Variant::bytes(remote.normal()->value(remote.normal()->handleOf(uuid::kBatteryLevel)))},
        {"blocks", g_variant_new_uint32(remote.receiver().blocks())},
        {"verified", boolean(remote.receiver().verified())},
        {"complaint", g_variant_new_string(remote.receiver().complaint().c_str())},
    };
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}"));
    for (const auto& [word, value] : words)
        g_variant_builder_add(&builder, "{sv}", word.c_str(), value.get());
    return g_variant_new("(a{sv})", &builder);
}

// ---- its update

void Control::addUpdateMethods()
{
    const auto remote = [this]() -> Remote& { return mSimulator.remote(); };
    add("EnterUpdateMode", [=](GVariant*) { remote().enterUpdateMode(); });
    add("LeaveUpdateMode", [=](GVariant*) { remote().leaveUpdateMode(); });
    add("ExpectImage",
        [=](GVariant* arguments) { remote().receiver().setExpectedImage(readFile(text(arguments, 0))); });
    add("SetUpdateFault", [=](GVariant* arguments) {
        const std::string word = text(arguments, 0);
        const auto step = updateStepFrom(word);
        if (!step)
            throw std::invalid_argument("\"" + word + "\" is no step of an update; see docs/simulator.md");
        const Variant fault = g_variant_get_child_value(arguments, 1);
        remote().receiver().setFault(*step, control::updateFault(fault.get()));
    });
    add("ClearUpdateFaults", [=](GVariant*) { remote().receiver().clearFaults(); });
    add("SetUpdateAppearance", [=](GVariant* arguments) {
        const Variant appearance = g_variant_get_child_value(arguments, 0);
        remote().setUpdateAppearance(control::updateAppearance(appearance.get()));
    });
    mMethods["UpdatePackets"] = [this](GVariant*) { return packets(); };
}

Variant Control::packets()
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(xssay)"));
    for (const UpdatePacket& packet : mSimulator.remote().receiver().packets())
        g_variant_builder_add(&builder, "(xss@ay)", packet.timeUs, channelWord(packet.channel),
                              packet.fromRemote ? "answer" : "write", Variant::bytes(packet.bytes).get());
    return g_variant_new("(a(xssay))", &builder);
}

// ---- other devices and adapters

void Control::addAirMethods()
{
    add("AddDevice", [this](GVariant* arguments) {
        PeripheralOptions options;
        options.address = text(arguments, 0);
        if (const std::string name = text(arguments, 1); !name.empty())
            options.name = name;
        const auto device = std::make_shared<Peripheral>(options);
        if (!mOthers.emplace(options.address, device).second)
            throw std::invalid_argument(options.address + " is on the air already");
        mSimulator.addPeripheral(device);
    });
    add("RemoveDevice", [this](GVariant* arguments) {
        const auto found = mOthers.find(text(arguments, 0));
        if (found == mOthers.end())
            throw std::invalid_argument("no such device was added");
        mSimulator.removePeripheral(found->second);
        mOthers.erase(found);
    });
    add("AddAdapter", [this](GVariant* arguments) {
        AdapterOptions options;
        options.name = text(arguments, 0);
        options.address = text(arguments, 1);
        mSimulator.addAdapter(options);
    });
    add("RemoveAdapter", [this](GVariant* arguments) { mSimulator.removeAdapter(text(arguments, 0)); });
    add("SetPowered", [this](GVariant* arguments) {
        gboolean powered = FALSE;
        g_variant_get_child(arguments, 1, "b", &powered);
        mSimulator.setPowered(powered != FALSE, text(arguments, 0));
    });
}

// ---- bluetoothd

void Control::addBlueZMethods()
{
    add("StopService",
        [this](GVariant* arguments) { mSimulator.stopService(control::stop(text(arguments, 0))); });
    add("StartService", [this](GVariant*) { mSimulator.startService(); });
    mMethods["Bend"] = [this](GVariant* arguments) {
        const Variant how = g_variant_get_child_value(arguments, 1);
        const BendId id = mSimulator.bend(control::bend(text(arguments, 0), how.get()));
        return Variant(g_variant_new("(t)", id));
    };
    add("Unbend", [this](GVariant* arguments) { mSimulator.unbend(only<uint64_t>(arguments, "t")); });
    add("ClearBends", [this](GVariant*) { mSimulator.clearBends(); });
    mMethods["Calls"] = [this](GVariant*) { return calls(); };
    add("ClearCalls", [this](GVariant*) { mSimulator.clearCalls(); });
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
    add("SetProperty", [this](GVariant* arguments) {
        GVariant* boxed = nullptr;
        gboolean emit = FALSE;
        g_variant_get_child(arguments, 3, "v", &boxed);
        const Variant value(boxed);
        g_variant_get_child(arguments, 4, "b", &emit);
        mSimulator.setProperty(text(arguments, 0), text(arguments, 1), text(arguments, 2), value,
                               emit != FALSE ? Simulator::Emit::Yes : Simulator::Emit::No);
    });
    add("EmitSignal", [this](GVariant* arguments) {
        GVariant* boxed = nullptr;
        g_variant_get_child(arguments, 3, "v", &boxed);
        const Variant parameters(boxed);
        if (g_variant_is_of_type(boxed, G_VARIANT_TYPE_TUPLE) == FALSE)
            throw std::invalid_argument("the parameters of a signal are a tuple, such as <('a', 1)>");
        mSimulator.emitSignal(text(arguments, 0), text(arguments, 1), text(arguments, 2), parameters);
    });
    add("AddObject", [this](GVariant* arguments) {
        const Variant interfaces = g_variant_get_child_value(arguments, 1);
        mSimulator.addObject(text(arguments, 0), control::interfaces(interfaces.get()));
    });
    add("RemoveObject", [this](GVariant* arguments) { mSimulator.removeObject(text(arguments, 0)); });
}

} // namespace vexasim
