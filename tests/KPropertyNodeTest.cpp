#include <climits>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "KPropertyList.h"
#include "support/FailingMalloc.h"
#include "support/HeapUse.h"
#include "support/Interpose.h"
#include "support/MutexCalls.h"
#include "support/PropertyTree.h"
#include "support/Support.h"
#include "support/Texts.h"

using support::DumpChildren;
using support::ScopedChecks;
using support::TextOf;
using support::Tree;

namespace {

/// The blocks given back while it exists.
class FreedBlocks {
 public:
    FreedBlocks() { g_pRecorder = this; }
    ~FreedBlocks() { g_pRecorder = nullptr; }
    FreedBlocks(const FreedBlocks&) = delete;
    FreedBlocks& operator=(const FreedBlocks&) = delete;

    static void Note(const void* p) {
        FreedBlocks* const pRecorder = g_pRecorder;
        if (pRecorder != nullptr) {
            g_pRecorder = nullptr;  // The set itself gives blocks back.
            pRecorder->m_Blocks.insert(p);
            g_pRecorder = pRecorder;
        }
    }

    bool Has(const void* p) const { return m_Blocks.count(p) != 0; }

 private:
    static FreedBlocks* g_pRecorder;

    std::unordered_set<const void*> m_Blocks;
};

FreedBlocks* FreedBlocks::g_pRecorder = nullptr;

void* Allocate(std::size_t nSize) noexcept {
    return std::malloc(nSize > 0 ? nSize : 1);
}

// Not inlined, or GCC takes it for a free() of what came from operator new.
__attribute__((noinline)) void Free(void* p) noexcept {
    FreedBlocks::Note(p);
    std::free(p);
}

}  // namespace

// This program's own allocation, which the library uses too: a node says nothing when it is destroyed.
void* operator new(std::size_t nSize) {
    void* const p = Allocate(nSize);
    if (p == nullptr) {
        std::abort();
    }
    return p;
}
void* operator new[](std::size_t nSize) {
    return operator new(nSize);
}
void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
    return Allocate(nSize);
}
void* operator new[](std::size_t nSize, const std::nothrow_t&) noexcept {
    return Allocate(nSize);
}
void operator delete(void* p) noexcept {
    Free(p);
}
void operator delete[](void* p) noexcept {
    Free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    Free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    Free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    Free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    Free(p);
}

namespace {

constexpr int kInvalidDate = -86400;

/// A new node. It belongs to the node it is added to.
KPropertyNode* NewNode(KPropertyNodeType eType, const char* pszText) {
    KPropertyNode* const pNode = new KPropertyNode();
    pNode->Set(eType, KString(pszText));
    return pNode;
}

/// A new node, added to another.
KPropertyNode& Add(KPropertyNode& parent, KPropertyNodeType eType, const char* pszText) {
    KPropertyNode* const pNode = NewNode(eType, pszText);
    parent.AddNode(pNode);
    return *pNode;
}

KPropertyNode& AddKey(KPropertyNode& parent, const char* pszKey) {
    return Add(parent, PROPERTY_KEY, pszKey);
}

/// The node found under a path of keys; null when there is none.
KPropertyNode* Find(KPropertyNode& node, const std::vector<const char*>& keys) {
    KList<KString> path;
    for (const char* const pszKey : keys) {
        path.Add(KString(pszKey));
    }
    KPropertyNode** const ppFound = node.GetNode(path);
    EXPECT_EQ(path.GetCount(), static_cast<int>(keys.size())) << "the path is left as it is";
    return ppFound != nullptr ? *ppFound : nullptr;
}

}  // namespace

// ------------------------------------------------------------------------------------------------------ Type and text

