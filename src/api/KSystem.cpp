#include "KSystem.h"

#include <sys/utsname.h>

#include <cerrno>
#include <csignal>
#include <new>

#include "Checks.h"
#include "KDebug.h"
#include "ScopedLock.h"

template class KList<KSystem::DiskInformation>;

namespace {

constexpr Checks g_Checks("src/api/KSystem");

constexpr int kWholePercent = 100;

}  // namespace

KSystem* KSystem::g_pHandle = nullptr;
KSystem::OSInformation KSystem::g_OSInfo;
KSystem::HardwareInformation KSystem::g_HWInfo;
KSystem::UserInformation KSystem::g_UserInfo;
KSystem::ApplicationInformation KSystem::g_AppInfo;
KSystem::StorageInformation KSystem::g_StorageInfo;
KList<KSystem::DiskInformation> KSystem::g_DiskInfo;
KMutex KSystem::g_Mutex;

KSystem* KSystem::Init() {
    // Static, because the destroyed object is handed out again: it must stay memory of ours.
    alignas(KSystem) static unsigned char s_Storage[sizeof(KSystem)];
    if (g_pHandle == nullptr) {
        g_pHandle = new (s_Storage) KSystem();
    }
    return g_pHandle;
}

KSystem* KSystem::GetInstance() {
    g_Checks.Hold(g_pHandle != nullptr, "0", "static KSystem* KSystem::GetInstance()");
    return g_pHandle;
}

void KSystem::Deinit() {
    if (g_pHandle != nullptr) {
        g_pHandle->~KSystem();
    }
}

KSystem::KSystem() : m_WriteRegistry(nullptr), m_ReadRegistry(nullptr) {
    std::signal(SIGPIPE, SIG_IGN);
}

KSystem::KSystem(const KSystem&) : m_WriteRegistry(nullptr), m_ReadRegistry(nullptr) {
    g_Checks.Fail("KSystem::KSystem(const KSystem&)");
}

KSystem& KSystem::operator=(const KSystem&) {
    g_Checks.Fail("KSystem& KSystem::operator=(const KSystem&)");
    return *this;
}

/// May run any number of times on the one instance.
KSystem::~KSystem() {
    g_DiskInfo.Reset();
    const KString empty;
    g_HWInfo.m_strName = empty;
    g_HWInfo.m_strVersion = empty;
    g_OSInfo.m_strName = empty;
    g_OSInfo.m_strVersion = empty;
    g_AppInfo.m_Path = empty;
    g_AppInfo.m_ConfigPath = empty;
    g_UserInfo.m_strName = empty;
    g_UserInfo.m_Path = empty;
    g_StorageInfo.m_Path1 = empty;
    g_StorageInfo.m_Path2 = empty;
    g_StorageInfo.m_Path3 = empty;
}

bool KSystem::SetOSInfo() {
    const ScopedLock lock(g_Mutex);
    g_OSInfo = OSInformation();
    struct utsname names = {};
    if (uname(&names) != 0) {
        KDebug::Error("Cannot Get UName:%d", errno);
        g_Checks.Fail("bool KSystem::SetOSInfo()");
        return false;
    }
    g_OSInfo.m_strName = names.sysname;
    g_OSInfo.m_strVersion = names.version;
    return true;
}

bool KSystem::SetAppInfo(const KString& appName, KPath& configFile) {
    const ScopedLock lock(g_Mutex);
    KDebug::Log("AppName: %s", appName.GetBuffer());
    KDebug::Log("Configurefile: %s", configFile.GetPath().GetBuffer());
    return true;
}

bool KSystem::GatherNothing() {
    const ScopedLock lock(g_Mutex);
    return true;
}

bool KSystem::SetHWInfo() {
    return GatherNothing();
}

bool KSystem::SetUserInfo() {
    return GatherNothing();
}

bool KSystem::SetDiskInfo() {
    return GatherNothing();
}

bool KSystem::SetDefaultStoragePathInfo() {
    return GatherNothing();
}

KSystem::OSInformation KSystem::GetOSInfo() {
    const ScopedLock lock(g_Mutex);
    return g_OSInfo;
}

KSystem::HardwareInformation KSystem::GetHWInfo() {
    const ScopedLock lock(g_Mutex);
    return g_HWInfo;
}

KSystem::UserInformation KSystem::GetUserInfo() {
    const ScopedLock lock(g_Mutex);
    return g_UserInfo;
}

KSystem::ApplicationInformation KSystem::GetAppInfo() {
    const ScopedLock lock(g_Mutex);
    return g_AppInfo;
}

KSystem::StorageInformation KSystem::GetStorageInfo() {
    const ScopedLock lock(g_Mutex);
    return g_StorageInfo;
}

int KSystem::GetSystemUsagePersent() {
    return 0;
}

int KSystem::GetSystemIdlePersent() {
    const int nIdle = kWholePercent - GetSystemUsagePersent();
    return nIdle < 0 ? 0 : nIdle;
}

void KSystem::SetRegistryHooks(WriteRegistryHook write, ReadRegistryHook read) {
    const ScopedLock lock(g_Mutex);
    m_WriteRegistry = write;
    m_ReadRegistry = read;
}

bool KSystem::WriteRegistry(RegistryLevel eLevel, const KString& key, const KString& value) {
    g_Mutex.Lock();
    const WriteRegistryHook write = m_WriteRegistry;
    g_Mutex.Unlock();
    return write != nullptr && write(eLevel, key, value);
}

bool KSystem::ReadRegistry(RegistryLevel eLevel, const KString& key, KString& value) {
    g_Mutex.Lock();
    const ReadRegistryHook read = m_ReadRegistry;
    g_Mutex.Unlock();
    return read != nullptr && read(eLevel, key, value);
}
