#include "KSystem.h"

#include <sys/utsname.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>

#include "support/Interpose.h"
#include "support/LeaveProcess.h"
#include "support/LogLines.h"
#include "support/MutexCalls.h"
#include "support/Support.h"
#include "support/Texts.h"

using support::LogOf;
using support::ScopedChecks;
using support::ScopedLevel;
using support::TextOf;

namespace {

constexpr const char* kSource = "src/api/KSystem";

/// What the uname in front of libc's does, and what it saw.
struct {
    int nError = 0;             ///< Not 0: it fails with it.
    bool fgZeroFilled = false;  ///< Whether the last record was zeroed.
} g_UName;

/// Makes uname fail for the length of a block.
class ScopedUNameError {
 public:
    explicit ScopedUNameError(int nError) { g_UName.nError = nError; }
    ~ScopedUNameError() { g_UName.nError = 0; }
    ScopedUNameError(const ScopedUNameError&) = delete;
    ScopedUNameError& operator=(const ScopedUNameError&) = delete;
};

}  // namespace

extern "C" int uname(struct utsname* pNames) noexcept {
    static const auto pNext = support::NextFunction(static_cast<int (*)(struct utsname*)>(&uname), "uname");
    if (g_UName.nError != 0) {
        const auto* const pBytes = reinterpret_cast<const unsigned char*>(pNames);
        g_UName.fgZeroFilled = std::all_of(pBytes, pBytes + sizeof *pNames, [](unsigned char n) { return n == 0; });
        std::strcpy(pNames->sysname, "half filled");
        errno = g_UName.nError;
        return -1;
    }
    return pNext(pNames);
}

namespace {

std::string NameOf(const KSystem::OSInformation& info) {
    return TextOf(info.m_strName) + "/" + TextOf(info.m_strVersion);
}

/// The name and version that the system tells.
std::string SystemsName() {
    struct utsname names = {};
    EXPECT_EQ(uname(&names), 0);
    return std::string(names.sysname) + "/" + names.version;
}

/// Expects that something holds in a process in which nobody has used the class yet.
void ExpectInAFreshProcess(const std::function<bool()>& holds) {
    EXPECT_EXIT(support::LeaveProcess(holds() ? 0 : 1), testing::ExitedWithCode(0), "");
}

bool IsPipeSignalIgnored() {
    struct sigaction action = {};
    sigaction(SIGPIPE, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

/// The hooks of a settings store: what they were given, and what they answer.
struct Store {
    int nCalls = 0;
    KSystem::RegistryLevel eLevel = KSystem::REGISTRY_SYSTEM;
    const KString* pKey = nullptr;
    const KString* pValue = nullptr;
    bool fgAnswer = true;
};

Store g_Store;

bool NoteCall(KSystem::RegistryLevel eLevel, const KString& key, const KString& value) {
    ++g_Store.nCalls;
    g_Store.eLevel = eLevel;
    g_Store.pKey = &key;
    g_Store.pValue = &value;
    return g_Store.fgAnswer;
}

bool ReadFromStore(KSystem::RegistryLevel eLevel, const KString& key, KString& value) {
    value = "from the store";
    return NoteCall(eLevel, key, value);
}

/// Uses what takes the class-wide lock.
bool UseTheSystem(KSystem::RegistryLevel, const KString&, const KString&) {
    KSystem::GetOSInfo();
    return KSystem::GetInstance()->SetHWInfo();
}

class KSystemTest : public testing::Test {
 protected:
    void TearDown() override {
        KSystem::Init()->SetRegistryHooks(nullptr, nullptr);
        g_Store = Store();
    }
};

}  // namespace

// --------------------------------------------------------------------------------------------------------- The instance

TEST_F(KSystemTest, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<KSystem>::value);
}

TEST_F(KSystemTest, InitTwiceGivesTheSameObject) {
    KSystem* const pSystem = KSystem::Init();
    ASSERT_NE(pSystem, nullptr);
    EXPECT_EQ(KSystem::Init(), pSystem);
    EXPECT_EQ(KSystem::GetInstance(), pSystem);
}

TEST_F(KSystemTest, BeforeInitGetInstanceFailsItsCheck) {
    EXPECT_CHECK_FAILS(KSystem::GetInstance(), "0", kSource, "static KSystem* KSystem::GetInstance()");
}

TEST_F(KSystemTest, BeforeInitGetInstanceIsNullWithTheChecksOff) {
    ExpectInAFreshProcess([] { return KSystem::GetInstance() == nullptr; });
}

TEST_F(KSystemTest, BeforeInitDeinitDoesNothing) {
    ExpectInAFreshProcess([] {
        KSystem::Deinit();
        return NameOf(KSystem::GetOSInfo()) == "Undefined/0.0.0.0" && KSystem::GetInstance() == nullptr;
    });
}

TEST_F(KSystemTest, TheFirstInitSetsTheProcessToIgnoreThePipeSignal) {
    ExpectInAFreshProcess([] {
        std::signal(SIGPIPE, SIG_DFL);
        KSystem::Init();
        return IsPipeSignalIgnored();
    });
}

TEST_F(KSystemTest, NoLaterInitTouchesThePipeSignal) {
    ExpectInAFreshProcess([] {
        KSystem::Init();
        std::signal(SIGPIPE, SIG_DFL);
        KSystem::Init();
        const bool fgTouched = IsPipeSignalIgnored();
        KSystem::Deinit();
        KSystem::Init();
        return !fgTouched && !IsPipeSignalIgnored();
    });
}

TEST_F(KSystemTest, TheInstanceIsHandedOutAfterDeinitToo) {
    KSystem* const pSystem = KSystem::Init();
    KSystem::Deinit();
    const ScopedChecks on(true);
    EXPECT_EQ(KSystem::GetInstance(), pSystem);
    EXPECT_EQ(KSystem::Init(), pSystem);
    EXPECT_TRUE(pSystem->SetOSInfo());
    EXPECT_EQ(NameOf(KSystem::GetOSInfo()), SystemsName());
}

TEST_F(KSystemTest, ItCanBeStartedAndShutDownAnyNumberOfTimes) {
    KSystem* const pSystem = KSystem::Init();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(KSystem::Init(), pSystem);
        ASSERT_TRUE(pSystem->SetOSInfo());
        KSystem::Deinit();
        KSystem::Deinit();
    }
}

