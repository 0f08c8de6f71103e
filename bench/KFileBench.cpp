#include "KFile.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "KDebug.h"

namespace {

/// A scratch file of a given size, gone at the end of the block. Logging is off: it is not what is measured.
class ScratchFile {
 public:
    explicit ScratchFile(std::size_t nSize) : m_nLevelBefore(g_eDebugLevel), m_Block(nSize, 'x') {
        constexpr int kNoLines = 3;
        g_eDebugLevel = kNoLines;
        KFile::CreateTempFileName(m_Path);
        m_File.Open(m_Path, true);
        m_File.Write(0, m_Block.data(), m_Block.size());
    }
    ~ScratchFile() {
        m_File.Delete();
        g_eDebugLevel = m_nLevelBefore;
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    KFile& File() { return m_File; }
    KPath& Path() { return m_Path; }
    char* Block() { return m_Block.data(); }

 private:
    int m_nLevelBefore;
    std::vector<char> m_Block;
    KPath m_Path;
    KFile m_File;
};

std::size_t SizeOf(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

void ReadWholeFile(benchmark::State& state) {
    ScratchFile scratch(SizeOf(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(scratch.File().Read(0, scratch.Block(), SizeOf(state)));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ReadWholeFile)->RangeMultiplier(16)->Range(1 << 8, 16 << 20)->Complexity(benchmark::oN);

void WriteWholeFile(benchmark::State& state) {
    ScratchFile scratch(SizeOf(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(scratch.File().Write(0, scratch.Block(), SizeOf(state)));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(WriteWholeFile)->RangeMultiplier(16)->Range(1 << 8, 16 << 20)->Complexity(benchmark::oN);

void AppendBlock(benchmark::State& state) {
    ScratchFile scratch(SizeOf(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(scratch.File().Write(-1, scratch.Block(), SizeOf(state)));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(AppendBlock)->Arg(64)->Arg(4096)->Iterations(20000);

void ReadBlockOfALargeFile(benchmark::State& state) {
    constexpr std::size_t kFileSize = 16 << 20;
    ScratchFile scratch(kFileSize);
    const std::int64_t nBlock = state.range(0);
    std::int64_t nPosition = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(scratch.File().Read(nPosition, scratch.Block(), SizeOf(state)));
        nPosition = (nPosition + nBlock) % (static_cast<std::int64_t>(kFileSize) - nBlock);
    }
    state.SetBytesProcessed(state.iterations() * nBlock);
}
BENCHMARK(ReadBlockOfALargeFile)->Arg(64)->Arg(4096);

void OpenAndClose(benchmark::State& state) {
    ScratchFile scratch(1);
    KFile file;
    for (auto _ : state) {
        benchmark::DoNotOptimize(file.Open(scratch.Path(), false));
        file.Close();
    }
}
BENCHMARK(OpenAndClose);

void GetSize(benchmark::State& state) {
    ScratchFile scratch(SizeOf(state));
    for (auto _ : state) {
        benchmark::DoNotOptimize(scratch.File().GetSize());
    }
}
BENCHMARK(GetSize)->Arg(1)->Arg(1 << 20);

void CanHandle(benchmark::State& state) {
    ScratchFile scratch(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(KFile::CanHandle(scratch.Path(), true, true));
    }
}
BENCHMARK(CanHandle);

void MakeTemporaryName(benchmark::State& state) {
    KPath path;
    for (auto _ : state) {
        benchmark::DoNotOptimize(KFile::CreateTempFileName(path));
    }
}
BENCHMARK(MakeTemporaryName);

}  // namespace
