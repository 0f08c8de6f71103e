// LinearJobs [--bare] JOB N: does one job on something of size N; --bare does it without the library. LinearJobs --list
// prints the jobs, one a line: name, title, what is counted by, sizes, and whether there is a bare one. What counts is done
// in Measured(), so that an instrument can count there alone.
#include "LinearJobs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>

#include "KAssert.h"
#include "KDebug.h"
#include "KDirectory.h"
#include "KEntry.h"
#include "KIPC.h"
#include "KMem.h"
#include "KMessage.h"
#include "KNet.h"
#include "KPropertyList.h"
#include "KQueue.h"
#include "KString.h"
#include "KThread.h"
#include "KTime.h"

namespace {

constexpr int kNoLines = 3;
constexpr int kAllLines = 0;

}  // namespace

extern "C" {

// Where an emulator's counter begins and ends.
[[gnu::noinline, gnu::used]] void CountFromHere() {
    asm volatile("");
}
[[gnu::noinline, gnu::used]] void CountToHere() {
    asm volatile("");
}

}  // extern "C"

[[gnu::noinline]] void Measured(const Job& job) {
    CountFromHere();
    job();
    std::fflush(stdout);
    CountToHere();
}

void MeasuredWithLines(const Job& job) {
    const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nNull, STDERR_FILENO);
    close(nNull);
    g_eDebugLevel = kAllLines;
    Measured(job);
}

std::string Repeated(const std::string& piece, int nTimes) {
    std::string text;
    for (int i = 0; i < nTimes; ++i) {
        text += piece;
    }
    return text;
}

std::string NearlyThere() {
    return "x" + std::string(63, 'a');
}

FilledDirectory::FilledDirectory(int nFiles)
    : m_Path(std::filesystem::temp_directory_path() / "kalvoren-linear-XXXXXX") {
    if (mkdtemp(m_Path.data()) == nullptr) {
        std::exit(2);
    }
    std::mt19937 random(1);
    for (int i = 0; i < nFiles; ++i) {
        close(open((m_Path + "/" + std::to_string(random())).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
}

FilledDirectory::~FilledDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

namespace {

void MakeText(int n) {
    const std::string text(static_cast<std::size_t>(n), 'x');
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            const KString made(text.c_str());
        }
    });
}

void CopyText(int n) {
    const KString text(std::string(static_cast<std::size_t>(n), 'x').c_str());
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            const KString copy(text);  // NOLINT(performance-unnecessary-copy-initialization): it is what is measured
        }
    });
}

void CompareTexts(int n) {
    const KString text(std::string(static_cast<std::size_t>(n), 'x').c_str());
    const KString equal(text);
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            const bool fgEqual = text == equal;
            asm volatile("" : : "r"(fgEqual));
        }
    });
}

void Append(int n) {
    KString text;
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            text += kPiece;
        }
    });
}

void Divide(int n) {
    const KString line(Repeated("field,", n).c_str());
    KList<KString> fields;
    Measured([&] { line.Divide(",", fields); });
}

void Replace(int n) {
    KString text(Repeated("one two ", n).c_str());
    Measured([&] { text.Replace("one", "three"); });
}

void Search(int n) {
    const KString text(Repeated("one two ", n).c_str());
    Measured([&] { text.Find("three", 0); });
}

void SearchRareLetter(int n) {
    const KString text(Repeated("one two ", n).c_str());
    Measured([&] { text.Find(kRareWord, 0); });
}

void SearchNearlyThere(int n) {
    const KString text(Repeated(NearlyThere(), n).c_str());
    const KString word((Repeated(NearlyThere(), n / 10) + "y").c_str());
    Measured([&] { text.Find(word, 0); });
}

/// With the list's destruction.
void FillList(int n) {
    Measured([&] {
        KList<int> list;
        KList<int>::Appender appender(list);
        for (int i = 0; i < n; ++i) {
            appender.Add(i);
        }
    });
}

void WalkList(int n) {
    KList<int> list;
    {
        KList<int>::Appender appender(list);
        for (int i = 0; i < n; ++i) {
            appender.Add(1);
        }
    }
    Measured([&] {
        KList<int>::Reader reader(list);
        int nSum = 0;
        while (const int* const pValue = reader.Next()) {
            nSum += *pValue;
        }
        asm volatile("" : : "r"(nSum));
    });
}

