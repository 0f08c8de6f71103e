// What a piece of code writes to the log, in a form that can be compared as a whole.
#ifndef KALVOREN_TESTS_LOGLINES_H
#define KALVOREN_TESTS_LOGLINES_H

#include <algorithm>
#include <string>
#include <utility>

#include "support/Support.h"

namespace support {

/// The text with "Log: " in place of each log line's stamp.
inline std::string WithoutStamps(std::string text) {
    const std::string stamp = "Log[0000/00/00 00:00:00:000000 0]";
    const auto isDigit = [](char ch) { return ch >= '0' && ch <= '9'; };
    const auto fits = [&](char expected, char ch) { return expected == '0' ? isDigit(ch) : expected == ch; };
    auto found = text.begin();
    while (found = std::search(found, text.end(), stamp.begin(), stamp.end(),
                               [&](char ch, char expected) { return fits(expected, ch); }),
           found != text.end()) {
        const auto at = found - text.begin();
        text.replace(static_cast<std::size_t>(at), stamp.size(), "Log: ");
        found = text.begin() + at;
    }
    return text;
}

/// What a piece of code wrote to standard error, with "Log: " in place of each log line's stamp.
template <typename Code>
std::string LogOf(Code&& code) {
    return WithoutStamps(StderrOf(std::forward<Code>(code)));
}

}  // namespace support

#endif  // KALVOREN_TESTS_LOGLINES_H
