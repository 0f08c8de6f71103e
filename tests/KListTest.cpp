#include "KList.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstring>
#include <deque>
#include <random>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "KPath.h"
#include "KString.h"
#include "support/HeapUse.h"
#include "support/LittleMemory.h"
#include "support/Support.h"
#include "support/Threads.h"

namespace {

/// An element that needs no more than the list asks for, and keeps count of what is done to it.
class Tracked {
 public:
    Tracked() : m_nValue(-1) { ++s_nAlive; }
    explicit Tracked(int nValue) : m_nValue(nValue) { ++s_nAlive; }
    Tracked(const Tracked&) = delete;
    Tracked& operator=(const Tracked& other) {
        m_nValue = other.m_nValue;
        ++m_nAssignments;
        return *this;
    }
    ~Tracked() { --s_nAlive; }

    int Value() const { return m_nValue; }
    int Assignments() const { return m_nAssignments; }

    static int Alive() { return s_nAlive; }

 private:
    static int s_nAlive;

    int m_nValue;
    int m_nAssignments = 0;
};

int Tracked::s_nAlive = 0;

std::vector<int> Values(const KList<int>& list) {
    std::vector<int> values;
    KList<int>::Reader reader(list);
    while (const int* const pValue = reader.Next()) {
        values.push_back(*pValue);
    }
    return values;
}

void Fill(KList<int>& list, const std::vector<int>& values) {
    for (const int nValue : values) {
        ASSERT_TRUE(list.Add(nValue));
    }
}

/// A list's fields as they lie in memory, before the mutex.
struct Image {
    void* pVirtualTable;
    void* pHead;
    int nCount;
};

template <typename T>
Image ImageOf(const KList<T>& list) {
    Image image;
    std::memcpy(&image, static_cast<const void*>(&list), sizeof(image));
    return image;
}

/// Makes a list believe that it has another count, as if its chain had been cut.
template <typename T>
void ClaimCount(KList<T>& list, int nCount) {
    std::memcpy(reinterpret_cast<unsigned char*>(&list) + offsetof(Image, nCount), &nCount, sizeof(nCount));
}

}  // namespace

// -------------------------------------------------------------------------------------------------------- The object

TEST(KListTest, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<KList<int>>::value);
    EXPECT_TRUE(std::has_virtual_destructor<KList<KString>>::value);
}

TEST(KListTest, HoldsItsHeadThenItsCountThenItsMutex) {
    KList<int> list;
    EXPECT_EQ(ImageOf(list).pHead, nullptr);
    EXPECT_EQ(ImageOf(list).nCount, 0);
    Fill(list, {10, 20, 30});
    EXPECT_EQ(ImageOf(list).pHead, list[0]) << "the value stands at the start of its element";
    EXPECT_EQ(ImageOf(list).nCount, 3);
    EXPECT_LE(offsetof(Image, nCount) + sizeof(int) + sizeof(KMutex), sizeof(list));
}

TEST(KListTest, IsEmptyAtFirst) {
    const KList<int> list;
    EXPECT_EQ(list.GetCount(), 0);
    EXPECT_EQ(list[0], nullptr);
    EXPECT_EQ(KList<int>::Reader(list).Next(), nullptr);
}

TEST(KListTest, TheDestructorDestroysTheElements) {
    ASSERT_EQ(Tracked::Alive(), 0);
    {
        KList<Tracked> list;
        for (int i = 0; i < 5; ++i) {
            list.Add(Tracked(i));
        }
        EXPECT_EQ(Tracked::Alive(), 5);
    }
    EXPECT_EQ(Tracked::Alive(), 0);
}

TEST(KListTest, DeletesThroughAPointer) {
    KList<Tracked>* const pList = new KList<Tracked>();
    pList->Add(Tracked(1));
    delete pList;
    EXPECT_EQ(Tracked::Alive(), 0);
}

// --------------------------------------------------------------------------------------------------------- Adding

TEST(KListTest, AddAppendsAtTheEnd) {
    KList<int> list;
    for (int i = 1; i <= 4; ++i) {
        EXPECT_TRUE(list.Add(i * 10));
        EXPECT_EQ(list.GetCount(), i);
    }
    EXPECT_EQ(Values(list), (std::vector<int>{10, 20, 30, 40}));
}

TEST(KListTest, AddMakesADefaultElementAndAssignsToItOnce) {
    KList<Tracked> list;
    EXPECT_TRUE(list.Add(Tracked(7)));
    ASSERT_NE(list[0], nullptr);
    EXPECT_EQ(list[0]->Value(), 7);
    EXPECT_EQ(list[0]->Assignments(), 1);
    EXPECT_EQ(Tracked::Alive(), 1);
}

