#include "KEntry.h"

#include <benchmark/benchmark.h>

#include "KDebug.h"

namespace {

constexpr int kSilent = 3;

void StartAndStop(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    for (auto _ : state) {
        KEntry::Init(0, nullptr);
        KEntry::Deinit();
    }
}
BENCHMARK(StartAndStop);

void SecondInit(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    KEntry::Init(0, nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(KEntry::Init(0, nullptr));
    }
    KEntry::Deinit();
}
BENCHMARK(SecondInit);

}  // namespace
