// Files, directories, property lists in files, and the loader.
#include <dirent.h>
#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "KDirectory.h"
#include "KFile.h"
#include "KLib.h"
#include "KPath.h"
#include "KPropertyList.h"
#include "support/Support.h"
#include "torture/Scenarios.h"

namespace torture {

namespace {

using support::Exists;

bool Exists(const KPath& path) {
    return Exists(TextOf(path));
}

// ------------------------------------------------------------------------------------------------------------- Files

const std::string kOpening = "Log: *********File Open";
const std::string kClosing = "Log: ****File Close";

void FileIsWrittenAndRead() {
    Scratch directory;
    Made<KFile> file;
    // Without its record a file is never open, and says that all was done.
    const bool fgRecord = file.Making().FailedCall() != 1;
    const KPath path(directory.Entry("file").c_str());
    bool fgDone = false;
    const Step open([&] { fgDone = file->Open(path, true); });
    EXPECT_EQ(fgDone, !fgRecord || !open.Failed({"fopen", "malloc"}));
    // The path is copied before, and may be lacking.
    const std::string strPath = directory.Entry("file");
    open.ExpectLog(Lines(fgRecord ? 1 : 0, kOpening) +
                   ErrorIf(!fgDone, "File Open[" + (open.LackedMemory() ? "" : strPath) + "]\n"));
    EXPECT_EQ(file->IsValid(), fgRecord && fgDone);
    directory.Leaves("file", fgRecord && fgDone);
    if (!file->IsValid()) {
        return;
    }
    char bytes[] = "0123456789";
    const Step write([&] { fgDone = file->Write(0, bytes, 10); });
    EXPECT_EQ(fgDone, !write.Failed({"fseek", "fwrite"}));
    write.ExpectLog(ErrorIf(!fgDone, "File Write[" + strPath + "]\n"));
    const bool fgWritten = fgDone;
    const std::size_t nWritten = fgWritten ? 10 : TheOutcome().nError == kShort ? 5 : 0;

    EXPECT_TRUE(file->SetPosition(0));
    std::size_t nSize = 0;
    const Step measure([&] { nSize = file->GetSize(); });
    // It asks where it is, goes to the end, asks again, and goes back, whatever comes of it.
    EXPECT_EQ(nSize, measure.FailedCall() == 2   ? 0
                     : measure.FailedCall() == 3 ? static_cast<std::size_t>(-1)
                                                 : nWritten);
    char read[10] = {};
    const Step readBack([&] { fgDone = file->Read(0, read, 10); });
    EXPECT_EQ(fgDone, fgWritten && !readBack.Failed({"fseek", "fread"}));
    readBack.ExpectLog(ErrorIf(!fgDone, "File Read[" + strPath + "]\n"));
    EXPECT_TRUE(!fgDone || std::memcmp(read, bytes, 10) == 0);

    const Step move([&] { fgDone = file->SetPosition(-1); });
    EXPECT_EQ(fgDone, !move.Failed("fseek"));
    move.ExpectLog(ErrorIf(!fgDone, "File Position[" + strPath + "]\n"));

    const Step close([&] { fgDone = file->Close(); });
    EXPECT_EQ(fgDone, !close.Failed("fclose"));
    close.ExpectLog(Lines{kClosing} + ErrorIf(!fgDone, "File Close[" + strPath + "]\n"));
    EXPECT_FALSE(file->IsValid());
}

void FileIsMadeByAText() {
    Made<KFile> file("some/path", true);
    // Made into a path, and copied to the file's own.
    EXPECT_EQ(TextOf(file->GetPath().GetPath()), file.Making().Failed("malloc") ? "" : "some/path");
    EXPECT_FALSE(file->IsValid());
}

void PositionIsAsked() {
    Scratch directory;
    const std::string strPath = directory.File("file", "text");
    directory.Leaves("file");
    KFile* const pFile = new KFile(strPath.c_str(), false);
    EXPECT_TRUE(pFile->Open());
    long long nPosition = -7;
    bool fgDone = false;
    const Step ask([&] { fgDone = pFile->GetPosition(nPosition); });
    EXPECT_EQ(fgDone, !ask.Failed("ftell"));
    EXPECT_EQ(nPosition, fgDone ? 0 : -1);
    ask.ExpectLog(ErrorIf(!fgDone, "File Get Position[" + strPath + "]\n"));
    if (fgDone) {
        // It keeps the file's lock: the file can be neither closed nor destroyed.
        static std::vector<KFile*>& s_Locked = *new std::vector<KFile*>();
        s_Locked.push_back(pFile);
        // Its record, its path, and the record of its mutex.
        LeavesBlocks(3);
        LeavesDescriptors(1);
    } else {
        EXPECT_TRUE(pFile->Close());
        delete pFile;
    }
}

/// By the path that a file was made with.
void FileHasAPathOfItsOwn() {
    Scratch directory;
    const std::string strPath = directory.Entry("first");
    const KPath first(strPath.c_str());
    Made<KFile> file(first, true);
    KPath second(directory.Entry("second").c_str());
    if (file.LackedMemory()) {
        return;  // In the record, or in the path: there is nothing to do without either.
    }
    bool fgDone = false;
    const Step create([&] { fgDone = file->Create(true); });
    EXPECT_EQ(fgDone, !create.Failed("fopen"));
    EXPECT_EQ(Exists(strPath), fgDone);
    create.ExpectLog(ErrorIf(!fgDone, "File Create Error[" + strPath + "]\n"));
    bool fgFirst = fgDone;

    const Step open([&] { fgDone = file->Open(); });
    EXPECT_EQ(fgDone, !open.Failed({"fopen", "malloc"}));
    open.ExpectLog(Lines{kOpening} + ErrorIf(!fgDone, "File Open[" + strPath + "]\n"));
    const bool fgOpen = file->IsValid();
    EXPECT_EQ(fgOpen, fgDone);
    fgFirst |= fgOpen;
    const Step rename([&] { fgDone = file->Rename(second); });
    EXPECT_EQ(fgDone, fgOpen && !rename.Failed("rename"));
    EXPECT_EQ(Exists(second), fgDone);
    EXPECT_FALSE(file->IsValid());
    rename.ExpectLog(Lines(fgOpen ? 1 : 0, kClosing) +
                     ErrorIf(rename.Failed("fclose"), "File Close[" + strPath + "]\n") +
                     ErrorIf(rename.Failed("rename"), "File ReName Error[" + strPath + "] ot [" +
                                                          directory.Entry("second") + "] " + ErrorNumber() + "\n"));
    directory.Leaves("second", fgDone);
    fgFirst &= !fgDone;

    std::string text = strPath;
    const Step openByText([&] { fgDone = file->Open(&text[0], true); });
    EXPECT_EQ(fgDone, !openByText.Failed({"fopen", "malloc"}));
    // Made into a path, and copied to the file's own.
    openByText.ExpectLog(Lines{kOpening} +
                         ErrorIf(!fgDone, "File Open[" + (openByText.LackedMemory() ? "" : strPath) + "]\n"));
    const bool fgOpenAgain = fgDone;
    fgFirst |= fgOpenAgain;
    const Step destroy([&] { fgDone = file->Delete(); });
    EXPECT_EQ(fgDone, fgOpenAgain && !destroy.Failed("remove"));
    EXPECT_FALSE(file->IsValid());
    destroy.ExpectLog(Lines(fgOpenAgain ? 1 : 0, kClosing) +
                      ErrorIf(destroy.Failed("fclose"), "File Close[" + strPath + "]\n") +
                      ErrorIf(destroy.Failed("remove"), "File Delete Error[" + strPath + "]\n"));
    directory.Leaves("first", fgFirst && !fgDone);
}

void FilesAreMadeMovedAndDeleted() {
    Scratch directory;
    KPath first(directory.Entry("first").c_str());
    KPath second(directory.Entry("second").c_str());
    bool fgDone = false;
    const Step create([&] { fgDone = KFile::Create(first, false); });
    EXPECT_EQ(fgDone, !create.Failed("fopen"));
    EXPECT_EQ(Exists(first), fgDone);
    const std::string strFirst = directory.File("first", "text");
    create.ExpectLog(ErrorIf(!fgDone, "File Create Error[" + strFirst + "]\n"));

    KFile::FileCanHandle eCan = KFile::FILE_CAN_HANDLE;
    const Step ask([&] { eCan = KFile::CanHandle(first, true, true); });
    EXPECT_EQ(eCan, ask.Failed("stat") ? KFile::FILE_CANNOT_REACH : KFile::FILE_CAN_HANDLE);
    ask.ExpectLog(ErrorIf(ask.Failed("stat"), "File CanHandle Error[" + strFirst + "]\n"));

    const Step rename([&] { fgDone = KFile::Rename(first, second); });
    EXPECT_EQ(fgDone, !rename.Failed("rename"));
    EXPECT_EQ(Exists(second), fgDone);
    rename.ExpectLog(ErrorIf(
        !fgDone, "File ReName Error[" + strFirst + "] ot [" + directory.Entry("second") + "] " + ErrorNumber() + "\n"));
    const std::string strName = fgDone ? "second" : "first";
    KPath& where = fgDone ? second : first;
    const Step destroy([&] { fgDone = KFile::Delete(where); });
    EXPECT_EQ(fgDone, !destroy.Failed("remove"));
    EXPECT_EQ(Exists(where), !fgDone);
    destroy.ExpectLog(ErrorIf(!fgDone, "File Delete Error[" + directory.Entry(strName) + "]\n"));
    directory.Leaves(strName, !fgDone);

    KPath name;
    const Step invent([&] { fgDone = KFile::CreateTempFileName(name); });
    EXPECT_TRUE(fgDone);
    // A name that libc cannot find is an empty one.
    EXPECT_EQ(name.GetPath().Length() == 0, invent.Failed("mktemp") || invent.LackedMemory());
}

// ------------------------------------------------------------------------------------------------------- Directories

struct Entry {
    std::string name;
    KPath::Type eType;

