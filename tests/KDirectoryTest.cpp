#include "KDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/Descriptors.h"
#include "support/FailingMalloc.h"
#include "support/FailingNew.h"
#include "support/Interpose.h"
#include "support/LogLines.h"
#include "support/PointerLeftBy.h"
#include "support/Support.h"
#include "support/Texts.h"
#include "support/Umask.h"

using support::Exists;
using support::LogOf;
using support::ScopedChecks;
using support::ScopedDirectory;
using support::ScopedLevel;
using support::ScopedNoMalloc;
using support::ScopedNoMemory;
using support::ScopedUmask;
using support::StderrOf;
using support::TextOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

constexpr const char* kSource = "src/api/KDirectory";

// ------------------------------------------------------------------------------- What the system does in a test's stead

/// What the functions in front of libc's do for this thread, and what they saw.
struct System {
    DIR* pOpened = nullptr;           ///< What the last opendir gave.
    int nClosed = 0;                  ///< How often closedir was called.
    int nCloseError = 0;              ///< Not 0: closedir closes, but fails with it.
    int nDescriptorError = 0;         ///< Not 0: dirfd fails with it.
    int nStreamError = 0;             ///< Not 0: fdopendir fails with it.
    int nStatError = 0;               ///< Not 0: stat fails with it.
    int nEntryStatError = 0;          ///< Not 0: fstatat fails with it for the name strEntryStatFails.
    std::string strEntryStatFails;    ///< As above.
    bool fgEntryStatFollows = false;  ///< Whether fstatat tells about what a link leads to.
    std::function<void(const std::string&)> onEntryStat;  ///< Called with an entry's name when fstatat has its status.
    std::optional<struct stat> status;                    ///< What stat gives, whatever the path.
    std::optional<unsigned char> kind;                    ///< The kind that readdir gives every entry.
    std::vector<std::string> read;                        ///< The names that readdir gave.
    bool fgRefuse = false;                                ///< Whether to refuse to open or delete anything.
    std::vector<std::string> refused;                     ///< The paths refused.
};

thread_local System t_System;

/// Puts everything back at the end of the block.
class ScopedSystem {
 public:
    ScopedSystem() { t_System = System(); }
    ~ScopedSystem() { t_System = System(); }
    ScopedSystem(const ScopedSystem&) = delete;
    ScopedSystem& operator=(const ScopedSystem&) = delete;

    System* operator->() const { return &t_System; }
};

/// Fails a call with an error.
int FailWith(int nError) {
    errno = nError;
    return -1;
}

/// Whether a call is to be noted and refused.
bool IsRefused(const char* pszPath) {
    if (t_System.fgRefuse) {
        t_System.refused.push_back(pszPath);
        errno = ENOENT;
    }
    return t_System.fgRefuse;
}

// With 64-bit file offsets on a 32-bit machine, libc has these functions under other names.
#if defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64
constexpr const char* kReadDir = "readdir64";
constexpr const char* kStat = "stat64";
constexpr const char* kEntryStat = "fstatat64";
constexpr const char* kOpenEntry = "openat64";
#else
constexpr const char* kReadDir = "readdir";
constexpr const char* kStat = "stat";
constexpr const char* kEntryStat = "fstatat";
constexpr const char* kOpenEntry = "openat";
#endif

}  // namespace

extern "C" DIR* opendir(const char* pszPath) {
    static const auto pNext = support::NextFunction(&opendir, "opendir");
    return IsRefused(pszPath) ? nullptr : t_System.pOpened = pNext(pszPath);
}

extern "C" int closedir(DIR* pDirectory) {
    static const auto pNext = support::NextFunction(&closedir, "closedir");
    ++t_System.nClosed;
    const int nResult = pNext(pDirectory);
    return t_System.nCloseError != 0 ? FailWith(t_System.nCloseError) : nResult;
}

extern "C" DIR* fdopendir(int nDescriptor) {
    static const auto pNext = support::NextFunction(&fdopendir, "fdopendir");
    if (t_System.nStreamError != 0) {
        errno = t_System.nStreamError;
        return nullptr;
    }
    return pNext(nDescriptor);
}

extern "C" int dirfd(DIR* pDirectory) noexcept {
    static const auto pNext = support::NextFunction(&dirfd, "dirfd");
    return t_System.nDescriptorError != 0 ? FailWith(t_System.nDescriptorError) : pNext(pDirectory);
}

extern "C" dirent* readdir(DIR* pDirectory) {
    static const auto pNext = support::NextFunction(&readdir, kReadDir);
    dirent* const pEntry = pNext(pDirectory);
    if (pEntry != nullptr && t_System.kind) {
        pEntry->d_type = *t_System.kind;
    }
    if (pEntry != nullptr) {
        t_System.read.push_back(pEntry->d_name);
    }
    return pEntry;
}

extern "C" int stat(const char* __restrict pszPath, struct stat* __restrict pStatus) noexcept {
    static const auto pNext = support::NextFunction(static_cast<int (*)(const char*, struct stat*)>(&stat), kStat);
    if (t_System.nStatError != 0) {
        return FailWith(t_System.nStatError);
    }
    if (t_System.status) {
        *pStatus = *t_System.status;
        return 0;
    }
    return pNext(pszPath, pStatus);
}

extern "C" int fstatat(int nDirectory, const char* __restrict pszName, struct stat* __restrict pStatus,
                       int nFlags) noexcept {
    static const auto pNext =
        support::NextFunction(static_cast<int (*)(int, const char*, struct stat*, int)>(&fstatat), kEntryStat);
    if (t_System.nEntryStatError != 0 && pszName == t_System.strEntryStatFails) {
        return FailWith(t_System.nEntryStatError);
    }
    const int nResult = pNext(nDirectory, pszName, pStatus, t_System.fgEntryStatFollows ? 0 : nFlags);
    if (t_System.onEntryStat) {
        t_System.onEntryStat(pszName);
    }
    return nResult;
}

extern "C" int openat(int nDirectory, const char* pszName, int nFlags, ...) {
    static const auto pNext = support::NextFunction(&openat, kOpenEntry);
    va_list arguments;
    va_start(arguments, nFlags);
    const mode_t nMode = (nFlags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return IsRefused(pszName) ? -1 : pNext(nDirectory, pszName, nFlags, nMode);
}

extern "C" int unlinkat(int nDirectory, const char* pszName, int nFlags) noexcept {
    static const auto pNext = support::NextFunction(&unlinkat, "unlinkat");
    return IsRefused(pszName) ? -1 : pNext(nDirectory, pszName, nFlags);
}

extern "C" int rmdir(const char* pszPath) noexcept {
    static const auto pNext = support::NextFunction(&rmdir, "rmdir");
    return IsRefused(pszPath) ? -1 : pNext(pszPath);
}

extern "C" int remove(const char* pszPath) noexcept {
    static const auto pNext = support::NextFunction(static_cast<int (*)(const char*)>(&remove), "remove");
    return IsRefused(pszPath) ? -1 : pNext(pszPath);
}

namespace {

// ------------------------------------------------------------------------------------------------------- Small helpers

KPath PathOf(const std::string& text) {
    return KPath(text.c_str());
}

/// A path without any change to its text.
KPath PathAsItStands(const std::string& text) {
    KPath path;
    path.SetPath(text.c_str());
    return path;
}

KPath DirectoryPath(const std::string& text) {
    KPath path = PathOf(text);
    path.SetType(KPath::TYPE_DIRECTORY);
    return path;
}

/// A text as long as this, one that no system path can hold.
KPath PathOfLength(std::size_t nLength) {
    return PathOf("/" + std::string(nLength - 1, 'x'));
}
constexpr std::size_t kTooLong = 2048;

std::vector<std::string> TextsOf(const KList<KPath>& list) {
    std::vector<std::string> texts;
    KList<KPath>::Reader reader(list);
    while (const KPath* const pPath = reader.Next()) {
        texts.push_back(TextOf(*pPath));
    }
    return texts;
}

std::vector<std::string> EntriesOf(KDirectory& directory) {
    KList<KPath> entries;
    EXPECT_TRUE(directory.ReadAll(entries));
    return TextsOf(entries);
}

/// The kind that a directory holds for an entry; nothing when it has no such entry.
std::optional<KPath::Type> TypeOf(KDirectory& directory, const std::string& name) {
    KPath entry;
    for (int i = 0; directory.Read(i, entry); ++i) {
        if (TextOf(entry) == name) {
            return entry.GetType();
        }
    }
    return std::nullopt;
}

/// "%x" of a handle.
std::string Hex(const void* pHandle) {
    char szText[16];
    std::snprintf(szText, sizeof szText, "%x", static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(pHandle)));
    return szText;
}

/// Nothing but errors is written for the length of a test.
class KDirectoryTest : public testing::Test {
 protected:
    ScopedLevel m_ErrorsOnly{2};
    ScopedSystem m_System;
};

bool OpenQuietly(KDirectory& directory, const std::string& path) {
    KPath opened = PathOf(path);
    return directory.Open(opened);
}

/// A working directory for the length of a block.
class ScopedWorkingDirectory {
 public:
    explicit ScopedWorkingDirectory(const std::string& path) : m_Before(fs::current_path()) { fs::current_path(path); }
    ~ScopedWorkingDirectory() { fs::current_path(m_Before); }
    ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
    ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

 private:
    fs::path m_Before;
};

mode_t ModeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

/// Standard input, put back at the end of the block where it was open.
class ScopedInput {
 public:
    ScopedInput() : m_nSaved(dup(STDIN_FILENO)) {}
    ~ScopedInput() {
        Close();
        if (m_nSaved >= 0) {
            dup2(m_nSaved, STDIN_FILENO);
            close(m_nSaved);
        }
    }
    ScopedInput(const ScopedInput&) = delete;
    ScopedInput& operator=(const ScopedInput&) = delete;

    /// What is opened next has its number.
    void Close() const { close(STDIN_FILENO); }

 private:
    int m_nSaved;
};

/// A directory without its record: made while memory is lacking.
class WithoutRecord {
 public:
    WithoutRecord() : m_pDirectory(nullptr) {
        const ScopedChecks off(false);
        const ScopedNoMemory noMemory;
        m_pDirectory = new (m_Storage) KDirectory();
    }
    ~WithoutRecord() {
        const ScopedChecks off(false);
        m_pDirectory->~KDirectory();
    }
    WithoutRecord(const WithoutRecord&) = delete;
    WithoutRecord& operator=(const WithoutRecord&) = delete;

    KDirectory* operator->() const { return m_pDirectory; }

 private:
    alignas(KDirectory) unsigned char m_Storage[sizeof(KDirectory)];
    KDirectory* m_pDirectory;
};

}  // namespace