TEST(KListTest, AnElementCanBeAddedToItsOwnList) {
    KList<KString> list;
    list.Add("first");
    EXPECT_TRUE(list.Add(*list[0]));
    ASSERT_EQ(list.GetCount(), 2);
    EXPECT_TRUE(*list[1] == "first");
}

TEST(KListTest, ValuesAreCopies) {
    KList<KString> list;
    KString text("before");
    list.Add(text);
    text = "after";
    EXPECT_TRUE(*list[0] == "before");
}

TEST(KListTest, AddingAfterTheLastElementIsGoneStartsAgain) {
    KList<int> list;
    Fill(list, {1});
    int nOut = 0;
    ASSERT_TRUE(list.Pop(nOut, -1));
    Fill(list, {2, 3});
    EXPECT_EQ(Values(list), (std::vector<int>{2, 3}));
}

// --------------------------------------------------------------------------------------------------------- Getting

TEST(KListTest, GetAssignsTheElementAndANegativeIndexMeansTheFirst) {
    struct Case {
        int nIndex;
        bool fgFound;
        int nValue;
    };
    const Case cases[] = {
        {0, true, 10},  {1, true, 20},  {2, true, 30},  {3, false, 0},       {4, false, 0},
        {-1, true, 10}, {-2, true, 10}, {-3, true, 10}, {INT_MIN, true, 10}, {INT_MAX, false, 0},
    };
    KList<int> list;
    Fill(list, {10, 20, 30});
    for (const Case& test : cases) {
        int nOut = 0;
        EXPECT_EQ(list.Get(nOut, test.nIndex), test.fgFound) << test.nIndex;
        EXPECT_EQ(nOut, test.nValue) << test.nIndex;
    }
    EXPECT_EQ(list.GetCount(), 3);
}

TEST(KListTest, GetFromAnEmptyListIsFalseAndWritesNothing) {
    const KList<int> list;
    for (const int nIndex : {-1, 0, 1, INT_MIN, INT_MAX}) {
        int nOut = 7;
        EXPECT_FALSE(list.Get(nOut, nIndex)) << nIndex;
        EXPECT_EQ(nOut, 7) << nIndex;
    }
}

TEST(KListTest, AnIndexGivesTheAddressOfTheElement) {
    KList<int> list;
    Fill(list, {10, 20, 30});
    const KList<int>& readOnly = list;
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(readOnly[i], nullptr) << i;
        EXPECT_EQ(*readOnly[i], (i + 1) * 10);
    }
    *readOnly[1] = 21;
    list.Add(40);
    EXPECT_EQ(Values(list), (std::vector<int>{10, 21, 30, 40}));
}

TEST(KListTest, AnIndexOutsideGivesNull) {
    KList<int> list;
    Fill(list, {10, 20, 30});
    for (const int nIndex : {-1, -2, 3, 4, INT_MIN, INT_MAX}) {
        EXPECT_EQ(list[nIndex], nullptr) << nIndex;
    }
}

TEST(KListTest, AnAddressStaysGoodWhileTheElementIsInTheList) {
    KList<KString> list;
    list.Add("a");
    list.Add("b");
    list.Add("c");
    const KString* const pText = list[1];
    KString out;
    list.Pop(out, 0);
    list.Pop(out, 1);
    list.Add("d");
    EXPECT_EQ(list[0], pText);
    EXPECT_TRUE(*pText == "b");
}

TEST(KListTest, AfterAnIndexTheLockIsNotHeld) {
    KList<int> list;
    Fill(list, {10});
    int* const pFirst = list[0];
    EXPECT_EQ(list[5], nullptr);
    list.Add(20);  // would block if either had kept it
    EXPECT_EQ(*pFirst, 10);
}

// --------------------------------------------------------------------------------------------------------- Removing

