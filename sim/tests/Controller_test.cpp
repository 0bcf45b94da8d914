// SPDX-License-Identifier: MIT
// The box's controller, controlled by a scripted host, and its transport to the kernel.
#include <algorithm>
#include <array>
#include <bitset>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "sim/air/VhciTransport.h"
#include "sim/tests/AirBench.h"

namespace vexasim::air
{

namespace
{

using hci::Opcode;
using hci::Status;

const Address kRemote = Address::parse("C0:FF:EE:00:00:01").value();
const Address kStranger = Address::parse("C0:FF:EE:00:00:99").value();

class AController : public testing::Test
{
protected:
    AController() { host.setUp(); }

    std::shared_ptr<Peripheral> addPeripheral(const std::string& address, std::optional<std::string> name,
                                              const RadioOptions& radio = {})
    {
        PeripheralOptions options;
        options.address = address;
        options.name = std::move(name);
        const auto peripheral = std::make_shared<Peripheral>(options);
        radios.push_back(PeripheralRadio::create(host.scheduler(), host.air(), peripheral, radio));
        return peripheral;
    }

    std::shared_ptr<Peripheral> addRemote(const RadioOptions& radio = {})
    {
        return addPeripheral(kRemote.text(), "VEXA RC", radio);
    }

    /// All advertising reports within `duration`, abbreviated: type, data, signal strength.
    std::vector<std::string> reportsWithin(Scheduler::Duration duration)
    {
        std::vector<std::string> reports;
        host.pass(duration);
        while (const auto report = host.take<hci::AdvertisingReport>()) {
            reports.push_back(report->address.text() + " " + std::to_string(static_cast<int>(report->type)) +
                              " " + kit::toHex(report->dataAndRssi));
        }
        return reports;
    }

