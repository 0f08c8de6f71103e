#include "Lookup.h"

#include <KPropertyList.h>

#include <charconv>
#include <cstring>
#include <system_error>

namespace kplist {

namespace {

/// The number that a text is; -1 when it is none.
int NumberOf(const char* pszText) {
    const char* const pEnd = pszText + std::strlen(pszText);
    int nNumber = -1;
    const std::from_chars_result result = std::from_chars(pszText, pEnd, nNumber);
    return result.ec == std::errc() && result.ptr == pEnd ? nNumber : -1;
}

KPropertyNode** FindOne(KPropertyNode& node, const char* pszKey) {
    KList<KString> path;
    path.Add(KString(pszKey));
    KPropertyNode** const ppFound = node.GetNode(path);
    return ppFound != nullptr ? ppFound : node.GetNode(NumberOf(pszKey));
}

}  // namespace

KPropertyNode* Find(KPropertyNode& root, const char* const* pKeys, int nKeys, int& nMissing) {
    KPropertyNode* pNode = &root;
    for (int i = 0; i < nKeys; ++i) {
        KPropertyNode** const ppFound = FindOne(*pNode, pKeys[i]);
        if (ppFound == nullptr) {
            nMissing = i;
            return nullptr;
        }
        pNode = *ppFound;
    }
    return pNode;
}

}  // namespace kplist