    bool operator==(const Entry& other) const { return name == other.name && eType == other.eType; }
};
void PrintTo(const Entry& entry, std::ostream* pOut) {
    *pOut << '"' << entry.name << "\" of type " << entry.eType;
}

using Entries = std::vector<Entry>;

Entries EntriesOf(const KList<KPath>& list) {
    Entries entries;
    for (int i = 0; i < list.GetCount(); ++i) {
        entries.push_back({TextOf(*list[i]), list[i]->GetType()});
    }
    return entries;
}

Entries EntriesOf(KDirectory& directory) {
    Entries entries;
    KPath entry;
    for (int i = 0; directory.Read(i, entry); ++i) {
        entries.push_back({TextOf(entry), entry.GetType()});
    }
    return entries;
}

Entries OfType(const Entries& entries, KPath::Type eType) {
    Entries some;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(some),
                 [eType](const Entry& entry) { return entry.eType == eType; });
    return some;
}

/// What a step makes that copies entries in order: each takes an element, without which it ends, and a text.
Entries CopiedBy(const Step& step, Entries entries) {
    if (step.LackedMemory()) {
        const std::size_t nEntry = static_cast<std::size_t>(step.FailedCall() - 1) / 2;
        if (step.FailedCall() % 2 == 1) {
            entries.resize(nEntry);
        } else {
            entries[nEntry] = {"", KPath::TYPE_NONE};
        }
    }
    return entries;
}

/// The names in a directory, in the order of the system.
std::vector<std::string> NamesIn(const std::string& strPath) {
    std::vector<std::string> names;
    DIR* const pDirectory = opendir(strPath.c_str());
    while (const dirent* const pEntry = readdir(pDirectory)) {
        names.emplace_back(pEntry->d_name);
    }
    closedir(pDirectory);
    return names;
}

/// The handle of the directory that was opened last, as messages tell it.
std::string Handle() {
    char szHandle[16];
    std::snprintf(szHandle, sizeof(szHandle), "%x",
                  static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(LastDirectory())));
    return szHandle;
}

