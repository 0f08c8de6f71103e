// Lets a test make the library's allocations fail. Replaces functions of the whole program: included by one source of it.
#ifndef KALVOREN_TESTS_FAILINGNEW_H
#define KALVOREN_TESTS_FAILINGNEW_H

#include <climits>
#include <cstddef>
#include <cstring>
#include <new>

namespace support {

/// For the length of a block, this thread's non-throwing `new` gives null, after a number of times that it still works.
class ScopedNoMemory {
 public:
    explicit ScopedNoMemory(int nStillWorks = 0) { Left() = nStillWorks; }
    ~ScopedNoMemory() { Left() = INT_MAX; }
    ScopedNoMemory(const ScopedNoMemory&) = delete;
    ScopedNoMemory& operator=(const ScopedNoMemory&) = delete;

    /// Whether the next one works; counts it.
    static bool Take() { return Left() == INT_MAX || Left()-- > 0; }

 private:
    static int& Left() {
        static thread_local int t_nLeft = INT_MAX;
        return t_nLeft;
    }
};

/// A new block full of a value that nobody expects, so that nothing is zero by chance; null where it cannot be had.
template <typename New>
void* BlockFrom(New pNew, std::size_t nSize) {
    if (!ScopedNoMemory::Take()) {
        return nullptr;
    }
    try {
        return std::memset(pNew(nSize), 0xA5, nSize);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace support

// NOLINTBEGIN(misc-definitions-in-headers): one source of a program includes it.
void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
    return support::BlockFrom([](std::size_t n) { return ::operator new(n); }, nSize);
}

void* operator new[](std::size_t nSize, const std::nothrow_t&) noexcept {
    return support::BlockFrom([](std::size_t n) { return ::operator new[](n); }, nSize);
}
// NOLINTEND(misc-definitions-in-headers)

#endif  // KALVOREN_TESTS_FAILINGNEW_H
