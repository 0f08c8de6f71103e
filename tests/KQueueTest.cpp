#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <functional>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "KMem.h"
#include "KQueue.h"
#include "support/FailingNew.h"
#include "support/Interpose.h"
#include "support/LittleMemory.h"
#include "support/LogLines.h"
#include "support/MutexCalls.h"
#include "support/Process.h"
#include "support/Registry.h"
#include "support/Support.h"
#include "support/Threads.h"

namespace {

using Buffer = KDynamicDataBuffer;
using Queue = KManagedDynamicDataQueue;
using support::InChildProcess;
using support::kLock;
using support::kTryLock;
using support::kUnlock;
using support::LogOf;
using support::ReportedSizes;
using support::ScopedCalls;
using support::ScopedChecks;
using support::ScopedNoMemory;
using support::StartWithAnEmptyRegistry;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSource = "src/KQueue";
constexpr const char* kIndexCheck = "nIndex < (100)";
constexpr const char* kLockWriteBuffer = "void* KDynamicDataBuffer::LockWriteBuffer(unsigned int, unsigned int)";
constexpr const char* kLockReadBuffer = "void* KDynamicDataBuffer::LockReadBuffer(unsigned int)";
constexpr const char* kGetInstance = "static KManagedDynamicDataQueue* KManagedDynamicDataQueue::GetInstance(int)";
constexpr const char* kDestructor = "KManagedDynamicDataQueue::~KManagedDynamicDataQueue()";

constexpr unsigned int kPoolCapacity = 1024;

// ---------------------------------------------------------------------------------------------------- The sleep

/// What usleep was asked for since the last look; it does not sleep in this program.
thread_local std::vector<useconds_t> t_Sleeps;

std::vector<useconds_t> TakeSleeps() {
    return std::exchange(t_Sleeps, {});
}

}  // namespace

extern "C" int usleep(useconds_t nMicroseconds) {
    t_Sleeps.push_back(nMicroseconds);
    return 0;
}

namespace {

// ------------------------------------------------------------------------------------------------------------ Helpers

/// Writes bytes as a producer does.
void Write(Buffer& buffer, const std::string& text, unsigned int nOffset = 0) {
    const auto nSize = static_cast<unsigned int>(text.size());
    void* const pTarget = buffer.LockWriteBuffer(nSize, nOffset);
    ASSERT_NE(pTarget, nullptr);
    std::memcpy(pTarget, text.data(), text.size());
    buffer.SetDataSize(nOffset + nSize);
    buffer.UnlockWriteBuffer();
}

/// The valid bytes, read as a consumer does.
std::string Content(Buffer& buffer) {
    const void* const pBytes = buffer.LockReadBuffer(0);
    std::string text(static_cast<const char*>(pBytes), buffer.GetDataSize());
    buffer.UnlockReadBuffer();
    return text;
}

std::vector<Buffer*> PopAllFree(Queue& queue) {
    std::vector<Buffer*> buffers;
    while (Buffer* const pBuffer = queue.PopWrite()) {
        buffers.push_back(pBuffer);
    }
    return buffers;
}

// ------------------------------------------------------------------------------------------------------ Data buffers

TEST(KQueueTest, ANewBufferHasItsSizeAsCapacityAndNoData) {
    const ScopedChecks checks(true);
    for (const unsigned int nSize : {1u, 1000u, 1024u, 1025u, 100000u}) {
        Buffer buffer(nSize);
        EXPECT_EQ(buffer.GetCapacity(), nSize);
        EXPECT_EQ(buffer.GetDataSize(), 0u);
        ASSERT_NE(buffer.GetBuffer(), nullptr);
        std::memset(buffer.GetBuffer(), 1, nSize);
    }
}

TEST(KQueueTest, ABufferOfNoBytesFailsTheCheckOfItsAllocation) {
    EXPECT_CHECK_FAILS(Buffer(0), "nSize > 0", "src/api/KMem", "static void* KMem::Malloc(size_t)");
}

TEST(KQueueTest, WithTheChecksOffABufferOfNoBytesGrowsLikeAnyOther) {
    const ScopedChecks checks(false);
    Buffer buffer(0);
    EXPECT_EQ(buffer.GetCapacity(), 0u);
    EXPECT_EQ(buffer.GetDataSize(), 0u);
    Write(buffer, "ten bytes.");
    EXPECT_EQ(buffer.GetCapacity(), 1024u);
    EXPECT_EQ(Content(buffer), "ten bytes.");
}

TEST(KQueueTest, ABufferCannotBeCopiedAndHasNoVirtualOperations) {
    EXPECT_FALSE(std::is_copy_constructible<Buffer>::value);
    EXPECT_FALSE(std::is_copy_assignable<Buffer>::value);
    EXPECT_FALSE(std::is_polymorphic<Buffer>::value);
}

TEST(KQueueTest, TheDataSizeIsWhatItIsSetTo) {
    Buffer buffer(16);
    for (const unsigned int nSize : {5u, 16u, 0u, UINT_MAX}) {
        buffer.SetDataSize(nSize);
        EXPECT_EQ(buffer.GetDataSize(), nSize);
    }
}

TEST(KQueueTest, WritingGivesTheAddressOfTheOffsetAndLeavesTheDataSize) {
    const ScopedChecks checks(true);
    Buffer buffer(100);
    buffer.SetDataSize(7);
    unsigned char* const pStorage = buffer.GetBuffer();
    struct Case {
        unsigned int nSize;
        unsigned int nOffset;
    };
    for (const Case each : {Case{0, 0}, Case{100, 0}, Case{60, 40}, Case{0, 100}, Case{1, 99}}) {
        EXPECT_EQ(buffer.LockWriteBuffer(each.nSize, each.nOffset), pStorage + each.nOffset);
        buffer.UnlockWriteBuffer();
        EXPECT_EQ(buffer.GetDataSize(), 7u);
        EXPECT_EQ(buffer.GetCapacity(), 100u);
        EXPECT_EQ(buffer.GetBuffer(), pStorage);
    }
}

TEST(KQueueTest, AGrownBufferHasTheNextMultipleOf1024AboveTheNeedAsCapacity) {
    const ScopedChecks checks(true);
    struct Case {
        unsigned int nSize;
        unsigned int nOffset;
        unsigned int nCapacity;
    };
    const Case cases[] = {
        {1024, 0, 1024}, {0, 1024, 1024}, {1025, 0, 2048},     {0, 1025, 2048},       {100, 1000, 2048},
        {1500, 0, 2048}, {2047, 0, 2048}, {2048, 0, 3072},     {1024, 1024, 3072},    {3071, 0, 3072},
        {3072, 0, 4096}, {1, 5000, 5120}, {102400, 0, 103424}, {1000000, 0, 1000448},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(testing::Message() << each.nSize << " at " << each.nOffset);
        Buffer buffer(1024);
        void* const pTarget = buffer.LockWriteBuffer(each.nSize, each.nOffset);
        EXPECT_EQ(pTarget, buffer.GetBuffer() + each.nOffset);
        std::memset(pTarget, 1, each.nSize);
        buffer.UnlockWriteBuffer();
        EXPECT_EQ(buffer.GetCapacity(), each.nCapacity);
        // All of the recorded capacity is the buffer's own memory.
        std::memset(buffer.GetBuffer(), 2, buffer.GetCapacity());
    }
}

TEST(KQueueTest, ANeedBetweenTheSizeAskedForAndTheCapacityDoesNotMoveTheStorage) {
    const ScopedChecks checks(true);
    Buffer buffer(1024);
    buffer.LockWriteBuffer(100, 1000);
    buffer.UnlockWriteBuffer();
    EXPECT_EQ(buffer.GetCapacity(), 2048u);
    unsigned char* const pStorage = buffer.GetBuffer();
    void* const pTarget = buffer.LockWriteBuffer(1048, 1000);
    EXPECT_EQ(pTarget, pStorage + 1000);
    std::memset(pTarget, 3, 1048);
    buffer.UnlockWriteBuffer();
    EXPECT_EQ(buffer.GetCapacity(), 2048u);
}

TEST(KQueueTest, WhatWasWrittenBeforeStaysWhenABufferGrows) {
    const ScopedChecks checks(true);
    Buffer buffer(10);
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        const std::string text = "piece " + std::to_string(i) + " of many; ";
        Write(buffer, text, static_cast<unsigned int>(expected.size()));
        expected += text;
    }
    EXPECT_EQ(Content(buffer), expected);
    EXPECT_EQ(buffer.GetCapacity(), expected.size() / 1024 * 1024 + 1024);
}

