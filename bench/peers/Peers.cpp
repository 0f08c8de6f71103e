#include "Peers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "KAssert.h"
#include "KDebug.h"

ScratchDirectory::ScratchDirectory() : m_Path(std::filesystem::temp_directory_path() / "kalvoren-bench-XXXXXX") {
    if (mkdtemp(m_Path.data()) == nullptr) {
        std::perror(m_Path.c_str());
        std::abort();
    }
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

namespace {

/// The level that the jobs run at: nothing is logged but by the jobs that are about it. With KALVOREN_BENCH_LEVEL in the
/// environment it is another one, and standard error goes to /dev/null, so that the lines cost what they cost at least.
void SetLevel() {
    g_eDebugLevel = kNoLines;
    if (const char* const pszLevel = std::getenv("KALVOREN_BENCH_LEVEL")) {
        g_eDebugLevel = std::atoi(pszLevel);
        const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nNull, STDERR_FILENO);
        close(nNull);
    }
}

}  // namespace

int main(int argc, char** argv) {
    SetLevel();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
