/// @file
/// Memory blocks, the allocation helpers and their registry.
#ifndef KALVOREN_KMEM_H
#define KALVOREN_KMEM_H

#include <cstddef>

#include "KTypes.h"

/// A growable block of bytes, and the allocation helpers whose blocks are listed when the library shuts down.
///
/// @par The registry
/// Every KMem object and every block from Malloc(), Calloc() and Realloc() is entered in a process-wide registry with
/// 102,400 places for objects and as many for blocks. Deinit() writes a log line for each that is still there, then
/// checks "g_pMemInfoContainer->mnInstanceCount == 0". A new entry takes the lowest free place, so the numbers in that
/// report are reused. KString's storage and ordinary `new` are not entered.
///
/// A null pointer stands for a free place: entering one (the result of an allocation that failed) raises the count
/// without taking a place, and removing one lowers the count.
///
/// A full registry, or an entry that is not found, fails the check "0"; with the checks off the operation returns
/// false.
///
/// Entering, finding and removing take the same time however many entries there are; only what is not there costs a
/// look at every place. The registry's memory is asked for at once but costs nothing until it is used.
/// The address sanitizer does not look for pointers in it: a block that only the registry still knows counts as leaked.
///
/// @par Thread-safety
/// The registry has no lock. Use KMem, objects and helpers alike, from one thread or under a lock of your own: threads
/// that do not may lose entries and find the count wrong at the end.
class KALVOREN_API KMem {
 public:
    // ------------------------------------------------------------------------------------------------- Registry

    /// Makes the registry, in memory straight from the system (`mmap`). Returns false when it exists already, and when
    /// the memory is lacking. The first entry makes it too.
    static bool Init();

    /// Writes the leak report and drops the registry (`munmap`). Checks "g_pMemInfoContainer": there must be one; with the
    /// checks off nothing happens without.
    ///
    /// For each place number, first an object then a block left there gives the log line
    /// "OBJ %08d nonClass:%08x Size:%08d" with the place, the address (its low 32 bits) and the size in bytes. Then the
    /// count of entries must be 0: check "g_pMemInfoContainer->mnInstanceCount == 0".
    static void Deinit();

    /// Enters an object. Every constructor does this.
    static bool Add(KMem* pObject);

    /// Removes an object's entry, the lowest if it was entered twice. The destructor does this; an entry that is left
    /// then is reported with the object's last size.
    static bool Remove(KMem* pObject);

    /// Enters a block and its size in bytes.
    static bool AddForNonClass(void* pBlock, std::size_t nSize);

    /// Removes a block's entry, the lowest if it was entered twice. Does not make the registry.
    static bool RemoveForNonClass(void* pBlock);

    // ------------------------------------------------------------------------------------------- Raw memory helpers

    /// `malloc`. The result, even a null one, is entered with @p nSize. Checks "nSize > 0". The block is given back by
    /// Free().
    static void* Malloc(std::size_t nSize);

    /// `calloc`. The result is entered with @p nSize, the size of @b one element.
    static void* Calloc(int nCount, std::size_t nSize);

    /// `realloc`, with the old block's entry removed before and the result entered after, even a null one. When the
    /// memory is lacking, the result is null and the old block still lives, without an entry. A null @p pBlock has no
    /// entry of its own to remove: the count of entries is lowered and raised again, and @b lies @b one @b too @b low
    /// once the result is freed; before there is a registry, the check "0" fails instead. Use Malloc() for a first block.
    /// A size of 0 frees the block and raises the count for the null result.
    static void* Realloc(void* pBlock, std::size_t nSize);

    /// Removes the entry of `*ppBlock`, frees it and sets `*ppBlock` to null. A null `*ppBlock` is left alone.
    static void Free(void** ppBlock);

    /// Copies @p nSourceLen bytes. Checks "pTarget", "pSrc" and "nTargetLen >= nSourceLen". With the checks off it
    /// copies the lesser of both lengths, and nothing where a pointer is null. The blocks must not overlap (`memcpy`).
    static void Copy(void* pTarget, std::size_t nTargetLen, const void* pSrc, std::size_t nSourceLen);

    /// `memcmp`. Checks "pTarget" and "pSrc"; with the checks off a null pointer gives -1.
    static int Cmp(const void* pTarget, const void* pSrc, std::size_t nLen);

    /// `memset`. A null @p pTarget is left alone.
    static void Set(void* pTarget, char ch, std::size_t nLen);

    // ------------------------------------------------------------------------------------------------- Byte block

    /// An empty block.
    KMem();

    /// A block of @p nSize bytes, not initialised. Checks "nSize >= 0", and "m_pBuf" when the memory is lacking. With
    /// the checks off a negative size is kept as the block's size, without any bytes behind it, and a block that lacks
    /// its memory is empty.
    explicit KMem(int nSize);

    /// A block with a copy of @p nSize bytes from @p pPoint. Checks "pPoint" and "nSize >= 0", and "m_pBuf" when the
    /// memory is lacking. With the checks off a null pointer, a size below 1 or a lack of memory gives an empty block.
    KMem(char* pPoint, int nSize);

    /// A copy of a block. Checks "m_pBuf" when the memory is lacking; with the checks off the copy is then empty.
    KMem(const KMem& other);

    virtual ~KMem();

    /// Takes a copy of another block's bytes. Assigning an @b empty block @b leaks this block's bytes: call RemoveAll()
    /// instead. Without memory for the copy the block stays as it was, after the check "m_pBuf".
    KMem& operator=(const KMem& other);

    /// Appends another block's bytes; `a += a` doubles `a`. Without memory for the sum the block stays as it was, after
    /// the check "m_pBuf".
    KMem& operator+=(const KMem& other);

    /// Returns a @b new block with this one's bytes and the other's behind them. The caller deletes it. Null when the
    /// memory for the object is lacking; bytes that lack theirs are left out, after the check "m_pBuf".
    KMem* operator+(const KMem& other) const;

    /// Returns the address of byte @p nPosition. Outside the block: check "0"; with the checks off, null.
    char* Pos(int nPosition);

    /// Returns the number of bytes from @p nPosition to the end, 0 past the end: on 5 bytes, `Size(3)` is 2. A negative
    /// position counts on beyond the start: `Size(-1)` is 6.
    int Size(int nPosition) const;

    /// Returns the number of bytes held.
    int GetSize() const { return m_nSize; }

    /// Cuts @p nCount bytes from the left; what remains moves to new memory. Returns false, with nothing changed, when
    /// no byte would remain, when @p nCount is negative, or without memory, after the check "m_pBuf".
    bool RemoveLBuffer(int nCount);

    /// Cuts @p nCount bytes from the right; the memory behind the block stays as it is. Returns false, with nothing
    /// changed, when no byte would remain or when @p nCount is negative.
    bool RemoveRBuffer(int nCount);

    /// Frees all bytes. Returns true.
    bool RemoveAll();

 private:
    struct KALVOREN_LOCAL MemInfoContainer;
    static MemInfoContainer* g_pMemInfoContainer;

    bool HasBytes() const { return m_nSize >= 1; }
    KALVOREN_LOCAL bool Take(const char* pFirst, int nFirst, const char* pSecond, int nSecond,
                             const char* pszSignature);

    int m_nSize;
    char* m_pBuf;
};

#endif  // KALVOREN_KMEM_H
