// Files, directories, property lists in files, and the loader.
#include <dlfcn.h>

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

/// Whether a step's failures are told by a line that begins like this; lost only where the line itself could not be written.
void ExpectLine(const Step& step, bool fgWanted, const std::string& line) {
    if (!step.Failed({"fprintf", "vsnprintf"})) {
        EXPECT_EQ(step.Logged(line), fgWanted) << step.Log();
    }
}

void FileIsWrittenAndRead() {
    const support::ScopedDirectory directory;
    Made<KFile> file;
    const KPath path(directory.Entry("file").c_str());
    bool fgDone = false;
    const Step open([&] { fgDone = file->Open(path, true); });
    if (!HasLackedMemory()) {
        EXPECT_EQ(fgDone, !open.Failed("fopen"));
        ExpectLine(open, !fgDone, "Error****: File Open[");
    }
    // Without its record a file is never open, and says that it was opened.
    EXPECT_TRUE(file->IsValid() == fgDone || file.LackedMemory());
    if (!file->IsValid()) {
        return;
    }
    char bytes[] = "0123456789";
    const Step write([&] { fgDone = file->Write(0, bytes, 10); });
    EXPECT_EQ(fgDone, !write.Failed({"fseek", "fwrite"}));
    ExpectLine(write, !fgDone, "Error****: File Write[");
    const bool fgWritten = fgDone;

    std::size_t nSize = 0;
    const Step measure([&] { nSize = file->GetSize(); });
    if (!measure.Failed() && fgWritten) {
        EXPECT_EQ(nSize, 10u);
    }
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
        LeavesBlocks(3);
        LeavesDescriptors(1);
    } else {
        EXPECT_TRUE(pFile->Close());
        delete pFile;
    }
}

void FilesAreMadeMovedAndDeleted() {
    const support::ScopedDirectory directory;
    KPath first(directory.Entry("first").c_str());
    KPath second(directory.Entry("second").c_str());
    bool fgDone = false;
    const Step create([&] { fgDone = KFile::Create(first, false); });
    EXPECT_EQ(fgDone, !create.Failed("fopen"));
    ExpectLine(create, !fgDone, "Error****: File Create Error[");
    directory.File("first", "text");

    KFile::FileCanHandle eCan = KFile::FILE_CAN_HANDLE;
    const Step ask([&] { eCan = KFile::CanHandle(first, true, true); });
    EXPECT_EQ(eCan, ask.Failed("stat") ? KFile::FILE_CANNOT_REACH : KFile::FILE_CAN_HANDLE);
    ExpectLine(ask, ask.Failed("stat"), "Error****: File CanHandle Error[");

    const Step rename([&] { fgDone = KFile::Rename(first, second); });
    EXPECT_EQ(fgDone, !rename.Failed("rename"));
    ExpectLine(rename, !fgDone, "Error****: File ReName Error[");
    KPath& where = fgDone ? second : first;
    const Step destroy([&] { fgDone = KFile::Delete(where); });
    EXPECT_EQ(fgDone, !destroy.Failed("remove"));
    ExpectLine(destroy, !fgDone, "Error****: File Delete Error[");

    KPath name;
    const Step invent([&] { fgDone = KFile::CreateTempFileName(name); });
    EXPECT_TRUE(fgDone);
    // A name that libc cannot find is an empty one.
    EXPECT_EQ(name.GetPath().Length() == 0, invent.Failed("mktemp") || invent.LackedMemory());
}

void DirectoryIsReadAndSorted() {
    const support::ScopedDirectory directory;
    for (const char* const pszName : {"b", "A", "c"}) {
        directory.File(pszName, "");
    }
    KPath path(directory.Path().c_str());
    Made<KDirectory> made;
    bool fgDone = false;
    const Step open([&] { fgDone = made->Open(path); });
    if (!HasLackedMemory()) {
        EXPECT_EQ(fgDone, !open.Failed("opendir"));
    }
    const int nEntries = made->GetCount();
    if (!HasFailed()) {
        EXPECT_EQ(nEntries, 5);
    } else {
        // What could be read so far.
        EXPECT_LE(nEntries, 5);
    }
    KList<KPath> files;
    const Step readFiles([&] { fgDone = made->ReadFiles(files); });
    EXPECT_TRUE(fgDone || readFiles.LackedMemory());
    ExpectLine(readFiles, !fgDone, "Error****: Directory ReadFiles Failed ");
    EXPECT_LE(files.GetCount(), 3);
    const Step sort([&] { fgDone = KDirectory::Sort(files, KDirectory::SORT_DESCENDING); });
    EXPECT_EQ(fgDone, files.GetCount() > 0 && (!sort.LackedMemory() || fgDone));

    const bool fgWasOpen = open.Failed("opendir") ? false : !HasLackedMemory();
    const Step close([&] { fgDone = made->Close(); });
    if (fgWasOpen) {
        EXPECT_EQ(fgDone, !close.Failed({"dirfd", "closedir"}));
        ExpectLine(close, close.Failed("dirfd"), "Error****: Directory dirfd failed for close ");
        ExpectLine(close, close.Failed("closedir"), "Error****: Directory Close ");
    }
}

