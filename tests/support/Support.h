// What the tests share: the check switch for the length of a test, failing checks, standard error, scratch directories.
#ifndef KALVOREN_TESTS_SUPPORT_H
#define KALVOREN_TESTS_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "KAssert.h"
#include "KDebug.h"

namespace support {

/// Turns the checks on or off and puts them back at the end of the block.
class ScopedChecks {
 public:
    explicit ScopedChecks(bool fgActive) : m_fgBefore(KAssert::GetActive()) { KAssert::SetActive(fgActive); }
    ~ScopedChecks() { KAssert::SetActive(m_fgBefore); }
    ScopedChecks(const ScopedChecks&) = delete;
    ScopedChecks& operator=(const ScopedChecks&) = delete;

 private:
    bool m_fgBefore;
};

/// Sets the debug level and puts it back at the end of the block.
class ScopedLevel {
 public:
    explicit ScopedLevel(int nLevel) : m_nBefore(g_eDebugLevel) { g_eDebugLevel = nLevel; }
    ~ScopedLevel() { g_eDebugLevel = m_nBefore; }
    ScopedLevel(const ScopedLevel&) = delete;
    ScopedLevel& operator=(const ScopedLevel&) = delete;

 private:
    int m_nBefore;
};

/// Runs a piece of code and returns what it wrote to standard error, stamps and all.
template <typename Code>
std::string StderrOf(Code&& code) {
    testing::internal::CaptureStderr();
    std::forward<Code>(code)();
    return testing::internal::GetCapturedStderr();
}

/// The pattern of a log line's stamp, for testing::ContainsRegex and testing::MatchesRegex.
inline std::string StampPattern() {
    return "Log\\[[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{6} [0-6]\\]";
}

/// A directory of the test's own, gone with everything in it at the end of the block.
class ScopedDirectory {
 public:
    ScopedDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kalvoren-test-XXXXXX").string();
        const char* const pszMade = mkdtemp(pattern.data());
        EXPECT_NE(pszMade, nullptr);
        m_Path = pattern;
    }
    ~ScopedDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_Path, ignored);
    }
    ScopedDirectory(const ScopedDirectory&) = delete;
    ScopedDirectory& operator=(const ScopedDirectory&) = delete;

    const std::string& Path() const { return m_Path; }
    /// The path of an entry in the directory.
    std::string Entry(const std::string& name) const { return m_Path + "/" + name; }
    /// Writes a file into the directory and returns its path.
    std::string File(const std::string& name, const std::string& content) const {
        std::ofstream(Entry(name), std::ios::binary) << content;
        return Entry(name);
    }

 private:
    std::string m_Path;
};

/// The content of a file; empty when it cannot be read.
inline std::string ContentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// Whether there is an entry by this path, be it a link that leads nowhere.
inline bool Exists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

/// Matches what a failed check with exactly this condition, source and signature writes to standard error.
inline testing::Matcher<const std::string&> ReportOfCheck(const std::string& condition, const std::string& source,
                                                          const std::string& signature) {
    return testing::AllOf(testing::ContainsRegex(": " + source + ":[0-9]+: "),
                          testing::HasSubstr(": " + signature + ": Assertion `" + condition + "' failed."));
}

}  // namespace support

/// Expects that with the checks on, a statement ends the process through a failed check with exactly this condition,
/// source and signature.
#define EXPECT_CHECK_FAILS(statement, condition, source, signature) \
    EXPECT_EXIT(                                                    \
        {                                                           \
            KAssert::SetActive(true);                               \
            statement;                                              \
        },                                                          \
        testing::KilledBySignal(SIGABRT), support::ReportOfCheck(condition, source, signature))

#endif  // KALVOREN_TESTS_SUPPORT_H
