// What the property-list reader makes of a text, and what it does not.
#ifndef KALVOREN_TOOLS_KPLIST_LINTER_H
#define KALVOREN_TOOLS_KPLIST_LINTER_H

#include <cstddef>
#include <string>
#include <vector>

/// Something in a text that the reader does not take as it was meant.
struct Finding {
    int nLine;         ///< From 1.
    int nColumn;       ///< From 1, in bytes.
    bool fgError;      ///< The reader stops, or takes it for something else. Otherwise it is only worth a look.
    std::string text;  ///< What, and what the reader does about it.
};

struct LintReport {
    std::vector<Finding> findings;  ///< In the order of the text.
    std::size_t nStop;              ///< Where the reader stops: the size of the text when it reads all of it.
};

/// Goes over a text as the reader does. Behind the place where the reader stops it goes on, to find what else is wrong.
LintReport Lint(const std::string& text);

#endif  // KALVOREN_TOOLS_KPLIST_LINTER_H
