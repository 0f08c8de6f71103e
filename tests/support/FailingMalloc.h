// Lets a test make the library's blocks from libc fail. Replaces malloc of the whole program: included by one source of it.
#ifndef KALVOREN_TESTS_FAILINGMALLOC_H
#define KALVOREN_TESTS_FAILINGMALLOC_H

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>

#include "Interpose.h"

namespace support {

/// For the length of a block, this thread's malloc gives null, after a number of times that it still works.
class ScopedNoMalloc {
 public:
    explicit ScopedNoMalloc(int nStillWorks = 0) { t_nLeft = nStillWorks; }
    ~ScopedNoMalloc() { t_nLeft = INT_MAX; }
    ScopedNoMalloc(const ScopedNoMalloc&) = delete;
    ScopedNoMalloc& operator=(const ScopedNoMalloc&) = delete;

    /// Whether the next one works; counts it.
    __attribute__((no_sanitize("thread", "address", "undefined"))) static bool Take() {
        return t_nLeft == INT_MAX || t_nLeft-- > 0;
    }

 private:
    static inline thread_local int t_nLeft = INT_MAX;
};

}  // namespace support

/// The sanitizers call this before code that they instrumented could run.
extern "C" __attribute__((no_sanitize("thread", "address", "undefined"))) void* malloc(std::size_t nSize) noexcept {
    using Malloc = void* (*)(std::size_t);
    static Malloc pNext = nullptr;
    if (pNext == nullptr) {
        pNext = support::NextFunction(&malloc, "malloc");
    }
    if (!support::ScopedNoMalloc::Take()) {
        errno = ENOMEM;
        return nullptr;
    }
    return pNext(nSize);
}

#endif  // KALVOREN_TESTS_FAILINGMALLOC_H
