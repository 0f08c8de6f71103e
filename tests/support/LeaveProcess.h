// The end of a process that a test made.
#ifndef KALVOREN_TESTS_LEAVEPROCESS_H
#define KALVOREN_TESTS_LEAVEPROCESS_H

#include <unistd.h>

#ifdef KALVOREN_COVERAGE
// NOLINTNEXTLINE(bugprone-reserved-identifier): the compiler's own.
extern "C" void __gcov_dump();
#endif

namespace support {

/// Ends the process at once, without exit handlers. What a coverage build counted in it is kept.
[[noreturn]] inline void LeaveProcess(int nStatus) {
#ifdef KALVOREN_COVERAGE
    __gcov_dump();
#endif
    _exit(nStatus);
}

}  // namespace support

#endif  // KALVOREN_TESTS_LEAVEPROCESS_H
