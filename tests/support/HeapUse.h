// How much memory is allocated: for tests that something was given back, where no sanitizer looks for leaks.
#ifndef KALVOREN_TESTS_HEAPUSE_H
#define KALVOREN_TESTS_HEAPUSE_H

#include <malloc.h>

#include <cstddef>

namespace support {

/// The bytes that the program has allocated. Always 0 where a sanitizer has an allocator of its own, which finds leaks
/// itself.
inline std::size_t BytesInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// The bytes that running a piece of code many times has left allocated, for each time.
template <typename Code>
std::size_t BytesLeftBy(Code code) {
    constexpr std::size_t kTimes = 300;
    for (int i = 0; i < 20; ++i) {
        code();  // for what is kept from the first time on, and the blocks that libc keeps for the next time
    }
    const std::size_t nBefore = BytesInUse();
    for (std::size_t i = 0; i < kTimes; ++i) {
        code();
    }
    const std::size_t nAfter = BytesInUse();
    return nAfter > nBefore ? (nAfter - nBefore) / kTimes : 0;
}

}  // namespace support

#endif  // KALVOREN_TESTS_HEAPUSE_H
