#include "KMem.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "support/FailingNew.h"
#include "support/HeapUse.h"
#include "support/LittleMemory.h"
#include "support/Sanitizers.h"
#include "support/Support.h"
#include "support/Threads.h"

namespace {

using support::ScopedChecks;
using support::ScopedLevel;
using support::ScopedNoMemory;
using support::StderrOf;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSource = "src/api/KMem";
constexpr int kSlots = 102400;
/// No allocator gives this much. With 64 bits it is more than there are addresses, and no negative number, which memcheck would
/// report; with 32 bits it is more than the difference of two addresses can be, since there may be as much memory as less.
constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max() / 4 * (sizeof(std::size_t) == 8 ? 1 : 3);

// --------------------------------------------------------------------------------------------------------- The registry

/// The registry's record, field by field.
struct Record {
    int nReady;
    int nCount;
    void* objects[kSlots];
    std::size_t sizes[kSlots];
    void* blocks[kSlots];
};

const void* RegistryAddress();

// The only way to the private pointer: names in an explicit instantiation are not subject to access control.
template <auto ppRegistry>
struct Opened {
    friend const void* RegistryAddress() { return *ppRegistry; }
};
template struct Opened<&KMem::g_pMemInfoContainer>;

/// The registry, or null.
const Record* Registry() {
    return static_cast<const Record*>(RegistryAddress());
}

using Word = unsigned long;
constexpr int kBits = 8 * sizeof(Word);
constexpr int kGroups = kSlots / kBits / kBits;

/// What lies behind the record for objects and once more for blocks: which slots are taken, in three levels of bits, and
/// a table of cells by which pointers are found.
struct Finder {
    Word words[kSlots / kBits];
    Word groups[kGroups];
    Word tops[(kGroups + kBits - 1) / kBits];
    std::int32_t cells[1 << 18];
    int nEnd;
};

struct WholeRegistry {
    Record record;
    Finder objects;
    Finder blocks;
};

/// The registry to be changed as threads without a lock change it: what one has noted, another one overwrites.
WholeRegistry& RacedRegistry() {
    return *static_cast<WholeRegistry*>(const_cast<void*>(RegistryAddress()));
}

/// The registry as it is described: plain arrays that are searched from the start.
class LinearModel {
 public:
    LinearModel() : m_Objects(kSlots), m_Sizes(kSlots), m_Blocks(kSlots) {}
    /// Goes on from what a registry holds.
    explicit LinearModel(const Record& record)
        : m_Objects(std::begin(record.objects), std::end(record.objects)),
          m_Sizes(std::begin(record.sizes), std::end(record.sizes)),
          m_Blocks(std::begin(record.blocks), std::end(record.blocks)),
          m_nCount(record.nCount) {}

    bool Add(void* p) { return Enter(m_Objects, p) != kSlots; }
    bool Remove(void* p) { return Leave(m_Objects, p) != kSlots; }
    bool AddForNonClass(void* p, std::size_t nSize) {
        const int nSlot = Enter(m_Blocks, p);
        if (nSlot != kSlots) {
            m_Sizes[static_cast<std::size_t>(nSlot)] = nSize;
        }
        return nSlot != kSlots;
    }
    bool RemoveForNonClass(void* p) {
        const int nSlot = Leave(m_Blocks, p);
        if (nSlot != kSlots) {
            m_Sizes[static_cast<std::size_t>(nSlot)] = 0;
        }
        return nSlot != kSlots;
    }

    int Count() const { return m_nCount; }

    /// Expects the registry to be the same, slot by slot.
    void ExpectSame(const Record& record) const {
        ASSERT_EQ(record.nCount, m_nCount);
        ASSERT_TRUE(std::equal(m_Objects.begin(), m_Objects.end(), record.objects));
        ASSERT_TRUE(std::equal(m_Blocks.begin(), m_Blocks.end(), record.blocks));
        for (std::size_t i = 0; i < kSlots; ++i) {
            if (m_Blocks[i] != nullptr) {
                ASSERT_EQ(record.sizes[i], m_Sizes[i]) << i;
            }
        }
    }

 private:
    int Enter(std::vector<void*>& slots, void* p) {
        const auto slot = std::find(slots.begin(), slots.end(), nullptr);
        if (slot != slots.end()) {
            *slot = p;
            ++m_nCount;
        }
        return static_cast<int>(slot - slots.begin());
    }
    int Leave(std::vector<void*>& slots, void* p) {
        const auto slot = std::find(slots.begin(), slots.end(), p);
        if (slot != slots.end()) {
            *slot = nullptr;
            --m_nCount;
        }
        return static_cast<int>(slot - slots.begin());
    }

    std::vector<void*> m_Objects;
    std::vector<std::size_t> m_Sizes;
    std::vector<void*> m_Blocks;
    int m_nCount = 0;
};

/// An address that the registry keeps without looking behind it. Never null.
void* Address(int nIndex, int nStride = 16) {
    return reinterpret_cast<void*>(std::uintptr_t{0x10000} +
                                   static_cast<std::uintptr_t>(nIndex) * static_cast<std::uintptr_t>(nStride));
}

KMem* AsObject(void* p) {
    return static_cast<KMem*>(p);
}

std::string ReportLine(int nSlot, const void* p, long long nSize) {
    char szLine[100];
    std::snprintf(szLine, sizeof szLine, "OBJ %08d nonClass:%08x Size:%08d", nSlot,
                  static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(p)), static_cast<int>(nSize));
    return szLine;
}

/// The lines of a text, each without the stamp that every log line has.
std::vector<std::string> LogLinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t nStart = 0;
    for (std::size_t nEnd = text.find('\n'); nEnd != std::string::npos; nEnd = text.find('\n', nStart)) {
        const std::string line = text.substr(nStart, nEnd - nStart);
        const std::size_t nStamp = line.find(']');
        EXPECT_THAT(line.substr(0, nStamp + 1), testing::MatchesRegex(support::StampPattern()));
        lines.push_back(line.substr(nStamp + 1));
        nStart = nEnd + 1;
    }
    EXPECT_EQ(nStart, text.size());
    return lines;
}

/// Shuts the registry down and returns the lines of its leak report.
std::vector<std::string> LeakReport() {
    return LogLinesOf(StderrOf([] { KMem::Deinit(); }));
}

void Drop() {
    const ScopedLevel silent(3);
    KMem::Init();
    KMem::Deinit();
}

/// Each test starts without a registry, at level 0 and with the checks off, and leaves it so.
class KMemTest : public testing::Test {
 protected:
    KMemTest() : m_Checks(false), m_Level(0) { Drop(); }
    ~KMemTest() override { Drop(); }

 private:
    ScopedChecks m_Checks;
    ScopedLevel m_Level;
};

// ----------------------------------------------------------------------------------------------------------- The blocks

struct Layout {
    void* pVirtualTable;
    int nSize;
    char* pBuf;
};

Layout LayoutOf(const KMem& mem) {
    static_assert(sizeof(Layout) == sizeof(KMem), "the fields are known");
    Layout layout;
    std::memcpy(&layout, reinterpret_cast<const char*>(&mem), sizeof layout);
    return layout;
}

const char* BufferOf(const KMem& mem) {
    return LayoutOf(mem).pBuf;
}

/// A block's bytes.
std::string BytesOf(KMem& mem) {
    return mem.GetSize() > 0 ? std::string(mem.Pos(0), static_cast<std::size_t>(mem.GetSize())) : "";
}

KMem MemOf(std::string bytes) {
    return KMem(&bytes[0], static_cast<int>(bytes.size()));
}

/// A block that says it has another size than it has, for the length of a block.
class ScopedSize {
 public:
    ScopedSize(KMem& mem, int nSize) : m_Mem(mem), m_nBefore(mem.GetSize()) { Set(nSize); }
    ~ScopedSize() { Set(m_nBefore); }
    ScopedSize(const ScopedSize&) = delete;
    ScopedSize& operator=(const ScopedSize&) = delete;

 private:
    void Set(int nSize) {
        std::memcpy(reinterpret_cast<char*>(&m_Mem) + offsetof(Layout, nSize), &nSize, sizeof nSize);
    }

    KMem& m_Mem;
    int m_nBefore;
};

// -------------------------------------------------------------------------------------------------- Registry: life time

/// Whether there was a registry when the library was loaded and nothing of it had been called.
const bool g_fgRegistryAtLoad = RegistryAddress() != nullptr;

TEST_F(KMemTest, AtLoadThereIsNoRegistry) {
    EXPECT_FALSE(g_fgRegistryAtLoad);
}

TEST_F(KMemTest, InitMakesAnEmptyRegistryOnce) {
    EXPECT_EQ(Registry(), nullptr);
    EXPECT_TRUE(KMem::Init());
    const Record* const pRegistry = Registry();
    ASSERT_NE(pRegistry, nullptr);
    EXPECT_EQ(pRegistry->nReady, 1);
    LinearModel().ExpectSame(*pRegistry);
    EXPECT_FALSE(KMem::Init());
    EXPECT_EQ(Registry(), pRegistry);
}