TEST(KQueueTest, ABufferNeverShrinks) {
    Buffer buffer(10);
    Write(buffer, std::string(5000, 'x'));
    const unsigned char* const pStorage = buffer.GetBuffer();
    Write(buffer, "x");
    EXPECT_EQ(buffer.GetCapacity(), 5120u);
    EXPECT_EQ(buffer.GetBuffer(), pStorage);
}

TEST(KQueueTest, TheLeakReportShowsTheSizeThatABufferWasAskedToHold) {
    InChildProcess([] {
        StartWithAnEmptyRegistry();
        Buffer grown(1024);
        Buffer fresh(600);
        grown.LockWriteBuffer(100, 1000);
        grown.UnlockWriteBuffer();
        grown.LockWriteBuffer(1500, 0);
        grown.UnlockWriteBuffer();
        EXPECT_THAT(ReportedSizes(), ElementsAre(1100u, 600u));
    });
}

TEST(KQueueTest, ADestroyedBufferIsNotInTheLeakReport) {
    InChildProcess([] {
        StartWithAnEmptyRegistry();
        {
            Buffer grown(1024);
            Buffer fresh(1024);
            Write(grown, std::string(3000, 'x'));
        }
        const ScopedChecks checks(true);
        EXPECT_EQ(LogOf([] { KMem::Deinit(); }), "");
    });
}

TEST(KQueueTest, TheSumOfSizeAndOffsetWrapsIn32Bits) {
    const ScopedChecks checks(true);
    Buffer buffer(1024);
    EXPECT_EQ(buffer.LockWriteBuffer(0xFFFFFFFF, 2), buffer.GetBuffer() + 2);
    buffer.UnlockWriteBuffer();
    EXPECT_EQ(buffer.GetCapacity(), 1024u);
    EXPECT_EQ(buffer.LockWriteBuffer(0xFFFFFF00, 1024), buffer.GetBuffer() + 1024);
    buffer.UnlockWriteBuffer();
    EXPECT_EQ(buffer.GetCapacity(), 1024u);
}

TEST(KQueueTest, AnOffsetBeyondTheCapacityThatASumWrappedPastFailsTheCheck) {
    EXPECT_CHECK_FAILS(Buffer(1024).LockWriteBuffer(0xFFFFFF00, 1025), "m_pBuf", kSource, kLockWriteBuffer);
    const ScopedChecks checks(false);
    Buffer buffer(1024);
    EXPECT_EQ(buffer.LockWriteBuffer(0xFFFFFF00, 1025), nullptr);
    buffer.UnlockWriteBuffer();
    EXPECT_EQ(buffer.GetCapacity(), 1024u);
}

TEST(KQueueTest, ANeedThatCannotBeRoundedUpFailsTheCheck) {
    EXPECT_CHECK_FAILS(Buffer(1024).LockWriteBuffer(0xFFFFFC00, 0), "m_pBuf", kSource, kLockWriteBuffer);
    EXPECT_CHECK_FAILS(Buffer(1024).LockWriteBuffer(0xFFFFFFFE, 1), "m_pBuf", kSource, kLockWriteBuffer);
}

TEST(KQueueTest, WithTheChecksOffANeedThatCannotBeMetIsNullAndTheBufferStaysAsItWas) {
    const ScopedChecks checks(false);
    Buffer buffer(1024);
    Write(buffer, "kept");
    for (const unsigned int nSize : {0xFFFFFC00u, 0xFFFFFFFFu}) {
        EXPECT_EQ(buffer.LockWriteBuffer(nSize, 0), nullptr);
        buffer.UnlockWriteBuffer();
        EXPECT_EQ(buffer.GetCapacity(), 1024u);
        EXPECT_EQ(Content(buffer), "kept");
    }
}

