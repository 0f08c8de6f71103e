#include "KDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "Checks.h"
#include "ExchangeOrder.h"
#include "KDebug.h"
#include "Numbers.h"
#include "Permission.h"

/// What a directory holds of the system.
struct KDirectory::DirectoryInfo {
    DIR* mHandle;
};

namespace {

constexpr Checks g_Checks("src/api/KDirectory");

constexpr mode_t kDirectoryMode = 0755;

/// Counts the entries that this process has read.
std::atomic<int> g_nEntriesRead(0);

const char* TextOf(const KPath& path) {
    return path.GetPath().GetBuffer();
}

/// The path as the system wants it. An empty directory path would render as the root, which nobody asked for.
char* SystemPath(KPath& path) {
    static char szNothing[1] = "";
    return path.GetPath().Length() != 0 ? path.GetSystemPath(KPath::CONV_SLASH) : szNothing;
}

KPath::Type TypeOf(const dirent& entry) {
    switch (entry.d_type) {
        case DT_DIR:
            return KPath::TYPE_DIRECTORY;
        case DT_REG:
            return KPath::TYPE_FILE;
        case DT_LNK:
            return KPath::TYPE_LINK;
        default:
            return KPath::TYPE_OTHER;
    }
}

bool IsAnything(const KPath&) {
    return true;
}
bool IsFile(const KPath& path) {
    return path.GetType() == KPath::TYPE_FILE;
}
bool IsDirectory(const KPath& path) {
    return path.GetType() == KPath::TYPE_DIRECTORY;
}

}  // namespace

KDirectory::KDirectory() : pInfo(new (std::nothrow) DirectoryInfo()) {}

KDirectory::KDirectory(const KDirectory&) : KDirectory() {
    g_Checks.Fail("KDirectory::KDirectory(const KDirectory&)");
}

KDirectory& KDirectory::operator=(const KDirectory&) {
    g_Checks.Fail("KDirectory& KDirectory::operator=(const KDirectory&)");
    return *this;
}

KDirectory::~KDirectory() {
    Close();
    delete pInfo;
    pInfo = nullptr;
}

void KDirectory::Init() {}

void KDirectory::Deinit() {}

// ---------------------------------------------------------------------------------------------------------- Reading

bool KDirectory::Open(KPath& path) {
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KDirectory::Open(KPath&)")) {
        return true;
    }
    m_Path = path;
    if (m_Path.GetPath().Length() == 0) {
        return false;
    }
    if (pInfo->mHandle != nullptr) {
        KDebug::Error("Directory Read %s, Handle[%x] is Read", TextOf(m_Path), LowWord(pInfo->mHandle));
        return false;
    }
    pInfo->mHandle = opendir(SystemPath(m_Path));
    if (pInfo->mHandle == nullptr) {
        return false;
    }
    KList<KPath>::End end;
    while (const dirent* const pEntry = readdir(pInfo->mHandle)) {
        KDebug::Log("Directory Read %s, Handle[%x] is Alread Read %d", pEntry->d_name, LowWord(pInfo->mHandle),
                    g_nEntriesRead.fetch_add(1, std::memory_order_relaxed));
        KString name = KString::FromUTF8String(pEntry->d_name);
        // Without memory for its name an entry is left out: an empty directory path would name the root.
        if (name.Length() == 0) {
            continue;
        }
        KList<KPath>::Appender appender(m_Entries, end);
        if (KPath* const pPath = appender.Add()) {
            pPath->m_Path = static_cast<KString&&>(name);
            pPath->SetType(TypeOf(*pEntry));
        }
    }
    if (m_Entries.GetCount() > 0) {
        Sort(m_Entries, SORT_ASCENDING_NOCASE);
    }
    KDebug::Log("Directory Open %s, Handle[%x]", TextOf(m_Path), LowWord(pInfo->mHandle));
    return true;
}