// ------------------------------------------------------------------------------------------------------------ The class

TEST_F(KDirectoryTest, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<KDirectory>::value);
}

TEST_F(KDirectoryTest, ItsEnumerationsHaveTheirNumbers) {
    EXPECT_EQ(KDirectory::DIR_SINGLE, 0);
    EXPECT_EQ(KDirectory::DIR_RECURSIVE, 1);
    EXPECT_EQ(KDirectory::SORT_ASCENDING, 0);
    EXPECT_EQ(KDirectory::SORT_DESCENDING, 1);
    EXPECT_EQ(KDirectory::SORT_ASCENDING_NOCASE, 2);
    EXPECT_EQ(KDirectory::SORT_DESCENDING_NOCASE, 3);
    EXPECT_EQ(KDirectory::DIR_STAT_FAILED, 0);
    EXPECT_EQ(KDirectory::DIR_CANNOT_OPEN, 1);
    EXPECT_EQ(KDirectory::DIR_NOT_DIRECTORY, 2);
    EXPECT_EQ(KDirectory::DIR_NOT_PERMITTED, 3);
    EXPECT_EQ(KDirectory::DIR_CAN_HANDLE, 4);
}

TEST_F(KDirectoryTest, StartUpAndShutDownDoNothing) {
    const ScopedLevel all(0);
    EXPECT_EQ(StderrOf([] {
                  KDirectory::Init();
                  KDirectory::Init();
                  KDirectory::Deinit();
                  KDirectory::Deinit();
              }),
              "");
}

TEST_F(KDirectoryTest, IsMadeWithoutEntries) {
    KDirectory directory;
    KPath entry = PathOf("unchanged");
    EXPECT_EQ(directory.GetCount(), 0);
    EXPECT_FALSE(directory.Read(0, entry));
    EXPECT_EQ(TextOf(entry), "unchanged");
}

TEST_F(KDirectoryTest, DestroyingOneThatWasNeverOpenedLogsAnError) {
    EXPECT_EQ(LogOf([] { const KDirectory directory; }), "Error****: Directory Close , Handle[0] is Empty \n");
}

TEST_F(KDirectoryTest, DestroyingOneThatWasClosedLogsAnError) {
    const ScopedDirectory scratch;
    EXPECT_EQ(LogOf([&] {
                  KDirectory directory;
                  EXPECT_TRUE(OpenQuietly(directory, scratch.Path()));
                  EXPECT_TRUE(directory.Close());
              }),
              "Error****: Directory Close " + scratch.Path() + ", Handle[0] is Empty \n");
    EXPECT_EQ(m_System->nClosed, 1);
}

TEST_F(KDirectoryTest, DestroyingAnOpenOneClosesIt) {
    const ScopedDirectory scratch;
    const ScopedLevel all(0);
    const std::string lines = LogOf([&] {
        KDirectory directory;
        OpenQuietly(directory, scratch.Path());
    });
    EXPECT_EQ(m_System->nClosed, 1);
    EXPECT_THAT(lines, testing::EndsWith("Log: Directory Close " + scratch.Path() + ", Handle[0] \n"));
}

TEST_F(KDirectoryTest, CannotBeCopied) {
    EXPECT_CHECK_FAILS(
        {
            const KDirectory directory;
            const KDirectory copy(directory);
        },
        "0", kSource, "KDirectory::KDirectory(const KDirectory&)");
}

TEST_F(KDirectoryTest, CannotBeAssigned) {
    EXPECT_CHECK_FAILS(
        {
            const KDirectory directory;
            KDirectory target;
            target = directory;
        },
        "0", kSource, "KDirectory& KDirectory::operator=(const KDirectory&)");
}

TEST_F(KDirectoryTest, ACopyWithTheChecksOffIsClosedAndEmpty) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KDirectory copy(directory);
    EXPECT_EQ(copy.GetCount(), 0);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(copy.Close()); }), "Error****: Directory Close , Handle[0] is Empty \n");
    EXPECT_TRUE(directory.Close());
}

TEST_F(KDirectoryTest, AnAssignmentWithTheChecksOffDoesNothing) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KDirectory target;
    EXPECT_EQ(&(target = directory), &target);
    EXPECT_EQ(target.GetCount(), 0);
    EXPECT_FALSE(target.Close());
    EXPECT_TRUE(directory.Close());
}

TEST_F(KDirectoryTest, WithoutItsRecordAndTheChecksMostOperationsAreTrueAndDoNothing) {
    const ScopedDirectory scratch;
    const WithoutRecord directory;
    KPath path = PathOf(scratch.Path());
    KPath entry = PathOf("unchanged");
    KList<KPath> entries;
    EXPECT_EQ(LogOf([&] {
                  EXPECT_TRUE(directory->Open(path));
                  EXPECT_TRUE(directory->Close());
                  EXPECT_FALSE(directory->Read(0, entry));
                  EXPECT_TRUE(directory->ReadAll(entries));
                  EXPECT_TRUE(directory->ReadFiles(entries));
                  EXPECT_TRUE(directory->ReadDirectories(entries));
              }),
              "");
    EXPECT_EQ(directory->GetCount(), 0);
    EXPECT_EQ(entries.GetCount(), 0);
    EXPECT_EQ(TextOf(entry), "unchanged");
}

TEST_F(KDirectoryTest, WithoutItsRecordEveryOperationFailsItsCheck) {
    const WithoutRecord directory;
    KPath path = PathOf("/");
    KList<KPath> entries;
    EXPECT_CHECK_FAILS(directory->Open(path), "pInfo", kSource, "bool KDirectory::Open(KPath&)");
    EXPECT_CHECK_FAILS(directory->Close(), "pInfo", kSource, "bool KDirectory::Close()");
    EXPECT_CHECK_FAILS(directory->Read(0, path), "pInfo", kSource, "bool KDirectory::Read(int, KPath&)");
    EXPECT_CHECK_FAILS(directory->ReadAll(entries), "pInfo", kSource, "bool KDirectory::ReadAll(KList<KPath>&)");
    EXPECT_CHECK_FAILS(directory->ReadFiles(entries), "pInfo", kSource, "bool KDirectory::ReadFiles(KList<KPath>&)");
    EXPECT_CHECK_FAILS(directory->ReadDirectories(entries), "pInfo", kSource,
                       "bool KDirectory::ReadDirectories(KList<KPath>&)");
}

// -------------------------------------------------------------------------------------------------------------- Opening

TEST_F(KDirectoryTest, OpenListsTheEntriesWithoutRegardToCase) {
    const ScopedDirectory scratch;
    for (const char* const pszName : {"b", "A", "c"}) {
        scratch.File(pszName, "");
    }
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    EXPECT_THAT(EntriesOf(directory), ElementsAre(".", "..", "A", "b", "c"));
    EXPECT_EQ(directory.GetCount(), 5);
}

TEST_F(KDirectoryTest, OpenTakesAPathThatIsMarkedAsADirectory) {
    const ScopedDirectory scratch;
    scratch.File("file", "");
    KPath path = DirectoryPath(scratch.Path());
    KDirectory directory;
    ASSERT_TRUE(directory.Open(path));
    EXPECT_THAT(EntriesOf(directory), ElementsAre(".", "..", "file"));
}

TEST_F(KDirectoryTest, EntriesHaveTheKindsThatTheSystemReports) {
    const ScopedDirectory scratch;
    scratch.File("file", "");
    fs::create_directory(scratch.Entry("directory"));
    fs::create_symlink("file", scratch.Entry("link"));
    fs::create_symlink("directory", scratch.Entry("link to directory"));
    fs::create_symlink("nowhere", scratch.Entry("dangling link"));
    ASSERT_EQ(mkfifo(scratch.Entry("pipe").c_str(), 0600), 0);
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    if (TypeOf(directory, ".") == KPath::TYPE_OTHER) {
        GTEST_SKIP() << "the file system of " << scratch.Path() << " does not report kinds";
    }
    EXPECT_EQ(TypeOf(directory, "."), KPath::TYPE_DIRECTORY);
    EXPECT_EQ(TypeOf(directory, ".."), KPath::TYPE_DIRECTORY);
    EXPECT_EQ(TypeOf(directory, "directory"), KPath::TYPE_DIRECTORY);
    EXPECT_EQ(TypeOf(directory, "file"), KPath::TYPE_FILE);
    EXPECT_EQ(TypeOf(directory, "link"), KPath::TYPE_LINK);
    EXPECT_EQ(TypeOf(directory, "link to directory"), KPath::TYPE_LINK);
    EXPECT_EQ(TypeOf(directory, "dangling link"), KPath::TYPE_LINK);
    EXPECT_EQ(TypeOf(directory, "pipe"), KPath::TYPE_OTHER);
}

TEST_F(KDirectoryTest, EveryKindThatIsNoDirectoryFileOrLinkIsAnother) {
    const std::pair<unsigned char, KPath::Type> kinds[] = {
        {DT_DIR, KPath::TYPE_DIRECTORY}, {DT_REG, KPath::TYPE_FILE},   {DT_LNK, KPath::TYPE_LINK},
        {DT_FIFO, KPath::TYPE_OTHER},    {DT_SOCK, KPath::TYPE_OTHER}, {DT_BLK, KPath::TYPE_OTHER},
        {DT_CHR, KPath::TYPE_OTHER},     {DT_WHT, KPath::TYPE_OTHER},  {DT_UNKNOWN, KPath::TYPE_OTHER},
        {0xFF, KPath::TYPE_OTHER}};
    const ScopedDirectory scratch;
    scratch.File("entry", "");
    for (const auto& [nKind, eType] : kinds) {
        m_System->kind = nKind;
        KDirectory directory;
        ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
        EXPECT_EQ(TypeOf(directory, "entry"), eType) << static_cast<int>(nKind);
    }
}

TEST_F(KDirectoryTest, NamesAreKeptAsTheSystemReportsThem) {
    const std::vector<std::string> names = {
        "%s%n%d", "..\\up", "a\\b", "name with spaces ", "\xC3\xA4\xFF", "line\nfeed", std::string(255, 'z')};
    const ScopedDirectory scratch;
    for (const std::string& name : names) {
        scratch.File(name, "");
    }
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    EXPECT_EQ(directory.GetCount(), static_cast<int>(names.size()) + 2);
    for (const std::string& name : names) {
        EXPECT_TRUE(TypeOf(directory, name)) << name;
    }
}

