// Mutexes, threads, the system's description, and the library's start and end.
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <functional>
#include <optional>

#include "KAssert.h"
#include "KDebug.h"
#include "KDirectory.h"
#include "KEntry.h"
#include "KFile.h"
#include "KLib.h"
#include "KLocale.h"
#include "KMem.h"
#include "KPropertyList.h"
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

/// Each way has the clock to ask, if not always, and then to wait.
void MutexIsLockedInTime() {
    bool (*const ways[])(KMutex&) = {
        [](KMutex& mutex) { return mutex.LockWithTimeOut(1000); },
        [](KMutex& mutex) { return mutex.LockWithSystemTimeBasedTimeOut(1000, true); },
        [](KMutex& mutex) { return mutex.LockWithSystemTimeBasedTimeOut(1000, false); },
    };
    Made<KMutex> mutex;
    for (const auto way : ways) {
        bool fgDone = false;
        const Step lock([&] { fgDone = way(*mutex); });
        const bool fgHeld = !lock.Failed("pthread_mutex_timedlock");
        // A time-out cannot be told from success. It unlocks the mutex of whoever holds it, as every failure does.
        EXPECT_EQ(fgDone, fgHeld || TheOutcome().nError == ETIMEDOUT);
        if (!mutex.LackedMemory()) {
            EXPECT_EQ(mutex->TryLock(), !fgHeld);
        }
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
    if (stop.Failed("pthread_join")) {
        // It was not waited for, and can be; an object of a derived class must not be destroyed before.
        worker->Stop();
    }
    EXPECT_EQ(worker->GetStatus(), KThread::STOPPED);
}

/// A body that ends by itself.
struct Visitor : KThread {
    ~Visitor() override { Stop(); }
    int ThreadMainLoop() override {
        ++m_nVisits;
        return 0;
    }
    void AwaitEnd() {
        while (m_nVisits == 0 || GetStatus() != STOPPED) {
            sched_yield();
        }
    }

    std::atomic<int> m_nVisits{0};
};

void ThreadIsStartedAgain() {
    Made<Visitor> visitor;
    bool fgDone = false;
    visitor->Start(1, KThread::NORMAL, -1, nullptr);
    if (!visitor.LackedMemory()) {
        visitor->AwaitEnd();
    }
    const Step start([&] { fgDone = visitor->ReStart(1, KThread::HIGH, -1, nullptr); });
    EXPECT_EQ(fgDone, !visitor.LackedMemory());
    visitor->Stop();
    // One that could not be waited for is forgotten for the next.
    LeavesThreads(start.Failed("pthread_join") ? 1 : 0);
    EXPECT_EQ(visitor->m_nVisits, visitor.LackedMemory() ? 0 : start.Failed("pthread_create") ? 1 : 2);
}

/// The default body, whose third sleep is told to be the last. It is the one piece of the library that runs on a thread of
/// its own; the thread that made it waits meanwhile.
struct Sleeper : KThread {
    ~Sleeper() override { Stop(); }

    int ThreadMainLoop() override {
        s_pSleeper = this;
        WhileSleeping([] {
            if (++s_pSleeper->m_nSleeps == 3) {
                s_pSleeper->SetStatus(STOPPING);
            }
        });
        const Step loop([&] { m_nResult = KThread::ThreadMainLoop(); });
        m_fgFailed = loop.Failed("usleep");
        WhileSleeping(nullptr);
        m_fgEnded = true;
        return 0;
    }

    static inline Sleeper* s_pSleeper = nullptr;
    int m_nSleeps = 0;
    int m_nResult = 0;
    bool m_fgFailed = false;
    std::atomic<bool> m_fgEnded{false};
};

void ThreadSleepsInItsLoop() {
    Sleeper sleeper;
    sleeper.Start(0, KThread::NORMAL, -1, nullptr);
    while (!sleeper.m_fgEnded) {
        sched_yield();
    }
    sleeper.Stop();
    // A sleep that ends early is a short one.
    EXPECT_EQ(sleeper.m_nSleeps, 3);
    EXPECT_EQ(sleeper.m_nResult, 1);
    EXPECT_EQ(sleeper.m_fgFailed, HasFailed());
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
    const bool fgThere = std::setlocale(LC_ALL, "en_US.UTF-8") != nullptr;
    const Step choose([&] { pszName = KLocale::Init(KLocale::ENGLISH); });
    EXPECT_EQ(pszName != nullptr, fgThere && !choose.Failed("setlocale"));
    const Step ask([&] { pszName = KLocale::GetSystemLocale(); });
    EXPECT_EQ(pszName == nullptr, ask.Failed("setlocale"));
}

bool Store(KSystem::RegistryLevel, const KString& key, const KString& value) {
    return key == "key" && value == "value";
}
bool Fetch(KSystem::RegistryLevel, const KString&, KString& value) {
    value = "value";
    return true;
}

void SystemIsDescribed() {
    KSystem* pSystem = nullptr;
    const Step init([&] { pSystem = KSystem::Init(); });
    ASSERT_NE(pSystem, nullptr);
    bool fgDone = false;
    const Step gather([&] { fgDone = pSystem->SetOSInfo(); });
    EXPECT_EQ(fgDone, !gather.Failed("uname"));
    gather.ExpectLog(ErrorIf(gather.Failed("uname"), "Cannot Get UName:" + ErrorNumber()));
    std::optional<KSystem::OSInformation> info;
    const Step tell([&] { info.emplace(KSystem::GetOSInfo()); });
    // The defaults are two texts, and then there is the system to ask before there are two others.
    EXPECT_EQ(TextOf(info->m_strName), !fgDone                                              ? "Undefined"
                                       : gather.FailedCall() == 4 || tell.FailedCall() == 1 ? ""
                                                                                            : "Linux");
    EXPECT_EQ(info->m_strVersion.Length() == 0, gather.FailedCall() == 5 || tell.FailedCall() == 2);
    const KString name("name");
    KPath file("file");
    const Step describe([&] {
        fgDone = pSystem->SetHWInfo() && pSystem->SetUserInfo() && pSystem->SetDiskInfo() &&
                 pSystem->SetDefaultStoragePathInfo() && pSystem->SetAppInfo(name, file);
    });
    EXPECT_TRUE(fgDone);
    describe.ExpectLog({"Log: AppName: name", "Log: Configurefile: file"});
    const Step copy([] {
        KSystem::GetHWInfo();
        KSystem::GetUserInfo();
        KSystem::GetStorageInfo();
        EXPECT_EQ(KSystem::GetAppInfo().m_Arguments.GetCount(), 0);
    });
    pSystem->SetRegistryHooks(Store, Fetch);
    const KString key("key");
    KString value("value");
    const Step store([&] { fgDone = pSystem->WriteRegistry(KSystem::REGISTRY_USER, key, value); });
    EXPECT_TRUE(fgDone);
    const Step fetch([&] { fgDone = pSystem->ReadRegistry(KSystem::REGISTRY_USER, key, value); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(TextOf(value), fetch.LackedMemory() ? "" : "value");
    pSystem->SetRegistryHooks(nullptr, nullptr);
    const Step end([] { KSystem::Deinit(); });
}

// What cannot be copied is made afresh, as lacking as any other. With the checks on no copy is made.

void FileIsMadeAfresh() {
    const KFile file("path", true);
    const Made<KFile> other(file);
    EXPECT_EQ(other->GetPath().GetPath().Length(), 0);
}

void DirectoryIsMadeAfresh() {
    const KDirectory directory;
    Made<KDirectory> other(directory);
    EXPECT_EQ(other->GetCount(), 0);
    // What was never opened cannot be closed. Without its record that is not noticed.
    other.EndsWith(ErrorIf(other.Making().FailedCall() != 1, "Directory Close , Handle[0] is Empty "));
}

void ThreadIsMadeAfresh() {
    const Visitor thread;
    const Made<KThread> other(thread);
    EXPECT_EQ(other->GetStatus(), KThread::STOPPED);
}

void LibraryIsMadeAfresh() {
    const KLib library;
    const Made<KLib> other(library);
    EXPECT_EQ(other->GetPath().GetPath().Length(), 0);
}

void PropertyListIsMadeAfresh() {
    const KPropertyList list(KString("<plist><dict><key>a</key></dict></plist>"));
    Made<KPropertyList> other(list);
    EXPECT_EQ(other->GetRoot()->GetNodeCount(), 0);
}

/// The library leaves the process as it found it, whatever fails. @p startIt tells whether there was something to start with.
void StartAndEnd(const std::function<bool()>& startIt, const std::function<void()>& endIt) {
    const bool fgChecks = KAssert::GetActive();
    DropRegistry();
    KDebug::Deinit();
    bool fgStarted = false;
    const Step start([&] { fgStarted = startIt(); });
    EXPECT_EQ(!fgStarted, start.Failed("new"));
    if (fgStarted) {
        // Where one of the log's buffers was lacking, the first line makes both.
        start.ExpectLog({"Log: KEntry Create"});
    }
    const Step end([&] { endIt(); });
    // The registry's memory, which is not asked for again.
    LeavesMappings(end.Failed("munmap") ? 1 : 0);
    KAssert::SetActive(fgChecks);
    KMem::Init();
    KDebug::Error(KString());
}

void LibraryStartsAndEnds() {
    StartAndEnd([] { return KEntry::Init(0, nullptr) != nullptr; }, [] { KEntry::Deinit(); });
}

void LibraryLivesWithAnObject() {
    std::optional<KEntry> entry;
    StartAndEnd(
        [&] {
            entry.emplace(0, nullptr);
            return true;
        },
        [&] { entry.reset(); });
}

}  // namespace

std::vector<Scenario> ProcessScenarios() {
    const Lines startRefusals = {"uname in bool KSystem::SetOSInfo(): 0",
                                 "mmap in static void KMem::Deinit(): g_pMemInfoContainer"};
    return {
        {"MutexIsLocked", MutexIsLocked, MutexRefusalsAnd({})},
        {"MutexIsLockedInTime", MutexIsLockedInTime, MutexRefusalsAnd({})},
        {"ThreadRunsAndEnds",
         ThreadRunsAndEnds,
         {std::string("calloc in ") + kStart + ": pInfo",
          std::string("pthread_attr_setstacksize in ") + kStart + ": nRet == 0",
          std::string("pthread_attr_getschedparam in ") + kStart + ": nRet == 0",
          std::string("pthread_create in ") + kStart + ": nRet == 0",
          "pthread_attr_destroy in bool KThread::Stop(): nRet == 0"}},
        {"ThreadIsStartedAgain",
         ThreadIsStartedAgain,
         {std::string("calloc in ") + kStart + ": pInfo",
          std::string("pthread_attr_getschedparam in ") + kStart + ": nRet == 0",
          std::string("pthread_create in ") + kStart + ": nRet == 0",
          "pthread_attr_destroy in bool KThread::Stop(): nRet == 0"}},
        {"ThreadSleepsInItsLoop", ThreadSleepsInItsLoop, {}},
        {"ThreadIsForcedToEnd",
         ThreadIsForcedToEnd,
         {std::string("calloc in ") + kStart + ": pInfo", "pthread_attr_destroy in bool KThread::Stop(): nRet == 0",
          "pthread_cancel in virtual bool KThread::ForceStop(): nRet == 0",
          "pthread_join in virtual bool KThread::ForceStop(): nRet == 0 || nRet == 3"}},
        {"ThreadSleeps",
         ThreadSleeps,
         {"calloc in bool KThread::Stop(): pInfo", "pthread_attr_destroy in bool KThread::Stop(): nRet == 0"}},
        {"LocaleIsChosen", LocaleIsChosen, {}},
        {"SystemIsDescribed", SystemIsDescribed, MutexRefusalsAnd({"uname in bool KSystem::SetOSInfo(): 0"})},
        {"FileIsMadeAfresh", FileIsMadeAfresh,
         MutexMakingRefusalsAnd({"nothing in KFile::KFile(const KFile&): 0", "new in KFile::KFile(const KFile&): 0"}),
         true},
        {"DirectoryIsMadeAfresh", DirectoryIsMadeAfresh,
         MutexMakingRefusalsAnd({"nothing in KDirectory::KDirectory(const KDirectory&): 0",
                                 "new in KDirectory::KDirectory(const KDirectory&): 0"}),
         true},
        {"ThreadIsMadeAfresh",
         ThreadIsMadeAfresh,
         {"nothing in KThread::KThread(const KThread&): 0", "calloc in KThread::KThread(const KThread&): 0"},
         true},
        {"LibraryIsMadeAfresh", LibraryIsMadeAfresh, {"nothing in KLib::KLib(const KLib&): 0"}, true},
        {"PropertyListIsMadeAfresh", PropertyListIsMadeAfresh,
         MutexMakingRefusalsAnd({"nothing in KPropertyList::KPropertyList(const KPropertyList&): 0"}), true},
        {"LibraryStartsAndEnds", LibraryStartsAndEnds, startRefusals, true, true},
        {"LibraryLivesWithAnObject", LibraryLivesWithAnObject, startRefusals, true, true}};
}

}  // namespace torture
