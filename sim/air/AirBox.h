// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/air/Air.h"
#include "sim/air/Controller.h"
#include "sim/air/PeripheralRadio.h"
#include "sim/air/VhciTransport.h"
#include "sim/model/Remote.h"

namespace vexasim::air
{

struct AirBoxOptions {
    std::string device = "/dev/vhci";
    std::string address = "00:1A:7D:DA:71:13"; ///< of the box's adapter
    Pace pace = Pace::RealTime;
    RemoteOptions remote;
    RadioOptions radio; ///< the initial ones of every remote
    /// Called with one line of text for each event.
    std::function<void(const std::string&)> onEvent;
    /// The kernel dropped the controller unexpectedly.
    std::function<void(const std::string&)> onLost;
};

/// A box's Bluetooth adapter with remotes around it, for the kernel of the machine on which it runs. Lives on
/// the GLib main context that is the thread's default at construction; the remotes must be used on that
/// thread too.
class AirBox
{
public:
    /// A remote and its two radios, one for each personality.
    struct RemoteOnAir {
        std::shared_ptr<Remote> remote;
        std::shared_ptr<PeripheralRadio> normal;
        std::shared_ptr<PeripheralRadio> update;
    };

    /// The adapter is unplugged at first. Throws std::invalid_argument for invalid options.
    explicit AirBox(AirBoxOptions options);
    ~AirBox();
    AirBox(const AirBox&) = delete;
    AirBox& operator=(const AirBox&) = delete;

    /// The first is the one from the options.
    const std::vector<RemoteOnAir>& remotes() const { return mRemotes; }
    /// Throws std::invalid_argument if its address is malformed or taken.
    const RemoteOnAir& addRemote(const RemoteOptions& options);
    /// Removes it from the air; throws std::invalid_argument if none has that address.
    void removeRemote(const std::string& address);

    /// Removes the adapter with its links, as when a dongle is pulled. The remotes stay.
    void unplug();
    /// Plugs it in, unless it already is. The main context must run from then on, since the kernel waits only
    /// two seconds for an answer. Throws std::runtime_error if the kernel provides no controller.
    void plug();
    bool plugged() const { return mTransport != nullptr; }

    /// The number in hciN; empty until the kernel has assigned it.
    std::optional<unsigned> index() const;

private:
    std::vector<RemoteOnAir>::iterator find(const std::string& address);
    void reportEvent(const std::string& text) const;

    const AirBoxOptions mOptions;
    const Address mAddress;
    MainLoopScheduler mScheduler;
    Air mAir;
    std::vector<RemoteOnAir> mRemotes;
    std::unique_ptr<VhciTransport> mTransport;
    std::unique_ptr<Controller> mController;
};

} // namespace vexasim::air