/// By definition of the library's order: where a name is missing, nothing trades places with it.
void SortByExchange(Entries& entries, int (*compare)(const char*, const char*), int nSign) {
    for (std::size_t i = 0; i < entries.size(); ++i) {
        for (std::size_t j = i; j < entries.size(); ++j) {
            if (!entries[i].name.empty() && !entries[j].name.empty() &&
                nSign * compare(entries[i].name.c_str(), entries[j].name.c_str()) > 0) {
                std::swap(entries[i], entries[j]);
            }
        }
    }
}

/// What Open() reads from a directory that it could open, and the lines that tell it.
struct Listing {
    Listing(const Step& open, const std::string& strPath) {
        std::vector<std::string> names = NamesIn(strPath);
        if (open.Failed("readdir")) {
            names.resize(static_cast<std::size_t>(open.FailedOfItsKind()) - 1);  // those that were read so far
        }
        for (const std::string& name : names) {
            entries.push_back({name, name[0] == '.' ? KPath::TYPE_DIRECTORY : KPath::TYPE_FILE});
            lines.push_back("Log: Directory Read " + name + ", Handle[" + Handle() + "] is Alread Read " +
                            std::to_string(s_nEntriesRead++));
        }
        lines.push_back("Log: Directory Open " + strPath + ", Handle[" + Handle() + "]");
        if (open.Failed("malloc")) {
            // The first one was for the path. Then an entry takes its name and an element, and is missing without either.
            entries.erase(entries.begin() + (open.FailedOfItsKind() - 2) / 2);
        }
        // Without room for their addresses they keep the order of the system; without more room sorting is slow.
        if (!open.Failed("new[]") || open.FailedOfItsKind() != 1) {
            SortByExchange(entries, strcasecmp, 1);
        }
    }

