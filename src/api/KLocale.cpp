#include "KLocale.h"

#include <clocale>

namespace {

const char* LocaleName(KLocale::LocalSupport eLanguage) {
    switch (eLanguage) {
        case KLocale::KOREAN:
            return "ko_KR.UTF-8";
        case KLocale::JAPANESE:
            return "ja_JP.UTF-8";
        case KLocale::ENGLISH:
            break;
    }
    return "en_US.UTF-8";
}

}  // namespace

KLocale::KLocale() = default;
KLocale::~KLocale() = default;

char* KLocale::Init(LocalSupport eLanguage) {
    return std::setlocale(LC_ALL, LocaleName(eLanguage));
}

void KLocale::Deinit() {}

char* KLocale::GetSystemLocale() {
    return std::setlocale(LC_ALL, nullptr);
}
