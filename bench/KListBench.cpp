// What lists cost, by their length. Times are those of the whole list unless a name says otherwise.
#include <benchmark/benchmark.h>

#include <algorithm>

#include "KList.h"
#include "KString.h"

namespace {

constexpr int kShortest = 1;
constexpr int kLongest = 10000;

void Fill(KList<int>& list, const benchmark::State& state) {
    KList<int>::Appender appender(list);
    for (int i = 0; i < state.range(0); ++i) {
        appender.Add(i);
    }
}

void SetItems(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}

/// Each element walks to the end.
void FillByAdd(benchmark::State& state) {
    for (auto _ : state) {
        KList<int> list;
        for (int i = 0; i < state.range(0); ++i) {
            list.Add(i);
        }
        benchmark::DoNotOptimize(list.GetCount());
    }
    SetItems(state);
}
BENCHMARK(FillByAdd)->Range(kShortest, kLongest)->Complexity();

/// One lock and one walk.
void FillByAppender(benchmark::State& state) {
    for (auto _ : state) {
        KList<int> list;
        Fill(list, state);
        benchmark::DoNotOptimize(list.GetCount());
    }
    SetItems(state);
}
BENCHMARK(FillByAppender)->Range(kShortest, kLongest)->Complexity();

/// One lock for each element, and no walk.
void FillWithAnEnd(benchmark::State& state) {
    for (auto _ : state) {
        KList<int> list;
        KList<int>::End end;
        for (int i = 0; i < state.range(0); ++i) {
            KList<int>::Appender(list, end).Add(i);
        }
        benchmark::DoNotOptimize(list.GetCount());
    }
    SetItems(state);
}
BENCHMARK(FillWithAnEnd)->Range(kShortest, kLongest)->Complexity();

void FillWithTexts(benchmark::State& state) {
    const KString text("a short text");
    for (auto _ : state) {
        KList<KString> list;
        KList<KString>::Appender appender(list);
        for (int i = 0; i < state.range(0); ++i) {
            appender.Add(text);
        }
    }
    SetItems(state);
}
BENCHMARK(FillWithTexts)->Range(kShortest, kLongest)->Complexity();

/// Each index walks from the head.
void WalkByIndex(benchmark::State& state) {
    KList<int> list;
    Fill(list, state);
    for (auto _ : state) {
        for (int i = 0; i < state.range(0); ++i) {
            benchmark::DoNotOptimize(list[i]);
        }
    }
    SetItems(state);
}
BENCHMARK(WalkByIndex)->Range(kShortest, kLongest)->Complexity();

void WalkByReader(benchmark::State& state) {
    KList<int> list;
    Fill(list, state);
    for (auto _ : state) {
        KList<int>::Reader reader(list);
        while (const int* const pValue = reader.Next()) {
            benchmark::DoNotOptimize(*pValue);
        }
    }
    SetItems(state);
}
BENCHMARK(WalkByReader)->Range(kShortest, kLongest)->Complexity();

void GetTheLast(benchmark::State& state) {
    KList<int> list;
    Fill(list, state);
    const int nLast = static_cast<int>(state.range(0)) - 1;
    int nOut = 0;
    for (auto _ : state) {
        list.Get(nOut, nLast);
        benchmark::DoNotOptimize(nOut);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(GetTheLast)->Range(kShortest, kLongest)->Complexity();

/// Takes elements from the front until there are none.
void Drain(benchmark::State& state) {
    KList<int> full;
    Fill(full, state);
    int nOut = 0;
    for (auto _ : state) {
        state.PauseTiming();
        KList<int> list(full);
        state.ResumeTiming();
        while (list.Pop(nOut, -1)) {
            benchmark::DoNotOptimize(nOut);
        }
    }
    SetItems(state);
}
BENCHMARK(Drain)->Range(kShortest, kLongest)->Complexity();

void Copy(benchmark::State& state) {
    KList<int> list;
    Fill(list, state);
    for (auto _ : state) {
        KList<int> copy(list);
        benchmark::DoNotOptimize(copy);
    }
    SetItems(state);
}
BENCHMARK(Copy)->Range(kShortest, kLongest)->Complexity();

void Reverse(benchmark::State& state) {
    KList<int> list;
    Fill(list, state);
    for (auto _ : state) {
        list.Arrange([](int** ppFirst, int nCount) { std::reverse(ppFirst, ppFirst + nCount); });
    }
    SetItems(state);
}
BENCHMARK(Reverse)->Range(kShortest, kLongest)->Complexity();

void GetCount(benchmark::State& state) {
    static KList<int> list;
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.GetCount());
    }
}
BENCHMARK(GetCount)->Threads(1)->Threads(2);

}  // namespace