TEST_F(KMemTest, DeinitOfAnEmptyRegistryDropsItInSilence) {
    const ScopedChecks checks(true);
    KMem::Init();
    EXPECT_THAT(LeakReport(), IsEmpty());
    EXPECT_EQ(Registry(), nullptr);
}

TEST_F(KMemTest, AfterDeinitTheRegistryCanBeMadeAgain) {
    KMem::Init();
    KMem::AddForNonClass(Address(1), 1);
    StderrOf([] { KMem::Deinit(); });
    EXPECT_TRUE(KMem::Init());
    LinearModel().ExpectSame(*Registry());
}

/// How many of the registry's pages are in memory; -1 where the system does not say.
long ResidentPages() {
    const std::size_t nPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::vector<unsigned char> pages((sizeof(WholeRegistry) + nPage - 1) / nPage, 1);
    if (mincore(const_cast<void*>(RegistryAddress()), sizeof(WholeRegistry), pages.data()) != 0) {
        return -1;
    }
    return std::count_if(pages.begin(), pages.end(), [](unsigned char nState) { return (nState & 1U) != 0; });
}

TEST_F(KMemTest, TheRegistryTakesNoMemoryBeforeItIsNeededAlsoWhenItIsMadeAgain) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(KMem::Init());
        EXPECT_EQ(ResidentPages(), 1);
        // Its slot, its size, its cell, and what is taken.
        KMem::AddForNonClass(Address(1), 1);
        KMem::RemoveForNonClass(Address(1));
        EXPECT_LE(ResidentPages(), 8);
        KMem::Deinit();
    }
}

TEST_F(KMemTest, DeinitGivesTheRegistrysMemoryBack) {
    ASSERT_TRUE(KMem::Init());
    void* const pRegistry = const_cast<void*>(RegistryAddress());
    // Of memory alone the system says whether it is resident.
    unsigned char nState = 0;
    EXPECT_EQ(mincore(pRegistry, 1, &nState), 0);
    KMem::Deinit();
    EXPECT_EQ(mincore(pRegistry, 1, &nState), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(KMemTest, DeinitWithoutARegistryFailsACheckAndDoesNothingWithTheChecksOff) {
    EXPECT_CHECK_FAILS(KMem::Deinit(), "g_pMemInfoContainer", kSource, "static void KMem::Deinit()");
    EXPECT_THAT(LeakReport(), IsEmpty());
    EXPECT_EQ(Registry(), nullptr);
}

TEST_F(KMemTest, EveryFirstEntryMakesTheRegistry) {
    const std::vector<std::function<void()>> entries = {
        [] { KMem::Add(AsObject(Address(1))); },
        [] { KMem::AddForNonClass(Address(1), 1); },
        [] { KMem::Add(nullptr); },
        [] { std::free(KMem::Malloc(1)); },
        [] { std::free(KMem::Calloc(1, 1)); },
        [] { const KMem mem; },
    };
    for (const auto& entry : entries) {
        entry();
        ASSERT_NE(Registry(), nullptr);
        KMem::Remove(AsObject(Address(1)));
        Drop();
    }
}

TEST_F(KMemTest, WithoutMemoryForTheRegistryNothingIsEnteredAndWithTheChecksOffAllElseWorks) {
    const int nStep = support::InLittleMemory([] {
        void* volatile pSmall = std::malloc(3);
        // The heap may still hold enough. What is taken of it, until the process ends, is a chain.
        static void* s_pTaken = nullptr;
        for (std::size_t nSize = sizeof(WholeRegistry); nSize > 1000; nSize /= 2) {
            while (void* const pBlock = std::malloc(nSize)) {
                *static_cast<void**>(pBlock) = s_pTaken;
                s_pTaken = pBlock;
            }
        }
        std::free(pSmall);  // What is left of the heap may be less than even this.
        if (KMem::Init() || KMem::Add(AsObject(Address(1))) || KMem::AddForNonClass(Address(1), 1)) {
            return 1;
        }
        void* pBlock = KMem::Malloc(3);
        if (pBlock == nullptr || Registry() != nullptr) {
            return 2;
        }
        KMem::Free(&pBlock);
        const KMem mem;
        return pBlock == nullptr && mem.GetSize() == 0 && Registry() == nullptr ? 0 : 3;
    });
    if (nStep == support::kMemoryCannotBeLimited) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    EXPECT_EQ(nStep, 0);
}

TEST_F(KMemTest, RemovingMakesNoRegistryAndIsNotFoundWithoutOne) {
    EXPECT_FALSE(KMem::Remove(AsObject(Address(1))));
    EXPECT_FALSE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_FALSE(KMem::Remove(nullptr));
    EXPECT_FALSE(KMem::RemoveForNonClass(nullptr));
    EXPECT_EQ(Registry(), nullptr);
    EXPECT_CHECK_FAILS(KMem::Remove(nullptr), "0", kSource, "static bool KMem::Remove(KMem*)");
    EXPECT_CHECK_FAILS(KMem::RemoveForNonClass(nullptr), "0", kSource, "static bool KMem::RemoveForNonClass(void*)");
}

TEST_F(KMemTest, AnObjectThatOutlivesTheRegistryIsNotFoundWhenItIsDestroyed) {
    {
        const KMem mem(3);
        StderrOf([] { KMem::Deinit(); });
    }
    EXPECT_EQ(Registry(), nullptr);
    const auto outlive = [] {
        KAssert::SetActive(false);
        const KMem mem(3);
        KMem::Deinit();
        KAssert::SetActive(true);
    };
    EXPECT_CHECK_FAILS(outlive(), "0", kSource, "static bool KMem::Remove(KMem*)");
}

// ----------------------------------------------------------------------------------------------------- Registry: entries

TEST_F(KMemTest, AnEntryTakesTheLowestFreeSlotAndCounts) {
    EXPECT_TRUE(KMem::Add(AsObject(Address(0))));
    EXPECT_TRUE(KMem::AddForNonClass(Address(1), 11));
    EXPECT_TRUE(KMem::Add(AsObject(Address(2))));
    EXPECT_TRUE(KMem::AddForNonClass(Address(3), 33));
    EXPECT_EQ(Registry()->nCount, 4);
    EXPECT_EQ(Registry()->objects[0], Address(0));
    EXPECT_EQ(Registry()->objects[1], Address(2));
    EXPECT_EQ(Registry()->blocks[0], Address(1));
    EXPECT_EQ(Registry()->sizes[0], 11u);
    EXPECT_EQ(Registry()->blocks[1], Address(3));
    EXPECT_EQ(Registry()->sizes[1], 33u);
    EXPECT_TRUE(KMem::Remove(AsObject(Address(0))));
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->nCount, 2);
    EXPECT_EQ(Registry()->objects[0], nullptr);
    EXPECT_EQ(Registry()->blocks[0], nullptr);
    EXPECT_EQ(Registry()->sizes[0], 0u);
    EXPECT_TRUE(KMem::Add(AsObject(Address(4))));
    EXPECT_EQ(Registry()->objects[0], Address(4)) << "the freed slot is used again";
    KMem::Remove(AsObject(Address(4)));
    KMem::Remove(AsObject(Address(2)));
}

TEST_F(KMemTest, ObjectsAndBlocksAreFoundAmongTheirOwnKindAlone) {
    KMem::Add(AsObject(Address(0)));
    KMem::AddForNonClass(Address(1), 1);
    EXPECT_FALSE(KMem::RemoveForNonClass(Address(0)));
    EXPECT_FALSE(KMem::Remove(AsObject(Address(1))));
    EXPECT_EQ(Registry()->nCount, 2);
    KMem::Remove(AsObject(Address(0)));
}

TEST_F(KMemTest, RemovingWhatIsNotThereFailsACheckAndChangesNothing) {
    KMem::Init();
    EXPECT_CHECK_FAILS(KMem::Init();
                       KMem::Remove(AsObject(Address(1))), "0", kSource, "static bool KMem::Remove(KMem*)");
    EXPECT_CHECK_FAILS(KMem::Init();
                       KMem::RemoveForNonClass(Address(1)), "0", kSource, "static bool KMem::RemoveForNonClass(void*)");
    EXPECT_FALSE(KMem::Remove(AsObject(Address(1))));
    EXPECT_FALSE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->nCount, 0);
}

TEST_F(KMemTest, ADoubledEntryIsRemovedAtItsLowestSlotFirst) {
    for (const int nIndex : {1, 2, 1, 3, 1}) {
        KMem::AddForNonClass(Address(nIndex), static_cast<std::size_t>(nIndex));
    }
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->blocks[0], nullptr);
    EXPECT_EQ(Registry()->blocks[2], Address(1));
    KMem::AddForNonClass(Address(1), 5);
    EXPECT_EQ(Registry()->blocks[0], Address(1)) << "the lowest, though it came last";
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->blocks[0], nullptr);
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->blocks[2], nullptr);
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->blocks[4], nullptr);
    EXPECT_FALSE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->nCount, 2);
}