void DirectoriesAreMadeAndDeleted() {
    const support::ScopedDirectory directory;
    KPath deep(directory.Entry("one/two").c_str());
    KPath top(directory.Entry("one").c_str());
    KPath moved(directory.Entry("uno").c_str());
    bool fgDone = false;
    const Step create([&] { fgDone = KDirectory::CreateDir(deep, KDirectory::DIR_RECURSIVE); });
    EXPECT_EQ(fgDone, !create.Failed("mkdir"));
    ExpectLine(create, !fgDone, "Error****: Directory Create Error ");
    std::filesystem::create_directories(directory.Entry("one/two"));
    directory.File("one/two/file", "text");

    KDirectory::DirectoryCanHandle eCan = KDirectory::DIR_CAN_HANDLE;
    const Step ask([&] { eCan = KDirectory::CanHandle(top, true, true); });
    const bool fgStatFailed = ask.Failed("stat");
    EXPECT_EQ(eCan == KDirectory::DIR_CAN_HANDLE, !ask.Failed({"stat", "opendir"}));
    EXPECT_EQ(eCan == KDirectory::DIR_CANNOT_OPEN, ask.Failed("opendir"));
    // A status that cannot be read leaves the directory open.
    LeavesDescriptors(fgStatFailed ? 1 : 0);

    const Step rename([&] { fgDone = KDirectory::RenameDir(top, moved); });
    EXPECT_EQ(fgDone, !rename.Failed("rename"));
    ExpectLine(rename, !fgDone, "Error****: Directory Rename Error ");
    KPath& where = fgDone ? moved : top;
    // What the names of directory and entry make without the slash between them.
    const std::string strOther = directory.File(fgDone ? "unotwo" : "onetwo", "text");
    const Step destroy([&] { fgDone = KDirectory::DeleteDir(where, KDirectory::DIR_RECURSIVE); });
    if (!HasFailed()) {
        EXPECT_TRUE(fgDone);
    }
    EXPECT_TRUE(std::filesystem::exists(strOther)) << "a path that could not be put together named something else";
    EXPECT_EQ(fgDone, !std::filesystem::exists(where.GetSystemPath(KPath::CONV_SLASH)));
    ExpectLine(destroy, !fgDone, "Error****: Directory Delete Error ");

    const std::string strSingle = directory.Entry("single");
    std::filesystem::create_directory(strSingle);
    KPath single(strSingle.c_str());
    const Step remove([&] { fgDone = KDirectory::DeleteDir(single, KDirectory::DIR_SINGLE); });
    // The wrong way round.
    EXPECT_EQ(fgDone, remove.Failed("rmdir"));
    ExpectLine(remove, !fgDone, "Error****: Directory Delete Error ");
}

void PropertyListIsReadFromAFile() {
    const support::ScopedDirectory directory;
    const KPath path(directory.File("list", "<plist><dict><key>a</key><true/></dict></plist>").c_str());
    const Step read([&] { KPropertyList::Init(path); });
    KPropertyList* pList = nullptr;
    const Step find([&] { pList = KPropertyList::GetInstance(); });
    EXPECT_TRUE(pList != nullptr || read.LackedMemory());
    if (pList != nullptr) {
        const int nNodes = pList->GetRoot()->GetNodeCount();
        if (read.Failed({"fopen", "fread"})) {
            EXPECT_EQ(nNodes, 0);
        } else if (!read.Failed()) {
            EXPECT_EQ(nNodes, 1);
        }
        if (!read.LackedMemory()) {
            ExpectLine(read, read.Failed("fopen"), "Error****: File Open[");
        }
        ExpectLine(read, read.Failed("fclose"), "Error****: File Close[");
    }
    const Step destroy([&] { KPropertyList::Deinit(); });
    if (destroy.LackedMemory()) {
        // Those that could not be listed for destruction stay.
        LeavesBlocks(16);
    }
}

void LibraryIsLoaded() {
    Made<KLib> library;
    const KPath path((std::string(KALVOREN_PLUGINS) + "/places/codec").c_str());
    bool fgDone = false;
    const Step load([&] { fgDone = library->Load(path); });
    if (!HasLackedMemory()) {
        EXPECT_EQ(fgDone, !load.Failed("dlopen")) << dlerror();
    }
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
            {"FilesAreMadeMovedAndDeleted", FilesAreMadeMovedAndDeleted, {}},
            {"DirectoryIsReadAndSorted", DirectoryIsReadAndSorted,
             MutexRefusalsAnd({"new in bool KDirectory::Open(KPath&): pInfo"})},
            {"DirectoriesAreMadeAndDeleted", DirectoriesAreMadeAndDeleted, {}},
            {"PropertyListIsReadFromAFile", PropertyListIsReadFromAFile,
             MutexRefusalsAnd({"new in bool KFile::Close(): pInfo",
                               "new in static KPropertyList* KPropertyList::GetInstance(): false"})},
            {"LibraryIsLoaded", LibraryIsLoaded, {}}};
}

}  // namespace torture
