// SPDX-License-Identifier: MIT
#include <benchmark/benchmark.h>

#include "NSTime.h"
#include "pthread_helper.h"

namespace
{

void scopedLock(benchmark::State& state)
{
    pthread_helper::mutex lock;
    for (auto _ : state) {
        const pthread_helper::scoped_lock guard(lock);
        benchmark::DoNotOptimize(&lock);
    }
}
BENCHMARK(scopedLock);

void monotonicClock(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(NSTime::nowRelative().toInt64());
    }
}
BENCHMARK(monotonicClock);

} // namespace