bool KDirectory::Close() {
    if (!g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KDirectory::Close()")) {
        return true;
    }
    DIR* const pHandle = pInfo->mHandle;
    if (pHandle == nullptr) {
        KDebug::Error("Directory Close %s, Handle[%x] is Empty ", TextOf(m_Path), 0u);
        return false;
    }
    if (dirfd(pHandle) < 0) {
        KDebug::Error("Directory dirfd failed for close %s, Handle[%x] is Empty ", TextOf(m_Path), LowWord(pHandle));
        return false;
    }
    // Gone even where closing fails: the destructor must not close it again.
    pInfo->mHandle = nullptr;
    const unsigned int nHandle = LowWord(pHandle);
    if (closedir(pHandle) != 0) {
        KDebug::Error("Directory Close %s, Handle[%x] ", TextOf(m_Path), nHandle);
        return false;
    }
    KDebug::Log("Directory Close %s, Handle[%x] ", TextOf(m_Path), 0u);
    return true;
}

bool KDirectory::Read(int nIndex, KPath& out) {
    return g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KDirectory::Read(int, KPath&)") && m_Entries.Get(out, nIndex);
}

/// Appends the wanted entries to a list.
bool KDirectory::ReadSome(KList<KPath>& out, bool (*isWanted)(const KPath&), const char* pszError) {
    KList<KPath>::Reader reader(m_Entries);
    KList<KPath>::Appender appender(out);
    while (const KPath* const pEntry = reader.Next()) {
        if (isWanted(*pEntry) && !appender.Add(*pEntry)) {
            KDebug::Error(pszError, TextOf(m_Path), LowWord(pInfo->mHandle));
            return false;
        }
    }
    return true;
}

bool KDirectory::ReadAll(KList<KPath>& out) {
    return !g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KDirectory::ReadAll(KList<KPath>&)") ||
           ReadSome(out, IsAnything, "Directory ReadAll Failed %s, Handle[%x]");
}

bool KDirectory::ReadFiles(KList<KPath>& out) {
    return !g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KDirectory::ReadFiles(KList<KPath>&)") ||
           ReadSome(out, IsFile, "Directory ReadFiles Failed %s, Handle[%x]");
}

bool KDirectory::ReadDirectories(KList<KPath>& out) {
    // The text of ReadFiles: programs that watch the log know no other.
    return !g_Checks.Hold(pInfo != nullptr, "pInfo", "bool KDirectory::ReadDirectories(KList<KPath>&)") ||
           ReadSome(out, IsDirectory, "Directory ReadFiles Failed %s, Handle[%x]");
}

int KDirectory::GetCount() const {
    return m_Entries.GetCount();
}

// ---------------------------------------------------------------------------------------------------------- Sorting

namespace {

/// How two texts compare, and which way round they are wanted.
struct SortOrder {
    int (*compare)(const char*, const char*);
    int nSign;     ///< 1 upwards, -1 downwards.
    int nMissing;  ///< What a comparison with a missing text gives.

    /// Positive when the first is to stand behind the second.
    int Compare(const KPath* pFirst, const KPath* pSecond) const {
        return nSign * compare(TextOf(*pFirst), TextOf(*pSecond));
    }

    int CompareWithMissing(const KPath* pFirst, const KPath* pSecond) const {
        const bool fgMissing = pFirst->GetPath().Length() == 0 || pSecond->GetPath().Length() == 0;
        return fgMissing ? nSign * nMissing : Compare(pFirst, pSecond);
    }
};

/// By method number.
constexpr SortOrder kSortOrders[] = {
    {std::strcmp, 1, 0}, {std::strcmp, -1, 0}, {strcasecmp, 1, -1}, {strcasecmp, -1, -1}};
constexpr int kSortMethods = sizeof(kSortOrders) / sizeof(kSortOrders[0]);

void SortPaths(KPath** ppPaths, int nCount, const SortOrder& order) {
    // A missing text is neither before nor behind others in a way that any fast sort could work with.
    const bool fgComplete =
        std::all_of(ppPaths, ppPaths + nCount, [](const KPath* pPath) { return pPath->GetPath().Length() != 0; });
    const auto compare = [&order](const KPath* pFirst, const KPath* pSecond) { return order.Compare(pFirst, pSecond); };
    if (!fgComplete || !SortInExchangeOrder(ppPaths, nCount, compare)) {
        SortByExchange(ppPaths, nCount, [&order](const KPath* pFirst, const KPath* pSecond) {
            return order.CompareWithMissing(pFirst, pSecond) > 0;
        });
    }
}

}  // namespace

