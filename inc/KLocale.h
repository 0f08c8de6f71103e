/// @file
/// The process locale.
#ifndef KALVOREN_KLOCALE_H
#define KALVOREN_KLOCALE_H

#include "KTypes.h"

/// Switches the whole process between the supported UTF-8 locales (`setlocale` for all categories).
///
/// Thread-safety: the locale belongs to the process. Switch it at start-up, before other threads run.
class KALVOREN_API KLocale {
 public:
    /// The supported languages.
    enum LocalSupport : int {
        ENGLISH = 0,  ///< "en_US.UTF-8"; any value that is not listed means this one too.
        KOREAN = 1,   ///< "ko_KR.UTF-8"
        JAPANESE = 2  ///< "ja_JP.UTF-8"
    };

    KLocale();
    virtual ~KLocale();

    /// Switches the locale. Returns the name of the locale now in force, or null, with the previous one still in force,
    /// when the system does not have it. The text belongs to libc and is valid until the next switch. Logs nothing.
    static char* Init(LocalSupport eLanguage);

    /// Does nothing: the locale stays as it is.
    static void Deinit();

    /// Returns the name of the locale in force. The text belongs to libc and is valid until the next switch.
    static char* GetSystemLocale();
};

#endif  // KALVOREN_KLOCALE_H