void CopyList(int n) {
    KList<KString> list;
    {
        KList<KString>::Appender appender(list);
        for (int i = 0; i < n; ++i) {
            appender.Add("text");
        }
    }
    Measured([&] {
        const KList<KString> copy(list);  // NOLINT(performance-unnecessary-copy-initialization): it is what is measured
    });
}

void PopList(int n) {
    KList<int> list;
    {
        KList<int>::Appender appender(list);
        for (int i = 0; i < n; ++i) {
            appender.Add(i);
        }
    }
    Measured([&] {
        for (int nValue = 0; list.Pop(nValue, 0);) {
        }
    });
}

void ReadPropertyList(const std::string& contents) {
    const KString text(("<plist>\n<dict>\n" + contents + "</dict>\n</plist>\n").c_str());
    Measured([&] { const KPropertyList list(text); });
}

void ReadFlat(int n) {
    ReadPropertyList(Repeated("\t<key>Width</key>\n\t<integer>1920</integer>\n\t<key>On</key>\n\t<true/>\n", n));
}

void ReadNested(int n) {
    ReadPropertyList(Repeated("<key>Level</key>\n<dict>\n", n) + Repeated("</dict>\n", n));
}

/// A tag without an end, and another, and another.
void ReadBroken(int n) {
    ReadPropertyList(Repeated("<string", n));
}

void OpenDirectory(int n) {
    const FilledDirectory files(n);
    KPath path(files.Path());
    Measured([&] {
        KDirectory directory;
        directory.Open(path);
        directory.Close();
    });
}

/// Names without an order, of which many are equal.
void SortPaths(int n) {
    KList<KPath> paths;
    {
        std::mt19937 random(1);
        KList<KPath>::Appender appender(paths);
        for (int i = 0; i < n; ++i) {
            appender.Add(KPath(std::to_string(random() % 100).c_str()));
        }
    }
    Measured([&] { KDirectory::Sort(paths, KDirectory::SORT_ASCENDING); });
}

/// The last of n blocks is freed and made again.
void ReuseABlock(int n) {
    KMem::Init();
    std::vector<void*> blocks(static_cast<std::size_t>(n));
    for (void*& pBlock : blocks) {
        pBlock = KMem::Malloc(64);
    }
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            KMem::Free(&blocks.back());
            blocks.back() = KMem::Malloc(64);
        }
    });
}

class Counter : public KMessageHandler {
 public:
    virtual ~Counter() = default;
    int HandleMessage(const KMessage&) override { return ++m_nCount; }

 private:
    int m_nCount = 0;
};

/// So many registrations of which some have the name.
void SendAmong(int nAll, int nOurs) {
    std::vector<std::unique_ptr<Counter>> handlers;
    for (int i = 0; i < nAll; ++i) {
        KString name(i < nOurs ? "event" : ("event " + std::to_string(i)).c_str());
        handlers.push_back(std::make_unique<Counter>());
        KMessageHandler::Register(handlers.back().get(), name);
    }
    const KString name("event");
    const KMessage message;
    Measured([&] { KMessageHandler::SendMessage(name, message); });
}

void Dispatch(int n) {
    SendAmong(n, n);
}

void DispatchAmong(int n) {
    SendAmong(n, 1);
}

void Lock(int n) {
    const KMutex mutex;
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            mutex.Lock();
            mutex.Unlock();
        }
    });
}

class Errand : public KThread {
 public:
    ~Errand() override { Stop(); }
    int ThreadMainLoop() override { return 0; }
};

void StartThread(int n) {
    Errand thread;
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            thread.Start(10, KThread::NORMAL, -1, nullptr);
            thread.Stop();
        }
    });
}

void Fields(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            KTime::MakeHumanTime(MomentOf(i), 0, 0, 0);
        }
    });
}

void Seconds(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            const Date date = DateOf(i);
            KTime::MakeUnixTime(date.nYear, date.nMonth, date.nDay, date.nHour, 0, 0, 0, 0);
        }
    });
}

void TimeText(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            KTime(static_cast<int>(MomentOf(i)), 0, 0).GetHumanTimeString(3, 0, 0);
        }
    });
}

void JoinPath(int n) {
    KPath directory(kPathDirectory);
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            directory + kPathName;
        }
    });
}

/// What a path can say of itself, asked n times.
template <class Result>
void AskPath(int n, Result (KPath::*pQuestion)() const) {
    const KPath path(kPath);
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            (path.*pQuestion)();
        }
    });
}

void PathDirectory(int n) {
    AskPath(n, &KPath::GetRootOnly);
}

