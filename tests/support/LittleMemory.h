// Runs code where memory is lacking.
#ifndef KALVOREN_TESTS_LITTLEMEMORY_H
#define KALVOREN_TESTS_LITTLEMEMORY_H

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "LeaveProcess.h"
#include "Sanitizers.h"

namespace support {

/// More than the heap takes from the system to hand it out in pieces (32 MiB): an allocation of this size asks the system,
/// unless as much was given back in small pieces before.
constexpr int kMuchMemory = 33 << 20;

/// Whether valgrind runs the program: its allocator has memory in hand that no limit touches.
inline bool IsUnderValgrind() {
    const char* const pszPreloaded = std::getenv("LD_PRELOAD");
    return pszPreloaded != nullptr && std::strstr(pszPreloaded, "vgpreload") != nullptr;
}

/// What running without memory came to, beside the results of the code itself.
constexpr int kMemoryCannotBeLimited = 77;
constexpr int kDiedOfLittleMemory = 78;

/// Takes what the heap has in hand from before; false where the system gives more than that.
inline bool TakeWhatTheHeapKeeps() {
    constexpr int kMoreThanItEverKeeps = 32;
    static void* volatile s_pTaken[kMoreThanItEverKeeps];
    for (void* volatile& pTaken : s_pTaken) {
        pTaken = std::malloc(static_cast<std::size_t>(kMuchMemory));
        if (pTaken == nullptr) {
            return true;
        }
    }
    return false;
}

/// Runs a piece of code in a process of its own that gets no more memory from the system, and returns what the code
/// returned (0 to 76): 0 where everything was as expected, else the number of the step that was not. Returns
/// kMemoryCannotBeLimited where the system, a sanitizer or valgrind does not let a process be limited; skip the test then.
template <typename Code>
int InLittleMemory(Code code) {
#if KALVOREN_WITH_ASAN || KALVOREN_WITH_TSAN
    // They have allocators of their own, which end the program where memory is lacking.
    static_cast<void>(code);
    return kMemoryCannotBeLimited;
#else
    if (IsUnderValgrind()) {
        return kMemoryCannotBeLimited;
    }
    const pid_t nChild = fork();
    if (nChild == 0) {
        rlimit before = {};
        getrlimit(RLIMIT_AS, &before);
        const rlimit nothingMore = {1, before.rlim_max};
        if (setrlimit(RLIMIT_AS, &nothingMore) != 0) {
            LeaveProcess(kMemoryCannotBeLimited);
        }
        const int nResult = TakeWhatTheHeapKeeps() ? code() : kMemoryCannotBeLimited;
        setrlimit(RLIMIT_AS, &before);
        LeaveProcess(nResult);
    }
    int nStatus = 0;
    const bool fgExited = waitpid(nChild, &nStatus, 0) == nChild && WIFEXITED(nStatus);
    return fgExited ? WEXITSTATUS(nStatus) : kDiedOfLittleMemory;
#endif
}

}  // namespace support

#endif  // KALVOREN_TESTS_LITTLEMEMORY_H
