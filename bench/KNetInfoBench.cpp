#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "KNet.h"

namespace {

KNetInfo InfoOf(std::int64_t nLength) {
    const std::string address(static_cast<std::size_t>(nLength), '1');
    return KNetInfo(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, address.c_str(), 80);
}

void MakeADefault(benchmark::State& state) {
    for (auto _ : state) {
        const KNetInfo info;
        benchmark::DoNotOptimize(&info);
    }
}
BENCHMARK(MakeADefault);

void MakeFromAText(benchmark::State& state) {
    for (auto _ : state) {
        const KNetInfo info(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "192.0.2.1", 80);
        benchmark::DoNotOptimize(&info);
    }
}
BENCHMARK(MakeFromAText);

void Copy(benchmark::State& state) {
    const KNetInfo info = InfoOf(state.range(0));
    for (auto _ : state) {
        const KNetInfo copy(info);
        benchmark::DoNotOptimize(&copy);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(Copy)->RangeMultiplier(8)->Range(8, 32768)->Complexity(benchmark::oN);

void Assign(benchmark::State& state) {
    const KNetInfo info = InfoOf(state.range(0));
    KNetInfo target;
    for (auto _ : state) {
        target = info;
        benchmark::DoNotOptimize(&target);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(Assign)->RangeMultiplier(8)->Range(8, 32768)->Complexity(benchmark::oN);

void RawAddress(benchmark::State& state) {
    KNetInfo info = InfoOf(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(info.RawAddress());
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(RawAddress)->RangeMultiplier(8)->Range(8, 32768)->Complexity(benchmark::oN);

}  // namespace
