// Paths joined and taken apart.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "BareCalls.h"
#include "KPath.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_POCO
#include <Poco/Path.h>
#endif

namespace {

void JoinKalvoren(benchmark::State& state) {
    KPath directory(kPathDirectory);
    for (auto _ : state) {
        const KPath joined = directory + kPathName;
        benchmark::DoNotOptimize(joined.GetPath().GetBuffer());
    }
}
BENCHMARK(JoinKalvoren)->Name("join a directory and a name|Kalvoren");

void JoinStd(benchmark::State& state) {
    const std::filesystem::path directory(kPathDirectory);
    for (auto _ : state) {
        const std::filesystem::path joined = directory / kPathName;
        benchmark::DoNotOptimize(joined.c_str());
    }
}
BENCHMARK(JoinStd)->Name("join a directory and a name|std::filesystem");

void SplitKalvoren(benchmark::State& state) {
    const KPath path(kPath);
    for (auto _ : state) {
        const KPath name = path.GetSubPath();
        benchmark::DoNotOptimize(name.GetPath().GetBuffer());
    }
}
BENCHMARK(SplitKalvoren)->Name("the name at a path's end|Kalvoren");

void StemKalvoren(benchmark::State& state) {
    const KPath path(kPath);
    for (auto _ : state) {
        const KString name = path.GetNameOnly();
        benchmark::DoNotOptimize(name.GetBuffer());
    }
}
BENCHMARK(StemKalvoren)->Name("the name without its extension|Kalvoren");

void DirectoryKalvoren(benchmark::State& state) {
    const KPath path(kPath);
    for (auto _ : state) {
        const KString directory = path.GetRootOnly();
        benchmark::DoNotOptimize(directory.GetBuffer());
    }
}
BENCHMARK(DirectoryKalvoren)->Name("the directory of a path|Kalvoren");

void SplitStd(benchmark::State& state) {
    const std::filesystem::path path(kPath);
    for (auto _ : state) {
        const std::filesystem::path name = path.filename();
        benchmark::DoNotOptimize(name.c_str());
    }
}
BENCHMARK(SplitStd)->Name("the name at a path's end|std::filesystem");

void StemStd(benchmark::State& state) {
    const std::filesystem::path path(kPath);
    for (auto _ : state) {
        const std::filesystem::path name = path.stem();
        benchmark::DoNotOptimize(name.c_str());
    }
}
BENCHMARK(StemStd)->Name("the name without its extension|std::filesystem");

void DirectoryStd(benchmark::State& state) {
    const std::filesystem::path path(kPath);
    for (auto _ : state) {
        const std::filesystem::path directory = path.parent_path();
        benchmark::DoNotOptimize(directory.c_str());
    }
}
BENCHMARK(DirectoryStd)->Name("the directory of a path|std::filesystem");

void ParentKalvoren(benchmark::State& state) {
    for (auto _ : state) {
        KPath path(kPath);
        path.RemoveSubPath();
        benchmark::DoNotOptimize(path.GetPath().GetBuffer());
    }
}
BENCHMARK(ParentKalvoren)->Name("make a path and go up|Kalvoren");

void ParentStd(benchmark::State& state) {
    for (auto _ : state) {
        const std::filesystem::path parent = std::filesystem::path(kPath).parent_path();
        benchmark::DoNotOptimize(parent.c_str());
    }
}
BENCHMARK(ParentStd)->Name("make a path and go up|std::filesystem");

void ExtensionKalvoren(benchmark::State& state) {
    const KPath path(kPath);
    for (auto _ : state) {
        const KString extension = path.GetExt();
        benchmark::DoNotOptimize(extension.GetBuffer());
    }
}
BENCHMARK(ExtensionKalvoren)->Name("a path's extension|Kalvoren");

void ExtensionStd(benchmark::State& state) {
    const std::filesystem::path path(kPath);
    for (auto _ : state) {
        const std::filesystem::path extension = path.extension();
        benchmark::DoNotOptimize(extension.c_str());
    }
}
BENCHMARK(ExtensionStd)->Name("a path's extension|std::filesystem");

void SystemKalvoren(benchmark::State& state) {
    KPath path(kPath);
    for (auto _ : state) {
        benchmark::DoNotOptimize(path.GetSystemPath(KPath::CONV_SLASH));
    }
}
BENCHMARK(SystemKalvoren)->Name("a path's system form|Kalvoren");

void SystemStd(benchmark::State& state) {
    std::filesystem::path path(kPath);
    for (auto _ : state) {
        benchmark::DoNotOptimize(path);
        benchmark::DoNotOptimize(path.c_str());
    }
}
BENCHMARK(SystemStd)->Name("a path's system form|std::filesystem");

/// What libc's calls make of a path's text, in a block that is freed again.
template <class Piece>
void Limit(benchmark::State& state, Piece piece) {
    for (auto _ : state) {
        char* pszPiece = piece(Hidden(kPath));
        benchmark::DoNotOptimize(pszPiece);
        std::free(pszPiece);
    }
}

void JoinLimit(benchmark::State& state) {
    Limit(state, [](const char*) { return bare::Join(Hidden(kPathDirectory), Hidden(kPathName)); });
}
BENCHMARK(JoinLimit)->Name("join a directory and a name|limit: strlen, malloc, memcpy");

void SplitLimit(benchmark::State& state) {
    Limit(state, bare::Name);
}
BENCHMARK(SplitLimit)->Name("the name at a path's end|limit: strrchr, strdup");

void StemLimit(benchmark::State& state) {
    Limit(state, bare::Stem);
}
BENCHMARK(StemLimit)->Name("the name without its extension|limit: strrchr, strndup");

void DirectoryLimit(benchmark::State& state) {
    Limit(state, bare::Directory);
}
BENCHMARK(DirectoryLimit)->Name("the directory of a path|limit: strrchr, strndup");

void ParentLimit(benchmark::State& state) {
    Limit(state, bare::GoUp);
}
BENCHMARK(ParentLimit)->Name("make a path and go up|limit: strdup, strrchr");

void ExtensionLimit(benchmark::State& state) {
    Limit(state, bare::Extension);
}
BENCHMARK(ExtensionLimit)->Name("a path's extension|limit: strrchr, strdup");

void SystemLimit(benchmark::State& state) {
    char szSystem[2048];
    Limit(state, [&szSystem](const char* pszPath) -> char* {
        std::memcpy(szSystem, pszPath, std::strlen(pszPath) + 1);
        benchmark::DoNotOptimize(szSystem);
        return nullptr;
    });
}
BENCHMARK(SystemLimit)->Name("a path's system form|limit: strlen, memcpy");

#ifdef KALVOREN_PEER_GLIB
void JoinGlib(benchmark::State& state) {
    for (auto _ : state) {
        char* const pszJoined = g_build_filename(kPathDirectory, kPathName, nullptr);
        benchmark::DoNotOptimize(pszJoined);
        g_free(pszJoined);
    }
}
BENCHMARK(JoinGlib)->Name("join a directory and a name|GLib");

void SplitGlib(benchmark::State& state) {
    for (auto _ : state) {
        char* const pszName = g_path_get_basename(kPath);
        benchmark::DoNotOptimize(pszName);
        g_free(pszName);
    }
}
BENCHMARK(SplitGlib)->Name("the name at a path's end|GLib");

void ParentGlib(benchmark::State& state) {
    for (auto _ : state) {
        char* const pszParent = g_path_get_dirname(kPath);
        benchmark::DoNotOptimize(pszParent);
        g_free(pszParent);
    }
}
// There is no path object: to the library's two jobs this is the one.
BENCHMARK(ParentGlib)->Name("make a path and go up|GLib");
BENCHMARK(ParentGlib)->Name("the directory of a path|GLib");

void SystemGlib(benchmark::State& state) {
    for (auto _ : state) {
        char* const pszSystem = g_filename_from_utf8(kPath, -1, nullptr, nullptr, nullptr);
        benchmark::DoNotOptimize(pszSystem);
        g_free(pszSystem);
    }
}
BENCHMARK(SystemGlib)->Name("a path's system form|GLib");
#endif

#ifdef KALVOREN_PEER_POCO
void JoinPoco(benchmark::State& state) {
    const Poco::Path directory = Poco::Path::forDirectory(kPathDirectory);
    for (auto _ : state) {
        const Poco::Path joined(directory, kPathName);
        benchmark::DoNotOptimize(joined);
    }
}
BENCHMARK(JoinPoco)->Name("join a directory and a name|POCO");

void SplitPoco(benchmark::State& state) {
    const Poco::Path path(kPath);
    for (auto _ : state) {
        const std::string name = path.getFileName();
        benchmark::DoNotOptimize(name.data());
    }
}
BENCHMARK(SplitPoco)->Name("the name at a path's end|POCO");

void StemPoco(benchmark::State& state) {
    const Poco::Path path(kPath);
    for (auto _ : state) {
        const std::string name = path.getBaseName();
        benchmark::DoNotOptimize(name.data());
    }
}
BENCHMARK(StemPoco)->Name("the name without its extension|POCO");

void DirectoryPoco(benchmark::State& state) {
    const Poco::Path path(kPath);
    for (auto _ : state) {
        const std::string directory = path.parent().toString();
        benchmark::DoNotOptimize(directory.data());
    }
}
BENCHMARK(DirectoryPoco)->Name("the directory of a path|POCO");

void ParentPoco(benchmark::State& state) {
    for (auto _ : state) {
        const Poco::Path parent = Poco::Path(kPath).parent();
        benchmark::DoNotOptimize(parent);
    }
}
BENCHMARK(ParentPoco)->Name("make a path and go up|POCO");

void ExtensionPoco(benchmark::State& state) {
    const Poco::Path path(kPath);
    for (auto _ : state) {
        const std::string extension = path.getExtension();
        benchmark::DoNotOptimize(extension.data());
    }
}
BENCHMARK(ExtensionPoco)->Name("a path's extension|POCO");

void SystemPoco(benchmark::State& state) {
    const Poco::Path path(kPath);
    for (auto _ : state) {
        const std::string system = path.toString();
        benchmark::DoNotOptimize(system.data());
    }
}
BENCHMARK(SystemPoco)->Name("a path's system form|POCO");
#endif

}  // namespace