TEST_F(KSystemTest, CannotBeCopied) {
    EXPECT_CHECK_FAILS(const KSystem copy(*KSystem::Init()), "0", kSource, "KSystem::KSystem(const KSystem&)");
}

TEST_F(KSystemTest, CannotBeAssigned) {
    KSystem& system = *KSystem::Init();
    EXPECT_CHECK_FAILS(system = *KSystem::Init(), "0", kSource, "KSystem& KSystem::operator=(const KSystem&)");
}

TEST_F(KSystemTest, ACopyWithTheChecksOffHasNoHooks) {
    KSystem& system = *KSystem::Init();
    system.SetRegistryHooks(NoteCall, ReadFromStore);
    KSystem copy(system);
    KString value;
    EXPECT_FALSE(copy.WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
    EXPECT_FALSE(copy.ReadRegistry(KSystem::REGISTRY_USER, "key", value));
    EXPECT_EQ(g_Store.nCalls, 0);
}

TEST_F(KSystemTest, AnAssignmentWithTheChecksOffDoesNothing) {
    KSystem& system = *KSystem::Init();
    KSystem copy(system);
    copy.SetRegistryHooks(NoteCall, ReadFromStore);
    EXPECT_EQ(&(system = copy), &system);
    EXPECT_FALSE(system.WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
    EXPECT_EQ(&(copy = system), &copy);
    EXPECT_TRUE(copy.WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
}

TEST_F(KSystemTest, DestroyingACopyClearsTheRecords) {
    KSystem& system = *KSystem::Init();
    ASSERT_TRUE(system.SetOSInfo());
    { const KSystem copy(system); }
    EXPECT_EQ(NameOf(KSystem::GetOSInfo()), "/");
}

// ----------------------------------------------------------------------------------------------------------- The records

TEST_F(KSystemTest, TheRecordsStartWithTheirDefaults) {
    ExpectInAFreshProcess([] {
        const KSystem::HardwareInformation hardware = KSystem::GetHWInfo();
        const KSystem::UserInformation user = KSystem::GetUserInfo();
        const KSystem::ApplicationInformation application = KSystem::GetAppInfo();
        const KSystem::StorageInformation storage = KSystem::GetStorageInfo();
        return NameOf(KSystem::GetOSInfo()) == "Undefined/0.0.0.0" &&  //
               hardware.m_strName.Length() == 0 && hardware.m_strVersion.Length() == 0 && hardware.m_nValue == 0 &&
               user.m_strName.Length() == 0 && user.m_Path.GetPath().Length() == 0 && user.m_nValue == 0 &&
               application.m_Path.GetPath().Length() == 0 && application.m_ConfigPath.GetPath().Length() == 0 &&
               application.m_Arguments.GetCount() == 0 && application.m_Environment.GetCount() == 0 &&
               storage.m_Path1.GetPath().Length() == 0 && storage.m_Path2.GetPath().Length() == 0 &&
               storage.m_Path3.GetPath().Length() == 0;
    });
}

TEST_F(KSystemTest, InitGathersNothing) {
    ExpectInAFreshProcess([] {
        KSystem::Init();
        return NameOf(KSystem::GetOSInfo()) == "Undefined/0.0.0.0";
    });
}

TEST_F(KSystemTest, SetOSInfoTakesTheSystemsNameAndTheKernelsBuildText) {
    EXPECT_TRUE(KSystem::Init()->SetOSInfo());
    EXPECT_EQ(NameOf(KSystem::GetOSInfo()), SystemsName());
    EXPECT_EQ(TextOf(KSystem::GetOSInfo().m_strName), "Linux");
}

TEST_F(KSystemTest, WithoutANameFromTheSystemTheDefaultsStay) {
    KSystem& system = *KSystem::Init();
    ASSERT_TRUE(system.SetOSInfo());
    const ScopedUNameError error(EFAULT);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(system.SetOSInfo()); }),
              "Error****: Cannot Get UName:" + std::to_string(EFAULT) + "\n");
    EXPECT_TRUE(g_UName.fgZeroFilled);
    EXPECT_EQ(NameOf(KSystem::GetOSInfo()), "Undefined/0.0.0.0");
}

