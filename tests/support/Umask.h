// Who may use the files that a process makes.
#ifndef KALVOREN_TESTS_UMASK_H
#define KALVOREN_TESTS_UMASK_H

#include <sys/stat.h>

namespace support {

/// A file-mode creation mask for the length of a block.
class ScopedUmask {
 public:
    explicit ScopedUmask(mode_t nMask) : m_nBefore(umask(nMask)) {}
    ~ScopedUmask() { umask(m_nBefore); }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

 private:
    mode_t m_nBefore;
};

}  // namespace support

#endif  // KALVOREN_TESTS_UMASK_H
