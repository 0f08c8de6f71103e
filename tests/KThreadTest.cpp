#include "KThread.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/HeapUse.h"
#include "support/Interpose.h"
#include "support/PointerLeftBy.h"
#include "support/Sanitizers.h"
#include "support/Support.h"

namespace {

using support::ScopedCalls;
using support::ScopedChecks;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSource = "src/api/KThread";
constexpr const char* kStartSignature =
    "bool KThread::Start(int, KThread::Priority, int, int (*)(void*, void*, int, void*, int))";
constexpr const char* kStopSignature = "bool KThread::Stop()";
constexpr const char* kForceStopSignature = "virtual bool KThread::ForceStop()";
constexpr int kEnoughStack = 256 * 1024;

// --------------------------------------------------------------------------------------------------------- What is seen

/// What libc was given by this thread in the length of a ScopedCalls.
struct Given {
    void* (*pEntry)(void*);
    void* pArgument;
    const void* pHandle;
    int nDetachState;
    std::size_t nStackSize;
    int nPriority;
    void* pExitValue;
    std::vector<KThread::Status> statuses;  // of the watched thread, at each cancel and join
};
thread_local Given t_Given = {};
thread_local const KThread* t_pWatched = nullptr;
thread_local int t_nBasePriority = 0;

/// Takes over every sleep, of whichever thread, for the length of a block. The code's result becomes that of usleep.
class ScopedSleeper {
 public:
    explicit ScopedSleeper(std::function<int(useconds_t)> code) : m_Code(std::move(code)) { Current() = this; }
    ~ScopedSleeper() { Current() = nullptr; }
    ScopedSleeper(const ScopedSleeper&) = delete;
    ScopedSleeper& operator=(const ScopedSleeper&) = delete;

    int Sleep(useconds_t nMicroseconds) const { return m_Code(nMicroseconds); }

    static std::atomic<ScopedSleeper*>& Current() {
        static std::atomic<ScopedSleeper*> pCurrent{nullptr};
        return pCurrent;
    }

 private:
    std::function<int(useconds_t)> m_Code;
};

// The fields in order: status, speed, stack size and two reserved words behind the pointer to the virtual table, then the
// record.
struct Layout {
    void* pVirtualTable;
    int nStatus;
    int nSpeed;
    int nStackSize;
    int nReserved[2];
    void* pInfo;
};

Layout LayoutOf(const KThread& thread) {
    static_assert(sizeof(Layout) == sizeof(KThread), "the fields are known");
    Layout layout;
    std::memcpy(&layout, reinterpret_cast<const char*>(&thread), sizeof layout);
    return layout;
}

/// The record alone: the status next to it may be changing at this moment.
void* InfoOf(const KThread& thread) {
    void* pInfo = nullptr;
    std::memcpy(&pInfo, reinterpret_cast<const char*>(&thread) + offsetof(Layout, pInfo), sizeof pInfo);
    return pInfo;
}

pthread_t HandleOf(const KThread& thread) {
    pthread_t handle;
    std::memcpy(&handle, InfoOf(thread), sizeof handle);
    return handle;
}

/// Takes a thread's record away for the length of a block.
class ScopedWithoutRecord {
 public:
    explicit ScopedWithoutRecord(KThread& thread)
        : m_pField(reinterpret_cast<char*>(&thread) + offsetof(Layout, pInfo)), m_pInfo(InfoOf(thread)) {
        Set(nullptr);
    }
    ~ScopedWithoutRecord() { Set(m_pInfo); }
    ScopedWithoutRecord(const ScopedWithoutRecord&) = delete;
    ScopedWithoutRecord& operator=(const ScopedWithoutRecord&) = delete;

 private:
    void Set(void* pInfo) { std::memcpy(m_pField, &pInfo, sizeof pInfo); }

    char* m_pField;
    void* m_pInfo;
};

// -------------------------------------------------------------------------------------------------------------- Threads

/// A thread whose body is given as a piece of code.
class Body : public KThread {
 public:
    explicit Body(std::function<int(Body&)> code = nullptr) : m_Code(std::move(code)) {}
    ~Body() override { Stop(); }

    int ThreadMainLoop() override {
        ++m_nRuns;
        return m_Code ? m_Code(*this) : Poll();
    }

    int Runs() const { return m_nRuns; }

 private:
    int Poll() {
        while (IsRunning()) {
            std::this_thread::yield();
        }
        return 0;
    }

    std::function<int(Body&)> m_Code;
    std::atomic<int> m_nRuns{0};
};

bool Start(KThread& thread, int nSpeed = 1, int nStackSize = -1) {
    return thread.Start(nSpeed, KThread::NORMAL, nStackSize, nullptr);
}

/// Starts a thread and waits until its body runs.
void StartAndWait(KThread& thread) {
    ASSERT_TRUE(Start(thread));
    while (!thread.IsRunning()) {
        std::this_thread::yield();
    }
}

/// Starts a thread without a system thread behind it and returns what the system thread would have called.
void* (*EntryOf(KThread& thread))(void*) {
    const ScopedCalls calls({{"pthread_create", 0}});
    Start(thread);
    EXPECT_EQ(t_Given.pArgument, &thread);
    return t_Given.pEntry;
}

KThread::Status StatusOf(int nValue) {
    return static_cast<KThread::Status>(nValue);
}

constexpr KThread::Status kStatuses[] = {KThread::RUNNING, KThread::PAUSED, KThread::STOPPING, KThread::STOPPED};

}  // namespace

// ------------------------------------------------------------------------------------- The functions in front of libc's

extern "C" __attribute__((no_sanitize("thread"))) int pthread_attr_init(pthread_attr_t* pAttribute) noexcept {
    return support::NoteAndPassOn<&pthread_attr_init>("pthread_attr_init", pAttribute);
}

extern "C" int pthread_attr_setdetachstate(pthread_attr_t* pAttribute, int nState) noexcept {
    return support::NoteAndPassOn<&pthread_attr_setdetachstate>("pthread_attr_setdetachstate", pAttribute, nState);
}

extern "C" int pthread_attr_setstacksize(pthread_attr_t* pAttribute, std::size_t nSize) noexcept {
    if (ScopedCalls::Current() != nullptr) {
        t_Given.nStackSize = nSize;
    }
    return support::NoteAndPassOn<&pthread_attr_setstacksize>("pthread_attr_setstacksize", pAttribute, nSize);
}