TEST_F(KSystemTest, AFailureToGetTheNameLeavesTheLockFree) {
    KSystem& system = *KSystem::Init();
    {
        const ScopedUNameError error(EFAULT);
        EXPECT_FALSE(system.SetOSInfo());
    }
    EXPECT_TRUE(system.SetOSInfo());
    EXPECT_EQ(NameOf(KSystem::GetOSInfo()), SystemsName());
}

TEST_F(KSystemTest, WithoutANameFromTheSystemACheckFails) {
    EXPECT_CHECK_FAILS(
        {
            const ScopedUNameError error(EFAULT);
            KSystem::Init()->SetOSInfo();
        },
        "0", kSource, "bool KSystem::SetOSInfo()");
}

TEST_F(KSystemTest, TheErrorIsOutBeforeTheCheckFails) {
    EXPECT_EXIT(
        {
            KAssert::SetActive(true);
            const ScopedUNameError error(EPERM);
            KSystem::Init()->SetOSInfo();
        },
        testing::KilledBySignal(SIGABRT), "Error\\*\\*\\*\\*: Cannot Get UName:1\n.*KSystem::SetOSInfo");
}

TEST_F(KSystemTest, ReadersNeverSeeTheDefaultsBetween) {
    KSystem& system = *KSystem::Init();
    ASSERT_TRUE(system.SetOSInfo());
    const std::string expected = SystemsName();
    std::atomic<bool> fgDone(false);
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i) {
            system.SetOSInfo();
        }
        fgDone = true;
    });
    while (!fgDone) {
        EXPECT_EQ(NameOf(KSystem::GetOSInfo()), expected);
    }
    writer.join();
}

TEST_F(KSystemTest, TheOtherGatherersAreTrueAndGatherNothing) {
    KSystem& system = *KSystem::Init();
    ASSERT_TRUE(system.SetOSInfo());
    const ScopedChecks on(true);
    EXPECT_EQ(LogOf([&] {
                  for (int i = 0; i < 2; ++i) {  // Twice: none may keep the lock.
                      EXPECT_TRUE(system.SetHWInfo());
                      EXPECT_TRUE(system.SetUserInfo());
                      EXPECT_TRUE(system.SetDiskInfo());
                      EXPECT_TRUE(system.SetDefaultStoragePathInfo());
                  }
              }),
              "");
    EXPECT_EQ(TextOf(KSystem::GetHWInfo().m_strName), "");
    EXPECT_EQ(TextOf(KSystem::GetUserInfo().m_strName), "");
    EXPECT_EQ(TextOf(KSystem::GetStorageInfo().m_Path1.GetPath()), "");
    EXPECT_EQ(NameOf(KSystem::GetOSInfo()), SystemsName());
}

TEST_F(KSystemTest, SetAppInfoLogsBothTextsAndStoresNothing) {
    KSystem& system = *KSystem::Init();
    const ScopedLevel all(0);
    KPath config("\\etc\\%s.plist");
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(system.SetAppInfo("camera %d", config)); }),
              "Log: AppName: camera %d\nLog: Configurefile: /etc/%s.plist\n");
    EXPECT_EQ(TextOf(KSystem::GetAppInfo().m_Path.GetPath()), "");
    EXPECT_EQ(TextOf(KSystem::GetAppInfo().m_ConfigPath.GetPath()), "");
}