TEST_F(KMemTest, ANullPointerCountsWithoutASlot) {
    EXPECT_TRUE(KMem::Add(nullptr));
    EXPECT_TRUE(KMem::AddForNonClass(nullptr, 9));
    EXPECT_EQ(Registry()->nCount, 2);
    EXPECT_TRUE(KMem::AddForNonClass(Address(1), 1));
    EXPECT_EQ(Registry()->blocks[0], Address(1));
    EXPECT_EQ(Registry()->sizes[0], 1u);
    EXPECT_TRUE(KMem::Remove(nullptr));
    EXPECT_TRUE(KMem::RemoveForNonClass(nullptr));
    EXPECT_EQ(Registry()->nCount, 1);
    EXPECT_TRUE(KMem::Remove(nullptr));
    EXPECT_TRUE(KMem::Remove(nullptr));
    EXPECT_EQ(Registry()->nCount, -1) << "below zero if need be";
    EXPECT_EQ(Registry()->blocks[0], Address(1));
}

/// Enters as many objects and blocks as there are slots.
void Fill() {
    for (int i = 0; i < kSlots; ++i) {
        KMem::Add(AsObject(Address(i)));
        KMem::AddForNonClass(Address(i), 1);
    }
}

/// Removes the objects again: the leak report would look behind them.
void RemoveObjects() {
    for (int i = 0; i < kSlots; ++i) {
        KMem::Remove(AsObject(Address(i)));
    }
}

TEST_F(KMemTest, AFullRegistryRefusesEntriesNullPointersIncluded) {
    Fill();
    EXPECT_EQ(Registry()->nCount, 2 * kSlots);
    EXPECT_EQ(Registry()->objects[kSlots - 1], Address(kSlots - 1));
    EXPECT_EQ(Registry()->blocks[kSlots - 1], Address(kSlots - 1));
    EXPECT_FALSE(KMem::Add(AsObject(Address(kSlots))));
    EXPECT_FALSE(KMem::AddForNonClass(Address(kSlots), 1));
    EXPECT_FALSE(KMem::Add(nullptr));
    EXPECT_FALSE(KMem::AddForNonClass(nullptr, 1));
    EXPECT_FALSE(KMem::Remove(nullptr)) << "no free slot holds it";
    EXPECT_FALSE(KMem::RemoveForNonClass(nullptr));
    EXPECT_FALSE(KMem::Remove(AsObject(Address(kSlots))));
    EXPECT_EQ(Registry()->nCount, 2 * kSlots);
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(777)));
    EXPECT_TRUE(KMem::AddForNonClass(Address(kSlots), 1));
    EXPECT_EQ(Registry()->blocks[777], Address(kSlots));
    RemoveObjects();
}

TEST_F(KMemTest, AFullRegistryFailsACheck) {
    const auto addToFull = [] {
        KAssert::SetActive(false);
        Fill();
        KAssert::SetActive(true);
        KMem::Add(AsObject(Address(kSlots)));
    };
    const auto addBlockToFull = [] {
        KAssert::SetActive(false);
        Fill();
        KAssert::SetActive(true);
        KMem::AddForNonClass(Address(kSlots), 1);
    };
    EXPECT_CHECK_FAILS(addToFull(), "0", kSource, "static bool KMem::Add(KMem*)");
    EXPECT_CHECK_FAILS(addBlockToFull(), "0", kSource, "static bool KMem::AddForNonClass(void*, size_t)");
}

TEST_F(KMemTest, WithAFullRegistryObjectsAndBlocksWorkWithoutAnEntry) {
    Fill();
    {
        KMem mem = MemOf("abc");
        EXPECT_EQ(BytesOf(mem), "abc");
        void* pBlock = KMem::Malloc(5);
        ASSERT_NE(pBlock, nullptr);
        KMem::Free(&pBlock);
        EXPECT_EQ(pBlock, nullptr);
    }
    EXPECT_EQ(Registry()->nCount, 2 * kSlots);
    RemoveObjects();
}

// -------------------------------------------------------------------------------------- Registry: against plain arrays

/// One random operation on both, with the same result expected.
void Step(std::mt19937& random, LinearModel& model, int nPool, int nPercentAdded) {
    const auto chance = [&random](int nPercent) {
        return std::uniform_int_distribution<int>(0, 99)(random) < nPercent;
    };
    const bool fgNull = chance(4);
    const int nIndex = std::uniform_int_distribution<int>(0, nPool - 1)(random);
    void* const p = fgNull ? nullptr : Address(nIndex, 8);
    const bool fgAdd = chance(nPercentAdded);
    const bool fgObject = chance(50);
    const auto nSize = static_cast<std::size_t>(nIndex) + 1;
    if (fgAdd && fgObject) {
        ASSERT_EQ(KMem::Add(AsObject(p)), model.Add(p));
    } else if (fgAdd) {
        ASSERT_EQ(KMem::AddForNonClass(p, nSize), model.AddForNonClass(p, nSize));
    } else if (fgObject) {
        ASSERT_EQ(KMem::Remove(AsObject(p)), model.Remove(p));
    } else {
        ASSERT_EQ(KMem::RemoveForNonClass(p), model.RemoveForNonClass(p));
    }
    ASSERT_EQ(Registry()->nCount, model.Count());
}

/// Removes every object that is left.
void RemoveAllObjects() {
    for (int i = 0; i < kSlots; ++i) {
        if (Registry()->objects[i] != nullptr) {
            KMem::Remove(AsObject(Registry()->objects[i]));
        }
    }
}

TEST_F(KMemTest, RandomOperationsLeaveTheSameSlotsAsPlainArrays) {
    for (const int nPool : {3, 40, 700}) {
        Drop();
        KMem::Init();
        LinearModel model;
        std::mt19937 random(static_cast<unsigned int>(nPool));
        for (int nStep = 0; nStep < 6000 && !HasFatalFailure(); ++nStep) {
            Step(random, model, nPool, nStep % 2000 < 1000 ? 65 : 35);  // grows and shrinks in turn
            if (nStep % 500 == 499) {
                model.ExpectSame(*Registry());
            }
        }
        RemoveAllObjects();
    }
}

TEST_F(KMemTest, RandomOperationsOnANearlyFullRegistryLeaveTheSameSlotsAsPlainArrays) {
    KMem::Init();
    for (int i = 0; i < kSlots; ++i) {
        ASSERT_TRUE(KMem::Add(AsObject(Address(i, 8))));
        ASSERT_TRUE(KMem::AddForNonClass(Address(i, 8), static_cast<std::size_t>(i) + 1));
        ASSERT_EQ(Registry()->objects[i], Address(i, 8));
        ASSERT_EQ(Registry()->blocks[i], Address(i, 8));
    }
    LinearModel model(*Registry());
    std::mt19937 random(20240506);
    for (int nStep = 0; nStep < 1200 && !HasFatalFailure(); ++nStep) {
        Step(random, model, kSlots, nStep % 200 < 100 ? 35 : 65);
    }
    model.ExpectSame(*Registry());
    RemoveAllObjects();
}

TEST_F(KMemTest, EveryEntryIsFoundWhateverTheDistanceOfTheAddresses) {
    for (const int nStride : {1, 4, 8, 24, 64, 4096, 8192}) {
        Drop();
        std::vector<int> order(kSlots);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned int>(nStride)));
        for (const int nIndex : order) {
            ASSERT_TRUE(KMem::AddForNonClass(Address(nIndex, nStride), 1));
        }
        std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned int>(nStride) + 1));
        for (const int nIndex : order) {
            ASSERT_TRUE(KMem::RemoveForNonClass(Address(nIndex, nStride))) << nIndex << " by " << nStride;
        }
        ASSERT_EQ(Registry()->nCount, 0);
        ASSERT_TRUE(std::all_of(std::begin(Registry()->blocks), std::end(Registry()->blocks),
                                [](const void* p) { return p == nullptr; }));
    }
}

TEST_F(KMemTest, OnePointerMayTakeManySlots) {
    constexpr int kEntries = 3000;
    for (int i = 0; i < kEntries; ++i) {
        ASSERT_TRUE(KMem::AddForNonClass(Address(1), 1));
    }
    for (int i = 0; i < kEntries; ++i) {
        ASSERT_EQ(Registry()->blocks[i], Address(1));
        ASSERT_TRUE(KMem::RemoveForNonClass(Address(1)));
        ASSERT_EQ(Registry()->blocks[i], nullptr);
    }
    EXPECT_FALSE(KMem::RemoveForNonClass(Address(1)));
}

