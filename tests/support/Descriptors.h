// The descriptors that this process has open.
#ifndef KALVOREN_TESTS_DESCRIPTORS_H
#define KALVOREN_TESTS_DESCRIPTORS_H

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace support {

inline bool IsOpen(int nDescriptor) {
    return fcntl(nDescriptor, F_GETFD) != -1;
}

inline std::vector<int> OpenDescriptors() {
    std::vector<int> descriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int nDescriptor = std::stoi(entry.path().filename().string());
        if (IsOpen(nDescriptor)) {
            descriptors.push_back(nDescriptor);
        }
    }
    // The one of the walk itself is closed by now.
    descriptors.erase(std::remove_if(descriptors.begin(), descriptors.end(), [](int n) { return !IsOpen(n); }),
                      descriptors.end());
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

}  // namespace support

#endif  // KALVOREN_TESTS_DESCRIPTORS_H
