// SPDX-License-Identifier: MIT
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <string>
#include <vector>

#include "Bluez.h"
#include "NSRegExp.h"

// How long it takes to classify a D-Bus object path and to recognise a remote by its name: the work for each
// object that BlueZ announces and each property that changes.

namespace
{

const std::string kDevice = "/org/bluez/hci0/dev_00_11_22_33_44_55";
const std::string kDescriptor = kDevice + "/service0010/char0011/desc0013";

void expressionCompiled(benchmark::State& state)
{
    for (auto _ : state) {
        const NSRegExp expression("^VEXA.+$", REG_EXTENDED);
        benchmark::DoNotOptimize(&expression);
    }
}
BENCHMARK(expressionCompiled);

void match(benchmark::State& state, const std::string& name)
{
    NSRegExp expression("^VEXA.+$", REG_EXTENDED);
    std::vector<std::string> groups;
    for (auto _ : state) {
        benchmark::DoNotOptimize(expression.match(name, groups, 0));
    }
}
BENCHMARK_CAPTURE(match, remotesName, std::string("VEXA RC"));
BENCHMARK_CAPTURE(match, otherName, std::string("Living room speaker"));

/// A stack client that finds no bus; classifying paths needs none.
const Bluez& client()
{
    static const Bluez& bluez = []() -> const Bluez& {
        setenv("VEXA_LOG_LEVEL", "error", 1);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        return *new Bluez(nullptr); // never destroyed
    }();
    return bluez;
}

void classify(benchmark::State& state, bool (Bluez::*is)(const std::string&) const, const std::string& path)
{
    const Bluez& bluez = client();
    for (auto _ : state) {
        benchmark::DoNotOptimize((bluez.*is)(path));
    }
}
BENCHMARK_CAPTURE(classify, deviceIsDevice, &Bluez::isDevice, kDevice);
BENCHMARK_CAPTURE(classify, descriptorIsDevice, &Bluez::isDevice, kDescriptor);
BENCHMARK_CAPTURE(classify, descriptorIsDescriptor, &Bluez::isDescriptor, kDescriptor);

} // namespace
