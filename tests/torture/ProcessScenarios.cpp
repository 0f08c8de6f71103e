// Mutexes, threads, the system's description, and the library's start and end.
#include "KAssert.h"
#include "KDebug.h"
#include "KEntry.h"
#include "KLocale.h"
#include "KMem.h"
#include "KString.h"
#include "KSystem.h"
#include "KThread.h"
#include "support/Support.h"
#include "torture/Scenarios.h"

namespace torture {

namespace {

void MutexIsLocked() {
    Made<KMutex> mutex;
    bool fgDone = false;
    const Step lock([&] {
        fgDone = mutex->Lock();
        mutex->Unlock();
    });
    EXPECT_TRUE(fgDone);
    const Step tryLock([&] { fgDone = mutex->TryLock(); });
    EXPECT_EQ(fgDone, !tryLock.Failed("pthread_mutex_trylock"));
    if (fgDone) {
        mutex->Unlock();
    }
}

struct Worker : KThread {};

constexpr char kStart[] = "bool KThread::Start(int, KThread::Priority, int, int (*)(void*, void*, int, void*, int))";

void ThreadRunsAndEnds() {
    Made<Worker> worker;
    bool fgDone = false;
    const Step start([&] { fgDone = worker->Start(1, KThread::NORMAL, 256 * 1024, nullptr); });
    EXPECT_TRUE(fgDone);
    const Step stop([&] { fgDone = worker->Stop(); });
    EXPECT_EQ(fgDone, !worker.LackedMemory());
    EXPECT_FALSE(worker->IsPaused());
    if (stop.Failed("pthread_join")) {
        // It was not waited for, and can be; an object of a derived class must not be destroyed before.
        worker->Stop();
    }
}

void ThreadIsForcedToEnd() {
    Made<Worker> worker;
    worker->Start(1, KThread::NORMAL, -1, nullptr);
    bool fgDone = false;
    const Step force([&] { fgDone = worker->ForceStop(); });
    EXPECT_EQ(fgDone, !worker.LackedMemory());
    if (force.Failed("pthread_join")) {
        worker->Stop();
    }
}

void ThreadSleeps() {
    Made<Worker> worker;
    int nResult = 0;
    const Step sleep([&] { nResult = KThread::Sleep(0); });
    EXPECT_EQ(nResult, sleep.Failed("usleep") ? -1 : 0);
}

void LocaleIsChosen() {
    char* pszName = nullptr;
    const Step choose([&] { pszName = KLocale::Init(KLocale::ENGLISH); });
    EXPECT_TRUE(!choose.Failed("setlocale") || pszName == nullptr);
    const Step ask([&] { pszName = KLocale::GetSystemLocale(); });
    EXPECT_EQ(pszName == nullptr, ask.Failed("setlocale"));
}

void SystemIsDescribed() {
    KSystem* pSystem = nullptr;
    const Step init([&] { pSystem = KSystem::Init(); });
    ASSERT_NE(pSystem, nullptr);
    bool fgDone = false;
    const Step gather([&] { fgDone = pSystem->SetOSInfo(); });
    EXPECT_EQ(fgDone, !gather.Failed("uname"));
    if (gather.Failed("uname")) {
        EXPECT_THAT(gather.Log(), testing::HasSubstr("Error****: Cannot Get UName:"));
    }
    std::optional<KSystem::OSInformation> info;
    const Step tell([&] { info.emplace(KSystem::GetOSInfo()); });
    ExpectWholeOr<std::string>(TextOf(info->m_strName), fgDone ? "Linux" : "Undefined", "");
    KSystem::Deinit();
}

/// The library leaves the process as it found it, whatever fails.
void LibraryStartsAndEnds() {
    const bool fgChecks = KAssert::GetActive();
    DropRegistry();
    KDebug::Deinit();
    KEntry* pEntry = nullptr;
    const Step start([&] { pEntry = KEntry::Init(0, nullptr); });
    EXPECT_TRUE(pEntry != nullptr || start.LackedMemory());
    // The log's buffers are made anew for each line while one of them is lacking.
    LeavesBlocks(start.LackedMemory() ? 1 : 0);
    const Step end([&] { KEntry::Deinit(); });
    KAssert::SetActive(fgChecks);
    KMem::Init();
    KDebug::Error(KString());
}

}  // namespace

std::vector<Scenario> ProcessScenarios() {
    return {{"MutexIsLocked", MutexIsLocked, MutexRefusalsAnd({})},
            {"ThreadRunsAndEnds",
             ThreadRunsAndEnds,
             {std::string("calloc in ") + kStart + ": pInfo",
              std::string("pthread_attr_setstacksize in ") + kStart + ": nRet == 0",
              std::string("pthread_attr_getschedparam in ") + kStart + ": nRet == 0",
              std::string("pthread_create in ") + kStart + ": nRet == 0",
              "pthread_attr_destroy in bool KThread::Stop(): nRet == 0"}},
            {"ThreadIsForcedToEnd",
             ThreadIsForcedToEnd,
             {std::string("calloc in ") + kStart + ": pInfo", "pthread_attr_destroy in bool KThread::Stop(): nRet == 0",
              "pthread_cancel in virtual bool KThread::ForceStop(): nRet == 0",
              "pthread_join in virtual bool KThread::ForceStop(): nRet == 0 || nRet == 3"}},
            {"ThreadSleeps",
             ThreadSleeps,
             {"calloc in bool KThread::Stop(): pInfo", "pthread_attr_destroy in bool KThread::Stop(): nRet == 0"}},
            {"LocaleIsChosen", LocaleIsChosen, {}},
            {"SystemIsDescribed", SystemIsDescribed, {"uname in bool KSystem::SetOSInfo(): 0"}},
            {"LibraryStartsAndEnds",
             LibraryStartsAndEnds,
             {"uname in bool KSystem::SetOSInfo(): 0", "calloc in static void KMem::Deinit(): g_pMemInfoContainer"},
             true}};
}

}  // namespace torture
