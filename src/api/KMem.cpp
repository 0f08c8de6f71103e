#include "KMem.h"

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Checks.h"
#include "KDebug.h"
#include "Numbers.h"

namespace {

constexpr Checks g_Checks("src/api/KMem");

constexpr int kSlotCount = 102400;
constexpr int kNoSlot = -1;

/// The set of taken slots, as a tree of the machine's words three levels high, so that the lowest free slot is a few looks
/// away.
class SlotSet {
 public:
    int LowestFree() const {
        unsigned int nTop = 0;
        while (nTop + 1 < kTops && m_nTops[nTop] == kFull) {
            ++nTop;  // GCOVR_EXCL_LINE: with 64 bits the top is one word
        }
        const unsigned int nGroup = nTop * kBits + LowestClear(m_nTops[nTop]);
        if (nGroup >= kGroups) {
            return kNoSlot;
        }
        const unsigned int nWord = nGroup * kBits + LowestClear(m_nGroups[nGroup]);
        const unsigned int nSlot = nWord * kBits + LowestClear(m_nWords[nWord < kWords ? nWord : kWords - 1]);
        return nWord < kWords && nSlot < kSlotCount ? static_cast<int>(nSlot) : kNoSlot;
    }

    void Take(unsigned int nSlot) {
        const unsigned int nWord = nSlot / kBits;
        const unsigned int nGroup = nWord / kBits;
        m_nWords[nWord] |= Bit(nSlot);
        if (m_nWords[nWord] == kFull) {
            m_nGroups[nGroup] |= Bit(nWord);
            if (m_nGroups[nGroup] == kFull) {
                m_nTops[nGroup / kBits] |= Bit(nGroup);
            }
        }
    }

    void Release(unsigned int nSlot) {
        const unsigned int nWord = nSlot / kBits;
        const unsigned int nGroup = nWord / kBits;
        m_nWords[nWord] &= ~Bit(nSlot);
        m_nGroups[nGroup] &= ~Bit(nWord);
        m_nTops[nGroup / kBits] &= ~Bit(nGroup);
    }

 private:
    using Word = unsigned long;
    static constexpr unsigned int kBits = 8 * sizeof(Word);
    static constexpr Word kFull = ~Word{0};
    static constexpr unsigned int kWords = kSlotCount / kBits;
    static constexpr unsigned int kGroups = kWords / kBits;
    static constexpr unsigned int kTops = (kGroups + kBits - 1) / kBits;
    static_assert(kGroups * kBits * kBits == kSlotCount, "every word and every group is whole");

    static Word Bit(unsigned int nIndex) { return Word{1} << (nIndex % kBits); }
    static unsigned int LowestClear(Word nWord) {
        return nWord == kFull ? kBits : static_cast<unsigned int>(__builtin_ctzl(~nWord));
    }

    Word m_nWords[kWords];
    Word m_nGroups[kGroups];
    Word m_nTops[kTops];
};

/// Where each registered pointer's slots are: an open hash table with linear probing. Every walk is bounded by the size of
/// the table, so that programs that register from several threads without a lock may lose a cell but never loop.
class SlotIndex {
 public:
    void Insert(const void* p, int nSlot) {
        std::uint32_t nCell = Home(p);
        for (std::uint32_t i = 0; i < kCells && m_nCells[nCell] != 0; ++i) {
            nCell = Next(nCell);
        }
        m_nCells[nCell] = nSlot + 1;
    }

    /// Calls `visit(nSlot, nCell)` with each slot that holds @p p and the cell that says so.
    template <typename Visitor>
    void Visit(const void* const* pSlots, const void* p, Visitor visit) const {
        std::uint32_t nCell = Home(p);
        for (std::uint32_t i = 0; i < kCells; ++i, nCell = Next(nCell)) {
            const int nSlot = m_nCells[nCell] - 1;
            if (nSlot == kNoSlot) {
                break;
            }
            if (pSlots[nSlot] == p) {
                visit(nSlot, nCell);
            }
        }
    }

    /// Forgets the lowest slot that holds @p p and returns it; kNoSlot when none is known. The slot's pointer must stay in
    /// place until then.
    int Remove(const void* const* pSlots, const void* p) {
        int nFound = kNoSlot;
        std::uint32_t nFoundCell = 0;
        Visit(pSlots, p, [&nFound, &nFoundCell](int nSlot, std::uint32_t nCell) {
            if (nFound == kNoSlot || nSlot < nFound) {
                nFound = nSlot;
                nFoundCell = nCell;
            }
        });
        if (nFound != kNoSlot) {
            Close(pSlots, nFoundCell);
        }
        return nFound;
    }

