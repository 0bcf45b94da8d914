// SPDX-License-Identifier: MIT
#include "sim/program/RemoteMethods.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "sim/program/Dictionaries.h"

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

Variant packetsOf(const UpdateReceiver& receiver)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(xssay)"));
    for (const UpdatePacket& packet : receiver.packets()) {
        g_variant_builder_add(&builder, "(xss@ay)", packet.timeUs, channelWord(packet.channel),
                              packet.fromRemote ? "answer" : "write", Variant::bytes(packet.bytes).get());
    }
    return g_variant_builder_end(&builder);
}

Variant statusOf(Remote& remote)
{
    const Peripheral& normal = *remote.normal();
    const Peripheral& shown = remote.inUpdateMode() ? *remote.update() : normal;
    const UpdateReceiver& receiver = remote.receiver();
    return toVariant(PropertyMap{
        {"address", toVariant(shown.address())},
        {"update-mode", toVariant(remote.inUpdateMode())},
        {"present", toVariant(shown.present())},
        {"in-range", toVariant(shown.inRange())},
        {"asleep", toVariant(shown.asleep())},
        {"connected", toVariant(shown.connected())},
        {"paired", toVariant(normal.paired())},
        {"rssi", toVariant(shown.rssi())},
        {"version", Variant::bytes(remote.versionBytes())},
        {"battery", Variant::bytes(normal.value(normal.handleOf(uuid::kBatteryLevel)))},
        {"blocks", g_variant_new_uint32(receiver.blocks())},
        {"verified", toVariant(receiver.verified())},
        {"complaint", toVariant(receiver.complaint())},
    });
}
} // namespace

Bytes readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(file), {}};
    if (file.bad() || !file.is_open()) {
        throw std::runtime_error("can't read " + path);
    }
    return bytes;
}

RemoteMethods::RemoteMethods(ControlObject& object, std::function<Remote&()> remote, BoxFiles files)
    : mObject(object), mRemote(std::move(remote)), mFiles(std::move(files))
{
    addBoxMethods();
    addRemoteMethods();
    addUpdateMethods();
    if (!mFiles.adcFile.empty()) {
        pressButton(false);
    }
}

RemoteMethods::~RemoteMethods()
{
    if (mRelease != 0) {
        g_source_remove(mRelease);
    }
}

// --- the box ---

void RemoteMethods::addBoxMethods()
{
    mObject.method("PressButton", {}, [this] { pressButton(true); });
    mObject.method("ReleaseButton", {}, [this] { pressButton(false); });
    mObject.method("HoldButton", {"milliseconds"}, [this](std::uint32_t time) { holdButton(time); });
    mObject.method("SetFlag", {"flag"}, [this](const std::string& flag) { setFlag(flag); });
    mObject.method("OfferImage", {"file"}, [this](const std::string& file) { offerImage(file); });
}

void RemoteMethods::pressButton(bool pressed) const
{
    if (mFiles.adcFile.empty()) {
        throw std::runtime_error("no button: start vexasim with --adc-file");
    }
    // Written to another file and renamed, so that no reader finds it empty.
    const std::string aside = mFiles.adcFile + ".new";
    std::ofstream file(aside);
    file << (pressed ? kButtonPressed : kButtonReleased) << '\n';
    file.close();
    if (!file) {
        throw std::runtime_error("can't write " + aside);
    }
    std::filesystem::rename(aside, mFiles.adcFile);
}

void RemoteMethods::holdButton(unsigned milliseconds)
{
    pressButton(true);
    if (mRelease != 0) {
        g_source_remove(mRelease);
    }
    mRelease = g_timeout_add(
        milliseconds,
        [](gpointer data) {
            auto* self = static_cast<RemoteMethods*>(data);
            self->mRelease = 0;
            self->pressButton(false);
            return gboolean{G_SOURCE_REMOVE};
        },
        this);
}