TEST(KPropertyNodeTest, TypesHaveFixedNumbers) {
    EXPECT_EQ(PROPERTY_NONE, 0);
    EXPECT_EQ(PROPERTY_KEY, 1);
    EXPECT_EQ(PROPERTY_BOOLEAN, 2);
    EXPECT_EQ(PROPERTY_DATA, 3);
    EXPECT_EQ(PROPERTY_DATE, 4);
    EXPECT_EQ(PROPERTY_STRING, 5);
    EXPECT_EQ(PROPERTY_INTEGER, 6);
    EXPECT_EQ(sizeof(KPropertyNodeType), sizeof(int));
}

TEST(KPropertyNodeTest, IsMadeWithoutTypeTextAndChildren) {
    KPropertyNode node;
    EXPECT_EQ(node.GetValueType(), PROPERTY_NONE);
    EXPECT_EQ(TextOf(node.GetStringValue()), "");
    EXPECT_EQ(node.GetNodeCount(), 0);
}

TEST(KPropertyNodeTest, GivesItsTextByThreeNamesWhateverItsType) {
    KPropertyNode node;
    for (int nType = PROPERTY_NONE; nType <= PROPERTY_INTEGER; ++nType) {
        const std::string text = "text " + std::to_string(nType);
        EXPECT_TRUE(node.Set(static_cast<KPropertyNodeType>(nType), KString(text.c_str())));
        EXPECT_EQ(node.GetValueType(), nType);
        EXPECT_EQ(TextOf(node.GetKey()), text);
        EXPECT_EQ(TextOf(node.GetStringValue()), text);
        EXPECT_EQ(TextOf(node.GetDataValue()), text);
    }
}

TEST(KPropertyNodeTest, GivesCopiesOfItsText) {
    KPropertyNode node;
    node.Set(PROPERTY_STRING, KString("text"));
    KString copy = node.GetStringValue();
    copy += "!";
    EXPECT_EQ(TextOf(node.GetStringValue()), "text");
    node.Set(PROPERTY_STRING, node.GetStringValue());
    EXPECT_EQ(TextOf(node.GetStringValue()), "text");
}

TEST(KPropertyNodeTest, KeepsNulsWithinItsText) {
    KPropertyNode node;
    node.Set(PROPERTY_DATA, KString("a\0b", 3));
    EXPECT_EQ(TextOf(node.GetDataValue()), std::string("a\0b", 3));
}

TEST(KPropertyNodeTest, NeverDeliversANumber) {
    KPropertyNode node;
    for (const char* const pszText : {"42", "0", "-1", "-42", "x", ""}) {
        node.Set(PROPERTY_INTEGER, KString(pszText));
        EXPECT_EQ(node.GetNumberValue(), -1) << pszText;
    }
}

TEST(KPropertyNodeTest, IsTrueWhenItsTextStartsWithTrueInAnyCase) {
    KPropertyNode node;
    for (const char* const pszText : {"TRUE", "true", "Truest", "tRuE", "TRUE false"}) {
        node.Set(PROPERTY_BOOLEAN, KString(pszText));
        EXPECT_TRUE(node.GetBooleanValue()) << pszText;
    }
    for (const char* const pszText : {"FALSE", "false", " TRUE", "untrue", "TRU", "1", "yes", ""}) {
        node.Set(PROPERTY_STRING, KString(pszText));
        EXPECT_FALSE(node.GetBooleanValue()) << pszText;
    }
}

// -------------------------------------------------------------------------------------------------------------- Dates

namespace {

struct DateCase {
    const char* pszText;
    int nSeconds;
};

KTime DateOf(const char* pszText) {
    KPropertyNode node;
    node.Set(PROPERTY_DATE, KString(pszText));
    return node.GetDateValue();
}

}  // namespace

