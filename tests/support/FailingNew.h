// Lets a test make the library's allocations fail. Replaces functions of the whole program: included by one source of it.
#ifndef KALVOREN_TESTS_FAILINGNEW_H
#define KALVOREN_TESTS_FAILINGNEW_H

#include <cstddef>
#include <cstring>
#include <new>

namespace support {

/// For the length of a block, every non-throwing `new` of this thread gives null.
class ScopedNoMemory {
 public:
    ScopedNoMemory() { IsInForce() = true; }
    ~ScopedNoMemory() { IsInForce() = false; }
    ScopedNoMemory(const ScopedNoMemory&) = delete;
    ScopedNoMemory& operator=(const ScopedNoMemory&) = delete;

    static bool& IsInForce() {
        static thread_local bool t_fgInForce = false;
        return t_fgInForce;
    }
};

/// A new block full of a value that nobody expects, so that nothing is zero by chance; null where it cannot be had.
template <typename New>
void* BlockFrom(New pNew, std::size_t nSize) {
    if (ScopedNoMemory::IsInForce()) {
        return nullptr;
    }
    try {
        return std::memset(pNew(nSize), 0xA5, nSize);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace support

void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
    return support::BlockFrom([](std::size_t n) { return ::operator new(n); }, nSize);
}

void* operator new[](std::size_t nSize, const std::nothrow_t&) noexcept {
    return support::BlockFrom([](std::size_t n) { return ::operator new[](n); }, nSize);
}

#endif  // KALVOREN_TESTS_FAILINGNEW_H