extern "C" int pthread_attr_getschedparam(const pthread_attr_t* __restrict pAttribute,
                                          sched_param* __restrict pParameter) noexcept {
    const int nResult =
        support::NoteAndPassOn<&pthread_attr_getschedparam>("pthread_attr_getschedparam", pAttribute, pParameter);
    pParameter->sched_priority += t_nBasePriority;
    return nResult;
}

extern "C" int pthread_attr_setschedparam(pthread_attr_t* __restrict pAttribute,
                                          const sched_param* __restrict pParameter) noexcept {
    t_Given.nPriority = pParameter->sched_priority;
    return support::NoteAndPassOn<&pthread_attr_setschedparam>("pthread_attr_setschedparam", pAttribute, pParameter);
}

extern "C" __attribute__((no_sanitize("thread"))) int pthread_attr_destroy(pthread_attr_t* pAttribute) noexcept {
    return support::NoteAndPassOn<&pthread_attr_destroy>("pthread_attr_destroy", pAttribute);
}

extern "C" int pthread_create(pthread_t* __restrict pHandle, const pthread_attr_t* __restrict pAttribute,
                              void* (*pEntry)(void*), void* __restrict pArgument) noexcept {
    if (ScopedCalls::Current() != nullptr) {
        t_Given.pHandle = pHandle;
        t_Given.pEntry = pEntry;
        t_Given.pArgument = pArgument;
        pthread_attr_getdetachstate(pAttribute, &t_Given.nDetachState);
    }
    return support::NoteAndPassOn<&pthread_create>("pthread_create", pHandle, pAttribute, pEntry, pArgument);
}

extern "C" int pthread_cancel(pthread_t handle) {
    if (t_pWatched != nullptr) {
        t_Given.statuses.push_back(t_pWatched->GetStatus());
    }
    return support::NoteAndPassOn<&pthread_cancel>("pthread_cancel", handle);
}

extern "C" int pthread_join(pthread_t handle, void** ppExitValue) {
    if (t_pWatched != nullptr) {
        t_Given.statuses.push_back(t_pWatched->GetStatus());
    }
    return support::NoteAndPassOn<&pthread_join>("pthread_join", handle,
                                                 ppExitValue != nullptr ? ppExitValue : &t_Given.pExitValue);
}

extern "C" int usleep(useconds_t nMicroseconds) {
    if (const ScopedSleeper* const pSleeper = ScopedSleeper::Current()) {
        return pSleeper->Sleep(nMicroseconds);
    }
    return support::NoteAndPassOn<&usleep>("usleep", nMicroseconds);
}

namespace {

// --------------------------------------------------------------------------------------------------------------- Values

TEST(KThreadTest, TheStatusesAndPrioritiesHaveTheirValues) {
    EXPECT_EQ(KThread::RUNNING, 0);
    EXPECT_EQ(KThread::PAUSED, 1);
    EXPECT_EQ(KThread::STOPPING, 2);
    EXPECT_EQ(KThread::STOPPED, 3);
    EXPECT_EQ(KThread::HIGH, 0);
    EXPECT_EQ(KThread::NORMAL, 1);
    EXPECT_EQ(KThread::LOW, 2);
    EXPECT_EQ(sizeof(KThread::Status), 4u);
    EXPECT_TRUE((std::is_same<std::underlying_type<KThread::Status>::type, int>::value));
    EXPECT_TRUE((std::is_same<std::underlying_type<KThread::Priority>::type, int>::value));
    EXPECT_TRUE((std::is_same<KThread::Callback, int (*)(void*, void*, int, void*, int)>::value));
}

TEST(KThreadTest, AFreshThreadIsStoppedWithASpeedOf10AndTheDefaultStack) {
    KThread thread;
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_FALSE(thread.IsPaused());
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_EQ(thread.GetSpeed(), 10);
    EXPECT_EQ(thread.GetStackSize(), -1);
}

TEST(KThreadTest, TheFieldsLieInTheirOrder) {
    KThread thread;
    thread.SetStatus(KThread::PAUSED);
    thread.SetSpeed(77);
    thread.SetStackSize(88);
    const Layout layout = LayoutOf(thread);
    EXPECT_EQ(layout.nStatus, 1);
    EXPECT_EQ(layout.nSpeed, 77);
    EXPECT_EQ(layout.nStackSize, 88);
    EXPECT_THAT(layout.nReserved, ElementsAre(0, 0));
    EXPECT_NE(layout.pInfo, nullptr);
}

TEST(KThreadTest, TheRecordIsTheHandleThenTheAttributeAndZeroFilledWhenMade) {
    const KThread thread;
    const auto* const pRecord = static_cast<const unsigned char*>(LayoutOf(thread).pInfo);
    constexpr std::size_t kSize = sizeof(pthread_t) + sizeof(pthread_attr_t);
    EXPECT_TRUE(std::all_of(pRecord, pRecord + kSize, [](unsigned char byte) { return byte == 0; }));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(kSize, 40u);
    }
}

TEST(KThreadTest, TheVirtualOperationsAreTheDestructorForceStopAndTheLoopInThisOrder) {
    EXPECT_TRUE(std::has_virtual_destructor<KThread>::value);
    // A pointer to a virtual member holds the place in the virtual table, counted in pointers behind the two destructors.
    const auto slotOf = [](auto pMember) {
        std::ptrdiff_t nPlace = 0;
        std::memcpy(&nPlace, &pMember, sizeof nPlace);
        return nPlace / static_cast<std::ptrdiff_t>(sizeof(void*));
    };
    EXPECT_EQ(slotOf(&KThread::ForceStop), 2);
    EXPECT_EQ(slotOf(&KThread::ThreadMainLoop), 3);
}

TEST(KThreadTest, ACopyFailsACheckAndIsAFreshThreadWithTheChecksOff) {
    KThread thread;
    thread.SetSpeed(5);
    thread.SetStackSize(6);
    thread.SetStatus(KThread::PAUSED);
    EXPECT_CHECK_FAILS(const KThread copy(thread), "0", kSource, "KThread::KThread(const KThread&)");
    const ScopedChecks checks(false);
    const KThread copy(thread);
    EXPECT_EQ(copy.GetSpeed(), 10);
    EXPECT_EQ(copy.GetStackSize(), -1);
    EXPECT_EQ(copy.GetStatus(), KThread::STOPPED);
    EXPECT_NE(LayoutOf(copy).pInfo, LayoutOf(thread).pInfo);
}

