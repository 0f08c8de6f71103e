// Finds a node by a path of keys and numbers.
#ifndef KALVOREN_KPLIST_LOOKUP_H
#define KALVOREN_KPLIST_LOOKUP_H

class KPropertyNode;

namespace kplist {

/// Goes down from a node by @p pKeys, @p nKeys of them. Each names a key or, where no key has that name, is a number that
/// counts the children from 0. Returns the node; or null, with the index of the one that is not there in @p nMissing.
KPropertyNode* Find(KPropertyNode& root, const char* const* pKeys, int nKeys, int& nMissing);

}  // namespace kplist

#endif  // KALVOREN_KPLIST_LOOKUP_H
