/// @file
/// The list.
#ifndef KALVOREN_KLIST_H
#define KALVOREN_KLIST_H

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

#include "KThread.h"
#include "KTypes.h"

/// A singly linked list of values with a mutex of its own, so that one thread can fill it while another reads or
/// empties it.
///
/// Elements are held by value: @p T needs a default constructor, a copy assignment and a destructor, and may not ask for
/// more alignment than `malloc` gives, where elements come from. A list of pointers holds the pointers alone and never
/// deletes what they point to. Indexes are zero-based.
///
/// Add() and everything that takes an index walk the chain, so their time grows with the length. To go through a list,
/// or to fill one with many elements, use a Reader or an Appender: one lock for the whole walk, and the same short time
/// for every element.
///
/// @code
/// void Print(const KList<KString>& fields) {
///     KList<KString>::Reader reader(fields);
///     while (const KString* pField = reader.Next()) {
///         std::puts(pField->GetBuffer());
///     }
/// }
/// @endcode
///
/// Thread-safety: every operation holds the list's mutex from its start to its end. The mutex is not recursive: an
/// element's assignment must not touch the list it is in, and the thread that holds a Reader or an Appender must not
/// call an operation of the same list. A pointer from operator[] is used without the lock.
template <class T>
class KALVOREN_API KList {
 public:
    /// Makes an empty list.
    KList() : m_pHead(nullptr), m_nCount(0) {}

    /// Copies the elements one by one, under the other list's lock. The copy has a chain and a mutex of its own.
    KList(const KList& other) : m_pHead(nullptr), m_nCount(0) { Append(other); }

    /// Replaces the elements by copies of another list's. The two locks are never held at once.
    KList& operator=(const KList& other) {
        if (this != &other) {
            KList copy(other);
            Swap(copy);
        }
        return *this;
    }

    /// Empties the list.
    virtual ~KList() { Reset(); }

    /// Removes all elements. What stored pointers point to stays alive.
    void Reset() {
        Guard guard(m_Mutex);
        while (m_nCount > 0 && m_pHead != nullptr) {
            RemoveAt(&m_pHead);
        }
        m_pHead = nullptr;
        m_nCount = 0;
    }

    /// Appends a copy of @p value at the end. Returns false only when the memory for the element is lacking.
    bool Add(const T& value) {
        Appender appender(*this);
        return appender.Add(value);
    }

    /// Assigns element @p nIndex to @p out. A negative index means the @b first element. Returns false, with @p out
    /// unchanged, when the index is not below the count.
    bool Get(T& out, int nIndex) const {
        Guard guard(m_Mutex);
        if (nIndex >= m_nCount || m_pHead == nullptr) {
            return false;
        }
        const KElement* const pElement = *Find(nIndex);
        if (pElement != nullptr) {
            out = pElement->m_Value;
        }
        return true;
    }

    /// Returns the address of element @p nIndex, or null when the index is negative or not below the count. The address
    /// is good for as long as the element is in the list; the lock is not held any more.
    T* operator[](int nIndex) const {
        Guard guard(m_Mutex);
        if (nIndex < 0 || nIndex >= m_nCount) {
            return nullptr;
        }
        KElement* const pElement = *Find(nIndex);
        return pElement != nullptr ? &pElement->m_Value : nullptr;
    }

    /// Removes element @p nIndex and assigns it to @p out. A negative index means the @b first element; that one is
    /// reached without a walk. Returns false, with nothing changed, when the index is not below the count.
    bool Pop(T& out, int nIndex) {
        Guard guard(m_Mutex);
        if (nIndex >= m_nCount || m_pHead == nullptr) {
            return false;
        }
        KElement** const ppElement = Find(nIndex);
        if (*ppElement == nullptr) {
            --m_nCount;
        } else {
            out = (*ppElement)->m_Value;
            RemoveAt(ppElement);
        }
        return true;
    }

    /// Returns the number of elements.
    int GetCount() const {
        Guard guard(m_Mutex);
        return m_nCount;
    }

    /// Puts the elements in another order under one lock, without copying them. `order(ppFirst, nCount)` gets an array of
    /// the elements' addresses in list order and rearranges it. Returns false, with nothing changed, when the memory for
    /// the array is lacking.
    template <class Order>
    bool Arrange(Order order) {
        Guard guard(m_Mutex);
        std::unique_ptr<T*[]> ppValues(new (std::nothrow) T*[static_cast<std::size_t>(m_nCount)]);
        if (ppValues == nullptr) {
            return false;
        }
        KElement* pElement = m_pHead;
        int nThere = 0;
        for (; pElement != nullptr && nThere < m_nCount; pElement = pElement->m_pNext) {
            ppValues[static_cast<std::size_t>(nThere++)] = &pElement->m_Value;
        }
        order(ppValues.get(), nThere);
        KElement** ppLink = &m_pHead;
        for (int i = 0; i < nThere; ++i) {
            *ppLink = KElement::Of(ppValues[static_cast<std::size_t>(i)]);
            ppLink = &(*ppLink)->m_pNext;
        }
        *ppLink = pElement;
        return true;
    }

 private:
    struct KElement {
        KALVOREN_INLINE KElement() : m_Value(), m_pNext(nullptr) {}

        /// Straight from libc: the language's own operator, asked not to throw, is three calls deep.
        KALVOREN_INLINE static void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
            return std::malloc(nSize);
        }
        KALVOREN_INLINE static void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
        // NOLINTNEXTLINE(misc-new-delete-overloads): deletes what the other operator new made
        KALVOREN_INLINE static void operator delete(void* p) noexcept { std::free(p); }
        static_assert(alignof(T) <= alignof(std::max_align_t), "values are no more aligned than what malloc gives");

