// 32-bit arithmetic that wraps, whatever the operands: results are those of the 32-bit target on every machine.
#ifndef KALVOREN_SRC_NUMBERS_H
#define KALVOREN_SRC_NUMBERS_H

#include <cstdint>

inline int WrappedSum(int nLeft, int nRight) {
    return static_cast<int>(static_cast<unsigned int>(nLeft) + static_cast<unsigned int>(nRight));
}

inline int WrappedDifference(int nLeft, int nRight) {
    return static_cast<int>(static_cast<unsigned int>(nLeft) - static_cast<unsigned int>(nRight));
}

inline int WrappedProduct(int nLeft, int nRight) {
    return static_cast<int>(static_cast<unsigned int>(nLeft) * static_cast<unsigned int>(nRight));
}

/// The low 32 bits of a wider count, as a signed number.
inline int LowWord(long long nValue) {
    return static_cast<int>(static_cast<std::uint32_t>(nValue));
}

/// The low 32 bits of an address: what "%x" prints of a handle. Not inlined, or GCC moves it behind a call that ends the
/// handle's life and warns of its own doing.
[[gnu::noinline]] inline unsigned int LowWord(const void* pAddress) {
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(pAddress));
}

#endif  // KALVOREN_SRC_NUMBERS_H
