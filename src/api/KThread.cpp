#include "KThread.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "Checks.h"
#include "Numbers.h"

namespace {

constexpr Checks g_Checks("src/api/KThread");

constexpr int kMicrosecondsPerSecond = 1000000;

/// The wall clock in microseconds, cut to 32 bits: it wraps and changes sign.
long long WrappedNow() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return WrappedSum(WrappedProduct(LowWord(now.tv_sec), kMicrosecondsPerSecond), LowWord(now.tv_usec));
}

/// A deadline that wraps rather than overflows, for any time-out a caller may pass.
long long Deadline(long long nTimeOut, long long nBase) {
    return static_cast<long long>(static_cast<unsigned long long>(nTimeOut) + static_cast<unsigned long long>(nBase));
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------- KMutex

struct KMutex::MutexInfo {
    pthread_mutex_t mutex;
    pthread_mutexattr_t attribute;
};

KMutex::KMutex() : m_nBaseTime(0), pInfo(new (std::nothrow) MutexInfo()) {
    const char* const pszSignature = "KMutex::KMutex()";
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", pszSignature)) {
        return;
    }
    int nRet = pthread_mutexattr_init(&pInfo->attribute);
    g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    nRet = pthread_mutexattr_settype(&pInfo->attribute, PTHREAD_MUTEX_NORMAL);
    g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    nRet = pthread_mutex_init(&pInfo->mutex, &pInfo->attribute);
    g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
}

KMutex::~KMutex() {
    if (pInfo == nullptr) {
        return;
    }
    pthread_mutexattr_destroy(&pInfo->attribute);
    const int nRet = pthread_mutex_destroy(&pInfo->mutex);
    g_Checks.Hold(nRet == 0, "nRet == 0", "virtual KMutex::~KMutex()");
    delete pInfo;  // GCOVR_EXCL_BR_LINE: delete asks once more whether there is one
    pInfo = nullptr;
}

bool KMutex::Lock() const {
    const char* const pszSignature = "bool KMutex::Lock() const";
    if (g_Checks.Hold(pInfo != nullptr, "pInfo", pszSignature)) {
        const int nRet = pthread_mutex_lock(&pInfo->mutex);
        g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    }
    return true;
}

bool KMutex::Unlock() const {
    const char* const pszSignature = "bool KMutex::Unlock() const";
    if (g_Checks.Hold(pInfo != nullptr, "pInfo", pszSignature)) {
        const int nRet = pthread_mutex_unlock(&pInfo->mutex);
        g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    }
    return true;
}

bool KMutex::TryLock() {
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KMutex::TryLock()")) {
        return true;
    }
    return pthread_mutex_trylock(&pInfo->mutex) == 0;
}

bool KMutex::LockWithTimeOut(long long nTimeOut) {
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KMutex::LockWithTimeOut(long long int)")) {
        return true;
    }
    return LockUntil(Deadline(nTimeOut, WrappedNow()));
}

bool KMutex::LockWithSystemTimeBasedTimeOut(long long nTimeOut, bool fgReset) {
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KMutex::LockWithSystemTimeBasedTimeOut(long long int, bool)")) {
        return true;
    }
    if (fgReset) {
        m_nBaseTime = WrappedNow();
    }
    return LockUntil(Deadline(nTimeOut, m_nBaseTime));
}

bool KMutex::LockUntil(long long nDeadline) {
    timespec deadline = {};
    deadline.tv_sec = static_cast<time_t>(nDeadline / kMicrosecondsPerSecond);
    // Microseconds, where the field counts nanoseconds: programs rely on the early end.
    deadline.tv_nsec = static_cast<long>(nDeadline % kMicrosecondsPerSecond);
    const int nRet = pthread_mutex_timedlock(&pInfo->mutex, &deadline);
    if (nRet == 0) {
        return true;
    }
    // Not held here: this releases the mutex of whoever holds it.
    pthread_mutex_unlock(&pInfo->mutex);
    return nRet == ETIMEDOUT;
}

// --------------------------------------------------------------------------------------------------------- KThread

/// The POSIX handles: 40 bytes on the 32-bit target.
struct KThread::ThreadInfo {
    pthread_t thread;
    pthread_attr_t attribute;
};

/// The record and, behind it, what the record has no room for. libc hands the handle of a joined thread to the next
/// one it creates, so a handle must not be joined or cancelled again once it was joined, and the record keeps it.
struct KThread::ThreadState {
    ThreadInfo info;
    bool fgJoined;

    static_assert(sizeof(void*) != 4 || (sizeof(ThreadInfo) == 40 && offsetof(ThreadInfo, thread) == 0 &&
                                         offsetof(ThreadInfo, attribute) == 4),
                  "programs on the target know the record");
};

namespace {

const char g_szExitText[] = "Thread END";

}  // namespace

KThread::ThreadState* KThread::State() const {
    return reinterpret_cast<ThreadState*>(pInfo);
}

KThread::KThread() : m_eStatus(STOPPED), m_nSpeed(10), m_nStackSize(-1), m_nReserved{0, 0}, pInfo(nullptr) {
    pInfo = static_cast<ThreadInfo*>(std::calloc(1, sizeof(ThreadState)));
}

KThread::KThread(const KThread&) : KThread() {
    g_Checks.Fail("KThread::KThread(const KThread&)");
}

KThread& KThread::operator=(const KThread&) {
    g_Checks.Fail("KThread& KThread::operator=(const KThread&)");
    return *this;
}

