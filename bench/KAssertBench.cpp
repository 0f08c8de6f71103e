#include <benchmark/benchmark.h>

#include "KAssert.h"
#include "KThread.h"

namespace {

void ReadSwitch(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(KAssert::GetActive());
    }
}
BENCHMARK(ReadSwitch);

void WriteSwitch(benchmark::State& state) {
    for (auto _ : state) {
        KAssert::SetActive(false);
    }
}
BENCHMARK(WriteSwitch);

/// SetSpeed is a check and a store: what is measured is what a check adds to an operation.
void CheckThatHolds(benchmark::State& state) {
    KAssert::SetActive(state.range(0) != 0);
    KThread thread;
    for (auto _ : state) {
        thread.SetSpeed(10);
    }
    KAssert::SetActive(false);
}
BENCHMARK(CheckThatHolds)->ArgName("active")->Arg(0)->Arg(1);

void CheckThatFailsWhileOff(benchmark::State& state) {
    KAssert::SetActive(false);
    KThread thread;
    for (auto _ : state) {
        thread.SetSpeed(-1);
    }
}
BENCHMARK(CheckThatFailsWhileOff);

}  // namespace