    Entries entries;
    Lines lines;
    static inline int s_nEntriesRead = 0;  ///< The library counts through the life of the process.
};

void DirectoryIsReadAndSorted() {
    Scratch directory;
    for (const char* const pszName : {"b", "A", "c"}) {
        directory.File(pszName, "");
        directory.Leaves(pszName);
    }
    KPath path(directory.Path().c_str());
    Made<KDirectory> made;
    // Without its record a directory is never read, and says that it was.
    const bool fgRecord = made.Making().FailedCall() != 1;
    bool fgDone = false;
    const Step open([&] { fgDone = made->Open(path); });
    // The first memory is for the path, without which there is nothing to open.
    const bool fgOpen = fgRecord && !open.Failed("opendir") && !(open.LackedMemory() && open.FailedCall() == 1);
    EXPECT_EQ(fgDone, fgOpen || !fgRecord);
    const std::string strPath = fgRecord && !(open.LackedMemory() && open.FailedCall() == 1) ? directory.Path() : "";
    const std::string strHandle = fgOpen ? Handle() : "0";
    Entries entries;
    if (fgOpen) {
        const Listing listing(open, strPath);
        open.ExpectLog(listing.lines);
        entries = listing.entries;
    }
    EXPECT_EQ(EntriesOf(*made), entries);
    EXPECT_EQ(made->GetCount(), static_cast<int>(entries.size()));

    const std::string strOf = " Failed " + strPath + ", Handle[" + strHandle + "]";
    KList<KPath> all;
    const Step readAll([&] { fgDone = made->ReadAll(all); });
    EXPECT_EQ(EntriesOf(all), CopiedBy(readAll, entries));
    EXPECT_EQ(fgDone, all.GetCount() == made->GetCount());
    readAll.ExpectLog(ErrorIf(!fgDone, "Directory ReadAll" + strOf));
    KList<KPath> directories;
    const Step readDirectories([&] { fgDone = made->ReadDirectories(directories); });
    EXPECT_EQ(EntriesOf(directories), CopiedBy(readDirectories, OfType(entries, KPath::TYPE_DIRECTORY)));
    EXPECT_EQ(fgDone,
              static_cast<std::size_t>(directories.GetCount()) == OfType(entries, KPath::TYPE_DIRECTORY).size());
    readDirectories.ExpectLog(ErrorIf(!fgDone, "Directory ReadFiles" + strOf));
    KList<KPath> files;
    const Step readFiles([&] { fgDone = made->ReadFiles(files); });
    const Entries unsorted = CopiedBy(readFiles, OfType(entries, KPath::TYPE_FILE));
    EXPECT_EQ(EntriesOf(files), unsorted);
    EXPECT_EQ(fgDone, unsorted.size() == OfType(entries, KPath::TYPE_FILE).size());
    readFiles.ExpectLog(ErrorIf(!fgDone, "Directory ReadFiles" + strOf));

    const Step sort([&] { fgDone = KDirectory::Sort(files, KDirectory::SORT_DESCENDING); });
    // The first memory is for the elements' addresses; without the other it is sorted in a slow way.
    EXPECT_EQ(fgDone, !unsorted.empty() && !(sort.LackedMemory() && sort.FailedCall() == 1));
    Entries sorted = unsorted;
    if (fgDone) {
        SortByExchange(sorted, std::strcmp, -1);
    }
    EXPECT_EQ(EntriesOf(files), sorted);
    KPath entry;
    const Step read([&] { fgDone = made->Read(0, entry); });
    EXPECT_EQ(fgDone, !entries.empty());
    EXPECT_EQ(TextOf(entry.GetPath()), !fgDone || read.LackedMemory() ? "" : entries[0].name);

    const Step close([&] { fgDone = made->Close(); });
    EXPECT_EQ(fgDone, !fgRecord || (fgOpen && !close.Failed({"dirfd", "closedir"})));
    const std::string strEmpty = "Error****: Directory Close " + strPath + ", Handle[0] is Empty ";
    const std::string strClosed = "Log: Directory Close " + strPath + ", Handle[0] ";
    const std::string strOpenHandle = strPath + ", Handle[" + strHandle + "] ";
    if (close.Failed("dirfd")) {
        // It stays open, until it is destroyed.
        close.ExpectLog({"Error****: Directory dirfd failed for close " + strOpenHandle + "is Empty "});
        made.EndsWith({strClosed});
    } else if (fgRecord) {
        close.ExpectLog({close.Failed("closedir") ? "Error****: Directory Close " + strOpenHandle
                         : fgOpen                 ? strClosed
                                                  : strEmpty});
        made.EndsWith({strEmpty});
    }
}

