/// @file
/// Data buffers and the queues that hand them from a producer to a consumer.
#ifndef KALVOREN_KQUEUE_H
#define KALVOREN_KQUEUE_H

#include "KList.h"
#include "KThread.h"
#include "KTypes.h"

/// A buffer of bytes that grows and never shrinks, with a mutex that is held while it is written or read.
///
/// Sizes and offsets are in bytes. Growing uses KMem's registry, which has no lock: see there.
///
/// Thread-safety: the mutex is held from LockWriteBuffer() or LockReadBuffer() to the matching unlock. It is not
/// recursive: a thread that locks a buffer twice blocks for good. The accessors take no lock.
class KALVOREN_API KDynamicDataBuffer {
 public:
    /// A buffer with @p nSize bytes of storage (KMem::Malloc, which checks "nSize > 0") and no data. Without memory its
    /// capacity is 0.
    explicit KDynamicDataBuffer(unsigned int nSize = 1024);

    KDynamicDataBuffer(const KDynamicDataBuffer&) = delete;
    KDynamicDataBuffer& operator=(const KDynamicDataBuffer&) = delete;

    /// Frees the storage (KMem::Free). Waits for as long as the buffer is locked: for good, if that is by this thread.
    ~KDynamicDataBuffer();

    /// Locks the buffer and returns the address of byte @p nOffset, with room for @p nSize bytes there. Always call
    /// UnlockWriteBuffer() afterwards. The data size does not change: call SetDataSize().
    ///
    /// When @p nSize + @p nOffset is above the capacity, the storage grows (`realloc`) to hold that many, and the
    /// capacity becomes the next multiple of 1024 above it: 1500 gives 2048, 2048 gives 3072. What was written before
    /// stays. The sum wraps in 32 bits. The registry's leak report shows the size asked for.
    ///
    /// Without memory, for a need that cannot be rounded up in 32 bits, and for an offset beyond the capacity whose sum
    /// with the size wrapped to less, the check "m_pBuf" fails; with the checks off the result is null, and the storage
    /// stays as it was. The buffer is locked in any case.
    void* LockWriteBuffer(unsigned int nSize, unsigned int nOffset);

    /// Unlocks the buffer.
    void UnlockWriteBuffer();

    /// Locks the buffer and returns the address of byte @p nOffset, which may be at most the data size. Always call
    /// UnlockReadBuffer() afterwards. Beyond it, or beyond the capacity, the check "0" fails; with the checks off the
    /// result is the start of the buffer.
    void* LockReadBuffer(unsigned int nOffset);

    /// Unlocks the buffer.
    void UnlockReadBuffer();

    /// Returns and stores the number of valid bytes.
    unsigned int GetDataSize() const { return m_nDataSize; }
    void SetDataSize(unsigned int nSize) { m_nDataSize = nSize; }

    /// Returns the number of bytes that fit without growing.
    unsigned int GetCapacity() const { return m_nCapacity; }

    /// Returns the storage, null when there is none. It belongs to the buffer and is good until it grows.
    unsigned char* GetBuffer() const { return m_pBuf; }

 private:
    KALVOREN_LOCAL bool Grow(unsigned int nNeed);

    unsigned int m_nCapacity;
    unsigned int m_nDataSize;
    unsigned char* m_pBuf;
    KMutex m_Mutex;
};

