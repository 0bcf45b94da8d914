// SPDX-License-Identifier: MIT
#include "sim/program/Narrator.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>

namespace vexasim
{

void Narrator::forwardTo(std::function<void(const std::string&)> receiver)
{
    const std::lock_guard lock(mMutex);
    mReceiver = std::move(receiver);
}

void Narrator::tell(const std::string& what)
{
    const std::lock_guard lock(mMutex);
    if (!mBegun) {
        mHeld.push_back(what);
    } else if (!mQuiet) {
        print(what);
    }
    if (mReceiver) {
        mReceiver(what);
    }
}

void Narrator::begin(const std::string& firstLine)
{
    const std::lock_guard lock(mMutex);
    std::printf("%s\n", firstLine.c_str());
    std::fflush(stdout);
    mBegun = true;
    for (const std::string& what : mHeld) {
        if (!mQuiet) {
            print(what);
        }
    }
    mHeld.clear();
}

void Narrator::print(const std::string& what)
{
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto fraction = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
    std::printf("%s.%03d %s\n", text.data(), static_cast<int>(fraction), what.c_str());
    std::fflush(stdout);
}

} // namespace vexasim
