// What the programs share that start a library and stop it.
#ifndef KALVOREN_BENCH_START_H
#define KALVOREN_BENCH_START_H

#include <cstdio>
#include <cstring>

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

/// A program's main function. With the argument --memory it prints the memory before the library is started, while it is,
/// after it was stopped, and while it is started once more.
template <class Start, class Stop>
int StartAndStop(int argc, char** argv, Start start, Stop stop) {
    if (argc != 2 || std::strcmp(argv[1], "--memory") != 0) {
        start();
        stop();
        return 0;
    }
    ResidentKilobytes();  // What looking costs is there from now on.
    const long nBefore = ResidentKilobytes();
    start();
    const long nStarted = ResidentKilobytes();
    stop();
    const long nStopped = ResidentKilobytes();
    start();
    const long nAgain = ResidentKilobytes();
    stop();
    std::printf("%ld %ld %ld %ld\n", nBefore, nStarted, nStopped, nAgain);
    return 0;
}

#endif  // KALVOREN_BENCH_START_H