TEST_F(KDirectoryTest, OpenRefusesAPathWithoutTextAndLogsNothing) {
    KDirectory directory;
    KPath never;
    KPath empty = PathOf("");
    KPath emptyDirectory = DirectoryPath("");  // As a system path it is the root.
    EXPECT_EQ(LogOf([&] {
                  EXPECT_FALSE(directory.Open(never));
                  EXPECT_FALSE(directory.Open(empty));
                  EXPECT_FALSE(directory.Open(emptyDirectory));
              }),
              "");
    EXPECT_EQ(directory.GetCount(), 0);
}

TEST_F(KDirectoryTest, OpenLogsNothingAboutADirectoryThatCannotBeOpened) {
    const ScopedDirectory scratch;
    const ScopedLevel all(0);
    const std::string file = scratch.File("file", "");
    KDirectory directory;
    EXPECT_EQ(LogOf([&] {
                  EXPECT_FALSE(OpenQuietly(directory, scratch.Entry("missing")));
                  EXPECT_FALSE(OpenQuietly(directory, file));
              }),
              "");
    EXPECT_EQ(directory.GetCount(), 0);
}

TEST_F(KDirectoryTest, AnOverlongPathCannotBeOpenedWithTheChecksOff) {
    KDirectory directory;
    KPath path = PathOfLength(kTooLong);
    EXPECT_FALSE(directory.Open(path));
}

TEST_F(KDirectoryTest, AnOverlongPathFailsThePathsCheck) {
    KPath path = PathOfLength(kTooLong);
    EXPECT_CHECK_FAILS(
        {
            KDirectory directory;
            directory.Open(path);
        },
        "nLen < 2048", "src/KPath", "char* KPath::GetSystemPath(KPath::ConvPathTo)");
}

TEST_F(KDirectoryTest, ThePathIsTakenEvenWhenItCannotBeOpened) {
    const ScopedDirectory scratch;
    KDirectory directory;
    EXPECT_FALSE(OpenQuietly(directory, scratch.Entry("missing")));
    EXPECT_EQ(LogOf([&] { directory.Close(); }),
              "Error****: Directory Close " + scratch.Entry("missing") + ", Handle[0] is Empty \n");
}

TEST_F(KDirectoryTest, OpeningAnOpenOneFailsAndTakesThePathButNoEntries) {
    const ScopedDirectory scratch;
    scratch.File("file", "");
    fs::create_directory(scratch.Entry("other"));
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    const std::string handle = Hex(m_System->pOpened);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(OpenQuietly(directory, scratch.Entry("other"))); }),
              "Error****: Directory Read " + scratch.Entry("other") + ", Handle[" + handle + "] is Read\n");
    EXPECT_THAT(EntriesOf(directory), ElementsAre(".", "..", "file", "other"));
    const ScopedLevel all(0);
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(directory.Close()); }),
              "Log: Directory Close " + scratch.Entry("other") + ", Handle[0] \n");
}

TEST_F(KDirectoryTest, OpeningAnOpenOneWithoutAPathLogsNothing) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KPath never;
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(directory.Open(never)); }), "");
}

TEST_F(KDirectoryTest, TheDirectoryStaysOpenUntilItIsClosed) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    EXPECT_EQ(m_System->nClosed, 0);
    EXPECT_TRUE(directory.Close());
    EXPECT_EQ(m_System->nClosed, 1);
}

TEST_F(KDirectoryTest, EveryEntryIsLoggedInTheOrderOfTheSystem) {
    const ScopedDirectory scratch;
    for (const char* const pszName : {"b", "%d", "A"}) {
        scratch.File(pszName, "");
    }
    const ScopedLevel all(0);
    KDirectory directory;
    const std::string lines = LogOf([&] { EXPECT_TRUE(OpenQuietly(directory, scratch.Path())); });

    const std::string handle = "Handle[" + Hex(m_System->pOpened) + "]";
    const std::size_t nNumber = lines.find("is Alread Read ") + std::strlen("is Alread Read ");
    int nCounter = std::atoi(lines.c_str() + nNumber);
    std::string expected;
    for (const std::string& name : m_System->read) {
        expected +=
            "Log: Directory Read " + name + ", " + handle + " is Alread Read " + std::to_string(nCounter++) + "\n";
    }
    expected += "Log: Directory Open " + scratch.Path() + ", " + handle + "\n";
    EXPECT_EQ(m_System->read.size(), 5u);
    EXPECT_EQ(lines, expected);
}

namespace {

/// The number that the first line of an opening ends in.
int FirstCounter(const std::string& lines) {
    const std::string before = "is Alread Read ";
    const std::size_t nFound = lines.find(before);
    return nFound != std::string::npos ? std::atoi(lines.c_str() + nFound + before.size()) : -1;
}

/// Opens directories in a fresh process and ends it with 0 when the counter goes as it should.
[[noreturn]] void ExitByTheCounter() {
    KDirectory first;
    KDirectory unlogged;
    KDirectory last;
    g_eDebugLevel = 0;
    const int nFirst = FirstCounter(StderrOf([&] { OpenQuietly(first, "/"); }));
    g_eDebugLevel = 3;
    OpenQuietly(unlogged, "/");
    const int nRead = static_cast<int>(t_System.read.size());
    g_eDebugLevel = 0;
    const int nLast = FirstCounter(StderrOf([&] { OpenQuietly(last, "/"); }));
    _exit(nFirst == 0 && nRead > 0 && nLast == nRead ? 0 : 1);
}

}  // namespace

TEST_F(KDirectoryTest, TheCounterInTheLogStartsAtZeroAndCountsTheEntriesThatAllDirectoriesRead) {
    EXPECT_EXIT(ExitByTheCounter(), testing::ExitedWithCode(0), "");
}

TEST_F(KDirectoryTest, OpeningAnotherAfterClosingAddsItsEntriesToTheOldOnes) {
    const ScopedDirectory scratch;
    fs::create_directory(scratch.Entry("first"));
    fs::create_directory(scratch.Entry("second"));
    scratch.File("first/b", "");
    scratch.File("first/d", "");
    scratch.File("second/a", "");
    scratch.File("second/c", "");
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Entry("first")));
    ASSERT_TRUE(directory.Close());
    ASSERT_TRUE(OpenQuietly(directory, scratch.Entry("second")));
    EXPECT_THAT(EntriesOf(directory), ElementsAre(".", ".", "..", "..", "a", "b", "c", "d"));
}

TEST_F(KDirectoryTest, AFailedOpenKeepsTheEntriesOfTheOneBefore) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    ASSERT_TRUE(directory.Close());
    ASSERT_FALSE(OpenQuietly(directory, scratch.Entry("missing")));
    EXPECT_THAT(EntriesOf(directory), ElementsAre(".", ".."));
}

TEST_F(KDirectoryTest, AnEntryWhoseNameFindsNoMemoryIsLeftOut) {
    const ScopedDirectory scratch;
    scratch.File("name", "");
    m_System->read.reserve(1000);  // What is noted here takes no memory meanwhile.
    KPath path = PathOf(scratch.Path());
    int nIncomplete = 0;
    for (int nStillWorks = 0, nRefused = 1; nRefused > 0; ++nStillWorks) {
        ASSERT_LT(nStillWorks, 100);
        KDirectory directory;
        bool fgOpened = false;
        {
            const ScopedNoMalloc noMemory(nStillWorks, 1);
            fgOpened = directory.Open(path);
            nRefused = noMemory.Refused();
        }
        const std::vector<std::string> entries = EntriesOf(directory);
        EXPECT_THAT(entries, testing::Each(testing::AnyOf(".", "..", "name"))) << nStillWorks;
        nIncomplete += fgOpened && entries.size() == 2 ? 1 : 0;
    }
    EXPECT_GE(nIncomplete, 3) << "each entry was to be left out once";
}

TEST_F(KDirectoryTest, NoHandleIsLeftOpen) {
    const ScopedDirectory scratch;
    for (int i = 0; i < 1100; ++i) {  // More than the files that a process usually may have open.
        KDirectory directory;
        ASSERT_TRUE(OpenQuietly(directory, scratch.Path())) << i;
    }
    EXPECT_EQ(m_System->nClosed, 1100);
}

// -------------------------------------------------------------------------------------------------------------- Closing

TEST_F(KDirectoryTest, CloseKeepsTheEntries) {
    const ScopedDirectory scratch;
    scratch.File("file", "");
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    const ScopedLevel all(0);
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(directory.Close()); }),
              "Log: Directory Close " + scratch.Path() + ", Handle[0] \n");
    EXPECT_THAT(EntriesOf(directory), ElementsAre(".", "..", "file"));
}

TEST_F(KDirectoryTest, ClosingTwiceLogsAnError) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    ASSERT_TRUE(directory.Close());
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(directory.Close()); }),
              "Error****: Directory Close " + scratch.Path() + ", Handle[0] is Empty \n");
    EXPECT_EQ(m_System->nClosed, 1);
}

TEST_F(KDirectoryTest, AHandleWithoutADescriptorStaysOpen) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    const std::string handle = Hex(m_System->pOpened);
    m_System->nDescriptorError = EINVAL;
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(directory.Close()); }),
              "Error****: Directory dirfd failed for close " + scratch.Path() + ", Handle[" + handle + "] is Empty \n");
    m_System->nDescriptorError = 0;
    EXPECT_EQ(m_System->nClosed, 0);
    EXPECT_TRUE(directory.Close());
}

TEST_F(KDirectoryTest, ADirectoryThatHasTheNumberOfStandardInputIsClosed) {
    const ScopedDirectory scratch;
    const ScopedInput input;
    input.Close();
    KDirectory directory;
    EXPECT_TRUE(OpenQuietly(directory, scratch.Path()));
    EXPECT_EQ(dirfd(m_System->pOpened), STDIN_FILENO);
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(directory.Close()); }), "");
    EXPECT_FALSE(support::IsOpen(STDIN_FILENO));
}

TEST_F(KDirectoryTest, OneThatIsGoneHasNoRecord) {
    EXPECT_EQ(support::PointerLeftBy<KDirectory>(sizeof(void*)), nullptr);
}

TEST_F(KDirectoryTest, AHandleThatFailedToCloseIsForgotten) {
    const ScopedDirectory scratch;
    const std::string lines = LogOf([&] {
        KDirectory directory;
        ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
        m_System->nCloseError = EIO;
        EXPECT_FALSE(directory.Close());
    });
    // The destructor finds it closed.
    EXPECT_EQ(lines, "Error****: Directory Close " + scratch.Path() + ", Handle[" + Hex(m_System->pOpened) + "] \n" +
                         "Error****: Directory Close " + scratch.Path() + ", Handle[0] is Empty \n");
    EXPECT_EQ(m_System->nClosed, 1);
}

