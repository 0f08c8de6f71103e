#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>
#include <type_traits>
#include <vector>

#include "KThread.h"
#include "support/FailingNew.h"
#include "support/Interpose.h"
#include "support/PointerLeftBy.h"
#include "support/ScopedClock.h"
#include "support/Support.h"
#include "support/Threads.h"

namespace {

using support::ScopedCalls;
using support::ScopedChecks;
using support::ScopedClock;
using support::ScopedNoMemory;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSource = "src/api/KThread";
constexpr long long kMicrosecondsPerSecond = 1000000;

// ------------------------------------------------------------------------- What libc is given in the length of a block

/// What the last calls of this thread were given.
struct Given {
    timespec deadline;
    int nType;
    const void* pMutex;
    const void* pAttribute;
    bool fgZeroFilled;
};
thread_local Given t_Given = {};

bool IsZeroFilled(const void* pRecord, std::size_t nSize) {
    const auto* const pBytes = static_cast<const unsigned char*>(pRecord);
    return std::all_of(pBytes, pBytes + nSize, [](unsigned char byte) { return byte == 0; });
}

// ------------------------------------------------------------------------------------------------------- Small helpers

/// Runs a piece of code on a thread of its own and waits for it.
template <typename Code>
void OnAnotherThread(Code&& code) {
    std::thread(std::forward<Code>(code)).join();
}

bool IsFree(KMutex& mutex) {
    if (!mutex.TryLock()) {
        return false;
    }
    mutex.Unlock();
    return true;
}

/// A field of an object, by its place in it.
template <typename T>
T FieldAt(const KMutex& mutex, std::size_t nOffset) {
    T value;
    std::memcpy(&value, reinterpret_cast<const char*>(&mutex) + nOffset, sizeof value);
    return value;
}

// The fields in order: the base time behind the pointer to the virtual table, then the record.
struct Layout {
    void* pVirtualTable;
    long long nBaseTime;
    void* pInfo;
};

long long BaseTimeOf(const KMutex& mutex) {
    return FieldAt<long long>(mutex, offsetof(Layout, nBaseTime));
}
void* RecordOf(const KMutex& mutex) {
    return FieldAt<void*>(mutex, offsetof(Layout, pInfo));
}

/// A moment in 32-bit microseconds, as the timed forms know it.
long long WrappedMicroseconds(long long nSec, long long nUSec) {
    const auto nLow = static_cast<std::uint32_t>(nSec * kMicrosecondsPerSecond + nUSec);
    return static_cast<long long>(nLow) - (nLow >= 0x80000000u ? 0x100000000LL : 0);
}

/// Whether libc calls a deadline over rather than wrong: versions differ where it is negative.
bool IsOver(const timespec& deadline) {
    pthread_mutex_t held = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&held);
    const int nResult = pthread_mutex_timedlock(&held, &deadline);
    pthread_mutex_unlock(&held);
    pthread_mutex_destroy(&held);
    return nResult == ETIMEDOUT;
}

// What is done against the rules has a function of its own, by whose name the thread sanitizer is told that it is meant.

void DestroyALockedMutex() {
    const KMutex mutex;
    mutex.Lock();
}

bool UnlockTheMutexOfAnotherThread(const KMutex& mutex) {
    return mutex.Unlock();
}

/// The mutex times out under its holder, who then unlocks it too.
void UnlockTwiceBecauseOfATimeOut() {
    KMutex mutex;
    mutex.Lock();
    mutex.LockWithSystemTimeBasedTimeOut(0, false);
    mutex.Unlock();
}

/// Waits for a mutex that another thread holds, until a time that is over: this unlocks it under its holder.
bool TimeOutUnderTheHolder(KMutex& mutex) {
    return mutex.LockWithSystemTimeBasedTimeOut(0, false);
}

/// A deadline at the start of the second that lies this far ahead, for a mutex whose base time was never set.
long long SecondsAhead(int nSeconds) {
    return (static_cast<long long>(time(nullptr)) + nSeconds) * kMicrosecondsPerSecond;
}

}  // namespace

// ------------------------------------------------------------------------------------- The functions in front of libc's

