// What an object leaves behind: an operation on one that is gone has to find that there is no record any more.
#ifndef KALVOREN_TESTS_POINTERLEFTBY_H
#define KALVOREN_TESTS_POINTERLEFTBY_H

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace support {

/// The pointer so many bytes from the beginning of where an object was.
template <typename T>
const void* PointerLeftBy(std::size_t nOffset) {
    alignas(T) unsigned char storage[sizeof(T)];
    std::destroy_at(new (storage) T());
    const void* pLeft = nullptr;
    std::memcpy(&pLeft, storage + nOffset, sizeof pLeft);
    return pLeft;
}

}  // namespace support

#endif  // KALVOREN_TESTS_POINTERLEFTBY_H