TEST(KThreadTest, AnAssignmentFailsACheckAndDoesNothingWithTheChecksOff) {
    KThread source;
    source.SetSpeed(5);
    KThread target;
    EXPECT_CHECK_FAILS(target = source, "0", kSource, "KThread& KThread::operator=(const KThread&)");
    const ScopedChecks checks(false);
    EXPECT_EQ(&(target = source), &target);
    EXPECT_EQ(target.GetSpeed(), 10);
    EXPECT_NE(LayoutOf(target).pInfo, LayoutOf(source).pInfo);
}

// ------------------------------------------------------------------------------------------------- Status, speed, stack

TEST(KThreadTest, SetStatusStoresAnyValue) {
    KThread thread;
    for (const int nValue : {0, 1, 2, 3, 4, -1, INT_MAX, INT_MIN}) {
        thread.SetStatus(StatusOf(nValue));
        EXPECT_EQ(thread.GetStatus(), nValue);
        EXPECT_EQ(thread.IsPaused(), nValue == 1);
        EXPECT_EQ(thread.IsRunning(), nValue < 2);
    }
}

TEST(KThreadTest, PauseIsFalseOnAStoppingOrStoppedThreadAndElsePauses) {
    KThread thread;
    for (const KThread::Status eStatus : kStatuses) {
        thread.SetStatus(eStatus);
        const bool fgPauses = eStatus <= KThread::PAUSED;
        EXPECT_EQ(thread.Pause(), fgPauses) << eStatus;
        EXPECT_EQ(thread.GetStatus(), fgPauses ? KThread::PAUSED : eStatus);
    }
}

TEST(KThreadTest, ResumeIsTrueOnAPausedThreadAloneWhichStaysPaused) {
    KThread thread;
    for (const KThread::Status eStatus : kStatuses) {
        thread.SetStatus(eStatus);
        EXPECT_EQ(thread.Resume(), eStatus == KThread::PAUSED) << eStatus;
        EXPECT_EQ(thread.GetStatus(), eStatus);
    }
}

TEST(KThreadTest, PauseThenResumeTwiceAreAllTrueAndARunningThreadStaysPaused) {
    Body thread;
    StartAndWait(thread);
    EXPECT_TRUE(thread.Pause());
    EXPECT_TRUE(thread.Pause());
    EXPECT_TRUE(thread.Resume());
    EXPECT_TRUE(thread.Resume());
    EXPECT_TRUE(thread.IsPaused());
    EXPECT_TRUE(thread.IsRunning());
}

TEST(KThreadTest, PauseOnAFreshThreadIsFalse) {
    KThread thread;
    EXPECT_FALSE(thread.Pause());
    EXPECT_FALSE(thread.Resume());
}

TEST(KThreadTest, SetSpeedStoresAndAcceptsZero) {
    const ScopedChecks checks(true);
    KThread thread;
    for (const int nSpeed : {0, 1, 1000, INT_MAX}) {
        thread.SetSpeed(nSpeed);
        EXPECT_EQ(thread.GetSpeed(), nSpeed);
    }
}

TEST(KThreadTest, ANegativeSpeedFailsACheckAndIsStoredWithTheChecksOff) {
    KThread thread;
    EXPECT_CHECK_FAILS(thread.SetSpeed(-1), "milSec >= 0", kSource, "void KThread::SetSpeed(int)");
    const ScopedChecks checks(false);
    for (const int nSpeed : {-1, INT_MIN}) {
        thread.SetSpeed(nSpeed);
        EXPECT_EQ(thread.GetSpeed(), nSpeed);
    }
}

TEST(KThreadTest, SetStackSizeStoresAnyValueUnchecked) {
    const ScopedChecks checks(true);
    KThread thread;
    for (const int nSize : {0, -2, 1, kEnoughStack, INT_MAX, INT_MIN, -1}) {
        thread.SetStackSize(nSize);
        EXPECT_EQ(thread.GetStackSize(), nSize);
    }
}

// ---------------------------------------------------------------------------------------------------------------- Sleep

TEST(KThreadTest, SleepHandsUsleepAThousandfoldIn32BitsAndReturnsItsResult) {
    for (const int nMilliseconds : {0, 1, 10, 4294967, 4294968, 5000000, -1, INT_MAX, INT_MIN}) {
        for (const int nResult : {0, -1, 5}) {
            std::vector<useconds_t> sleeps;
            const ScopedSleeper sleeper([&sleeps, nResult](useconds_t nMicroseconds) {
                sleeps.push_back(nMicroseconds);
                return nResult;
            });
            EXPECT_EQ(KThread::Sleep(nMilliseconds), nResult);
            EXPECT_THAT(sleeps, ElementsAre(static_cast<std::uint32_t>(1000LL * nMilliseconds)));
        }
    }
}

TEST(KThreadTest, SleepReturnsZeroAfterARealSleep) {
    EXPECT_EQ(KThread::Sleep(0), 0);
    EXPECT_EQ(KThread::Sleep(1), 0);
}

// ---------------------------------------------------------------------------------------------------------------- Start

TEST(KThreadTest, StartRunsTheBodyOnceOnAThreadOfItsOwn) {
    std::thread::id id;
    Body thread([&id](Body&) {
        id = std::this_thread::get_id();
        return 0;
    });
    EXPECT_TRUE(Start(thread));
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(thread.Runs(), 1);
    EXPECT_NE(id, std::this_thread::get_id());
}

TEST(KThreadTest, StartMakesAJoinableThreadWithTheObjectAsArgument) {
    Body thread;
    const ScopedCalls calls;
    EXPECT_TRUE(Start(thread));
    EXPECT_THAT(calls.Names(),
                ElementsAre("pthread_attr_init", "pthread_attr_setdetachstate", "pthread_attr_getschedparam",
                            "pthread_attr_setschedparam", "pthread_create"));
    EXPECT_EQ(t_Given.nDetachState, PTHREAD_CREATE_JOINABLE);
    EXPECT_EQ(t_Given.pArgument, static_cast<KThread*>(&thread));
    EXPECT_EQ(t_Given.pHandle, InfoOf(thread));
}

