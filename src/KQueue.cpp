#include "KQueue.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "Checks.h"
#include "KMem.h"
#include "ScopedLock.h"

template class KList<KDynamicDataBuffer*>;

namespace {

constexpr Checks g_Checks("src/KQueue");

constexpr unsigned int kGrowth = 1024;
constexpr int kQueues = 100;
constexpr int kHomeSleep = 10;

KManagedDynamicDataQueue* g_pInstance[kQueues];

/// Checks an index from above only, and says whether it is in the table.
bool IsQueue(int nIndex, const char* pszSignature) {
    return g_Checks.Hold(nIndex < kQueues, "nIndex < (100)", pszSignature) && nIndex >= 0;
}

/// Tells the processor that this is a loop that waits.
void Pause() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__ARM_ARCH) && __ARM_ARCH >= 7
    __asm__ volatile("yield");
#endif
}

/// Holds a queue's lock for the length of a block. Whoever has it mostly gives it back sooner than the kernel could put this
/// thread to sleep and wake it, so it is asked for some times before the kernel is: two threads hand buffers on several
/// times as fast. The times are few, for whoever has it may be waiting for this very processor.
class QueueLock {
 public:
    explicit QueueLock(KMutex& mutex) : m_Mutex(mutex) {
        if (!TryLock()) {
            m_Mutex.Lock();
        }
    }
    ~QueueLock() { m_Mutex.Unlock(); }

    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

 private:
    bool TryLock() {
        constexpr int kTries = 50;
        constexpr int kPauses = 25;
        for (int nTry = 0; nTry < kTries; ++nTry) {
            if (m_Mutex.TryLock()) {
                return true;
            }
            for (int nPause = 0; nPause < kPauses; ++nPause) {
                Pause();
            }
        }
        return false;
    }

    KMutex& m_Mutex;
};

}  // namespace

// ----------------------------------------------------------------------------------------------- KDynamicDataBuffer

KDynamicDataBuffer::KDynamicDataBuffer(unsigned int nSize) : m_nCapacity(0), m_nDataSize(0), m_pBuf(nullptr) {
    const ScopedLock lock(m_Mutex);
    m_pBuf = static_cast<unsigned char*>(KMem::Malloc(nSize));
    if (m_pBuf != nullptr) {
        m_nCapacity = nSize;
    }
}

KDynamicDataBuffer::~KDynamicDataBuffer() {
    const ScopedLock lock(m_Mutex);
    void* pStorage = m_pBuf;
    KMem::Free(&pStorage);
    m_pBuf = nullptr;
}

/// Gives the storage the whole capacity that is recorded, and registers what was asked for. Without memory for it, or for a
/// capacity that 32 bits cannot hold, nothing changes.
bool KDynamicDataBuffer::Grow(unsigned int nNeed) {
    const unsigned int nCapacity = nNeed / kGrowth * kGrowth + kGrowth;
    void* const pGrown = nCapacity > nNeed ? std::realloc(m_pBuf, nCapacity) : nullptr;
    if (pGrown == nullptr) {
        return false;
    }
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the registry compares the old address and does not look behind it.
    KMem::RemoveForNonClass(m_pBuf);
    KMem::AddForNonClass(pGrown, nNeed);
    m_pBuf = static_cast<unsigned char*>(pGrown);
    m_nCapacity = nCapacity;
    return true;
}

void* KDynamicDataBuffer::LockWriteBuffer(unsigned int nSize, unsigned int nOffset) {
    m_Mutex.Lock();
    const unsigned int nNeed = nSize + nOffset;
    const bool fgRoom = (nNeed <= m_nCapacity || Grow(nNeed)) && nOffset <= m_nCapacity && m_pBuf != nullptr;
    if (!g_Checks.Hold(fgRoom, "m_pBuf", "void* KDynamicDataBuffer::LockWriteBuffer(unsigned int, unsigned int)")) {
        return nullptr;
    }
    return m_pBuf + nOffset;
}

void KDynamicDataBuffer::UnlockWriteBuffer() {
    m_Mutex.Unlock();
}

void* KDynamicDataBuffer::LockReadBuffer(unsigned int nOffset) {
    m_Mutex.Lock();
    const bool fgThere = nOffset <= m_nDataSize && nOffset <= m_nCapacity;
    if (!g_Checks.Hold(fgThere, "0", "void* KDynamicDataBuffer::LockReadBuffer(unsigned int)")) {
        return m_pBuf;
    }
    return m_pBuf != nullptr ? m_pBuf + nOffset : nullptr;
}

void KDynamicDataBuffer::UnlockReadBuffer() {
    m_Mutex.Unlock();
}

// ------------------------------------------------------------------------------------------ KManagedDynamicDataQueue