TEST(KPropertyNodeTest, ReadsADateInUtc) {
    const DateCase cases[] = {
        {"2010-05-06T07:08:09Z", 1273129689},
        {"1970-01-01T00:00:00Z", 0},
        {"2000-02-29T23:59:59Z", 951868799},
        {"2038-01-19T03:14:07Z", INT_MAX},
        // The fields need not be full.
        {"2010-5-6T7:8:9Z", 1273129689},
        {" 2010-05-06T07:08:09Z", 1273129689},
        // What follows the seconds is not looked at.
        {"2010-05-06T07:08:09", 1273129689},
        {"2010-05-06T07:08:09+09:00", 1273129689},
        {"2010-05-06T07:08:099", 1273129689},
        // Fields outside the calendar add their value.
        {"2010-05-06T24:00:00Z", 1273190400},
        {"2010-05-00T00:00:00Z", 1272585600},
        {"2010-99-01T00:00:00Z", 1293840000},
    };
    for (const DateCase& test : cases) {
        const KTime date = DateOf(test.pszText);
        EXPECT_EQ(date.sec, test.nSeconds) << test.pszText;
        EXPECT_EQ(date.usec, 0);
        EXPECT_EQ(date.gmt15Min, 0);
        EXPECT_EQ(date.dst15Min, 0);
    }
}

TEST(KPropertyNodeTest, AnythingElseIsAnInvalidDate) {
    for (const char* const pszText :
         {"yesterday", "", "2010", "2010-05-06", "2010-05-06 07:08:09Z", "2010-05-06T07:08Z", "2010-05-06T07:08:Z",
          "2010/05/06T07:08:09Z", "20100-05-06T07:08:09Z", "2010-05-006T07:08:09Z", "2010-05-06t07:08:09Z"}) {
        const KTime date = DateOf(pszText);
        EXPECT_EQ(date.sec, kInvalidDate) << pszText;
        EXPECT_EQ(date.usec, 0);
        EXPECT_FALSE(date.IsValid());
    }
}

TEST(KPropertyNodeTest, AgreesWithLibcOnDates) {
    std::mt19937 random(20100506);
    std::uniform_int_distribution<int> seconds(0, INT_MAX);
    for (int i = 0; i < 2000; ++i) {
        const int nSeconds = seconds(random);
        const std::time_t time = nSeconds;
        std::tm fields = {};
        ASSERT_NE(gmtime_r(&time, &fields), nullptr);
        char szText[32];
        ASSERT_GT(std::strftime(szText, sizeof(szText), "%Y-%m-%dT%H:%M:%SZ", &fields), 0u);
        EXPECT_EQ(DateOf(szText).sec, nSeconds) << szText;
    }
}

// ----------------------------------------------------------------------------------------------------------- Children

TEST(KPropertyNodeTest, HoldsChildrenInTheirOrder) {
    Tree tree;
    AddKey(tree.Root(), "a");
    Add(tree.Root(), PROPERTY_STRING, "x");
    AddKey(tree.Root(), "b");
    EXPECT_EQ(tree.Dump(), "key(a)string(x)key(b)");
    EXPECT_EQ(tree.Root().GetNodeCount(), 3);
}

TEST(KPropertyNodeTest, GivesThePlaceOfAChild) {
    Tree tree;
    KPropertyNode& a = AddKey(tree.Root(), "a");
    KPropertyNode& b = AddKey(tree.Root(), "b");
    ASSERT_NE(tree.Root().GetNode(0), nullptr);
    EXPECT_EQ(*tree.Root().GetNode(0), &a);
    EXPECT_EQ(*tree.Root().GetNode(1), &b);
    EXPECT_EQ(tree.Root().GetNode(1), tree.Root().GetNode(1));
    for (const int nIndex : {-1, 2, INT_MIN, INT_MAX}) {
        EXPECT_EQ(tree.Root().GetNode(nIndex), nullptr) << nIndex;
    }
}

TEST(KPropertyNodeTest, ThePlaceOfAChildCanTakeAnother) {
    Tree tree;
    AddKey(tree.Root(), "a");
    KPropertyNode** const ppPlace = tree.Root().GetNode(0);
    delete *ppPlace;
    *ppPlace = NewNode(PROPERTY_STRING, "x");
    EXPECT_EQ(tree.Dump(), "string(x)");
}

