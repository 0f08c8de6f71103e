#include "KAssert.h"

// The declaration of __assert_fail disappears from <cassert> under NDEBUG; the library's checks are there in every
// build.
#undef NDEBUG
#include <cassert>

#include "Checks.h"

bool KAssert::g_fgAssertActive = false;

KAssert::KAssert() = default;
KAssert::~KAssert() = default;

void KAssert::Init(KAssertType type) {
    SetActive(true);
    SetType(type);
}

void KAssert::Deinit() {
    SetActive(false);
}

void KAssert::SetActive(bool fgActive) {
    __atomic_store_n(&g_fgAssertActive, fgActive, __ATOMIC_RELAXED);
}

bool KAssert::GetActive() {
    return __atomic_load_n(&g_fgAssertActive, __ATOMIC_RELAXED);
}

void KAssert::SetType(KAssertType) {}

void Checks::Report(const char* pszCondition, const char* pszSignature, unsigned int nLine) const {
    if (KAssert::GetActive()) {
        __assert_fail(pszCondition, m_pszSource, nLine, pszSignature);
    }
}
