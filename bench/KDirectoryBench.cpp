#include "KDirectory.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "KDebug.h"

namespace {

constexpr int kSilent = 3;

/// A directory of the benchmark's own, gone with everything in it at the end of the block.
class ScopedDirectory {
 public:
    ScopedDirectory() : m_Path(std::filesystem::temp_directory_path() / "kalvoren-bench-XXXXXX") {
        if (mkdtemp(&m_Path[0]) == nullptr) {
            std::perror(m_Path.c_str());
            std::abort();
        }
    }
    ~ScopedDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    ScopedDirectory(const ScopedDirectory&) = delete;
    ScopedDirectory& operator=(const ScopedDirectory&) = delete;

    const std::string& Path() const { return m_Path; }

 private:
    std::string m_Path;
};

/// Names as a recorder gives them, in no order.
std::string Name(std::mt19937& random) {
    char szName[32];
    std::snprintf(szName, sizeof szName, "Record-%08lx.mp4", static_cast<unsigned long>(random() & 0xFFFFFFFF));
    return szName;
}

void MakeFiles(const std::string& directory, int nCount) {
    std::mt19937 random(1);
    for (int i = 0; i < nCount; ++i) {
        close(open((directory + "/" + Name(random)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    }
}

/// The path of a directory with so many files, made when it is first asked for and kept to the end.
KPath Filled(int nCount) {
    static std::map<int, ScopedDirectory> directories;
    const bool fgMade = directories.count(nCount) != 0;
    const ScopedDirectory& directory = directories[nCount];
    if (!fgMade) {
        MakeFiles(directory.Path(), nCount);
    }
    return KPath(directory.Path().c_str());
}

/// That directory, read. The last one is kept.
KDirectory& Read(int nCount) {
    static std::unique_ptr<KDirectory> pDirectory;
    static int nRead = -1;
    if (nRead != nCount) {
        pDirectory = std::make_unique<KDirectory>();
        KPath path = Filled(nCount);
        pDirectory->Open(path);
        nRead = nCount;
    }
    return *pDirectory;
}

/// What a list to be sorted is made of.
enum Contents : int {
    kDistinct,      ///< Texts that all differ.
    kEqualInPairs,  ///< Each text twice, once in capitals.
    kTwoTexts,      ///< Two texts, in turn at random: half of the list compares equal.
    kOneMissing     ///< Texts that all differ, and a path without one: sorted by exchange.
};

KPath MakeEntry(Contents eContents, int nIndex, std::mt19937& random) {
    switch (eContents) {
        case kTwoTexts:
            return KPath(random() % 2 != 0 ? "a" : "b");
        case kOneMissing:
            return nIndex == 0 ? KPath() : KPath(Name(random).c_str());
        case kEqualInPairs: {
            KString text(Name(random).c_str());
            text.ToUpper();
            return KPath(text);
        }
        default:
            return KPath(Name(random).c_str());
    }
}

void Fill(KList<KPath>& list, Contents eContents, int nCount) {
    std::mt19937 random(2);
    KList<KPath>::Appender appender(list);
    for (int i = 0; i < nCount; ++i) {
        if (eContents == kEqualInPairs && i % 2 == 0) {
            std::mt19937 same(random);
            appender.Add(MakeEntry(kDistinct, i, same));
        } else {
            appender.Add(MakeEntry(eContents, i, random));
        }
    }
}

/// From what fits a page of a program to what fills a recorder's disk, with the growth that is expected.
template <benchmark::BigO Growth>
void Sizes(benchmark::internal::Benchmark* pBenchmark) {
    pBenchmark->Arg(100)->Arg(1000)->Arg(10000)->Arg(50000)->Complexity(Growth)->Unit(benchmark::kMicrosecond);
}

// ---------------------------------------------------------------------------------------------------------- Reading

/// Opening, sorting and closing, with the memory of the entries.
void Open(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    KPath path = Filled(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        KDirectory directory;
        directory.Open(path);
        directory.Close();
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(Open)->Apply(Sizes<benchmark::oNLogN>);

/// The same with the lines that it writes for each entry, to nowhere.
void OpenWithLog(benchmark::State& state) {
    KPath path = Filled(static_cast<int>(state.range(0)));
    std::fflush(stderr);
    const int nStderr = dup(STDERR_FILENO);
    const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nNull, STDERR_FILENO);
    g_eDebugLevel = 0;
    for (auto _ : state) {
        KDirectory directory;
        directory.Open(path);
        directory.Close();
    }
    g_eDebugLevel = kSilent;
    dup2(nStderr, STDERR_FILENO);
    close(nNull);
    close(nStderr);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(OpenWithLog)->Apply(Sizes<benchmark::oNLogN>);

void ReadLast(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    KDirectory& directory = Read(static_cast<int>(state.range(0)));
    KPath entry;
    for (auto _ : state) {
        directory.Read(directory.GetCount() - 1, entry);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ReadLast)->Apply(Sizes<benchmark::oN>);

void ReadAll(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    KDirectory& directory = Read(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        KList<KPath> entries;
        directory.ReadAll(entries);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ReadAll)->Apply(Sizes<benchmark::oN>);

/// There are two: "." and "..".
void ReadDirectories(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    KDirectory& directory = Read(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        KList<KPath> entries;
        directory.ReadDirectories(entries);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(ReadDirectories)->Apply(Sizes<benchmark::oN>);

// ---------------------------------------------------------------------------------------------------------- Sorting

void SortList(benchmark::State& state, Contents eContents, KDirectory::SortMethod eMethod) {
    g_eDebugLevel = kSilent;
    KList<KPath> list;
    Fill(list, eContents, static_cast<int>(state.range(0)));
    std::mt19937 random(3);
    for (auto _ : state) {
        state.PauseTiming();
        list.Arrange([&](KPath** ppFirst, int nCount) { std::shuffle(ppFirst, ppFirst + nCount, random); });
        state.ResumeTiming();
        KDirectory::Sort(list, eMethod);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK_CAPTURE(SortList, Ascending, kDistinct, KDirectory::SORT_ASCENDING)->Apply(Sizes<benchmark::oNLogN>);
BENCHMARK_CAPTURE(SortList, Descending, kDistinct, KDirectory::SORT_DESCENDING)->Apply(Sizes<benchmark::oNLogN>);
BENCHMARK_CAPTURE(SortList, AscendingNoCase, kDistinct, KDirectory::SORT_ASCENDING_NOCASE)
    ->Apply(Sizes<benchmark::oNLogN>);
BENCHMARK_CAPTURE(SortList, DescendingNoCase, kDistinct, KDirectory::SORT_DESCENDING_NOCASE)
    ->Apply(Sizes<benchmark::oNLogN>);
BENCHMARK_CAPTURE(SortList, NoCaseEqualInPairs, kEqualInPairs, KDirectory::SORT_ASCENDING_NOCASE)
    ->Apply(Sizes<benchmark::oNLogN>);
BENCHMARK_CAPTURE(SortList, NoCaseOfTwoTexts, kTwoTexts, KDirectory::SORT_ASCENDING_NOCASE)
    ->Apply(Sizes<benchmark::oNLogN>);
BENCHMARK_CAPTURE(SortList, NoCaseWithOneTextMissing, kOneMissing, KDirectory::SORT_ASCENDING_NOCASE)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Complexity(benchmark::oNSquared)
    ->Unit(benchmark::kMicrosecond);

// --------------------------------------------------------------------------------------------- Directories by path

void CanHandle(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    const ScopedDirectory scratch;
    KPath path(scratch.Path().c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(KDirectory::CanHandle(path, true, true));
    }
}
BENCHMARK(CanHandle);

/// A path of so many directories that are there already.
void CreateWhatExists(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    const ScopedDirectory scratch;
    std::string deep = scratch.Path();
    for (int i = 0; i < state.range(0); ++i) {
        deep += "/d";
    }
    KPath path(deep.c_str());
    for (auto _ : state) {
        KDirectory::CreateDir(path, KDirectory::DIR_RECURSIVE);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(CreateWhatExists)->Arg(1)->Arg(10)->Arg(100)->Complexity();

/// A directory with so many files.
void DeleteTree(benchmark::State& state) {
    g_eDebugLevel = kSilent;
    const ScopedDirectory scratch;
    KPath path((scratch.Path() + "/tree").c_str());
    for (auto _ : state) {
        state.PauseTiming();
        KDirectory::CreateDir(path, KDirectory::DIR_SINGLE);
        MakeFiles(scratch.Path() + "/tree", static_cast<int>(state.range(0)));
        state.ResumeTiming();
        KDirectory::DeleteDir(path, KDirectory::DIR_RECURSIVE);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(DeleteTree)->Arg(10)->Arg(100)->Arg(1000)->Complexity(benchmark::oN)->Unit(benchmark::kMicrosecond);

}  // namespace