TEST(KPropertyNodeTest, ANullChildTakesAPlace) {
    Tree tree;
    EXPECT_TRUE(tree.Root().AddNode(nullptr));
    AddKey(tree.Root(), "a");
    EXPECT_EQ(tree.Root().GetNodeCount(), 2);
    ASSERT_NE(tree.Root().GetNode(0), nullptr);
    EXPECT_EQ(*tree.Root().GetNode(0), nullptr);
}

TEST(KPropertyNodeTest, AddingANodeFailsAnInvertedCheck) {
    KPropertyNode node;
    KPropertyNode child;
    EXPECT_CHECK_FAILS(node.AddNode(&child), "pNode == __null", "src/KPropertyList",
                       "bool KPropertyNode::AddNode(KPropertyNode*)");
}

TEST(KPropertyNodeTest, AddingNoNodeFailsNoCheck) {
    const ScopedChecks checks(true);
    KPropertyNode node;
    EXPECT_TRUE(node.AddNode(nullptr));
    EXPECT_EQ(node.GetNodeCount(), 1);
}

TEST(KPropertyNodeTest, RemovingAChildDoesNotDestroyIt) {
    Tree tree;
    AddKey(tree.Root(), "a");
    KPropertyNode* const pRemoved = &AddKey(tree.Root(), "b");
    AddKey(tree.Root(), "c");
    {
        const FreedBlocks freed;
        EXPECT_TRUE(tree.Root().RemoveNode(1));
        EXPECT_FALSE(freed.Has(pRemoved));
    }
    EXPECT_EQ(tree.Dump(), "key(a)key(c)");
    EXPECT_EQ(TextOf(pRemoved->GetKey()), "b");
    delete pRemoved;
}

TEST(KPropertyNodeTest, RemovingAnIndexOutsideDoesNothing) {
    Tree tree;
    EXPECT_TRUE(tree.Root().RemoveNode(0));
    AddKey(tree.Root(), "a");
    for (const int nIndex : {-1, 1, INT_MIN, INT_MAX}) {
        EXPECT_TRUE(tree.Root().RemoveNode(nIndex)) << nIndex;
    }
    EXPECT_EQ(tree.Dump(), "key(a)");
}

// ---------------------------------------------------------------------------------------------------------- Key paths

TEST(KPropertyNodeTest, FindsAKeyByItsPath) {
    Tree tree;
    KPropertyNode& a = AddKey(tree.Root(), "a");
    KPropertyNode& b = AddKey(a, "b");
    KPropertyNode& c = AddKey(b, "c");
    EXPECT_EQ(Find(tree.Root(), {"a"}), &a);
    EXPECT_EQ(Find(tree.Root(), {"a", "b"}), &b);
    EXPECT_EQ(Find(tree.Root(), {"a", "b", "c"}), &c);
    EXPECT_EQ(Find(a, {"b", "c"}), &c);
}

TEST(KPropertyNodeTest, FindsThePlaceInTheListOfChildren) {
    Tree tree;
    KPropertyNode& a = AddKey(tree.Root(), "a");
    AddKey(a, "x");
    AddKey(a, "b");
    KList<KString> path;
    path.Add(KString("a"));
    path.Add(KString("b"));
    EXPECT_EQ(tree.Root().GetNode(path), a.GetNode(1));
}

TEST(KPropertyNodeTest, FindsNothingWhereThereIsNoSuchKey) {
    Tree tree;
    KPropertyNode& a = AddKey(tree.Root(), "a");
    AddKey(a, "b");
    for (const std::vector<const char*>& path :
         std::vector<std::vector<const char*>>{{}, {"b"}, {"A"}, {"a", "B"}, {"a", "b", "c"}, {"b", "a"}, {"aa"}}) {
        EXPECT_EQ(Find(tree.Root(), path), nullptr);
    }
    EXPECT_EQ(Find(tree.Root(), {"a", ""}), nullptr);
}