/// Names that differ in case alone keep an order of their own, which takes memory to find, or without any, time.
void NamesThatAreEqualAreSorted() {
    KList<KPath> names;
    for (const char* const pszName : {"b", "a", "B", "A", "C"}) {
        names.Add(KPath(pszName));
    }
    const Entries before = EntriesOf(names);
    bool fgDone = false;
    const Step sort([&] { fgDone = KDirectory::Sort(names, KDirectory::SORT_ASCENDING_NOCASE); });
    EXPECT_EQ(fgDone, sort.FailedCall() != 1);
    std::vector<std::string> sorted;
    for (const Entry& entry : EntriesOf(names)) {
        sorted.push_back(entry.name);
    }
    if (fgDone) {
        EXPECT_THAT(sorted, testing::ElementsAre("a", "A", "B", "b", "C"));
    } else {
        EXPECT_EQ(EntriesOf(names), before);
    }
}

void DirectoriesAreMadeMovedAndAsked() {
    Scratch directory;
    KPath deep(directory.Entry("one/two").c_str());
    KPath top(directory.Entry("one").c_str());
    KPath moved(directory.Entry("uno").c_str());
    bool fgDone = false;
    const Step create([&] { fgDone = KDirectory::CreateDir(deep, KDirectory::DIR_RECURSIVE); });
    const std::string strDeep = directory.Entry("one/two");
    // The last one made is the directory itself; what is said to be there counts as made. Where that is not true of the one
    // before, nothing can go into it.
    const int nLast = static_cast<int>(std::count(strDeep.begin(), strDeep.end(), '/'));
    const bool fgSaidToBeThere = create.Failed("mkdir") && TheOutcome().nError == EEXIST;
    const bool fgNowhere = fgSaidToBeThere && create.FailedCall() == nLast - 1;
    EXPECT_EQ(fgDone, !create.Failed("mkdir") || (fgSaidToBeThere && !fgNowhere));
    EXPECT_EQ(Exists(deep), fgDone && !(fgSaidToBeThere && create.FailedCall() == nLast));
    create.ExpectLog(ErrorIf(!fgDone, "Directory Create Error " + strDeep +
                                          ", ErrorNO:" + (fgNowhere ? std::to_string(ENOENT) : ErrorNumber())));
    const bool fgDeep = Exists(deep);
    std::filesystem::create_directories(directory.Entry("one"));

    KPath single(directory.Entry("single").c_str());
    const Step make([&] { fgDone = KDirectory::CreateDir(single, KDirectory::DIR_SINGLE); });
    EXPECT_EQ(fgDone, !make.Failed("mkdir") || TheOutcome().nError == EEXIST);
    EXPECT_EQ(Exists(single), !make.Failed("mkdir"));
    make.ExpectLog(
        ErrorIf(!fgDone, "Directory Create Error " + directory.Entry("single") + ", ErrorNO:" + ErrorNumber()));
    std::filesystem::create_directories(directory.Entry("single"));

    KDirectory::DirectoryCanHandle eCan = KDirectory::DIR_CAN_HANDLE;
    const Step ask([&] { eCan = KDirectory::CanHandle(top, true, true); });
    EXPECT_EQ(eCan, ask.Failed("opendir")            ? KDirectory::DIR_CANNOT_OPEN
                    : !ask.Failed("stat")            ? KDirectory::DIR_CAN_HANDLE
                    : TheOutcome().nError == ENOTDIR ? KDirectory::DIR_NOT_DIRECTORY
                                                     : KDirectory::DIR_STAT_FAILED);
    // A status that cannot be read leaves the directory open.
    LeavesDescriptors(ask.Failed("stat") ? 1 : 0);

    const Step rename([&] { fgDone = KDirectory::RenameDir(top, moved); });
    EXPECT_EQ(fgDone, !rename.Failed("rename"));
    EXPECT_EQ(Exists(moved), fgDone);
    rename.ExpectLog(ErrorIf(!fgDone, "Directory Rename Error " + directory.Entry("one") + " to " +
                                          directory.Entry("uno") + ", ErrorNO:" + ErrorNumber()));
    const std::string strTop = fgDone ? "uno" : "one";
    directory.Leaves(strTop);
    directory.Leaves(strTop + "/two", fgDeep);

    const Step remove([&] {
        errno = 0;
        fgDone = KDirectory::DeleteDir(single, KDirectory::DIR_SINGLE);
    });
    // The wrong way round: it is a success that is reported.
    EXPECT_EQ(fgDone, remove.Failed("rmdir"));
    EXPECT_EQ(Exists(single), fgDone);
    remove.ExpectLog(ErrorIf(!fgDone, "Directory Delete Error " + directory.Entry("single") + ", ErrorNO:0"));
    directory.Leaves("single", fgDone);
}