TEST_F(KMemTest, EntriesFromSeveralThreadsWithoutALockLoseNothingButEntries) {
    if (KALVOREN_WITH_TSAN) {
        GTEST_SKIP() << "the registry has no lock: a race is what this test makes";
    }
    KMem::Init();
    support::RunInThreads(4, [](int) {
        for (int nRound = 0; nRound < 30000; ++nRound) {
            const KMem first(3);
            const auto second = std::make_unique<KMem>(first);
            void* pBlock = KMem::Malloc(4);
            KMem::Free(&pBlock);
        }
    });
    // A slot must not outlive its object, or the leak report would look at what is gone.
    EXPECT_TRUE(std::all_of(std::begin(Registry()->objects), std::end(Registry()->objects),
                            [](const void* p) { return p == nullptr; }));
    LeakReport();
}

// ------------------------------------------------------------------------- Registry: what threads without a lock leave

TEST_F(KMemTest, WhatFindsSlotsLiesBehindTheRecord) {
    KMem::AddForNonClass(Address(1), 1);
    KMem::AddForNonClass(Address(2), 1);
    const Finder& blocks = RacedRegistry().blocks;
    EXPECT_EQ(blocks.words[0], 3u);
    EXPECT_EQ(std::count(std::begin(blocks.cells), std::end(blocks.cells), 0), (1 << 18) - 2);
    EXPECT_EQ(std::accumulate(std::begin(blocks.cells), std::end(blocks.cells), 0), 1 + 2);
    EXPECT_EQ(RacedRegistry().objects.words[0], 0u);
    KMem::Add(AsObject(Address(1)));
    EXPECT_EQ(RacedRegistry().objects.words[0], 1u);
    KMem::Remove(AsObject(Address(1)));
}

TEST_F(KMemTest, AnEntryWhoseCellWasLostIsStillFoundAndRemoved) {
    for (int i = 0; i < 3; ++i) {
        KMem::Add(AsObject(Address(i)));
        KMem::AddForNonClass(Address(i), 1);
    }
    for (Finder* const pFinder : {&RacedRegistry().objects, &RacedRegistry().blocks}) {
        std::fill(std::begin(pFinder->cells), std::end(pFinder->cells), 0);
    }
    for (const int i : {1, 2, 0}) {
        EXPECT_TRUE(KMem::Remove(AsObject(Address(i))));
        EXPECT_FALSE(KMem::Remove(AsObject(Address(i))));
        EXPECT_EQ(Registry()->objects[i], nullptr);
        EXPECT_TRUE(KMem::RemoveForNonClass(Address(i)));
        EXPECT_FALSE(KMem::RemoveForNonClass(Address(i)));
        EXPECT_EQ(Registry()->blocks[i], nullptr);
    }
    EXPECT_EQ(Registry()->nCount, 0);
    EXPECT_EQ(RacedRegistry().blocks.words[0], 0u) << "the slots can be taken again";
}

TEST_F(KMemTest, EveryWalkEndsWhereNoCellIsFree) {
    KMem::Init();
    auto& cells = RacedRegistry().blocks.cells;
    const auto loseAll = [&cells] { std::fill(std::begin(cells), std::end(cells), 1); };
    loseAll();
    EXPECT_TRUE(KMem::AddForNonClass(Address(1), 1));
    EXPECT_TRUE(KMem::AddForNonClass(Address(2), 1));
    loseAll();
    EXPECT_FALSE(KMem::RemoveForNonClass(Address(3)));
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(2))) << "of no cell";
    EXPECT_EQ(Registry()->blocks[1], nullptr);
    EXPECT_TRUE(KMem::AddForNonClass(Address(4), 1));
    EXPECT_EQ(Registry()->blocks[1], Address(4));
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(4))) << "of one cell";
    EXPECT_EQ(Registry()->blocks[1], nullptr);
    EXPECT_TRUE(KMem::RemoveForNonClass(Address(1)));
    EXPECT_EQ(Registry()->nCount, 0);
}

TEST_F(KMemTest, AnEntryGoesOnBehindAFullWordThatIsNotNotedAsFull) {
    KMem::Init();
    RacedRegistry().blocks.words[0] = ~Word{0};
    EXPECT_TRUE(KMem::AddForNonClass(Address(1), 1));
    EXPECT_EQ(Registry()->blocks[kBits], Address(1));
}

TEST_F(KMemTest, AFullRegistryRefusesEntriesAlsoWhereItIsNotNotedAsFull) {
    Fill();
    for (Finder* const pFinder : {&RacedRegistry().objects, &RacedRegistry().blocks}) {
        pFinder->tops[(kGroups - 1) / kBits] &= ~(Word{1} << (kGroups - 1) % kBits);
    }
    EXPECT_FALSE(KMem::Add(AsObject(Address(kSlots))));
    EXPECT_FALSE(KMem::AddForNonClass(Address(kSlots), 1));
    for (Finder* const pFinder : {&RacedRegistry().objects, &RacedRegistry().blocks}) {
        pFinder->groups[kGroups - 1] &= ~(Word{1} << (kBits - 1));
    }
    EXPECT_FALSE(KMem::Add(AsObject(Address(kSlots))));
    EXPECT_FALSE(KMem::AddForNonClass(Address(kSlots), 1));
    EXPECT_EQ(Registry()->nCount, 2 * kSlots);
    RemoveObjects();
}

// ------------------------------------------------------------------------------------------------------- The leak report

TEST_F(KMemTest, TheReportHasALineForEachObjectAndBlockWithSlotAddressAndSize) {
    const KMem first(7);
    const KMem second;
    const std::vector<std::string> lines = [&] {
        KMem::AddForNonClass(Address(5), 12345678);
        return LeakReport();
    }();
    EXPECT_THAT(lines,
                ElementsAre(ReportLine(0, &first, 7), ReportLine(0, Address(5), 12345678), ReportLine(1, &second, 0)));
    EXPECT_EQ(Registry(), nullptr);
}

TEST_F(KMemTest, TheReportIsWrittenExactlySo) {
    KMem::AddForNonClass(reinterpret_cast<void*>(std::uintptr_t{0xBEEF}), 42);
    EXPECT_THAT(LeakReport(), ElementsAre("OBJ 00000000 nonClass:0000beef Size:00000042"));
}

TEST_F(KMemTest, AddressesAreReportedByTheirLow32Bits) {
    const auto nAddress = static_cast<std::uintptr_t>(0x12345678FEDCBA90ULL);
    KMem::AddForNonClass(reinterpret_cast<void*>(nAddress), 1);
    EXPECT_THAT(LeakReport(), ElementsAre("OBJ 00000000 nonClass:fedcba90 Size:00000001"));
}

TEST_F(KMemTest, SizesAreReportedAsSignedNumbers) {
    const KMem negative(-5);
    KMem::AddForNonClass(Address(1), std::size_t{0xFFFFFFFF});
    KMem::AddForNonClass(Address(2), 123456789);
    EXPECT_THAT(LeakReport(), ElementsAre(ReportLine(0, &negative, -5), ReportLine(0, Address(1), -1),
                                          ReportLine(1, Address(2), 123456789)));
}

TEST_F(KMemTest, TheReportGoesBySlotsAndForEachSlotTheObjectComesFirst) {
    std::vector<std::unique_ptr<KMem>> objects;
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i) {
        objects.push_back(std::make_unique<KMem>(i));
        KMem::AddForNonClass(Address(i), static_cast<std::size_t>(i));
    }
    for (int i = 0; i < 200; ++i) {
        if (i % 3 == 0) {
            objects[static_cast<std::size_t>(i)].reset();
        } else {
            expected.push_back(ReportLine(i, objects[static_cast<std::size_t>(i)].get(), i));
        }
        if (i % 5 == 0) {
            KMem::RemoveForNonClass(Address(i));
        } else {
            expected.push_back(ReportLine(i, Address(i), i));
        }
    }
    EXPECT_EQ(LeakReport(), expected);
}

TEST_F(KMemTest, TheReportReachesTheLastSlotAndSkipsFreeOnes) {
    for (int i = 0; i < kSlots; ++i) {
        KMem::AddForNonClass(Address(i), 1);
    }
    for (int i = 0; i < kSlots; ++i) {
        if (i != 63 && i != 64 && i != 70000 && i != kSlots - 1) {
            KMem::RemoveForNonClass(Address(i));
        }
    }
    EXPECT_THAT(LeakReport(),
                ElementsAre(ReportLine(63, Address(63), 1), ReportLine(64, Address(64), 1),
                            ReportLine(70000, Address(70000), 1), ReportLine(kSlots - 1, Address(kSlots - 1), 1)));
}

