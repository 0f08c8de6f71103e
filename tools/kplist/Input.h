// What is read from a file: its text and its tree.
#ifndef KALVOREN_KPLIST_INPUT_H
#define KALVOREN_KPLIST_INPUT_H

#include <string>

class KPropertyNode;

namespace kplist {

/// Reads a regular file into @p text. On failure returns false, with the reason for a message in @p reason.
bool ReadText(const char* pszFile, std::string& text, std::string& reason);

/// A text as the library's reader takes it.
struct ReadTree {
    KPropertyNode* pRoot;  ///< Lives as long as the program.
    bool fgWhole;          ///< Whether the reader came to the end of the text.
};

ReadTree ParseText(const std::string& text);

}  // namespace kplist

#endif  // KALVOREN_KPLIST_INPUT_H
