// SPDX-License-Identifier: MIT
#include "sim/bluez/SimulatorOptions.h"

namespace vexasim
{

Timings Timings::realistic()
{
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    Timings timings;
    timings.discovery = milliseconds{700};
    timings.connect = milliseconds{400};
    timings.resolve = milliseconds{900};
    timings.pair = milliseconds{250};
    timings.connectTimeout = seconds{40};
    timings.pairTimeout = milliseconds{31500};
    timings.resolveTimeout = seconds{31};
    timings.removeConnected = milliseconds{2700};
    timings.powerChange = milliseconds{150};
    timings.temporary = seconds{30};
    timings.rssi = seconds{1};
    return timings;
}

} // namespace vexasim
