// Starts the library and stops it.
#include <cstdlib>

#include "KDebug.h"
#include "KEntry.h"
#include "Start.h"

int main(int argc, char** argv) {
    const char* const pszLevel = std::getenv("KALVOREN_BENCH_LEVEL");
    g_eDebugLevel = pszLevel != nullptr ? std::atoi(pszLevel) : 3;
    return StartAndStop(
        argc, argv, [&] { KEntry::Init(argc, argv); }, [] { KEntry::Deinit(); });
}