    ScriptedHost host;
    std::vector<std::shared_ptr<PeripheralRadio>> radios;
};

} // namespace

// --- set-up ---

TEST_F(AController, AnswersEverythingThatTheKernelAsksAtItsStart)
{
    host.command(Opcode::Reset);
    EXPECT_EQ(kit::toHex(host.command(Opcode::ReadLocalFeatures)), "0000000060000000");
    EXPECT_EQ(kit::toHex(host.command(Opcode::ReadLocalVersion)), "09000009ffff0000");
    EXPECT_EQ(kit::toHex(host.command(Opcode::ReadAddress)), "1371da7d1a00");
    EXPECT_EQ(host.command(Opcode::ReadLocalCommands).size(), 64U);
    EXPECT_EQ(kit::toHex(host.command(Opcode::LeReadLocalFeatures)), "2100000000000000");
    EXPECT_EQ(kit::toHex(host.command(Opcode::LeReadBufferSize)), "fb0008");
    EXPECT_EQ(host.command(Opcode::LeReadSupportedStates).size(), 8U);
    host.command(Opcode::SetEventMask, std::uint64_t{0x2000800002008890});
    host.command(Opcode::SetEventMaskPage2, std::uint64_t{0});
    host.command(Opcode::LeSetEventMask, std::uint64_t{0x4f});
    host.command(Opcode::LeReadAdvertisingPower);
    EXPECT_EQ(kit::toHex(host.command(Opcode::LeReadAcceptListSize)), "10");
    host.command(Opcode::LeClearAcceptList);
    EXPECT_EQ(kit::toHex(host.command(Opcode::LeReadMaximumDataLength)), "fb004808fb004808");
    EXPECT_EQ(kit::toHex(host.command(Opcode::LeReadDefaultDataLength)), "1b004801");
    host.command(Opcode::LeWriteDefaultDataLength, std::uint16_t{251}, std::uint16_t{2120});
    EXPECT_EQ(kit::toHex(host.command(Opcode::LeReadDefaultDataLength)), "fb004808");
    host.command(Opcode::LeSetAdvertisingData, Bytes(32));
    host.command(Opcode::LeSetScanResponseData, Bytes(32));
    host.command(Opcode::LeSetAdvertisingEnable, std::uint8_t{0});
    EXPECT_EQ(host.command(Opcode::LeRand).size(), 8U);
}

TEST_F(AController, ListsAsSupportedWhatItAnswers)
{
    const Bytes map = host.command(Opcode::ReadLocalCommands);
    ASSERT_EQ(map.size(), 64U);
    const auto supported = [&](size_t octet, unsigned bit) { return (map[octet] >> bit & 1) != 0; };
    EXPECT_TRUE(supported(0, 5)) << "disconnect";
    EXPECT_TRUE(supported(26, 3)) << "scan";
    EXPECT_TRUE(supported(26, 4)) << "connect";
    EXPECT_TRUE(supported(28, 0)) << "encrypt";
    EXPECT_FALSE(supported(37, 5)) << "extended scanning";
    EXPECT_FALSE(supported(37, 7)) << "extended connecting";
    EXPECT_FALSE(supported(34, 3)) << "resolving list";
    std::size_t count = 0;
    for (const std::uint8_t octet : map) {
        count += std::bitset<8>(octet).count();
    }
    EXPECT_EQ(count, 45U);
}

TEST_F(AController, CallsACommandUnknownThatItDoesNotKnow)
{
    EXPECT_EQ(host.status(Opcode{0x2041}, Bytes{}), Status::UnknownCommand);
    EXPECT_EQ(host.status(Opcode{0xfc01}, std::uint8_t{1}), Status::UnknownCommand);
}

TEST_F(AController, RefusesParametersOfAWrongLength)
{
    EXPECT_EQ(host.rawCommand(Opcode::LeSetScanEnable, {1}), Bytes{0x12});
    EXPECT_EQ(host.rawCommand(Opcode::LeSetScanEnable, {1, 0, 0}), Bytes{0x12});
    EXPECT_EQ(host.rawCommand(Opcode::LeSetAdvertisingData, Bytes(31)), Bytes{0x12});
    EXPECT_EQ(host.rawCommand(Opcode::ReadLocalVersion, {1}), Bytes{0x12});
    host.send({0x01, 0x0c, 0x20, 0x02, 0x00});
    EXPECT_EQ(host.rawCommand(Opcode::Reset, {}), Bytes{0x00});
}

TEST_F(AController, DropsWhatIsNoPacket)
{
    host.send({0x01});
    host.send({0x02, 0x40});
    host.send({0x03, 0x00, 0x00, 0x00});
    host.send({0x02, 0x40, 0x00, 0x02, 0x00, 0x01});
    host.command(Opcode::Reset);
}

TEST_F(AController, EnciphersWithTheKeyGiven)
{
    EXPECT_EQ(kit::toHex(host.command(Opcode::LeEncrypt, kit::fromHex("0f0e0d0c0b0a09080706050403020100"),
                                      kit::fromHex("ffeeddccbbaa99887766554433221100"))),
              "5ac5b47080b7cdd830047b6ad8e0c469");
}

// --- scanning ---

TEST_F(AController, ReportsAdvertisementAndScanResponse)
{
    addRemote();
    host.scan(true);
    EXPECT_EQ(reportsWithin(std::chrono::milliseconds(300)),
              (std::vector<std::string>{
                  "C0:FF:EE:00:00:01 0 02010603198001080956455841205243cc",
                  "C0:FF:EE:00:00:01 4 cc",
              }));
}

TEST_F(AController, FindsTheNameInTheScanResponseOnlyByAsking)
{
    RadioOptions radio;
    radio.nameInScanResponse = true;
    addRemote(radio);
    host.scan(true, false);
    EXPECT_EQ(reportsWithin(std::chrono::milliseconds(300)),
              std::vector<std::string>{"C0:FF:EE:00:00:01 0 02010603198001cc"});
    host.scan(false);
    host.scan(true, true);
    EXPECT_EQ(reportsWithin(std::chrono::milliseconds(300)).back(),
              "C0:FF:EE:00:00:01 4 080956455841205243cc");
}

TEST_F(AController, ForgetsDuplicatesAfterASecond)
{
    addRemote();
    host.scan(true, false);
    const auto reports = reportsWithin(std::chrono::milliseconds(3500)).size();
    EXPECT_GE(reports, 3U);
    EXPECT_LE(reports, 4U);
}

TEST_F(AController, ReportsEveryAdvertisementWithoutTheFilter)
{
    addRemote();
    host.scan(true, false, false);
    EXPECT_GE(reportsWithin(std::chrono::milliseconds(2000)).size(), 17U);
}

TEST_F(AController, ReportsAChangedNameAtOnce)
{
    const auto remote = addPeripheral(kRemote.text(), std::nullopt);
    host.scan(true, false);
    EXPECT_EQ(reportsWithin(std::chrono::milliseconds(300)).size(), 1U);
    remote->setAdvertisedName("VEXA RC");
    EXPECT_EQ(reportsWithin(std::chrono::milliseconds(300)),
              std::vector<std::string>{"C0:FF:EE:00:00:01 0 02010603198001080956455841205243cc"});
}

TEST_F(AController, CutsANameThatDoesNotFit)
{
    addPeripheral(kRemote.text(), "VEXA a remote of a very long name");
    host.scan(true, false);
    const auto reports = reportsWithin(std::chrono::milliseconds(300));
    ASSERT_EQ(reports.size(), 1U);
    const Bytes data = kit::fromHex(reports.front().substr(20));
    EXPECT_EQ(data.size(), 32U);
    EXPECT_EQ(data[8], 0x08) << "a shortened name";
}

TEST_F(AController, HearsNothingOfAPeripheralThatIsAwayAsleepOrOff)
{
    const auto remote = addRemote();
    host.scan(true, false, false);
    remote->leave();
    EXPECT_TRUE(reportsWithin(std::chrono::seconds(2)).empty());
    remote->comeBack();
    EXPECT_FALSE(reportsWithin(std::chrono::seconds(2)).empty());
    remote->sleep();
    EXPECT_TRUE(reportsWithin(std::chrono::seconds(2)).empty());
    remote->wake();
    remote->setPresent(false);
    EXPECT_TRUE(reportsWithin(std::chrono::seconds(2)).empty());
}

TEST_F(AController, ReportsOnlyTheAcceptListWhenAsked)
{
    addRemote();
    addPeripheral(kStranger.text(), "Other");
    host.command(Opcode::LeAddToAcceptList, kStranger);
    host.scan(true, false, true, true);
    EXPECT_EQ(host.status(Opcode::LeRemoveFromAcceptList, kStranger), Status::CommandDisallowed);
    for (const auto& report : reportsWithin(std::chrono::seconds(2))) {
        EXPECT_EQ(report.substr(0, 17), kStranger.text());
    }
}

TEST_F(AController, KeepsSixteenAddressesInItsAcceptList)
{
    const auto add = [&](std::uint8_t octet) {
        return host.status(Opcode::LeAddToAcceptList, Address{AddressKind::Public, {octet}});
    };
    for (std::uint8_t i = 0; i < 16; ++i) {
        EXPECT_EQ(add(i), Status::Success);
    }
    EXPECT_EQ(add(3), Status::Success);
    EXPECT_EQ(add(16), Status::MemoryExceeded);
    host.command(Opcode::LeClearAcceptList);
    EXPECT_EQ(add(16), Status::Success);
}

TEST_F(AController, IsSilentWhenTheHostMasksTheEvent)
{
    addRemote();
    host.command(Opcode::LeSetEventMask, std::uint64_t{0x1d});
    host.scan(true, false, false);
    EXPECT_TRUE(reportsWithin(std::chrono::seconds(1)).empty());
}

TEST_F(AController, IsIdleWhileNobodyListens)
{
    addRemote();
    EXPECT_FALSE(host.scheduler().step(host.scheduler().now() + std::chrono::hours(1)));
}

// --- links ---

TEST_F(AController, ConnectsToTheAddressGiven)
{
    const auto remote = addRemote();
    addPeripheral(kStranger.text(), "Other");
    host.connect(kRemote);
    EXPECT_TRUE(remote->connected());
}

TEST_F(AController, ConnectsToWhomeverTheAcceptListNames)
{
    addRemote();
    host.command(Opcode::LeAddToAcceptList, kRemote);
    auto wish = ScriptedHost::connectionTo({});
    wish.useAcceptList = 1;
    EXPECT_EQ(host.status(Opcode::LeCreateConnection, wish), Status::Success);
    const auto complete = host.await<hci::ConnectionComplete>();
    ASSERT_TRUE(complete);
    EXPECT_EQ(complete->peer, kRemote);
    EXPECT_EQ(complete->interval, 0x18);
    EXPECT_EQ(complete->timeout, 0x2a);
}

TEST_F(AController, WaitsForAnAbsentPeripheralUntilItIsCanceled)
{
    EXPECT_EQ(host.status(Opcode::LeCreateConnectionCancel), Status::CommandDisallowed);
    EXPECT_EQ(host.status(Opcode::LeCreateConnection, ScriptedHost::connectionTo(kRemote)), Status::Success);
    EXPECT_EQ(host.status(Opcode::LeCreateConnection, ScriptedHost::connectionTo(kRemote)),
              Status::CommandDisallowed);
    host.pass(std::chrono::seconds(20));
    EXPECT_FALSE(host.take<hci::ConnectionComplete>());
    host.command(Opcode::LeCreateConnectionCancel);
    const auto complete = host.take<hci::ConnectionComplete>();
    ASSERT_TRUE(complete);
    EXPECT_EQ(complete->status, Status::UnknownConnection);
}

TEST_F(AController, RefusesImpossibleConnectionParameters)
{
    auto wish = ScriptedHost::connectionTo(kRemote);
    wish.parameters.minimumInterval = 5;
    EXPECT_EQ(host.status(Opcode::LeCreateConnection, wish), Status::InvalidParameters);
    wish.parameters.minimumInterval = 0x28;
    wish.parameters.timeout = 10;
    EXPECT_EQ(host.status(Opcode::LeCreateConnection, wish), Status::InvalidParameters);
}

TEST_F(AController, DoesNotConnectTwiceToOnePeripheral)
{
    addRemote();
    host.connect(kRemote);
    EXPECT_EQ(host.status(Opcode::LeCreateConnection, ScriptedHost::connectionTo(kRemote)),
              Status::ConnectionExists);
}

TEST_F(AController, EndsALinkOnTheHostsWish)
{
    const auto remote = addRemote();
    const std::uint16_t handle = host.connect(kRemote);
    EXPECT_EQ(host.disconnect(), Status::Success);
    const auto end = host.await<hci::DisconnectionComplete>();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->handle, handle);
    EXPECT_EQ(end->reason, Status::LocalHostEnded);
    EXPECT_FALSE(remote->connected());
    EXPECT_EQ(host.disconnect(), Status::UnknownConnection);
}