/// The names in each directory of a tree, in the order of the system.
using Tree = std::map<std::string, std::vector<std::string>>;

/// What is deleted of a tree when one call fails, and the lines that tell it: a walk like the library's over the tree as it
/// was before.
class Deleting {
 public:
    Deleting(const Step& step, const Tree& tree, const std::string& strTop) : m_Step(step), m_Tree(tree) {
        Contents(strTop, step.Failed("opendir"));
        fgDone = Calls("remove") ? Refuse(strTop) : !IsFull(strTop) || Refuse(strTop, ENOTEMPTY);
        if (fgDone) {
            deleted.insert(strTop);
        }
    }

    Lines lines;
    std::set<std::string> deleted;
    bool fgDone;

 private:
    /// Whether the next call of a function is the one that fails.
    bool Calls(const char* pszFunction) { return m_Step.Failed(pszFunction) && ++m_nCalls == m_Step.FailedOfItsKind(); }
    bool Refuse(const std::string& strPath, int nError = TheOutcome().nError) {
        lines.push_back("Error****: Directory Delete Error " + strPath + ", ErrorNO:" + std::to_string(nError));
        return false;
    }

    static bool IsSelfOrParent(const std::string& name) { return name == "." || name == ".."; }

    bool IsFull(const std::string& strPath) const {
        const std::vector<std::string>& names = m_Tree.at(strPath);
        return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
            return !IsSelfOrParent(name) && deleted.count(strPath + "/" + name) == 0;
        });
    }

    void Contents(const std::string& strPath, bool fgClosed) {
        if (fgClosed) {
            lines.push_back(std::string("Couldn't open the directory: ") + std::strerror(TheOutcome().nError));
            return;
        }
        const bool fgReadable = !Calls("dirfd");
        if (Calls("new")) {
            return;  // without memory for the paths of its entries
        }
        for (const std::string& name : m_Tree.at(strPath)) {
            ++m_nRead;
            if (Calls("readdir")) {
                return;
            }
            // Without memory for its path an entry stays. It is asked for once the entry is read.
            const bool fgPath = !m_Step.Failed({"malloc", "realloc"}) || m_Step.CallsBefore("readdir") != m_nRead;
            if (fgPath) {
                Entry(strPath + "/" + name, name, fgReadable);
            }
        }
        ++m_nRead;  // the end
        Calls("readdir");
    }

    void Entry(const std::string& strPath, const std::string& name, bool fgReadable) {
        const bool fgStatus = fgReadable && !Calls("fstatat");
        if (!fgStatus) {
            const int nError = fgReadable ? TheOutcome().nError : EBADF;
            lines.push_back("Error****: Directory Delete lstat Error " + strPath +
                            ", ErrorNO:" + std::to_string(nError));
        }
        const bool fgDirectory = IsSelfOrParent(name) || m_Tree.count(strPath) != 0;
        if (fgStatus && fgDirectory && IsSelfOrParent(name)) {
            return;
        }
        if (fgStatus && fgDirectory) {
            Contents(strPath, Calls("openat") || Calls("fdopendir"));
        }
        const int nError = fgReadable ? Remove(strPath, name, fgDirectory) : EBADF;
        if (nError == 0) {
            deleted.insert(strPath);
        } else if (fgStatus && fgDirectory) {
            Refuse(strPath, nError);
        }
    }

    /// The error of an entry's removal, or 0. A directory is found to be one by the first try.
    int Remove(const std::string& strPath, const std::string& name, bool fgDirectory) {
        const bool fgFirst = Calls("unlinkat");
        const int nFirst = fgFirst ? TheOutcome().nError : fgDirectory ? EISDIR : 0;
        if (nFirst != EISDIR) {
            return nFirst;
        }
        if (Calls("unlinkat")) {
            return TheOutcome().nError;
        }
        return !fgDirectory ? ENOTDIR : IsSelfOrParent(name) || IsFull(strPath) ? ENOTEMPTY : 0;
    }

    const Step& m_Step;
    const Tree& m_Tree;
    int m_nCalls = 0;
    int m_nRead = 0;
};

