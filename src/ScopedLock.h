// Holds a mutex for the length of a block.
#ifndef KALVOREN_SRC_SCOPEDLOCK_H
#define KALVOREN_SRC_SCOPEDLOCK_H

#include "KThread.h"

class ScopedLock {
 public:
    explicit ScopedLock(const KMutex& mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~ScopedLock() { m_Mutex.Unlock(); }

    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

 private:
    const KMutex& m_Mutex;
};

#endif  // KALVOREN_SRC_SCOPEDLOCK_H