TEST_F(AController, NoticesALostPeripheralAfterTheSupervisionTimeout)
{
    const auto remote = addRemote();
    host.connect(kRemote);
    host.pass(std::chrono::seconds(1));
    const auto before = host.scheduler().now();
    remote->leave();
    EXPECT_EQ(host.linkEnd(), Status::ConnectionTimeout);
    EXPECT_EQ(host.scheduler().now() - before, std::chrono::milliseconds(420));
}

TEST_F(AController, SaysThatALinkWasNeverEstablished)
{
    const auto remote = addRemote();
    host.connect(kRemote);
    remote->leave();
    EXPECT_EQ(host.linkEnd(), Status::FailedToEstablish);
}

TEST_F(AController, HearsAPeripheralHangUp)
{
    addRemote();
    host.connect(kRemote);
    radios.front()->hangUp();
    EXPECT_EQ(host.linkEnd(), Status::RemoteUserEnded);
}

TEST_F(AController, LosesItsLinksAtAReset)
{
    const auto remote = addRemote();
    host.connect(kRemote);
    host.command(Opcode::Reset);
    EXPECT_FALSE(remote->connected());
    EXPECT_FALSE(host.await<hci::DisconnectionComplete>());
}

TEST_F(AController, SurvivesAPeripheralThatIsTakenOffTheAir)
{
    addRemote();
    const std::uint16_t handle = host.connect(kRemote);
    host.pass(std::chrono::seconds(1));
    radios.clear();
    EXPECT_EQ(kit::toHex(host.command(Opcode::ReadRssi, handle)), "40007f");
    EXPECT_EQ(host.linkEnd(), Status::ConnectionTimeout);
}