bool KDirectory::Sort(KList<KPath>& list, SortMethod eMethod) {
    if (list.GetCount() == 0) {
        return false;
    }
    if (eMethod < 0 || eMethod >= kSortMethods) {
        list.Reset();
        g_Checks.Fail("static bool KDirectory::Sort(KList<KPath>&, KDirectory::SortMethod)");
        return false;
    }
    return list.Arrange([eMethod](KPath** ppPaths, int nCount) { SortPaths(ppPaths, nCount, kSortOrders[eMethod]); });
}

// --------------------------------------------------------------------------------------------- Directories by path

namespace {

bool ReportFailure(const char* pszError, const KPath& path) {
    const int nError = errno;
    KDebug::Error(pszError, TextOf(path), nError);
    return false;
}

bool MakeDirectory(const char* pszSystemPath, const KPath& path) {
    return mkdir(pszSystemPath, kDirectoryMode) == 0 || errno == EEXIST ||
           ReportFailure("Directory Create Error %s, ErrorNO:%d", path);
}

/// Makes all directories that lead to the last component.
bool MakeParents(char* pszSystemPath, const KPath& path) {
    if (*pszSystemPath == '\0') {
        return true;
    }
    for (char* pSlash = std::strchr(pszSystemPath + 1, '/'); pSlash != nullptr; pSlash = std::strchr(pSlash + 1, '/')) {
        *pSlash = '\0';
        const bool fgMade = MakeDirectory(pszSystemPath, path);
        *pSlash = '/';
        if (!fgMade) {
            return false;
        }
    }
    return true;
}

bool IsSelfOrParent(const char* pszName) {
    return std::strcmp(pszName, ".") == 0 || std::strcmp(pszName, "..") == 0;
}

/// An entry of an open directory. The system is given no more of its path than the name: a directory on the way to it that
/// somebody moves, or replaces by a link, while the tree is being deleted leads nowhere else.
struct Entry {
    int nDirectory;
    const char* pszName;

    bool ReadStatus(struct stat& status) const {
        return fstatat(nDirectory, pszName, &status, AT_SYMLINK_NOFOLLOW) == 0;
    }