// -------------------------------------------------------------------------------------------------------------- Reading

TEST_F(KDirectoryTest, ReadGivesTheEntryAtAnIndex) {
    const ScopedDirectory scratch;
    scratch.File("file", "");
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KPath entry;
    ASSERT_TRUE(directory.Read(0, entry));
    EXPECT_EQ(TextOf(entry), ".");
    EXPECT_EQ(entry.GetType(), TypeOf(directory, "."));
    ASSERT_TRUE(directory.Read(2, entry));
    EXPECT_EQ(TextOf(entry), "file");
}

TEST_F(KDirectoryTest, ANegativeIndexReadsTheFirstEntry) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KPath entry;
    EXPECT_TRUE(directory.Read(-1, entry));
    EXPECT_EQ(TextOf(entry), ".");
}

TEST_F(KDirectoryTest, PastTheLastEntryThereIsNothingToRead) {
    const ScopedDirectory scratch;
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KPath entry = PathOf("unchanged");
    EXPECT_FALSE(directory.Read(2, entry));
    EXPECT_EQ(TextOf(entry), "unchanged");
}

namespace {

/// An open directory with files, directories and a link in it, of known kinds.
void OpenMixed(KDirectory& directory, const ScopedDirectory& scratch) {
    scratch.File("a file", "");
    scratch.File("c file", "");
    fs::create_directory(scratch.Entry("b directory"));
    fs::create_directory(scratch.Entry("d directory"));
    fs::create_symlink("a file", scratch.Entry("e link"));
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    if (TypeOf(directory, ".") == KPath::TYPE_OTHER) {
        GTEST_SKIP() << "the file system of " << scratch.Path() << " does not report kinds";
    }
}

}  // namespace

TEST_F(KDirectoryTest, ReadAllAppendsEveryEntryWithItsKind) {
    const ScopedDirectory scratch;
    KDirectory directory;
    OpenMixed(directory, scratch);
    KList<KPath> entries;
    entries.Add(PathOf("there before"));
    EXPECT_TRUE(directory.ReadAll(entries));
    EXPECT_THAT(TextsOf(entries),
                ElementsAre("there before", ".", "..", "a file", "b directory", "c file", "d directory", "e link"));
    if (!IsSkipped()) {
        EXPECT_EQ(entries[7]->GetType(), KPath::TYPE_LINK);
    }
}

TEST_F(KDirectoryTest, ReadFilesAppendsTheFilesAlone) {
    const ScopedDirectory scratch;
    KDirectory directory;
    OpenMixed(directory, scratch);
    if (IsSkipped()) {
        return;
    }
    KList<KPath> entries;
    entries.Add(PathOf("there before"));
    EXPECT_TRUE(directory.ReadFiles(entries));
    EXPECT_THAT(TextsOf(entries), ElementsAre("there before", "a file", "c file"));
}

TEST_F(KDirectoryTest, ReadDirectoriesAppendsTheDirectoriesAlone) {
    const ScopedDirectory scratch;
    KDirectory directory;
    OpenMixed(directory, scratch);
    if (IsSkipped()) {
        return;
    }
    KList<KPath> entries;
    entries.Add(PathOf("there before"));
    EXPECT_TRUE(directory.ReadDirectories(entries));
    EXPECT_THAT(TextsOf(entries), ElementsAre("there before", ".", "..", "b directory", "d directory"));
}

TEST_F(KDirectoryTest, ReadFilesWithoutAnyFileAppendsNothingAndIsTrue) {
    const ScopedDirectory scratch;
    fs::create_directory(scratch.Entry("only a directory"));
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KList<KPath> entries;
    EXPECT_TRUE(directory.ReadFiles(entries));
    EXPECT_EQ(entries.GetCount(), 0);
}

TEST_F(KDirectoryTest, ReadingOneThatWasNeverOpenedAppendsNothingAndIsTrue) {
    KDirectory directory;
    KList<KPath> entries;
    EXPECT_TRUE(directory.ReadAll(entries));
    EXPECT_TRUE(directory.ReadFiles(entries));
    EXPECT_TRUE(directory.ReadDirectories(entries));
    EXPECT_EQ(entries.GetCount(), 0);
}

TEST_F(KDirectoryTest, WithoutMemoryReadingLogsAnErrorAndIsFalse) {
    const ScopedDirectory scratch;
    KDirectory directory;
    m_System->kind = DT_REG;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    KDirectory directories;
    m_System->kind = DT_DIR;
    ASSERT_TRUE(OpenQuietly(directories, scratch.Path()));
    const std::string directoriesHandle = Hex(m_System->pOpened);
    ASSERT_TRUE(directory.Close());

    KList<KPath> entries;
    EXPECT_EQ(LogOf([&] {
                  const ScopedNoMalloc noMemory;
                  EXPECT_FALSE(directory.ReadAll(entries));
                  EXPECT_FALSE(directory.ReadFiles(entries));
                  EXPECT_FALSE(directories.ReadDirectories(entries));
              }),
              "Error****: Directory ReadAll Failed " + scratch.Path() + ", Handle[0]\n" +
                  "Error****: Directory ReadFiles Failed " + scratch.Path() + ", Handle[0]\n" +
                  "Error****: Directory ReadFiles Failed " + scratch.Path() + ", Handle[" + directoriesHandle + "]\n");
    EXPECT_EQ(entries.GetCount(), 0);
}

// -------------------------------------------------------------------------------------------------------------- Sorting

namespace {

/// A path in a list to be sorted: its text, if it has one, and a mark by which equals are told apart.
struct Marked {
    std::optional<std::string> text;
    int nMark;

    bool operator==(const Marked& other) const { return text == other.text && nMark == other.nMark; }
};

std::ostream& operator<<(std::ostream& stream, const Marked& marked) {
    return stream << (marked.text ? "\"" + *marked.text + "\"" : "none") << '#' << marked.nMark;
}

std::vector<Marked> MarkedTexts(const std::vector<std::optional<std::string>>& texts) {
    std::vector<Marked> result;
    for (const std::optional<std::string>& text : texts) {
        result.push_back({text, static_cast<int>(result.size())});
    }
    return result;
}

/// The list of these paths; the mark travels as the path's type.
void Fill(KList<KPath>& list, const std::vector<Marked>& paths) {
    KList<KPath>::Appender appender(list);
    for (const Marked& marked : paths) {
        KPath* const pPath = appender.Add();
        pPath->SetPath(marked.text ? KString(marked.text->c_str()) : KString());
        pPath->SetType(static_cast<KPath::Type>(marked.nMark));
    }
}

std::vector<Marked> PathsOf(const KList<KPath>& list) {
    std::vector<Marked> paths;
    KList<KPath>::Reader reader(list);
    while (const KPath* const pPath = reader.Next()) {
        const bool fgText = pPath->GetPath().Length() > 0;
        paths.push_back(
            {fgText ? std::optional<std::string>(TextOf(*pPath)) : std::nullopt, static_cast<int>(pPath->GetType())});
    }
    return paths;
}

/// Whether a method has two paths in this order trade places.
bool TradePlaces(const Marked& left, const Marked& right, KDirectory::SortMethod eMethod) {
    const bool fgBoth = left.text && right.text;
    const int nBytes = fgBoth ? std::strcmp(left.text->c_str(), right.text->c_str()) : 0;
    const int nLetters = fgBoth ? strcasecmp(left.text->c_str(), right.text->c_str()) : -1;
    switch (eMethod) {
        case KDirectory::SORT_ASCENDING:
            return nBytes > 0;
        case KDirectory::SORT_DESCENDING:
            return nBytes < 0;
        case KDirectory::SORT_ASCENDING_NOCASE:
            return nLetters > 0;
        default:
            return nLetters < 0;
    }
}

/// The order that exchanges leave.
std::vector<Marked> Exchanged(std::vector<Marked> paths, KDirectory::SortMethod eMethod) {
    for (std::size_t i = 0; i < paths.size(); ++i) {
        for (std::size_t j = i; j < paths.size(); ++j) {
            if (TradePlaces(paths[i], paths[j], eMethod)) {
                std::swap(paths[i], paths[j]);
            }
        }
    }
    return paths;
}

constexpr KDirectory::SortMethod kMethods[] = {KDirectory::SORT_ASCENDING, KDirectory::SORT_DESCENDING,
                                               KDirectory::SORT_ASCENDING_NOCASE, KDirectory::SORT_DESCENDING_NOCASE};

/// Expects that every method leaves these texts in the order of the exchanges.
void ExpectExchangeOrder(const std::vector<std::optional<std::string>>& texts) {
    const std::vector<Marked> paths = MarkedTexts(texts);
    for (const KDirectory::SortMethod eMethod : kMethods) {
        KList<KPath> list;
        Fill(list, paths);
        ASSERT_TRUE(KDirectory::Sort(list, eMethod));
        ASSERT_EQ(list.GetCount(), static_cast<int>(paths.size()));
        ASSERT_EQ(PathsOf(list), Exchanged(paths, eMethod))
            << "by method " << eMethod << " for " << testing::PrintToString(paths);
    }
}

using Alphabet = std::vector<std::optional<std::string>>;

Alphabet RandomTexts(std::mt19937& random, const Alphabet& alphabet, int nCount) {
    std::uniform_int_distribution<std::size_t> choice(0, alphabet.size() - 1);
    Alphabet texts;
    for (int i = 0; i < nCount; ++i) {
        texts.push_back(alphabet[choice(random)]);
    }
    return texts;
}

/// Texts of few letters in both cases, so that many compare equal without regard to it.
std::string RandomName(std::mt19937& random, int nMaxLength) {
    const std::string letters = "aAbB";
    std::uniform_int_distribution<std::size_t> choice(0, letters.size() - 1);
    std::string name;
    for (int i = std::uniform_int_distribution<int>(1, nMaxLength)(random); i > 0; --i) {
        name += letters[choice(random)];
    }
    return name;
}

}  // namespace

