// What paths cost, by the length of their text.
#include <benchmark/benchmark.h>

#include <string>

#include "KPath.h"

namespace {

constexpr int kShortest = 16;
constexpr int kLongest = 2000;

/// A path of the length that a run is for.
std::string PathFor(const benchmark::State& state, char chSeparator) {
    std::string path;
    while (path.size() + 4 < static_cast<std::size_t>(state.range(0))) {
        path += std::string(1, chSeparator) + "directory";
    }
    path.resize(static_cast<std::size_t>(state.range(0)) - 4);
    return path + ".txt";
}

void SetLength(benchmark::State& state) {
    state.SetComplexityN(state.range(0));
}

void Make(benchmark::State& state) {
    const std::string text = PathFor(state, '\\');
    for (auto _ : state) {
        const KPath path(text.c_str());
        benchmark::DoNotOptimize(path.GetPath().GetBuffer());
    }
    SetLength(state);
}
BENCHMARK(Make)->Range(kShortest, kLongest)->Complexity();

void Copy(benchmark::State& state) {
    const KPath path(PathFor(state, '/').c_str());
    for (auto _ : state) {
        KPath copy(path);
        benchmark::DoNotOptimize(copy);
    }
    SetLength(state);
}
BENCHMARK(Copy)->Range(kShortest, kLongest)->Complexity();

void Join(benchmark::State& state) {
    KPath path(PathFor(state, '/').c_str());
    const KPath name("name.txt");
    for (auto _ : state) {
        const KPath joined = path + name;
        benchmark::DoNotOptimize(joined.GetPath().GetBuffer());
    }
    SetLength(state);
}
BENCHMARK(Join)->Range(kShortest, kLongest)->Complexity();

void JoinText(benchmark::State& state) {
    const KPath path(PathFor(state, '/').c_str());
    const KString name("name.txt");
    for (auto _ : state) {
        KPath joined(path);
        joined += name;
        benchmark::DoNotOptimize(joined.GetPath().GetBuffer());
    }
    SetLength(state);
}
BENCHMARK(JoinText)->Range(kShortest, kLongest)->Complexity();

void GetName(benchmark::State& state) {
    const KPath path(PathFor(state, '/').c_str());
    for (auto _ : state) {
        const KString name = path.GetNameOnly();
        benchmark::DoNotOptimize(name.GetBuffer());
    }
    SetLength(state);
}
BENCHMARK(GetName)->Range(kShortest, kLongest)->Complexity();

void GetRoot(benchmark::State& state) {
    const KPath path(PathFor(state, '/').c_str());
    for (auto _ : state) {
        const KString root = path.GetRootOnly();
        benchmark::DoNotOptimize(root.GetBuffer());
    }
    SetLength(state);
}
BENCHMARK(GetRoot)->Range(kShortest, kLongest)->Complexity();

void GetExt(benchmark::State& state) {
    const KPath path(PathFor(state, '/').c_str());
    for (auto _ : state) {
        const KString ext = path.GetExt();
        benchmark::DoNotOptimize(ext.GetBuffer());
    }
    SetLength(state);
}
BENCHMARK(GetExt)->Range(kShortest, kLongest)->Complexity();

void SetExt(benchmark::State& state) {
    KPath path(PathFor(state, '/').c_str());
    const KString text("txt");
    const KString log("log");
    for (auto _ : state) {
        path.SetExt(log);
        path.SetExt(text);
        benchmark::DoNotOptimize(path.GetPath().GetBuffer());
    }
    SetLength(state);
}
BENCHMARK(SetExt)->Range(kShortest, kLongest)->Complexity();

void Compare(benchmark::State& state) {
    const KPath path(PathFor(state, '/').c_str());
    const KPath other(PathFor(state, '/').c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(path == other);
    }
    SetLength(state);
}
BENCHMARK(Compare)->Range(kShortest, kLongest)->Complexity();

void RenderWithSlashes(benchmark::State& state) {
    KPath path(PathFor(state, '/').c_str());
    path.SetType(KPath::TYPE_DIRECTORY);
    for (auto _ : state) {
        benchmark::DoNotOptimize(path.GetSystemPath(KPath::CONV_SLASH));
        benchmark::ClobberMemory();
    }
    SetLength(state);
}
BENCHMARK(RenderWithSlashes)->Range(kShortest, kLongest)->Complexity();

void RenderWithBackslashes(benchmark::State& state) {
    KPath path(PathFor(state, '/').c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(path.GetSystemPath(KPath::CONV_BACKSLASH));
        benchmark::ClobberMemory();
    }
    SetLength(state);
}
BENCHMARK(RenderWithBackslashes)->Range(kShortest, kLongest)->Complexity();

}  // namespace