TEST_F(KSystemTest, SetAppInfoTakesTextsThatWereNeverSet) {
    KSystem& system = *KSystem::Init();
    const ScopedLevel all(0);
    KPath config;
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(system.SetAppInfo(KString(), config)); }),
              "Log: AppName: \nLog: Configurefile: \n");
}

TEST_F(KSystemTest, DeinitSetsTheTextsToEmptyNotToTheirDefaults) {
    ASSERT_TRUE(KSystem::Init()->SetOSInfo());
    KSystem::Deinit();
    const KSystem::OSInformation info = KSystem::GetOSInfo();
    EXPECT_EQ(NameOf(info), "/");
    EXPECT_EQ(info.m_strName.Length(), 0);
    EXPECT_EQ(info.m_strVersion.Length(), 0);
}

TEST_F(KSystemTest, ARecordThatWasReadIsTheCallersOwn) {
    KSystem& system = *KSystem::Init();
    ASSERT_TRUE(system.SetOSInfo());
    KSystem::OSInformation info = KSystem::GetOSInfo();
    info.m_strName = "changed";
    EXPECT_EQ(NameOf(KSystem::GetOSInfo()), SystemsName());
}

TEST_F(KSystemTest, ADiskIsCopiedFieldByField) {
    KSystem::DiskInformation disk;
    EXPECT_EQ(disk.m_nType, 0);
    EXPECT_EQ(disk.m_nTotalSize, 0);
    EXPECT_EQ(disk.m_nFreeSize, 0);
    disk.m_nType = 7;
    disk.m_nTotalSize = 0x123456789ALL;
    disk.m_nFreeSize = 0x1234567891LL;
    disk.m_Device = "/dev/sda1";
    disk.m_MountPoint = "/media";
    disk.m_strName = "disk";
    KList<KSystem::DiskInformation> disks;
    ASSERT_TRUE(disks.Add(disk));
    KSystem::DiskInformation copy;
    ASSERT_TRUE(disks.Pop(copy, 0));
    EXPECT_EQ(copy.m_nType, 7);
    EXPECT_EQ(copy.m_nTotalSize, 0x123456789ALL);
    EXPECT_EQ(copy.m_nFreeSize, 0x1234567891LL);
    EXPECT_EQ(TextOf(copy.m_Device.GetPath()), "/dev/sda1");
    EXPECT_EQ(TextOf(copy.m_MountPoint.GetPath()), "/media");
    EXPECT_EQ(TextOf(copy.m_strName), "disk");
}

// ----------------------------------------------------------------------------------------------------------------- Usage

TEST_F(KSystemTest, TheSystemIsNeverBusy) {
    KSystem& system = *KSystem::Init();
    EXPECT_EQ(system.GetSystemUsagePersent(), 0);
    EXPECT_EQ(system.GetSystemIdlePersent(), 100);
}

// -------------------------------------------------------------------------------------------------------- Settings store

TEST_F(KSystemTest, WithoutHooksNothingIsStoredOrRead) {
    ExpectInAFreshProcess([] {
        KSystem& system = *KSystem::Init();
        KString value("unchanged");
        return !system.WriteRegistry(KSystem::REGISTRY_SYSTEM, "key", "value") &&
               !system.ReadRegistry(KSystem::REGISTRY_SYSTEM, "key", value) && TextOf(value) == "unchanged";
    });
}

TEST_F(KSystemTest, TheHooksGetTheArgumentsAsTheyAre) {
    KSystem& system = *KSystem::Init();
    system.SetRegistryHooks(NoteCall, ReadFromStore);
    const KString key("key");
    const KString written("written");
    KString read;
    for (const int nLevel : {0, 1, 2, 3, -1, 1000}) {
        const auto eLevel = static_cast<KSystem::RegistryLevel>(nLevel);
        EXPECT_TRUE(system.WriteRegistry(eLevel, key, written));
        EXPECT_EQ(g_Store.eLevel, nLevel);
        EXPECT_EQ(g_Store.pKey, &key);
        EXPECT_EQ(g_Store.pValue, &written);
        g_Store = Store();
        EXPECT_TRUE(system.ReadRegistry(eLevel, key, read));
        EXPECT_EQ(g_Store.eLevel, nLevel);
        EXPECT_EQ(g_Store.pKey, &key);
        EXPECT_EQ(g_Store.pValue, &read);
        EXPECT_EQ(TextOf(read), "from the store");
        EXPECT_EQ(g_Store.nCalls, 1);
    }
}