TEST(KPropertyNodeTest, FindsKeysAloneAndSkipsNullChildren) {
    Tree tree;
    tree.Root().AddNode(nullptr);
    Add(tree.Root(), PROPERTY_STRING, "a");
    KPropertyNode& other = Add(tree.Root(), PROPERTY_NONE, "a");
    AddKey(other, "b");
    EXPECT_EQ(Find(tree.Root(), {"a"}), nullptr);
    KPropertyNode& a = AddKey(tree.Root(), "a");
    EXPECT_EQ(Find(tree.Root(), {"a"}), &a);
    EXPECT_EQ(Find(tree.Root(), {"a", "b"}), nullptr);
}

TEST(KPropertyNodeTest, TheFirstKeyOfANameDecides) {
    Tree tree;
    KPropertyNode& first = AddKey(tree.Root(), "a");
    KPropertyNode& second = AddKey(tree.Root(), "a");
    AddKey(first, "x");
    AddKey(second, "y");
    EXPECT_EQ(Find(tree.Root(), {"a"}), &first);
    EXPECT_NE(Find(tree.Root(), {"a", "x"}), nullptr);
    EXPECT_EQ(Find(tree.Root(), {"a", "y"}), nullptr) << "later siblings are not looked at";
}

TEST(KPropertyNodeTest, AnEmptyKeyIsNeverFound) {
    Tree tree;
    AddKey(tree.Root(), "");
    EXPECT_EQ(Find(tree.Root(), {""}), nullptr);
}

TEST(KPropertyNodeTest, FindsAKeyAHundredThousandLevelsDown) {
    constexpr int kDepth = 100000;
    Tree tree;
    KPropertyNode* pNode = &tree.Root();
    KList<KString> path;
    {
        KList<KString>::Appender keys(path);
        for (int i = 0; i < kDepth; ++i) {
            pNode = &AddKey(*pNode, "k");
            keys.Add(KString("k"));
        }
    }
    KPropertyNode** const ppFound = tree.Root().GetNode(path);
    ASSERT_NE(ppFound, nullptr);
    EXPECT_EQ(*ppFound, pNode);
}

// -------------------------------------------------------------------------------------------------------- Destruction

TEST(KPropertyNodeTest, DestroysTheFirstHalfOfItsChildrenRoundedUp) {
    for (int nChildren = 0; nChildren <= 9; ++nChildren) {
        std::vector<KPropertyNode*> children;
        KPropertyNode* const pNode = new KPropertyNode();
        for (int i = 0; i < nChildren; ++i) {
            children.push_back(&AddKey(*pNode, "k"));
        }
        const FreedBlocks freed;
        delete pNode;
        for (int i = 0; i < nChildren; ++i) {
            const bool fgDestroyed = freed.Has(children[static_cast<std::size_t>(i)]);
            EXPECT_EQ(fgDestroyed, i < (nChildren + 1) / 2) << "child " << i << " of " << nChildren;
            if (!fgDestroyed) {
                delete children[static_cast<std::size_t>(i)];
            }
        }
    }
}

TEST(KPropertyNodeTest, WhatItDestroysLeavesHalfOfItsOwnChildrenToo) {
    KPropertyNode* const pNode = new KPropertyNode();
    KPropertyNode* const pDestroyed = &AddKey(*pNode, "a");
    KPropertyNode* const pLeft = &AddKey(*pNode, "b");
    KPropertyNode* const pDestroyedToo = &AddKey(*pDestroyed, "c");
    KPropertyNode* const pLeftToo = &AddKey(*pDestroyed, "d");
    KPropertyNode* const pChildOfLeft = &AddKey(*pLeft, "e");
    const FreedBlocks freed;
    delete pNode;
    EXPECT_TRUE(freed.Has(pDestroyed));
    EXPECT_TRUE(freed.Has(pDestroyedToo));
    EXPECT_FALSE(freed.Has(pLeftToo));
    EXPECT_FALSE(freed.Has(pLeft));
    EXPECT_FALSE(freed.Has(pChildOfLeft));
    EXPECT_EQ(DumpChildren(*pLeft), "key(e)") << "what is left is whole";
    delete pLeft;
    delete pLeftToo;
}