TEST_F(AController, AsksThePeripheralForFeaturesAndVersion)
{
    addRemote();
    const std::uint16_t handle = host.connect(kRemote);
    EXPECT_EQ(host.status(Opcode::LeReadRemoteFeatures, handle), Status::Success);
    EXPECT_EQ(host.status(Opcode::ReadRemoteVersion, handle), Status::Success);
    const auto features = host.await<hci::RemoteFeatures>();
    ASSERT_TRUE(features);
    EXPECT_EQ(features->features, 1U);
    EXPECT_TRUE(host.await<hci::RemoteVersion>());
}

TEST_F(AController, ChangesTheIntervalOfALink)
{
    addRemote();
    const std::uint16_t handle = host.connect(kRemote);
    EXPECT_EQ(host.status(Opcode::LeConnectionUpdate, handle, hci::ConnectionParameters{6, 17, 0, 500, 0, 0}),
              Status::Success);
    const auto update = host.await<hci::ConnectionUpdateComplete>();
    ASSERT_TRUE(update);
    EXPECT_EQ(update->interval, 6);
    EXPECT_EQ(update->timeout, 500);
    EXPECT_EQ(host.status(Opcode::LeConnectionUpdate, handle, hci::ConnectionParameters{0, 17, 0, 500, 0, 0}),
              Status::InvalidParameters);
}

