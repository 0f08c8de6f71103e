// The tree of a property list as a text, and its whole end.
#ifndef KALVOREN_TESTS_PROPERTYTREE_H
#define KALVOREN_TESTS_PROPERTYTREE_H

#include <string>
#include <vector>

#include "KPropertyList.h"
#include "support/Texts.h"

namespace support {

/// The children of a node as a text, "key(a){string(x)integer(5)}key(b)". Recurses: not for trees of any depth.
inline std::string DumpChildren(KPropertyNode& node) {
    static const char* const names[] = {"none", "key", "boolean", "data", "date", "string", "integer"};
    std::string text;
    const int nCount = node.GetNodeCount();
    for (int i = 0; i < nCount; ++i) {
        KPropertyNode* const pChild = *node.GetNode(i);
        if (pChild == nullptr) {
            text += "null";
            continue;
        }
        text += names[pChild->GetValueType()];
        text += "(" + TextOf(pChild->GetStringValue()) + ")";
        if (pChild->GetNodeCount() > 0) {
            text += "{" + DumpChildren(*pChild) + "}";
        }
    }
    return text;
}

/// Takes the first child out of a node and returns it.
inline KPropertyNode* TakeFirstChild(KPropertyNode& node) {
    KPropertyNode* const pChild = *node.GetNode(0);
    node.RemoveNode(0);
    return pChild;
}

/// Destroys everything that hangs under a node, also what its destructor would leave. Returns how many nodes there were.
inline std::size_t DestroyChildren(KPropertyNode& node) {
    std::size_t nDestroyed = 0;
    std::vector<KPropertyNode*> waiting;
    const auto takeChildren = [&waiting](KPropertyNode& parent) {
        for (int nLeft = parent.GetNodeCount(); nLeft > 0; --nLeft) {
            waiting.push_back(TakeFirstChild(parent));
        }
    };
    takeChildren(node);
    while (!waiting.empty()) {
        KPropertyNode* const pNode = waiting.back();
        waiting.pop_back();
        if (pNode != nullptr) {
            takeChildren(*pNode);
        }
        delete pNode;
        ++nDestroyed;
    }
    return nDestroyed;
}

/// A node, or the root of a tree, that leaves nothing behind.
class Tree {
 public:
    Tree() = default;
    ~Tree() { DestroyChildren(m_Root); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    KPropertyNode& Root() { return m_Root; }
    std::string Dump() { return DumpChildren(m_Root); }

 private:
    KPropertyNode m_Root;
};

/// A property list, read from a text or a file, that leaves nothing behind.
class ReadList {
 public:
    template <typename Source>
    explicit ReadList(const Source& source) : m_List(source) {}
    ~ReadList() { DestroyChildren(*m_List.GetRoot()); }
    ReadList(const ReadList&) = delete;
    ReadList& operator=(const ReadList&) = delete;

    KPropertyList& List() { return m_List; }
    KPropertyNode& Root() { return *m_List.GetRoot(); }
    std::string Dump() { return DumpChildren(Root()); }

 private:
    KPropertyList m_List;
};

}  // namespace support

#endif  // KALVOREN_TESTS_PROPERTYTREE_H