void DirectoryIsDeletedWithAllThatIsInIt() {
    Scratch directory;
    std::filesystem::create_directories(directory.Entry("one/two"));
    directory.File("one/two/file", "text");
    KPath top(directory.Entry("one").c_str());
    // What the names of directory and entry make without the slash between them, and what a name alone would lead to.
    const std::string others[] = {directory.File("onetwo", "text"), directory.File("two", "text")};
    const std::string strTop = directory.Entry("one");
    const Tree tree = {{strTop, NamesIn(strTop)}, {strTop + "/two", NamesIn(strTop + "/two")}};
    bool fgDone = false;
    const Step destroy([&] { fgDone = KDirectory::DeleteDir(top, KDirectory::DIR_RECURSIVE); });
    const Deleting deleting(destroy, tree, strTop);
    EXPECT_EQ(fgDone, deleting.fgDone);
    destroy.ExpectLog(deleting.lines);
    for (const std::string strEntry : {"one", "one/two", "one/two/file"}) {
        directory.Leaves(strEntry, deleting.deleted.count(directory.Entry(strEntry)) == 0);
    }
    directory.Leaves("onetwo");
    directory.Leaves("two");
    for (const std::string& other : others) {
        EXPECT_TRUE(Exists(other)) << "a path that could not be put together named something else";
    }
}

/// What is no directory cannot be opened as one, and is deleted all the same.
void FileIsDeletedAsADirectory() {
    Scratch directory;
    const std::string strPath = directory.File("file", "text");
    KPath path(strPath.c_str());
    bool fgDone = false;
    const Step destroy([&] { fgDone = KDirectory::DeleteDir(path, KDirectory::DIR_RECURSIVE); });
    EXPECT_EQ(fgDone, !destroy.Failed("remove"));
    EXPECT_EQ(Exists(path), !fgDone);
    const int nError = destroy.Failed("opendir") ? TheOutcome().nError : ENOTDIR;
    destroy.ExpectLog(Lines{std::string("Couldn't open the directory: ") + std::strerror(nError)} +
                      ErrorIf(!fgDone, "Directory Delete Error " + strPath + ", ErrorNO:" + ErrorNumber()));
    directory.Leaves("file", !fgDone);
}

// ------------------------------------------------------------------------------------------ Property lists, libraries

/// What comes of a list of one key that is read from a file, and the lines that tell it.
struct KeyInAFile {
    /// @p nNews is how often there was a `new` before the one of the file's record.
    KeyInAFile(const Step& read, const std::string& strPath, int nNews) {
        const auto fails = [&](const char* pszFunction, int nCall) {
            return read.Failed(pszFunction) && read.FailedOfItsKind() == nCall;
        };
        if (fails("new", nNews + 1)) {
            return;  // without its record the file has no size
        }
        lines = {kOpening};
        const bool fgPath = !fails("malloc", 1);
        if (!fgPath || read.Failed("fopen")) {
            lines.push_back("Error****: File Open[" + (fgPath ? strPath : "") + "]\n");
            return;
        }
        // It goes to the end of the file to ask where that is. Then it asks for memory, and reads.
        const bool fgSize = !fails("ftell", 2) && !read.Failed("new[]");
        const bool fgText = fgSize && !fails("fseek", 1) && !fails("fseek", 3) && !read.Failed("fread");
        lines = lines + ErrorIf(fgSize && !fgText, "File Read[" + strPath + "]\n");
        if (fgText) {
            Reading reading(read, nNews + 2, 1);
            reading.Open("plist");
            reading.Open("dict");
            reading.Key("a");
            reading.Truth("true/", "TRUE");
            reading.Close("/dict");
            reading.Close("/plist");
            lines = lines + reading.Logged();
            texts = reading.Texts();
        }
        lines = lines + Lines{kClosing} + ErrorIf(read.Failed("fclose"), "File Close[" + strPath + "]\n");
    }