TEST(KQueueTest, WithoutMemoryABufferHasNoCapacityAndNoStorage) {
    if (sizeof(void*) > 4) {
        GTEST_SKIP() << "this machine may well have four gigabytes";
    }
    const ScopedChecks checks(false);
    Buffer buffer(UINT_MAX);
    EXPECT_EQ(buffer.GetCapacity(), 0u);
    EXPECT_EQ(buffer.GetBuffer(), nullptr);
    EXPECT_EQ(buffer.LockReadBuffer(0), nullptr);
    buffer.UnlockReadBuffer();
    EXPECT_EQ(buffer.LockWriteBuffer(0, 0), nullptr);
    buffer.UnlockWriteBuffer();
    EXPECT_EQ(buffer.LockWriteBuffer(0xFFFFF000, 0), nullptr);
    buffer.UnlockWriteBuffer();
    Write(buffer, "there is memory for this");
    EXPECT_EQ(Content(buffer), "there is memory for this");
}

TEST(KQueueTest, ABufferThatThereWasNoMemoryForGetsItWhenItIsWritten) {
    const ScopedChecks checks(false);
    const Buffer first(1);  // makes the registry
    const int nStep = support::InLittleMemory([] {
        Buffer buffer(support::kMuchMemory);
        if (buffer.GetCapacity() != 0 || buffer.GetBuffer() != nullptr) {
            return 1;
        }
        const void* const pNothing = buffer.LockWriteBuffer(0, 0);
        buffer.UnlockWriteBuffer();
        if (pNothing != nullptr) {
            return 2;
        }
        const void* const pNoData = buffer.LockReadBuffer(0);
        buffer.UnlockReadBuffer();
        if (pNoData != nullptr) {
            return 3;
        }
        const void* const pByte = buffer.LockWriteBuffer(1, 0);
        buffer.UnlockWriteBuffer();
        return pByte != nullptr && buffer.GetCapacity() == 1024 ? 0 : 4;
    });
    if (nStep == support::kMemoryCannotBeLimited) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    EXPECT_EQ(nStep, 0);
}

TEST(KQueueTest, ReadingGivesTheAddressOfAnOffsetUpToTheDataSize) {
    const ScopedChecks checks(true);
    Buffer buffer(1024);
    buffer.SetDataSize(10);
    for (const unsigned int nOffset : {0u, 1u, 9u, 10u}) {
        EXPECT_EQ(buffer.LockReadBuffer(nOffset), buffer.GetBuffer() + nOffset);
        buffer.UnlockReadBuffer();
    }
}

TEST(KQueueTest, ReadingBeyondTheDataSizeFailsTheCheck) {
    EXPECT_CHECK_FAILS(Buffer(1024).LockReadBuffer(5), "0", kSource, kLockReadBuffer);
}

TEST(KQueueTest, WithTheChecksOffReadingBeyondTheDataSizeGivesTheStartOfTheBuffer) {
    const ScopedChecks checks(false);
    Buffer buffer(1024);
    EXPECT_EQ(buffer.LockReadBuffer(5), buffer.GetBuffer());
    buffer.UnlockReadBuffer();
    buffer.SetDataSize(10);
    EXPECT_EQ(buffer.LockReadBuffer(11), buffer.GetBuffer());
    buffer.UnlockReadBuffer();
    EXPECT_EQ(buffer.LockReadBuffer(UINT_MAX), buffer.GetBuffer());
    buffer.UnlockReadBuffer();
}

TEST(KQueueTest, ADataSizeAboveTheCapacityLetsNobodyReadBeyondTheCapacity) {
    EXPECT_CHECK_FAILS(
        {
            Buffer buffer(1024);
            buffer.SetDataSize(5000);
            buffer.LockReadBuffer(1025);
        },
        "0", kSource, kLockReadBuffer);
    const ScopedChecks checks(false);
    Buffer buffer(1024);
    buffer.SetDataSize(5000);
    EXPECT_EQ(buffer.LockReadBuffer(1024), buffer.GetBuffer() + 1024);
    buffer.UnlockReadBuffer();
    EXPECT_EQ(buffer.LockReadBuffer(1025), buffer.GetBuffer());
    buffer.UnlockReadBuffer();
}

TEST(KQueueTest, ABufferIsLockedFromTheLockToTheUnlockAlsoWhenItCouldNotBeServed) {
    const ScopedChecks checks(false);
    struct Case {
        const char* pszName;
        void (*pLock)(Buffer&);
        void (*pUnlock)(Buffer&);
    };
    const Case cases[] = {
        {"writing", [](Buffer& buffer) { buffer.LockWriteBuffer(10, 0); },
         [](Buffer& buffer) { buffer.UnlockWriteBuffer(); }},
        {"writing more", [](Buffer& buffer) { buffer.LockWriteBuffer(5000, 0); },
         [](Buffer& buffer) { buffer.UnlockWriteBuffer(); }},
        {"writing too much", [](Buffer& buffer) { buffer.LockWriteBuffer(UINT_MAX, 0); },
         [](Buffer& buffer) { buffer.UnlockWriteBuffer(); }},
        {"reading", [](Buffer& buffer) { buffer.LockReadBuffer(0); },
         [](Buffer& buffer) { buffer.UnlockReadBuffer(); }},
        {"reading beyond the data", [](Buffer& buffer) { buffer.LockReadBuffer(5); },
         [](Buffer& buffer) { buffer.UnlockReadBuffer(); }},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.pszName);
        Buffer buffer(1024);
        const ScopedCalls calls;
        each.pLock(buffer);
        EXPECT_THAT(calls.Names(), ElementsAre(kLock));
        each.pUnlock(buffer);
        EXPECT_THAT(calls.Names(), ElementsAre(kLock, kUnlock));
    }
}

TEST(KQueueTest, DestroyingABufferTakesItsLock) {
    std::optional<Buffer> buffer(1024);
    const ScopedCalls calls;
    buffer.reset();
    EXPECT_THAT(calls.Names(), ElementsAre(kLock, kUnlock));
}

