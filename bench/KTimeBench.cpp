// What times, conversions and their texts cost.
#include <benchmark/benchmark.h>

#include "KTime.h"

namespace {

/// Years from the first to the last that is of use.
void OverYears(benchmark::internal::Benchmark* pBenchmark) {
    for (const int nYear : {1970, 2000, 2024, 2037}) {
        pBenchmark->Arg(nYear);
    }
}

void ToSeconds(benchmark::State& state) {
    const short year = static_cast<short>(state.range(0));
    short day = 0;
    for (auto _ : state) {
        day = static_cast<short>(day % 28 + 1);
        benchmark::DoNotOptimize(mkgmtime(year, 7, day, 12, 30, 45));
    }
}
BENCHMARK(ToSeconds)->Apply(OverYears);

void ToUnixTime(benchmark::State& state) {
    const int nYear = static_cast<int>(state.range(0));
    int nDay = 0;
    for (auto _ : state) {
        nDay = nDay % 28 + 1;
        benchmark::DoNotOptimize(KTime::MakeUnixTime(nYear, 7, nDay, 12, 30, 45, 36, 0));
    }
}
BENCHMARK(ToUnixTime)->Apply(OverYears);

void ToHumanTime(benchmark::State& state) {
    long long nSec = KTime::MakeUnixTime(static_cast<int>(state.range(0)), 7, 1, 0, 0, 0, 0, 0);
    for (auto _ : state) {
        nSec += 12345;
        benchmark::DoNotOptimize(KTime::MakeHumanTime(nSec, 0, 36, 0));
    }
}
BENCHMARK(ToHumanTime)->Apply(OverYears);

void ToText(benchmark::State& state) {
    const KTime time(1700000000LL, 123456, 36, 0);
    for (auto _ : state) {
        const KString text = time.GetHumanTimeString(static_cast<int>(state.range(0)), 36, 0);
        benchmark::DoNotOptimize(text.GetBuffer());
    }
    state.SetLabel(time.GetHumanTimeString(static_cast<int>(state.range(0)), 36, 0).GetBuffer());
}
BENCHMARK(ToText)->Arg(1)->Arg(2)->Arg(3)->Arg(6)->Arg(7)->Arg(8)->Arg(16);

void GetCurrentTime(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(KTime::GetCurrentTime());
    }
}
BENCHMARK(GetCurrentTime);

void Copy(benchmark::State& state) {
    const KTime time(1700000000LL, 123456, 36, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(KTime(time));
    }
}
BENCHMARK(Copy);

void AddAndSubtract(benchmark::State& state) {
    KTime time(1000LL, 900000, 0, 0);
    const KTime other(5LL, 200000, 0, 0);
    for (auto _ : state) {
        time += other;
        time -= other;
        benchmark::DoNotOptimize(time.sec);
    }
}
BENCHMARK(AddAndSubtract);

void Compare(benchmark::State& state) {
    const KTime left(1700000000LL, 900000, 0, 0);
    const KTime right(1700000000LL, 900001, 0, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(left < right);
        benchmark::DoNotOptimize(left == right);
    }
}
BENCHMARK(Compare);

void CompareWithAnAmount(benchmark::State& state) {
    KTime time(1700000000LL, 900000, 0, 0);
    const SecUSec amount = {1700000000, 5};
    for (auto _ : state) {
        benchmark::DoNotOptimize(time < amount);
    }
}
BENCHMARK(CompareWithAnAmount);

}  // namespace
