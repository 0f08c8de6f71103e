// Gives a target files that are kept: the main function where the fuzzer brings none.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Fuzz.h"

namespace {

std::vector<std::filesystem::path> FilesBelow(const char* pszDirectory) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(pszDirectory)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void Replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::cout << path.string() << std::endl;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

/// Takes directories. A directory that is not there has no files; that none has any is a mistake.
int main(int argc, char** argv) {
    std::size_t nFiles = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            continue;
        }
        for (const auto& path : FilesBelow(argv[i])) {
            Replay(path);
            ++nFiles;
        }
    }
    // Nothing at all is an input too.
    LLVMFuzzerTestOneInput(nullptr, 0);
    std::cout << nFiles << " files" << std::endl;
    return nFiles > 0 ? 0 : 1;
}