TEST_F(KDirectoryTest, SortOrdersByTheMethod) {
    const std::pair<KDirectory::SortMethod, std::vector<std::string>> cases[] = {
        {KDirectory::SORT_ASCENDING, {"B", "D", "a", "c", "\xE4"}},
        {KDirectory::SORT_DESCENDING, {"\xE4", "c", "a", "D", "B"}},
        {KDirectory::SORT_ASCENDING_NOCASE, {"a", "B", "c", "D", "\xE4"}},
        {KDirectory::SORT_DESCENDING_NOCASE, {"\xE4", "D", "c", "B", "a"}},
    };
    for (const auto& [eMethod, expected] : cases) {
        KList<KPath> list;
        for (const char* const pszText : {"c", "\xE4", "B", "a", "D"}) {
            list.Add(KPath(pszText));
        }
        EXPECT_TRUE(KDirectory::Sort(list, eMethod));
        EXPECT_EQ(TextsOf(list), expected) << eMethod;
    }
}

TEST_F(KDirectoryTest, SortKeepsTheTypeOfEachPath) {
    KList<KPath> list;
    list.Add(DirectoryPath("b"));
    list.Add(PathOf("a"));
    ASSERT_TRUE(KDirectory::Sort(list, KDirectory::SORT_ASCENDING));
    EXPECT_EQ(list[0]->GetType(), KPath::TYPE_NONE);
    EXPECT_EQ(list[1]->GetType(), KPath::TYPE_DIRECTORY);
}

TEST_F(KDirectoryTest, SortLeavesEqualsInTheOrderOfTheExchangesNotAsTheyStood) {
    KList<KPath> list;
    Fill(list, MarkedTexts({"b", "B", "a"}));
    ASSERT_TRUE(KDirectory::Sort(list, KDirectory::SORT_ASCENDING_NOCASE));
    EXPECT_EQ(TextsOf(list), (std::vector<std::string>{"a", "B", "b"}));
}

TEST_F(KDirectoryTest, EveryShortListIsLeftInTheOrderOfTheExchanges) {
    const Alphabet alphabet = {"a", "A", "b", "B", std::nullopt};
    for (std::size_t nCount = 1; nCount <= 5; ++nCount) {
        std::vector<std::size_t> choice(nCount, 0);
        for (bool fgMore = true; fgMore;) {
            Alphabet texts;
            for (const std::size_t i : choice) {
                texts.push_back(alphabet[i]);
            }
            ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(texts));
            fgMore = false;
            for (std::size_t& i : choice) {
                fgMore = ++i < alphabet.size();
                if (fgMore) {
                    break;
                }
                i = 0;
            }
        }
    }
}

TEST_F(KDirectoryTest, RandomListsAreLeftInTheOrderOfTheExchanges) {
    std::mt19937 random(43);
    std::uniform_int_distribution<int> count(1, 60);
    std::uniform_int_distribution<int> longest(1, 6);
    for (int nRound = 0; nRound < 300; ++nRound) {
        const int nLongest = longest(random);
        Alphabet texts;
        for (int i = count(random); i > 0; --i) {
            texts.emplace_back(RandomName(random, nLongest));
        }
        ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(texts));
    }
}

TEST_F(KDirectoryTest, ListsWithPathsWithoutATextAreLeftInTheOrderOfTheExchanges) {
    std::mt19937 random(44);
    std::uniform_int_distribution<int> count(1, 40);
    for (int nRound = 0; nRound < 300; ++nRound) {
        const Alphabet texts =
            RandomTexts(random, {"a", "A", "b", "B", "c", "d", "\xC3", std::nullopt, std::nullopt}, count(random));
        ASSERT_NO_FATAL_FAILURE(ExpectExchangeOrder(texts));
    }
}

TEST_F(KDirectoryTest, ALongListIsLeftInTheOrderOfTheExchanges) {
    std::mt19937 random(45);
    Alphabet texts;
    for (int i = 0; i < 1500; ++i) {
        texts.emplace_back(RandomName(random, 6));
    }
    ExpectExchangeOrder(texts);
}

TEST_F(KDirectoryTest, ByBytesAPathWithoutATextStaysWhereItStands) {
    for (const KDirectory::SortMethod eMethod : {KDirectory::SORT_ASCENDING, KDirectory::SORT_DESCENDING}) {
        KList<KPath> list;
        Fill(list, MarkedTexts({"c", std::nullopt, "a", "b"}));
        ASSERT_TRUE(KDirectory::Sort(list, eMethod));
        EXPECT_EQ(PathsOf(list)[1], (Marked{std::nullopt, 1}));
    }
}

TEST_F(KDirectoryTest, WithoutRegardToCaseAComparisonWithAPathWithoutATextSaysLesser) {
    // Upwards nothing trades places with it; downwards everything does.
    KList<KPath> upwards;
    Fill(upwards, MarkedTexts({"c", std::nullopt, "a", "b"}));
    ASSERT_TRUE(KDirectory::Sort(upwards, KDirectory::SORT_ASCENDING_NOCASE));
    EXPECT_EQ(TextsOf(upwards), (std::vector<std::string>{"a", "", "b", "c"}));

    KList<KPath> downwards;
    Fill(downwards, MarkedTexts({"a", std::nullopt}));
    ASSERT_TRUE(KDirectory::Sort(downwards, KDirectory::SORT_DESCENDING_NOCASE));
    EXPECT_EQ(TextsOf(downwards), (std::vector<std::string>{"", "a"}));
    ASSERT_TRUE(KDirectory::Sort(downwards, KDirectory::SORT_DESCENDING_NOCASE));
    EXPECT_EQ(TextsOf(downwards), (std::vector<std::string>{"a", ""}));
}

namespace {

/// The order in which Open leaves these names.
std::vector<std::string> OrderOfOpen(const std::vector<std::string>& names) {
    std::vector<std::string> ordered;
    for (const Marked& marked :
         Exchanged(MarkedTexts(Alphabet(names.begin(), names.end())), KDirectory::SORT_ASCENDING_NOCASE)) {
        ordered.push_back(*marked.text);
    }
    return ordered;
}

}  // namespace

TEST_F(KDirectoryTest, OpenLeavesTheEntriesAsExchangesDoThatStartFromTheOrderOfTheSystem) {
    const ScopedDirectory scratch;
    std::mt19937 random(46);
    for (int i = 0; i < 120; ++i) {
        scratch.File(RandomName(random, 5), "");
    }
    m_System->read.clear();
    KDirectory directory;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    const std::vector<std::string> ordered = OrderOfOpen(m_System->read);
    EXPECT_EQ(EntriesOf(directory), ordered);

    // Another time, from the order that they have now, with the new ones behind them.
    ASSERT_TRUE(directory.Close());
    m_System->read = ordered;
    ASSERT_TRUE(OpenQuietly(directory, scratch.Path()));
    EXPECT_EQ(EntriesOf(directory), OrderOfOpen(m_System->read));
}

TEST_F(KDirectoryTest, SortingAnEmptyListIsFalse) {
    KList<KPath> list;
    for (const KDirectory::SortMethod eMethod : kMethods) {
        EXPECT_FALSE(KDirectory::Sort(list, eMethod));
    }
    // Before the method is looked at.
    const ScopedChecks on(true);
    EXPECT_FALSE(KDirectory::Sort(list, static_cast<KDirectory::SortMethod>(7)));
}

TEST_F(KDirectoryTest, AnUnknownMethodEmptiesTheListAndIsFalseWithTheChecksOff) {
    for (const int nMethod : {4, 7, -1, 0x7FFFFFFF}) {
        KList<KPath> list;
        Fill(list, MarkedTexts({"b", "a"}));
        EXPECT_FALSE(KDirectory::Sort(list, static_cast<KDirectory::SortMethod>(nMethod))) << nMethod;
        EXPECT_EQ(list.GetCount(), 0) << nMethod;
    }
}

TEST_F(KDirectoryTest, AnUnknownMethodFailsItsCheck) {
    KList<KPath> list;
    Fill(list, MarkedTexts({"a"}));
    EXPECT_CHECK_FAILS(KDirectory::Sort(list, static_cast<KDirectory::SortMethod>(4)), "0", kSource,
                       "static bool KDirectory::Sort(KList<KPath>&, KDirectory::SortMethod)");
}

TEST_F(KDirectoryTest, WithoutMemorySortIsFalseAndLeavesTheListAsItWas) {
    KList<KPath> list;
    Fill(list, MarkedTexts({"b", "a"}));
    {
        const ScopedNoMemory noMemory;
        EXPECT_FALSE(KDirectory::Sort(list, KDirectory::SORT_ASCENDING));
    }
    EXPECT_EQ(TextsOf(list), (std::vector<std::string>{"b", "a"}));
}

TEST_F(KDirectoryTest, WithMemoryForTheListAloneSortMakesTheExchanges) {
    KList<KPath> list;
    Fill(list, MarkedTexts({"b", "C", "a"}));
    {
        const ScopedNoMemory noMemory(1);
        EXPECT_TRUE(KDirectory::Sort(list, KDirectory::SORT_ASCENDING_NOCASE));
        EXPECT_FALSE(ScopedNoMemory::Take()) << "more was wanted";
    }
    EXPECT_EQ(TextsOf(list), (std::vector<std::string>{"a", "b", "C"}));
}

TEST_F(KDirectoryTest, AListMayBeSortedWhileAnotherThreadAddsToIt) {
    constexpr int kAdded = 200;
    KList<KPath> list;
    list.Add(PathOf("first"));
    std::thread adder([&] {
        for (int i = 0; i < kAdded; ++i) {
            list.Add(PathOf(std::to_string(i)));
        }
    });
    while (list.GetCount() <= kAdded) {
        EXPECT_TRUE(KDirectory::Sort(list, KDirectory::SORT_ASCENDING));
    }
    adder.join();
    EXPECT_EQ(list.GetCount(), kAdded + 1);
    ASSERT_TRUE(KDirectory::Sort(list, KDirectory::SORT_ASCENDING));
    const std::vector<std::string> texts = TextsOf(list);
    EXPECT_TRUE(std::is_sorted(texts.begin(), texts.end()));
}

// ------------------------------------------------------------------------------------------------------------- Creating

namespace {

std::string CreateError(const std::string& path, int nError) {
    return "Error****: Directory Create Error " + path + ", ErrorNO:" + std::to_string(nError) + "\n";
}

bool Create(const std::string& text, KDirectory::DirectoryAction eAction) {
    KPath path = PathOf(text);
    return KDirectory::CreateDir(path, eAction);
}

}  // namespace

