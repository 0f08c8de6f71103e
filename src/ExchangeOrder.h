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

/// Counts entries by position: how many were added below a position. Both take logarithmic time.
class RunningCount {
 public:
    explicit RunningCount(int nSize)
        : m_nSize(nSize), m_pTree(new (std::nothrow) int[static_cast<unsigned>(nSize) + 1]()) {}

    bool IsUsable() const { return m_pTree != nullptr; }

    void Add(int nPosition) {
        for (int i = nPosition + 1; i <= m_nSize; i += i & -i) {
            ++m_pTree.get()[i];
        }
    }

    int Below(int nPosition) const {
        int nSum = 0;
        for (int i = nPosition; i > 0; i -= i & -i) {
            nSum += m_pTree.get()[i];
        }
        return nSum;
    }

 private:
    int m_nSize;
    std::unique_ptr<int[]> m_pTree;
};

/// Gives items the order that SortByExchange() with `isBefore(j's, i's)` would, in n log n, for an `isBefore` that is a
/// strict weak ordering. Returns false, with the items as they were, when memory is lacking.
///
/// Compared in another order that changes nothing (each j with all i before it), the exchanges are an insertion sort: the
/// items before j are sorted; j's goes behind its equals, and pushes the first of each later group of equals behind that
/// group. So equals queue up in their order of arrival, and every arrival of a lesser item moves the first in the queue to
/// its end. The lesser items that arrived between two equals are counted, not moved.
template <typename T, typename IsBefore>
bool SortInExchangeOrder(T* pItems, int nCount, IsBefore isBefore) {
    struct Entry {
        T item;
        int nArrival;
    };
    const std::size_t nSize = static_cast<std::size_t>(nCount);
    const std::unique_ptr<Entry[]> entries(new (std::nothrow) Entry[nSize]);
    const std::unique_ptr<int[]> groups(new (std::nothrow) int[nSize]);
    const std::unique_ptr<int[]> lesser(new (std::nothrow) int[nSize]);
    Entry* const pEntries = entries.get();
    int* const pGroups = groups.get();
    int* const pLesser = lesser.get();
    RunningCount arrived(nCount);
    if (pEntries == nullptr || pGroups == nullptr || pLesser == nullptr || !arrived.IsUsable()) {
        return false;
    }
    for (int i = 0; i < nCount; ++i) {
        pEntries[i] = {pItems[i], i};
    }
    std::sort(pEntries, pEntries + nCount, [&](const Entry& left, const Entry& right) {
        return isBefore(left.item, right.item) || (!isBefore(right.item, left.item) && left.nArrival < right.nArrival);
    });

    // A group of equals is named by the place of its first; pGroups is in order of arrival.
    for (int i = 0, nGroup = 0; i < nCount; ++i) {
        nGroup = i > 0 && isBefore(pEntries[i - 1].item, pEntries[i].item) ? i : nGroup;
        pGroups[pEntries[i].nArrival] = nGroup;
    }
    for (int i = 0; i < nCount; ++i) {
        pLesser[i] = arrived.Below(pGroups[i]);
        arrived.Add(pGroups[i]);
    }

    for (int nFirst = 0, nEnd = 0; nFirst < nCount; nFirst = nEnd) {
        // The group in its final places, filled one arrival at a time.
        T* const pQueue = pItems + nFirst;
        int nQueued = 0;
        int nSeen = 0;
        const auto turn = [&](int nLesser) {
            if (nQueued > 1) {
                std::rotate(pQueue, pQueue + (nLesser - nSeen) % nQueued, pQueue + nQueued);
            }
            nSeen = nLesser;
        };
        for (nEnd = nFirst; nEnd < nCount && pGroups[pEntries[nEnd].nArrival] == nFirst; ++nEnd) {
            turn(pLesser[pEntries[nEnd].nArrival]);
            pQueue[nQueued++] = pEntries[nEnd].item;
        }
        turn(nFirst);
    }
    return true;
}

#endif  // KALVOREN_SRC_EXCHANGEORDER_H
