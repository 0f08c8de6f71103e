// What the library's start-up costs a process: memory and time. Started by scripts/footprint, which compiles it against
// the library's private fields, and with FOOTPRINT_BASELINE without the library, for comparison.
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#ifndef FOOTPRINT_BASELINE
#include "Kalvoren.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

const std::uintptr_t kPage = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));

std::uintptr_t PageOf(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p) & ~(kPage - 1);
}

/// The number of pages of a range that are in memory.
std::size_t CountResident(std::uintptr_t nStart, std::uintptr_t nEnd) {
    std::vector<unsigned char> pages((nEnd - nStart) / kPage);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): addresses are counted in pages.
    if (pages.empty() || mincore(reinterpret_cast<void*>(nStart), nEnd - nStart, pages.data()) != 0) {
        return 0;
    }
    std::size_t nResident = 0;
    for (const unsigned char nPage : pages) {
        nResident += nPage & 1U;
    }
    return nResident;
}

/// The pages in memory of everything that the process may write: data of program and libraries, heap, stack. Pages of
/// data that were never written count too; what was written while the program was loaded and is read-only since does not.
/// Unlike the kernel's own sum it can be had in an emulator.
std::size_t CountWritable() {
    std::FILE* const pMaps = std::fopen("/proc/self/maps", "r");
    if (pMaps == nullptr) {
        return 0;
    }
    std::size_t nPages = 0;
    char szLine[512];
    while (std::fgets(szLine, sizeof szLine, pMaps) != nullptr) {
        std::uintptr_t nStart = 0;
        std::uintptr_t nEnd = 0;
        char szRights[5] = "";
        if (std::sscanf(szLine, "%" SCNxPTR "-%" SCNxPTR " %4s", &nStart, &nEnd, szRights) == 3 && szRights[1] == 'w') {
            nPages += CountResident(nStart, nEnd);
        }
    }
    std::fclose(pMaps);
    return nPages;
}

/// A line of the kernel's own sum over the process, in KiB; -1 where the system has none.
long KernelSum(const char* pszName) {
    std::FILE* const pSums = std::fopen("/proc/self/smaps_rollup", "r");
    long nKilobytes = -1;
    char szLine[256];
    while (pSums != nullptr && std::fgets(szLine, sizeof szLine, pSums) != nullptr) {
        if (std::strncmp(szLine, pszName, std::strlen(pszName)) == 0) {
            std::sscanf(szLine + std::strlen(pszName), " %ld", &nKilobytes);
        }
    }
    if (pSums != nullptr) {
        std::fclose(pSums);
    }
    return nKilobytes;
}

struct Memory {
    std::size_t nWritable = CountWritable() * kPage / 1024;
    long nPrivate = KernelSum("Anonymous:");
    long nResident = KernelSum("Rss:");
};

/// @p fgEmulated leaves out what the kernel knows: that would be the emulator's.
void Print(const char* pszWhen, const Memory& memory, bool fgEmulated) {
    std::printf("%-22s %4zu KiB in writable mappings", pszWhen, memory.nWritable);
    if (!fgEmulated) {
        std::printf(", %4ld KiB private, %5ld KiB resident", memory.nPrivate, memory.nResident);
    }
    std::printf("\n");
}

#ifndef FOOTPRINT_BASELINE

/// The registry's three tables of places; what finds a place lies behind them.
constexpr std::size_t kRegistryTables = std::size_t{3} * 102400 * sizeof(void*);

/// Prints how many pages of a block are in memory: the first, of libc's blocks, holds libc's note of the block's size, and of
/// the registry that it is there.
bool IsUntouched(const char* pszName, const void* pBlock, std::size_t nSize) {
    const std::uintptr_t nStart = PageOf(pBlock);
    const std::uintptr_t nEnd = PageOf(static_cast<const char*>(pBlock) + nSize + kPage - 1);
    const std::size_t nResident = CountResident(nStart, nEnd);
    std::printf("%-22s %zu of %zu pages in memory\n", pszName, nResident, (nEnd - nStart) / kPage);
    return nResident <= 1;
}

double Microseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

#endif

}  // namespace

int main(int argc, char** argv) {
    const bool fgEmulated = argc > 1 && std::strcmp(argv[1], "--emulated") == 0;
    // Once before, so that the program's own pages and libc's are there already.
    { const Memory warm; }
    const Memory before;
#ifdef FOOTPRINT_BASELINE
    Print("without the library", before, fgEmulated);
    return 0;
#else
    g_eDebugLevel = 3;  // no line is written, so that no buffer has to be touched
    const Clock::time_point start = Clock::now();
    KEntry::Init(argc, argv);
    const Clock::duration first = Clock::now() - start;
    const Memory after;
    Print("loaded", before, fgEmulated);
    Print("started", after, fgEmulated);

    bool fgUntouched = IsUntouched("log: text buffer", g_pDebugBuffer, malloc_usable_size(g_pDebugBuffer));
    fgUntouched = IsUntouched("log: format buffer", g_pDebugFormat, malloc_usable_size(g_pDebugFormat)) && fgUntouched;
    fgUntouched = IsUntouched("allocation registry", KMem::g_pMemInfoContainer, kRegistryTables) && fgUntouched;
    KEntry::Deinit();

    const int nRounds = 200;
    const Clock::time_point rounds = Clock::now();
    for (int i = 0; i < nRounds; ++i) {
        KEntry::Init(argc, argv);
        KEntry::Deinit();
    }
    const Clock::duration all = Clock::now() - rounds;
    std::printf("%-22s %.0f us; with shut-down, mean of %d: %.0f us\n", "first start-up", Microseconds(first), nRounds,
                Microseconds(all) / nRounds);

    const bool fgSmall = after.nWritable < 200;
    if (!fgUntouched) {
        std::printf("A block is in memory before it is used.\n");
    }
    if (!fgSmall) {
        std::printf("200 KiB or more are in writable mappings after start-up.\n");
    }
    return fgUntouched && fgSmall ? 0 : 1;
#endif
}