        /// The element that holds a value: the value stands at its start.
        KALVOREN_INLINE static KElement* Of(T* pValue) { return reinterpret_cast<KElement*>(pValue); }

        T m_Value;
        KElement* m_pNext;
    };

    /// Holds the list's mutex for the length of a block.
    class Guard {
     public:
        KALVOREN_INLINE explicit Guard(const KMutex& mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
        KALVOREN_INLINE ~Guard() { m_Mutex.Unlock(); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

     private:
        const KMutex& m_Mutex;
    };

 public:
    class Appender;

    /// Goes through a list from first to last under one lock, which it holds for as long as it lives.
    class Reader {
     public:
        /// Takes the list's lock.
        KALVOREN_INLINE explicit Reader(const KList& list) : m_Guard(list.m_Mutex), m_pNext(list.m_pHead) {}

        /// Returns the address of the next element, good for as long as the Reader lives; null after the last.
        KALVOREN_INLINE T* Next() {
            KElement* const pElement = m_pNext;
            if (pElement == nullptr) {
                return nullptr;
            }
            m_pNext = pElement->m_pNext;
            return &pElement->m_Value;
        }

     private:
        Guard m_Guard;
        KElement* m_pNext;
    };

    /// Where a list ended when an Appender last filled it; at first, nowhere. It belongs to one list, and is good for as
    /// long as that list only grows: an element removed since may have been the one it stands on.
    class End {
     public:
        KALVOREN_INLINE End() : m_ppEnd(nullptr) {}

     private:
        friend class KList::Appender;
        KElement** m_ppEnd;
    };

    /// Appends elements under one lock, which it holds for as long as it lives, and remembers where the end is.
    class Appender {
     public:
        /// Finds the end by a walk.
        KALVOREN_INLINE explicit Appender(KList& list)
            : m_Guard(list.m_Mutex), m_List(list), m_ppEnd(&list.m_pHead), m_pEnd(nullptr) {
            FindEnd();
        }

        /// Starts where @p end says and notes the new end there, for a list that is filled with pauses.
        KALVOREN_INLINE Appender(KList& list, End& end)
            : m_Guard(list.m_Mutex),
              m_List(list),
              m_ppEnd(end.m_ppEnd != nullptr ? end.m_ppEnd : &list.m_pHead),
              m_pEnd(&end) {
            FindEnd();
        }

        KALVOREN_INLINE ~Appender() {
            if (m_pEnd != nullptr) {
                m_pEnd->m_ppEnd = m_ppEnd;
            }
        }

        Appender(const Appender&) = delete;
        Appender& operator=(const Appender&) = delete;

        /// Appends a copy of @p value. Returns false only when the memory for the element is lacking.
        KALVOREN_INLINE bool Add(const T& value) {
            T* const pValue = Add();
            if (pValue == nullptr) {
                return false;
            }
            *pValue = value;
            return true;
        }

        /// Appends a default-constructed element and returns its address for the caller to fill in while the Appender
        /// lives; null when the memory for it is lacking.
        KALVOREN_INLINE T* Add() {
            KElement* const pElement = new (std::nothrow) KElement();  // GCOVR_EXCL_BR_LINE: a constructor may throw
            if (pElement == nullptr) {
                return nullptr;
            }
            *m_ppEnd = pElement;
            m_ppEnd = &pElement->m_pNext;
            ++m_List.m_nCount;
            return &pElement->m_Value;
        }

        /// Moves all elements of another list to the end, as they are: it takes no memory. The other list is locked too, so
        /// that taking from the list itself blocks for good. An End of the other list is not to be used any more.
        KALVOREN_INLINE void Take(KList& other) {
            Guard guard(other.m_Mutex);
            *m_ppEnd = other.m_pHead;
            m_List.m_nCount += other.m_nCount;
            other.m_pHead = nullptr;
            other.m_nCount = 0;
            FindEnd();
        }

     private:
        KALVOREN_INLINE void FindEnd() {
            while (*m_ppEnd != nullptr) {
                m_ppEnd = &(*m_ppEnd)->m_pNext;
            }
        }

        Guard m_Guard;
        KList& m_List;
        KElement** m_ppEnd;
        End* m_pEnd;
    };

 private:
    /// Where the pointer to element @p nIndex is kept; no step for a negative index, and no step past the end.
    KALVOREN_INLINE KElement** Find(int nIndex) const {
        KElement** ppElement = const_cast<KElement**>(&m_pHead);
        for (int i = 0; i < nIndex && *ppElement != nullptr; ++i) {
            ppElement = &(*ppElement)->m_pNext;
        }
        return ppElement;
    }

    KALVOREN_INLINE void RemoveAt(KElement** ppElement) {
        KElement* const pElement = *ppElement;
        *ppElement = pElement->m_pNext;
        --m_nCount;
        delete pElement;  // GCOVR_EXCL_BR_LINE: delete asks for null
    }

    KALVOREN_INLINE void Append(const KList& other) {
        Reader reader(other);
        Appender appender(*this);
        while (const T* pValue = reader.Next()) {
            appender.Add(*pValue);
        }
    }

    KALVOREN_INLINE void Swap(KList& other) {
        Guard guard(m_Mutex);
        KElement* const pHead = m_pHead;
        const int nCount = m_nCount;
        m_pHead = other.m_pHead;
        m_nCount = other.m_nCount;
        other.m_pHead = pHead;
        other.m_nCount = nCount;
    }

    KElement* m_pHead;
    int m_nCount;
    KMutex m_Mutex;
};

#endif  // KALVOREN_KLIST_H