 private:
    static constexpr std::uint32_t kCellBits = 18;
    static constexpr std::uint32_t kCells = 1u << kCellBits;
    static_assert(kCells > 2 * kSlotCount, "at most four cells in ten are taken");

    /// Empties a cell and moves later cells of the same run up, so that no walk ends too early.
    void Close(const void* const* pSlots, std::uint32_t nHole) {
        std::uint32_t nCell = Next(nHole);
        for (std::uint32_t i = 0; i < kCells; ++i, nCell = Next(nCell)) {
            const int nLater = m_nCells[nCell] - 1;
            if (nLater == kNoSlot) {
                break;
            }
            if (Distance(Home(pSlots[nLater]), nCell) >= Distance(nHole, nCell)) {
                m_nCells[nHole] = nLater + 1;
                nHole = nCell;
            }
        }
        m_nCells[nHole] = 0;
    }

    /// Blocks of one page of memory have their homes side by side, so that few blocks touch few pages of the table; the
    /// pages' own homes are spread over all of it. Addresses that are closer together than malloc's blocks, which
    /// AddForNonClass() takes as well, have theirs in different parts of the table.
    static std::uint32_t Home(const void* p) {
        constexpr unsigned int kPageBits = 12;
        constexpr unsigned int kGrainBits = sizeof(void*) == 8 ? 4 : 3;  // those that are 0 in an address of malloc's
        constexpr std::uint32_t kSpread = 0x9E3779B1;
        const std::uintptr_t nAddress = reinterpret_cast<std::uintptr_t>(p);
        const std::uint32_t nPage = static_cast<std::uint32_t>(nAddress >> kPageBits) * kSpread >> (32 - kCellBits);
        const std::uint32_t nWithin = static_cast<std::uint32_t>(nAddress) % (1u << kPageBits) >> kGrainBits;
        const std::uint32_t nPart = static_cast<std::uint32_t>(nAddress) << (kCellBits - kGrainBits);
        return (nPage + nWithin + nPart) % kCells;
    }
    static std::uint32_t Next(std::uint32_t nCell) { return (nCell + 1) % kCells; }
    static std::uint32_t Distance(std::uint32_t nFrom, std::uint32_t nTo) { return (nTo - nFrom) % kCells; }

    std::int32_t m_nCells[kCells];
};

/// Finds slots in one of the registry's tables of pointers.
class SlotFinder {
 public:
    /// Takes the lowest free slot for a pointer, or none for a null pointer. kNoSlot when there is none left.
    int Enter(const void** pSlots, const void* p) {
        const int nSlot = m_Set.LowestFree();
        if (nSlot != kNoSlot && p != nullptr) {
            pSlots[nSlot] = p;
            m_Set.Take(static_cast<unsigned int>(nSlot));
            m_Index.Insert(p, nSlot);
            m_nEnd = std::max(m_nEnd, nSlot + 1);
        }
        return nSlot;
    }

    /// Clears the lowest slot that holds a pointer. A null pointer is held by every free slot.
    int Leave(const void** pSlots, const void* p) {
        if (p == nullptr) {
            return m_Set.LowestFree();
        }
        int nSlot = m_Index.Remove(pSlots, p);
        if (nSlot == kNoSlot) {
            // Threads without a lock may have lost the cell; a slot that outlives its object must not stay behind.
            nSlot = Search(pSlots, p);
        }
        if (nSlot != kNoSlot) {
            pSlots[nSlot] = nullptr;
            m_Set.Release(static_cast<unsigned int>(nSlot));
        }
        return nSlot;
    }

    template <typename Visitor>
    void Visit(const void* const* pSlots, const void* p, Visitor visit) const {
        m_Index.Visit(pSlots, p, visit);
    }

    /// Behind the highest slot that was ever taken.
    int End() const { return m_nEnd; }

 private:
    static int Search(const void* const* pSlots, const void* p) {
        const void* const* const pEnd = pSlots + kSlotCount;
        const void* const* const pFound = std::find(pSlots, pEnd, p);
        return pFound == pEnd ? kNoSlot : static_cast<int>(pFound - pSlots);
    }

    SlotSet m_Set;
    SlotIndex m_Index;
    int m_nEnd;
};

}  // namespace