TEST(KQueueTest, ThreadsThatWriteOneBufferTakeTurns) {
    constexpr int kThreads = 4;
    constexpr int kTurns = 5000;
    Buffer buffer(sizeof(int));
    std::memset(buffer.GetBuffer(), 0, sizeof(int));
    support::RunInThreads(kThreads, [&](int) {
        for (int n = 0; n < kTurns; ++n) {
            int* const pCounter = static_cast<int*>(buffer.LockWriteBuffer(sizeof(int), 0));
            *pCounter = *pCounter + 1;
            buffer.UnlockWriteBuffer();
        }
    });
    int nCounter = 0;
    std::memcpy(&nCounter, buffer.GetBuffer(), sizeof nCounter);
    EXPECT_EQ(nCounter, kThreads * kTurns);
}

// ------------------------------------------------------------------------------------------------- The table of queues

/// A queue in the table for the length of a block.
class ScopedQueue {
 public:
    ScopedQueue(int nIndex, int nCount) : m_nIndex(nIndex) { EXPECT_TRUE(Queue::Create(nIndex, nCount)); }
    ~ScopedQueue() {
        const ScopedChecks checks(false);
        Queue::Delete(m_nIndex);
    }
    ScopedQueue(const ScopedQueue&) = delete;
    ScopedQueue& operator=(const ScopedQueue&) = delete;

    Queue* operator->() const { return Queue::GetInstance(m_nIndex); }

 private:
    int m_nIndex;
};

TEST(KQueueTest, AQueueIsReachedByItsNumberFromItsCreationToItsDeletion) {
    for (const int nIndex : {0, 42, 99}) {
        SCOPED_TRACE(nIndex);
        EXPECT_TRUE(Queue::Create(nIndex, 2));
        const ScopedChecks checks(true);
        Queue* const pQueue = Queue::GetInstance(nIndex);
        ASSERT_NE(pQueue, nullptr);
        EXPECT_EQ(pQueue->GetCount(), 2);
        EXPECT_TRUE(Queue::Delete(nIndex));
        KAssert::SetActive(false);
        EXPECT_EQ(Queue::GetInstance(nIndex), nullptr);
    }
}

TEST(KQueueTest, CreatingAQueueThatIsThereKeepsItWhateverTheCount) {
    const ScopedQueue queue(4, 8);
    Queue* const pQueue = Queue::GetInstance(4);
    Buffer* const pFirst = pQueue->PopWrite();
    for (const int nCount : {8, 1, 0, -1, 50}) {
        EXPECT_TRUE(Queue::Create(4, nCount));
        EXPECT_EQ(Queue::GetInstance(4), pQueue);
        EXPECT_EQ(pQueue->GetCount(), 8);
    }
    EXPECT_EQ(PopAllFree(*pQueue).size(), 7u);
    EXPECT_TRUE(pQueue->PushRead(pFirst));
}

TEST(KQueueTest, DeletingAQueueThatIsNotThereIsTrue) {
    const ScopedChecks checks(true);
    EXPECT_TRUE(Queue::Delete(10));
    EXPECT_TRUE(Queue::Delete(10));
}

TEST(KQueueTest, AQueueThatWasDeletedCanBeCreatedAnew) {
    const ScopedChecks checks(true);
    EXPECT_TRUE(Queue::Create(11, 2));
    EXPECT_TRUE(Queue::Delete(11));
    EXPECT_TRUE(Queue::Create(11, 3));
    EXPECT_EQ(Queue::GetInstance(11)->GetCount(), 3);
    EXPECT_TRUE(Queue::Delete(11));
}

TEST(KQueueTest, AHundredQueuesAreThereAtOnce) {
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(Queue::Create(i, i + 2));
    }
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(Queue::GetInstance(i)->GetCount(), i + 2);
        EXPECT_TRUE(Queue::Delete(i));
    }
}

TEST(KQueueTest, AnIndexAboveTheTableFailsTheCheck) {
    for (const int nIndex : {100, 101, INT_MAX}) {
        SCOPED_TRACE(nIndex);
        EXPECT_CHECK_FAILS(Queue::Create(nIndex, 1), kIndexCheck, kSource,
                           "static bool KManagedDynamicDataQueue::Create(int, int)");
        EXPECT_CHECK_FAILS(Queue::Delete(nIndex), kIndexCheck, kSource,
                           "static bool KManagedDynamicDataQueue::Delete(int)");
        EXPECT_CHECK_FAILS(Queue::GetInstance(nIndex), kIndexCheck, kSource, kGetInstance);
    }
}

TEST(KQueueTest, ANegativeIndexPassesTheIndexCheckAndHasNoQueue) {
    {
        const ScopedChecks checks(true);
        for (const int nIndex : {-1, -100, INT_MIN}) {
            EXPECT_TRUE(Queue::Create(nIndex, 1));
            EXPECT_TRUE(Queue::Delete(nIndex));
        }
    }
    EXPECT_CHECK_FAILS(Queue::GetInstance(-1), "g_pInstance[nIndex]", kSource, kGetInstance);
}

TEST(KQueueTest, AskingForAQueueThatIsNotThereFailsTheCheck) {
    EXPECT_CHECK_FAILS(Queue::GetInstance(50), "g_pInstance[nIndex]", kSource, kGetInstance);
}

TEST(KQueueTest, WithTheChecksOffAnIndexOutsideTheTableDoesNothing) {
    const ScopedChecks checks(false);
    for (const int nIndex : {100, 101, INT_MAX, -1, INT_MIN}) {
        SCOPED_TRACE(nIndex);
        EXPECT_TRUE(Queue::Create(nIndex, 1));
        EXPECT_EQ(Queue::GetInstance(nIndex), nullptr);
        EXPECT_TRUE(Queue::Delete(nIndex));
    }
    EXPECT_EQ(Queue::GetInstance(50), nullptr);
}