    /// Opens a directory; a link to one is none.
    DIR* Open() const {
        const int nDescriptor = openat(nDirectory, pszName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        DIR* const pDirectory = nDescriptor >= 0 ? fdopendir(nDescriptor) : nullptr;
        if (pDirectory == nullptr && nDescriptor >= 0) {
            close(nDescriptor);
        }
        return pDirectory;
    }

    /// Deletes a file, or a directory that is empty.
    bool Remove() const {
        return unlinkat(nDirectory, pszName, 0) == 0 ||
               (errno == EISDIR && unlinkat(nDirectory, pszName, AT_REMOVEDIR) == 0);
    }
};

/// Names an entry of a directory. False without memory for the whole text: a shorter one could name something else. It is
/// set as it stands: a backslash in a name must not become a way out of the directory.
bool SetChild(KPath& child, const KPath& path, const char* pszName) {
    const KString text = path.GetPath() + "/" + pszName;
    child.SetPath(text);
    return static_cast<std::size_t>(child.GetPath().Length()) ==
           static_cast<std::size_t>(path.GetPath().Length()) + 1 + std::strlen(pszName);
}

void DeleteContents(DIR* pDirectory, const KPath& path);

/// Deletes an entry with all that is in it. Without a status it counts as a file.
void DeleteEntry(const Entry& entry, KPath& path) {
    // What the system has no room for in a path stays, though its name alone would do.
    if (*SystemPath(path) == '\0') {
        errno = ENOENT;
        ReportFailure("Directory Delete lstat Error %s, ErrorNO:%d", path);
        return;
    }
    struct stat status = {};
    if (!entry.ReadStatus(status)) {
        ReportFailure("Directory Delete lstat Error %s, ErrorNO:%d", path);
    }
    if (!S_ISDIR(status.st_mode)) {
        entry.Remove();
    } else if (!IsSelfOrParent(entry.pszName)) {
        DeleteContents(entry.Open(), path);
        if (!entry.Remove()) {
            ReportFailure("Directory Delete Error %s, ErrorNO:%d", path);
        }
    }
}

/// Deletes what is in a directory, and closes it; reports one that could not be opened. Paths are some two kilobytes large
/// and live on the heap, or a deep tree would need more stack than a thread has.
void DeleteContents(DIR* pDirectory, const KPath& path) {
    if (pDirectory == nullptr) {
        std::perror("Couldn't open the directory");
        return;
    }
    const int nDirectory = dirfd(pDirectory);
    const std::unique_ptr<KPath> pChild(new (std::nothrow) KPath());
    while (const dirent* const pEntry = pChild != nullptr ? readdir(pDirectory) : nullptr) {
        // Without memory for its path an entry stays, and its directory with it.
        if (SetChild(*pChild, path, pEntry->d_name)) {
            DeleteEntry({nDirectory, pEntry->d_name}, *pChild);
        }
    }
    closedir(pDirectory);
}

bool DeleteTree(KPath& path) {
    DeleteContents(opendir(SystemPath(path)), path);
    return std::remove(SystemPath(path)) == 0 || ReportFailure("Directory Delete Error %s, ErrorNO:%d", path);
}

}  // namespace

bool KDirectory::CreateDir(KPath& path, DirectoryAction eAction) {
    if (path.GetPath().Length() == 0) {
        return false;
    }
    if (eAction != DIR_SINGLE && eAction != DIR_RECURSIVE) {
        return true;
    }
    char* const pszSystemPath = SystemPath(path);
    return (eAction == DIR_SINGLE || MakeParents(pszSystemPath, path)) && MakeDirectory(pszSystemPath, path);
}

bool KDirectory::DeleteDir(KPath& path, DirectoryAction eAction) {
    const char* const pszSignature = "static bool KDirectory::DeleteDir(KPath&, KDirectory::DirectoryAction)";
    g_Checks.Hold(path.GetPath().Length() != 0, "path.GetPath().Length() != 0", pszSignature);
    switch (eAction) {
        case DIR_SINGLE:
            // The wrong way round: programs rely on it.
            return rmdir(SystemPath(path)) != 0 || ReportFailure("Directory Delete Error %s, ErrorNO:%d", path);
        case DIR_RECURSIVE:
            return DeleteTree(path);
    }
    g_Checks.Fail(pszSignature);
    return true;
}

bool KDirectory::RenameDir(KPath& oldPath, KPath& newPath) {
    const char* const pszSignature = "static bool KDirectory::RenameDir(KPath&, KPath&)";
    g_Checks.Hold(oldPath.GetPath().Length() != 0, "oldPath.GetPath().Length() != 0", pszSignature);
    g_Checks.Hold(newPath.GetPath().Length() != 0, "newPath.GetPath().Length() != 0", pszSignature);
    if (std::rename(SystemPath(oldPath), SystemPath(newPath)) == 0) {
        return true;
    }
    const int nError = errno;
    KDebug::Error("Directory Rename Error %s to %s, ErrorNO:%d", TextOf(oldPath), TextOf(newPath), nError);
    return false;
}

KDirectory::DirectoryCanHandle KDirectory::CanHandle(KPath& path, bool bWrite, bool bRead) {
    g_Checks.Hold(path.GetPath().Length() != 0, "path.GetPath().Length() != 0",
                  "static KDirectory::DirectoryCanHandle KDirectory::CanHandle(KPath&, bool, bool)");
    DIR* const pDirectory = opendir(SystemPath(path));
    if (pDirectory == nullptr) {
        return DIR_CANNOT_OPEN;
    }
    struct stat status = {};
    if (stat(SystemPath(path), &status) != 0) {
        return errno == ENOTDIR ? DIR_NOT_DIRECTORY : DIR_STAT_FAILED;
    }
    if (!IsPermitted(status, bWrite, bRead)) {
        return DIR_NOT_PERMITTED;
    }
    closedir(pDirectory);
    return DIR_CAN_HANDLE;
}
