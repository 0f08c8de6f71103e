#include "KLib.h"

#include <benchmark/benchmark.h>

namespace {

/// The plug-in's path. Its name ends in a dot, so that the loader looks for lib and the name in this very directory.
KPath PluginPath() {
    return KPath(KALVOREN_BENCH_PLUGINS "/kalvoren-bench-plugin.");
}

void LoadAndUnload(benchmark::State& state) {
    const KPath path = PluginPath();
    KLib library;
    for (auto _ : state) {
        if (!library.Load(path) || !library.Unload()) {
            state.SkipWithError("the plug-in is not there");
        }
    }
}
BENCHMARK(LoadAndUnload);

void LoadAndUnloadWhatIsAlreadyLoaded(benchmark::State& state) {
    const KPath path = PluginPath();
    KLib first;
    first.Load(path);
    KLib library;
    for (auto _ : state) {
        if (!library.Load(path) || !library.Unload()) {
            state.SkipWithError("the plug-in is not there");
        }
    }
    first.Unload();
}
BENCHMARK(LoadAndUnloadWhatIsAlreadyLoaded);

void LoadWhatIsNotThere(benchmark::State& state) {
    const KPath path("kalvoren-none");
    KLib library;
    for (auto _ : state) {
        benchmark::DoNotOptimize(library.Load(path));
    }
}
BENCHMARK(LoadWhatIsNotThere);

void FindAFunction(benchmark::State& state) {
    KLib library;
    library.Load(PluginPath());
    const KString name("PluginFunction");
    if (library.GetFunc(name) == nullptr) {
        state.SkipWithError("the function is not there");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(library.GetFunc(name));
    }
    library.Unload();
}
BENCHMARK(FindAFunction);

}  // namespace
