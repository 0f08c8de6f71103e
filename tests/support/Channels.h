// The numbers of KIPC's channels and the names of their shared memory, which all processes of the machine share.
#ifndef KALVOREN_TESTS_CHANNELS_H
#define KALVOREN_TESTS_CHANNELS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace support {

/// How many channels the table has.
constexpr int kChannels = 1000;

/// The name by which a test reaches a channel's shared-memory object.
inline std::string SharedNameOf(int nIndex) {
    return "/KALVOREN_IPC_" + std::to_string(nIndex);
}

/// A channel number above those of the table that no other test on this machine uses at the same time. The name of its
/// shared memory is free when the block begins and gone when it ends.
class ScopedNumber {
 public:
    ScopedNumber() : m_nIndex(kChannels + 1 + getpid() * kPerProcess + s_nNext++ % kPerProcess) { Unlink(); }
    ~ScopedNumber() { Unlink(); }
    ScopedNumber(const ScopedNumber&) = delete;
    ScopedNumber& operator=(const ScopedNumber&) = delete;

    operator int() const { return m_nIndex; }

 private:
    void Unlink() const { shm_unlink(SharedNameOf(m_nIndex).c_str()); }

    static constexpr int kPerProcess = 500;  // Of at most 2^22 processes.
    static inline int s_nNext = 0;
    int m_nIndex;
};

/// Keeps the names of the table's channels, up to a number, to this test. They are free when the block begins and gone when
/// it ends.
class ScopedTableNames {
 public:
    explicit ScopedTableNames(int nLast = kChannels)
        : m_nLast(nLast), m_nLock(open("/dev/shm", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        EXPECT_EQ(flock(m_nLock, LOCK_EX), 0);
        Unlink();
    }
    ~ScopedTableNames() {
        Unlink();
        close(m_nLock);
    }
    ScopedTableNames(const ScopedTableNames&) = delete;
    ScopedTableNames& operator=(const ScopedTableNames&) = delete;

 private:
    void Unlink() const {
        for (int nIndex = 0; nIndex <= m_nLast; ++nIndex) {
            shm_unlink(SharedNameOf(nIndex).c_str());
        }
    }

    int m_nLast;
    int m_nLock;
};

}  // namespace support

#endif  // KALVOREN_TESTS_CHANNELS_H
