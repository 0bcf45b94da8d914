// SPDX-License-Identifier: MIT
#include "sim/air/PeripheralRadio.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "sim/model/Remote.h"

namespace vexasim::air
{

namespace
{

constexpr std::chrono::seconds kParametersDelay{1};

// The parts of an advertisement, the Bluetooth core documents' supplement, A 1.
constexpr std::uint8_t kFlagsPart = 0x01;
constexpr std::uint8_t kShortNamePart = 0x08;
constexpr std::uint8_t kNamePart = 0x09;
constexpr std::uint8_t kAppearancePart = 0x19;
constexpr std::uint8_t kDiscoverableWithoutClassic = 0x06;
constexpr size_t kAdvertisementSize = 31;

// The remote's own command that requests other connection parameters.
constexpr std::uint8_t kConnectionParametersCommand = 0x07;

Bytes part(std::uint8_t kind, const Bytes& content)
{
    return Bytes{static_cast<std::uint8_t>(content.size() + 1), kind} + content;
}

// A name that doesn't fit into the rest of an advertisement is cut, and marked as shortened.
Bytes namePart(const std::string& name, size_t room)
{
    constexpr size_t kFrame = 2;
    Bytes text(name.begin(), name.end());
    const bool whole = text.size() + kFrame <= room;
    if (!whole) {
        text.resize(room - kFrame);
    }
    return part(whole ? kNamePart : kShortNamePart, text);
}

Address identityAddress(const Peripheral& peripheral)
{
    const auto kind = peripheral.randomAddress() ? AddressKind::Random : AddressKind::Public;
    const auto address = Address::parse(peripheral.address(), kind);
    if (!address) {
        throw std::invalid_argument("'" + peripheral.address() + "' is not a Bluetooth address");
    }
    return *address;
}

std::string milliseconds(unsigned units, double unit)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g ms", units * unit);
    return text;
}

} // namespace

// The state of one link.
struct PeripheralRadio::Session {
    Session(Scheduler& scheduler, Signaling::Send send, SecurityManager::Context forSecurity,
            AttributeServer::Context forAttributes)
        : delayed(scheduler),
          signaling(std::move(send)),
          security(scheduler, std::move(forSecurity)),
          attributes(scheduler, std::move(forAttributes))
    {
    }

    DelayedTasks delayed;
    Reassembler reassembler;
    Signaling signaling;
    SecurityManager security;
    AttributeServer attributes;
};

std::shared_ptr<PeripheralRadio> PeripheralRadio::create(Scheduler& scheduler, Air& air,
                                                         const std::shared_ptr<Peripheral>& peripheral,
                                                         const RadioOptions& options, OnEvent onEvent)
{
    std::shared_ptr<PeripheralRadio> radio(
        new PeripheralRadio(scheduler, air, peripheral, options, std::move(onEvent)));
    peripheral->addListener(radio);
    air.add(*radio);
    return radio;
}

PeripheralRadio::PeripheralRadio(Scheduler& scheduler, Air& air, std::shared_ptr<Peripheral> peripheral,
                                 const RadioOptions& options, OnEvent onEvent)
    : mScheduler(scheduler),
      mAir(air),
      mPeripheral(std::move(peripheral)),
      mOptions(options),
      mOnEvent(std::move(onEvent)),
      mIdentityAddress(identityAddress(*mPeripheral)),
      mIdentityKey(randomArray<16>()),
      mSessionEnd(scheduler)
{
    // Finds a malformed UUID here, not when the first central connects.
    static_cast<void>(AttributeTable(mPeripheral->services()));
    renewAddress();
}

PeripheralRadio::~PeripheralRadio()
{
    mAir.remove(*this);
}