/// The registry: the tables the leak report is made of and, behind them, what finds a slot without a search. It comes
/// zeroed from the system and is touched only where it is used.
struct KMem::MemInfoContainer {
    int mnReady;
    int mnInstanceCount;
    const void* m_pObjects[kSlotCount];  ///< Each a KMem.
    std::size_t m_nSizes[kSlotCount];
    const void* m_pBlocks[kSlotCount];

    SlotFinder m_ObjectFinder;
    SlotFinder m_BlockFinder;
    // The size of an object that was entered twice and then destroyed: its other entry stays and must not look at it.
    bool m_fgDestroyed[kSlotCount];
    int m_nLastSizes[kSlotCount];

    /// The registry, made if there is none yet, or null without memory. Asks itself: the call of Init(), which the library
    /// gives away, is a twentieth of an allocation's time.
    static MemInfoContainer* Made() {
        if (g_pMemInfoContainer == nullptr) {
            Init();
        }
        return g_pMemInfoContainer;
    }

    int EnterObject(KMem* pObject) {
        const int nSlot = m_ObjectFinder.Enter(m_pObjects, pObject);
        if (nSlot != kNoSlot) {
            m_fgDestroyed[nSlot] = false;
        }
        return nSlot;
    }

    /// Remembers the size of an object that is about to go, for the entries it leaves behind.
    void KeepSize(const KMem* pObject) {
        m_ObjectFinder.Visit(m_pObjects, pObject, [this, pObject](int nSlot, std::uint32_t) {
            m_fgDestroyed[nSlot] = true;
            m_nLastSizes[nSlot] = pObject->m_nSize;
        });
    }

    static void Report(int nSlot, const void* p, std::size_t nSize) {
        KDebug::Log("OBJ %08d nonClass:%08x Size:%08d", nSlot, LowWord(p), static_cast<int>(nSize));
    }

    void ReportSlot(int nSlot) const {
        const KMem* const pObject = static_cast<const KMem*>(m_pObjects[nSlot]);
        if (pObject != nullptr) {
            const int nSize = m_fgDestroyed[nSlot] ? m_nLastSizes[nSlot] : pObject->m_nSize;
            Report(nSlot, pObject, static_cast<std::size_t>(nSize));
        }
        if (m_pBlocks[nSlot] != nullptr) {
            Report(nSlot, m_pBlocks[nSlot], m_nSizes[nSlot]);
        }
    }

    /// Behind the highest place that was ever taken.
    int End() const { return std::max(m_ObjectFinder.End(), m_BlockFinder.End()); }
};

KMem::MemInfoContainer* KMem::g_pMemInfoContainer = nullptr;

// -------------------------------------------------------------------------------------------------------- Registry

bool KMem::Init() {
    if (g_pMemInfoContainer != nullptr) {
        return false;
    }
    // Straight from the system: calloc, once it has freed a block of this size, takes the next from its own store, and
    // clears megabytes that most programs never use.
    void* const pZeroed =
        mmap(nullptr, sizeof(MemInfoContainer), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pZeroed == MAP_FAILED) {
        return false;
    }
    // A page at a time, also where the system would give two megabytes at a touch. Some kernels know of none: just as well.
    static_cast<void>(madvise(pZeroed, sizeof(MemInfoContainer), MADV_NOHUGEPAGE));
    g_pMemInfoContainer = static_cast<MemInfoContainer*>(pZeroed);
    g_pMemInfoContainer->mnReady = 1;
    return true;
}

void KMem::Deinit() {
    const char* const pszSignature = "static void KMem::Deinit()";
    if (!g_Checks.Hold(g_pMemInfoContainer != nullptr, "g_pMemInfoContainer", pszSignature)) {
        return;
    }
    const MemInfoContainer& registry = *g_pMemInfoContainer;
    const int nEnd = registry.End();
    for (int nSlot = 0; nSlot < nEnd; ++nSlot) {
        registry.ReportSlot(nSlot);
    }
    g_Checks.Hold(registry.mnInstanceCount == 0, "g_pMemInfoContainer->mnInstanceCount == 0", pszSignature);
    munmap(g_pMemInfoContainer, sizeof(MemInfoContainer));
    g_pMemInfoContainer = nullptr;
}

bool KMem::Add(KMem* pObject) {
    MemInfoContainer* const pRegistry = MemInfoContainer::Made();
    if (pRegistry == nullptr || pRegistry->EnterObject(pObject) == kNoSlot) {
        g_Checks.Fail("static bool KMem::Add(KMem*)");
        return false;
    }
    ++pRegistry->mnInstanceCount;
    return true;
}

