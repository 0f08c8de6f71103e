#include "KSystem.h"

#include <benchmark/benchmark.h>

namespace {

bool Store(KSystem::RegistryLevel, const KString&, const KString&) {
    return true;
}

void GetInstance(benchmark::State& state) {
    KSystem::Init();
    for (auto _ : state) {
        benchmark::DoNotOptimize(KSystem::GetInstance());
    }
}
BENCHMARK(GetInstance);

void GatherOperatingSystem(benchmark::State& state) {
    KSystem& system = *KSystem::Init();
    for (auto _ : state) {
        system.SetOSInfo();
    }
}
BENCHMARK(GatherOperatingSystem);

void GatherHardware(benchmark::State& state) {
    KSystem& system = *KSystem::Init();
    for (auto _ : state) {
        system.SetHWInfo();
    }
}
BENCHMARK(GatherHardware);

/// A copy of the record, from one thread and from several.
void ReadOperatingSystem(benchmark::State& state) {
    KSystem::Init()->SetOSInfo();
    for (auto _ : state) {
        benchmark::DoNotOptimize(KSystem::GetOSInfo());
    }
}
BENCHMARK(ReadOperatingSystem)->Threads(1)->Threads(2);

/// Without a hook, and with one that does nothing.
void WriteRegistry(benchmark::State& state) {
    KSystem& system = *KSystem::Init();
    system.SetRegistryHooks(state.range(0) != 0 ? Store : nullptr, nullptr);
    const KString key("key");
    const KString value("value");
    for (auto _ : state) {
        benchmark::DoNotOptimize(system.WriteRegistry(KSystem::REGISTRY_USER, key, value));
    }
    system.SetRegistryHooks(nullptr, nullptr);
}
BENCHMARK(WriteRegistry)->ArgName("hook")->Arg(0)->Arg(1);

}  // namespace
