// A directory opened: its entries read and sorted without regard to case. The library notes each entry's kind, too.
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KDirectory.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_POCO
#include <Poco/DirectoryIterator.h>
#include <Poco/File.h>
#endif

namespace {

/// The path of a directory with so many files, made when it is first asked for.
const std::string& Filled(std::int64_t nCount) {
    static std::map<std::int64_t, std::unique_ptr<ScratchDirectory>> directories;
    std::unique_ptr<ScratchDirectory>& pDirectory = directories[nCount];
    if (pDirectory == nullptr) {
        pDirectory = std::make_unique<ScratchDirectory>();
        std::mt19937 random(1);
        for (std::int64_t i = 0; i < nCount; ++i) {
            char szName[32];
            std::snprintf(szName, sizeof szName, "/Record-%08lx.mp4", static_cast<unsigned long>(random()));
            close(open((pDirectory->Path() + szName).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        }
    }
    return pDirectory->Path();
}

void Counts(benchmark::internal::Benchmark* job) {
    job->Arg(100)->Arg(1000)->Arg(10000)->Arg(50000)->Unit(benchmark::kMicrosecond);
}

bool IsLess(const std::string& one, const std::string& other) {
    return strcasecmp(one.c_str(), other.c_str()) < 0;
}

void OpenKalvoren(benchmark::State& state) {
    KPath path(Filled(state.range(0)).c_str());
    for (auto _ : state) {
        KDirectory directory;
        directory.Open(path);
        benchmark::DoNotOptimize(directory.GetCount());
        directory.Close();
    }
}

void OpenScandir(benchmark::State& state) {
    const std::string& path = Filled(state.range(0));
    for (auto _ : state) {
        dirent** ppEntries = nullptr;
        const int nCount = scandir(path.c_str(), &ppEntries, nullptr, [](const dirent** ppOne, const dirent** ppOther) {
            return strcasecmp((*ppOne)->d_name, (*ppOther)->d_name);
        });
        benchmark::DoNotOptimize(ppEntries);
        for (int i = 0; i < nCount; ++i) {
            std::free(ppEntries[i]);
        }
        std::free(ppEntries);
    }
}

void OpenStd(benchmark::State& state) {
    const std::string& path = Filled(state.range(0));
    for (auto _ : state) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end(), IsLess);
        benchmark::DoNotOptimize(names);
    }
}

#ifdef KALVOREN_PEER_GLIB
void OpenGlib(benchmark::State& state) {
    const std::string& path = Filled(state.range(0));
    for (auto _ : state) {
        GDir* const pDirectory = g_dir_open(path.c_str(), 0, nullptr);
        GPtrArray* const pNames = g_ptr_array_new_with_free_func(g_free);
        while (const char* pszName = g_dir_read_name(pDirectory)) {
            g_ptr_array_add(pNames, g_strdup(pszName));
        }
        g_ptr_array_sort(pNames, [](gconstpointer pOne, gconstpointer pOther) {
            return strcasecmp(*static_cast<const char* const*>(pOne), *static_cast<const char* const*>(pOther));
        });
        benchmark::DoNotOptimize(pNames);
        g_ptr_array_unref(pNames);
        g_dir_close(pDirectory);
    }
}
#endif

#ifdef KALVOREN_PEER_POCO
void OpenPoco(benchmark::State& state) {
    const std::string& path = Filled(state.range(0));
    for (auto _ : state) {
        std::vector<std::string> names;
        Poco::File(path).list(names);
        std::sort(names.begin(), names.end(), IsLess);
        benchmark::DoNotOptimize(names);
    }
}
#endif

/// The sort whose order the library keeps, done plainly: each name compared with each behind it. The names are there. With
/// 50,000 it takes 25 times as long as with 10,000: the better part of a minute, the warm-up included.
void SortByExchange(benchmark::State& state) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(Filled(state.range(0)))) {
        names.push_back(entry.path().filename());
    }
    for (auto _ : state) {
        std::vector<const char*> sorted;
        sorted.reserve(names.size());
        for (const std::string& name : names) {
            sorted.push_back(name.c_str());
        }
        for (std::size_t i = 0; i < sorted.size(); ++i) {
            for (std::size_t j = i + 1; j < sorted.size(); ++j) {
                if (strcasecmp(sorted[i], sorted[j]) > 0) {
                    std::swap(sorted[i], sorted[j]);
                }
            }
        }
        benchmark::DoNotOptimize(sorted.data());
    }
}
BENCHMARK(SortByExchange)->Name("open a directory of n entries|the exchange sort alone")->Apply(Counts);

/// The same in a process whose memory goes back to the kernel and comes, cleared, from it again.
template <void (*pOpen)(benchmark::State&)>
void OpenWithFreshMemory(benchmark::State& state) {
    if (HasLibcsOwnSettings()) {
        pOpen(state);
    } else {
        state.SkipWithError("KALVOREN_BENCH_LIBCS_OWN is not set");
    }
}

template <void (*pOpen)(benchmark::State&)>
void Register(const std::string& who) {
    benchmark::RegisterBenchmark(("open a directory of n entries|" + who).c_str(), pOpen)->Apply(Counts);
    benchmark::RegisterBenchmark(("open a directory of n entries, with libc's own settings|" + who).c_str(),
                                 OpenWithFreshMemory<pOpen>)
        ->Apply(Counts);
}

const bool g_fgRegistered = [] {
    Register<OpenKalvoren>("Kalvoren");
    Register<OpenScandir>("scandir, strcasecmp");
    Register<OpenStd>("std::filesystem");
#ifdef KALVOREN_PEER_GLIB
    Register<OpenGlib>("GDir");
#endif
#ifdef KALVOREN_PEER_POCO
    Register<OpenPoco>("POCO");
#endif
    return true;
}();

}  // namespace
