#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "KDebug.h"
#include "KMem.h"

namespace {

constexpr int kSlots = 102400;

/// A registry with a number of entries that stay, gone at the end of the block.
class Registry {
 public:
    explicit Registry(int nEntries) {
        g_eDebugLevel = 3;
        KMem::Init();
        for (int i = 0; i < nEntries; ++i) {
            KMem::AddForNonClass(Address(i), 1);
        }
    }
    ~Registry() { KMem::Deinit(); }
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    /// An address that is kept and never looked behind.
    static void* Address(int nIndex) {
        const std::uintptr_t nAddress = std::uintptr_t{0x10000} + 16 * static_cast<std::uintptr_t>(nIndex);
        return reinterpret_cast<void*>(nAddress);  // NOLINT(performance-no-int-to-ptr): nothing is there
    }
};

void EnterAndRemove(benchmark::State& state) {
    const Registry registry(static_cast<int>(state.range(0)));
    void* const p = Registry::Address(kSlots);
    for (auto _ : state) {
        KMem::AddForNonClass(p, 1);
        KMem::RemoveForNonClass(p);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(EnterAndRemove)->RangeMultiplier(10)->Range(10, 100000)->Complexity(benchmark::o1);

/// Each round goes to an entry further on, so that nothing is found in a cache by chance.
void RemoveAndEnterInTurn(benchmark::State& state) {
    const int nEntries = static_cast<int>(state.range(0));
    const Registry registry(nEntries);
    int nIndex = 0;
    for (auto _ : state) {
        nIndex = (nIndex + 7919) % nEntries;
        KMem::RemoveForNonClass(Registry::Address(nIndex));
        KMem::AddForNonClass(Registry::Address(nIndex), 1);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(RemoveAndEnterInTurn)->RangeMultiplier(10)->Range(10, 100000)->Complexity(benchmark::o1);

void RemoveWhatIsNotThere(benchmark::State& state) {
    const Registry registry(1000);
    for (auto _ : state) {
        KMem::RemoveForNonClass(Registry::Address(kSlots));
    }
}
BENCHMARK(RemoveWhatIsNotThere);

void MallocAndFree(benchmark::State& state) {
    const Registry registry(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        void* p = KMem::Malloc(64);
        benchmark::DoNotOptimize(p);
        KMem::Free(&p);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(MallocAndFree)->RangeMultiplier(10)->Range(10, 100000)->Complexity(benchmark::o1);

/// libc alone, to compare MallocAndFree with.
void LibcMallocAndFree(benchmark::State& state) {
    for (auto _ : state) {
        void* const p = std::malloc(64);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}
BENCHMARK(LibcMallocAndFree);

void InitAndDeinit(benchmark::State& state) {
    for (auto _ : state) {
        KMem::Init();
        KMem::Deinit();
    }
}
BENCHMARK(InitAndDeinit);

/// A report whose lines are dropped: the walk through the slots.
void Report(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto registry = std::make_unique<Registry>(static_cast<int>(state.range(0)));
        state.ResumeTiming();
        registry.reset();
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(Report)->RangeMultiplier(10)->Range(10, 100000)->Complexity(benchmark::oN);

void MakeAndDestroyObject(benchmark::State& state) {
    const Registry registry(0);
    for (auto _ : state) {
        const KMem mem(static_cast<int>(state.range(0)));
        benchmark::DoNotOptimize(&mem);
    }
}
BENCHMARK(MakeAndDestroyObject)->Arg(0)->Arg(16)->Arg(4096)->Arg(1 << 20);

void CopyObject(benchmark::State& state) {
    const Registry registry(0);
    std::string bytes(static_cast<std::size_t>(state.range(0)), 'x');
    const KMem source(&bytes[0], static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const KMem copy(source);
        benchmark::DoNotOptimize(&copy);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(CopyObject)->RangeMultiplier(16)->Range(16, 1 << 20);

/// Every append makes a new array of both sizes, so that a block built of many pieces costs the square of their number.
void BuildOfPieces(benchmark::State& state) {
    const Registry registry(0);
    char szPiece[64] = {};
    const KMem piece(szPiece, sizeof szPiece);
    for (auto _ : state) {
        KMem sum;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            sum += piece;
        }
        benchmark::DoNotOptimize(&sum);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BuildOfPieces)->RangeMultiplier(4)->Range(16, 4096)->Complexity(benchmark::oNSquared);

void RemoveFromTheLeft(benchmark::State& state) {
    const Registry registry(0);
    KMem mem(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        mem.RemoveLBuffer(0);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(RemoveFromTheLeft)->RangeMultiplier(16)->Range(16, 1 << 20);

void CopyBytes(benchmark::State& state) {
    const std::vector<char> source(static_cast<std::size_t>(state.range(0)), 'x');
    std::vector<char> target(source.size());
    for (auto _ : state) {
        KMem::Copy(target.data(), target.size(), source.data(), source.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(CopyBytes)->RangeMultiplier(16)->Range(16, 1 << 20);

}  // namespace