    Lines lines;
    std::vector<std::string> texts;
};

void PropertyListIsReadFromAFile() {
    Scratch directory;
    const std::string strPath = directory.File("list", "<plist><dict><key>a</key><true/></dict></plist>");
    directory.Leaves("list");
    const KPath path(strPath.c_str());
    const Step read([&] { KPropertyList::Init(path); });
    KPropertyList* pList = nullptr;
    const Step find([&] { pList = KPropertyList::GetInstance(); });
    EXPECT_EQ(pList == nullptr, read.FailedCall() == 1);
    if (pList != nullptr) {
        // The list itself, and the two mutexes of its node.
        const KeyInAFile key(read, strPath, 3);
        read.ExpectLog(key.lines);
        EXPECT_EQ(TextsOf(*pList->GetRoot()), key.texts);
    }
    {
        std::optional<KPropertyList> list;
        const Step readAgain([&] { list.emplace(path); });
        const KeyInAFile key(readAgain, strPath, 2);
        readAgain.ExpectLog(key.lines);
        EXPECT_EQ(TextsOf(*list->GetRoot()), key.texts);
    }
    const Step destroy([&] { KPropertyList::Deinit(); });
}

void LibraryIsLoaded() {
    Made<KLib> library;
    const KPath path((std::string(KALVOREN_PLUGINS) + "/places/codec").c_str());
    bool fgDone = false;
    const Step load([&] { fgDone = library->Load(path); });
    // No part of its path is another library's.
    EXPECT_EQ(fgDone, !load.Failed("dlopen") && !load.LackedMemory()) << dlerror();
    const bool fgLoaded = fgDone;
    void* pFunction = nullptr;
    const KString name("PluginName");
    const Step find([&] { pFunction = library->GetFunc(name); });
    EXPECT_EQ(pFunction != nullptr, fgLoaded && !find.Failed("dlsym"));
    const Step unload([&] { fgDone = library->Unload(); });
    EXPECT_EQ(fgDone, fgLoaded && !unload.Failed("dlclose"));
    if (fgLoaded && !fgDone) {
        EXPECT_TRUE(library->Unload());
    }
}

}  // namespace

std::vector<Scenario> FileScenarios() {
    return {{"FileIsWrittenAndRead", FileIsWrittenAndRead, MutexRefusalsAnd({"new in bool KFile::Close(): pInfo"})},
            {"FileIsMadeByAText", FileIsMadeByAText, MutexRefusalsAnd({})},
            {"PositionIsAsked", PositionIsAsked, {}},
            {"FileHasAPathOfItsOwn", FileHasAPathOfItsOwn, MutexRefusalsAnd({})},
            {"FilesAreMadeMovedAndDeleted", FilesAreMadeMovedAndDeleted, {}},
            {"DirectoryIsReadAndSorted", DirectoryIsReadAndSorted,
             MutexRefusalsAnd({"new in bool KDirectory::Open(KPath&): pInfo"})},
            {"NamesThatAreEqualAreSorted", NamesThatAreEqualAreSorted, {}},
            {"DirectoriesAreMadeMovedAndAsked", DirectoriesAreMadeMovedAndAsked, {}},
            {"DirectoryIsDeletedWithAllThatIsInIt", DirectoryIsDeletedWithAllThatIsInIt, {}},
            {"FileIsDeletedAsADirectory", FileIsDeletedAsADirectory, {}},
            {"PropertyListIsReadFromAFile", PropertyListIsReadFromAFile,
             MutexRefusalsAnd({"new in bool KFile::Close(): pInfo",
                               "new in static KPropertyList* KPropertyList::GetInstance(): false"})},
            {"LibraryIsLoaded", LibraryIsLoaded, {}}};
}

}  // namespace torture