TEST(KQueueTest, WithoutMemoryForAQueueCreatingIsTrueAndThereIsNone) {
    const ScopedChecks checks(false);
    {
        const ScopedNoMemory noMemory;
        EXPECT_TRUE(Queue::Create(12, 1));
    }
    EXPECT_EQ(Queue::GetInstance(12), nullptr);
}

// ------------------------------------------------------------------------------------------------------------ The pool

TEST(KQueueTest, AQueueCannotBeCopiedAndHasNoVirtualOperations) {
    EXPECT_FALSE(std::is_copy_constructible<Queue>::value);
    EXPECT_FALSE(std::is_copy_assignable<Queue>::value);
    EXPECT_FALSE(std::is_polymorphic<Queue>::value);
}

TEST(KQueueTest, ANewQueueHandsOutItsBuffersInOrderAndThenNull) {
    const ScopedChecks checks(true);
    Queue queue(3);
    Buffer* const pFirst = queue.PopWrite();
    ASSERT_NE(pFirst, nullptr);
    EXPECT_EQ(queue.PopWrite(), pFirst + 1);
    EXPECT_EQ(queue.PopWrite(), pFirst + 2);
    EXPECT_EQ(queue.PopWrite(), nullptr);
    EXPECT_EQ(queue.PopRead(), nullptr);
}

TEST(KQueueTest, BuffersAreReadInTheOrderInWhichTheyWereWritten) {
    const ScopedChecks checks(true);
    Queue queue(2);
    Buffer* const pA = queue.PopWrite();
    Buffer* const pB = queue.PopWrite();
    EXPECT_TRUE(queue.PushWrite(pB));
    EXPECT_TRUE(queue.PushWrite(pA));
    EXPECT_EQ(queue.PopRead(), pB);
    EXPECT_EQ(queue.PopRead(), pA);
    EXPECT_EQ(queue.PopRead(), nullptr);
}

TEST(KQueueTest, ANullBufferIsQueuedLikeAnyOther) {
    const ScopedChecks checks(true);
    Queue queue(2);
    Buffer* const pA = queue.PopWrite();
    EXPECT_TRUE(queue.PushWrite(nullptr));
    EXPECT_TRUE(queue.PushWrite(pA));
    EXPECT_EQ(queue.PopRead(), nullptr);
    EXPECT_EQ(queue.PopRead(), pA);
    EXPECT_EQ(queue.PopRead(), nullptr);
}

TEST(KQueueTest, ABufferThatIsGivenBackTakesTheLowestEmptyPlaceAndLosesItsDataSize) {
    const ScopedChecks checks(true);
    Queue queue(3);
    const std::vector<Buffer*> buffers = PopAllFree(queue);
    for (Buffer* const pBuffer : buffers) {
        pBuffer->SetDataSize(5);
    }
    EXPECT_TRUE(queue.PushRead(buffers[2]));
    EXPECT_TRUE(queue.PushRead(buffers[0]));
    EXPECT_EQ(buffers[2]->GetDataSize(), 0u);
    EXPECT_EQ(buffers[0]->GetDataSize(), 0u);
    EXPECT_EQ(buffers[1]->GetDataSize(), 5u);
    EXPECT_THAT(PopAllFree(queue), ElementsAre(buffers[2], buffers[0]));
}

TEST(KQueueTest, ABufferThatIsGivenBackKeepsItsCapacityAndItsBytes) {
    Queue queue(2);
    Buffer* const pBuffer = queue.PopWrite();
    Write(*pBuffer, std::string(3000, 'x'));
    queue.PushWrite(pBuffer);
    queue.PushRead(queue.PopRead());
    EXPECT_EQ(queue.PopWrite(), pBuffer);
    EXPECT_EQ(pBuffer->GetCapacity(), 3072u);
    EXPECT_EQ(pBuffer->GetBuffer()[2999], 'x');
}

TEST(KQueueTest, ABufferThatIsGivenBackToAFullPoolIsDroppedAsItIs) {
    const ScopedChecks checks(true);
    Queue queue(2);
    Buffer foreign(64);
    foreign.SetDataSize(5);
    EXPECT_TRUE(queue.PushRead(&foreign));
    EXPECT_EQ(foreign.GetDataSize(), 5u);
    for (const Buffer* const pBuffer : PopAllFree(queue)) {
        EXPECT_NE(pBuffer, &foreign);
    }
}

TEST(KQueueTest, GivingBackANullBufferTakesNoPlace) {
    const ScopedChecks checks(true);
    Queue queue(2);
    const std::vector<Buffer*> buffers = PopAllFree(queue);
    EXPECT_TRUE(queue.PushRead(nullptr));
    EXPECT_TRUE(queue.PushRead(buffers[1]));
    EXPECT_TRUE(queue.PushRead(buffers[0]));
    EXPECT_THAT(PopAllFree(queue), ElementsAre(buffers[1], buffers[0]));
}

TEST(KQueueTest, AForeignBufferIsTakenIntoThePoolAndNotFreedWithIt) {
    Buffer foreign(64);
    {
        Queue queue(2);
        queue.PopWrite();
        EXPECT_TRUE(queue.PushRead(&foreign));
        EXPECT_EQ(queue.PopWrite(), &foreign);
        EXPECT_TRUE(queue.PushRead(&foreign));
    }
    Write(foreign, "alive");
    EXPECT_EQ(Content(foreign), "alive");
}

TEST(KQueueTest, ABufferThatIsGivenBackTwiceIsHandedOutTwice) {
    Queue queue(3);
    const std::vector<Buffer*> buffers = PopAllFree(queue);
    queue.PushRead(buffers[1]);
    queue.PushRead(buffers[1]);
    EXPECT_THAT(PopAllFree(queue), ElementsAre(buffers[1], buffers[1]));
}

