#include "ExchangeOrder.h"

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/FailingNew.h"
#include "support/Support.h"

namespace {

/// What is sorted: a rank that counts and a mark that tells equals apart.
struct Item {
    int nRank;
    int nMark;

    bool operator==(const Item& other) const { return nRank == other.nRank && nMark == other.nMark; }
};

std::ostream& operator<<(std::ostream& stream, const Item& item) {
    return stream << item.nRank << '#' << item.nMark;
}

using Items = std::vector<Item>;

/// Items of these ranks, marked by where they stand.
Items Marked(const std::vector<int>& ranks) {
    Items items;
    for (const int nRank : ranks) {
        items.push_back({nRank, static_cast<int>(items.size())});
    }
    return items;
}

/// The definition, written out once more.
Items Exchanged(Items items) {
    for (std::size_t i = 0; i < items.size(); ++i) {
        for (std::size_t j = i; j < items.size(); ++j) {
            if (items[i].nRank > items[j].nRank) {
                std::swap(items[i], items[j]);
            }
        }
    }
    return items;
}

bool Sort(Items& items) {
    return SortInExchangeOrder(items.data(), static_cast<int>(items.size()),
                               [](const Item& left, const Item& right) { return left.nRank - right.nRank; });
}

/// Expects the order of the definition for items of these ranks.
void ExpectExchangeOrder(const std::vector<int>& ranks) {
    const Items items = Marked(ranks);
    Items sorted = items;
    ASSERT_TRUE(Sort(sorted));
    ASSERT_EQ(sorted, Exchanged(items)) << "for " << testing::PrintToString(ranks);
}

/// Steps through all sequences of ranks below a limit; false after the last.
bool Advance(std::vector<int>& ranks, int nRanks) {
    for (int& nRank : ranks) {
        if (++nRank < nRanks) {
            return true;
        }
        nRank = 0;
    }
    return false;
}

std::vector<int> RandomRanks(std::mt19937& random, int nCount, int nRanks) {
    std::uniform_int_distribution<int> rank(0, nRanks - 1);
    std::vector<int> ranks(static_cast<std::size_t>(nCount));
    std::generate(ranks.begin(), ranks.end(), [&] { return rank(random); });
    return ranks;
}

}  // namespace

// ------------------------------------------------------------------------------------------------------ The definition

TEST(ExchangeOrderTest, ExchangesForAnyRelation) {
    // No ordering at all: 1 is out of order before 0, 2 before 1, and 0 before 2.
    const auto isOutOfOrder = [](int nLeft, int nRight) { return (nLeft - nRight + 3) % 3 == 1; };
    std::vector<int> numbers = {0, 1, 2};
    SortByExchange(numbers.data(), static_cast<int>(numbers.size()), isOutOfOrder);
    // 0 and 2 trade places, then 1 and 0.
    EXPECT_EQ(numbers, (std::vector<int>{2, 0, 1}));
}

TEST(ExchangeOrderTest, AnItemThatIsOutOfOrderWithItselfStays) {
    std::vector<std::string> texts = {"a text that lies on the heap, being long", "b"};
    SortByExchange(texts.data(), 2, [](const std::string& left, const std::string& right) { return left == right; });
    EXPECT_EQ(texts, (std::vector<std::string>{"a text that lies on the heap, being long", "b"}));
}

TEST(ExchangeOrderTest, IsNotTheOrderOfAStableSort) {
    Items items = Marked({1, 1, 0});
    ASSERT_TRUE(Sort(items));
    // The 0 trades places with the first 1, which ends up behind the second.
    EXPECT_EQ(items, (Items{{0, 2}, {1, 1}, {1, 0}}));
}

TEST(ExchangeOrderTest, EqualsWithoutALesserBehindThemKeepTheirOrder) {
    Items items = Marked({0, 1, 1, 1, 2, 2});
    ASSERT_TRUE(Sort(items));
    EXPECT_EQ(items, Marked({0, 1, 1, 1, 2, 2}));
}

// -------------------------------------------------------------------------------------------------- The fast way to it

TEST(ExchangeOrderTest, EverySequenceIsLeftInTheOrderOfTheExchanges) {
    struct Case {
        std::size_t nCount;
        int nRanks;
    };
    for (const Case& sequences :
         std::initializer_list<Case>{{0, 1}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 4}, {9, 3}, {14, 2}}) {
        std::vector<int> ranks(sequences.nCount, 0);
        do {
            ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(ranks));
        } while (Advance(ranks, sequences.nRanks));
    }
}

TEST(ExchangeOrderTest, RandomSequencesAreLeftInTheOrderOfTheExchanges) {
    std::mt19937 random(20);
    std::uniform_int_distribution<int> count(0, 120);
    for (int nRound = 0; nRound < 2000; ++nRound) {
        const int nCount = count(random);
        // From hardly any equals to nothing else.
        const int nRanks = 1 + std::uniform_int_distribution<int>(0, 1 << nRound % 10)(random);
        ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(RandomRanks(random, nCount, nRanks)));
    }
}

TEST(ExchangeOrderTest, LongSequencesAreLeftInTheOrderOfTheExchanges) {
    std::mt19937 random(21);
    for (const int nRanks : {1, 2, 3, 50, 1500, 1000000}) {
        std::vector<int> ranks = RandomRanks(random, 3000, nRanks);
        ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(ranks));
        std::sort(ranks.begin(), ranks.end());
        ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(ranks));
        std::reverse(ranks.begin(), ranks.end());
        ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(ranks));
    }
}

TEST(ExchangeOrderTest, WithoutMemoryNothingIsMovedAndTheCallerIsTold) {
    const Items before = Marked({3, 1, 2});
    Items items = before;
    const support::ScopedNoMemory noMemory;
    EXPECT_FALSE(Sort(items));
    EXPECT_EQ(items, before);
}

TEST(ExchangeOrderTest, WhereMemoryEndsAmongEqualsNothingIsMovedEither) {
    const Items before = Marked({3, 1, 3, 2, 1});
    for (const int nStillWorks : {0, 1, 2}) {
        Items items = before;
        const support::ScopedNoMemory noMemory(nStillWorks);
        EXPECT_FALSE(Sort(items)) << nStillWorks;
        EXPECT_EQ(items, before) << nStillWorks;
    }
    Items items = before;
    const support::ScopedNoMemory noMemory(3);
    EXPECT_TRUE(Sort(items));
}
