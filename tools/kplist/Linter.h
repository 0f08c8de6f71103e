// Says what the library's reader makes of a text, where that is not what it looks like.
#ifndef KALVOREN_KPLIST_LINTER_H
#define KALVOREN_KPLIST_LINTER_H

#include <cstddef>
#include <string>
#include <vector>

namespace kplist {

enum class Severity {
    Warning,  ///< Everything is read, if not as it looks.
    Error     ///< The reader stops, loses something, or makes something up.
};

struct Finding {
    std::size_t nLine;    ///< From 1.
    std::size_t nColumn;  ///< From 1, in bytes.
    Severity eSeverity;
    std::string message;
};

struct Report {
    std::vector<Finding> findings;  ///< In the order of their places.
    std::size_t nEnd;               ///< Where the reader stops: the size of the text where it takes the whole.
};

/// Goes over a text as KPropertyList does and reports what it stumbles over. Behind the place where the reader stops it goes
/// on as if that had been mended.
Report Lint(const std::string& text);

}  // namespace kplist

#endif  // KALVOREN_KPLIST_LINTER_H