void RemoteMethods::setFlag(const std::string& flag) const
{
    if (flag != "pair" && flag != "reset") {
        throw std::invalid_argument("unknown flag \"" + flag + "\": use pair or reset");
    }
    if (mFiles.tmpDirectory.empty()) {
        throw std::runtime_error("no folder for flags: start vexasim with --tmp");
    }
    std::ofstream file(mFiles.tmpDirectory + kFlagPrefix + flag);
    if (!file) {
        throw std::runtime_error("can't create the flag in " + mFiles.tmpDirectory);
    }
}

void RemoteMethods::offerImage(const std::string& file)
{
    if (mFiles.tmpDirectory.empty()) {
        throw std::runtime_error("no folder for the link: start vexasim with --tmp");
    }
    mRemote().receiver().setExpectedImage(readFile(file));
    const std::string link = mFiles.tmpDirectory + kImageLink;
    std::filesystem::remove(link);
    std::filesystem::create_symlink(std::filesystem::absolute(file), link);
}

// --- the remote ---

void RemoteMethods::addRemoteMethods()
{
    const std::pair<const char*, void (Remote::*)()> events[] = {
        {"Leave", &Remote::leave},       {"ComeBack", &Remote::comeBack},
        {"Sleep", &Remote::sleep},       {"Wake", &Remote::wake},
        {"LoseLink", &Remote::loseLink}, {"EnterUpdateMode", &Remote::enterUpdateMode},
    };
    for (const auto& [member, event] : events) {
        mObject.method(member, {}, [this, event = event] { (mRemote().*event)(); });
    }
    mObject.method("SetBattery", {"percent"},
                   [this](std::uint8_t percent) { mRemote().setBattery(percent); });
    mObject.method("SetBatteryBytes", {"bytes"},
                   [this](const Bytes& bytes) { mRemote().setBatteryBytes(bytes); });
    mObject.method("SetVersion", {"version"},
                   [this](std::uint16_t version) { mRemote().setVersion(version); });
    mObject.method("SetVersionBytes", {"bytes"},
                   [this](const Bytes& bytes) { mRemote().setVersionBytes(bytes); });
    mObject.method("SetRssi", {"dBm"}, [this](std::int16_t dBm) { mRemote().setRssi(dBm); });
    mObject.method("SetName", {"name"}, [this](const std::string& name) {
        mRemote().normal()->setAdvertisedName(name.empty() ? std::nullopt : std::optional{name});
    });
    mObject.method("SetPairing", {"behaviour"},
                   [this](const std::string& word) { mRemote().setPairing(control::pairing(word)); });
    mObject.method("SetSlow", {"milliseconds"}, [this](std::uint32_t delay) {
        mRemote().setAnswerDelay(std::chrono::milliseconds{delay});
    });
    mObject.method("SetMute", {"mute"}, [this](bool mute) { mRemote().normal()->setMute(mute); });
    mObject.method("SetForgotBond", {"forgot"},
                   [this](bool forgot) { mRemote().normal()->setForgotBond(forgot); });
    mObject.method("Status", {}, [this] { return statusOf(mRemote()); }, {"status", "a{sv}"});
}

// --- its update ---

void RemoteMethods::addUpdateMethods()
{
    mObject.method("LeaveUpdateMode", {}, [this] { mRemote().leaveUpdateMode(); });
    mObject.method("ExpectImage", {"file"}, [this](const std::string& file) {
        mRemote().receiver().setExpectedImage(readFile(file));
    });
    mObject.method(
        "SetUpdateFault", {"step", "fault"}, [this](const std::string& word, const PropertyMap& fault) {
            const auto step = updateStepFrom(word);
            if (!step) {
                throw std::invalid_argument("unknown step \"" + word + "\": see docs/simulator.md");
            }
            mRemote().receiver().setFault(*step, control::updateFault(fault));
        });
    mObject.method("ClearUpdateFaults", {}, [this] { mRemote().receiver().clearFaults(); });
    mObject.method("SetUpdateAppearance", {"appearance"}, [this](const PropertyMap& appearance) {
        mRemote().setUpdateAppearance(control::updateAppearance(appearance));
    });
    mObject.method("UpdatePackets", {}, [this] { return packetsOf(mRemote().receiver()); },
                   {"packets", "a(xssay)"});
}

} // namespace vexasim
