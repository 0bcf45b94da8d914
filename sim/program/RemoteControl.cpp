// SPDX-License-Identifier: MIT
#include "sim/program/RemoteControl.h"

#include "sim/program/Arguments.h"
#include "sim/program/Options.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
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

RemoteControl::RemoteControl(ControlObject& object, std::function<Remote&()> remote, BoxFiles files)
    : mObject(object), mRemote(std::move(remote)), mFiles(std::move(files))
{
    addBoxMethods();
    addRemoteMethods();
    addUpdateMethods();
    if (!mFiles.adcFile.empty())
        pressButton(false);
}

RemoteControl::~RemoteControl()
{
    if (mRelease != 0)
        g_source_remove(mRelease);
}

// ---- the box

void RemoteControl::addBoxMethods()
{
    mObject.action("PressButton", [this](GVariant*) { pressButton(true); });
    mObject.action("ReleaseButton", [this](GVariant*) { pressButton(false); });
    mObject.action("HoldButton",
                   [this](GVariant* arguments) { holdButton(control::only<uint32_t>(arguments, "u")); });
    mObject.action("SetFlag", [this](GVariant* arguments) { setFlag(control::text(arguments, 0)); });
    mObject.action("OfferImage", [this](GVariant* arguments) { offerImage(control::text(arguments, 0)); });
}

void RemoteControl::pressButton(bool pressed) const
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

void RemoteControl::holdButton(unsigned milliseconds)
{
    pressButton(true);
    if (mRelease != 0)
        g_source_remove(mRelease);
    mRelease = g_timeout_add(
        milliseconds,
        [](gpointer data) {
            auto* self = static_cast<RemoteControl*>(data);
            self->mRelease = 0;
            self->pressButton(false);
            return gboolean{G_SOURCE_REMOVE};
        },
        this);
}

void RemoteControl::setFlag(const std::string& flag) const
{
    if (flag != "pair" && flag != "reset")
        throw std::invalid_argument("\"" + flag + "\" is no flag; flags are pair and reset");
    if (mFiles.tmpDirectory.empty())
        throw std::runtime_error("no folder for flags: start vexasim with --tmp");
    std::ofstream file(mFiles.tmpDirectory + kFlagPrefix + flag);
    if (!file)
        throw std::runtime_error("can't make the flag in " + mFiles.tmpDirectory);
}

void RemoteControl::offerImage(const std::string& file)
{
    if (mFiles.tmpDirectory.empty())
        throw std::runtime_error("no folder for the link: start vexasim with --tmp");
    mRemote().receiver().setExpectedImage(readFile(file));
    const std::string link = mFiles.tmpDirectory + kImageLink;
    std::filesystem::remove(link);
    std::filesystem::create_symlink(std::filesystem::absolute(file), link);
}

// ---- the remote

void RemoteControl::addRemoteMethods()
{
    const auto remote = [this]() -> Remote& { return mRemote(); };
    mObject.action("Leave", [=](GVariant*) { remote().leave(); });
    mObject.action("ComeBack", [=](GVariant*) { remote().comeBack(); });
    mObject.action("Sleep", [=](GVariant*) { remote().sleep(); });
    mObject.action("Wake", [=](GVariant*) { remote().wake(); });
    mObject.action("LoseLink", [=](GVariant*) { remote().loseLink(); });
    mObject.action("SetBattery",
                   [=](GVariant* arguments) { remote().setBattery(control::only<uint8_t>(arguments, "y")); });
    mObject.action("SetBatteryBytes", [=](GVariant* arguments) {
        remote().setBatteryBytes(control::bytes(Variant(g_variant_get_child_value(arguments, 0)).get()));
    });
    mObject.action("SetVersion", [=](GVariant* arguments) {
        remote().setVersion(control::only<uint16_t>(arguments, "q"));
    });
    mObject.action("SetVersionBytes", [=](GVariant* arguments) {
        remote().setVersionBytes(control::bytes(Variant(g_variant_get_child_value(arguments, 0)).get()));
    });
    mObject.action("SetRssi",
                   [=](GVariant* arguments) { remote().setRssi(control::only<int16_t>(arguments, "n")); });
    mObject.action("SetName", [=](GVariant* arguments) {
        const std::string name = control::text(arguments, 0);
        remote().normal()->setAdvertisedName(name.empty() ? std::nullopt : std::optional<std::string>{name});
    });
    mObject.action("SetPairing", [=](GVariant* arguments) {
        remote().setPairing(control::pairing(control::text(arguments, 0)));
    });
    mObject.action("SetSlow", [=](GVariant* arguments) {
        remote().setAnswerDelay(std::chrono::milliseconds{control::only<uint32_t>(arguments, "u")});
    });
    mObject.action("SetMute",
                   [=](GVariant* arguments) { remote().normal()->setMute(control::onlyBoolean(arguments)); });
    mObject.action("SetForgotBond", [=](GVariant* arguments) {
        remote().normal()->setForgotBond(control::onlyBoolean(arguments));
    });
    mObject.method("Status", [this](GVariant*) { return status(); });
}

Variant RemoteControl::status()
{
    Remote& remote = mRemote();
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

void RemoteControl::addUpdateMethods()
{
    const auto remote = [this]() -> Remote& { return mRemote(); };
    mObject.action("EnterUpdateMode", [=](GVariant*) { remote().enterUpdateMode(); });
    mObject.action("LeaveUpdateMode", [=](GVariant*) { remote().leaveUpdateMode(); });
    mObject.action("ExpectImage", [=](GVariant* arguments) {
        remote().receiver().setExpectedImage(readFile(control::text(arguments, 0)));
    });
    mObject.action("SetUpdateFault", [=](GVariant* arguments) {
        const std::string word = control::text(arguments, 0);
        const auto step = updateStepFrom(word);
        if (!step)
            throw std::invalid_argument("\"" + word + "\" is no step of an update; see docs/simulator.md");
        const Variant fault = g_variant_get_child_value(arguments, 1);
        remote().receiver().setFault(*step, control::updateFault(fault.get()));
    });
    mObject.action("ClearUpdateFaults", [=](GVariant*) { remote().receiver().clearFaults(); });
    mObject.action("SetUpdateAppearance", [=](GVariant* arguments) {
        const Variant appearance = g_variant_get_child_value(arguments, 0);
        remote().setUpdateAppearance(control::updateAppearance(appearance.get()));
    });
    mObject.method("UpdatePackets", [this](GVariant*) { return packets(); });
}

Variant RemoteControl::packets()
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(xssay)"));
    for (const UpdatePacket& packet : mRemote().receiver().packets())
        g_variant_builder_add(&builder, "(xss@ay)", packet.timeUs, channelWord(packet.channel),
                              packet.fromRemote ? "answer" : "write", Variant::bytes(packet.bytes).get());
    return g_variant_new("(a(xssay))", &builder);
}

} // namespace vexasim
