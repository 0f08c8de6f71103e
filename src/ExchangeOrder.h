// The order that an exchange sort gives, at the cost of a fast one.
#ifndef KALVOREN_SRC_EXCHANGEORDER_H
#define KALVOREN_SRC_EXCHANGEORDER_H

#include <algorithm>
#include <memory>
#include <new>

/// Sorts by exchange: for i from 0, for j from i, the two trade places when `isOutOfOrder(i's, j's)`. This defines the
/// order, for any relation.
template <typename T, typename IsOutOfOrder>
void SortByExchange(T* pItems, int nCount, IsOutOfOrder isOutOfOrder) {
    for (int i = 0; i < nCount; ++i) {
        for (int j = i; j < nCount; ++j) {
            if (isOutOfOrder(pItems[i], pItems[j])) {
                std::swap(pItems[i], pItems[j]);
            }
        }
    }
}

/// A set of places, each with a number of entries in it. Every operation takes logarithmic time.
class PlaceCounts {
 public:
    /// @p nSize places without entries.
    explicit PlaceCounts(int nSize)
        : m_nSize(nSize), m_pTree(new (std::nothrow) int[static_cast<unsigned>(nSize) + 1]()) {}

    bool IsUsable() const { return m_pTree != nullptr; }

    /// Leaves the first @p nSize places, of those there were, with one entry in each. Takes time in proportion to them.
    void Fill(int nSize) {
        m_nSize = nSize;
        for (int i = 1; i <= nSize; ++i) {
            Node(i) = Span(i);
        }
    }

    void Add(int nPlace, int nEntries) {
        for (int i = nPlace + 1; i <= m_nSize; i += Span(i)) {
            Node(i) += nEntries;
        }
    }

    /// The number of entries in the places before this one.
    int Before(int nPlace) const {
        int nSum = 0;
        for (int i = nPlace; i > 0; i -= Span(i)) {
            nSum += Node(i);
        }
        return nSum;
    }

    /// The place of the entry that has @p nBefore entries before it. There is such an entry.
    int Find(int nBefore) const {
        int nPlace = 0;
        for (int nStep = HighestBit(m_nSize); nStep > 0; nStep /= 2) {
            if (nStep <= m_nSize - nPlace && Node(nPlace + nStep) <= nBefore) {
                nPlace += nStep;
                nBefore -= Node(nPlace);
            }
        }
        return nPlace;
    }

 private:
    /// A node holds the entries of this many places, the last of which is its own: the lowest bit of its number.
    static int Span(int i) { return i & -i; }
    static int HighestBit(int n) { return 1 << (31 - __builtin_clz(static_cast<unsigned>(n))); }

    int& Node(int i) { return m_pTree.get()[i]; }
    int Node(int i) const { return m_pTree.get()[i]; }

    int m_nSize;
    std::unique_ptr<int[]> m_pTree;
};

/// An item among others in sorted order.
template <typename T>
struct SortedItem {
    T item;
    int nArrival;  ///< Where it stood before.
    int nGroup;    ///< The place of the first of its equals, by which the group of them is named.
    int nLesser;   ///< The number of lesser items that stood before it.
};

/// Puts a group of equals, given in order of arrival, into its places. They queued up as they came, and every lesser item
/// that came moved the first in the queue to its end. How the queue stands in the end is known: in the group's places. So
/// it is taken apart from there, last arrival first.
template <typename T>
void SettleEquals(const SortedItem<T>* pGroup, int nCount, T* pItems, PlaceCounts& ring) {
    ring.Fill(nCount);
    // The places of those still queued form a ring; this is the number of them before the place of the first in the queue.
    int nFront = 0;
    int nLesser = pGroup->nGroup;
    for (int nQueued = nCount; nQueued > 0; --nQueued) {
        const SortedItem<T>& last = pGroup[nQueued - 1];
        const int nTurns = (nLesser - last.nLesser) % nQueued;
        nLesser = last.nLesser;
        const int nBack = (nFront + nQueued - 1 - nTurns) % nQueued;
        const int nPlace = ring.Find(nBack);
        ring.Add(nPlace, -1);
        pItems[nPlace] = last.item;
        nFront = nBack;
    }
}

/// Puts sorted items, some of them equal, into their places. Returns false, with the items as they were, when memory is
/// lacking.
template <typename T>
bool SettleAll(SortedItem<T>* pSorted, int nCount, T* pItems) {
    using Sorted = SortedItem<T>;
    const std::unique_ptr<Sorted*[]> arrivals(new (std::nothrow) Sorted*[static_cast<std::size_t>(nCount)]);
    PlaceCounts counts(nCount);
    if (arrivals == nullptr || !counts.IsUsable()) {
        return false;
    }
    for (int i = 0; i < nCount; ++i) {
        arrivals.get()[pSorted[i].nArrival] = &pSorted[i];
    }
    for (int i = 0; i < nCount; ++i) {
        Sorted& arrival = *arrivals.get()[i];
        arrival.nLesser = counts.Before(arrival.nGroup);
        counts.Add(arrival.nGroup, 1);
    }
    for (int nFirst = 0, nEnd = 0; nFirst < nCount; nFirst = nEnd) {
        while (nEnd < nCount && pSorted[nEnd].nGroup == nFirst) {
            ++nEnd;
        }
        SettleEquals(pSorted + nFirst, nEnd - nFirst, pItems + nFirst, counts);
    }
    return true;
}

/// Gives items the order that SortByExchange() with `compare(i's, j's) > 0` would, in n log n, for a `compare` whose result
/// is negative, 0 or positive as its first argument belongs before, beside or behind its second. Returns false, with the
/// items as they were, when memory is lacking.
///
/// Made in another order that changes nothing (each j with all i before it: any two comparisons that share an item keep
/// their order), the exchanges are an insertion sort. The items before j are sorted; j's goes behind its equals, and pushes
/// the first of each greater group of equals behind that group. So where an item ends up depends on its equals and on how
/// many lesser items came between them, which are counted here, not moved.
template <typename T, typename Compare>
bool SortInExchangeOrder(T* pItems, int nCount, Compare compare) {
    using Sorted = SortedItem<T>;
    const std::unique_ptr<Sorted[]> sorted(new (std::nothrow) Sorted[static_cast<std::size_t>(nCount)]);
    if (sorted == nullptr) {
        return false;
    }
    Sorted* const pSorted = sorted.get();
    for (int i = 0; i < nCount; ++i) {
        pSorted[i] = {pItems[i], i, 0, 0};
    }
    std::sort(pSorted, pSorted + nCount, [&](const Sorted& left, const Sorted& right) {
        const int nOrder = compare(left.item, right.item);
        return nOrder < 0 || (nOrder == 0 && left.nArrival < right.nArrival);
    });
    bool fgEquals = false;
    for (int i = 0; i < nCount; ++i) {
        const bool fgFirst = i == 0 || compare(pSorted[i - 1].item, pSorted[i].item) < 0;
        pSorted[i].nGroup = fgFirst ? i : pSorted[i - 1].nGroup;
        fgEquals = fgEquals || !fgFirst;
    }
    if (fgEquals) {
        return SettleAll(pSorted, nCount, pItems);
    }
    // As nearly always: names in a directory differ.
    std::transform(pSorted, pSorted + nCount, pItems, [](const Sorted& each) { return each.item; });
    return true;
}

#endif  // KALVOREN_SRC_EXCHANGEORDER_H