TEST_F(KDirectoryTest, CreateDirMakesOneDirectoryWithMode0755LessTheUmask) {
    const std::pair<mode_t, mode_t> cases[] = {{0, 0755}, {022, 0755}, {027, 0750}, {077, 0700}};
    for (const auto& [nMask, nMode] : cases) {
        const ScopedDirectory scratch;
        const ScopedUmask mask(nMask);
        EXPECT_TRUE(Create(scratch.Entry("made"), KDirectory::DIR_SINGLE));
        EXPECT_TRUE(Create(scratch.Entry("a/b/c"), KDirectory::DIR_RECURSIVE));
        EXPECT_EQ(ModeOf(scratch.Entry("made")), nMode);
        EXPECT_EQ(ModeOf(scratch.Entry("a")), nMode);
        EXPECT_EQ(ModeOf(scratch.Entry("a/b")), nMode);
        EXPECT_EQ(ModeOf(scratch.Entry("a/b/c")), nMode);
    }
}

TEST_F(KDirectoryTest, CreatingWhatExistsIsTrue) {
    const ScopedDirectory scratch;
    const std::string file = scratch.File("file", "content");
    for (const KDirectory::DirectoryAction eAction : {KDirectory::DIR_SINGLE, KDirectory::DIR_RECURSIVE}) {
        EXPECT_TRUE(Create(scratch.Path(), eAction));
        EXPECT_TRUE(Create(file, eAction));
        EXPECT_TRUE(Create("/", eAction));
    }
    EXPECT_EQ(support::ContentOf(file), "content");
}

TEST_F(KDirectoryTest, CreatingOneDirectoryDoesNotMakeItsParents) {
    const ScopedDirectory scratch;
    const std::string path = scratch.Entry("missing/made");
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Create(path, KDirectory::DIR_SINGLE)); }), CreateError(path, ENOENT));
    EXPECT_FALSE(Exists(scratch.Entry("missing")));
}

TEST_F(KDirectoryTest, CreatingRecursivelyTakesPathsInEveryForm) {
    const ScopedDirectory scratch;
    const ScopedWorkingDirectory inside(scratch.Path());
    for (const char* const pszPath : {"x/y", "./p/q", "u//v", "e/f/", "g\\h", "s/../t"}) {
        EXPECT_TRUE(Create(pszPath, KDirectory::DIR_RECURSIVE)) << pszPath;
    }
    KPath marked = DirectoryPath("k/l");
    EXPECT_TRUE(KDirectory::CreateDir(marked, KDirectory::DIR_RECURSIVE));
    EXPECT_EQ(TextOf(marked), "k/l");
    for (const char* const pszMade : {"x/y", "p/q", "u/v", "e/f", "g/h", "s", "t", "k/l"}) {
        EXPECT_TRUE(fs::is_directory(scratch.Entry(pszMade))) << pszMade;
    }
}

TEST_F(KDirectoryTest, CreatingRecursivelyStopsAtTheFirstFailureAndLeavesWhatWasMade) {
    const ScopedDirectory scratch;
    fs::create_directory(scratch.Entry("a"));
    scratch.File("a/file", "");
    const std::string path = scratch.Entry("a/b/../file/c/d");
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Create(path, KDirectory::DIR_RECURSIVE)); }), CreateError(path, ENOTDIR));
    EXPECT_TRUE(fs::is_directory(scratch.Entry("a/b")));
}

TEST_F(KDirectoryTest, AFailureInTheLastComponentIsLoggedToo) {
    const ScopedDirectory scratch;
    const std::string path = scratch.Entry("a/" + std::string(256, 'x'));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Create(path, KDirectory::DIR_RECURSIVE)); }), CreateError(path, ENAMETOOLONG));
    EXPECT_TRUE(fs::is_directory(scratch.Entry("a")));
}

TEST_F(KDirectoryTest, CreatingWithoutAPathIsFalseAndLogsNothing) {
    const ScopedChecks on(true);
    KPath never;
    KPath emptyDirectory = DirectoryPath("");
    EXPECT_EQ(LogOf([&] {
                  for (const int nAction : {0, 1, 2}) {
                      const auto eAction = static_cast<KDirectory::DirectoryAction>(nAction);
                      EXPECT_FALSE(KDirectory::CreateDir(never, eAction));
                      EXPECT_FALSE(KDirectory::CreateDir(emptyDirectory, eAction));
                  }
              }),
              "");
}

TEST_F(KDirectoryTest, CreatingWithAnyOtherActionIsTrueAndDoesNothing) {
    const ScopedDirectory scratch;
    const ScopedChecks on(true);
    EXPECT_EQ(LogOf([&] {
                  for (const int nAction : {2, -1, 1000}) {
                      EXPECT_TRUE(Create(scratch.Entry("made"), static_cast<KDirectory::DirectoryAction>(nAction)));
                  }
              }),
              "");
    EXPECT_FALSE(Exists(scratch.Entry("made")));
}

TEST_F(KDirectoryTest, AnOverlongPathCreatesNothingWithTheChecksOff) {
    const ScopedDirectory scratch;
    const std::string path = scratch.Entry("a/" + std::string(kTooLong, 'x'));
    for (const KDirectory::DirectoryAction eAction : {KDirectory::DIR_SINGLE, KDirectory::DIR_RECURSIVE}) {
        EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Create(path, eAction)); }), CreateError(path, ENOENT));
    }
    EXPECT_FALSE(Exists(scratch.Entry("a")));
}

// ------------------------------------------------------------------------------------------------- Deleting a directory

namespace {

std::string DeleteError(const std::string& path, int nError) {
    return "Error****: Directory Delete Error " + path + ", ErrorNO:" + std::to_string(nError) + "\n";
}

std::string LinkStatError(const std::string& path, int nError) {
    return "Error****: Directory Delete lstat Error " + path + ", ErrorNO:" + std::to_string(nError) + "\n";
}

/// What perror writes about a directory that cannot be opened.
std::string OpenError(int nError) {
    return "Couldn't open the directory: " + std::string(std::strerror(nError)) + "\n";
}

bool Delete(const std::string& text, KDirectory::DirectoryAction eAction) {
    KPath path = PathOf(text);
    return KDirectory::DeleteDir(path, eAction);
}

/// Deletes a tree that is a test's own.
bool DeleteTree(const std::string& text) {
    EXPECT_THAT(text, HasSubstr("/kalvoren-test-"));
    return Delete(text, KDirectory::DIR_RECURSIVE);
}

}  // namespace

TEST_F(KDirectoryTest, DeletingAnEmptyDirectoryLogsAnErrorAndIsFalse) {
    const ScopedDirectory scratch;
    const std::string path = scratch.Entry("empty");
    fs::create_directory(path);
    EXPECT_EQ(LogOf([&] {
                  errno = EXDEV;  // Success leaves it as it was, and the line has it all the same.
                  EXPECT_FALSE(Delete(path, KDirectory::DIR_SINGLE));
              }),
              DeleteError(path, EXDEV));
    EXPECT_FALSE(Exists(path));
}

TEST_F(KDirectoryTest, FailingToDeleteADirectoryIsTrueAndLogsNothing) {
    const ScopedDirectory scratch;
    fs::create_directory(scratch.Entry("full"));
    scratch.File("full/file", "");
    const std::string file = scratch.File("file", "");
    EXPECT_EQ(LogOf([&] {
                  EXPECT_TRUE(Delete(scratch.Entry("missing"), KDirectory::DIR_SINGLE));
                  EXPECT_TRUE(Delete(scratch.Entry("full"), KDirectory::DIR_SINGLE));
                  EXPECT_TRUE(Delete(file, KDirectory::DIR_SINGLE));
              }),
              "");
    EXPECT_TRUE(Exists(scratch.Entry("full/file")));
    EXPECT_TRUE(Exists(file));
}

TEST_F(KDirectoryTest, AnUnknownActionDeletesNothingAndIsTrueWithTheChecksOff) {
    const ScopedDirectory scratch;
    EXPECT_EQ(LogOf([&] {
                  for (const int nAction : {2, -1, 1000}) {
                      EXPECT_TRUE(Delete(scratch.Path(), static_cast<KDirectory::DirectoryAction>(nAction)));
                  }
              }),
              "");
    EXPECT_TRUE(Exists(scratch.Path()));
}

TEST_F(KDirectoryTest, AnUnknownActionFailsItsCheck) {
    EXPECT_CHECK_FAILS(Delete("somewhere", static_cast<KDirectory::DirectoryAction>(2)), "0", kSource,
                       "static bool KDirectory::DeleteDir(KPath&, KDirectory::DirectoryAction)");
}

TEST_F(KDirectoryTest, DeletingNeedsAPath) {
    const char* const pszCondition = "path.GetPath().Length() != 0";
    const char* const pszSignature = "static bool KDirectory::DeleteDir(KPath&, KDirectory::DirectoryAction)";
    EXPECT_CHECK_FAILS(Delete("", KDirectory::DIR_SINGLE), pszCondition, kSource, pszSignature);
    EXPECT_CHECK_FAILS(Delete("", KDirectory::DIR_RECURSIVE), pszCondition, kSource, pszSignature);
    EXPECT_CHECK_FAILS(Delete("", static_cast<KDirectory::DirectoryAction>(2)), pszCondition, kSource, pszSignature);
}

namespace {

/// What a deletion would open and delete, in order, if it were let; with its result behind it.
std::vector<std::string> PathsOfDeletion(KPath path, KDirectory::DirectoryAction eAction) {
    t_System.fgRefuse = true;
    const bool fgResult = KDirectory::DeleteDir(path, eAction);
    t_System.fgRefuse = false;
    std::vector<std::string> paths;
    paths.swap(t_System.refused);
    paths.push_back(fgResult ? "true" : "false");
    return paths;
}

}  // namespace

TEST_F(KDirectoryTest, DeletingWithoutAPathNeverReachesTheRootWithTheChecksOff) {
    // As a system path, a directory path without a text would be "/".
    for (const KPath& path : {PathOf(""), DirectoryPath("")}) {
        EXPECT_THAT(PathsOfDeletion(path, KDirectory::DIR_SINGLE), ElementsAre("", "true"));
        EXPECT_THAT(PathsOfDeletion(path, KDirectory::DIR_RECURSIVE), ElementsAre("", "", "false"));
    }
    EXPECT_THAT(PathsOfDeletion(PathOf("/some/where"), KDirectory::DIR_RECURSIVE),
                ElementsAre("/some/where", "/some/where", "false"));
}

TEST_F(KDirectoryTest, DeletingWithoutAPathReportsTheFailureWithTheChecksOff) {
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(Delete("", KDirectory::DIR_SINGLE)); }), "");
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Delete("", KDirectory::DIR_RECURSIVE)); }),
              OpenError(ENOENT) + DeleteError("", ENOENT));
}

// ------------------------------------------------------------------------------------------------------ Deleting a tree