void PeripheralRadio::renewAddress()
{
    mAddress = mIdentityAddress;
    if (!mOptions.privateAddress) {
        return;
    }
    constexpr std::uint8_t kResolvable = 0x40;
    auto random = randomArray<3>();
    random[2] = static_cast<std::uint8_t>((random[2] & 0x3f) | kResolvable);
    const auto hash = ah(mIdentityKey, random);
    mAddress.kind = AddressKind::Random;
    std::copy(hash.begin(), hash.end(), mAddress.octets.begin());
    std::copy(random.begin(), random.end(), mAddress.octets.begin() + hash.size());
}

void PeripheralRadio::hangUp()
{
    if (mLink != nullptr) {
        mLink->endFromDevice(hci::Status::RemoteUserEnded);
    }
}

// --- RadioDevice ---

std::optional<Advertisement> PeripheralRadio::advertisement() const
{
    if (!mPeripheral->advertising()) {
        return std::nullopt;
    }
    Advertisement advertisement;
    advertisement.data = part(kFlagsPart, {kDiscoverableWithoutClassic}) +
                         part(kAppearancePart, encode(mPeripheral->appearance()));
    const auto name = mPeripheral->advertisedName();
    if (name) {
        Bytes& place = mOptions.nameInScanResponse ? advertisement.scanResponse : advertisement.data;
        place = place + namePart(*name, kAdvertisementSize - place.size());
    }
    return advertisement;
}

std::int8_t PeripheralRadio::rssi() const
{
    return static_cast<std::int8_t>(std::clamp<std::int16_t>(mPeripheral->rssi(), -127, 20));
}

bool PeripheralRadio::linkOpened(Link& link)
{
    if (!mPeripheral->connect()) {
        return false;
    }
    mSessionEnd.stop();
    mLink = &link;
    if (mPeripheral->forgotBond()) {
        forgetBonds();
    }
    const auto toCentral = [this](Channel channel, const Bytes& packet) { send(channel, packet); };
    mSession = std::make_unique<Session>(mScheduler, toCentral, securityContext(link), attributeContext());
    mSession->signaling.onAnswer([this](bool accepted) {
        reportEvent(accepted ? "its wish for connection parameters is granted"
                             : "its wish for connection parameters is refused");
    });
    reportEvent("connected by " + link.centralAddress().text());
    if (mOptions.asksForSecurity) {
        mSession->security.requestSecurity();
    }
    if (mOptions.preferredParameters) {
        mSession->delayed.after(kParametersDelay, [this] { request(*mOptions.preferredParameters); });
    }
    return true;
}

SecurityManager::Context PeripheralRadio::securityContext(Link& link)
{
    SecurityManager::Context context;
    context.central = link.centralAddress();
    context.self = link.deviceAddress();
    context.bonds = &mBonds;
    if (mOptions.privateAddress) {
        context.identity = Identity{mIdentityKey, mIdentityAddress};
    }
    context.policy = [this] { return pairingPolicy(); };
    context.send = [this](Channel channel, const Bytes& packet) {
        mSession->delayed.after(mPeripheral->answerDelay(),
                                [this, channel, packet] { send(channel, packet); });
    };
    context.paired = [this](bool secure) {
        mPeripheral->pair();
        reportEvent(secure ? "paired with secure connections" : "paired in the legacy way");
    };
    return context;
}

AttributeServer::Context PeripheralRadio::attributeContext()
{
    AttributeServer::Context context;
    context.peripheral = mPeripheral.get();
    context.send = [this](Channel channel, const Bytes& packet) { send(channel, packet); };
    context.encrypted = [this] { return mLink != nullptr && mLink->encrypted(); };
    context.written = [this](std::uint16_t handle, const Bytes& value) { written(handle, value); };
    return context;
}

