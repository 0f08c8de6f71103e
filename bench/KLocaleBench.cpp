#include <benchmark/benchmark.h>

#include "KLocale.h"

namespace {

void AskForLocale(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(KLocale::GetSystemLocale());
    }
}
BENCHMARK(AskForLocale);

/// Costs what the system's search for the locale costs, found or not.
void SwitchLocale(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(KLocale::Init(KLocale::ENGLISH));
    }
    state.SetLabel(KLocale::GetSystemLocale());
}
BENCHMARK(SwitchLocale);

}  // namespace
