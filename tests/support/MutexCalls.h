// Stands in front of libc's locking and unlocking of mutexes, so that support::ScopedCalls shows when the library does
// either. Replaces functions of the whole program: included by one source of it.
#ifndef KALVOREN_TESTS_MUTEXCALLS_H
#define KALVOREN_TESTS_MUTEXCALLS_H

#include <pthread.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/Interpose.h"

namespace support {

constexpr const char* kLock = "pthread_mutex_lock";
constexpr const char* kTryLock = "pthread_mutex_trylock";
constexpr const char* kUnlock = "pthread_mutex_unlock";

/// How many locks were held at the same time, of those that were taken and given back.
inline int MostLocksAtOnce(const std::vector<std::string>& calls) {
    int nHeld = 0;
    int nMost = 0;
    for (const std::string& call : calls) {
        nHeld += call == kLock ? 1 : call == kUnlock ? -1 : 0;
        nMost = std::max(nMost, nHeld);
    }
    return nMost;
}

}  // namespace support

// NOLINTBEGIN(misc-definitions-in-headers): one source of a program includes it.
extern "C" int pthread_mutex_lock(pthread_mutex_t* pMutex) noexcept {
    return support::NoteAndPassOn<&pthread_mutex_lock>(support::kLock, pMutex);
}

extern "C" int pthread_mutex_trylock(pthread_mutex_t* pMutex) noexcept {
    return support::NoteAndPassOn<&pthread_mutex_trylock>(support::kTryLock, pMutex);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* pMutex) noexcept {
    return support::NoteAndPassOn<&pthread_mutex_unlock>(support::kUnlock, pMutex);
}
// NOLINTEND(misc-definitions-in-headers)

#endif  // KALVOREN_TESTS_MUTEXCALLS_H
