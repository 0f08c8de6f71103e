// Lets a test make the library's blocks from libc fail. Replaces malloc of the whole program: included by one source of it.
#ifndef KALVOREN_TESTS_FAILINGMALLOC_H
#define KALVOREN_TESTS_FAILINGMALLOC_H

#include <malloc.h>  // all of malloc's declarations, ahead of its definition

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>

#include "Interpose.h"

namespace support {

/// For the length of a block, this thread's malloc gives null, after a number of times that it still works; after so many
/// refusals it works again.
class ScopedNoMalloc {
 public:
    explicit ScopedNoMalloc(int nStillWorks = 0, int nMostRefused = INT_MAX) {
        t_nLeft = nStillWorks;
        t_nMostRefused = nMostRefused;
        t_nRefused = 0;
    }
    ~ScopedNoMalloc() { t_nLeft = INT_MAX; }
    ScopedNoMalloc(const ScopedNoMalloc&) = delete;
    ScopedNoMalloc& operator=(const ScopedNoMalloc&) = delete;

    /// How many times it gave null so far.
    int Refused() const { return t_nRefused; }

    /// Whether the next one works; counts it.
    __attribute__((no_sanitize("thread", "address", "undefined"))) static bool Take() {
        if (t_nLeft == INT_MAX || t_nRefused == t_nMostRefused) {
            return true;
        }
        if (t_nLeft > 0) {
            --t_nLeft;
            return true;
        }
        ++t_nRefused;
        return false;
    }

 private:
    static inline thread_local int t_nLeft = INT_MAX;
    static inline thread_local int t_nMostRefused = INT_MAX;
    static inline thread_local int t_nRefused = 0;
};

}  // namespace support

/// The sanitizers call this before code that they instrumented could run.
// NOLINTNEXTLINE(misc-definitions-in-headers): one source of a program includes it.
extern "C" __attribute__((no_sanitize("thread", "address", "undefined"))) void* malloc(std::size_t nSize) noexcept {
    const auto pNext = support::Next<&malloc>("malloc");
    if (!support::ScopedNoMalloc::Take()) {
        errno = ENOMEM;
        return nullptr;
    }
    return pNext(nSize);
}

#endif  // KALVOREN_TESTS_FAILINGMALLOC_H