TEST(KThreadTest, AStackSizeOtherThanMinusOneIsSetBeforeTheThreadIsMade) {
    std::size_t nActual = 0;
    Body thread([&nActual](Body&) {
        pthread_attr_t attribute;
        pthread_getattr_np(pthread_self(), &attribute);
        pthread_attr_getstacksize(&attribute, &nActual);
        pthread_attr_destroy(&attribute);
        return 0;
    });
    {
        const ScopedCalls calls;
        EXPECT_TRUE(Start(thread, 1, kEnoughStack));
        EXPECT_THAT(calls.Names(),
                    ElementsAre("pthread_attr_init", "pthread_attr_setdetachstate", "pthread_attr_setstacksize",
                                "pthread_attr_getschedparam", "pthread_attr_setschedparam", "pthread_create"));
        EXPECT_EQ(t_Given.nStackSize, static_cast<std::size_t>(kEnoughStack));
    }
    thread.Stop();
    EXPECT_GE(nActual, static_cast<std::size_t>(kEnoughStack));
    EXPECT_EQ(thread.GetStackSize(), kEnoughStack);
}

TEST(KThreadTest, StartStoresTheSpeedAndTheStackSize) {
    Body thread;
    EXPECT_TRUE(Start(thread, 25, kEnoughStack));
    EXPECT_EQ(thread.GetSpeed(), 25);
    EXPECT_EQ(thread.GetStackSize(), kEnoughStack);
}

TEST(KThreadTest, StartDoesNotChangeTheStatusAndIsAcceptedAgainUntilTheThreadTakesItsFirstStep) {
    Body thread;
    const ScopedCalls calls({{"pthread_create", 0}});
    EXPECT_TRUE(Start(thread));
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(Start(thread));
    EXPECT_EQ(std::count(calls.Names().begin(), calls.Names().end(), "pthread_create"), 2);
}

TEST(KThreadTest, StartOnAThreadThatIsNotStoppedIsFalseButStoresSpeedAndStackSize) {
    for (const int nStatus : {0, 1, 2, 4, -1}) {
        KThread thread;
        thread.SetStatus(StatusOf(nStatus));
        const ScopedCalls calls;
        EXPECT_FALSE(thread.Start(33, KThread::HIGH, 44, nullptr)) << nStatus;
        EXPECT_THAT(calls.Names(), IsEmpty());
        EXPECT_EQ(thread.GetSpeed(), 33);
        EXPECT_EQ(thread.GetStackSize(), 44);
        EXPECT_EQ(thread.GetStatus(), nStatus);
    }
}

TEST(KThreadTest, StartOnARunningThreadIsFalseAndLeavesTheBodyRunning) {
    Body thread;
    StartAndWait(thread);
    EXPECT_FALSE(Start(thread, 33));
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_EQ(thread.GetSpeed(), 33);
    thread.Stop();
    EXPECT_EQ(thread.Runs(), 1);
}

TEST(KThreadTest, ARefusedStartStillFailsTheCheckOfTheSpeed) {
    KThread thread;
    thread.SetStatus(KThread::RUNNING);
    EXPECT_CHECK_FAILS(Start(thread, -1), "milSec >= 0", kSource, "void KThread::SetSpeed(int)");
}

TEST(KThreadTest, ThePriorityIsRaisedOrLoweredByFive) {
    struct Row {
        int nPriority;
        int nExpected;
    };
    t_nBasePriority = 20;
    for (const Row& row : {Row{0, 25}, Row{1, 20}, Row{2, 15}, Row{3, 20}, Row{-1, 20}, Row{INT_MAX, 20}}) {
        KThread thread;
        const ScopedCalls calls({{"pthread_create", 0}, {"pthread_attr_setschedparam", 0}});
        EXPECT_TRUE(thread.Start(1, static_cast<KThread::Priority>(row.nPriority), -1, nullptr));
        EXPECT_EQ(t_Given.nPriority, row.nExpected) << row.nPriority;
    }
    t_nBasePriority = 0;
}

TEST(KThreadTest, APriorityThatTheSystemRefusesFailsNoCheckAndTheThreadRuns) {
    const ScopedChecks checks(true);
    for (const KThread::Priority ePriority : {KThread::HIGH, KThread::NORMAL, KThread::LOW}) {
        Body thread;
        {
            const ScopedCalls calls({{"pthread_attr_setschedparam", EINVAL}});
            EXPECT_TRUE(thread.Start(1, ePriority, -1, nullptr));
        }
        thread.Stop();
        EXPECT_EQ(thread.Runs(), 1);
    }
}

TEST(KThreadTest, EveryPriorityRunsUnderTheDefaultPolicy) {
    const ScopedChecks checks(true);
    for (const KThread::Priority ePriority : {KThread::HIGH, KThread::NORMAL, KThread::LOW}) {
        Body thread;
        EXPECT_TRUE(thread.Start(1, ePriority, -1, nullptr));
        thread.Stop();
        EXPECT_EQ(thread.Runs(), 1);
    }
}

std::atomic<int> g_nCallbacks{0};
int CountCallback(void*, void*, int, void*, int) {
    return ++g_nCallbacks;
}

TEST(KThreadTest, TheCallbackIsNeverCalled) {
    Body thread;
    EXPECT_TRUE(thread.Start(1, KThread::NORMAL, -1, CountCallback));
    EXPECT_TRUE(thread.ReStart(1, KThread::NORMAL, -1, CountCallback));
    thread.Stop();
    EXPECT_EQ(g_nCallbacks, 0);
}

TEST(KThreadTest, AThreadThatIsGoneHasNoRecord) {
    EXPECT_EQ(support::PointerLeftBy<KThread>(offsetof(Layout, pInfo)), nullptr);
}

TEST(KThreadTest, AStackSizeThatTheSystemTakesFailsNoCheck) {
    const ScopedChecks checks(true);
    Body thread;
    EXPECT_TRUE(Start(thread, 1, 1 << 20));
    thread.Stop();
    EXPECT_EQ(thread.Runs(), 1);
}

TEST(KThreadTest, AStackSizeThatTheSystemRefusesFailsACheck) {
    KThread thread;
    EXPECT_CHECK_FAILS(Start(thread, 1, 1), "nRet == 0", kSource, kStartSignature);
    EXPECT_CHECK_FAILS(Start(thread, 1, 0), "nRet == 0", kSource, kStartSignature);
}

