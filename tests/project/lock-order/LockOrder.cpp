// Two mutexes of the library's, taken in one order and in both. Built like the tests, with their main function and so with
// their options of the sanitizer: check-lock-order.sh looks at what it says.
#include <gtest/gtest.h>

#include <thread>

#include "KThread.h"

namespace {

void TakeBoth(const KMutex& outer, const KMutex& inner) {
    outer.Lock();
    inner.Lock();
    inner.Unlock();
    outer.Unlock();
}

// One thread after the other, so that neither ever waits.

TEST(LockOrder, InOneOrder) {
    const KMutex first, second;
    std::thread([&] { TakeBoth(first, second); }).join();
    std::thread([&] { TakeBoth(first, second); }).join();
}

TEST(LockOrder, InBothOrders) {
    const KMutex first, second;
    std::thread([&] { TakeBoth(first, second); }).join();
    std::thread([&] { TakeBoth(second, first); }).join();
}

}  // namespace