TEST_F(AController, UsesLongPacketsWithAPeripheralThatTakesThem)
{
    RadioOptions radio;
    radio.maximumPayload = 251;
    addRemote(radio);
    host.command(Opcode::LeWriteDefaultDataLength, std::uint16_t{100}, std::uint16_t{912});
    const std::uint16_t handle = host.connect(kRemote);
    auto change = host.await<hci::DataLengthChange>();
    ASSERT_TRUE(change);
    EXPECT_EQ(change->sendOctets, 100);
    EXPECT_EQ(
        kit::toHex(host.command(Opcode::LeSetDataLength, handle, std::uint16_t{251}, std::uint16_t{2120})),
        "4000");
    change = host.await<hci::DataLengthChange>();
    ASSERT_TRUE(change);
    EXPECT_EQ(change->sendOctets, 251);
    EXPECT_EQ(change->sendTimeUs, 2120);
}

TEST_F(AController, GivesBackEachBufferWhenItsPacketHasArrived)
{
    addRemote();
    const std::uint16_t handle = host.connect(kRemote);
    // The peripheral doesn't answer these: only the buffers matter.
    const Bytes packet = encode(hci::PacketType::AclData, handle, std::uint16_t{100}, Bytes(100));
    for (int i = 0; i < 8; ++i) {
        host.send(packet);
    }
    EXPECT_EQ(host.completedPackets(), 0U);
    // Four fragments of 27 bytes each, four fragments per connection event, one event every 30 ms.
    host.pass(std::chrono::milliseconds(35));
    EXPECT_EQ(host.completedPackets(), 1U);
    EXPECT_TRUE(host.until([&] { return host.completedPackets() == 8; }));
}

// --- the kernel's device ---

namespace
{

/// Makes all later writes of the calling thread to the file fail; see seccomp(2).
void refuseWrites(int file, unsigned error)
{
    std::array<sock_filter, 6> steps{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(file), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program{steps.size(), steps.data()};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

class AVirtualController : public testing::Test
{
protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
        mKernel = ends[0];
        mController = ends[1];
        mTransport = std::make_unique<VhciTransport>(
            mController, [this](const Bytes& packet) { mReceived.push_back(packet); },
            [this](const std::string& why) { mClosed = why; });
    }
    void TearDown() override { ::close(mKernel); }

    /// The next packet that the kernel gets, in hexadecimal.
    std::string kernelReceives() const
    {
        Bytes packet(8);
        const ssize_t size = ::recv(mKernel, packet.data(), packet.size(), 0);
        packet.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
        return kit::toHex(packet);
    }

    void kernelSends(const std::string& packet) const
    {
        const Bytes bytes = kit::fromHex(packet);
        ASSERT_EQ(::send(mKernel, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }

    void sendRefused(unsigned error)
    {
        // In a thread of its own, since the filter lasts as long as the thread.
        std::thread([&] {
            refuseWrites(mController, error);
            mTransport->send(kit::fromHex("0400"));
        }).join();
    }

    int mKernel = -1;
    int mController = -1;
    std::unique_ptr<VhciTransport> mTransport;
    std::vector<Bytes> mReceived;
    std::string mClosed;
};

} // namespace

TEST_F(AVirtualController, IsAskedForAndLearnsItsNumber)
{
    mTransport->createController();
    EXPECT_EQ(kernelReceives(), "ff00");
    kernelSends("ff000300");
    EXPECT_EQ(mTransport->index(), 3U);
    EXPECT_TRUE(mReceived.empty()) << "the announcement is for the transport alone";
    EXPECT_EQ(mClosed, "");
}

TEST_F(AVirtualController, HandsOnWhatTheKernelSends)
{
    kernelSends("01030c00");
    kernelSends("0240000100aa");
    EXPECT_EQ(mReceived, (std::vector<Bytes>{kit::fromHex("01030c00"), kit::fromHex("0240000100aa")}));
}

TEST_F(AVirtualController, SaysWhenTheKernelIsGone)
{
    ::shutdown(mKernel, SHUT_RDWR);
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    EXPECT_EQ(mClosed, "the kernel closed the controller: end of file");
}

TEST_F(AVirtualController, LosesAPacketThatTheKernelRefusesWhenItIsDown)
{
    sendRefused(ENXIO);
    EXPECT_EQ(mClosed, "");
    mTransport->send(kit::fromHex("0401"));
    EXPECT_EQ(kernelReceives(), "0401");
}

TEST_F(AVirtualController, EndsWhenTheKernelRefusesAPacketOtherwise)
{
    sendRefused(EIO);
    EXPECT_EQ(mClosed, "can't hand a packet to the kernel: Input/output error");
}

TEST(AMissingVirtualController, SaysWhatIsMissing)
{
    try {
        VhciTransport::open("/dev/no-such-device");
        FAIL() << "opened";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "can't open /dev/no-such-device: No such file or directory; load the "
                                   "kernel's module hci_vhci (modprobe hci_vhci)");
    }
}

} // namespace vexasim::air