void PathName(int n) {
    AskPath(n, &KPath::GetSubPath);
}

void PathStem(int n) {
    AskPath(n, &KPath::GetNameOnly);
}

void PathExtension(int n) {
    AskPath(n, &KPath::GetExt);
}

void GoUp(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            KPath path(kPath);
            path.RemoveSubPath();
        }
    });
}

void SystemPath(int n) {
    KPath path(kPath);
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            path.GetSystemPath(KPath::CONV_SLASH);
        }
    });
}

void LogError(int n) {
    MeasuredWithLines([&] {
        for (int i = 0; i < n; ++i) {
            KDebug::Error(kLogFormat, i, kLogText);
        }
    });
}

void LogStamped(int n) {
    MeasuredWithLines([&] {
        for (int i = 0; i < n; ++i) {
            KDebug::Log(kLogFormat, i, kLogText);
        }
    });
}

void HandOver(int n) {
    KManagedDynamicDataQueue queue(2);
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            queue.PushWrite(queue.PopWrite());
            queue.PushRead(queue.PopRead());
        }
    });
}

/// One buffer more than those that wait.
void HandOverBeside(int n) {
    KManagedDynamicDataQueue queue(n + 1);
    for (int i = 0; i < n; ++i) {
        queue.PushWrite(queue.PopWrite());
    }
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            queue.PushWrite(queue.PopWrite());
            queue.PushRead(queue.PopRead());
        }
    });
}

void PassRecord(int n) {
    const FilledDirectory directory(0);
    KIPC server;
    KIPC client;
    KIPC peer;
    for (KIPC* const pChannel : {&server, &client, &peer}) {
        pChannel->SetIndex(1);
        pChannel->SetType(KIPC::LOCAL_SOCKET);
        pChannel->SetPath(KPath(directory.Path()));
    }
    server.Create(true, KIPC::LOCAL_SOCKET);
    client.CreateClient();
    if (!client.ConnectToServer() || !server.WaitForConnectToMe(peer)) {
        std::exit(2);
    }
    KIPC::IPCData data = {};
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            client.Write(data);
            peer.Read(data);
            peer.Write(data);
            client.Read(data);
        }
    });
}

/// So many bytes there and back, n times.
template <int kSize>
void PassBytes(int n) {
    KNetInfo info(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "127.0.0.1", 0);
    KNet server;
    KNet client;
    KNet peer;
    server.SetConnectionInfo(info, 0);
    server.CreateSocket();
    server.Bind();
    info.SetPort(PortOf(server.GetSocket()));
    client.SetConnectionInfo(info, 0);
    if (!client.GetHostName() || !client.CreateSocket() || !client.SyncConnectWithBlock() || !server.Accept(peer)) {
        std::exit(2);
    }
    std::vector<char> bytes(kSize);
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            client.Write(bytes.data(), kSize);
            peer.Read(bytes.data(), kSize, false);
            peer.Write(bytes.data(), kSize);
            client.Read(bytes.data(), kSize, false);
        }
    });
    client.DeleteSocket();
    peer.DeleteSocket();
    server.DeleteSocket();
}

void StartLibrary(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            KEntry::Init(0, nullptr);
            KEntry::Deinit();
        }
    });
}

struct Entry {
    const char* pszName;
    const char* pszTitle;
    const char* pszUnit;  ///< What the instructions are divided by: "n", or a number.
    const char* pszSizes;
    void (*pJob)(int);
};

constexpr const char* kRepeated = "1000";

