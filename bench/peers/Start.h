// What the programs share that start a library and stop it.
#ifndef KALVOREN_BENCH_START_H
#define KALVOREN_BENCH_START_H

#include <cstdio>
#include <cstring>

#include "Resident.h"

/// A program's main function. With the argument --memory it prints the memory before the library is started, while it is,
/// and while it is started once more.
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
    start();
    const long nAgain = ResidentKilobytes();
    stop();
    std::printf("%ld %ld %ld\n", nBefore, nStarted, nAgain);
    return 0;
}

#endif  // KALVOREN_BENCH_START_H