extern "C" int pthread_mutexattr_init(pthread_mutexattr_t* pAttribute) noexcept {
    if (ScopedCalls::Current() != nullptr) {
        // The attribute lies behind the mutex in one record.
        const auto* const pRecord = reinterpret_cast<const char*>(pAttribute) - sizeof(pthread_mutex_t);
        t_Given.fgZeroFilled = IsZeroFilled(pRecord, sizeof(pthread_mutex_t) + sizeof(pthread_mutexattr_t));
        t_Given.pAttribute = pAttribute;
    }
    return support::NoteAndPassOn<&pthread_mutexattr_init>("pthread_mutexattr_init", pAttribute);
}

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t* pAttribute, int nType) noexcept {
    t_Given.nType = nType;
    return support::NoteAndPassOn<&pthread_mutexattr_settype>("pthread_mutexattr_settype", pAttribute, nType);
}

extern "C" int pthread_mutexattr_destroy(pthread_mutexattr_t* pAttribute) noexcept {
    return support::NoteAndPassOn<&pthread_mutexattr_destroy>("pthread_mutexattr_destroy", pAttribute);
}

extern "C" int pthread_mutex_init(pthread_mutex_t* pMutex, const pthread_mutexattr_t* pAttribute) noexcept {
    if (ScopedCalls::Current() != nullptr) {
        t_Given.pMutex = pMutex;
        EXPECT_EQ(t_Given.pAttribute, pAttribute);
    }
    return support::NoteAndPassOn<&pthread_mutex_init>("pthread_mutex_init", pMutex, pAttribute);
}

extern "C" int pthread_mutex_destroy(pthread_mutex_t* pMutex) noexcept {
    return support::NoteAndPassOn<&pthread_mutex_destroy>("pthread_mutex_destroy", pMutex);
}

extern "C" int pthread_mutex_lock(pthread_mutex_t* pMutex) noexcept {
    return support::NoteAndPassOn<&pthread_mutex_lock>("pthread_mutex_lock", pMutex);
}

extern "C" int pthread_mutex_trylock(pthread_mutex_t* pMutex) noexcept {
    return support::NoteAndPassOn<&pthread_mutex_trylock>("pthread_mutex_trylock", pMutex);
}

extern "C" int pthread_mutex_timedlock(pthread_mutex_t* __restrict pMutex,
                                       const timespec* __restrict pDeadline) noexcept {
    t_Given.deadline = *pDeadline;
    return support::NoteAndPassOn<&pthread_mutex_timedlock>("pthread_mutex_timedlock", pMutex, pDeadline);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* pMutex) noexcept {
    return support::NoteAndPassOn<&pthread_mutex_unlock>("pthread_mutex_unlock", pMutex);
}

