// Counts what the process allocates, so that a second program of the same jobs shows peak memory beside time. The one
// that is timed goes without.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

// libc's own, behind the names that are replaced here.
// NOLINTBEGIN(bugprone-reserved-identifier): they are libc's to name
extern "C" {
void* __libc_malloc(std::size_t nSize);
void* __libc_calloc(std::size_t nCount, std::size_t nSize);
void* __libc_realloc(void* pBlock, std::size_t nSize);
void* __libc_memalign(std::size_t nAlignment, std::size_t nSize);
void __libc_free(void* pBlock);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

std::atomic<std::int64_t> g_nAllocations;
std::atomic<std::int64_t> g_nBytes;
std::atomic<std::int64_t> g_nPeak;

void* Count(void* pBlock) {
    if (pBlock != nullptr) {
        g_nAllocations.fetch_add(1, std::memory_order_relaxed);
        const auto nSize = static_cast<std::int64_t>(malloc_usable_size(pBlock));
        const std::int64_t nBytes = g_nBytes.fetch_add(nSize, std::memory_order_relaxed) + nSize;
        for (std::int64_t nPeak = g_nPeak.load(); nBytes > nPeak && !g_nPeak.compare_exchange_weak(nPeak, nBytes);) {
        }
    }
    return pBlock;
}

void Discount(void* pBlock) {
    g_nBytes.fetch_sub(static_cast<std::int64_t>(malloc_usable_size(pBlock)), std::memory_order_relaxed);
}

class Counter : public benchmark::MemoryManager {
 public:
    void Start() override {
        g_nAllocations = 0;
        m_nBefore = g_nBytes;
        g_nPeak = m_nBefore;
    }
    void Stop(Result* pResult) override {
        pResult->num_allocs = g_nAllocations;
        pResult->max_bytes_used = g_nPeak - m_nBefore;
    }

 private:
    std::int64_t m_nBefore = 0;
};

const bool g_fgRegistered = [] {
    static Counter counter;
    benchmark::RegisterMemoryManager(&counter);
    return true;
}();

}  // namespace

extern "C" {

void* malloc(std::size_t nSize) {
    return Count(__libc_malloc(nSize));
}
void* calloc(std::size_t nCount, std::size_t nSize) {
    return Count(__libc_calloc(nCount, nSize));
}
void* realloc(void* pBlock, std::size_t nSize) {
    Discount(pBlock);
    return Count(__libc_realloc(pBlock, nSize));
}
void* memalign(std::size_t nAlignment, std::size_t nSize) {
    return Count(__libc_memalign(nAlignment, nSize));
}
void* aligned_alloc(std::size_t nAlignment, std::size_t nSize) {
    return Count(__libc_memalign(nAlignment, nSize));
}
int posix_memalign(void** ppBlock, std::size_t nAlignment, std::size_t nSize) {
    *ppBlock = Count(__libc_memalign(nAlignment, nSize));
    return *ppBlock != nullptr ? 0 : ENOMEM;
}
void free(void* pBlock) {
    Discount(pBlock);
    __libc_free(pBlock);
}

}  // extern "C"
