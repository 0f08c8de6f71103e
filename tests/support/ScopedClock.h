// Lets a test set the clock. Replaces gettimeofday of the whole program: included by one source of it.
#ifndef KALVOREN_TESTS_SCOPEDCLOCK_H
#define KALVOREN_TESTS_SCOPEDCLOCK_H

#include <sys/time.h>

#include "Interpose.h"

namespace support {

/// For the length of a block, this thread's clock stands at a moment, in a zone west of Greenwich.
class ScopedClock {
 public:
    ScopedClock(time_t nSec, suseconds_t nUSec) {
        Set(nSec, nUSec);
        t_pNow = &m_Now;
    }
    ~ScopedClock() { t_pNow = nullptr; }
    ScopedClock(const ScopedClock&) = delete;
    ScopedClock& operator=(const ScopedClock&) = delete;

    void Set(time_t nSec, suseconds_t nUSec) {
        m_Now.tv_sec = nSec;
        m_Now.tv_usec = nUSec;
    }

    /// The moment of this thread, or null where the clock goes on.
    static const timeval* Now() { return t_pNow; }

 private:
    static inline thread_local const timeval* t_pNow = nullptr;
    timeval m_Now;
};

/// For the length of a block, this thread's clock has another zone.
class ScopedZone {
 public:
    explicit ScopedZone(const struct timezone& zone) : m_Zone(zone) { t_pZone = &m_Zone; }
    ~ScopedZone() { t_pZone = nullptr; }
    ScopedZone(const ScopedZone&) = delete;
    ScopedZone& operator=(const ScopedZone&) = delete;

    /// The zone of this thread, or null where it is the system's.
    static const struct timezone* Zone() { return t_pZone; }

 private:
    static inline thread_local const struct timezone* t_pZone = nullptr;
    struct timezone m_Zone;
};

}  // namespace support

// NOLINTNEXTLINE(misc-definitions-in-headers): one source of a program includes it.
extern "C" int gettimeofday(timeval* __restrict pNow, void* __restrict pZone) noexcept {
    const timeval* const pSet = support::ScopedClock::Now();
    if (pSet == nullptr) {
        support::Next<&gettimeofday>("gettimeofday")(pNow, pZone);
    } else {
        *pNow = *pSet;
    }
    constexpr struct timezone kOfSetClocks = {300, 1};
    const struct timezone* const pSetZone = pSet != nullptr ? &kOfSetClocks : support::ScopedZone::Zone();
    if (pZone != nullptr && pSetZone != nullptr) {
        *static_cast<struct timezone*>(pZone) = *pSetZone;
    }
    return 0;
}

#endif  // KALVOREN_TESTS_SCOPEDCLOCK_H