bool KManagedDynamicDataQueue::Create(int nIndex, int nCount) {
    if (IsQueue(nIndex, "static bool KManagedDynamicDataQueue::Create(int, int)") && g_pInstance[nIndex] == nullptr) {
        g_pInstance[nIndex] = new (std::nothrow) KManagedDynamicDataQueue(nCount);
    }
    return true;
}

bool KManagedDynamicDataQueue::Delete(int nIndex) {
    if (IsQueue(nIndex, "static bool KManagedDynamicDataQueue::Delete(int)")) {
        delete g_pInstance[nIndex];
        g_pInstance[nIndex] = nullptr;
    }
    return true;
}

KManagedDynamicDataQueue* KManagedDynamicDataQueue::GetInstance(int nIndex) {
    const char* const pszSignature = "static KManagedDynamicDataQueue* KManagedDynamicDataQueue::GetInstance(int)";
    KManagedDynamicDataQueue* const pQueue = IsQueue(nIndex, pszSignature) ? g_pInstance[nIndex] : nullptr;
    g_Checks.Hold(pQueue != nullptr, "g_pInstance[nIndex]", pszSignature);
    return pQueue;
}

KManagedDynamicDataQueue::KManagedDynamicDataQueue(int nCount) : m_pBuffers(nullptr), m_ppFree(nullptr), m_nCount(0) {
    const ScopedLock lock(m_Mutex);
    if (nCount < 1) {
        return;
    }
    const std::size_t nBuffers = static_cast<std::size_t>(nCount);
    m_pBuffers = new (std::nothrow) KDynamicDataBuffer[nBuffers];  // GCOVR_EXCL_BR_LINE: 64 bits hold any count's size
    if (m_pBuffers == nullptr) {
        return;
    }
    m_ppFree = static_cast<KDynamicDataBuffer**>(KMem::Malloc(nBuffers * sizeof(*m_ppFree)));
    if (m_ppFree == nullptr) {
        return;
    }
    m_nCount = nCount;
    for (int i = 0; i < m_nCount; ++i) {
        m_ppFree[i] = &m_pBuffers[i];
    }
}

KManagedDynamicDataQueue::~KManagedDynamicDataQueue() {
    m_Mutex.Lock();
    for (int i = 0; i < m_nCount; ++i) {
        if (!g_Checks.Hold(!IsWholePool(&m_pBuffers[i]), "0",
                           "KManagedDynamicDataQueue::~KManagedDynamicDataQueue()")) {
            KThread::Sleep(kHomeSleep);
        }
    }
    delete[] m_pBuffers;
    // The free table is not released.
    m_Mutex.Unlock();
}

/// Whether every place of the pool holds this buffer.
bool KManagedDynamicDataQueue::IsWholePool(const KDynamicDataBuffer* pBuffer) const {
    for (int i = 0; i < m_nCount; ++i) {
        if (m_ppFree[i] != pBuffer) {
            return false;
        }
    }
    return true;
}

KDynamicDataBuffer* KManagedDynamicDataQueue::PopWrite() {
    const QueueLock lock(m_Mutex);
    KDynamicDataBuffer** const ppEnd = m_ppFree + m_nCount;
    KDynamicDataBuffer** const ppFree =
        std::find_if(m_ppFree, ppEnd, [](const KDynamicDataBuffer* pBuffer) { return pBuffer != nullptr; });
    return ppFree != ppEnd ? std::exchange(*ppFree, nullptr) : nullptr;
}

bool KManagedDynamicDataQueue::PushWrite(KDynamicDataBuffer* pBuffer) {
    const QueueLock lock(m_Mutex);
    m_ReadList.Add(pBuffer);
    return true;
}

KDynamicDataBuffer* KManagedDynamicDataQueue::PopRead() {
    const QueueLock lock(m_Mutex);
    KDynamicDataBuffer* pBuffer = nullptr;
    m_ReadList.Pop(pBuffer, -1);
    return pBuffer;
}

bool KManagedDynamicDataQueue::PushRead(KDynamicDataBuffer* pBuffer) {
    const QueueLock lock(m_Mutex);
    KDynamicDataBuffer** const ppEnd = m_ppFree + m_nCount;
    KDynamicDataBuffer** const ppTaken = std::find(m_ppFree, ppEnd, nullptr);
    if (pBuffer != nullptr && ppTaken != ppEnd) {
        pBuffer->SetDataSize(0);
        *ppTaken = pBuffer;
    }
    return true;
}

bool KManagedDynamicDataQueue::ClearAll() {
    const QueueLock lock(m_Mutex);
    KDynamicDataBuffer* pBuffer = nullptr;
    while (m_ReadList.Pop(pBuffer, -1)) {
        // Into every empty place, not only the first: programs count on a pool that is full afterwards.
        for (int i = 0; pBuffer != nullptr && i < m_nCount; ++i) {
            if (m_ppFree[i] == nullptr) {
                pBuffer->SetDataSize(0);
                m_ppFree[i] = pBuffer;
            }
        }
    }
    return true;
}
