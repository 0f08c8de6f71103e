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

}  // namespace support

#endif  // KALVOREN_TESTS_TEXTS_H