TEST(KThreadTest, WithTheChecksOffAStackSizeThatTheSystemRefusesIsIgnored) {
    const ScopedChecks checks(false);
    for (const int nSize : {0, 1}) {
        Body thread;
        EXPECT_TRUE(Start(thread, 1, nSize));
        thread.Stop();
        EXPECT_EQ(thread.Runs(), 1) << nSize;
    }
}

TEST(KThreadTest, AFailureToReadTheSchedulingParameterFailsACheckAndIsIgnoredWithTheChecksOff) {
    const auto start = [](Body& thread) {
        const ScopedCalls calls({{"pthread_attr_getschedparam", EINVAL}});
        return Start(thread);
    };
    Body thread;
    EXPECT_CHECK_FAILS(start(thread), "nRet == 0", kSource, kStartSignature);
    const ScopedChecks checks(false);
    EXPECT_TRUE(start(thread));
    thread.Stop();
    EXPECT_EQ(thread.Runs(), 1);
}

bool StartWithoutCreating(KThread& thread) {
    const ScopedCalls calls({{"pthread_create", EAGAIN}});
    return Start(thread);
}

TEST(KThreadTest, AThreadThatCannotBeMadeFailsACheck) {
    KThread thread;
    EXPECT_CHECK_FAILS(StartWithoutCreating(thread), "nRet == 0", kSource, kStartSignature);
}

TEST(KThreadTest, WithTheChecksOffStartIsTrueThoughTheThreadCouldNotBeMade) {
    const ScopedChecks checks(false);
    Body thread;
    EXPECT_TRUE(StartWithoutCreating(thread));
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_EQ(HandleOf(thread), pthread_t{0});
    const ScopedCalls calls;
    EXPECT_TRUE(thread.Stop());
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy")) << "there is nothing to join";
    EXPECT_EQ(thread.Runs(), 0);
}

TEST(KThreadTest, AfterAFailedCreateTheHandleOfTheThreadBeforeIsForgotten) {
    const ScopedChecks checks(false);
    Body thread;
    Start(thread);
    thread.Stop();
    StartWithoutCreating(thread);
    EXPECT_EQ(HandleOf(thread), pthread_t{0});
    const ScopedCalls calls;
    EXPECT_TRUE(thread.Stop());
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy"));
}

// ---------------------------------------------------------------------------------------------------------------- Entry

TEST(KThreadTest, TheEntryRunsTheBodyBetweenRunningAndStopped) {
    KThread::Status eInBody = KThread::STOPPED;
    Body thread([&eInBody](Body& body) {
        eInBody = body.GetStatus();
        return 17;
    });
    void* (*const pEntry)(void*) = EntryOf(thread);
    EXPECT_STREQ(static_cast<const char*>(pEntry(static_cast<KThread*>(&thread))), "Thread END");
    EXPECT_EQ(eInBody, KThread::RUNNING);
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_EQ(thread.Runs(), 1);
}

TEST(KThreadTest, TheEntryOverwritesWhatTheBodyLeavesAsItsStatus) {
    Body thread([](Body& body) {
        body.SetStatus(KThread::PAUSED);
        return 0;
    });
    EntryOf(thread)(static_cast<KThread*>(&thread));
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
}

TEST(KThreadTest, TheEntryWithoutAnObjectReturnsTheSameTextAtOnce) {
    Body thread([](Body&) { return 0; });
    void* (*const pEntry)(void*) = EntryOf(thread);
    EXPECT_EQ(pEntry(nullptr), pEntry(static_cast<KThread*>(&thread)));
    EXPECT_STREQ(static_cast<const char*>(pEntry(nullptr)), "Thread END");
}

TEST(KThreadTest, AStopBeforeTheFirstStepIsNotLost) {
    KThread::Status eInBody = KThread::STOPPED;
    Body thread([&eInBody](Body& body) {
        eInBody = body.GetStatus();
        return 0;
    });
    void* (*const pEntry)(void*) = EntryOf(thread);
    thread.SetStatus(KThread::STOPPING);  // as Stop() does before it joins
    pEntry(static_cast<KThread*>(&thread));
    EXPECT_EQ(eInBody, KThread::STOPPING);
    EXPECT_EQ(thread.Runs(), 1) << "the body is called all the same";
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
}

TEST(KThreadTest, AnyOtherStatusBeforeTheFirstStepBecomesRunning) {
    for (const int nStatus : {0, 1, 3, 4, -1}) {
        KThread::Status eInBody = KThread::STOPPED;
        Body thread([&eInBody](Body& body) {
            eInBody = body.GetStatus();
            return 0;
        });
        void* (*const pEntry)(void*) = EntryOf(thread);
        thread.SetStatus(StatusOf(nStatus));
        pEntry(static_cast<KThread*>(&thread));
        EXPECT_EQ(eInBody, KThread::RUNNING) << nStatus;
    }
}

TEST(KThreadTest, AJoinSeesTheTextAsExitValue) {
    Body thread;
    Start(thread);
    t_Given.pExitValue = nullptr;
    thread.Stop();
    EXPECT_STREQ(static_cast<const char*>(t_Given.pExitValue), "Thread END");
}

// --------------------------------------------------------------------------------------------------------- Default loop

TEST(KThreadTest, TheDefaultLoopSleepsByItsSpeedUntilItIsStoppedAndReturnsOne) {
    const ScopedChecks checks(false);
    for (const int nSpeed : {0, 1, 10, -1}) {
        KThread thread;
        thread.SetSpeed(nSpeed);
        thread.SetStatus(KThread::RUNNING);
        std::vector<useconds_t> sleeps;
        const ScopedSleeper sleeper([&](useconds_t nMicroseconds) {
            sleeps.push_back(nMicroseconds);
            if (sleeps.size() == 3) {
                thread.SetStatus(KThread::STOPPING);
            }
            return 0;
        });
        EXPECT_EQ(thread.ThreadMainLoop(), 1);
        const auto nEach = static_cast<std::uint32_t>(1000LL * nSpeed);
        EXPECT_THAT(sleeps, ElementsAre(nEach, nEach, nEach));
    }
}