TEST(KQueueTest, EveryPoolOf0To64BuffersHandsOutEachOnceQueuesInOrderAndTakesAllBack) {
    const ScopedChecks checks(true);
    std::mt19937 random(20);
    for (int nCount = 0; nCount <= 64; ++nCount) {
        SCOPED_TRACE(nCount);
        const auto nBuffers = static_cast<std::size_t>(nCount);
        Queue queue(nCount);
        EXPECT_EQ(queue.GetCount(), nCount);
        const std::vector<Buffer*> pool = PopAllFree(queue);
        ASSERT_EQ(pool.size(), nBuffers);
        for (std::size_t i = 0; i < nBuffers; ++i) {
            EXPECT_EQ(pool[i], pool[0] + i);
            EXPECT_EQ(pool[i]->GetCapacity(), kPoolCapacity);
            EXPECT_EQ(pool[i]->GetDataSize(), 0u);
            Write(*pool[i], "buffer " + std::to_string(i));
        }

        std::vector<std::size_t> order(nBuffers);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), random);
        for (const std::size_t i : order) {
            EXPECT_TRUE(queue.PushWrite(pool[i]));
        }
        for (const std::size_t i : order) {
            Buffer* const pBuffer = queue.PopRead();
            ASSERT_EQ(pBuffer, pool[i]);
            EXPECT_EQ(Content(*pBuffer), "buffer " + std::to_string(i));
            EXPECT_TRUE(queue.PushRead(pBuffer));
        }
        EXPECT_EQ(queue.PopRead(), nullptr);

        const std::vector<Buffer*> back = PopAllFree(queue);
        ASSERT_EQ(back.size(), nBuffers);
        for (std::size_t i = 0; i < nBuffers; ++i) {
            EXPECT_EQ(back[i], pool[order[i]]);
            EXPECT_EQ(back[i]->GetDataSize(), 0u);
        }
    }
}

TEST(KQueueTest, AQueueOfFewerThanOneBufferHasNone) {
    const ScopedChecks checks(true);
    for (const int nCount : {0, -1, INT_MIN}) {
        SCOPED_TRACE(nCount);
        Queue queue(nCount);
        Buffer foreign(64);
        foreign.SetDataSize(5);
        EXPECT_EQ(queue.GetCount(), 0);
        EXPECT_EQ(queue.PopWrite(), nullptr);
        EXPECT_EQ(queue.PopRead(), nullptr);
        EXPECT_TRUE(queue.PushRead(&foreign));
        EXPECT_EQ(queue.PopWrite(), nullptr);
        // It queues what it is given all the same.
        EXPECT_TRUE(queue.PushWrite(&foreign));
        EXPECT_EQ(queue.PopRead(), &foreign);
        EXPECT_TRUE(queue.PushWrite(&foreign));
        EXPECT_TRUE(queue.ClearAll());
        EXPECT_EQ(queue.PopRead(), nullptr);
        EXPECT_EQ(foreign.GetDataSize(), 5u);
    }
}

TEST(KQueueTest, WithoutMemoryForItsBuffersAQueueHasNone) {
    const ScopedChecks checks(false);
    const ScopedNoMemory noMemory;
    Queue queue(8);
    EXPECT_EQ(queue.GetCount(), 0);
    EXPECT_EQ(queue.PopWrite(), nullptr);
}

TEST(KQueueTest, ACountWhoseBuffersNoAddressSpaceHoldsGivesNone) {
    if (sizeof(void*) > 4) {
        GTEST_SKIP() << "this machine's address space holds the largest count";
    }
    const ScopedChecks checks(false);
    for (const int nCount : {INT_MAX, INT_MAX / 2, INT_MAX / 16}) {
        SCOPED_TRACE(nCount);
        Queue queue(nCount);
        EXPECT_EQ(queue.GetCount(), 0);
        EXPECT_EQ(queue.PopWrite(), nullptr);
    }
}

TEST(KQueueTest, EveryOperationHoldsTheQueuesLockAndTakesTheListsInsideIt) {
    Queue queue(2);
    struct Case {
        const char* pszName;
        void (*pRun)(Queue&);
        std::vector<std::string> calls;
    };
    const Case cases[] = {
        {"PopWrite", [](Queue& q) { q.PopWrite(); }, {kTryLock, kUnlock}},
        {"PushRead", [](Queue& q) { q.PushRead(nullptr); }, {kTryLock, kUnlock}},
        {"PushWrite", [](Queue& q) { q.PushWrite(nullptr); }, {kTryLock, kLock, kUnlock, kUnlock}},
        {"PopRead", [](Queue& q) { q.PopRead(); }, {kTryLock, kLock, kUnlock, kUnlock}},
        {"ClearAll", [](Queue& q) { q.ClearAll(); }, {kTryLock, kLock, kUnlock, kUnlock}},
    };
    for (const Case& each : cases) {
        const ScopedCalls calls;
        each.pRun(queue);
        EXPECT_EQ(calls.Names(), each.calls) << each.pszName;
    }
}

TEST(KQueueTest, AQueueThatIsHeldIsAskedForSomeTimesAndThenWaitedFor) {
    Queue queue(1);
    const ScopedCalls calls({{kTryLock, EBUSY}});
    EXPECT_NE(queue.PopWrite(), nullptr);
    std::vector<std::string> names = calls.Names();
    const auto waits = std::find_if_not(names.begin(), names.end(), [](const auto& name) { return name == kTryLock; });
    EXPECT_GT(waits - names.begin(), 1);
    EXPECT_LE(waits - names.begin(), 100);
    names.erase(names.begin(), waits);
    EXPECT_THAT(names, ElementsAre(kLock, kUnlock));
}

// ------------------------------------------------------------------------------------------------------------ ClearAll

TEST(KQueueTest, ClearingPutsAQueuedBufferIntoEveryEmptyPlace) {
    const ScopedChecks checks(true);
    Queue queue(4);
    const std::vector<Buffer*> pool = PopAllFree(queue);
    queue.PushRead(pool[3]);
    pool[1]->SetDataSize(5);
    queue.PushWrite(pool[1]);
    EXPECT_TRUE(queue.ClearAll());
    EXPECT_EQ(pool[1]->GetDataSize(), 0u);
    EXPECT_EQ(queue.PopRead(), nullptr);
    EXPECT_THAT(PopAllFree(queue), ElementsAre(pool[3], pool[1], pool[1], pool[1]));
}

