// SPDX-License-Identifier: MIT
#include "sim/program/AirControl.h"

#include "sim/program/Arguments.h"
#include "sim/program/Options.h"

#include <stdexcept>
#include <utility>

namespace vexasim::air
{

namespace
{

// The update personality of a remote that was added by address alone gets the
// same address with one bit flipped.
constexpr uint8_t kUpdateAddressBit = 0x80;

RemoteOptions remoteOf(const std::string& address, const std::string& name)
{
    RemoteOptions options;
    const auto own = Address::parse(address);
    if (!own)
        throw std::invalid_argument("'" + address + "' is not a Bluetooth address");
    Address update = *own;
    update.octets.front() ^= kUpdateAddressBit;
    options.address = own->text();
    options.updateAddress = update.text();
    options.name = name;
    return options;
}

} // namespace

AirControl::AirControl(AirBox& box, const std::string& busAddress, BoxFiles files, std::function<void()> quit)
    : mBox(box),
      mRemote(
          mObject, [&box]() -> Remote& { return *box.remotes().front().remote; }, std::move(files))
{
    addRadioMethods();
    addAirMethods();
    mObject.action("Quit", [quit = std::move(quit)](GVariant*) { quit(); });
    mObject.publish(busAddress);
}

void AirControl::addRadioMethods()
{
    mObject.action("SetRadio", [this](GVariant* arguments) {
        const auto& remote = mBox.remotes().front();
        RadioOptions options = remote.normal->options();
        const Variant changes = g_variant_get_child_value(arguments, 0);
        control::changeRadio(options, changes.get());
        remote.normal->setOptions(options);
        remote.update->setOptions(options);
    });
    mObject.action("HangUp", [this](GVariant*) {
        mBox.remotes().front().normal->hangUp();
        mBox.remotes().front().update->hangUp();
    });
}

void AirControl::addAirMethods()
{
    mObject.action("AddDevice", [this](GVariant* arguments) {
        const std::string name = control::text(arguments, 1);
        const auto& added = mBox.addRemote(remoteOf(control::text(arguments, 0), name));
        if (name.empty())
            added.remote->normal()->setAdvertisedName(std::nullopt);
    });
    mObject.action("RemoveDevice", [this](GVariant* arguments) {
        const std::string address = control::text(arguments, 0);
        if (address == mBox.remotes().front().remote->options().address)
            throw std::invalid_argument("the remote itself stays; let it leave or sleep");
        mBox.removeRemote(address);
    });
    // There is one adapter, whose name is the kernel's choice.
    mObject.action("AddAdapter", [this](GVariant*) { mBox.plug(); });
    mObject.action("RemoveAdapter", [this](GVariant*) { mBox.unplug(); });
}

} // namespace vexasim::air