TEST(KPropertyNodeTest, WhereMemoryIsLackingItDestroysAllTheSame) {
    const ScopedChecks checks(false);
    EXPECT_EQ(support::BytesLeftBy([] {
                  auto* const pNode = new KPropertyNode();
                  AddKey(AddKey(AddKey(*pNode, "a"), "b"), "c");
                  const support::ScopedNoMalloc noMemory;
                  delete pNode;
              }),
              0u);
}

TEST(KPropertyNodeTest, ANullChildCountsWhenChildrenAreDestroyed) {
    KPropertyNode* const pNode = new KPropertyNode();
    pNode->AddNode(nullptr);
    KPropertyNode* const pDestroyed = &AddKey(*pNode, "a");
    KPropertyNode* const pLeft = &AddKey(*pNode, "b");
    const FreedBlocks freed;
    delete pNode;
    EXPECT_TRUE(freed.Has(pDestroyed));
    EXPECT_FALSE(freed.Has(pLeft));
    delete pLeft;
}

TEST(KPropertyNodeTest, DestroysATreeOfAnyDepth) {
    constexpr int kDepth = 300000;
    KPropertyNode* const pTop = new KPropertyNode();
    KPropertyNode* pNode = pTop;
    for (int i = 0; i < kDepth; ++i) {
        pNode = &AddKey(*pNode, "k");
    }
    const FreedBlocks freed;
    delete pTop;
    EXPECT_TRUE(freed.Has(pNode));
}

// ------------------------------------------------------------------------------------------------------------ Threads

TEST(KPropertyNodeTest, EveryChangeHoldsTheNodesLockAndTakesTheListsInsideIt) {
    const ScopedChecks checks(false);
    std::optional<KPropertyNode> node(std::in_place);
    KPropertyNode child;
    KPropertyList list{KString()};
    KString text("<dict></dict>");
    struct Case {
        const char* pszName;
        std::function<void()> run;
        int nLocks;
    };
    const Case cases[] = {
        {"Set", [&] { node->Set(PROPERTY_STRING, "text"); }, 1},
        {"AddNode", [&] { node->AddNode(&child); }, 2},
        {"RemoveNode", [&] { node->RemoveNode(0); }, 2},
        // The children of one list become those of another.
        {"Parshing", [&] { list.Parshing(text, &*node); }, 3},
        {"the destructor", [&] { node.reset(); }, 2},
    };
    for (const Case& each : cases) {
        const support::ScopedCalls calls;
        each.run();
        EXPECT_EQ(support::MostLocksAtOnce(calls.Names()), each.nLocks) << each.pszName;
    }
}

TEST(KPropertyNodeTest, TwoThreadsCanAddChildrenAtOnce) {
    constexpr int kChildren = 300;
    Tree tree;
    const auto add = [&tree](const char* pszText) {
        for (int i = 0; i < kChildren; ++i) {
            Add(tree.Root(), PROPERTY_STRING, pszText);
        }
    };
    std::thread other(add, "b");
    add("a");
    other.join();
    EXPECT_EQ(tree.Root().GetNodeCount(), 2 * kChildren);
}

TEST(KPropertyNodeTest, TwoThreadsCanSetOneNodeAtOnce) {
    constexpr int kTimes = 300;
    KPropertyNode node;
    const auto set = [&node](KPropertyNodeType eType, const char* pszText) {
        for (int i = 0; i < kTimes; ++i) {
            node.Set(eType, KString(pszText));
        }
    };
    std::thread other(set, PROPERTY_STRING, "string");
    set(PROPERTY_KEY, "key");
    other.join();
    EXPECT_EQ(TextOf(node.GetStringValue()), node.GetValueType() == PROPERTY_KEY ? "key" : "string");
}