TEST(KThreadTest, TheDefaultLoopFollowsAChangeOfTheSpeed) {
    KThread thread;
    thread.SetSpeed(1);
    thread.SetStatus(KThread::RUNNING);
    std::vector<useconds_t> sleeps;
    const ScopedSleeper sleeper([&](useconds_t nMicroseconds) {
        sleeps.push_back(nMicroseconds);
        thread.SetSpeed(7);
        if (sleeps.size() == 2) {
            thread.SetStatus(KThread::STOPPED);
        }
        return 0;
    });
    thread.ThreadMainLoop();
    EXPECT_THAT(sleeps, ElementsAre(1000u, 7000u));
}

TEST(KThreadTest, TheDefaultLoopReturnsAtOnceWhenItIsNotRunning) {
    KThread thread;
    const ScopedSleeper sleeper([](useconds_t) {
        ADD_FAILURE() << "slept";
        return 0;
    });
    for (const KThread::Status eStatus : {KThread::STOPPING, KThread::STOPPED}) {
        thread.SetStatus(eStatus);
        EXPECT_EQ(thread.ThreadMainLoop(), 1);
    }
}

TEST(KThreadTest, TheDefaultLoopPollsWithoutSleepWhileItIsPausedAndSeesTheEnd) {
    KThread thread;
    std::atomic<int> nSleeps{0};
    std::atomic<bool> fgPaused{false};
    const ScopedSleeper sleeper([&](useconds_t) {
        ++nSleeps;
        thread.Pause();
        fgPaused = true;
        return 0;
    });
    ASSERT_TRUE(Start(thread));
    while (!fgPaused) {
        std::this_thread::yield();
    }
    for (int nRound = 0; nRound < 10; ++nRound) {
        std::this_thread::yield();
    }
    EXPECT_EQ(nSleeps, 1);
    EXPECT_TRUE(thread.Stop());
}

TEST(KThreadTest, APausedLoopGoesOnAfterSetStatusRunning) {
    KThread thread;
    std::atomic<int> nSleeps{0};
    const ScopedSleeper sleeper([&](useconds_t) {
        ++nSleeps;
        thread.Pause();
        return 0;
    });
    ASSERT_TRUE(Start(thread));
    for (int nRound = 1;; ++nRound) {
        while (nSleeps < nRound || !thread.IsPaused()) {
            std::this_thread::yield();
        }
        ASSERT_EQ(nSleeps, nRound);
        if (nRound == 5) {
            break;
        }
        thread.SetStatus(KThread::RUNNING);
    }
    thread.Stop();
}

TEST(KThreadTest, ARunningDefaultLoopIsStopped) {
    KThread thread;
    StartAndWait(thread);
    EXPECT_TRUE(thread.Stop());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
}

// ----------------------------------------------------------------------------------------------------------------- Stop

TEST(KThreadTest, StopOnAFreshThreadIsTrueWithoutAJoin) {
    const ScopedChecks checks(true);
    KThread thread;
    for (int nRound = 0; nRound < 2; ++nRound) {
        const ScopedCalls calls;
        EXPECT_TRUE(thread.Stop());
        EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy"));
        EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    }
}

TEST(KThreadTest, StopOnAThreadThatWasNeverStartedSetsItStoppedWhateverItsStatus) {
    KThread thread;
    for (const KThread::Status eStatus : kStatuses) {
        thread.SetStatus(eStatus);
        EXPECT_TRUE(thread.Stop());
        EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    }
}

TEST(KThreadTest, StopAsksTheBodyToEndDestroysTheAttributeAndJoins) {
    Body thread;
    Start(thread);
    t_Given.statuses.clear();
    t_pWatched = &thread;
    const ScopedCalls calls;
    EXPECT_TRUE(thread.Stop());
    t_pWatched = nullptr;
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy", "pthread_join"));
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_EQ(thread.Runs(), 1);
}

TEST(KThreadTest, TheStatusIsStoppingWhileStopWaits) {
    std::atomic<int> nSeen{-1};
    Body thread([&nSeen](Body& body) {
        while (body.IsRunning()) {
            std::this_thread::yield();
        }
        nSeen = body.GetStatus();
        return 0;
    });
    StartAndWait(thread);
    thread.Stop();
    EXPECT_EQ(nSeen, KThread::STOPPING);
}

TEST(KThreadTest, StopEndsAPausedThread) {
    Body thread;
    StartAndWait(thread);
    thread.Pause();
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
}

TEST(KThreadTest, StopJoinsABodyThatHasEndedByItself) {
    Body thread([](Body&) { return 0; });
    Start(thread);
    while (thread.Runs() == 0 || thread.GetStatus() != KThread::STOPPED) {
        std::this_thread::yield();
    }
    const ScopedCalls calls;
    EXPECT_TRUE(thread.Stop());
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy", "pthread_join"));
}

TEST(KThreadTest, AFailedDestructionOfTheAttributeFailsACheckAndIsIgnoredWithTheChecksOff) {
    const auto stop = [](KThread& thread) {
        const ScopedCalls calls({{"pthread_attr_destroy", EINVAL}});
        return thread.Stop();
    };
    KThread thread;
    EXPECT_CHECK_FAILS(stop(thread), "nRet == 0", kSource, kStopSignature);
    const ScopedChecks checks(false);
    EXPECT_TRUE(stop(thread));
}

TEST(KThreadTest, AFailedJoinIsIgnoredByStop) {
    const ScopedChecks checks(true);
    Body thread;
    StartAndWait(thread);
    {
        const ScopedCalls calls({{"pthread_join", EINVAL}});
        EXPECT_TRUE(thread.Stop());
        EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    }
    const ScopedCalls calls;
    EXPECT_TRUE(thread.Stop());
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy", "pthread_join")) << "tried again";
}

TEST(KThreadTest, TheHandleIsKeptAfterAStopAndASecondStopIsTrueWithoutAJoin) {
    const ScopedChecks checks(true);
    Body thread;
    Start(thread);
    const pthread_t handle = HandleOf(thread);
    EXPECT_NE(handle, pthread_t{0});
    thread.Stop();
    EXPECT_EQ(HandleOf(thread), handle);
    const ScopedCalls calls;
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy"));
}

TEST(KThreadTest, AStoppedThreadDoesNotTouchAnotherThatLibcGaveItsHandleTo) {
    const ScopedChecks checks(false);
    Body first;
    Start(first);
    first.Stop();
    Body second;
    StartAndWait(second);  // libc usually reuses the handle
    EXPECT_TRUE(first.Stop());
    EXPECT_TRUE(first.ForceStop());
    EXPECT_TRUE(second.IsRunning());
    EXPECT_TRUE(second.Stop());
    EXPECT_EQ(second.Runs(), 1);
}