TEST_F(KDirectoryTest, ATreeIsDeletedWithEverythingInIt) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directories(tree + "/a/b/c");
    fs::create_directories(tree + "/.hidden/...");
    fs::create_directories(tree + "/empty");
    for (const char* const pszName : {"file", ".hidden file", "a/file", "a/b/c/file", "%s%n", " ", "-rf", "\xFF"}) {
        scratch.File(std::string("tree/") + pszName, "content");
    }
    ASSERT_EQ(mkfifo((tree + "/pipe").c_str(), 0600), 0);
    fs::create_symlink("nowhere", tree + "/dangling link");
    scratch.File("beside", "stays");
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(tree)); }), "");
    EXPECT_FALSE(Exists(tree));
    EXPECT_EQ(support::ContentOf(scratch.Entry("beside")), "stays");
}

TEST_F(KDirectoryTest, AnEmptyTreeIsDeleted) {
    const ScopedDirectory scratch;
    KPath path = DirectoryPath(scratch.Entry("tree"));
    fs::create_directory(scratch.Entry("tree"));
    EXPECT_TRUE(KDirectory::DeleteDir(path, KDirectory::DIR_RECURSIVE));
    EXPECT_FALSE(Exists(scratch.Entry("tree")));
}

TEST_F(KDirectoryTest, LinksInATreeAreDeletedNotFollowed) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directories(tree + "/inner");
    fs::create_directory(scratch.Entry("outside"));
    scratch.File("outside/file", "stays");
    fs::create_symlink("../outside", tree + "/link");
    fs::create_symlink(scratch.Entry("outside"), tree + "/inner/absolute link");
    fs::create_symlink("../outside/file", tree + "/link to file");
    fs::create_symlink("..", tree + "/inner/link to parent");
    fs::create_hard_link(scratch.Entry("outside/file"), tree + "/hard link");
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(tree)); }), "");
    EXPECT_FALSE(Exists(tree));
    EXPECT_EQ(support::ContentOf(scratch.Entry("outside/file")), "stays");
}

TEST_F(KDirectoryTest, ADirectoryThatBecomesALinkMeanwhileIsNotFollowed) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directory(tree);
    fs::create_directory(scratch.Entry("outside"));
    scratch.File("outside/file", "stays");
    fs::create_symlink("../outside", tree + "/link");
    // It was a directory when its status was read, and is a link when it is opened.
    m_System->fgEntryStatFollows = true;
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(tree)); }), OpenError(ENOTDIR));
    EXPECT_FALSE(Exists(tree));
    EXPECT_EQ(support::ContentOf(scratch.Entry("outside/file")), "stays");
}

TEST_F(KDirectoryTest, ADirectoryThatIsSwappedForALinkWhileItIsEmptiedLeadsNowhereElse) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directories(tree + "/inner");
    scratch.File("tree/inner/file", "");
    fs::create_directories(scratch.Entry("outside/inner"));
    scratch.File("outside/file", "stays");
    fs::create_directory(scratch.Entry("outside/empty"));
    fs::create_directory(tree + "/inner/empty");
    // Of both entries inside the status has been read when their directory's name leads elsewhere.
    m_System->onEntryStat = [&](const std::string& name) {
        if ((name == "file" || name == "empty") && !Exists(scratch.Entry("moved"))) {
            fs::rename(tree + "/inner", scratch.Entry("moved"));
            fs::create_directory_symlink(scratch.Entry("outside"), tree + "/inner");
        }
    };
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(tree)); }), "");
    EXPECT_FALSE(Exists(tree));
    EXPECT_TRUE(fs::is_empty(scratch.Entry("moved")));
    EXPECT_EQ(support::ContentOf(scratch.Entry("outside/file")), "stays");
    EXPECT_TRUE(Exists(scratch.Entry("outside/empty")));
    EXPECT_TRUE(Exists(scratch.Entry("outside/inner")));
}

TEST_F(KDirectoryTest, ATreeThatIsSwappedForALinkWhileItIsEmptiedLeadsNowhereElse) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directory(tree);
    scratch.File("tree/file", "");
    fs::create_directory(scratch.Entry("outside"));
    scratch.File("outside/file", "stays");
    m_System->onEntryStat = [&](const std::string& name) {
        if (name == "file") {
            fs::rename(tree, scratch.Entry("moved"));
            fs::create_directory_symlink(scratch.Entry("outside"), tree);
        }
    };
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(tree)); }), "");
    EXPECT_FALSE(Exists(tree));
    EXPECT_TRUE(fs::is_empty(scratch.Entry("moved")));
    EXPECT_EQ(support::ContentOf(scratch.Entry("outside/file")), "stays");
}

TEST_F(KDirectoryTest, BackslashesInNamesAreNoWayOutOfTheTree) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("tree/d"));
    fs::create_directory(scratch.Entry("outside"));
    scratch.File("victim", "stays");
    scratch.File("outside/file", "stays");
    scratch.File("tree/..\\victim", "");
    scratch.File("tree/d/..\\..\\victim", "");
    fs::create_directory(scratch.Entry("tree/..\\outside"));
    fs::create_directory(scratch.Entry("tree/back\\slash"));
    scratch.File("tree/back\\slash/file", "");
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(scratch.Entry("tree"))); }), "");
    EXPECT_FALSE(Exists(scratch.Entry("tree")));
    EXPECT_EQ(support::ContentOf(scratch.Entry("victim")), "stays");
    EXPECT_EQ(support::ContentOf(scratch.Entry("outside/file")), "stays");
}

TEST_F(KDirectoryTest, ATreeWhoseOwnNameHasABackslashIsDeletedThroughSetPath) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("back\\slash/inner"));
    KPath path = PathAsItStands(scratch.Entry("back\\slash"));
    EXPECT_TRUE(KDirectory::DeleteDir(path, KDirectory::DIR_RECURSIVE));
    EXPECT_FALSE(Exists(scratch.Entry("back\\slash")));
}

TEST_F(KDirectoryTest, AGivenLinkToADirectoryHasThatDirectoryEmptied) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("target/inner"));
    scratch.File("target/file", "");
    fs::create_symlink("target", scratch.Entry("link"));
    EXPECT_TRUE(DeleteTree(scratch.Entry("link")));
    EXPECT_FALSE(Exists(scratch.Entry("link")));
    EXPECT_TRUE(fs::is_empty(scratch.Entry("target")));
}

TEST_F(KDirectoryTest, DeletingATreeThatIsNotThereReportsItTwice) {
    const ScopedDirectory scratch;
    const std::string path = scratch.Entry("missing");
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(DeleteTree(path)); }), OpenError(ENOENT) + DeleteError(path, ENOENT));
}

TEST_F(KDirectoryTest, AFileGivenAsATreeIsReportedAndDeleted) {
    const ScopedDirectory scratch;
    const std::string file = scratch.File("file", "");
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(file)); }), OpenError(ENOTDIR));
    EXPECT_FALSE(Exists(file));
}

TEST_F(KDirectoryTest, AnEntryWithoutAStatusIsLoggedAndDeletedAsAFile) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directory(tree);
    scratch.File("tree/unknown", "");
    scratch.File("tree/other", "");
    m_System->nEntryStatError = EIO;
    m_System->strEntryStatFails = "unknown";
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(tree)); }), LinkStatError(tree + "/unknown", EIO));
    EXPECT_FALSE(Exists(tree));
}

TEST_F(KDirectoryTest, ADirectoryWithoutAStatusIsNotEntered) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directories(tree + "/unknown");
    scratch.File("tree/unknown/file", "");
    scratch.File("tree/other", "");
    m_System->nEntryStatError = EIO;
    m_System->strEntryStatFails = "unknown";
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(DeleteTree(tree)); }),
              LinkStatError(tree + "/unknown", EIO) + DeleteError(tree, ENOTEMPTY));
    EXPECT_TRUE(Exists(tree + "/unknown/file"));
    EXPECT_FALSE(Exists(tree + "/other"));
}

TEST_F(KDirectoryTest, WhatCannotBeDeletedInATreeIsPassedOver) {
    const ScopedDirectory scratch;
    const std::string tree = scratch.Entry("tree");
    fs::create_directories(tree + "/a/stuck/unknown/full");
    fs::create_directories(tree + "/b");
    scratch.File("tree/a/file", "");
    scratch.File("tree/b/file", "");
    m_System->nEntryStatError = EIO;
    m_System->strEntryStatFails = "unknown";
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(DeleteTree(tree)); }),
              LinkStatError(tree + "/a/stuck/unknown", EIO) + DeleteError(tree + "/a/stuck", ENOTEMPTY) +
                  DeleteError(tree + "/a", ENOTEMPTY) + DeleteError(tree, ENOTEMPTY));
    EXPECT_TRUE(Exists(tree + "/a/stuck/unknown/full"));
    EXPECT_FALSE(Exists(tree + "/a/file"));
    EXPECT_FALSE(Exists(tree + "/b"));
}

TEST_F(KDirectoryTest, EntriesOfOverlongPathsAreLeftAloneWithTheChecksOff) {
    // The tree is reached through short names, so that its paths can be longer than the tree could be made with.
    const ScopedDirectory scratch;
    const std::string level(200, 'd');
    std::string path = scratch.Entry("tree");
    fs::create_directory(path);
    std::string tooLong;
    {
        const ScopedWorkingDirectory inside(path);
        for (int i = 0; i < 12; ++i) {
            fs::create_directory(level);
            fs::current_path(level);
            path += "/" + level;
            tooLong = tooLong.empty() && path.size() >= kTooLong ? path : tooLong;
        }
    }
    const std::string lines = LogOf([&] { EXPECT_FALSE(DeleteTree(scratch.Entry("tree"))); });
    EXPECT_THAT(lines, StartsWith(LinkStatError(tooLong, ENOENT)));
    EXPECT_THAT(lines, testing::EndsWith(DeleteError(scratch.Entry("tree"), ENOTEMPTY)));
    EXPECT_TRUE(Exists(scratch.Entry("tree/" + level)));
}

TEST_F(KDirectoryTest, AnOverlongPathFailsThePathsCheckInADeletion) {
    KPath path = PathOfLength(kTooLong);
    EXPECT_CHECK_FAILS(KDirectory::DeleteDir(path, KDirectory::DIR_RECURSIVE), "nLen < 2048", "src/KPath",
                       "char* KPath::GetSystemPath(KPath::ConvPathTo)");
}

TEST_F(KDirectoryTest, ADeepTreeIsDeleted) {
    const ScopedDirectory scratch;
    std::string path = scratch.Entry("tree");
    for (int i = 0; i < 400; ++i) {
        fs::create_directory(path);
        path += "/d";
    }
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(scratch.Entry("tree"))); }), "");
    EXPECT_FALSE(Exists(scratch.Entry("tree")));
}

