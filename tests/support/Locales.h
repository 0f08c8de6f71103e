// Locales of a test's own, so that a test that needs one does not depend on which are installed.
#ifndef KALVOREN_TESTS_LOCALES_H
#define KALVOREN_TESTS_LOCALES_H

#include <clocale>
#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string>

#include "Support.h"

namespace support {

/// For the length of a block, libc looks for locales in a directory of the test's own, in which the named ones are made
/// with UTF-8 ("en_US" as "en_US.UTF-8"). Where one cannot be made, because localedef or its sources (Debian: locales) are
/// missing, libc looks where it always does.
///
/// The locale that the process had is in force again at the end.
class ScopedLocales {
 public:
    explicit ScopedLocales(std::initializer_list<const char*> names)
        : m_LocaleBefore(setlocale(LC_ALL, nullptr)), m_fgMade(true) {
        if (const char* const pszBefore = getenv(kVariable)) {
            m_PathBefore = pszBefore;
        }
        for (const char* const pszName : names) {
            m_fgMade = m_fgMade && Make(pszName);
        }
        if (m_fgMade) {
            setenv(kVariable, m_Directory.Path().c_str(), 1);
        }
    }
    ~ScopedLocales() {
        if (m_PathBefore) {
            setenv(kVariable, m_PathBefore->c_str(), 1);
        } else {
            unsetenv(kVariable);
        }
        setlocale(LC_ALL, m_LocaleBefore.c_str());
    }
    ScopedLocales(const ScopedLocales&) = delete;
    ScopedLocales& operator=(const ScopedLocales&) = delete;

 private:
    static constexpr const char* kVariable = "LOCPATH";

    /// A warning is an end with another status than 0; what counts is what is there then.
    bool Make(const std::string& strName) const {
        const std::string strTarget = m_Directory.Entry(strName + ".UTF-8");
        const std::string strCommand = "localedef --no-archive -f UTF-8 -i " + strName + " " + strTarget;
        return std::system((strCommand + " >/dev/null 2>&1").c_str()) == 0 ||
               access((strTarget + "/LC_IDENTIFICATION").c_str(), R_OK) == 0;
    }

    const ScopedDirectory m_Directory;
    const std::string m_LocaleBefore;
    std::optional<std::string> m_PathBefore;
    bool m_fgMade;
};

}  // namespace support

#endif  // KALVOREN_TESTS_LOCALES_H