namespace {

// ------------------------------------------------------------------------------------------------ Making and destroying

TEST(KMutexTest, ANewMutexIsUnlockedAndItsBaseTimeIsZero) {
    KMutex mutex;
    EXPECT_TRUE(IsFree(mutex));
    EXPECT_EQ(BaseTimeOf(mutex), 0);
}

TEST(KMutexTest, TheConstructorInitialisesTheAttributeSetsTheNormalTypeAndInitialisesTheMutex) {
    const ScopedChecks checks(true);
    const ScopedCalls calls;
    const KMutex mutex;
    EXPECT_THAT(calls.Names(),
                ElementsAre("pthread_mutexattr_init", "pthread_mutexattr_settype", "pthread_mutex_init"));
    EXPECT_EQ(t_Given.nType, PTHREAD_MUTEX_NORMAL);
    EXPECT_EQ(PTHREAD_MUTEX_NORMAL, 0);
}

TEST(KMutexTest, AMutexThatIsGoneHasNoRecord) {
    EXPECT_EQ(support::PointerLeftBy<KMutex>(offsetof(Layout, pInfo)), nullptr);
}

TEST(KMutexTest, TheRecordHoldsTheMutexThenTheAttributeAndIsZeroFilledWhenMade) {
    const ScopedCalls calls;
    const KMutex mutex;
    EXPECT_TRUE(t_Given.fgZeroFilled);
    EXPECT_EQ(t_Given.pMutex, RecordOf(mutex));
    EXPECT_EQ(t_Given.pAttribute, static_cast<const char*>(RecordOf(mutex)) + sizeof(pthread_mutex_t));
    EXPECT_EQ(sizeof(KMutex), sizeof(Layout));
}

TEST(KMutexTest, TheDestructorDestroysTheAttributeThenTheMutex) {
    const ScopedChecks checks(true);
    std::vector<std::string> names;
    {
        auto* const pMutex = new KMutex;
        const ScopedCalls calls;
        delete pMutex;
        names = calls.Names();
    }
    EXPECT_THAT(names, ElementsAre("pthread_mutexattr_destroy", "pthread_mutex_destroy"));
}

TEST(KMutexTest, AMutexIsDestroyedThroughItsVirtualDestructorAndCannotBeCopied) {
    EXPECT_TRUE(std::has_virtual_destructor<KMutex>::value);
    EXPECT_FALSE(std::is_copy_constructible<KMutex>::value);
    EXPECT_FALSE(std::is_copy_assignable<KMutex>::value);
}

TEST(KMutexTest, DestroyingALockedMutexFailsACheck) {
    EXPECT_CHECK_FAILS(DestroyALockedMutex(), "nRet == 0", kSource, "virtual KMutex::~KMutex()");
}

TEST(KMutexTest, DestroyingALockedMutexWithTheChecksOffIsQuiet) {
    const ScopedChecks checks(false);
    EXPECT_EQ(support::StderrOf(DestroyALockedMutex), "");
}

// ------------------------------------------------------------------------------------------------ Locking and unlocking

TEST(KMutexTest, LockAndUnlockReturnTrueAndWorkOnAConstantMutex) {
    const ScopedChecks checks(true);
    const KMutex mutex;
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.Unlock());
}

TEST(KMutexTest, LockKeepsOtherThreadsOut) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    KMutex mutex;
    int nSum = 0;
    support::RunInThreads(kThreads, [&mutex, &nSum](int) {
        for (int nRound = 0; nRound < kRounds; ++nRound) {
            mutex.Lock();
            ++nSum;
            mutex.Unlock();
        }
    });
    EXPECT_EQ(nSum, kThreads * kRounds);
}

TEST(KMutexTest, TryLockTakesAFreeMutexAndIsFalseWhileAnotherThreadHoldsIt) {
    KMutex mutex;
    EXPECT_TRUE(mutex.TryLock());
    OnAnotherThread([&mutex] { EXPECT_FALSE(mutex.TryLock()); });
    mutex.Unlock();
    OnAnotherThread([&mutex] { EXPECT_TRUE(IsFree(mutex)); });
}

TEST(KMutexTest, TryLockOfAMutexThatTheCallerHoldsIsFalse) {
    KMutex mutex;
    mutex.Lock();
    EXPECT_FALSE(mutex.TryLock());
    mutex.Unlock();
    EXPECT_TRUE(IsFree(mutex));
}

TEST(KMutexTest, TryLockIsFalseForAnyFailureAndFailsNoCheck) {
    const ScopedChecks checks(true);
    KMutex mutex;
    for (const int nResult : {EBUSY, EINVAL, EAGAIN, -1, 1}) {
        const ScopedCalls calls({{"pthread_mutex_trylock", nResult}});
        EXPECT_FALSE(mutex.TryLock()) << nResult;
        EXPECT_THAT(calls.Names(), ElementsAre("pthread_mutex_trylock"));
    }
}

