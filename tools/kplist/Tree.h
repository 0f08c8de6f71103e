// Property-list nodes as text.
#ifndef KALVOREN_TOOLS_KPLIST_TREE_H
#define KALVOREN_TOOLS_KPLIST_TREE_H

#include <KPropertyList.h>

#include <string>

/// Prints a node's children, and what hangs under them, one node a line, indented by their depth. The values of a key that
/// has several are numbered.
void PrintTree(KPropertyNode& root, bool fgColor);

/// What the library's accessors make of a value: a boolean is true or false, a date is shown in UTC, anything else is its
/// text.
std::string ValueOf(KPropertyNode& node);

/// Goes down from a node by keys, or by numbers (from 0) where there is no such key. Null when there is nothing.
KPropertyNode* FindNode(KPropertyNode& root, int nKeys, const char* const* ppszKeys);

#endif  // KALVOREN_TOOLS_KPLIST_TREE_H
