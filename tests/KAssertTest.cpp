#include "KAssert.h"

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <type_traits>

#include "KMem.h"
#include "KThread.h"
#include "KTime.h"
#include "support/Interpose.h"
#include "support/LeaveProcess.h"
#include "support/Support.h"

namespace {

using support::ScopedChecks;

// Taken before main, when the library is loaded and nothing of it has been called.
const bool g_fgActiveAtLoad = KAssert::GetActive();

constexpr int kReportedStatus = 9;
std::atomic<bool> g_fgShowReport{false};

constexpr int kTypeValues[] = {0, 1, 2, -1, INT_MAX, INT_MIN};

KAssert::KAssertType TypeOf(int nValue) {
    return static_cast<KAssert::KAssertType>(nValue);
}

void FailACheck() {
    KThread thread;
    thread.SetSpeed(-1);
}

void CopyALog() {
    const KDebug log;
    const KDebug copy(log);
}

}  // namespace

/// Stands in front of libc's routine and, where a test asks for it, shows the four items and ends the process.
extern "C" __attribute__((noreturn)) void __assert_fail(const char* pszCondition, const char* pszSource,
                                                        unsigned int nLine, const char* pszSignature) noexcept {
    if (g_fgShowReport) {
        std::fprintf(stderr, "{%s}{%s}{%s}{%s}\n", pszCondition, pszSource, nLine > 0 ? "line" : "no line",
                     pszSignature);
        support::LeaveProcess(kReportedStatus);
    }
    support::NextFunction(&__assert_fail, "__assert_fail")(pszCondition, pszSource, nLine, pszSignature);
    std::abort();  // not reached
}

TEST(KAssertTest, TheChecksAreOffWhenTheLibraryIsLoaded) {
    EXPECT_FALSE(g_fgActiveAtLoad);
}

TEST(KAssertTest, InitTurnsTheChecksOnWhateverTheType) {
    const ScopedChecks restore(false);
    for (const int nType : kTypeValues) {
        KAssert::SetActive(false);
        KAssert::Init(TypeOf(nType));
        EXPECT_TRUE(KAssert::GetActive()) << nType;
    }
}

TEST(KAssertTest, InitLeavesTheChecksOnWhenTheyAreOn) {
    const ScopedChecks restore(true);
    KAssert::Init(KAssert::ASSERT_DEFAULT);
    EXPECT_TRUE(KAssert::GetActive());
}

TEST(KAssertTest, DeinitTurnsTheChecksOffAndMayBeRepeated) {
    const ScopedChecks restore(true);
    KAssert::Deinit();
    EXPECT_FALSE(KAssert::GetActive());
    KAssert::Deinit();
    EXPECT_FALSE(KAssert::GetActive());
}

TEST(KAssertTest, OneDeinitUndoesAnyNumberOfInits) {
    const ScopedChecks restore(false);
    KAssert::Init(KAssert::ASSERT_DEFAULT);
    KAssert::Init(KAssert::ASSERT_DEFAULT);
    KAssert::Deinit();
    EXPECT_FALSE(KAssert::GetActive());
}

TEST(KAssertTest, GetActiveReturnsWhatSetActiveStored) {
    const ScopedChecks restore(false);
    for (const bool fgActive : {true, true, false, false, true}) {
        KAssert::SetActive(fgActive);
        EXPECT_EQ(KAssert::GetActive(), fgActive);
    }
}

TEST(KAssertTest, SetTypeWithAnyValueLeavesTheSwitchAsItIs) {
    for (const bool fgActive : {false, true}) {
        const ScopedChecks checks(fgActive);
        for (const int nType : kTypeValues) {
            KAssert::SetType(TypeOf(nType));
            EXPECT_EQ(KAssert::GetActive(), fgActive) << nType;
        }
    }
}

TEST(KAssertTest, TheDefaultTypeIsZero) {
    EXPECT_EQ(KAssert::ASSERT_DEFAULT, 0);
    EXPECT_TRUE((std::is_same<std::underlying_type<KAssert::KAssertType>::type, int>::value));
}

TEST(KAssertTest, AnObjectHasAVirtualDestructorAndNoData) {
    EXPECT_TRUE(std::has_virtual_destructor<KAssert>::value);
    EXPECT_EQ(sizeof(KAssert), sizeof(void*));
}

TEST(KAssertTest, MakingAndDestroyingAnObjectLeavesTheSwitchAsItIs) {
    for (const bool fgActive : {false, true}) {
        const ScopedChecks checks(fgActive);
        { const KAssert object; }
        EXPECT_EQ(KAssert::GetActive(), fgActive);
    }
}

TEST(KAssertTest, AFailedCheckAbortsTheProcessAndNamesConditionSourceLineAndSignature) {
    EXPECT_EXIT(
        {
            KAssert::SetActive(true);
            KMem::Malloc(0);
        },
        testing::KilledBySignal(SIGABRT),
        ": src/api/KMem:[0-9]+: static void\\* KMem::Malloc\\(size_t\\): Assertion `nSize > 0' failed\\.\n");
}

TEST(KAssertTest, AFailedCheckIsReportedThroughLibcsOwnRoutine) {
    EXPECT_EXIT(
        {
            g_fgShowReport = true;
            KAssert::SetActive(true);
            FailACheck();
        },
        testing::ExitedWithCode(kReportedStatus),
        "\\{milSec >= 0\\}\\{src/api/KThread\\}\\{line\\}\\{void KThread::SetSpeed\\(int\\)\\}\n");
}

TEST(KAssertTest, TheChecksOfEveryClassFollowTheSwitch) {
    EXPECT_CHECK_FAILS(FailACheck(), "milSec >= 0", "src/api/KThread", "void KThread::SetSpeed(int)");
    EXPECT_CHECK_FAILS(KMem(2).Pos(2), "0", "src/api/KMem", "char* KMem::Pos(int)");
    EXPECT_CHECK_FAILS(KTime().GetHumanTimeString(5, 0, 0), "0", "src/api/KTime",
                       "KString KTime::GetHumanTimeString(int, char, char) const");
    EXPECT_CHECK_FAILS(CopyALog(), "0", "src/api/KDebug", "KDebug::KDebug(const KDebug&)");
}

TEST(KAssertTest, WhileTheSwitchIsOffAFailingCheckTakesItsQuietWay) {
    const ScopedChecks checks(false);
    const std::string strWritten = support::StderrOf([] {
        KThread thread;
        thread.SetSpeed(-1);
        EXPECT_EQ(thread.GetSpeed(), -1);
        EXPECT_EQ(KMem(2).Pos(2), nullptr);
        EXPECT_EQ(KTime().GetHumanTimeString(5, 0, 0).Length(), 0);
        CopyALog();
    });
    EXPECT_EQ(strWritten, "");
}

TEST(KAssertTest, TheSwitchIsReadAfreshAtEveryCheck) {
    const ScopedChecks checks(false);
    FailACheck();
    KAssert::SetActive(true);
    KAssert::SetActive(false);
    FailACheck();
    EXPECT_CHECK_FAILS(FailACheck(), "milSec >= 0", "src/api/KThread", "void KThread::SetSpeed(int)");
}

TEST(KAssertTest, AChangeIsSeenByOtherThreads) {
    const ScopedChecks checks(false);
    std::thread reader([] {
        while (!KAssert::GetActive()) {
            std::this_thread::yield();
        }
    });
    KAssert::SetActive(true);
    reader.join();
    EXPECT_TRUE(KAssert::GetActive());
}
