// A program that starts a library and stops it again, from the program's start to its end.
#include <spawn.h>
#include <sys/wait.h>

#include <string>

#include "Peers.h"

namespace {

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

}  // namespace