TEST(KQueueTest, ClearingSeveralQueuedBuffersKeepsTheFirstAlone) {
    const ScopedChecks checks(true);
    Queue queue(3);
    const std::vector<Buffer*> pool = PopAllFree(queue);
    for (Buffer* const pBuffer : {pool[2], pool[0], pool[1]}) {
        pBuffer->SetDataSize(5);
        queue.PushWrite(pBuffer);
    }
    EXPECT_TRUE(queue.ClearAll());
    EXPECT_THAT(PopAllFree(queue), ElementsAre(pool[2], pool[2], pool[2]));
    EXPECT_EQ(pool[2]->GetDataSize(), 0u);
    EXPECT_EQ(pool[0]->GetDataSize(), 5u);
    EXPECT_EQ(pool[1]->GetDataSize(), 5u);
    EXPECT_EQ(queue.PopRead(), nullptr);
}

TEST(KQueueTest, ClearingSkipsNullBuffers) {
    const ScopedChecks checks(true);
    Queue queue(2);
    const std::vector<Buffer*> pool = PopAllFree(queue);
    queue.PushWrite(nullptr);
    queue.PushWrite(pool[1]);
    queue.PushWrite(nullptr);
    EXPECT_TRUE(queue.ClearAll());
    EXPECT_THAT(PopAllFree(queue), ElementsAre(pool[1], pool[1]));
    EXPECT_EQ(queue.PopRead(), nullptr);
}

TEST(KQueueTest, ClearingAQueueWhosePoolIsFullDropsWhatIsQueued) {
    const ScopedChecks checks(true);
    Queue queue(2);
    Buffer foreign(64);
    foreign.SetDataSize(5);
    queue.PushWrite(&foreign);
    EXPECT_TRUE(queue.ClearAll());
    EXPECT_EQ(foreign.GetDataSize(), 5u);
    EXPECT_EQ(queue.PopRead(), nullptr);
    EXPECT_EQ(PopAllFree(queue).size(), 2u);
}

TEST(KQueueTest, ClearingAnEmptyQueueLeavesThePool) {
    const ScopedChecks checks(true);
    Queue queue(3);
    Buffer* const pFirst = queue.PopWrite();
    EXPECT_TRUE(queue.ClearAll());
    EXPECT_THAT(PopAllFree(queue), ElementsAre(pFirst + 1, pFirst + 2));
}

// --------------------------------------------------------------------------------------------------------- Destruction

TEST(KQueueTest, DestroyingAPoolOfOneThatIsAtHomeFailsTheCheck) {
    EXPECT_CHECK_FAILS(Queue(1), "0", kSource, kDestructor);
    EXPECT_CHECK_FAILS(
        {
            Queue::Create(60, 1);
            Queue::Delete(60);
        },
        "0", kSource, kDestructor);
}

TEST(KQueueTest, DestroyingAPoolWhosePlacesAllHoldOneBufferFailsTheCheck) {
    EXPECT_CHECK_FAILS(
        {
            Queue queue(3);
            const std::vector<Buffer*> pool = PopAllFree(queue);
            queue.PushWrite(pool[1]);
            queue.ClearAll();
        },
        "0", kSource, kDestructor);
}

TEST(KQueueTest, WithTheChecksOffDestroyingSuchAPoolSleepsTenMilliseconds) {
    const ScopedChecks checks(false);
    TakeSleeps();
    { Queue queue(1); }
    EXPECT_THAT(TakeSleeps(), ElementsAre(10000u));
    {
        Queue queue(3);
        const std::vector<Buffer*> pool = PopAllFree(queue);
        queue.PushWrite(pool[2]);
        queue.ClearAll();
    }
    EXPECT_THAT(TakeSleeps(), ElementsAre(10000u));
}

TEST(KQueueTest, DestroyingAnyOtherPoolNeitherFailsNorSleeps) {
    const ScopedChecks checks(true);
    TakeSleeps();
    { Queue none(0); }
    {
        Queue allAtHome(2);
        Queue oneOut(1);
        oneOut.PopWrite();
        Queue allOut(5);
        PopAllFree(allOut);
        Queue queued(3);
        queued.PushWrite(queued.PopWrite());
        // One buffer in all places but the last.
        Queue mixed(3);
        const std::vector<Buffer*> pool = PopAllFree(mixed);
        mixed.PushRead(pool[1]);
        mixed.PushRead(pool[1]);
        mixed.PushRead(pool[0]);
        // A foreign one in all places.
        Buffer foreign(64);
        Queue taken(2);
        PopAllFree(taken);
        taken.PushRead(&foreign);
        taken.PushRead(&foreign);
    }
    EXPECT_THAT(TakeSleeps(), IsEmpty());
}

TEST(KQueueTest, DestroyingAQueueFreesItsBuffersWhereverTheyAreAndKeepsThePoolsTable) {
    InChildProcess([] {
        const ScopedChecks checks(false);
        StartWithAnEmptyRegistry();
        {
            Queue queue(7);
            Write(*queue.PopWrite(), std::string(2000, 'x'));
            queue.PushWrite(queue.PopWrite());
        }
        EXPECT_THAT(ReportedSizes(), ElementsAre(7 * sizeof(void*)));
    });
}

TEST(KQueueTest, AQueueOfNoBuffersLeavesNothingBehind) {
    InChildProcess([] {
        const ScopedChecks checks(false);
        StartWithAnEmptyRegistry();
        { Queue queue(0); }
        EXPECT_THAT(ReportedSizes(), IsEmpty());
    });
}

TEST(KQueueTest, AfterAQueueWasUsedTheCheckOfTheRegistryFailsAtShutDown) {
    EXPECT_CHECK_FAILS(
        {
            KMem::Init();
            Queue::Create(61, 2);
            Queue::Delete(61);
            KMem::Deinit();
        },
        "g_pMemInfoContainer->mnInstanceCount == 0", "src/api/KMem", "static void KMem::Deinit()");
}

// ------------------------------------------------------------------------------------------------------------- Threads

/// Text from which the contents of buffer number n are taken.
class Contents {
 public:
    explicit Contents(unsigned int nLongest) : m_nLongest(nLongest), m_Text(kStarts + nLongest, '\0') {
        std::mt19937 random(7);
        for (char& ch : m_Text) {
            ch = static_cast<char>(random() & 0x7F);
        }
    }