bool KMem::Remove(KMem* pObject) {
    MemInfoContainer* const pRegistry = g_pMemInfoContainer;
    if (pRegistry == nullptr || pRegistry->m_ObjectFinder.Leave(pRegistry->m_pObjects, pObject) == kNoSlot) {
        g_Checks.Fail("static bool KMem::Remove(KMem*)");
        return false;
    }
    --pRegistry->mnInstanceCount;
    return true;
}

bool KMem::AddForNonClass(void* pBlock, std::size_t nSize) {
    MemInfoContainer* const pRegistry = MemInfoContainer::Made();
    const int nSlot = pRegistry == nullptr ? kNoSlot : pRegistry->m_BlockFinder.Enter(pRegistry->m_pBlocks, pBlock);
    if (nSlot == kNoSlot) {
        g_Checks.Fail("static bool KMem::AddForNonClass(void*, size_t)");
        return false;
    }
    pRegistry->m_nSizes[nSlot] = nSize;
    ++pRegistry->mnInstanceCount;
    return true;
}

bool KMem::RemoveForNonClass(void* pBlock) {
    MemInfoContainer* const pRegistry = g_pMemInfoContainer;
    const int nSlot = pRegistry == nullptr ? kNoSlot : pRegistry->m_BlockFinder.Leave(pRegistry->m_pBlocks, pBlock);
    if (nSlot == kNoSlot) {
        g_Checks.Fail("static bool KMem::RemoveForNonClass(void*)");
        return false;
    }
    pRegistry->m_nSizes[nSlot] = 0;
    --pRegistry->mnInstanceCount;
    return true;
}

// ---------------------------------------------------------------------------------------------- Raw memory helpers

void* KMem::Malloc(std::size_t nSize) {
    g_Checks.Hold(nSize > 0, "nSize > 0", "static void* KMem::Malloc(size_t)");
    void* const pBlock = std::malloc(nSize);
    AddForNonClass(pBlock, nSize);
    return pBlock;
}

void* KMem::Calloc(int nCount, std::size_t nSize) {
    void* const pBlock = std::calloc(static_cast<std::size_t>(nCount), nSize);
    AddForNonClass(pBlock, nSize);
    return pBlock;
}

void* KMem::Realloc(void* pBlock, std::size_t nSize) {
    RemoveForNonClass(pBlock);
    void* const pResult = std::realloc(pBlock, nSize);
    AddForNonClass(pResult, nSize);
    return pResult;
}

void KMem::Free(void** ppBlock) {
    if (ppBlock != nullptr && *ppBlock != nullptr) {
        RemoveForNonClass(*ppBlock);
        std::free(*ppBlock);
        *ppBlock = nullptr;
    }
}

void KMem::Copy(void* pTarget, std::size_t nTargetLen, const void* pSrc, std::size_t nSourceLen) {
    const char* const pszSignature = "static void KMem::Copy(void*, size_t, const void*, size_t)";
    const bool fgTarget = g_Checks.Hold(pTarget != nullptr, "pTarget", pszSignature);
    const bool fgSource = g_Checks.Hold(pSrc != nullptr, "pSrc", pszSignature);
    const bool fgFits = g_Checks.Hold(nTargetLen >= nSourceLen, "nTargetLen >= nSourceLen", pszSignature);
    if (fgTarget && fgSource) {
        std::memcpy(pTarget, pSrc, fgFits ? nSourceLen : nTargetLen);
    }
}

int KMem::Cmp(const void* pTarget, const void* pSrc, std::size_t nLen) {
    const char* const pszSignature = "static int KMem::Cmp(const void*, const void*, size_t)";
    const bool fgTarget = g_Checks.Hold(pTarget != nullptr, "pTarget", pszSignature);
    const bool fgSource = g_Checks.Hold(pSrc != nullptr, "pSrc", pszSignature);
    return fgTarget && fgSource ? std::memcmp(pTarget, pSrc, nLen) : -1;
}

void KMem::Set(void* pTarget, char ch, std::size_t nLen) {
    if (pTarget != nullptr) {
        std::memset(pTarget, ch, nLen);
    }
}

// ------------------------------------------------------------------------------------------------------ Byte block