const Entry kEntries[] = {
    {"MakeText", "make a text of n bytes", kRepeated, "8,32,1024,65536", MakeText},
    {"CopyText", "copy a text of n bytes", kRepeated, "8,32,1024,65536", CopyText},
    {"CompareTexts", "compare equal texts of n bytes", kRepeated, "8,32,1024,65536", CompareTexts},
    {"Append", "append 16 bytes n times", "n", "1024,4096,16384", Append},
    {"Search", "search 8 n bytes for a word that is not there", "n", "100,1000,10000", Search},
    {"SearchRareLetter", "search 8 n bytes for a word with a letter that is not there", "n", "100,1000,10000",
     SearchRareLetter},
    {"SearchNearlyThere", "search 64 n bytes for a word of 6.4 n bytes that is nearly there", "n", "100,1000,10000",
     SearchNearlyThere},
    {"Replace", "replace n words of a text by longer ones", "n", "1000,4000,16000", Replace},
    {"Divide", "divide a line of n fields", "n", "900,9000,90000", Divide},
    {"FillList", "fill a list with n numbers and destroy it", "n", "100,1000,10000", FillList},
    {"WalkList", "walk a list of n numbers", "n", "100,1000,10000", WalkList},
    {"CopyList", "copy a list of n texts", "n", "100,1000,10000", CopyList},
    {"PopList", "pop n numbers", "n", "100,1000,10000", PopList},
    {"Lock", "lock and unlock n times", "n", "100,1000,10000", Lock},
    {"StartThread", "start and join n threads", "n", "10,40,160", StartThread},
    {"LogError", "log n lines without a stamp", "n", "100,1000", LogError},
    {"LogStamped", "log n lines with a stamp", "n", "100,1000", LogStamped},
    {"Fields", "n times seconds to calendar fields", "n", "100,1000,10000", Fields},
    {"Seconds", "n times calendar fields to seconds", "n", "100,1000,10000", Seconds},
    {"TimeText", "n times' texts", "n", "100,1000,10000", TimeText},
    {"JoinPath", "join a directory and a name n times", "n", "100,1000", JoinPath},
    {"PathDirectory", "the directory of a path n times", "n", "100,1000", PathDirectory},
    {"PathName", "the name at a path's end n times", "n", "100,1000", PathName},
    {"PathStem", "the name without its extension n times", "n", "100,1000", PathStem},
    {"PathExtension", "a path's extension n times", "n", "100,1000", PathExtension},
    {"GoUp", "make a path and go up n times", "n", "100,1000", GoUp},
    {"SystemPath", "a path's system form n times", "n", "100,1000", SystemPath},
    {"OpenDirectory", "open a directory of n entries", "n", "100,1000,10000", OpenDirectory},
    {"SortPaths", "sort n paths, many of them equal", "n", "250,1000,4000", SortPaths},
    {"ReadFlat", "read a property list of 2 n values", "n", "100,1000,10000", ReadFlat},
    {"ReadNested", "read n nested dictionaries", "n", "100,1000,10000", ReadNested},
    {"ReadBroken", "read n tags without an end", "n", "1000,4000,16000", ReadBroken},
    {"ReuseABlock", "free and allocate a block beside n live ones, 1,000 times", kRepeated, "1,1000,10000,100000",
     ReuseABlock},
    {"HandOver", "hand a buffer over and back n times", "n", "100,1000,10000", HandOver},
    {"HandOverBeside", "hand a buffer over and back beside n that wait, 1,000 times", kRepeated, "1,31,511",
     HandOverBeside},
    {"Dispatch", "a message to n handlers", "n", "10,100,1000", Dispatch},
    {"DispatchAmong", "a message to one handler among n registrations", "n", "10,100,1000", DispatchAmong},
    {"PassRecord", "n records of 520 bytes there and back", "n", "100,1000", PassRecord},
    {"PassBytes", "n times 64 bytes over TCP and back", "n", "100,1000", PassBytes<64>},
    {"PassBlocks", "n times 16 KiB over TCP and back", "n", "100,1000", PassBytes<16 << 10>},
    {"StartLibrary", "start and stop the library n times", "n", "10,40", StartLibrary},
};

int PrintList() {
    for (const Entry& entry : kEntries) {
        std::printf("%s|%s|%s|%s|%s\n", entry.pszName, entry.pszTitle, entry.pszUnit, entry.pszSizes,
                    BareJobs().count(entry.pszName) != 0 ? "bare" : "");
    }
    return 0;
}

/// The job of a name, null when there is none.
void (*Find(const std::string& name, bool fgBare))(int) {
    if (fgBare) {
        const auto bare = BareJobs().find(name);
        return bare == BareJobs().end() ? nullptr : bare->second;
    }
    for (const Entry& entry : kEntries) {
        if (name == entry.pszName) {
            return entry.pJob;
        }
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
        return PrintList();
    }
    const bool fgBare = argc == 4 && std::strcmp(argv[1], "--bare") == 0;
    void (*const pJob)(int) = argc == 3 || fgBare ? Find(argv[argc - 2], fgBare) : nullptr;
    if (pJob == nullptr) {
        std::fprintf(stderr, "Usage: LinearJobs [--bare] JOB N | --list\n");
        return 2;
    }
    g_eDebugLevel = kNoLines;
    KAssert::SetActive(false);
    pJob(std::atoi(argv[argc - 1]));
    return 0;
}