KThread::~KThread() {
    Stop();
    std::free(pInfo);
    pInfo = nullptr;
}

/// The body of every thread. Cancellation unwinds through it, so it catches nothing.
void* KThread::Run(void* pArgument) {
    void* const pExitValue = const_cast<char*>(g_szExitText);
    if (pArgument == nullptr) {
        return pExitValue;
    }
    KThread& thread = *static_cast<KThread*>(pArgument);
    // A Stop() that came before this first step has set STOPPING; it must not be overwritten, or the body would run on
    // while its owner waits.
    Status eSeen = STOPPED;
    while (eSeen != STOPPING && !thread.m_eStatus.compare_exchange_weak(eSeen, RUNNING, std::memory_order_relaxed)) {
    }
    thread.ThreadMainLoop();
    thread.SetStatus(STOPPED);
    return pExitValue;
}

bool KThread::Start(int nSpeed, Priority ePriority, int nStackSize, Callback) {
    const char* const pszSignature =
        "bool KThread::Start(int, KThread::Priority, int, int (*)(void*, void*, int, void*, int))";
    SetStackSize(nStackSize);
    SetSpeed(nSpeed);
    if (GetStatus() != STOPPED) {
        return false;
    }
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", pszSignature)) {
        return true;
    }
    pthread_attr_init(&pInfo->attribute);
    pthread_attr_setdetachstate(&pInfo->attribute, PTHREAD_CREATE_JOINABLE);
    if (nStackSize != -1) {
        const int nRet = pthread_attr_setstacksize(&pInfo->attribute, static_cast<std::size_t>(nStackSize));
        g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    }
    sched_param parameter = {};
    int nRet = pthread_attr_getschedparam(&pInfo->attribute, &parameter);
    g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    if (ePriority == HIGH) {
        parameter.sched_priority += 5;
    } else if (ePriority == LOW) {
        parameter.sched_priority -= 5;
    }
    // Normally refused, since the policy stays the default one; the thread then runs at the inherited priority.
    pthread_attr_setschedparam(&pInfo->attribute, &parameter);
    State()->fgJoined = false;
    nRet = pthread_create(&pInfo->thread, &pInfo->attribute, &KThread::Run, this);
    if (!g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature)) {
        pInfo->thread = 0;
    }
    return true;
}

bool KThread::ReStart(int nSpeed, Priority ePriority, int nStackSize, Callback callback) {
    return Stop() && Start(nSpeed, ePriority, nStackSize, callback);
}

bool KThread::Stop() {
    const char* const pszSignature = "bool KThread::Stop()";
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", pszSignature)) {
        return false;
    }
    SetStatus(STOPPING);
    const int nRet = pthread_attr_destroy(&pInfo->attribute);
    g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    if (pInfo->thread != 0 && !State()->fgJoined) {
        State()->fgJoined = pthread_join(pInfo->thread, nullptr) == 0;
    }
    SetStatus(STOPPED);
    return true;
}

bool KThread::ForceStop() {
    const char* const pszSignature = "virtual bool KThread::ForceStop()";
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", pszSignature)) {
        return false;
    }
    SetStatus(STOPPING);
    const bool fgLive = pInfo->thread != 0 && !State()->fgJoined;
    int nRet = fgLive ? pthread_cancel(pInfo->thread) : ESRCH;
    g_Checks.Hold(nRet == 0, "nRet == 0", pszSignature);
    nRet = fgLive ? pthread_join(pInfo->thread, nullptr) : ESRCH;
    g_Checks.Hold(nRet == 0 || nRet == ESRCH, "nRet == 0 || nRet == 3", pszSignature);
    if (nRet == 0) {
        State()->fgJoined = true;
    }
    SetStatus(STOPPED);
    return true;
}

int KThread::ThreadMainLoop() {
    while (IsRunning()) {
        if (!IsPaused()) {
            Sleep(GetSpeed());
        }
    }
    return 1;
}

// The next two replace only the status they saw: a Stop() at the same moment must not be undone, or its join would wait
// for a body that was told to go on.

bool KThread::Pause() {
    Status eSeen = RUNNING;  // A guess: the exchange tells where it is wrong.
    while (eSeen <= PAUSED) {
        if (m_eStatus.compare_exchange_weak(eSeen, PAUSED, std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

bool KThread::Resume() {
    Status eSeen = PAUSED;
    return m_eStatus.compare_exchange_strong(eSeen, PAUSED, std::memory_order_relaxed);
}

bool KThread::IsPaused() {
    return GetStatus() == PAUSED;
}

bool KThread::IsRunning() {
    return GetStatus() < STOPPING;
}

void KThread::SetStatus(Status eStatus) {
    m_eStatus.store(eStatus, std::memory_order_relaxed);
}

KThread::Status KThread::GetStatus() const {
    return m_eStatus.load(std::memory_order_relaxed);
}

void KThread::SetSpeed(int nMilliseconds) {
    g_Checks.Hold(nMilliseconds >= 0, "milSec >= 0", "void KThread::SetSpeed(int)");
    m_nSpeed.store(nMilliseconds, std::memory_order_relaxed);
}

int KThread::GetSpeed() const {
    return m_nSpeed.load(std::memory_order_relaxed);
}

void KThread::SetStackSize(int nBytes) {
    m_nStackSize = nBytes;
}

int KThread::GetStackSize() const {
    return m_nStackSize;
}

int KThread::Sleep(int nMilliseconds) {
    return usleep(static_cast<useconds_t>(WrappedProduct(1000, nMilliseconds)));
}
