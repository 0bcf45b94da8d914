// SPDX-License-Identifier: MIT
#include "sim/air/AirBox.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace vexasim::air
{

namespace
{

Address parseAddress(const std::string& text)
{
    const auto address = Address::parse(text);
    if (!address) {
        throw std::invalid_argument("'" + text + "' is not a Bluetooth address such as 00:1A:7D:DA:71:13");
    }
    return *address;
}

} // namespace

AirBox::AirBox(AirBoxOptions options)
    : mOptions(std::move(options)), mAddress(parseAddress(mOptions.address)), mAir(mScheduler)
{
    addRemote(mOptions.remote);
}

AirBox::~AirBox()
{
    unplug();
    for (const auto& entry : mRemotes) {
        entry.remote->setSchedule({});
    }
}

const AirBox::RemoteOnAir& AirBox::addRemote(const RemoteOptions& options)
{
    if (find(options.address) != mRemotes.end()) {
        throw std::invalid_argument(options.address + " is on the air already");
    }
    RemoteOnAir entry;
    entry.remote = Remote::create(options);
    entry.remote->setSchedule([this](std::chrono::milliseconds delay, std::function<void()> action) {
        mScheduler.after(delay, std::move(action));
    });
    const auto report = [this](const std::string& line) { reportEvent(line); };
    entry.normal = PeripheralRadio::create(mScheduler, mAir, entry.remote->normal(), mOptions.radio, report);
    entry.update = PeripheralRadio::create(mScheduler, mAir, entry.remote->update(), mOptions.radio, report);
    mRemotes.push_back(std::move(entry));
    return mRemotes.back();
}

void AirBox::removeRemote(const std::string& address)
{
    const auto found = find(address);
    if (found == mRemotes.end()) {
        throw std::invalid_argument("no remote has the address " + address);
    }
    mRemotes.erase(found);
}

std::vector<AirBox::RemoteOnAir>::iterator AirBox::find(const std::string& address)
{
    return std::find_if(mRemotes.begin(), mRemotes.end(),
                        [&](const RemoteOnAir& entry) { return entry.remote->options().address == address; });
}

void AirBox::plug()
{
    if (plugged()) {
        return;
    }
    const int file = VhciTransport::open(mOptions.device);
    mTransport = std::make_unique<VhciTransport>(
        file, [this](const Bytes& packet) { mController->receive(packet); },
        [this](const std::string& why) {
            if (mOptions.onLost) {
                mOptions.onLost(why);
            }
        });
    ControllerOptions controller;
    controller.address = mAddress;
    controller.pace = mOptions.pace;
    mController = std::make_unique<Controller>(mScheduler, mAir, controller,
                                               [this](const Bytes& packet) { mTransport->send(packet); });
    mTransport->createController();
    reportEvent("the adapter " + mOptions.address + " is plugged in");
}

void AirBox::unplug()
{
    if (!plugged()) {
        return;
    }
    mController.reset();
    mTransport.reset();
    reportEvent("the adapter is unplugged");
}

std::optional<unsigned> AirBox::index() const
{
    return plugged() ? mTransport->index() : std::nullopt;
}

void AirBox::reportEvent(const std::string& text) const
{
    if (mOptions.onEvent) {
        mOptions.onEvent(text);
    }
}

} // namespace vexasim::air