TEST(KThreadTest, StopCalledByTheBodyDoesNotWaitAndTheOwnerStillJoins) {
    if (KALVOREN_WITH_TSAN) {
        GTEST_SKIP() << "the thread sanitizer of GCC 12 ends a program in which a thread has tried to join itself";
    }
    const ScopedChecks checks(true);
    std::atomic<bool> fgResult{false};
    Body thread([&fgResult](Body& body) {
        fgResult = body.Stop();
        return 0;
    });
    Start(thread);
    while (!fgResult) {
        std::this_thread::yield();
    }
    const ScopedCalls calls;
    EXPECT_TRUE(thread.Stop());
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy", "pthread_join"));
}

TEST(KThreadTest, AThreadCanBeStartedAgainAfterAStop) {
    const ScopedChecks checks(true);
    Body thread;
    for (int nRound = 1; nRound <= 20; ++nRound) {
        ASSERT_TRUE(Start(thread));
        const ScopedCalls calls;
        ASSERT_TRUE(thread.Stop());
        ASSERT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy", "pthread_join"));
        ASSERT_EQ(thread.Runs(), nRound);
    }
}

TEST(KThreadTest, StartAndStopAtOnceNeverHangs) {
    for (int nRound = 0; nRound < 100; ++nRound) {
        Body thread;
        ASSERT_TRUE(Start(thread));
        ASSERT_TRUE(thread.Stop());
        ASSERT_EQ(thread.Runs(), 1);
    }
}

TEST(KThreadTest, APauseOrResumeOfAnotherThreadAtTheMomentOfAStopDoesNotUndoIt) {
    for (int nRound = 0; nRound < 200; ++nRound) {
        Body thread;
        StartAndWait(thread);
        std::thread pauser([&thread] {
            while (thread.Pause()) {
                thread.Resume();
            }
        });
        ASSERT_TRUE(thread.Stop());
        pauser.join();
    }
}

TEST(KThreadTest, APauseIsTrueWhileAnotherThreadLetsTheBodyGoOnAgainAndAgain) {
    Body thread;
    StartAndWait(thread);
    std::atomic<bool> fgEnd{false};
    std::thread resumer([&] {
        for (int i = 0; i < 20000; ++i) {
            thread.SetStatus(KThread::RUNNING);
            thread.SetStatus(KThread::PAUSED);
        }
        fgEnd = true;
    });
    bool fgPaused = true;
    while (fgPaused && !fgEnd) {
        fgPaused = thread.Pause();
    }
    resumer.join();
    EXPECT_TRUE(fgPaused);
    EXPECT_TRUE(thread.IsPaused());
    EXPECT_TRUE(thread.Stop());
}

TEST(KThreadTest, TheDestructorStopsARunningBodyAndWaitsForIt) {
    std::atomic<bool> fgEnded{false};
    {
        KThread* const pThread = new Body([&fgEnded](Body& body) {
            while (body.IsRunning()) {
                std::this_thread::yield();
            }
            fgEnded = true;
            return 0;
        });
        StartAndWait(*pThread);
        delete pThread;
    }
    EXPECT_TRUE(fgEnded);
}

TEST(KThreadTest, TheDestructorGivesTheRecordBack) {
    EXPECT_EQ(support::BytesLeftBy([] { const KThread thread; }), 0u);
}

TEST(KThreadTest, TheBasesDestructorStopsADefaultLoop) {
    const ScopedChecks checks(true);
    KThread thread;
    StartAndWait(thread);
}

// ------------------------------------------------------------------------------------------------------------ ForceStop

TEST(KThreadTest, ForceStopCancelsAndJoinsABodyThatNeverLooksAtItsStatus) {
    const ScopedChecks checks(true);
    Body thread([](Body&) {
        while (true) {
            pause();
        }
        return 0;
    });
    Start(thread);
    t_Given.statuses.clear();
    t_pWatched = &thread;
    const ScopedCalls calls;
    EXPECT_TRUE(thread.ForceStop());
    t_pWatched = nullptr;
    EXPECT_THAT(calls.Names(), ElementsAre("pthread_cancel", "pthread_join")) << "the attribute is not destroyed";
    EXPECT_EQ(t_Given.statuses[0], KThread::STOPPING);
    EXPECT_EQ(t_Given.pExitValue, PTHREAD_CANCELED);
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
}

TEST(KThreadTest, ForceStopEndsTheDefaultLoop) {
    const ScopedChecks checks(true);
    KThread thread;
    StartAndWait(thread);
    EXPECT_TRUE(thread.ForceStop());
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
}

TEST(KThreadTest, ACancelledBodyIsUnwound) {
    struct Guard {
        explicit Guard(std::atomic<bool>& fgFlag) : m_fgFlag(fgFlag) {}
        ~Guard() { m_fgFlag = true; }
        std::atomic<bool>& m_fgFlag;
    };
    std::atomic<bool> fgStarted{false};
    std::atomic<bool> fgUnwound{false};
    Body thread([&](Body&) {
        const Guard guard(fgUnwound);
        fgStarted = true;
        while (true) {
            pause();
        }
        return 0;
    });
    Start(thread);
    while (!fgStarted) {
        std::this_thread::yield();
    }
    thread.ForceStop();
    EXPECT_TRUE(fgUnwound);
}

TEST(KThreadTest, AfterAForceStopAStopDoesNotJoinAndTheThreadCanBeStartedAgain) {
    const ScopedChecks checks(true);
    Body thread;
    Start(thread);
    thread.ForceStop();
    {
        const ScopedCalls calls;
        EXPECT_TRUE(thread.Stop());
        EXPECT_THAT(calls.Names(), ElementsAre("pthread_attr_destroy"));
    }
    const int nRuns = thread.Runs();
    EXPECT_TRUE(Start(thread));
    EXPECT_TRUE(thread.Stop());
    EXPECT_EQ(thread.Runs(), nRuns + 1);
}