TEST_F(KMemTest, TheReportMissesNoSlotBehindAStretchOfFreeOnes) {
    const std::vector<int> kept = {64, 65, 191, 256, 70016};
    for (int i = 0; i < kSlots; ++i) {
        KMem::AddForNonClass(Address(i), 1);
    }
    for (int i = 0; i < kSlots; ++i) {
        if (std::find(kept.begin(), kept.end(), i) == kept.end()) {
            KMem::RemoveForNonClass(Address(i));
        }
    }
    std::vector<std::string> expected;
    for (const int nSlot : kept) {
        expected.push_back(ReportLine(nSlot, Address(nSlot), 1));
    }
    EXPECT_EQ(LeakReport(), expected);
}

TEST_F(KMemTest, TheReportIsDroppedAtLevelsAboveZero) {
    const ScopedLevel level(1);
    KMem::AddForNonClass(Address(1), 1);
    EXPECT_THAT(LeakReport(), IsEmpty());
    EXPECT_EQ(Registry(), nullptr);
}

TEST_F(KMemTest, TheReportShowsTheSizeThatAnObjectHasNow) {
    KMem mem = MemOf("abcdef");
    mem.RemoveRBuffer(4);
    EXPECT_THAT(LeakReport(), ElementsAre(ReportLine(0, &mem, 2)));
}

TEST_F(KMemTest, AnObjectThatWasEnteredTwiceAndDestroyedIsReportedWithItsLastSize) {
    const void* pObject = nullptr;
    {
        auto mem = std::make_unique<KMem>(7);
        KMem::Add(mem.get());
        KMem::Add(mem.get());
        mem->RemoveRBuffer(3);
        pObject = mem.get();
    }
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): its address alone.
    EXPECT_THAT(LeakReport(), ElementsAre(ReportLine(1, pObject, 4), ReportLine(2, pObject, 4)));
}

TEST_F(KMemTest, AnEntryThatAnObjectLeftBehindCanBeRemovedAndItsSlotUsedAgain) {
    const void* pGone = nullptr;
    {
        auto mem = std::make_unique<KMem>(7);
        KMem::Add(mem.get());
        pGone = mem.get();
    }
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): its address alone.
    EXPECT_TRUE(KMem::Remove(AsObject(const_cast<void*>(pGone))));
    EXPECT_EQ(Registry()->nCount, 0);
    const KMem first(1);
    const KMem second(2);
    EXPECT_THAT(LeakReport(), ElementsAre(ReportLine(0, &first, 1), ReportLine(1, &second, 2)));
}

TEST_F(KMemTest, AfterTheReportACountOtherThanZeroFailsACheck) {
    EXPECT_EXIT(
        {
            KMem::AddForNonClass(reinterpret_cast<void*>(std::uintptr_t{0xBEEF}), 42);
            KAssert::SetActive(true);
            KMem::Deinit();
        },
        testing::KilledBySignal(SIGABRT),
        testing::AllOf(testing::HasSubstr("]OBJ 00000000 nonClass:0000beef Size:00000042\n"),
                       support::ReportOfCheck("g_pMemInfoContainer->mnInstanceCount == 0", kSource,
                                              "static void KMem::Deinit()")));
}