    unsigned int SizeOf(unsigned int nNumber) const { return 1 + nNumber * 7919 % m_nLongest; }
    const char* BytesOf(unsigned int nNumber) const { return m_Text.data() + nNumber % kStarts; }

 private:
    static constexpr unsigned int kStarts = 1021;
    unsigned int m_nLongest;
    std::string m_Text;
};

template <typename Pop>
Buffer* WaitFor(Pop pop) {
    Buffer* pBuffer = pop();
    while (pBuffer == nullptr) {
        std::this_thread::yield();
        pBuffer = pop();
    }
    return pBuffer;
}

void Produce(Queue& queue, const Contents& contents, unsigned int nBuffers) {
    for (unsigned int i = 0; i < nBuffers; ++i) {
        Buffer* const pBuffer = WaitFor([&] { return queue.PopWrite(); });
        const unsigned int nSize = contents.SizeOf(i);
        std::memcpy(pBuffer->LockWriteBuffer(nSize, 0), contents.BytesOf(i), nSize);
        pBuffer->SetDataSize(nSize);
        pBuffer->UnlockWriteBuffer();
        queue.PushWrite(pBuffer);
    }
}

/// Returns the number of buffers that did not come in order with their contents.
unsigned int Consume(Queue& queue, const Contents& contents, unsigned int nBuffers) {
    unsigned int nWrong = 0;
    for (unsigned int i = 0; i < nBuffers; ++i) {
        Buffer* const pBuffer = WaitFor([&] { return queue.PopRead(); });
        const unsigned int nSize = contents.SizeOf(i);
        const void* const pBytes = pBuffer->LockReadBuffer(0);
        if (pBuffer->GetDataSize() != nSize || std::memcmp(pBytes, contents.BytesOf(i), nSize) != 0) {
            ++nWrong;
        }
        pBuffer->UnlockReadBuffer();
        queue.PushRead(pBuffer);
    }
    return nWrong;
}

TEST(KQueueTest, AProducerAndAConsumerMoveAHundredThousandBuffersWithTheirContents) {
    constexpr unsigned int kBuffers = 100000;
    // So many that the threads seldom wait for each other, also where they share one processor with others.
    constexpr int kPool = 64;
    const ScopedChecks checks(true);
    const Contents contents(kPoolCapacity);
    const ScopedQueue queue(20, kPool);
    std::thread producer([&] { Produce(*Queue::GetInstance(20), contents, kBuffers); });
    EXPECT_EQ(Consume(*Queue::GetInstance(20), contents, kBuffers), 0u);
    producer.join();
    EXPECT_EQ(queue->PopRead(), nullptr);
    EXPECT_EQ(PopAllFree(*Queue::GetInstance(20)).size(), static_cast<std::size_t>(kPool));
}

TEST(KQueueTest, AProducerAndAConsumerShareEveryPoolOf1To64Buffers) {
    constexpr unsigned int kBuffers = 200;
    const ScopedChecks checks(false);
    const Contents contents(kPoolCapacity);
    for (int nCount = 1; nCount <= 64; ++nCount) {
        Queue queue(nCount);
        std::thread producer([&] { Produce(queue, contents, kBuffers); });
        EXPECT_EQ(Consume(queue, contents, kBuffers), 0u) << nCount;
        producer.join();
        EXPECT_EQ(PopAllFree(queue).size(), static_cast<std::size_t>(nCount));
    }
}

TEST(KQueueTest, TheOneThreadThatUsesTheRegistryMayLetBuffersGrow) {
    constexpr unsigned int kBuffers = 5000;
    const ScopedChecks checks(true);
    const Contents contents(20000);
    Queue queue(4);
    std::thread producer([&] { Produce(queue, contents, kBuffers); });
    EXPECT_EQ(Consume(queue, contents, kBuffers), 0u);
    producer.join();
}

TEST(KQueueTest, SeveralProducersAndConsumersMoveEveryBufferOnce) {
    constexpr unsigned int kThreads = 3;
    constexpr unsigned int kBuffers = 4000;
    const ScopedChecks checks(true);
    Queue queue(16);
    std::vector<std::vector<unsigned int>> received(kThreads);
    std::vector<std::thread> threads;
    for (unsigned int nThread = 0; nThread < kThreads; ++nThread) {
        threads.emplace_back([&queue, nThread] {
            for (unsigned int i = 0; i < kBuffers; ++i) {
                Buffer* const pBuffer = WaitFor([&] { return queue.PopWrite(); });
                const unsigned int nNumber = nThread * kBuffers + i;
                std::memcpy(pBuffer->LockWriteBuffer(sizeof nNumber, 0), &nNumber, sizeof nNumber);
                pBuffer->SetDataSize(sizeof nNumber);
                pBuffer->UnlockWriteBuffer();
                queue.PushWrite(pBuffer);
            }
        });
        threads.emplace_back([&queue, &numbers = received[nThread]] {
            for (unsigned int i = 0; i < kBuffers; ++i) {
                Buffer* const pBuffer = WaitFor([&] { return queue.PopRead(); });
                unsigned int nNumber = 0;
                std::memcpy(&nNumber, pBuffer->LockReadBuffer(0), sizeof nNumber);
                pBuffer->UnlockReadBuffer();
                numbers.push_back(nNumber);
                queue.PushRead(pBuffer);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::vector<bool> seen(std::size_t{kThreads} * kBuffers);
    for (const std::vector<unsigned int>& numbers : received) {
        std::vector<unsigned int> last(kThreads, 0);
        for (const unsigned int nNumber : numbers) {
            ASSERT_LT(nNumber, seen.size());
            EXPECT_FALSE(seen[nNumber]) << nNumber;
            seen[nNumber] = true;
            // Of each producer, a consumer sees later buffers later.
            EXPECT_GE(nNumber, last[nNumber / kBuffers]);
            last[nNumber / kBuffers] = nNumber;
        }
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), static_cast<std::ptrdiff_t>(seen.size()));
}

}  // namespace
