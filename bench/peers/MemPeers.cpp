// 64 bytes allocated and freed while n blocks are alive.
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "KMem.h"
#include "Peers.h"
#include "Resident.h"

namespace {

constexpr std::size_t kSize = 64;

void LiveBlocks(benchmark::internal::Benchmark* job) {
    job->Arg(0)->Arg(1000)->Arg(10000)->Arg(100000);
}

/// Has the heap hold so many blocks, all of them free.
void GrowHeap(std::size_t nBlocks) {
    std::vector<void*> blocks(nBlocks);
    std::generate(blocks.begin(), blocks.end(), [] { return std::malloc(kSize); });
    for (void* const pBlock : blocks) {
        std::free(pBlock);
    }
}

/// Counts the memory of the registry, too: the blocks' own is there before.
void AllocateKalvoren(benchmark::State& state) {
    std::vector<void*> live(static_cast<std::size_t>(state.range(0)));
    GrowHeap(live.size() + 1);
    ResidentKilobytes();  // What looking costs is there from now on.
    const long nBefore = ResidentKilobytes();
    KMem::Init();
    std::generate(live.begin(), live.end(), [] { return KMem::Malloc(kSize); });
    state.counters["growth_bytes"] = static_cast<double>((ResidentKilobytes() - nBefore) * 1024);
    for (auto _ : state) {
        void* pBlock = KMem::Malloc(kSize);
        benchmark::DoNotOptimize(pBlock);
        KMem::Free(&pBlock);
    }
    for (void* pBlock : live) {
        KMem::Free(&pBlock);
    }
    KMem::Deinit();
}
BENCHMARK(AllocateKalvoren)->Name("allocate and free 64 bytes beside n live blocks|Kalvoren")->Apply(LiveBlocks);

void AllocateLimit(benchmark::State& state) {
    std::vector<void*> live(static_cast<std::size_t>(state.range(0)));
    std::generate(live.begin(), live.end(), [] { return std::malloc(kSize); });
    for (auto _ : state) {
        void* pBlock = std::malloc(kSize);
        benchmark::DoNotOptimize(pBlock);
        std::free(pBlock);
    }
    for (void* pBlock : live) {
        std::free(pBlock);
    }
}
BENCHMARK(AllocateLimit)->Name("allocate and free 64 bytes beside n live blocks|limit: malloc")->Apply(LiveBlocks);

/// What a plain table of blocks costs: the first free slot and the block are sought from its beginning.
void AllocateScan(benchmark::State& state) {
    std::vector<void*> live(static_cast<std::size_t>(state.range(0)));
    std::generate(live.begin(), live.end(), [] { return std::malloc(kSize); });
    std::vector<void*> table(live);
    table.resize(table.size() + 1);
    for (auto _ : state) {
        void* const pBlock = std::malloc(kSize);
        *std::find(table.begin(), table.end(), nullptr) = pBlock;
        benchmark::DoNotOptimize(table.data());
        *std::find(table.begin(), table.end(), pBlock) = nullptr;
        std::free(pBlock);
    }
    for (void* pBlock : live) {
        std::free(pBlock);
    }
}
BENCHMARK(AllocateScan)->Name("allocate and free 64 bytes beside n live blocks|a linear scan")->Apply(LiveBlocks);

}  // namespace