TEST(KMutexTest, LockingTwiceFromOneThreadBlocksForGood) {
    EXPECT_EXIT(
        {
            const KMutex mutex;
            mutex.Lock();
            alarm(1);
            mutex.Lock();
            _exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
}

TEST(KMutexTest, UnlockingFromAThreadThatDoesNotHoldTheMutexIsNotNoticed) {
    const ScopedChecks checks(true);
    KMutex mutex;
    mutex.Lock();
    OnAnotherThread([&mutex] {
        EXPECT_TRUE(UnlockTheMutexOfAnotherThread(mutex));
        EXPECT_TRUE(mutex.TryLock());
        mutex.Unlock();
    });
}

// ---------------------------------------------------------------------------------------------------------- Timed forms

struct DeadlineCase {
    long long nSec;  // the clock
    int nUSec;
    long long nTimeOut;
    long long nDeadlineSec;  // what pthread_mutex_timedlock is given
    long nDeadlineNSec;
};

constexpr DeadlineCase kDeadlines[] = {
    {0, 0, 0, 0, 0},
    {0, 0, 1, 0, 1},
    {0, 0, 999999, 0, 999999},
    {0, 0, 1000000, 1, 0},
    {0, 0, -1, 0, -1},
    {0, 0, -1000000, -1, 0},
    {0, 0, -1000001, -1, -1},
    {1, 5, 0, 1, 5},
    {1, 5, 2500000, 3, 500005},
    {2147, 483647, 0, 2147, 483647},
    // The clock's 32 bits wrap and change sign here.
    {2147, 483648, 0, -2147, -483648},
    {2147, 483648, 1000000, -2146, -483648},
    {2147, 483648, 2147483648LL, 0, 0},
    {4294, 967295, 0, 0, -1},
    {4294, 967296, 0, 0, 0},
    // Present days.
    {1700000000, 0, 0, 404, 635648},
    {1715005207, 123456, 0, -1003, -973120},
    {1715005207, 123456, 1003973120, 0, 0},
    {1715005207, 123456, 60000000, -943, -973120},
    // The time-out itself is 64 bits wide.
    {0, 0, 1700000000123456LL, 1700000000, 123456},
    {1, 5, 1700000000000000LL, 1700000001, 5},
};

TEST(KMutexTest, TheDeadlineIsTheClockIn32BitsPlusTheTimeOutWithMicrosecondsInThePlaceOfNanoseconds) {
    KMutex mutex;
    for (const DeadlineCase& row : kDeadlines) {
        const ScopedClock clock(static_cast<time_t>(row.nSec), row.nUSec);
        const ScopedCalls calls({{"pthread_mutex_timedlock", 0}});
        EXPECT_TRUE(mutex.LockWithTimeOut(row.nTimeOut));
        EXPECT_EQ(t_Given.deadline.tv_sec, row.nDeadlineSec) << row.nSec << "." << row.nUSec << " + " << row.nTimeOut;
        EXPECT_EQ(t_Given.deadline.tv_nsec, row.nDeadlineNSec) << row.nSec << "." << row.nUSec << " + " << row.nTimeOut;
    }
}

TEST(KMutexTest, WithAResetTheSystemTimeFormHasTheSameDeadline) {
    KMutex mutex;
    for (const DeadlineCase& row : kDeadlines) {
        const ScopedClock clock(static_cast<time_t>(row.nSec), row.nUSec);
        const ScopedCalls calls({{"pthread_mutex_timedlock", 0}});
        EXPECT_TRUE(mutex.LockWithSystemTimeBasedTimeOut(row.nTimeOut, true));
        EXPECT_EQ(t_Given.deadline.tv_sec, row.nDeadlineSec) << row.nSec << "." << row.nUSec << " + " << row.nTimeOut;
        EXPECT_EQ(t_Given.deadline.tv_nsec, row.nDeadlineNSec) << row.nSec << "." << row.nUSec << " + " << row.nTimeOut;
        EXPECT_EQ(BaseTimeOf(mutex), WrappedMicroseconds(row.nSec, row.nUSec));
    }
}

TEST(KMutexTest, WithoutAResetTheDeadlineStaysAnchoredAtTheLastOne) {
    KMutex mutex;
    ScopedClock clock(100, 7);
    const ScopedCalls calls({{"pthread_mutex_timedlock", 0}});
    mutex.LockWithSystemTimeBasedTimeOut(2000000, false);
    EXPECT_EQ(t_Given.deadline.tv_sec, 2) << "before the first reset the base is 0";
    EXPECT_EQ(t_Given.deadline.tv_nsec, 0);
    mutex.LockWithSystemTimeBasedTimeOut(2000000, true);
    EXPECT_EQ(t_Given.deadline.tv_sec, 102);
    clock.Set(150, 9);
    mutex.LockWithSystemTimeBasedTimeOut(3000000, false);
    EXPECT_EQ(t_Given.deadline.tv_sec, 103);
    EXPECT_EQ(t_Given.deadline.tv_nsec, 7);
    mutex.LockWithTimeOut(0);
    EXPECT_EQ(t_Given.deadline.tv_sec, 150) << "the other form counts from now";
    EXPECT_EQ(BaseTimeOf(mutex), 100000007) << "and leaves the base as it is";
}

TEST(KMutexTest, ADeadlineBeyond64BitsWraps) {
    KMutex mutex;
    const ScopedClock clock(1, 0);
    const ScopedCalls calls({{"pthread_mutex_timedlock", 0}});
    constexpr long long kWrapped = LLONG_MIN + kMicrosecondsPerSecond - 1;
    mutex.LockWithTimeOut(LLONG_MAX);
    EXPECT_EQ(t_Given.deadline.tv_sec, static_cast<time_t>(kWrapped / kMicrosecondsPerSecond));
    EXPECT_EQ(t_Given.deadline.tv_nsec, kWrapped % kMicrosecondsPerSecond);
}

/// Both timed forms, for what they have in common.
struct TimedForm {
    const char* pszName;
    std::function<bool(KMutex&, long long)> lock;
};

const std::vector<TimedForm>& TimedForms() {
    static const std::vector<TimedForm> forms = {
        {"LockWithTimeOut", [](KMutex& mutex, long long n) { return mutex.LockWithTimeOut(n); }},
        {"with a reset", [](KMutex& mutex, long long n) { return mutex.LockWithSystemTimeBasedTimeOut(n, true); }},
        {"without a reset", [](KMutex& mutex, long long n) { return mutex.LockWithSystemTimeBasedTimeOut(n, false); }},
    };
    return forms;
}

TEST(KMutexTest, AFailedTimedLockUnlocksAndIsTrueForATimeOutAlone) {
    const ScopedChecks checks(true);
    for (const TimedForm& form : TimedForms()) {
        KMutex mutex;
        for (const int nResult : {ETIMEDOUT, EINVAL, EDEADLK, EAGAIN, EOWNERDEAD, -1}) {
            const ScopedCalls calls({{"pthread_mutex_timedlock", nResult}, {"pthread_mutex_unlock", 0}});
            EXPECT_EQ(form.lock(mutex, 0), nResult == ETIMEDOUT) << form.pszName << " " << nResult;
            EXPECT_THAT(calls.Names(), ElementsAre("pthread_mutex_timedlock", "pthread_mutex_unlock"));
        }
    }
}

TEST(KMutexTest, TheUnlockAfterAFailedTimedLockMayFailUnnoticed) {
    const ScopedChecks checks(true);
    for (const TimedForm& form : TimedForms()) {
        KMutex mutex;
        const ScopedCalls calls({{"pthread_mutex_timedlock", ETIMEDOUT}, {"pthread_mutex_unlock", EPERM}});
        EXPECT_TRUE(form.lock(mutex, 0)) << form.pszName;
    }
}

TEST(KMutexTest, ATimedLockTakesAFreeMutexWhateverTheDeadline) {
    for (const TimedForm& form : TimedForms()) {
        for (const long long nTimeOut : {0LL, -1LL, 1LL, 5000000LL, LLONG_MIN, LLONG_MAX}) {
            KMutex mutex;
            EXPECT_TRUE(form.lock(mutex, nTimeOut)) << form.pszName << " " << nTimeOut;
            EXPECT_FALSE(mutex.TryLock()) << "held";
            mutex.Unlock();
        }
    }
}

TEST(KMutexTest, ATimeOutIsTrueAndUnlocksTheMutexOfItsHolder) {
    // The base time was never set, so that the deadline lies at the start of 1970 whatever the clock says.
    KMutex mutex;
    mutex.Lock();
    OnAnotherThread([&mutex] {
        EXPECT_TRUE(TimeOutUnderTheHolder(mutex));
        EXPECT_TRUE(mutex.TryLock()) << "nobody holds it any more";
        mutex.Unlock();
    });
}

TEST(KMutexTest, ATimeOutOfZeroOnAHeldMutexIsOverAtOnceAndUnlocksIt) {
    KMutex mutex;
    for (const long nSec : {0L, 1000L, 2147L, 2148L, 3000L, 4295L}) {
        const ScopedClock clock(nSec, 1);
        mutex.Lock();
        const bool fgResult = mutex.LockWithTimeOut(0);
        EXPECT_EQ(fgResult, IsOver(t_Given.deadline)) << nSec;
        EXPECT_TRUE(fgResult || WrappedMicroseconds(nSec, 1) < 0) << nSec;
        EXPECT_TRUE(IsFree(mutex)) << nSec;
    }
}

TEST(KMutexTest, ADeadlineThatLibcRefusesIsFalseAndUnlocksAllTheSame) {
    KMutex mutex;
    mutex.Lock();
    EXPECT_FALSE(mutex.LockWithSystemTimeBasedTimeOut(-1, false));
    EXPECT_TRUE(IsFree(mutex));
}

TEST(KMutexTest, ADeadlineAtANegativeWholeSecondIsATimeOut) {
    KMutex mutex;
    mutex.Lock();
    EXPECT_TRUE(mutex.LockWithSystemTimeBasedTimeOut(-kMicrosecondsPerSecond, false));
    EXPECT_TRUE(IsFree(mutex));
}

TEST(KMutexTest, ADeadlineThatLiesAheadWaitsForTheHolder) {
    KMutex mutex;
    mutex.Lock();
    bool fgTaken = false;
    std::thread waiter([&mutex, &fgTaken] {
        fgTaken = mutex.LockWithSystemTimeBasedTimeOut(SecondsAhead(3600), false) && !mutex.TryLock();
        mutex.Unlock();
    });
    mutex.Unlock();
    waiter.join();
    EXPECT_TRUE(fgTaken);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(KMutexTest, ADeadlineThatLiesAheadEndsWhenItIsReached) {
    KMutex mutex;
    mutex.Lock();
    const long long nDeadline = SecondsAhead(1);
    EXPECT_TRUE(mutex.LockWithSystemTimeBasedTimeOut(nDeadline, false));
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    EXPECT_GE(now.tv_sec, nDeadline / kMicrosecondsPerSecond);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(KMutexTest, AfterATimeOutAndTheHoldersUnlockTheDestructorsCheckFails) {
    EXPECT_CHECK_FAILS(UnlockTwiceBecauseOfATimeOut(), "nRet == 0", kSource, "virtual KMutex::~KMutex()");
}

TEST(KMutexTest, AfterATimeOutAndTheHoldersUnlockAllIsQuietWithTheChecksOff) {
    const ScopedChecks checks(false);
    EXPECT_EQ(support::StderrOf(UnlockTwiceBecauseOfATimeOut), "");
}

// -------------------------------------------------------------------------------------------------------- Failed checks

struct FailureCase {
    const char* pszFunction;  // the one that fails
    std::function<void()> use;
    const char* pszSignature;
};

const std::vector<FailureCase>& Failures() {
    static const std::vector<FailureCase> failures = {
        {"pthread_mutexattr_init", [] { const KMutex mutex; }, "KMutex::KMutex()"},
        {"pthread_mutexattr_settype", [] { const KMutex mutex; }, "KMutex::KMutex()"},
        {"pthread_mutex_init", [] { const KMutex mutex; }, "KMutex::KMutex()"},
        {"pthread_mutex_destroy", [] { const KMutex mutex; }, "virtual KMutex::~KMutex()"},
        {"pthread_mutex_lock", [] { EXPECT_TRUE(KMutex().Lock()); }, "bool KMutex::Lock() const"},
        {"pthread_mutex_unlock", [] { EXPECT_TRUE(KMutex().Unlock()); }, "bool KMutex::Unlock() const"},
    };
    return failures;
}

TEST(KMutexTest, AFailedPosixCallFailsTheCheckOfItsOperation) {
    for (const FailureCase& failure : Failures()) {
        SCOPED_TRACE(failure.pszFunction);
        const auto use = [&failure] {
            const ScopedCalls calls({{failure.pszFunction, EAGAIN}});
            failure.use();
        };
        EXPECT_CHECK_FAILS(use(), "nRet == 0", kSource, failure.pszSignature);
    }
}

TEST(KMutexTest, WithTheChecksOffAFailedPosixCallIsIgnored) {
    const ScopedChecks checks(false);
    for (const FailureCase& failure : Failures()) {
        SCOPED_TRACE(failure.pszFunction);
        const ScopedCalls calls({{failure.pszFunction, EAGAIN}});
        EXPECT_EQ(support::StderrOf(failure.use), "");
        EXPECT_THAT(calls.Names(), testing::Contains(failure.pszFunction));
    }
}

TEST(KMutexTest, AFailedDestructionOfTheAttributeIsIgnored) {
    const ScopedChecks checks(true);
    const ScopedCalls calls({{"pthread_mutexattr_destroy", EINVAL}});
    const KMutex mutex;
}

// -------------------------------------------------------------------------------------------------------- Missing record

/// A mutex whose record could not be allocated, made with the checks off.
struct WithoutRecord {
    WithoutRecord() {
        const ScopedChecks checks(false);
        const ScopedNoMemory noMemory;
        pMutex = new KMutex;
    }
    ~WithoutRecord() { delete pMutex; }
    WithoutRecord(const WithoutRecord&) = delete;
    WithoutRecord& operator=(const WithoutRecord&) = delete;

    KMutex* pMutex;
};

TEST(KMutexTest, WithoutARecordEveryOperationReturnsTrueAndDoesNothing) {
    const ScopedChecks checks(false);
    const WithoutRecord without;
    KMutex& mutex = *without.pMutex;
    ASSERT_EQ(RecordOf(mutex), nullptr);
    const ScopedClock clock(5, 0);
    const ScopedCalls calls;
    for (int nRound = 0; nRound < 2; ++nRound) {
        EXPECT_TRUE(mutex.Lock());
        EXPECT_TRUE(mutex.TryLock());
        EXPECT_TRUE(mutex.LockWithTimeOut(1));
        EXPECT_TRUE(mutex.LockWithSystemTimeBasedTimeOut(1, true));
        EXPECT_TRUE(mutex.Unlock());
    }
    EXPECT_EQ(BaseTimeOf(mutex), 0);
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KMutexTest, WithoutARecordEveryOperationFailsTheCheckOfTheRecord) {
    struct Row {
        std::function<void(KMutex&)> use;
        const char* pszSignature;
    };
    const std::vector<Row> rows = {
        {[](KMutex& mutex) { mutex.Lock(); }, "bool KMutex::Lock() const"},
        {[](KMutex& mutex) { mutex.Unlock(); }, "bool KMutex::Unlock() const"},
        {[](KMutex& mutex) { mutex.TryLock(); }, "bool KMutex::TryLock()"},
        {[](KMutex& mutex) { mutex.LockWithTimeOut(0); }, "bool KMutex::LockWithTimeOut(long long int)"},
        {[](KMutex& mutex) { mutex.LockWithSystemTimeBasedTimeOut(0, true); },
         "bool KMutex::LockWithSystemTimeBasedTimeOut(long long int, bool)"},
    };
    for (const Row& row : rows) {
        const WithoutRecord without;
        EXPECT_CHECK_FAILS(row.use(*without.pMutex), "pInfo", kSource, row.pszSignature);
    }
}

TEST(KMutexTest, AConstructorWithoutMemoryForTheRecordFailsTheCheckOfTheRecord) {
    const auto make = [] {
        const ScopedNoMemory noMemory;
        const KMutex mutex;
    };
    EXPECT_CHECK_FAILS(make(), "pInfo", kSource, "KMutex::KMutex()");
}

TEST(KMutexTest, TheDestructorWithoutARecordDoesNothingAndFailsNoCheck) {
    const ScopedChecks checks(true);
    auto* const pWithout = new WithoutRecord;
    const ScopedCalls calls;
    delete pWithout;
    EXPECT_THAT(calls.Names(), IsEmpty());
}

}  // namespace
