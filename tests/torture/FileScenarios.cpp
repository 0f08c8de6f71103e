// Files, directories, property lists in files, and the loader.
#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

using testing::AnyOf;

bool Exists(const std::string& path) {
    return std::filesystem::exists(path);
}
bool Exists(const KPath& path) {
    return Exists(TextOf(path.GetPath()));
}

// ------------------------------------------------------------------------------------------------------------- Files

void FileIsWrittenAndRead() {
    const support::ScopedDirectory directory;
    Made<KFile> file;
    // Without its record a file is never open, and says that all was done.
    const bool fgRecord = file.Making().FailedCall() != 1;
    const KPath path(directory.Entry("file").c_str());
    bool fgDone = false;
    const Step open([&] { fgDone = file->Open(path, true); });
    EXPECT_EQ(fgDone, !fgRecord || !open.Failed({"fopen", "malloc"}));
    ExpectLine(open, !fgDone, "Error****: File Open[");
    EXPECT_EQ(file->IsValid(), fgRecord && fgDone);
    if (!file->IsValid()) {
        return;
    }
    char bytes[] = "0123456789";
    const Step write([&] { fgDone = file->Write(0, bytes, 10); });
    EXPECT_EQ(fgDone, !write.Failed({"fseek", "fwrite"}));
    ExpectLine(write, !fgDone, "Error****: File Write[");
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
    ExpectLine(readBack, !fgDone, "Error****: File Read[");
    EXPECT_TRUE(!fgDone || std::memcmp(read, bytes, 10) == 0);

    const Step move([&] { fgDone = file->SetPosition(-1); });
    EXPECT_EQ(fgDone, !move.Failed("fseek"));
    ExpectLine(move, !fgDone, "Error****: File Position[");

    const Step close([&] { fgDone = file->Close(); });
    EXPECT_EQ(fgDone, !close.Failed("fclose"));
    ExpectLine(close, !fgDone, "Error****: File Close[");
    EXPECT_FALSE(file->IsValid());
}

void PositionIsAsked() {
    const support::ScopedDirectory directory;
    KFile* const pFile = new KFile(directory.File("file", "text").c_str(), false);
    EXPECT_TRUE(pFile->Open());
    long long nPosition = -7;
    bool fgDone = false;
    const Step ask([&] { fgDone = pFile->GetPosition(nPosition); });
    EXPECT_EQ(fgDone, !ask.Failed("ftell"));
    EXPECT_EQ(nPosition, fgDone ? 0 : -1);
    ExpectLine(ask, !fgDone, "Error****: File Get Position[");
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
    const support::ScopedDirectory directory;
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
    ExpectLine(create, !fgDone, "Error****: File Create Error[");

    const Step open([&] { fgDone = file->Open(); });
    EXPECT_EQ(fgDone, !open.Failed({"fopen", "malloc"}));
    const bool fgOpen = file->IsValid();
    EXPECT_EQ(fgOpen, fgDone);
    const Step rename([&] { fgDone = file->Rename(second); });
    EXPECT_EQ(fgDone, fgOpen && !rename.Failed("rename"));
    EXPECT_EQ(Exists(second), fgDone);
    EXPECT_FALSE(file->IsValid());
    ExpectLine(rename, fgOpen && !fgDone, "Error****: File ReName Error[");

    std::string text = strPath;
    const Step openByText([&] { fgDone = file->Open(&text[0], true); });
    EXPECT_EQ(fgDone, !openByText.Failed({"fopen", "malloc"}));
    const Step destroy([&] { fgDone = file->Delete(); });
    EXPECT_EQ(fgDone, !openByText.Failed({"fopen", "malloc"}) && !destroy.Failed("remove"));
    EXPECT_FALSE(file->IsValid());
    ExpectLine(destroy, destroy.Failed("remove"), "Error****: File Delete Error[");
}

