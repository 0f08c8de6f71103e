#include "KEntry.h"

#include <new>

#include "Checks.h"
#include "KAssert.h"
#include "KDebug.h"
#include "KDirectory.h"
#include "KLocale.h"
#include "KMem.h"
#include "KNet.h"
#include "KSystem.h"

namespace {

constexpr Checks g_Checks("src/KEntry");

}  // namespace

KEntry* KEntry::g_pHandle = nullptr;

KEntry* KEntry::Init(int argc, char** argv) {
    if (g_pHandle == nullptr) {
        g_pHandle = new (std::nothrow) KEntry(argc, argv);
    }
    return g_pHandle;
}

void KEntry::Deinit() {
    delete g_pHandle;
    g_pHandle = nullptr;
}

KEntry::KEntry(int, char**) {
    KLocale::Init(KLocale::ENGLISH);
    KAssert::Init(KAssert::ASSERT_DEFAULT);
    KDebug::Init();
    KDebug::Log("KEntry Create");
    KMem::Init();
    KDirectory::Init();
    KSystem::Init();
    KNet::Init();
    // Hardware and operating system are gathered twice, in turn.
    KSystem::GetInstance()->SetHWInfo();
    KSystem::GetInstance()->SetOSInfo();
    KSystem::GetInstance()->SetHWInfo();
    KSystem::GetInstance()->SetOSInfo();
    KSystem::GetInstance()->SetUserInfo();
    KSystem::GetInstance()->SetDiskInfo();
    KSystem::GetInstance()->SetDefaultStoragePathInfo();
}

KEntry::~KEntry() {
    KNet::Deinit();
    KDirectory::Deinit();
    KSystem::Deinit();
    KMem::Deinit();
    KDebug::Deinit();
    KAssert::Deinit();
}

KEntry::KEntry(const KEntry&) {
    g_Checks.Fail("KEntry::KEntry(const KEntry&)");
}

KEntry& KEntry::operator=(const KEntry&) {
    g_Checks.Fail("KEntry& KEntry::operator=(const KEntry&)");
    return *this;
}