PairingPolicy PeripheralRadio::pairingPolicy()
{
    using Behavior = PairingPolicy::Behavior;
    PairingPolicy policy;
    policy.secureConnections = mOptions.secureConnections;
    if (mOptions.failsConfirm) {
        policy.behavior = Behavior::FailsConfirm;
    }
    if (mOptions.refusesRepeated) {
        policy.behavior = Behavior::RefusesRepeated;
    }
    switch (mPeripheral->pairing()) {
    case Peripheral::Pairing::Willing:
        break;
    case Peripheral::Pairing::Refuses:
        policy.behavior = Behavior::Refuses;
        break;
    case Peripheral::Pairing::Silent:
        policy.behavior = Behavior::Silent;
        break;
    case Peripheral::Pairing::DropsLink:
        mPeripheral->pair();
        policy.behavior = Behavior::Silent;
        break;
    }
    return policy;
}

void PeripheralRadio::linkReceived(const LinkPacket& packet)
{
    const auto complete = mSession->reassembler.add(packet);
    if (!complete) {
        return;
    }
    switch (complete->channel) {
    case Channel::Attributes:
        return mSession->attributes.received(complete->payload);
    case Channel::Signaling:
        return mSession->signaling.received(complete->payload);
    case Channel::Security:
        return mSession->security.received(complete->payload);
    }
}

std::optional<Key128> PeripheralRadio::longTermKey(std::uint64_t random, std::uint16_t diversifier)
{
    if (mPeripheral->forgotBond()) {
        forgetBonds();
    }
    const auto key = mSession->security.longTermKey(random, diversifier);
    if (!key) {
        reportEvent("asked to encrypt with a key that it doesn't know");
    }
    return key;
}

void PeripheralRadio::linkEncrypted()
{
    reportEvent("encrypted");
    mSession->security.encrypted();
}

void PeripheralRadio::linkParametersChanged()
{
    const LinkParameters& parameters = mLink->parameters();
    reportEvent("interval now " + milliseconds(parameters.interval, 1.25) + ", timeout " +
                milliseconds(parameters.timeout, 10));
}

void PeripheralRadio::linkClosed()
{
    mLink = nullptr;
    mSession.reset();
    renewAddress();
    reportEvent("disconnected");
    mPeripheral->disconnect();
}

// --- PeripheralListener ---

void PeripheralRadio::onLinkLost(Peripheral&)
{
    if (mLink == nullptr) {
        return;
    }
    reportEvent("off the air with its link");
    mLink->abandon();
    mLink = nullptr;
    renewAddress();
    // Not at once: the session may be among the callers.
    mSessionEnd.start(Scheduler::Duration{0}, [this] { mSession.reset(); });
}

void PeripheralRadio::onNotification(Peripheral&, std::uint16_t valueHandle, const Bytes& value)
{
    if (mLink != nullptr) {
        mSession->attributes.notify(valueHandle, value);
    }
}

// --- helpers ---

void PeripheralRadio::request(const PreferredParameters& parameters)
{
    mSession->signaling.requestParameters(parameters.minimumInterval, parameters.maximumInterval,
                                          parameters.latency, parameters.timeout);
}

void PeripheralRadio::send(Channel channel, const Bytes& packet)
{
    if (mLink == nullptr) {
        return;
    }
    for (auto& piece : fragment(channel, packet, mLink->maximumPayload())) {
        mLink->sendFromDevice(std::move(piece));
    }
}

void PeripheralRadio::written(std::uint16_t valueHandle, const Bytes& value)
{
    // The firmware in update mode turns this command into a request to the central; the model has no links.
    const auto command = decodeFields<std::uint8_t, PreferredParameters>(value);
    const bool toControlPoint = mPeripheral->handleOf(uuid::kControlPoint) == valueHandle;
    if (command && std::get<0>(*command) == kConnectionParametersCommand && toControlPoint) {
        request(std::get<1>(*command));
    }
}

void PeripheralRadio::reportEvent(const std::string& what) const
{
    if (!mOnEvent) {
        return;
    }
    const auto name = mPeripheral->ownName();
    mOnEvent(mIdentityAddress.text() + (name ? " \"" + *name + "\"" : std::string()) + ": " + what);
}

} // namespace vexasim::air