void FilesAreMadeMovedAndDeleted() {
    const support::ScopedDirectory directory;
    KPath first(directory.Entry("first").c_str());
    KPath second(directory.Entry("second").c_str());
    bool fgDone = false;
    const Step create([&] { fgDone = KFile::Create(first, false); });
    EXPECT_EQ(fgDone, !create.Failed("fopen"));
    EXPECT_EQ(Exists(first), fgDone);
    ExpectLine(create, !fgDone, "Error****: File Create Error[");
    directory.File("first", "text");

    KFile::FileCanHandle eCan = KFile::FILE_CAN_HANDLE;
    const Step ask([&] { eCan = KFile::CanHandle(first, true, true); });
    EXPECT_EQ(eCan, ask.Failed("stat") ? KFile::FILE_CANNOT_REACH : KFile::FILE_CAN_HANDLE);
    ExpectLine(ask, ask.Failed("stat"), "Error****: File CanHandle Error[");

    const Step rename([&] { fgDone = KFile::Rename(first, second); });
    EXPECT_EQ(fgDone, !rename.Failed("rename"));
    EXPECT_EQ(Exists(second), fgDone);
    ExpectLine(rename, !fgDone, "Error****: File ReName Error[");
    KPath& where = fgDone ? second : first;
    const Step destroy([&] { fgDone = KFile::Delete(where); });
    EXPECT_EQ(fgDone, !destroy.Failed("remove"));
    EXPECT_EQ(Exists(where), !fgDone);
    ExpectLine(destroy, !fgDone, "Error****: File Delete Error[");

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
        entries.push_back({TextOf(list[i]->GetPath()), list[i]->GetType()});
    }
    return entries;
}

Entries EntriesOf(KDirectory& directory) {
    Entries entries;
    KPath entry;
    for (int i = 0; directory.Read(i, entry); ++i) {
        entries.push_back({TextOf(entry.GetPath()), entry.GetType()});
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
            entries[nEntry].name = "";
        }
    }
    return entries;
}

/// How often a text occurs in what a step logged.
int Count(const Step& step, const std::string& text) {
    int nCount = 0;
    for (std::size_t n = step.Log().find(text); n != std::string::npos; n = step.Log().find(text, n + 1)) {
        ++nCount;
    }
    return nCount;
}

/// What has to be there after Open().
void ExpectEntries(const Step& open, bool fgRead, const Entries& entries) {
    const Entries whole = {{".", KPath::TYPE_DIRECTORY},
                           {"..", KPath::TYPE_DIRECTORY},
                           {"A", KPath::TYPE_FILE},
                           {"b", KPath::TYPE_FILE},
                           {"c", KPath::TYPE_FILE}};
    if (!fgRead) {
        EXPECT_EQ(entries, Entries());
    } else if (open.Failed("readdir")) {
        // Those that were read so far.
        EXPECT_EQ(entries.size(), static_cast<std::size_t>(Count(open, "] is Alread Read ")));
        EXPECT_TRUE(std::includes(whole.begin(), whole.end(), entries.begin(), entries.end(),
                                  [](const Entry& left, const Entry& right) {
                                      return strcasecmp(left.name.c_str(), right.name.c_str()) < 0;
                                  }));
    } else if (open.Failed("malloc")) {
        // One entry is missing, or has no name, which is sorted as it may be.
        Entries named = entries;
        named.erase(std::remove_if(named.begin(), named.end(), [](const Entry& entry) { return entry.name.empty(); }),
                    named.end());
        EXPECT_EQ(named.size(), whole.size() - 1);
        EXPECT_LE(entries.size(), whole.size());
    } else {
        // Also where there is no room for a fast way to sort, or none to sort at all: then in the order of the system.
        if (open.Failed("new[]")) {
            EXPECT_TRUE(std::is_permutation(whole.begin(), whole.end(), entries.begin(), entries.end()));
        } else {
            EXPECT_EQ(entries, whole);
        }
    }
}

