// Holds a KMutex for the length of a block.
#ifndef CAMERA_GUARD_H
#define CAMERA_GUARD_H

#include <KThread.h>

namespace camera {

class Guard {
 public:
    explicit Guard(const KMutex& mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~Guard() { m_Mutex.Unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

 private:
    const KMutex& m_Mutex;
};

}  // namespace camera

#endif  // CAMERA_GUARD_H
