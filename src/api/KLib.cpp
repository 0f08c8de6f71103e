#include "KLib.h"

#include <dlfcn.h>

#include "Checks.h"

namespace {

constexpr Checks g_Checks("src/api/KLib");

}  // namespace

KLib::KLib() : m_pHandle(nullptr) {}

KLib::KLib(const KLib&) : KLib() {
    g_Checks.Fail("KLib::KLib(const KLib&)");
}

KLib& KLib::operator=(const KLib&) {
    g_Checks.Fail("KLib& KLib::operator=(const KLib&)");
    return *this;
}

KLib::~KLib() = default;

bool KLib::Load(const KPath& path) {
    g_Checks.Hold(path.GetExt().Length() == 0, "0", "bool KLib::Load(const KPath&)");
    const KString fileName = KString("lib") + path.GetNameOnly() + ".so";
    m_Path = path.GetRootOnly();
    m_Path += fileName;
    const char* const pszSystemPath = m_Path.GetSystemPath(KPath::CONV_SLASH);
    // A path that is too long, or lacked memory, renders as an empty one, which dlopen would take for the program itself.
    m_pHandle = *pszSystemPath != '\0' ? dlopen(pszSystemPath, RTLD_LAZY) : nullptr;
    return m_pHandle != nullptr;
}

void* KLib::GetFunc(const KString& name) {
    return m_pHandle != nullptr ? dlsym(m_pHandle, name.GetBuffer()) : nullptr;
}

bool KLib::Unload() {
    // libc does not survive closing a null handle.
    if (m_pHandle == nullptr || dlclose(m_pHandle) != 0) {
        return false;
    }
    m_pHandle = nullptr;
    return true;
}