TEST(KThreadTest, ForceStopOfAThreadThatWasNeverStartedIsAFailedCancel) {
    KThread thread;
    EXPECT_CHECK_FAILS(thread.ForceStop(), "nRet == 0", kSource, kForceStopSignature);
    const ScopedChecks checks(false);
    thread.SetStatus(KThread::RUNNING);
    const ScopedCalls calls;
    EXPECT_TRUE(thread.ForceStop());
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KThreadTest, ForceStopOfAThreadThatWasStoppedIsAFailedCancel) {
    const ScopedChecks checks(false);
    Body thread;
    Start(thread);
    thread.Stop();
    EXPECT_TRUE(thread.ForceStop());
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    const auto stopTwice = [] {
        Body stopped;
        Start(stopped);
        stopped.Stop();
        stopped.ForceStop();
    };
    EXPECT_CHECK_FAILS(stopTwice(), "nRet == 0", kSource, kForceStopSignature);
}

/// Stops a running thread by force while a function fails; then in good order.
bool ForceStopWith(const char* pszFunction, int nResult) {
    Body thread;
    StartAndWait(thread);
    const ScopedCalls calls({{pszFunction, nResult}});
    return thread.ForceStop();
}

TEST(KThreadTest, AFailedCancelFailsACheckAndIsIgnoredWithTheChecksOff) {
    EXPECT_CHECK_FAILS(ForceStopWith("pthread_cancel", ESRCH), "nRet == 0", kSource, kForceStopSignature);
    const ScopedChecks checks(false);
    EXPECT_TRUE(ForceStopWith("pthread_cancel", ESRCH));
}

TEST(KThreadTest, AFailedJoinFailsTheCheckOfForceStopUnlessTheThreadIsGone) {
    EXPECT_CHECK_FAILS(ForceStopWith("pthread_join", EINVAL), "nRet == 0 || nRet == 3", kSource, kForceStopSignature);
    EXPECT_CHECK_FAILS(ForceStopWith("pthread_join", EDEADLK), "nRet == 0 || nRet == 3", kSource, kForceStopSignature);
    EXPECT_EQ(ESRCH, 3);
    {
        const ScopedChecks checks(true);
        EXPECT_TRUE(ForceStopWith("pthread_join", ESRCH));
    }
    const ScopedChecks checks(false);
    EXPECT_TRUE(ForceStopWith("pthread_join", EINVAL));
}

TEST(KThreadTest, ADerivedForceStopIsCalledThroughTheBase) {
    class Derived : public KThread {
     public:
        bool ForceStop() override { return false; }
    };
    Derived derived;
    KThread& base = derived;
    const ScopedCalls calls;
    EXPECT_FALSE(base.ForceStop());
    EXPECT_THAT(calls.Names(), IsEmpty());
}

// -------------------------------------------------------------------------------------------------------------- ReStart

TEST(KThreadTest, ReStartStopsThenStartsWithTheSameArguments) {
    Body thread;
    StartAndWait(thread);
    const ScopedCalls calls;
    EXPECT_TRUE(thread.ReStart(44, KThread::HIGH, kEnoughStack, nullptr));
    EXPECT_THAT(calls.Names(),
                ElementsAre("pthread_attr_destroy", "pthread_join", "pthread_attr_init", "pthread_attr_setdetachstate",
                            "pthread_attr_setstacksize", "pthread_attr_getschedparam", "pthread_attr_setschedparam",
                            "pthread_create"));
    EXPECT_EQ(t_Given.nPriority, 5);
    EXPECT_EQ(thread.GetSpeed(), 44);
    EXPECT_EQ(thread.GetStackSize(), kEnoughStack);
    thread.Stop();
    EXPECT_EQ(thread.Runs(), 2);
}

TEST(KThreadTest, ReStartStartsAFreshThread) {
    Body thread;
    EXPECT_TRUE(thread.ReStart(1, KThread::NORMAL, -1, nullptr));
    thread.Stop();
    EXPECT_EQ(thread.Runs(), 1);
}

// ------------------------------------------------------------------------------------------------------- Missing record

TEST(KThreadTest, WithoutARecordStopAndForceStopAreFalseStartIsTrueAndNothingIsDone) {
    const ScopedChecks checks(false);
    KThread thread;
    const ScopedWithoutRecord without(thread);
    const ScopedCalls calls;
    EXPECT_FALSE(thread.Stop());
    EXPECT_FALSE(thread.ForceStop());
    EXPECT_TRUE(Start(thread, 5, 6));
    EXPECT_EQ(thread.GetSpeed(), 5);
    EXPECT_EQ(thread.GetStackSize(), 6);
    EXPECT_EQ(thread.GetStatus(), KThread::STOPPED);
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KThreadTest, WithoutARecordReStartIsFalseAndStoresNothing) {
    const ScopedChecks checks(false);
    KThread thread;
    const ScopedWithoutRecord without(thread);
    EXPECT_FALSE(thread.ReStart(5, KThread::NORMAL, 6, nullptr));
    EXPECT_EQ(thread.GetSpeed(), 10);
    EXPECT_EQ(thread.GetStackSize(), -1);
}

TEST(KThreadTest, WithoutARecordStopAndForceStopLeaveTheStatusAsItIs) {
    const ScopedChecks checks(false);
    KThread thread;
    const ScopedWithoutRecord without(thread);
    for (const KThread::Status eStatus : kStatuses) {
        thread.SetStatus(eStatus);
        thread.Stop();
        thread.ForceStop();
        EXPECT_EQ(thread.GetStatus(), eStatus);
    }
}

TEST(KThreadTest, WithoutARecordEveryOperationFailsTheCheckOfTheRecord) {
    KThread thread;
    const ScopedWithoutRecord without(thread);
    EXPECT_CHECK_FAILS(Start(thread), "pInfo", kSource, kStartSignature);
    EXPECT_CHECK_FAILS(thread.Stop(), "pInfo", kSource, kStopSignature);
    EXPECT_CHECK_FAILS(thread.ForceStop(), "pInfo", kSource, kForceStopSignature);
    EXPECT_CHECK_FAILS(thread.ReStart(1, KThread::NORMAL, -1, nullptr), "pInfo", kSource, kStopSignature);
    EXPECT_CHECK_FAILS(thread.~KThread(), "pInfo", kSource, kStopSignature);
}

TEST(KThreadTest, WithoutARecordAStartThatTheStatusRefusesIsFalseWithoutACheck) {
    const ScopedChecks checks(true);
    KThread thread;
    const ScopedWithoutRecord without(thread);
    thread.SetStatus(KThread::RUNNING);
    EXPECT_FALSE(Start(thread));
}

}  // namespace
