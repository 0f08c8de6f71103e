// What the registry of allocations has, as its report tells.
#ifndef KALVOREN_TESTS_REGISTRY_H
#define KALVOREN_TESTS_REGISTRY_H

#include <cstddef>
#include <string>
#include <vector>

#include "KMem.h"
#include "LogLines.h"
#include "Support.h"

namespace support {

/// What the leak report says about blocks, in order: their sizes. The registry is gone afterwards.
inline std::vector<std::size_t> ReportedSizes() {
    const ScopedChecks checks(false);
    const std::string report = LogOf([] { KMem::Deinit(); });
    const std::string label = " Size:";
    std::vector<std::size_t> sizes;
    for (std::size_t n = report.find(label); n != std::string::npos; n = report.find(label, n + 1)) {
        sizes.push_back(std::stoul(report.substr(n + label.size())));
    }
    return sizes;
}

/// Forgets what other tests left in the registry.
inline void StartWithAnEmptyRegistry() {
    const ScopedChecks checks(false);
    const ScopedLevel level(3);
    KMem::Deinit();
}

}  // namespace support

#endif  // KALVOREN_TESTS_REGISTRY_H
