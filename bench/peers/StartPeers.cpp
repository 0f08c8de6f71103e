// A library started and stopped again: by a program, from its start to its end, and in a process that is there.
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "KEntry.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_POCO
#include <Poco/Util/Application.h>
#endif

namespace {

/// The memory of a run beside its time, in counters: what the process has while the library is started, what of that came
/// with the start, and what it has more than before while the library is started again.
void CountMemory(benchmark::State& state, const std::string& path) {
    std::FILE* const pOutput = popen((path + " --memory").c_str(), "re");
    long nBefore = 0;
    long nStarted = 0;
    long nAgain = 0;
    if (pOutput == nullptr || std::fscanf(pOutput, "%ld %ld %ld", &nBefore, &nStarted, &nAgain) != 3) {
        state.SkipWithError("the program does not tell its memory");
    }
    if (pOutput != nullptr) {
        pclose(pOutput);
    }
    state.counters["resident_bytes"] = static_cast<double>(nStarted * 1024);
    state.counters["growth_bytes"] = static_cast<double>((nStarted - nBefore) * 1024);
    state.counters["growth_again_bytes"] = static_cast<double>((nAgain - nBefore) * 1024);
}

void Run(benchmark::State& state, const char* pszProgram) {
    std::string path = std::string(KALVOREN_BENCH_STARTERS "/") + pszProgram;
    char* arguments[] = {path.data(), nullptr};
    for (auto _ : state) {
        pid_t nChild = 0;
        int nStatus = -1;
        if (posix_spawn(&nChild, path.c_str(), nullptr, nullptr, arguments, environ) == 0) {
            waitpid(nChild, &nStatus, 0);
        }
        if (nStatus != 0) {
            state.SkipWithError("the program failed");
        }
    }
    CountMemory(state, path);
}

void Start(benchmark::internal::Benchmark* job, const char* pszWho) {
    job->Name(std::string("start a program and the library, stop both|") + pszWho)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

const bool g_fgRegistered = [] {
    struct Starter {
        const char* pszProgram;
        const char* pszWho;
    };
    const Starter starters[] = {
        {"start-kalvoren", "Kalvoren"},
        {"start-nothing", "limit: a program with the language's library"},
#ifdef KALVOREN_PEER_GLIB
        {"start-glib", "GLib"},
#endif
#ifdef KALVOREN_PEER_POCO
        {"start-poco", "POCO"},
#endif
    };
    for (const Starter& starter : starters) {
        Start(benchmark::RegisterBenchmark(starter.pszWho, [pszProgram = starter.pszProgram](
                                                               benchmark::State& state) { Run(state, pszProgram); }),
              starter.pszWho);
    }
    return true;
}();

// ----------------------------------------------------------------------------------------------------- In the process

void StartKalvoren(benchmark::State& state) {
    for (auto _ : state) {
        KEntry::Init(0, nullptr);
        KEntry::Deinit();
    }
}
BENCHMARK(StartKalvoren)->Name("start the library and stop it, in the process|Kalvoren");

#ifdef KALVOREN_PEER_GLIB
void StartGlib(benchmark::State& state) {
    for (auto _ : state) {
        g_main_context_unref(g_main_context_new());
    }
}
BENCHMARK(StartGlib)->Name("start the library and stop it, in the process|GLib");
#endif

#ifdef KALVOREN_PEER_POCO
void StartPoco(benchmark::State& state) {
    std::string name = "program";
    char* arguments[] = {name.data(), nullptr};
    for (auto _ : state) {
        Poco::AutoPtr<Poco::Util::Application> application(new Poco::Util::Application);
        application->setUnixOptions(true);
        application->init(1, arguments);
    }
}
BENCHMARK(StartPoco)->Name("start the library and stop it, in the process|POCO");
#endif

}  // namespace
