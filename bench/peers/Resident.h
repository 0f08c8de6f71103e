// How much memory a process has.
#ifndef KALVOREN_BENCH_RESIDENT_H
#define KALVOREN_BENCH_RESIDENT_H

#include <cstdio>

/// The process's memory that is there, in KiB, as the kernel adds it up; -1 where it does not.
inline long ResidentKilobytes() {
    std::FILE* const pSums = std::fopen("/proc/self/smaps_rollup", "r");
    long nKilobytes = -1;
    char szLine[256];
    while (pSums != nullptr && std::fgets(szLine, sizeof szLine, pSums) != nullptr) {
        if (std::sscanf(szLine, "Rss: %ld", &nKilobytes) == 1) {
            break;
        }
    }
    if (pSums != nullptr) {
        std::fclose(pSums);
    }
    return nKilobytes;
}

#endif  // KALVOREN_BENCH_RESIDENT_H