TEST_F(KMemTest, ANullPointersCountFailsTheCheckWithoutAnyLine) {
    EXPECT_CHECK_FAILS(KMem::Add(nullptr); KMem::Deinit(), "g_pMemInfoContainer->mnInstanceCount == 0", kSource,
                                           "static void KMem::Deinit()");
    KMem::Add(nullptr);
    EXPECT_THAT(LeakReport(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------------- Raw memory helpers

TEST_F(KMemTest, MallocGivesABlockAndEntersItsSize) {
    const ScopedChecks checks(true);
    void* pBlock = KMem::Malloc(100);
    ASSERT_NE(pBlock, nullptr);
    std::memset(pBlock, 1, 100);
    EXPECT_EQ(Registry()->blocks[0], pBlock);
    EXPECT_EQ(Registry()->sizes[0], 100u);
    KMem::Free(&pBlock);
    EXPECT_EQ(Registry()->nCount, 0);
}

TEST_F(KMemTest, MallocOfOneByteFailsNoCheck) {
    const ScopedChecks checks(true);
    void* pBlock = KMem::Malloc(1);
    EXPECT_NE(pBlock, nullptr);
    KMem::Free(&pBlock);
}

TEST_F(KMemTest, MallocOfNothingFailsACheckAndWithTheChecksOffEntersWhatMallocGives) {
    EXPECT_CHECK_FAILS(KMem::Malloc(0), "nSize > 0", kSource, "static void* KMem::Malloc(size_t)");
    void* pBlock = KMem::Malloc(0);
    EXPECT_EQ(Registry()->nCount, 1);
    EXPECT_EQ(Registry()->blocks[0], pBlock);
    EXPECT_EQ(Registry()->sizes[0], 0u);
    KMem::Free(&pBlock);
}

TEST_F(KMemTest, AnAllocationThatFailsCountsWithoutASlot) {
    EXPECT_EQ(KMem::Malloc(kTooMuch), nullptr);
    EXPECT_EQ(KMem::Calloc(8, kTooMuch), nullptr);
    EXPECT_EQ(KMem::Calloc(-1, 8), nullptr);
    EXPECT_EQ(Registry()->nCount, 3);
    EXPECT_EQ(Registry()->blocks[0], nullptr);
}

TEST_F(KMemTest, CallocGivesZeroesAndEntersTheSizeOfOneElement) {
    const ScopedChecks checks(true);
    void* pBlock = KMem::Calloc(10, 8);
    ASSERT_NE(pBlock, nullptr);
    EXPECT_EQ(std::string(static_cast<const char*>(pBlock), 80), std::string(80, '\0'));
    EXPECT_EQ(Registry()->blocks[0], pBlock);
    EXPECT_EQ(Registry()->sizes[0], 8u);
    KMem::Free(&pBlock);
}

TEST_F(KMemTest, CallocOfNothingFailsNoCheck) {
    const ScopedChecks checks(true);
    for (const int nCount : {0, 3}) {
        void* pBlock = KMem::Calloc(nCount, nCount == 0 ? 8 : 0);
        EXPECT_EQ(Registry()->nCount, 1);
        KMem::Free(&pBlock);
    }
}

TEST_F(KMemTest, ReallocKeepsTheBytesAndEntersTheNewSizeInTheLowestFreeSlot) {
    const ScopedChecks checks(true);
    void* pFirst = KMem::Malloc(4);
    void* pSecond = KMem::Malloc(4);
    std::memcpy(pSecond, "abc", 4);
    KMem::Free(&pFirst);
    pSecond = KMem::Realloc(pSecond, 5000);
    ASSERT_NE(pSecond, nullptr);
    EXPECT_STREQ(static_cast<const char*>(pSecond), "abc");
    EXPECT_EQ(Registry()->blocks[0], pSecond);
    EXPECT_EQ(Registry()->sizes[0], 5000u);
    EXPECT_EQ(Registry()->blocks[1], nullptr);
    EXPECT_EQ(Registry()->nCount, 1);
    KMem::Free(&pSecond);
}

TEST_F(KMemTest, ReallocOfANullPointerEntersTheResultWithoutRaisingTheCount) {
    const ScopedChecks checks(true);
    KMem::Init();
    void* pBlock = KMem::Realloc(nullptr, 6);
    ASSERT_NE(pBlock, nullptr);
    EXPECT_EQ(Registry()->blocks[0], pBlock);
    EXPECT_EQ(Registry()->sizes[0], 6u);
    EXPECT_EQ(Registry()->nCount, 0);
    KMem::Free(&pBlock);
    EXPECT_EQ(Registry()->blocks[0], nullptr);
    EXPECT_EQ(Registry()->nCount, -1);
    KAssert::SetActive(false);
}

TEST_F(KMemTest, ReallocOfANullPointerWithoutARegistryFailsTheCheckOfRemoving) {
    EXPECT_CHECK_FAILS(KMem::Realloc(nullptr, 6), "0", kSource, "static bool KMem::RemoveForNonClass(void*)");
    void* pBlock = KMem::Realloc(nullptr, 6);
    EXPECT_EQ(Registry()->nCount, 1);
    KMem::Free(&pBlock);
}

TEST_F(KMemTest, ReallocOfABlockThatWasNotEnteredFailsTheCheckOfRemovingAndEntersTheResult) {
    const auto reallocForeign = [] {
        KMem::Init();
        KMem::Realloc(std::malloc(3), 6);
    };
    EXPECT_CHECK_FAILS(reallocForeign(), "0", kSource, "static bool KMem::RemoveForNonClass(void*)");
    void* pBlock = KMem::Realloc(std::malloc(3), 6);
    EXPECT_EQ(Registry()->nCount, 1);
    KMem::Free(&pBlock);
    EXPECT_EQ(Registry()->nCount, 0);
}

TEST_F(KMemTest, AReallocThatFailsLeavesTheOldBlockWithoutAnEntryAndTheCountAsItWas) {
    void* const pBlock = KMem::Malloc(4);
    EXPECT_EQ(KMem::Realloc(pBlock, kTooMuch), nullptr);
    EXPECT_EQ(Registry()->nCount, 1);
    EXPECT_EQ(Registry()->blocks[0], nullptr);
    std::memset(pBlock, 1, 4);  // still there
    std::free(pBlock);
}

TEST_F(KMemTest, ReallocToNothingFreesAndCountsTheNullPointer) {
    void* const pBlock = KMem::Malloc(4);
    EXPECT_EQ(KMem::Realloc(pBlock, 0), nullptr);
    EXPECT_EQ(Registry()->nCount, 1);
    EXPECT_EQ(Registry()->blocks[0], nullptr);
}

TEST_F(KMemTest, FreeOfANullPointerDoesNothing) {
    const ScopedChecks checks(true);
    void* pBlock = nullptr;
    KMem::Free(&pBlock);
    KMem::Free(nullptr);
    EXPECT_EQ(Registry(), nullptr);
}

TEST_F(KMemTest, FreeOfABlockThatWasNotEnteredFailsTheCheckOfRemovingAndFreesWithTheChecksOff) {
    const auto freeForeign = [] {
        KMem::Init();
        void* pBlock = std::malloc(3);
        KMem::Free(&pBlock);
    };
    EXPECT_CHECK_FAILS(freeForeign(), "0", kSource, "static bool KMem::RemoveForNonClass(void*)");
    void* pBlock = std::malloc(3);
    KMem::Free(&pBlock);
    EXPECT_EQ(pBlock, nullptr);
}

TEST_F(KMemTest, CopyCopiesTheSourcesLengthAndNoMore) {
    const ScopedChecks checks(true);
    for (const std::size_t nLength : {0u, 1u, 3u, 8u}) {
        char szTarget[] = "12345678";
        KMem::Copy(szTarget, 8, "abcdefgh", nLength);
        EXPECT_EQ(szTarget, std::string("abcdefgh").substr(0, nLength) + std::string("12345678").substr(nLength));
    }
}

TEST_F(KMemTest, ACopyThatIsTooLongFailsACheckAndIsCutWithTheChecksOff) {
    char szTarget[] = "12345678";
    EXPECT_CHECK_FAILS(KMem::Copy(szTarget, 3, "abcd", 4), "nTargetLen >= nSourceLen", kSource,
                       "static void KMem::Copy(void*, size_t, const void*, size_t)");
    KMem::Copy(szTarget, 3, "abcd", 4);
    EXPECT_STREQ(szTarget, "abc45678");
    KMem::Copy(szTarget, 0, "xyz", 3);
    EXPECT_STREQ(szTarget, "abc45678");
}

TEST_F(KMemTest, ACopyWithANullPointerFailsACheckAndDoesNothingWithTheChecksOff) {
    char szTarget[] = "1234";
    const char* const pszSignature = "static void KMem::Copy(void*, size_t, const void*, size_t)";
    EXPECT_CHECK_FAILS(KMem::Copy(nullptr, 4, "ab", 2), "pTarget", kSource, pszSignature);
    EXPECT_CHECK_FAILS(KMem::Copy(nullptr, 0, nullptr, 2), "pTarget", kSource, pszSignature);
    EXPECT_CHECK_FAILS(KMem::Copy(szTarget, 4, nullptr, 2), "pSrc", kSource, pszSignature);
    EXPECT_CHECK_FAILS(KMem::Copy(szTarget, 0, nullptr, 2), "pSrc", kSource, pszSignature);
    EXPECT_CHECK_FAILS(KMem::Copy(szTarget, 0, nullptr, 0), "pSrc", kSource, pszSignature);
    KMem::Copy(nullptr, 4, "ab", 2);
    KMem::Copy(szTarget, 4, nullptr, 2);
    KMem::Copy(nullptr, 0, nullptr, 0);
    EXPECT_STREQ(szTarget, "1234");
}

int Sign(int n) {
    return n < 0 ? -1 : n > 0 ? 1 : 0;
}

TEST_F(KMemTest, CmpComparesBytesWithoutASign) {
    const ScopedChecks checks(true);
    const std::string texts[] = {"aaa", "aab", std::string("a\0b", 3), std::string("\x80\x00\x01", 3),
                                 std::string("\xFF\x7F\x00", 3)};
    for (const std::string& left : texts) {
        for (const std::string& right : texts) {
            EXPECT_EQ(Sign(KMem::Cmp(left.data(), right.data(), 3)), Sign(left.compare(0, 3, right, 0, 3)));
        }
    }
    EXPECT_EQ(KMem::Cmp("abc", "xyz", 0), 0);
    EXPECT_EQ(KMem::Cmp("abx", "aby", 2), 0);
}

TEST_F(KMemTest, CmpWithANullPointerFailsACheckAndIsNotEqualWithTheChecksOff) {
    const char* const pszSignature = "static int KMem::Cmp(const void*, const void*, size_t)";
    EXPECT_CHECK_FAILS(KMem::Cmp(nullptr, "a", 1), "pTarget", kSource, pszSignature);
    EXPECT_CHECK_FAILS(KMem::Cmp("a", nullptr, 1), "pSrc", kSource, pszSignature);
    EXPECT_EQ(KMem::Cmp(nullptr, "a", 1), -1);
    EXPECT_EQ(KMem::Cmp("a", nullptr, 1), -1);
    EXPECT_EQ(KMem::Cmp(nullptr, nullptr, 1), -1);
}

TEST_F(KMemTest, SetFillsTheBytesGivenAndNoMore) {
    const ScopedChecks checks(true);
    unsigned char bytes[] = {1, 2, 3, 4};
    KMem::Set(bytes, static_cast<char>(0xFE), 3);
    EXPECT_THAT(bytes, ElementsAre(0xFE, 0xFE, 0xFE, 4));
    KMem::Set(bytes, 'x', 0);
    EXPECT_EQ(bytes[0], 0xFE);
    KMem::Set(nullptr, 'x', 5);
}

// ------------------------------------------------------------------------------------------------- Blocks: construction

TEST_F(KMemTest, TheFieldsAreTheSizeAndTheBytesAndTheDestructorIsVirtual) {
    KMem mem(5);
    EXPECT_EQ(LayoutOf(mem).nSize, 5);
    EXPECT_EQ(LayoutOf(mem).pBuf, mem.Pos(0));
    EXPECT_TRUE(std::has_virtual_destructor<KMem>::value);
}

TEST_F(KMemTest, ADefaultBlockIsEmpty) {
    const ScopedChecks checks(true);
    const KMem mem;
    EXPECT_EQ(mem.GetSize(), 0);
    EXPECT_EQ(BufferOf(mem), nullptr);
}

TEST_F(KMemTest, ABlockOfASizeHasThatManyBytes) {
    const ScopedChecks checks(true);
    for (const int nSize : {0, 1, 5, 100000}) {
        KMem mem(nSize);
        EXPECT_EQ(mem.GetSize(), nSize);
        EXPECT_EQ(BufferOf(mem) == nullptr, nSize == 0);
        if (nSize > 0) {
            std::memset(mem.Pos(0), 7, static_cast<std::size_t>(nSize));
            EXPECT_EQ(*mem.Pos(nSize - 1), 7);
        }
    }
}

TEST_F(KMemTest, ANegativeSizeFailsACheckAndIsKeptWithTheChecksOff) {
    EXPECT_CHECK_FAILS(KMem(-1), "nSize >= 0", kSource, "KMem::KMem(int)");
    for (const int nSize : {-1, -5, INT_MIN}) {
        KMem mem(nSize);
        EXPECT_EQ(mem.GetSize(), nSize);
        EXPECT_EQ(BufferOf(mem), nullptr);
    }
}

TEST_F(KMemTest, ABlockOfANegativeSizeHasNoBytesInAnyOperation) {
    KMem mem(-5);
    EXPECT_EQ(mem.Pos(0), nullptr);
    EXPECT_EQ(mem.Pos(-7), nullptr);
    EXPECT_EQ(mem.Size(-7), 2) << "the size less the position, where that is below the size";
    EXPECT_EQ(mem.Size(-5), 0);
    EXPECT_EQ(mem.Size(0), 0);
    EXPECT_FALSE(mem.RemoveLBuffer(0));
    EXPECT_FALSE(mem.RemoveLBuffer(-9));
    EXPECT_FALSE(mem.RemoveRBuffer(0));
    EXPECT_FALSE(mem.RemoveRBuffer(-9));
    EXPECT_EQ(mem.GetSize(), -5);
    const KMem copy(mem);
    EXPECT_EQ(copy.GetSize(), 0);
    KMem other = MemOf("ab");
    other += mem;
    EXPECT_EQ(BytesOf(other), "ab");
    const std::unique_ptr<KMem> sum(mem + other);
    EXPECT_EQ(BytesOf(*sum), "ab");
    mem += other;
    EXPECT_EQ(BytesOf(mem), "ab");
}

TEST_F(KMemTest, ABlockFromBytesIsACopyOfThem) {
    const ScopedChecks checks(true);
    std::string bytes("ab\0\xFF", 4);
    KMem mem(&bytes[0], 4);
    bytes[0] = 'x';
    EXPECT_EQ(BytesOf(mem), std::string("ab\0\xFF", 4));
    const KMem empty(&bytes[0], 0);
    EXPECT_EQ(empty.GetSize(), 0);
    EXPECT_EQ(BufferOf(empty), nullptr);
}

TEST_F(KMemTest, ABlockFromANullPointerOrANegativeSizeFailsACheckAndIsEmptyWithTheChecksOff) {
    char szBytes[] = "abc";
    EXPECT_CHECK_FAILS(KMem(nullptr, 3), "pPoint", kSource, "KMem::KMem(char*, int)");
    EXPECT_CHECK_FAILS(KMem(nullptr, 0), "pPoint", kSource, "KMem::KMem(char*, int)");
    EXPECT_CHECK_FAILS(KMem(szBytes, -1), "nSize >= 0", kSource, "KMem::KMem(char*, int)");
    for (const int nSize : {3, 0, -1, INT_MIN}) {
        const KMem fromNull(nullptr, nSize);
        EXPECT_EQ(fromNull.GetSize(), 0);
        EXPECT_EQ(BufferOf(fromNull), nullptr);
        const KMem fromBytes(szBytes, nSize < 0 ? nSize : 0);
        EXPECT_EQ(fromBytes.GetSize(), 0);
        EXPECT_EQ(BufferOf(fromBytes), nullptr);
    }
}

TEST_F(KMemTest, ACopyHasBytesOfItsOwn) {
    const ScopedChecks checks(true);
    KMem mem = MemOf("abc");
    KMem copy(mem);
    *mem.Pos(0) = 'x';
    EXPECT_EQ(BytesOf(copy), "abc");
    const KMem empty;
    const KMem copyOfEmpty(empty);
    EXPECT_EQ(copyOfEmpty.GetSize(), 0);
    EXPECT_EQ(BufferOf(copyOfEmpty), nullptr);
}

TEST_F(KMemTest, EveryConstructorEntersTheObjectAndTheDestructorRemovesIt) {
    const ScopedChecks checks(true);
    char szBytes[] = "abc";
    {
        const KMem first;
        const KMem second(2);
        const KMem third(szBytes, 3);
        const KMem fourth(third);
        EXPECT_EQ(Registry()->nCount, 4);
        EXPECT_EQ(Registry()->objects[0], &first);
        EXPECT_EQ(Registry()->objects[1], &second);
        EXPECT_EQ(Registry()->objects[2], &third);
        EXPECT_EQ(Registry()->objects[3], &fourth);
    }
    EXPECT_EQ(Registry()->nCount, 0);
    EXPECT_THAT(LeakReport(), IsEmpty());
}

TEST_F(KMemTest, TheBytesOfAnObjectAreNotEnteredAsABlock) {
    const KMem mem(100);
    EXPECT_EQ(Registry()->blocks[0], nullptr);
}

// --------------------------------------------------------------------------------------------------- Blocks: operations

TEST_F(KMemTest, AnAssignmentReplacesTheBytesByACopy) {
    const ScopedChecks checks(true);
    KMem source = MemOf("abc");
    KMem target = MemOf("much longer");
    EXPECT_EQ(&(target = source), &target);
    *source.Pos(0) = 'x';
    EXPECT_EQ(BytesOf(target), "abc");
    KMem empty;
    empty = target;
    EXPECT_EQ(BytesOf(empty), "abc");
}

TEST_F(KMemTest, AnAssignmentToItselfDoesNothing) {
    KMem mem = MemOf("abc");
    const char* const pBuf = BufferOf(mem);
    KMem& same = mem;
    EXPECT_EQ(&(mem = same), &mem);
    EXPECT_EQ(BufferOf(mem), pBuf);
    EXPECT_EQ(BytesOf(mem), "abc");
}

TEST_F(KMemTest, AnAssignmentOfAnEmptyBlockLeaksTheBytes) {
    for (const int nSize : {0, -3}) {
        const KMem empty(nSize);
        KMem mem = MemOf("abc");
        char* const pBytes = mem.Pos(0);
        mem = empty;
        EXPECT_EQ(mem.GetSize(), 0);
        EXPECT_EQ(BufferOf(mem), nullptr);
        EXPECT_EQ(std::string(pBytes, 3), "abc");
        delete[] pBytes;  // they are still there to be freed
    }
}

TEST_F(KMemTest, WhatIsReplacedRemovedOrDestroyedGivesItsMemoryBack) {
    KMem mem = MemOf("abc");
    const KMem other = MemOf("defgh");
    const struct {
        const char* pszWhat;
        std::function<void()> use;
    } rows[] = {
        {"a block", [] { const KMem made(3); }},
        {"a copy", [&] { const KMem made(other); }},
        {"an assignment", [&] { mem = other; }},
        {"appending", [&] { KMem(mem) += other; }},
        {"a sum", [&] { delete (mem + other); }},
        {"removing from the left", [&] { KMem(other).RemoveLBuffer(2); }},
        {"removing all",
         [&] {
             KMem made(other);
             made.RemoveAll();
         }},
        {"raw blocks",
         [] {
             void* pBlock = KMem::Malloc(40);
             pBlock = KMem::Realloc(pBlock, 4000);
             KMem::Free(&pBlock);
             pBlock = KMem::Calloc(3, 40);
             KMem::Free(&pBlock);
         }},
        {"a registry", [] { Drop(); }},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(support::BytesLeftBy(row.use), 0u) << row.pszWhat;
    }
}

TEST_F(KMemTest, AppendingPutsTheOtherBytesBehindTheOwn) {
    const ScopedChecks checks(true);
    KMem mem = MemOf("abc");
    KMem other = MemOf("de");
    EXPECT_EQ(&(mem += other), &mem);
    EXPECT_EQ(BytesOf(mem), "abcde");
    EXPECT_EQ(BytesOf(other), "de");
    KMem empty;
    empty += other;
    EXPECT_EQ(BytesOf(empty), "de");
}

TEST_F(KMemTest, AppendingAnEmptyBlockDoesNothing) {
    KMem mem = MemOf("abc");
    const char* const pBuf = BufferOf(mem);
    mem += KMem();
    mem += KMem(-4);
    EXPECT_EQ(BufferOf(mem), pBuf);
    EXPECT_EQ(BytesOf(mem), "abc");
}

TEST_F(KMemTest, AppendingABlockToItselfDoublesIt) {
    KMem mem = MemOf("abc");
    KMem& same = mem;
    mem += same;
    EXPECT_EQ(BytesOf(mem), "abcabc");
}

TEST_F(KMemTest, ASumIsANewBlockThatTheCallerDeletes) {
    const ScopedChecks checks(true);
    KMem left = MemOf("abc");
    KMem right = MemOf("de");
    const int nBefore = Registry()->nCount;
    {
        const std::unique_ptr<KMem> sum(left + right);
        ASSERT_NE(sum, nullptr);
        EXPECT_EQ(BytesOf(*sum), "abcde");
        EXPECT_EQ(Registry()->nCount, nBefore + 1);
        EXPECT_EQ(Registry()->objects[2], sum.get());
        EXPECT_EQ(BytesOf(left), "abc");
        EXPECT_EQ(BytesOf(right), "de");
        const std::unique_ptr<KMem> same(left + left);
        EXPECT_EQ(BytesOf(*same), "abcabc");
        const std::unique_ptr<KMem> nothing(KMem() + KMem());
        EXPECT_EQ(nothing->GetSize(), 0);
    }
    EXPECT_EQ(Registry()->nCount, nBefore);
}

TEST_F(KMemTest, PosIsTheAddressOfAByteOfTheBlock) {
    const ScopedChecks checks(true);
    KMem mem = MemOf("abcde");
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(mem.Pos(i), BufferOf(mem) + i);
    }
}

TEST_F(KMemTest, PosOutsideTheBlockFailsACheckAndIsNullWithTheChecksOff) {
    KMem mem = MemOf("abcde");
    EXPECT_CHECK_FAILS(mem.Pos(5), "0", kSource, "char* KMem::Pos(int)");
    EXPECT_CHECK_FAILS(KMem().Pos(0), "0", kSource, "char* KMem::Pos(int)");
    for (const int nPosition : {5, 6, INT_MAX, -1, INT_MIN}) {
        EXPECT_EQ(mem.Pos(nPosition), nullptr) << nPosition;
    }
    EXPECT_EQ(KMem().Pos(0), nullptr);
}

TEST_F(KMemTest, SizeIsTheNumberOfBytesFromAPositionOn) {
    const ScopedChecks checks(true);
    const KMem mem(5);
    const struct {
        int nPosition;
        int nSize;
    } rows[] = {{0, 5}, {3, 2}, {4, 1}, {5, 0}, {6, 0}, {INT_MAX, 0}, {-1, 6}, {-100, 105}};
    for (const auto& row : rows) {
        EXPECT_EQ(mem.Size(row.nPosition), row.nSize) << row.nPosition;
    }
    EXPECT_EQ(mem.Size(INT_MIN), INT_MIN + 5) << "wraps in 32 bits";
}

TEST_F(KMemTest, RemoveLBufferKeepsTheLastBytesInANewArray) {
    const ScopedChecks checks(true);
    KMem mem = MemOf("abcde");
    const char* const pBuf = BufferOf(mem);
    EXPECT_TRUE(mem.RemoveLBuffer(2));
    EXPECT_EQ(BytesOf(mem), "cde");
    EXPECT_NE(BufferOf(mem), pBuf);
    EXPECT_TRUE(mem.RemoveLBuffer(2));
    EXPECT_EQ(BytesOf(mem), "e");
    EXPECT_TRUE(mem.RemoveLBuffer(0));
    EXPECT_EQ(BytesOf(mem), "e");
}

TEST_F(KMemTest, RemoveRBufferLowersTheSizeAndKeepsTheArray) {
    const ScopedChecks checks(true);
    KMem mem = MemOf("abcde");
    const char* const pBuf = BufferOf(mem);
    EXPECT_TRUE(mem.RemoveRBuffer(2));
    EXPECT_EQ(BytesOf(mem), "abc");
    EXPECT_EQ(BufferOf(mem), pBuf);
    EXPECT_EQ(std::string(pBuf, 5), "abcde") << "the bytes are still there";
    EXPECT_TRUE(mem.RemoveRBuffer(0));
    EXPECT_EQ(BytesOf(mem), "abc");
}

TEST_F(KMemTest, RemovingAllBytesOrANegativeNumberFromASideIsFalseAndChangesNothing) {
    const ScopedChecks checks(true);
    KMem mem = MemOf("abcde");
    const char* const pBuf = BufferOf(mem);
    for (const int nCount : {5, 6, INT_MAX, -1, INT_MIN}) {
        EXPECT_FALSE(mem.RemoveLBuffer(nCount)) << nCount;
        EXPECT_FALSE(mem.RemoveRBuffer(nCount)) << nCount;
    }
    EXPECT_EQ(BufferOf(mem), pBuf);
    EXPECT_EQ(BytesOf(mem), "abcde");
    KMem empty;
    EXPECT_FALSE(empty.RemoveLBuffer(0));
    EXPECT_FALSE(empty.RemoveRBuffer(0));
}

TEST_F(KMemTest, RemoveAllFreesTheBytes) {
    const ScopedChecks checks(true);
    KMem mem = MemOf("abc");
    for (int nRound = 0; nRound < 2; ++nRound) {
        EXPECT_TRUE(mem.RemoveAll());
        EXPECT_EQ(mem.GetSize(), 0);
        EXPECT_EQ(BufferOf(mem), nullptr);
    }
    mem += MemOf("de");
    EXPECT_EQ(BytesOf(mem), "de");
}

TEST_F(KMemTest, RandomOperationsGiveTheBytesThatAStringGives) {
    constexpr std::size_t kBlocks = 4;
    std::mt19937 random(20240506);
    const auto below = [&random](int nLimit) { return std::uniform_int_distribution<int>(0, nLimit - 1)(random); };
    KMem blocks[kBlocks];
    std::string texts[kBlocks];
    for (int nStep = 0; nStep < 5000; ++nStep) {
        const auto nLeft = static_cast<std::size_t>(below(kBlocks));
        const auto nRight = static_cast<std::size_t>(below(kBlocks));
        KMem& block = blocks[nLeft];
        std::string& text = texts[nLeft];
        const int nCount = below(40);
        const bool fgRemains = nCount < static_cast<int>(text.size());
        switch (text.size() > 5000 ? 5 : below(6)) {
            case 0:
                text.assign(static_cast<std::size_t>(nCount), static_cast<char>(below(256)));
                block.RemoveAll();
                block += MemOf(text);
                break;
            case 1:
                block += blocks[nRight];
                text += texts[nRight];
                break;
            case 2:
                if (!texts[nRight].empty()) {
                    block = blocks[nRight];
                    text = texts[nRight];
                }
                break;
            case 3:
                ASSERT_EQ(block.RemoveLBuffer(nCount), fgRemains);
                text.erase(0, fgRemains ? static_cast<std::size_t>(nCount) : 0);
                break;
            case 4:
                ASSERT_EQ(block.RemoveRBuffer(nCount), fgRemains);
                text.erase(text.size() - (fgRemains ? static_cast<std::size_t>(nCount) : 0));
                break;
            default:
                block.RemoveAll();
                text.clear();
                break;
        }
        ASSERT_EQ(BytesOf(block), text) << nStep;
        ASSERT_EQ(block.Size(nCount), std::max(static_cast<int>(text.size()) - nCount, 0));
        const std::unique_ptr<KMem> sum(block + blocks[nRight]);
        ASSERT_EQ(BytesOf(*sum), text + texts[nRight]);
    }
}

// ------------------------------------------------------------------------------------------------ Blocks: lack of memory

TEST_F(KMemTest, WithoutMemoryForItsBytesABlockFailsACheck) {
    KMem mem = MemOf("abc");
    KMem other = MemOf("de");
    char szBytes[] = "xyz";
    const struct {
        std::function<void()> use;
        const char* pszSignature;
    } rows[] = {
        {[] { const KMem made(3); }, "KMem::KMem(int)"},
        {[&] { const KMem made(szBytes, 3); }, "KMem::KMem(char*, int)"},
        {[&] { const KMem made(mem); }, "KMem::KMem(const KMem&)"},
        {[&] { other = mem; }, "KMem& KMem::operator=(const KMem&)"},
        {[&] { other += mem; }, "KMem& KMem::operator+=(const KMem&)"},
        {[&] { other.RemoveLBuffer(1); }, "bool KMem::RemoveLBuffer(int)"},
    };
    for (const auto& row : rows) {
        const auto useWithoutMemory = [&row] {
            const ScopedNoMemory noMemory;
            row.use();
        };
        EXPECT_CHECK_FAILS(useWithoutMemory(), "m_pBuf", kSource, row.pszSignature);
    }
}

TEST_F(KMemTest, WithoutMemoryAndChecksANewBlockIsEmptyAndEntered) {
    KMem mem = MemOf("abc");
    char szBytes[] = "xyz";
    const ScopedNoMemory noMemory;
    const KMem bySize(3);
    const KMem byBytes(szBytes, 3);
    const KMem byCopy(mem);
    for (const KMem* const pMade : {&bySize, &byBytes, &byCopy}) {
        EXPECT_EQ(pMade->GetSize(), 0);
        EXPECT_EQ(BufferOf(*pMade), nullptr);
    }
    EXPECT_EQ(Registry()->nCount, 4);
}

TEST_F(KMemTest, WithoutMemoryAndChecksAnOperationLeavesTheBlockAsItWas) {
    KMem mem = MemOf("abc");
    KMem other = MemOf("de");
    {
        const ScopedNoMemory noMemory;
        other = mem;
        other += mem;
        EXPECT_FALSE(other.RemoveLBuffer(1));
        EXPECT_FALSE(other.RemoveLBuffer(0));
    }
    EXPECT_EQ(BytesOf(other), "de");
}

TEST_F(KMemTest, WithoutMemoryForTheObjectASumIsNull) {
    const KMem mem(3);
    const ScopedNoMemory noMemory;
    EXPECT_EQ(mem + mem, nullptr);
    EXPECT_EQ(Registry()->nCount, 1);
}

TEST_F(KMemTest, WithoutMemoryForBytesASumLeavesThemOut) {
    KMem left = MemOf("abc");
    KMem right = MemOf("de");
    const char* const expected[] = {"", "abc", "abcde"};
    for (int nStillWorks = 1; nStillWorks <= 3; ++nStillWorks) {
        const ScopedNoMemory noMemory(nStillWorks);
        const std::unique_ptr<KMem> sum(left + right);
        ASSERT_NE(sum, nullptr);
        EXPECT_EQ(BytesOf(*sum), expected[nStillWorks - 1]);
    }
}

TEST_F(KMemTest, BlocksWhoseSizesDoNotFitTogetherAreNotAppended) {
    KMem mem = MemOf("abc");
    KMem other = MemOf("de");
    const auto appendToHuge = [&] {
        const ScopedSize huge(mem, INT_MAX - 1);
        mem += other;
    };
    EXPECT_CHECK_FAILS(appendToHuge(), "m_pBuf", kSource, "KMem& KMem::operator+=(const KMem&)");
    appendToHuge();
    EXPECT_EQ(BytesOf(mem), "abc");
}

}  // namespace
