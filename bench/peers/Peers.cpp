#include "Peers.h"

#include <fcntl.h>
#include <malloc.h>
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
/// environment it is another one, and standard error goes to the file KALVOREN_BENCH_LOG or else to /dev/null, where lines
/// cost the least.
void SetLevel() {
    g_eDebugLevel = kNoLines;
    if (const char* const pszLevel = std::getenv("KALVOREN_BENCH_LEVEL")) {
        g_eDebugLevel = std::atoi(pszLevel);
        const char* const pszLog = std::getenv("KALVOREN_BENCH_LOG");
        const int nLog = open(pszLog != nullptr ? pszLog : "/dev/null", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
        dup2(nLog, STDERR_FILENO);
        close(nLog);
    }
}

/// What a job frees stays with the process. Otherwise libc gives the kernel memory back, or not, by where the last block
/// happens to lie, and a job that is done over and over measures that rather than itself: it differs by a factor between two
/// runs. How much a job holds at once is measured by itself.
void KeepMemory() {
    constexpr int kAlways = 1 << 30;
    constexpr int kLargestInHeap = 32 << 20;
    mallopt(M_TRIM_THRESHOLD, kAlways);
    mallopt(M_MMAP_THRESHOLD, kLargestInHeap);
}

}  // namespace

bool HasLibcsOwnSettings() {
    return std::getenv("KALVOREN_BENCH_LIBCS_OWN") != nullptr;
}

int main(int argc, char** argv) {
    if (!HasLibcsOwnSettings()) {
        KeepMemory();
    }
    SetLevel();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
