// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "sim/model/Remote.h"

namespace vexasim
{

/// How long things take. The default suits tests; realistic() matches a real stack.
struct Timings {
    std::chrono::milliseconds discovery{
        20};                               ///< from StartDiscovery, or the first advertisement, to the object
    std::chrono::milliseconds connect{20}; ///< until a link is up
    std::chrono::milliseconds resolve{20}; ///< until its services are known
    std::chrono::milliseconds pair{20};    ///< until keys are exchanged
    std::chrono::milliseconds connectTimeout{500}; ///< Connect to an absent device
    std::chrono::milliseconds pairTimeout{500};    ///< Pair with a device that is silent
    std::chrono::milliseconds resolveTimeout{500}; ///< service discovery on a mute attribute server
    std::chrono::milliseconds removeConnected{20}; ///< RemoveDevice of a connected device
    std::chrono::milliseconds powerChange{0};      ///< Powered, from Set to its reply
    std::chrono::milliseconds temporary{30000}; ///< how long an unpaired device stays after it was last seen
    std::chrono::milliseconds rssi{0};          ///< between two RSSI reports in discovery; 0: only on change

    static Timings realistic();
};

struct AdapterOptions {
    std::string name = "hci0"; ///< last component of its path
    std::string address = "00:1A:7D:DA:71:13";
    bool powered = true;
};

struct SimulatorOptions {
    std::string busAddress;   ///< empty: a PrivateBus is started
    std::string busDirectory; ///< for the PrivateBus; empty: a temporary one
    Timings timings;
    std::vector<AdapterOptions> adapters = {AdapterOptions{}};
    RemoteOptions remote;
    bool withRemote = true;    ///< false: nothing is on the air until addRemote or addPeripheral
    bool autoEnable = true;    ///< adapters come up powered after a start, as with bluetoothd's AutoEnable
    bool requireAgent = false; ///< Pair fails without a registered agent, as with bluetoothd
    bool startService = true;  ///< false: org.bluez isn't there until startService()
    /// Called with one line of text for each event, on the simulator's thread.
    std::function<void(const std::string&)> onEvent;
};

/// How the simulated bluetoothd ends.
enum class ServiceStop {
    Terminate, ///< SIGTERM: a signal removes each object, then the name goes
    Kill,      ///< SIGKILL: the name goes, without any signal
};

} // namespace vexasim