TEST(KListTest, PopHandsOutTheElementAndRemovesIt) {
    struct Case {
        int nIndex;
        bool fgRemoved;
        int nValue;
        std::vector<int> rest;
    };
    const Case cases[] = {
        {-1, true, 10, {20, 30}},      {0, true, 10, {20, 30}},           {1, true, 20, {10, 30}},
        {2, true, 30, {10, 20}},       {3, false, 7, {10, 20, 30}},       {-5, true, 10, {20, 30}},
        {INT_MIN, true, 10, {20, 30}}, {INT_MAX, false, 7, {10, 20, 30}},
    };
    for (const Case& test : cases) {
        KList<int> list;
        Fill(list, {10, 20, 30});
        int nOut = 7;
        EXPECT_EQ(list.Pop(nOut, test.nIndex), test.fgRemoved) << test.nIndex;
        EXPECT_EQ(nOut, test.nValue) << test.nIndex;
        EXPECT_EQ(Values(list), test.rest) << test.nIndex;
        EXPECT_EQ(list.GetCount(), static_cast<int>(test.rest.size())) << test.nIndex;
        list.Add(40);
        EXPECT_EQ(*list[list.GetCount() - 1], 40) << "the chain still ends where it should";
    }
}

TEST(KListTest, PopFromAnEmptyListIsFalseAndWritesNothing) {
    KList<int> list;
    for (const int nIndex : {-1, 0, 1, INT_MIN, INT_MAX}) {
        int nOut = 7;
        EXPECT_FALSE(list.Pop(nOut, nIndex)) << nIndex;
        EXPECT_EQ(nOut, 7) << nIndex;
    }
    EXPECT_EQ(list.GetCount(), 0);
}

TEST(KListTest, PopDestroysTheElement) {
    KList<Tracked> list;
    list.Add(Tracked(1));
    list.Add(Tracked(2));
    Tracked out;
    EXPECT_TRUE(list.Pop(out, 1));
    EXPECT_EQ(out.Value(), 2);
    EXPECT_EQ(out.Assignments(), 1);
    EXPECT_EQ(Tracked::Alive(), 2) << "the one left and the one handed out";
    EXPECT_TRUE(list.Pop(out, -1));
    EXPECT_EQ(Tracked::Alive(), 1);
    EXPECT_EQ(list.GetCount(), 0);
}

TEST(KListTest, ResetRemovesAllElements) {
    KList<Tracked> list;
    list.Reset();
    for (int i = 0; i < 3; ++i) {
        list.Add(Tracked(i));
    }
    list.Reset();
    EXPECT_EQ(Tracked::Alive(), 0);
    EXPECT_EQ(list.GetCount(), 0);
    EXPECT_EQ(ImageOf(list).pHead, nullptr);
    list.Add(Tracked(9));
    EXPECT_EQ(list[0]->Value(), 9);
    EXPECT_EQ(list.GetCount(), 1);
}

TEST(KListTest, StoredPointersAreNeverDeleted) {
    ASSERT_EQ(Tracked::Alive(), 0);
    Tracked first(1);
    Tracked second(2);
    Tracked third(3);
    {
        KList<Tracked*> list;
        for (Tracked* const p : {&first, &second, &third}) {
            list.Add(p);
        }
        Tracked* pOut = nullptr;
        EXPECT_TRUE(list.Pop(pOut, 1));
        EXPECT_EQ(pOut, &second);
        list.Reset();
        EXPECT_EQ(Tracked::Alive(), 3);
        list.Add(&third);
    }
    EXPECT_EQ(Tracked::Alive(), 3);
    EXPECT_EQ(third.Value(), 3);
}

// ------------------------------------------------------------------------------------------- A chain that ends early

TEST(KListTest, WhenTheChainEndsEarlyGetIsTrueAndWritesNothing) {
    KList<int> list;
    Fill(list, {10, 20});
    ClaimCount(list, 5);
    int nOut = 7;
    EXPECT_TRUE(list.Get(nOut, 1));
    EXPECT_EQ(nOut, 20);
    nOut = 7;
    for (const int nIndex : {2, 3, 4}) {
        EXPECT_TRUE(list.Get(nOut, nIndex)) << nIndex;
        EXPECT_EQ(nOut, 7) << nIndex;
        EXPECT_EQ(list[nIndex], nullptr) << nIndex;
    }
    EXPECT_FALSE(list.Get(nOut, 5));
}

TEST(KListTest, WhenTheChainEndsEarlyPopLowersTheCountAndRemovesNothing) {
    KList<int> list;
    Fill(list, {10, 20});
    ClaimCount(list, 5);
    int nOut = 7;
    EXPECT_TRUE(list.Pop(nOut, 2));
    EXPECT_EQ(nOut, 7);
    EXPECT_EQ(list.GetCount(), 4);
    EXPECT_TRUE(list.Pop(nOut, 3));
    EXPECT_EQ(list.GetCount(), 3);
    EXPECT_EQ(Values(list), (std::vector<int>{10, 20}));
}