TEST_F(KSystemTest, TheResultOfTheHookIsTheResult) {
    KSystem& system = *KSystem::Init();
    system.SetRegistryHooks(NoteCall, ReadFromStore);
    g_Store.fgAnswer = false;
    KString value;
    EXPECT_FALSE(system.WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
    EXPECT_FALSE(system.ReadRegistry(KSystem::REGISTRY_USER, "key", value));
    EXPECT_EQ(TextOf(value), "from the store");
    EXPECT_EQ(g_Store.nCalls, 2);
}

TEST_F(KSystemTest, EachHookMayBeThereAlone) {
    KSystem& system = *KSystem::Init();
    KString value;
    system.SetRegistryHooks(NoteCall, nullptr);
    EXPECT_TRUE(system.WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
    EXPECT_FALSE(system.ReadRegistry(KSystem::REGISTRY_USER, "key", value));
    system.SetRegistryHooks(nullptr, ReadFromStore);
    EXPECT_FALSE(system.WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
    EXPECT_TRUE(system.ReadRegistry(KSystem::REGISTRY_USER, "key", value));
}

bool NoteAsCall(KSystem::RegistryLevel, const KString&, const KString&) {
    support::ScopedCalls::Current()->Note("write hook");
    return true;
}

bool NoteAsCall(KSystem::RegistryLevel, const KString&, KString&) {
    support::ScopedCalls::Current()->Note("read hook");
    return true;
}

TEST_F(KSystemTest, AHookIsLookedUpUnderTheLockAndCalledWithoutIt) {
    KSystem& system = *KSystem::Init();
    system.SetRegistryHooks(NoteAsCall, NoteAsCall);
    const KString key("key");
    KString value;
    {
        const support::ScopedCalls calls;
        EXPECT_TRUE(system.WriteRegistry(KSystem::REGISTRY_USER, key, value));
        EXPECT_THAT(calls.Names(), testing::ElementsAre(support::kLock, support::kUnlock, "write hook"));
    }
    {
        const support::ScopedCalls calls;
        EXPECT_TRUE(system.ReadRegistry(KSystem::REGISTRY_USER, key, value));
        EXPECT_THAT(calls.Names(), testing::ElementsAre(support::kLock, support::kUnlock, "read hook"));
    }
}

TEST_F(KSystemTest, EveryRecordIsSetAndReadUnderTheLock) {
    // Of no interest here is the lock that messages take.
    const ScopedLevel level(3);
    KSystem& system = *KSystem::Init();
    KPath path("path");
    struct Case {
        const char* pszName;
        std::function<void()> run;
        int nLocks;
    };
    const Case cases[] = {
        {"SetOSInfo", [&] { system.SetOSInfo(); }, 1},
        {"SetAppInfo", [&] { system.SetAppInfo("name", path); }, 1},
        {"GetOSInfo", [] { KSystem::GetOSInfo(); }, 1},
        {"GetHWInfo", [] { KSystem::GetHWInfo(); }, 1},
        {"GetUserInfo", [] { KSystem::GetUserInfo(); }, 1},
        // Each of its lists has a lock of its own, and so has the copy.
        {"GetAppInfo", [] { KSystem::GetAppInfo(); }, 3},
        {"GetStorageInfo", [] { KSystem::GetStorageInfo(); }, 1},
    };
    for (const Case& each : cases) {
        const support::ScopedCalls calls;
        each.run();
        EXPECT_EQ(support::MostLocksAtOnce(calls.Names()), each.nLocks) << each.pszName;
    }
}

TEST_F(KSystemTest, AHookMayUseTheSystem) {
    KSystem& system = *KSystem::Init();
    system.SetRegistryHooks(UseTheSystem, nullptr);
    EXPECT_TRUE(system.WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
}

TEST_F(KSystemTest, TheHooksStayWhenTheSystemIsShutDown) {
    KSystem& system = *KSystem::Init();
    system.SetRegistryHooks(NoteCall, ReadFromStore);
    KSystem::Deinit();
    EXPECT_TRUE(KSystem::Init()->WriteRegistry(KSystem::REGISTRY_USER, "key", "value"));
}

TEST_F(KSystemTest, TheRegistryLevelsHaveTheirNumbers) {
    EXPECT_EQ(KSystem::REGISTRY_SYSTEM, 0);
    EXPECT_EQ(KSystem::REGISTRY_USER, 1);
    EXPECT_EQ(KSystem::REGISTRY_APPLICATION, 2);
}