void DirectoryIsReadAndSorted() {
    const support::ScopedDirectory directory;
    for (const char* const pszName : {"b", "A", "c"}) {
        directory.File(pszName, "");
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
    const Entries entries = EntriesOf(*made);
    ExpectEntries(open, fgOpen, entries);
    EXPECT_EQ(made->GetCount(), static_cast<int>(entries.size()));

    KList<KPath> all;
    const Step readAll([&] { fgDone = made->ReadAll(all); });
    EXPECT_EQ(EntriesOf(all), CopiedBy(readAll, entries));
    EXPECT_EQ(fgDone, all.GetCount() == made->GetCount());
    ExpectLine(readAll, !fgDone, "Error****: Directory ReadAll Failed ");
    KList<KPath> directories;
    const Step readDirectories([&] { fgDone = made->ReadDirectories(directories); });
    EXPECT_EQ(EntriesOf(directories), CopiedBy(readDirectories, OfType(entries, KPath::TYPE_DIRECTORY)));
    ExpectLine(readDirectories, !fgDone, "Error****: Directory ReadFiles Failed ");
    KList<KPath> files;
    const Step readFiles([&] { fgDone = made->ReadFiles(files); });
    const Entries unsorted = CopiedBy(readFiles, OfType(entries, KPath::TYPE_FILE));
    EXPECT_EQ(EntriesOf(files), unsorted);
    EXPECT_EQ(fgDone, unsorted.size() == OfType(entries, KPath::TYPE_FILE).size());
    ExpectLine(readFiles, !fgDone, "Error****: Directory ReadFiles Failed ");

    const Step sort([&] { fgDone = KDirectory::Sort(files, KDirectory::SORT_DESCENDING); });
    // The first memory is for the elements' addresses; without the other it is sorted in a slow way.
    EXPECT_EQ(fgDone, !unsorted.empty() && !(sort.LackedMemory() && sort.FailedCall() == 1));
    Entries sorted = unsorted;
    const bool fgNamed =
        std::none_of(unsorted.begin(), unsorted.end(), [](const Entry& each) { return each.name.empty(); });
    if (fgDone && fgNamed) {
        std::sort(sorted.begin(), sorted.end(),
                  [](const Entry& left, const Entry& right) { return left.name > right.name; });
        EXPECT_EQ(EntriesOf(files), sorted);
    } else if (!fgDone) {
        EXPECT_EQ(EntriesOf(files), unsorted);
    } else {
        // One that has no name stays wherever the others leave it.
        const Entries left = EntriesOf(files);
        EXPECT_TRUE(std::is_permutation(sorted.begin(), sorted.end(), left.begin(), left.end()));
    }
    KPath entry;
    const Step read([&] { fgDone = made->Read(0, entry); });
    EXPECT_EQ(fgDone, !entries.empty());
    EXPECT_EQ(TextOf(entry.GetPath()), !fgDone || read.LackedMemory() ? "" : entries[0].name);

    const Step close([&] { fgDone = made->Close(); });
    EXPECT_EQ(fgDone, !fgRecord || (fgOpen && !close.Failed({"dirfd", "closedir"})));
    ExpectLine(close, close.Failed("dirfd"), "Error****: Directory dirfd failed for close ");
    ExpectLine(close, close.Failed("closedir") || (fgRecord && !fgOpen), "Error****: Directory Close ");
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
    const support::ScopedDirectory directory;
    KPath deep(directory.Entry("one/two").c_str());
    KPath top(directory.Entry("one").c_str());
    KPath moved(directory.Entry("uno").c_str());
    bool fgDone = false;
    const Step create([&] { fgDone = KDirectory::CreateDir(deep, KDirectory::DIR_RECURSIVE); });
    // What is said to be there counts as made; if it is not, what should go into it cannot be made.
    const bool fgThere = create.Failed("mkdir") && TheOutcome().nError == EEXIST && Exists(top);
    EXPECT_EQ(fgDone, !create.Failed("mkdir") || fgThere);
    EXPECT_TRUE(Exists(deep) || create.Failed("mkdir"));
    ExpectLine(create, !fgDone, "Error****: Directory Create Error ");
    std::filesystem::create_directories(directory.Entry("one"));

    KPath single(directory.Entry("single").c_str());
    const Step make([&] { fgDone = KDirectory::CreateDir(single, KDirectory::DIR_SINGLE); });
    EXPECT_EQ(fgDone, !make.Failed("mkdir") || TheOutcome().nError == EEXIST);
    EXPECT_EQ(Exists(single), !make.Failed("mkdir"));
    ExpectLine(make, !fgDone, "Error****: Directory Create Error ");
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
    ExpectLine(rename, !fgDone, "Error****: Directory Rename Error ");

    const Step remove([&] { fgDone = KDirectory::DeleteDir(single, KDirectory::DIR_SINGLE); });
    // The wrong way round.
    EXPECT_EQ(fgDone, remove.Failed("rmdir"));
    EXPECT_EQ(Exists(single), fgDone);
    ExpectLine(remove, !fgDone, "Error****: Directory Delete Error ");
}

void DirectoryIsDeletedWithAllThatIsInIt() {
    const support::ScopedDirectory directory;
    std::filesystem::create_directories(directory.Entry("one/two"));
    directory.File("one/two/file", "text");
    KPath top(directory.Entry("one").c_str());
    // What the names of directory and entry make without the slash between them, and what a name alone would lead to.
    const std::string others[] = {directory.File("onetwo", "text"), directory.File("two", "text")};
    bool fgDone = false;
    const Step destroy([&] { fgDone = KDirectory::DeleteDir(top, KDirectory::DIR_RECURSIVE); });
    EXPECT_EQ(fgDone, !Exists(top));
    ExpectLine(destroy, !fgDone, "Error****: Directory Delete Error ");
    // Two directories are opened, one of them by its name. What cannot be read, entered or removed stays, and what it is in.
    if (destroy.Failed({"opendir", "openat", "fdopendir", "dirfd", "remove"}) ||
        (destroy.Failed("unlinkat") && TheOutcome().nError != EISDIR)) {
        EXPECT_FALSE(fgDone);
    } else if (!destroy.Failed({"unlinkat", "readdir", "fstatat"}) && !destroy.LackedMemory()) {
        // A directory that cannot be closed, a line that cannot be written: nothing that matters.
        EXPECT_TRUE(fgDone);
    }
    EXPECT_EQ(destroy.Logged("Couldn't open the directory: "), destroy.Failed({"opendir", "openat", "fdopendir"}));
    ExpectLine(destroy, destroy.Failed("fstatat") || !fgDone, "Error****: Directory Delete ");
    for (const std::string& other : others) {
        EXPECT_TRUE(Exists(other)) << "a path that could not be put together named something else";
    }
}

// ------------------------------------------------------------------------------------------ Property lists, libraries

/// What is there after a list of one key was read.
void ExpectTheKey(const Step& read, const KPropertyNode& root) {
    if (read.Failed({"fseek", "ftell"}) || read.LackedMemory()) {
        // It depends on which of them, and for what.
        EXPECT_THAT(root.GetNodeCount(), AnyOf(0, 1));
    } else {
        EXPECT_EQ(root.GetNodeCount(), read.Failed({"fopen", "fread"}) ? 0 : 1);
    }
}

void PropertyListIsReadFromAFile() {
    const support::ScopedDirectory directory;
    const KPath path(directory.File("list", "<plist><dict><key>a</key><true/></dict></plist>").c_str());
    const Step read([&] { KPropertyList::Init(path); });
    KPropertyList* pList = nullptr;
    const Step find([&] { pList = KPropertyList::GetInstance(); });
    EXPECT_EQ(pList == nullptr, read.FailedCall() == 1);
    if (pList != nullptr) {
        ExpectTheKey(read, *pList->GetRoot());
        if (!read.LackedMemory()) {
            ExpectLine(read, read.Failed("fopen"), "Error****: File Open[");
        }
        ExpectLine(read, read.Failed("fclose"), "Error****: File Close[");
    }
    std::optional<KPropertyList> list;
    const Step readAgain([&] { list.emplace(path); });
    ExpectTheKey(readAgain, *list->GetRoot());
    list.reset();
    const Step destroy([&] { KPropertyList::Deinit(); });
    // Where the key could not be listed for destruction, it and its value stay: for each the node, the text and the records
    // of two mutexes, and the element by which the one is the other's child.
    LeavesBlocks(destroy.Failed("malloc") ? 2 * 4 + 1 : 0);
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
            {"PositionIsAsked", PositionIsAsked, {}},
            {"FileHasAPathOfItsOwn", FileHasAPathOfItsOwn, MutexRefusalsAnd({})},
            {"FilesAreMadeMovedAndDeleted", FilesAreMadeMovedAndDeleted, {}},
            {"DirectoryIsReadAndSorted", DirectoryIsReadAndSorted,
             MutexRefusalsAnd({"new in bool KDirectory::Open(KPath&): pInfo"})},
            {"NamesThatAreEqualAreSorted", NamesThatAreEqualAreSorted, {}},
            {"DirectoriesAreMadeMovedAndAsked", DirectoriesAreMadeMovedAndAsked, {}},
            {"DirectoryIsDeletedWithAllThatIsInIt", DirectoryIsDeletedWithAllThatIsInIt, {}},
            {"PropertyListIsReadFromAFile", PropertyListIsReadFromAFile,
             MutexRefusalsAnd({"new in bool KFile::Close(): pInfo",
                               "new in static KPropertyList* KPropertyList::GetInstance(): false"})},
            {"LibraryIsLoaded", LibraryIsLoaded, {}}};
}

}  // namespace torture