/// A fixed pool of buffers that a producer fills and a consumer empties, without copying. Queues are numbered 0 to 99
/// and kept in a table.
///
/// @code
/// bool Produce(KManagedDynamicDataQueue& queue, const void* pData, unsigned int nSize) {
///     KDynamicDataBuffer* const pBuffer = queue.PopWrite();
///     if (pBuffer == nullptr) {
///         return false;
///     }
///     void* const pTarget = pBuffer->LockWriteBuffer(nSize, 0);
///     if (pTarget != nullptr) {
///         std::memcpy(pTarget, pData, nSize);
///         pBuffer->SetDataSize(nSize);
///     }
///     pBuffer->UnlockWriteBuffer();
///     queue.PushWrite(pBuffer);
///     return true;
/// }
///
/// bool Consume(KManagedDynamicDataQueue& queue, std::FILE* pOutput) {
///     KDynamicDataBuffer* const pBuffer = queue.PopRead();
///     if (pBuffer == nullptr) {
///         return false;
///     }
///     std::fwrite(pBuffer->LockReadBuffer(0), 1, pBuffer->GetDataSize(), pOutput);
///     pBuffer->UnlockReadBuffer();
///     queue.PushRead(pBuffer);
///     return true;
/// }
/// @endcode
///
/// Nothing waits: an empty pool or an empty queue gives null at once.
///
/// Thread-safety: every operation on a queue holds its mutex. Create() and Delete() take no lock and belong to start-up
/// and shut-down.
class KALVOREN_API KManagedDynamicDataQueue {
 public:
    // ------------------------------------------------------------------------------------------------ The table

    /// Makes queue @p nIndex with @p nCount buffers, unless it is there; then @p nCount is ignored. Returns true.
    /// Checks "nIndex < (100)"; with the checks off an index outside does nothing.
    static bool Create(int nIndex, int nCount);

    /// Deletes queue @p nIndex, if it is there. Returns true. Checks "nIndex < (100)"; with the checks off an index
    /// outside does nothing.
    static bool Delete(int nIndex);

    /// Returns queue @p nIndex. Checks "nIndex < (100)" and "g_pInstance[nIndex]"; with the checks off it returns null
    /// when there is none.
    static KManagedDynamicDataQueue* GetInstance(int nIndex);

    // --------------------------------------------------------------------------------------------- Handing over

    /// Takes a free buffer from the pool; null when there is none.
    KDynamicDataBuffer* PopWrite();

    /// Puts a filled buffer at the end of the queue. A null one is queued too. Returns true, also when memory for its
    /// place is lacking: the buffer is then lost to the queue.
    bool PushWrite(KDynamicDataBuffer* pBuffer);

    /// Takes the oldest buffer from the queue; null when there is none.
    KDynamicDataBuffer* PopRead();

    /// Gives a buffer back to the pool, with its data size set to 0. When the pool has no place for it, it is dropped.
    /// A null one is ignored. Returns true.
    bool PushRead(KDynamicDataBuffer* pBuffer);

    /// Takes all buffers from the queue. @b Beware: each goes into @b every empty place of the pool, so that the pool
    /// then hands the same buffer out several times. To empty a queue, call PopRead() and PushRead() until it is empty.
    /// Returns true.
    bool ClearAll();

    /// Returns the number of buffers in the pool.
    int GetCount() const { return m_nCount; }

    // ------------------------------------------------------------------------------------------ Making and deleting

    /// A queue with @p nCount buffers of 1024 bytes, all free; none for a count below 1, or without memory.
    explicit KManagedDynamicDataQueue(int nCount);

    KManagedDynamicDataQueue(const KManagedDynamicDataQueue&) = delete;
    KManagedDynamicDataQueue& operator=(const KManagedDynamicDataQueue&) = delete;

    /// Destroys the buffers. @b Beware of two things:
    /// - When all places of the pool hold one and the same of its buffers, as in a pool of one that is at home, the
    ///   check "0" fails; with the checks off it sleeps for 10 milliseconds.
    /// - The pool's table (KMem::Malloc) is never freed. The leak report names it, and with the checks on the check at
    ///   shut-down (KMem::Deinit) fails: turn them off before KEntry::Deinit() in a program that uses queues.
    ~KManagedDynamicDataQueue();

 private:
    KALVOREN_LOCAL bool IsWholePool(const KDynamicDataBuffer* pBuffer) const;

    KDynamicDataBuffer* m_pBuffers;
    KDynamicDataBuffer** m_ppFree;
    KList<KDynamicDataBuffer*> m_ReadList;
    int m_nCount;
    KMutex m_Mutex;
};

extern template class KList<KDynamicDataBuffer*>;

#endif  // KALVOREN_KQUEUE_H
