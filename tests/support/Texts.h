// The library's texts as the standard library's, and what is in a text.
#ifndef KALVOREN_TESTS_TEXTS_H
#define KALVOREN_TESTS_TEXTS_H

#include <cstddef>
#include <string>

#include "KPath.h"
#include "KString.h"

namespace support {

/// All bytes of a text, NULs included.
inline std::string TextOf(const KString& text) {
    return std::string(text.GetBuffer(), static_cast<std::size_t>(text.Length()));
}

inline std::string TextOf(const KPath& path) {
    return TextOf(path.GetPath());
}

/// How often a text stands in another, each time behind the last.
inline int CountOf(const std::string& text, const std::string& sought) {
    int nCount = 0;
    for (auto n = text.find(sought); n != std::string::npos; n = text.find(sought, n + sought.size())) {
        ++nCount;
    }
    return nCount;
}

inline std::string Repeated(const std::string& text, std::size_t nTimes) {
    std::string repeated;
    repeated.reserve(text.size() * nTimes);
    for (std::size_t i = 0; i < nTimes; ++i) {
        repeated += text;
    }
    return repeated;
}

}  // namespace support

#endif  // KALVOREN_TESTS_TEXTS_H
