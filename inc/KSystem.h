/// @file
/// Facts about the machine and the program.
#ifndef KALVOREN_KSYSTEM_H
#define KALVOREN_KSYSTEM_H

#include "KList.h"
#include "KPath.h"
#include "KString.h"
#include "KThread.h"
#include "KTypes.h"

/// The process-wide holder of facts about the operating system, the hardware, the disks, the storage paths, the user and
/// the program. It fills in the operating system's; the other records are there for their layout and keep their defaults.
///
/// Thread-safety: a class-wide lock guards the records, which are read by value. Init(), GetInstance() and Deinit() take
/// no lock and belong to start-up and shut-down.
///
/// It cannot be copied: a copy or an assignment fails the check "0"; with the checks off a copy is a fresh object without
/// hooks, whose end clears the records like any other, and an assignment does nothing.
class KALVOREN_API KSystem {
 public:
    /// The operating system.
    struct KALVOREN_API OSInformation {
        OSInformation() : m_strName("Undefined"), m_strVersion("0.0.0.0") {}

        KString m_strName;     ///< The system's name, for example "Linux".
        KString m_strVersion;  ///< The kernel's build text, not its release number.
    };

    /// The hardware. Never filled.
    struct KALVOREN_API HardwareInformation {
        HardwareInformation() : m_nValue(0) {}

        /// Not filled by the library.
        KString m_strName;
        KString m_strVersion;
        int m_nValue;
    };

    /// The user. Never filled.
    struct KALVOREN_API UserInformation {
        UserInformation() : m_nValue(0) {}

        /// Not filled by the library.
        KString m_strName;
        KPath m_Path;
        int m_nValue;
    };

    /// The program. Never filled.
    struct KALVOREN_API ApplicationInformation {
        /// Not filled by the library.
        KPath m_Path;
        KPath m_ConfigPath;
        KList<KString> m_Arguments;
        KList<KString> m_Environment;
    };

    /// The default storage paths. Never filled.
    struct KALVOREN_API StorageInformation {
        /// Not filled by the library.
        KPath m_Path1;
        KPath m_Path2;
        KPath m_Path3;
    };

    /// A disk. Nothing adds any.
    struct KALVOREN_API DiskInformation {
        DiskInformation() : m_nType(0), m_nTotalSize(0), m_nFreeSize(0) {}

        /// Not filled by the library.
        int m_nType;
        long long m_nTotalSize;
        long long m_nFreeSize;
        KPath m_Device;
        KPath m_MountPoint;
        KString m_strName;
    };

    /// Which part of a settings store is meant. The library hands it on to the hooks.
    enum RegistryLevel : int { REGISTRY_SYSTEM = 0, REGISTRY_USER = 1, REGISTRY_APPLICATION = 2 };

    /// Stores a value under a key. Returns true when it is stored.
    typedef bool (*WriteRegistryHook)(RegistryLevel, const KString&, const KString&);

    /// Puts the value under a key into its last argument. Returns true when there is one.
    typedef bool (*ReadRegistryHook)(RegistryLevel, const KString&, KString&);

    // --------------------------------------------------------------------------------------------- The instance

    /// Returns the process's instance, made by the first call. Making it sets the process to ignore SIGPIPE (`signal`),
    /// so that a write to a closed socket fails instead of ending the process. No later call does, not even after Deinit().
    static KSystem* Init();

    /// Returns the instance. Before the first Init(), the check "0" fails; with the checks off it returns null.
    static KSystem* GetInstance();

    /// Clears the records. The instance stays, with its hooks: GetInstance() and Init() hand it back afterwards, and the Set
    /// operations fill the records again. Nothing happens when there is none.
    static void Deinit();

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing.
    KSystem(const KSystem&);
    KSystem& operator=(const KSystem&);

    /// Empties the disk list and sets every text and path of the other records to the empty one.
    virtual ~KSystem();

    // -------------------------------------------------------------------------------------------------- Gathering

    /// Fills in the operating system's name and version (`uname`) and returns true. On failure logs the error "Cannot Get
    /// UName:%d" with `errno`, fails the check "0", and returns false with the record at its defaults.
    bool SetOSInfo();

    /// Writes the log lines "AppName: %s" and "Configurefile: %s". Stores nothing. Returns true.
    bool SetAppInfo(const KString& appName, KPath& configFile);

    /// Gather nothing and return true.
    bool SetHWInfo();
    bool SetUserInfo();
    bool SetDiskInfo();
    bool SetDefaultStoragePathInfo();

    // ---------------------------------------------------------------------------------------------------- Reading

    /// Return a copy of a record, made under the class-wide lock.
    static OSInformation GetOSInfo();
    static HardwareInformation GetHWInfo();
    static UserInformation GetUserInfo();
    static ApplicationInformation GetAppInfo();
    static StorageInformation GetStorageInfo();

    /// Returns 0, always.
    int GetSystemUsagePersent();

    /// Returns 100 less the usage: 100, always.
    int GetSystemIdlePersent();

    // -------------------------------------------------------------------------------------------- Settings store

    /// Sets the hooks that connect a settings store, null for none. They are called without a lock, by whichever thread
    /// reads or writes.
    void SetRegistryHooks(WriteRegistryHook write, ReadRegistryHook read);

    /// Hands a value to the write hook and returns what it returns; false without a hook.
    bool WriteRegistry(RegistryLevel eLevel, const KString& key, const KString& value);

    /// Asks the read hook for a value and returns what it returns; false, with @p value unchanged, without a hook.
    bool ReadRegistry(RegistryLevel eLevel, const KString& key, KString& value);

 private:
    KALVOREN_LOCAL KSystem();

    KALVOREN_LOCAL bool GatherNothing();

    WriteRegistryHook m_WriteRegistry;
    ReadRegistryHook m_ReadRegistry;

    KALVOREN_LOCAL static KSystem* g_pHandle;
    KALVOREN_LOCAL static OSInformation g_OSInfo;
    KALVOREN_LOCAL static HardwareInformation g_HWInfo;
    KALVOREN_LOCAL static UserInformation g_UserInfo;
    KALVOREN_LOCAL static ApplicationInformation g_AppInfo;
    KALVOREN_LOCAL static StorageInformation g_StorageInfo;
    KALVOREN_LOCAL static KList<DiskInformation> g_DiskInfo;
    KALVOREN_LOCAL static KMutex g_Mutex;
};

extern template class KList<KSystem::DiskInformation>;

#endif  // KALVOREN_KSYSTEM_H