TEST_F(KDirectoryTest, ALargeTreeIsDeleted) {
    const ScopedDirectory scratch;
    for (int i = 0; i < 10; ++i) {
        const std::string directory = "tree/" + std::to_string(i);
        fs::create_directories(scratch.Entry(directory));
        for (int k = 0; k < 50; ++k) {
            scratch.File(directory + "/" + std::to_string(k), "");
        }
    }
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(scratch.Entry("tree"))); }), "");
    EXPECT_FALSE(Exists(scratch.Entry("tree")));
}

TEST_F(KDirectoryTest, EveryDirectoryThatADeletionOpensIsClosed) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("tree/a/b"));
    EXPECT_TRUE(DeleteTree(scratch.Entry("tree")));
    EXPECT_EQ(m_System->nClosed, 3);
}

TEST_F(KDirectoryTest, ADirectoryOfATreeMayHaveTheNumberOfStandardInput) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("tree/a/b"));
    const ScopedInput input;
    m_System->onEntryStat = [&](const std::string& name) {
        if (name == "a") {
            input.Close();
        }
    };
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(DeleteTree(scratch.Entry("tree"))); }), "");
    EXPECT_FALSE(Exists(scratch.Entry("tree")));
}

TEST_F(KDirectoryTest, WhatCannotBeReadInATreeIsClosed) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("tree/a/b"));
    const std::vector<int> before = support::OpenDescriptors();
    for (const bool fgIsInput : {false, true}) {
        const ScopedInput input;
        m_System->nStreamError = ENOMEM;
        m_System->onEntryStat = [&](const std::string& name) {
            if (fgIsInput && name == "a") {
                input.Close();
            }
        };
        LogOf([&] { EXPECT_FALSE(DeleteTree(scratch.Entry("tree"))); });
        EXPECT_EQ(support::IsOpen(STDIN_FILENO), !fgIsInput && before.front() == STDIN_FILENO);
        m_System->nStreamError = 0;
    }
    EXPECT_EQ(support::OpenDescriptors(), before);
    EXPECT_TRUE(Exists(scratch.Entry("tree/a/b")));
}

// ------------------------------------------------------------------------------------------------------------- Renaming

namespace {

std::string RenameError(const std::string& from, const std::string& to, int nError) {
    return "Error****: Directory Rename Error " + from + " to " + to + ", ErrorNO:" + std::to_string(nError) + "\n";
}

bool Rename(const std::string& from, const std::string& to) {
    KPath fromPath = PathOf(from);
    KPath toPath = PathOf(to);
    return KDirectory::RenameDir(fromPath, toPath);
}

}  // namespace

TEST_F(KDirectoryTest, RenameDirMovesADirectoryWithItsContents) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("old/inner"));
    KPath oldPath = DirectoryPath(scratch.Entry("old"));
    KPath newPath = DirectoryPath(scratch.Entry("new"));
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(KDirectory::RenameDir(oldPath, newPath)); }), "");
    EXPECT_FALSE(Exists(scratch.Entry("old")));
    EXPECT_TRUE(Exists(scratch.Entry("new/inner")));
    EXPECT_EQ(TextOf(oldPath), scratch.Entry("old"));
    EXPECT_EQ(TextOf(newPath), scratch.Entry("new"));
}

TEST_F(KDirectoryTest, RenamingAPathToItselfIsTrue) {
    const ScopedDirectory scratch;
    KPath path = PathOf(scratch.Path());
    EXPECT_TRUE(KDirectory::RenameDir(path, path));
    EXPECT_TRUE(Exists(scratch.Path()));
}

TEST_F(KDirectoryTest, AFailedRenameLogsBothPaths) {
    const ScopedDirectory scratch;
    fs::create_directories(scratch.Entry("full/inner"));
    fs::create_directory(scratch.Entry("empty"));
    const std::string missing = scratch.Entry("missing");
    const std::string full = scratch.Entry("full");
    const std::string empty = scratch.Entry("empty");
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Rename(missing, full)); }), RenameError(missing, full, ENOENT));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Rename(empty, full)); }), RenameError(empty, full, ENOTEMPTY));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Rename(full, full + "/inner/a")); }),
              RenameError(full, full + "/inner/a", EINVAL));
    EXPECT_TRUE(Exists(empty));
}

TEST_F(KDirectoryTest, RenamingNeedsBothPaths) {
    const char* const pszSignature = "static bool KDirectory::RenameDir(KPath&, KPath&)";
    EXPECT_CHECK_FAILS(Rename("", "a"), "oldPath.GetPath().Length() != 0", kSource, pszSignature);
    EXPECT_CHECK_FAILS(Rename("a", ""), "newPath.GetPath().Length() != 0", kSource, pszSignature);
    EXPECT_CHECK_FAILS(Rename("", ""), "oldPath.GetPath().Length() != 0", kSource, pszSignature);
}

TEST_F(KDirectoryTest, RenamingWithoutAPathFailsWithTheChecksOff) {
    const ScopedDirectory scratch;
    const std::string path = scratch.Path();
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Rename("", path)); }), RenameError("", path, ENOENT));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(Rename(path, "")); }), RenameError(path, "", ENOENT));
    // As a system path, a directory path without a text would be the root.
    KPath emptyDirectory = DirectoryPath("");
    KPath other = PathOf(scratch.Entry("other"));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(KDirectory::RenameDir(emptyDirectory, other)); }),
              RenameError("", scratch.Entry("other"), ENOENT));
}

// ---------------------------------------------------------------------------------------------------------- Permissions

namespace {

KDirectory::DirectoryCanHandle CanHandle(const std::string& text, bool fgWrite, bool fgRead) {
    KPath path = PathOf(text);
    return KDirectory::CanHandle(path, fgWrite, fgRead);
}

/// Closes what CanHandle leaves open.
void CloseTheRest() {
    if (t_System.nClosed == 0) {
        closedir(t_System.pOpened);
    }
    t_System.nClosed = 0;
}

struct Owner {
    const char* pszName;
    uid_t nUser;
    gid_t nGroup;
    int nShift;  ///< Where the bits that count stand.
};

}  // namespace

TEST_F(KDirectoryTest, CanHandleLooksAtTheBitsOfOwnerThenGroupThenOthers) {
    const ScopedDirectory scratch;
    const uid_t nOtherUser = getuid() + 1;
    const gid_t nOtherGroup = getgid() + 1;
    const Owner owners[] = {{"the owner", getuid(), nOtherGroup, 6},
                            {"the owner and the group", getuid(), getgid(), 6},
                            {"the group", nOtherUser, getgid(), 3},
                            {"others", nOtherUser, nOtherGroup, 0}};
    for (const Owner& owner : owners) {
        for (mode_t nBits = 0; nBits < 8; ++nBits) {
            // Every other class has the opposite bits, so that taking the wrong one shows.
            const mode_t nAll = 0111u * (~nBits & 7u);
            struct stat status = {};
            status.st_mode = static_cast<mode_t>(S_IFDIR | (nAll & ~(7u << owner.nShift)) | (nBits << owner.nShift));
            status.st_uid = owner.nUser;
            status.st_gid = owner.nGroup;
            m_System->status = status;
            for (const bool fgWrite : {false, true}) {
                for (const bool fgRead : {false, true}) {
                    const bool fgPermitted = (!fgWrite || (nBits & 2) != 0) && (!fgRead || (nBits & 4) != 0);
                    EXPECT_EQ(CanHandle(scratch.Path(), fgWrite, fgRead),
                              fgPermitted ? KDirectory::DIR_CAN_HANDLE : KDirectory::DIR_NOT_PERMITTED)
                        << owner.pszName << ", bits " << nBits << ", write " << fgWrite << ", read " << fgRead;
                    // Only where all is permitted is the directory closed.
                    EXPECT_EQ(m_System->nClosed, fgPermitted ? 1 : 0);
                    CloseTheRest();
                }
            }
        }
    }
}

TEST_F(KDirectoryTest, CanHandleGivesTheSuperuserNoSpecialTreatment) {
    const ScopedDirectory scratch;
    fs::permissions(scratch.Path(), fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(CanHandle(scratch.Path(), true, true), KDirectory::DIR_NOT_PERMITTED);
    CloseTheRest();
    EXPECT_EQ(CanHandle(scratch.Path(), false, true), KDirectory::DIR_CAN_HANDLE);
    fs::permissions(scratch.Path(), fs::perms::owner_all);
}

TEST_F(KDirectoryTest, CanHandleTellsWhatCannotBeOpened) {
    const ScopedDirectory scratch;
    const std::string file = scratch.File("file", "");
    EXPECT_EQ(LogOf([&] {
                  EXPECT_EQ(CanHandle(scratch.Entry("missing"), false, false), KDirectory::DIR_CANNOT_OPEN);
                  EXPECT_EQ(CanHandle(file, false, false), KDirectory::DIR_CANNOT_OPEN);
              }),
              "");
}

TEST_F(KDirectoryTest, CanHandleTellsWhatHasNoStatusAndLeavesItOpen) {
    const std::pair<int, KDirectory::DirectoryCanHandle> cases[] = {{ENOTDIR, KDirectory::DIR_NOT_DIRECTORY},
                                                                    {ENOENT, KDirectory::DIR_STAT_FAILED},
                                                                    {EACCES, KDirectory::DIR_STAT_FAILED},
                                                                    {EIO, KDirectory::DIR_STAT_FAILED}};
    const ScopedDirectory scratch;
    for (const auto& [nError, eExpected] : cases) {
        m_System->nStatError = nError;
        EXPECT_EQ(CanHandle(scratch.Path(), false, false), eExpected) << nError;
        EXPECT_EQ(m_System->nClosed, 0);
        CloseTheRest();
    }
}

TEST_F(KDirectoryTest, CanHandleNeedsAPath) {
    EXPECT_CHECK_FAILS(CanHandle("", false, false), "path.GetPath().Length() != 0", kSource,
                       "static KDirectory::DirectoryCanHandle KDirectory::CanHandle(KPath&, bool, bool)");
}

TEST_F(KDirectoryTest, WithoutAPathCanHandleCannotOpenWithTheChecksOff) {
    KPath emptyDirectory = DirectoryPath("");  // As a system path it is the root.
    EXPECT_EQ(CanHandle("", false, false), KDirectory::DIR_CANNOT_OPEN);
    EXPECT_EQ(KDirectory::CanHandle(emptyDirectory, false, false), KDirectory::DIR_CANNOT_OPEN);
}
