// SPDX-License-Identifier: MIT
#include "sim/program/AirControl.h"

#include <stdexcept>
#include <utility>

#include "sim/program/Dictionaries.h"

namespace vexasim::air
{

namespace
{

// An added remote's address in update mode is its address with this bit flipped.
constexpr std::uint8_t kUpdateAddressBit = 0x80;

RemoteOptions remoteOf(const std::string& address, const std::string& name)
{
    RemoteOptions options;
    const auto own = Address::parse(address);
    if (!own) {
        throw std::invalid_argument("'" + address + "' is not a Bluetooth address");
    }
    Address update = *own;
    update.octets.front() ^= kUpdateAddressBit;
    options.address = own->text();
    options.updateAddress = update.text();
    options.name = name;
    return options;
}

} // namespace

AirControl::AirControl(AirBox& box, const std::string& busAddress, Narrator& narrator, BoxFiles files,
                       std::function<void()> quit)
    : mBox(box),
      mObject(narrator),
      mRemote(
          mObject, [&box]() -> Remote& { return *box.remotes().front().remote; }, std::move(files))
{
    addRadioMethods();
    addAirMethods();
    mObject.method("Quit", {}, std::move(quit));
    mObject.publish(busAddress);
}

void AirControl::addRadioMethods()
{
    mObject.method("SetRadio", {"radio"}, [this](const PropertyMap& changes) {
        const auto& remote = mBox.remotes().front();
        RadioOptions options = remote.normal->options();
        control::changeRadio(options, changes);
        remote.normal->setOptions(options);
        remote.update->setOptions(options);
    });
    mObject.method("HangUp", {}, [this] {
        mBox.remotes().front().normal->hangUp();
        mBox.remotes().front().update->hangUp();
    });
}

void AirControl::addAirMethods()
{
    mObject.method("AddDevice", {"address", "name"},
                   [this](const std::string& address, const std::string& name) {
                       const auto& added = mBox.addRemote(remoteOf(address, name));
                       if (name.empty()) {
                           added.remote->normal()->setAdvertisedName(std::nullopt);
                       }
                   });
    mObject.method("RemoveDevice", {"address"}, [this](const std::string& address) {
        if (address == mBox.remotes().front().remote->options().address) {
            throw std::invalid_argument("the remote itself can't be removed: use Leave or Sleep");
        }
        mBox.removeRemote(address);
    });
    // There is one adapter, and the kernel chooses its name.
    mObject.method("AddAdapter", {"name", "address"},
                   [this](const std::string&, const std::string&) { mBox.plug(); });
    mObject.method("RemoveAdapter", {"name"}, [this](const std::string&) { mBox.unplug(); });
}

} // namespace vexasim::air
