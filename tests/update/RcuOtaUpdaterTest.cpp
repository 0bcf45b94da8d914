// SPDX-License-Identifier: MIT
#include "tests/update/RcuOtaUpdaterTest.h"

#include <algorithm>
#include <cstdlib>
#include <map>

#include "tests/kit/Hex.h"

Texts dataPackets(const FirmwareImage& image, std::size_t bytes)
{
    Texts packets;
    for (std::size_t i = 0; i < bytes; i += kBlockBytes) {
        const auto begin = image.payload.begin() + static_cast<std::ptrdiff_t>(i);
        const auto end =
            image.payload.begin() + static_cast<std::ptrdiff_t>(std::min(i + kBlockBytes, bytes));
        packets.push_back("> data " + toHex(kit::onAir(Bytes(begin, end))));
    }
    return packets;
}

std::string startPacket(const FirmwareImage& image)
{
    Bytes plain = image.header();
    plain.resize(kit::kCipherBytes);
    return "> control 01" + toHex(kit::enciphered(plain));
}

Texts words(const std::vector<int>& numbers)
{
    Texts all{"rc_fw_update_preparing"};
    for (const int number : numbers) {
        all.push_back("rc_fw_update_uploading_" + std::to_string(number));
    }
    return all;
}

UpdateFault refusal()
{
    UpdateFault fault;
    fault.refuse = vexasim::att::kUnlikelyError;
    return fault;
}

UpdateFault silence()
{
    UpdateFault fault;
    fault.silent = true;
    return fault;
}

UpdateFault answers(const std::vector<Bytes>& all)
{
    UpdateFault fault;
    fault.answers = all;
    return fault;
}

UpdateFault answer(const Bytes& bytes)
{
    return answers({bytes});
}

// ---- the watcher

std::string Watcher::await(const std::string& part)
{
    std::unique_lock lock{mMutex};
    std::string found;
    mChanged.wait_for(lock, kit::kPatience, [&] {
        for (const auto& text : mAdded) {
            found = text.find(part) != std::string::npos ? text : found;
        }
        return !found.empty();
    });
    EXPECT_NE("", found) << part << " was never added";
    return found;
}

void Watcher::note(const std::string& text)
{
    const std::lock_guard lock{mMutex};
    mAdded.push_back(text);
    mChanged.notify_all();
}

// ---- the update

AnUpdate::AnUpdate()
{
    mOptions.remote.key = sharedKey();
    mOptions.remote.paired = true;
}

AnUpdate::~AnUpdate()
{
    mUpdater.reset();
    mBluez.reset();
}

void AnUpdate::SetUp()
{
    mSimulator = std::make_unique<vexasim::Simulator>(mOptions);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", mSimulator->busAddress().c_str(), 1);
    // The client's shutdown drops one reference more than it took.
    g_main_context_ref(g_main_context_default());
    mBluez = std::make_shared<Bluez>(&mWatcher);
    mWatcher.await(mSimulator->remotePath());
    ASSERT_TRUE(mBluez->deviceConnect(mSimulator->remotePath()));
    mWatcher.await(vexasim::uuid::kSwitch);
    mSwitchPath = mSimulator->pathOf(*remote().normal(), vexasim::uuid::kSwitch);
    mSimulator->clearCalls();
}

bool AnUpdate::create(const FirmwareImage& image)
{
    const auto keep = [this](const std::string& word) {
        {
            const std::lock_guard lock{mWordsMutex};
            mWords.push_back(word);
            mWordsThread = std::this_thread::get_id();
        }
        if (mOnWord) {
            mOnWord(word);
        }
    };
    mUpdater = RcuOtaUpdater::create(mBluez, mAdapterPath, "C0:FF:EE:00:00:01",
                                     mFolder.write("image.bin", image.file()), mSwitchPath, keep);
    return mUpdater != nullptr;
}

std::future<bool> AnUpdate::begin(const FirmwareImage& image)
{
    EXPECT_TRUE(create(image));
    return std::async(std::launch::async, [this] { return mUpdater->update(); });
}

// ---- what was seen

Texts AnUpdate::packets()
{
    return packetsOf([](const UpdatePacket&) { return true; });
}

Texts AnUpdate::dataSent()
{
    return packetsOf([](const auto& packet) { return packet.channel == UpdatePacket::Channel::Data; });
}

Texts AnUpdate::packetsOf(const std::function<bool(const UpdatePacket&)>& wanted)
{
    using Channel = UpdatePacket::Channel;
    Texts all;
    for (const auto& packet : receiver().packets()) {
        if (wanted(packet)) {
            all.push_back(std::string{packet.fromRemote ? "< " : "> "} +
                          (packet.channel == Channel::Switch ? "switch "
                           : packet.channel == Channel::Data ? "data "
                                                             : "control ") +
                          toHex(packet.bytes));
        }
    }
    return all;
}

std::vector<std::int64_t> AnUpdate::dataTimes()
{
    std::vector<std::int64_t> times;
    for (const auto& packet : receiver().packets()) {
        if (packet.channel == UpdatePacket::Channel::Data) {
            times.push_back(packet.timeUs);
        }
    }
    return times;
}

std::int64_t AnUpdate::timeOf(std::uint8_t command)
{
    for (const auto& packet : receiver().packets()) {
        if (packet.channel == UpdatePacket::Channel::ControlPoint && !packet.fromRemote &&
            packet.bytes[0] == command) {
            return packet.timeUs;
        }
    }
    ADD_FAILURE() << "command " << int{command} << " never came";
    return 0;
}

Texts AnUpdate::calls() const
{
    static const std::map<std::string, std::string> kShort = {
        {"WriteValue", "write"},     {"StartDiscovery", "scan on"}, {"StopDiscovery", "scan off"},
        {"StartNotify", "notify"},   {"StopNotify", "stop notify"}, {"Connect", "connect"},
        {"Disconnect", "disconnect"}};
    Texts all;
    for (const auto& call : mSimulator->calls()) {
        const auto found = kShort.find(call.member);
        if (found != kShort.end()) {
            all.push_back(found->second + " " + call.path.substr(call.path.rfind('/') + 1));
        }
    }
    return all;
}