TEST(KListTest, WhenTheChainEndsEarlyArrangeGetsTheElementsThatAreThere) {
    const auto reverse = [](int** ppFirst, int nCount) { std::reverse(ppFirst, ppFirst + nCount); };
    KList<int> list;
    Fill(list, {10, 20, 30});
    ClaimCount(list, 5);
    EXPECT_TRUE(list.Arrange(reverse));
    EXPECT_EQ(list.GetCount(), 5);
    EXPECT_EQ(Values(list), (std::vector<int>{30, 20, 10}));
    // No more than are counted, where there are more.
    ClaimCount(list, 2);
    EXPECT_TRUE(list.Arrange(reverse));
    ClaimCount(list, 3);
    EXPECT_EQ(Values(list), (std::vector<int>{20, 30, 10}));
}

TEST(KListTest, WhenTheChainEndsEarlyResetLeavesAnEmptyList) {
    KList<int> list;
    Fill(list, {10, 20});
    ClaimCount(list, 5);
    list.Reset();
    EXPECT_EQ(list.GetCount(), 0);
    EXPECT_EQ(ImageOf(list).pHead, nullptr);
}

TEST(KListTest, ACountWithoutAChainIsNoElement) {
    KList<int> list;
    ClaimCount(list, 3);
    int nOut = 7;
    EXPECT_FALSE(list.Get(nOut, 0));
    EXPECT_FALSE(list.Get(nOut, -1));
    EXPECT_FALSE(list.Pop(nOut, 0));
    EXPECT_EQ(list[0], nullptr);
    EXPECT_EQ(nOut, 7);
    EXPECT_EQ(list.GetCount(), 3);
}

TEST(KListTest, WhatTheChainHoldsBeyondTheCountIsNoElement) {
    KList<int> list;
    Fill(list, {1, 2, 3});
    ClaimCount(list, 2);
    int nOut = 7;
    EXPECT_FALSE(list.Get(nOut, 2));
    EXPECT_FALSE(list.Pop(nOut, 2));
    EXPECT_EQ(list[2], nullptr);
    EXPECT_NE(list[1], nullptr);
    EXPECT_EQ(nOut, 7);
    ClaimCount(list, 3);  // or the third element would be left behind
}

TEST(KListTest, ResetRemovesNoMoreThanTheCountSays) {
    const int nBefore = Tracked::Alive();
    KList<Tracked> list;
    list.Add(Tracked(1));
    list.Add(Tracked(2));
    const Image image = ImageOf(list);
    ClaimCount(list, 0);
    list.Reset();
    EXPECT_EQ(Tracked::Alive(), nBefore + 2);
    EXPECT_EQ(ImageOf(list).pHead, nullptr);
    // Gives the elements back to the list, which would be left behind otherwise.
    std::memcpy(reinterpret_cast<unsigned char*>(&list), &image, sizeof(image));
    list.Reset();
    EXPECT_EQ(Tracked::Alive(), nBefore);
}

// --------------------------------------------------------------------------------------------------------- Copying

