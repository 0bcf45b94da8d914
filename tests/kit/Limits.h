// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <thread>

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSlowness = 3;
#else
constexpr int kSlowness = 1;
#endif

/// How long a test waits for an event before it gives up. Far longer than anything takes on a healthy
/// machine: it decides only when a failure is reported, never whether.
constexpr std::chrono::milliseconds kPatience = std::chrono::seconds{30} * kSlowness;

/// Checks every millisecond whether the condition holds, for conditions without an event; false on timeout.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = kPatience)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

} // namespace kit