/// Replaces the bytes by a copy of two runs, either of which may be part of the present bytes, or may have no bytes to
/// copy from (null). Returns false, with nothing changed, without memory for it.
bool KMem::Take(const char* pFirst, int nFirst, const char* pSecond, int nSecond, const char* pszSignature) {
    const bool fgFits = nSecond <= INT_MAX - nFirst;
    char* const pBuf = fgFits ? new (std::nothrow) char[static_cast<std::size_t>(nFirst + nSecond)] : nullptr;
    if (!g_Checks.Hold(pBuf != nullptr, "m_pBuf", pszSignature)) {
        return false;
    }
    if (pFirst != nullptr) {
        std::memcpy(pBuf, pFirst, static_cast<std::size_t>(nFirst));
    }
    if (pSecond != nullptr) {
        std::memcpy(pBuf + nFirst, pSecond, static_cast<std::size_t>(nSecond));
    }
    delete[] m_pBuf;
    m_pBuf = pBuf;
    m_nSize = nFirst + nSecond;
    return true;
}

KMem::KMem() : m_nSize(0), m_pBuf(nullptr) {
    Add(this);
}

KMem::KMem(int nSize) : m_nSize(0), m_pBuf(nullptr) {
    const char* const pszSignature = "KMem::KMem(int)";
    if (!g_Checks.Hold(nSize >= 0, "nSize >= 0", pszSignature)) {
        m_nSize = nSize;
    } else if (nSize >= 1) {
        Take(nullptr, nSize, nullptr, 0, pszSignature);
    }
    Add(this);
}

KMem::KMem(char* pPoint, int nSize) : m_nSize(0), m_pBuf(nullptr) {
    const char* const pszSignature = "KMem::KMem(char*, int)";
    const bool fgPoint = g_Checks.Hold(pPoint != nullptr, "pPoint", pszSignature);
    g_Checks.Hold(nSize >= 0, "nSize >= 0", pszSignature);
    if (fgPoint && nSize >= 1) {
        Take(pPoint, nSize, nullptr, 0, pszSignature);
    }
    Add(this);
}

KMem::KMem(const KMem& other) : m_nSize(0), m_pBuf(nullptr) {
    if (other.HasBytes()) {
        Take(other.m_pBuf, other.m_nSize, nullptr, 0, "KMem::KMem(const KMem&)");
    }
    Add(this);
}

KMem::~KMem() {
    delete[] m_pBuf;
    m_pBuf = nullptr;
    Remove(this);
    if (g_pMemInfoContainer != nullptr) {
        g_pMemInfoContainer->KeepSize(this);
    }
}

KMem& KMem::operator=(const KMem& other) {
    if (this == &other) {
        return *this;
    }
    if (other.HasBytes()) {
        Take(other.m_pBuf, other.m_nSize, nullptr, 0, "KMem& KMem::operator=(const KMem&)");
    } else {
        // The old bytes are not freed: programs hold on to them through Pos().
        m_nSize = 0;
        m_pBuf = nullptr;
    }
    return *this;
}

KMem& KMem::operator+=(const KMem& other) {
    if (other.HasBytes()) {
        Take(m_pBuf, HasBytes() ? m_nSize : 0, other.m_pBuf, other.m_nSize, "KMem& KMem::operator+=(const KMem&)");
    }
    return *this;
}

KMem* KMem::operator+(const KMem& other) const {
    KMem* const pSum = new (std::nothrow) KMem(*this);
    if (pSum != nullptr) {
        *pSum += other;
    }
    return pSum;
}

char* KMem::Pos(int nPosition) {
    if (nPosition < 0 || nPosition >= m_nSize) {
        g_Checks.Fail("char* KMem::Pos(int)");
        return nullptr;
    }
    return m_pBuf + nPosition;
}

int KMem::Size(int nPosition) const {
    return nPosition < m_nSize ? WrappedDifference(m_nSize, nPosition) : 0;
}

bool KMem::RemoveLBuffer(int nCount) {
    if (nCount < 0 || nCount >= m_nSize) {
        return false;
    }
    return Take(m_pBuf + nCount, m_nSize - nCount, nullptr, 0, "bool KMem::RemoveLBuffer(int)");
}

bool KMem::RemoveRBuffer(int nCount) {
    if (nCount < 0 || nCount >= m_nSize) {
        return false;
    }
    m_nSize -= nCount;
    return true;
}

bool KMem::RemoveAll() {
    delete[] m_pBuf;
    m_pBuf = nullptr;
    m_nSize = 0;
    return true;
}