TEST(KListTest, ACopyHasElementsOfItsOwn) {
    KList<int> list;
    Fill(list, {1, 2, 3});
    KList<int> copy(list);
    EXPECT_EQ(Values(copy), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(copy.GetCount(), 3);
    EXPECT_NE(copy[0], list[0]);
    copy.Add(4);
    *copy[0] = 9;
    EXPECT_EQ(Values(list), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(Values(copy), (std::vector<int>{9, 2, 3, 4}));
}

TEST(KListTest, ACopyOfAnEmptyListIsEmpty) {
    const KList<int> list;
    KList<int> copy(list);
    EXPECT_EQ(copy.GetCount(), 0);
    copy.Add(1);
    EXPECT_EQ(Values(copy), std::vector<int>{1});
}

TEST(KListTest, AssignmentReplacesTheElementsByCopies) {
    ASSERT_EQ(Tracked::Alive(), 0);
    KList<Tracked> list;
    list.Add(Tracked(1));
    list.Add(Tracked(2));
    KList<Tracked> target;
    target.Add(Tracked(7));
    KList<Tracked>& result = target = list;
    EXPECT_EQ(&result, &target);
    EXPECT_EQ(Tracked::Alive(), 4);
    ASSERT_EQ(target.GetCount(), 2);
    EXPECT_EQ(target[0]->Value(), 1);
    EXPECT_EQ(target[1]->Value(), 2);
    EXPECT_NE(target[0], list[0]);
    target = KList<Tracked>();
    EXPECT_EQ(target.GetCount(), 0);
    EXPECT_EQ(Tracked::Alive(), 2);
}

TEST(KListTest, AssigningAListToItselfKeepsItsElements) {
    KList<int> list;
    Fill(list, {1, 2});
    const int* const pFirst = list[0];
    const KList<int>& same = list;
    list = same;
    EXPECT_EQ(Values(list), (std::vector<int>{1, 2}));
    EXPECT_EQ(list[0], pFirst);
}

// ------------------------------------------------------------------------------------------------ Reader and Appender

TEST(KListTest, AReaderGoesFromTheFirstToTheLastAndStaysAtTheEnd) {
    KList<int> list;
    Fill(list, {10, 20, 30});
    KList<int>::Reader reader(list);
    for (const int nExpected : {10, 20, 30}) {
        int* const pValue = reader.Next();
        ASSERT_NE(pValue, nullptr);
        EXPECT_EQ(*pValue, nExpected);
    }
    EXPECT_EQ(reader.Next(), nullptr);
    EXPECT_EQ(reader.Next(), nullptr);
}

TEST(KListTest, AReaderGivesTheElementsThemselves) {
    KList<int> list;
    Fill(list, {10, 20});
    {
        KList<int>::Reader reader(list);
        while (int* const pValue = reader.Next()) {
            ++*pValue;
        }
    }
    EXPECT_EQ(Values(list), (std::vector<int>{11, 21}));
}

TEST(KListTest, AnAppenderAppendsBehindWhatIsThere) {
    KList<int> list;
    Fill(list, {1, 2});
    {
        KList<int>::Appender appender(list);
        EXPECT_TRUE(appender.Add(3));
        int* const pValue = appender.Add();
        ASSERT_NE(pValue, nullptr);
        EXPECT_EQ(*pValue, 0) << "made as by default";
        *pValue = 4;
    }
    EXPECT_EQ(list.GetCount(), 4);
    list.Add(5);
    EXPECT_EQ(Values(list), (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST(KListTest, AnAppenderThatAppendsNothingChangesNothing) {
    KList<int> list;
    { KList<int>::Appender appender(list); }
    EXPECT_EQ(list.GetCount(), 0);
    Fill(list, {1});
    { KList<int>::Appender appender(list); }
    EXPECT_EQ(Values(list), std::vector<int>{1});
}

TEST(KListTest, AnAppenderAssignsToADefaultElementOnce) {
    KList<Tracked> list;
    {
        KList<Tracked>::Appender appender(list);
        EXPECT_TRUE(appender.Add(Tracked(3)));
        EXPECT_EQ(appender.Add()->Value(), -1);
    }
    EXPECT_EQ(list[0]->Assignments(), 1);
    EXPECT_EQ(list[1]->Assignments(), 0);
}

TEST(KListTest, AppendersWithAnEndGoOnWhereTheLastOneStopped) {
    KList<int> list;
    Fill(list, {1});
    KList<int>::End end;
    {
        KList<int>::Appender appender(list, end);
        appender.Add(2);
        appender.Add(3);
    }
    {
        KList<int>::Appender appender(list, end);
        appender.Add(4);
    }
    EXPECT_EQ(Values(list), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(list.GetCount(), 4);
}

TEST(KListTest, AnAppenderNotesTheLinkBehindTheLastElement) {
    KList<int> list;
    Fill(list, {1, 2});
    KList<int>::End end;
    {
        KList<int>::Appender appender(list, end);
        appender.Add(3);
    }
    void** ppLink = nullptr;
    static_assert(sizeof(end) == sizeof(ppLink), "an End holds where the link is");
    std::memcpy(&ppLink, &end, sizeof(ppLink));
    ASSERT_NE(ppLink, nullptr) << "without it every Appender would go through the whole list";
    const auto linked = [ppLink] {
        void* pElement = nullptr;
        std::memcpy(&pElement, ppLink, sizeof(pElement));
        return pElement;
    };
    EXPECT_EQ(linked(), nullptr);
    list.Add(4);
    EXPECT_EQ(linked(), list[3]) << "the value stands at the start of its element";
}

TEST(KListTest, AnEndOfAnEmptyListCanBeGoneOnFrom) {
    KList<int> list;
    KList<int>::End end;
    { KList<int>::Appender appender(list, end); }
    {
        KList<int>::Appender appender(list, end);
        appender.Add(1);
    }
    EXPECT_EQ(Values(list), std::vector<int>{1});
}

TEST(KListTest, AnAppenderWithAnEndFindsWhatWasAddedInBetween) {
    KList<int> list;
    KList<int>::End end;
    {
        KList<int>::Appender appender(list, end);
        appender.Add(1);
    }
    Fill(list, {2, 3});
    {
        KList<int>::Appender appender(list, end);
        appender.Add(4);
    }
    EXPECT_EQ(Values(list), (std::vector<int>{1, 2, 3, 4}));
}

TEST(KListTest, AnAppenderTakesTheElementsOfAnotherListAsTheyAre) {
    KList<Tracked> list;
    list.Add(Tracked(1));
    KList<Tracked> other;
    other.Add(Tracked(2));
    other.Add(Tracked(3));
    const Tracked* const pTwo = other[0];
    const Tracked* const pThree = other[1];
    {
        KList<Tracked>::Appender appender(list);
        appender.Take(other);
        EXPECT_TRUE(appender.Add(Tracked(4)));
    }
    ASSERT_EQ(list.GetCount(), 4);
    EXPECT_EQ(list[1], pTwo);
    EXPECT_EQ(list[2], pThree);
    EXPECT_EQ(list[2]->Assignments(), 1);
    EXPECT_EQ(list[3]->Value(), 4);
    EXPECT_EQ(other.GetCount(), 0);
    EXPECT_EQ(ImageOf(other).pHead, nullptr);
    other.Add(Tracked(5));
    EXPECT_EQ(other.GetCount(), 1);
    EXPECT_EQ(list.GetCount(), 4);
}

TEST(KListTest, TakingFromAnEmptyListChangesNothing) {
    KList<int> list;
    KList<int> other;
    KList<int>::Appender(list).Take(other);
    EXPECT_EQ(list.GetCount(), 0);
    Fill(list, {1, 2});
    KList<int>::Appender(list).Take(other);
    EXPECT_EQ(Values(list), (std::vector<int>{1, 2}));
    EXPECT_EQ(list.GetCount(), 2);
    EXPECT_EQ(other.GetCount(), 0);
}

TEST(KListTest, WhatHoldsTheLockCannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible<KList<int>::Reader>::value);
    EXPECT_FALSE(std::is_copy_assignable<KList<int>::Reader>::value);
    EXPECT_FALSE(std::is_copy_constructible<KList<int>::Appender>::value);
    EXPECT_FALSE(std::is_copy_assignable<KList<int>::Appender>::value);
}

TEST(KListTest, AReaderOfOneListCanFeedAnAppenderOfAnother) {
    KList<KString> from;
    from.Add("a");
    from.Add("b");
    KList<KString> to;
    to.Add("z");
    {
        KList<KString>::Reader reader(from);
        KList<KString>::Appender appender(to);
        while (const KString* const pText = reader.Next()) {
            EXPECT_TRUE(appender.Add(*pText));
        }
    }
    ASSERT_EQ(to.GetCount(), 3);
    EXPECT_TRUE(*to[2] == "b");
}

// --------------------------------------------------------------------------------------------------------- Arranging

TEST(KListTest, ArrangePutsTheElementsInAnotherOrderWithoutCopyingThem) {
    KList<Tracked> list;
    for (const int nValue : {3, 1, 2}) {
        list.Add(Tracked(nValue));
    }
    const Tracked* const pThree = list[0];
    int nSeen = 0;
    EXPECT_TRUE(list.Arrange([&](Tracked** ppFirst, int nCount) {
        nSeen = nCount;
        std::sort(ppFirst, ppFirst + nCount,
                  [](const Tracked* p, const Tracked* q) { return p->Value() < q->Value(); });
    }));
    EXPECT_EQ(nSeen, 3);
    ASSERT_EQ(list.GetCount(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(list[i]->Value(), i + 1);
        EXPECT_EQ(list[i]->Assignments(), 1);
    }
    EXPECT_EQ(list[2], pThree);
    list.Add(Tracked(4));
    EXPECT_EQ(list[3]->Value(), 4);
}

TEST(KListTest, ArrangeGetsTheElementsInListOrder) {
    KList<int> list;
    Fill(list, {5, 6, 7});
    std::vector<int> seen;
    EXPECT_TRUE(list.Arrange([&](int** ppFirst, int nCount) {
        for (int i = 0; i < nCount; ++i) {
            seen.push_back(*ppFirst[i]);
        }
    }));
    EXPECT_EQ(seen, (std::vector<int>{5, 6, 7}));
    EXPECT_EQ(Values(list), (std::vector<int>{5, 6, 7}));
}

TEST(KListTest, ArrangingAnEmptyListDoesNothing) {
    KList<int> list;
    EXPECT_TRUE(list.Arrange([](int**, int nCount) { EXPECT_EQ(nCount, 0); }));
    EXPECT_EQ(list.GetCount(), 0);
    list.Add(1);
    EXPECT_EQ(Values(list), std::vector<int>{1});
}

// ------------------------------------------------------------------------------------------------ Lack of memory

TEST(KListTest, WhereMemoryIsLackingAddAndArrangeAreFalseAndTheListStaysAsItIs) {
    KList<int> list;
    Fill(list, {1, 2, 3});
    const auto reverse = [](int** ppFirst, int nCount) { std::reverse(ppFirst, ppFirst + nCount); };
    const int nStep = support::InLittleMemory([&] {
        constexpr int kEnough = 100000000;
        int nAdded = 0;
        {
            KList<int>::Appender appender(list);
            while (nAdded < kEnough && appender.Add(nAdded)) {
                ++nAdded;
            }
            if (nAdded == kEnough || appender.Add() != nullptr) {
                return 1;
            }
        }
        if (list.Add(4) || list.GetCount() != 3 + nAdded) {
            return 2;
        }
        if (list.Arrange(reverse)) {
            return 3;
        }
        return *list[2] == 3 ? 0 : 4;
    });
    EXPECT_TRUE(list.Arrange(reverse));
    EXPECT_EQ(Values(list), (std::vector<int>{3, 2, 1}));
    if (nStep == support::kMemoryCannotBeLimited) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    EXPECT_EQ(nStep, 0);
}

/// A value whose constructor throws when it is told to.
struct Moody {
    Moody() {
        if (s_fgThrows) {
            throw std::runtime_error("not today");
        }
    }
    static inline bool s_fgThrows = false;
};

TEST(KListTest, AValueThatThrowsWhileItIsMadeLeavesNoElementAndNoLock) {
    KList<Moody> list;
    const Moody value;
    list.Add(value);
    EXPECT_EQ(support::BytesLeftBy([&] {
                  Moody::s_fgThrows = true;
                  EXPECT_THROW(list.Add(value), std::runtime_error);
                  Moody::s_fgThrows = false;
              }),
              0u);
    EXPECT_EQ(list.GetCount(), 1);
    EXPECT_TRUE(list.Add(value));
}

// ---------------------------------------------------------------------------------------------------- Instantiations

TEST(KListTest, HoldsTextsAndPaths) {
    KList<KString> texts;
    texts.Add("a");
    KString text;
    EXPECT_TRUE(texts.Get(text, 0));
    EXPECT_TRUE(text == "a");

    KList<KPath> paths;
    KPath path("/tmp");
    path.SetType(KPath::TYPE_DIRECTORY);
    paths.Add(path);
    KPath out;
    EXPECT_TRUE(paths.Pop(out, -1));
    EXPECT_TRUE(out == path);
    EXPECT_EQ(out.GetType(), KPath::TYPE_DIRECTORY);
    EXPECT_EQ(paths.GetCount(), 0);
}

TEST(KListTest, HoldsLists) {
    KList<KList<int>> lists;
    KList<int> inner;
    Fill(inner, {1, 2});
    lists.Add(inner);
    inner.Reset();
    EXPECT_EQ(Values(*lists[0]), (std::vector<int>{1, 2}));
}

TEST(KListTest, RandomOperationsAgreeWithAModel) {
    std::mt19937 random(1);
    const auto number = [&](int nLow, int nHigh) { return std::uniform_int_distribution<int>(nLow, nHigh)(random); };
    KList<int> list;
    std::deque<int> model;
    for (int i = 0; i < 3000; ++i) {
        const int nCount = static_cast<int>(model.size());
        const int nIndex = number(-2, nCount + 1);
        const int nAt = std::max(nIndex, 0);
        const bool fgInside = nAt < nCount;
        int nOut = -1;
        switch (number(0, nCount > 20 ? 2 : 4)) {
            case 0:
                ASSERT_EQ(list.Get(nOut, nIndex), fgInside);
                ASSERT_EQ(nOut, fgInside ? model[static_cast<std::size_t>(nAt)] : -1);
                break;
            case 1:
                ASSERT_EQ(list.Pop(nOut, nIndex), fgInside);
                ASSERT_EQ(nOut, fgInside ? model[static_cast<std::size_t>(nAt)] : -1);
                if (fgInside) {
                    model.erase(model.begin() + nAt);
                }
                break;
            case 2:
                ASSERT_EQ(list[nIndex] != nullptr, nIndex >= 0 && fgInside);
                break;
            default:
                ASSERT_TRUE(list.Add(i));
                model.push_back(i);
                break;
        }
        ASSERT_EQ(list.GetCount(), static_cast<int>(model.size()));
        ASSERT_EQ(Values(list), std::vector<int>(model.begin(), model.end()));
    }
}

// ---------------------------------------------------------------------------------------------------------- Threads

namespace {

constexpr int kThreads = 4;
constexpr int kPerThread = 200;

}  // namespace

TEST(KListTest, ThreadsThatAddLoseNothingAndKeepTheirOrder) {
    KList<int> list;
    support::RunInThreads(kThreads, [&](int nThread) {
        for (int i = 0; i < kPerThread; ++i) {
            list.Add(nThread * kPerThread + i);
        }
    });
    ASSERT_EQ(list.GetCount(), kThreads * kPerThread);
    std::vector<int> next(kThreads, 0);
    for (const int nValue : Values(list)) {
        EXPECT_EQ(nValue % kPerThread, next[static_cast<std::size_t>(nValue / kPerThread)]++);
    }
}

TEST(KListTest, EveryElementIsHandedOutToOneThread) {
    KList<int> list;
    for (int i = 0; i < kThreads * kPerThread; ++i) {
        list.Add(i);
    }
    std::vector<std::vector<int>> taken(kThreads);
    support::RunInThreads(kThreads, [&](int nThread) {
        int nOut = 0;
        while (list.Pop(nOut, -1)) {
            taken[static_cast<std::size_t>(nThread)].push_back(nOut);
        }
    });
    std::vector<int> all;
    for (const std::vector<int>& some : taken) {
        all.insert(all.end(), some.begin(), some.end());
    }
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), static_cast<std::size_t>(kThreads * kPerThread));
    for (int i = 0; i < kThreads * kPerThread; ++i) {
        EXPECT_EQ(all[static_cast<std::size_t>(i)], i);
    }
}

TEST(KListTest, ACopyMadeWhileAnotherThreadAddsIsTheListAtOneMoment) {
    KList<int> list;
    std::atomic<bool> fgDone{false};
    std::thread writer([&] {
        for (int i = 0; i < kThreads * kPerThread; ++i) {
            list.Add(i);
        }
        fgDone = true;
    });
    int nBefore = 0;
    do {
        const KList<int> copy(list);
        KList<int> assigned;
        assigned = list;
        for (const KList<int>* const pList : {&copy, const_cast<const KList<int>*>(&assigned)}) {
            const std::vector<int> values = Values(*pList);
            EXPECT_EQ(pList->GetCount(), static_cast<int>(values.size()));
            EXPECT_GE(static_cast<int>(values.size()), nBefore);
            nBefore = static_cast<int>(values.size());
            for (int i = 0; i < nBefore; ++i) {
                EXPECT_EQ(values[static_cast<std::size_t>(i)], i);
            }
        }
    } while (!fgDone);
    writer.join();
}

TEST(KListTest, ListsCanBeAssignedToEachOtherByTwoThreads) {
    KList<int> left;
    KList<int> right;
    Fill(left, {1, 2, 3});
    Fill(right, {1, 2, 3});
    support::RunInThreads(kThreads, [&](int nThread) {
        for (int i = 0; i < kPerThread; ++i) {
            (nThread % 2 == 0 ? left : right) = nThread % 2 == 0 ? right : left;
        }
    });
    EXPECT_EQ(Values(left), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(Values(right), (std::vector<int>{1, 2, 3}));
}

TEST(KListTest, AReaderAndAnAppenderKeepOtherThreadsOut) {
    KList<int> list;
    std::atomic<bool> fgDone{false};
    std::thread writer([&] {
        for (int i = 0; i < kPerThread; ++i) {
            KList<int>::Appender appender(list);
            appender.Add(i);
            appender.Add(i);
        }
        fgDone = true;
    });
    do {
        KList<int>::Reader reader(list);
        int nCount = 0;
        while (const int* const pValue = reader.Next()) {
            EXPECT_EQ(*pValue, nCount / 2);
            ++nCount;
        }
        EXPECT_EQ(nCount % 2, 0) << "never half of what an Appender appends";
    } while (!fgDone);
    writer.join();
}
