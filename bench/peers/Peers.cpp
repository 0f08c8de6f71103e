#include "Peers.h"

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

int main(int argc, char** argv) {
    // Logging is measured by its own jobs alone.
    g_eDebugLevel = 3;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
