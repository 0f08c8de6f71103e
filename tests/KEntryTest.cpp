#include "KEntry.h"

#include <dlfcn.h>
#include <malloc.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "KAssert.h"
#include "KDebug.h"
#include "KDirectory.h"
#include "KFile.h"
#include "KIPC.h"
#include "KLib.h"
#include "KLocale.h"
#include "KMem.h"
#include "KMessage.h"
#include "KNet.h"
#include "KPropertyList.h"
#include "KQueue.h"
#include "KSystem.h"
#include "KThread.h"
#include "support/Channels.h"
#include "support/Descriptors.h"
#include "support/FailingNew.h"
#include "support/HeapUse.h"
#include "support/Interpose.h"
#include "support/LeaveProcess.h"
#include "support/LittleMemory.h"
#include "support/Locales.h"
#include "support/LogLines.h"
#include "support/PropertyTree.h"
#include "support/Sockets.h"
#include "support/Support.h"
#include "support/Texts.h"

using support::CountOf;
using support::LogOf;
using testing::HasSubstr;

namespace {

constexpr const char* kSource = "src/KEntry";

/// Whether the calls of the modules are written to standard error, between the lines of the log.
bool g_fgTrace = false;

/// Whether libc has no locale for English.
bool g_fgNoEnglish = false;

void Trace(const std::string& call) {
    if (g_fgTrace) {
        std::fputs((call + "\n").c_str(), stderr);
    }
}

/// Writes a call down and makes it: the library's function, by its symbol.
template <typename Result, typename... Arguments>
Result TraceAndCall(const std::string& call, const char* pszSymbol, Arguments... arguments) {
    Trace(call);
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, pszSymbol))(arguments...);
}

}  // namespace

/// Stands in front of libc's setlocale.
extern "C" char* setlocale(int nCategory, const char* pszLocale) noexcept {
    const bool fgMissing = g_fgNoEnglish && pszLocale != nullptr && std::strcmp(pszLocale, "en_US.UTF-8") == 0;
    return support::Next<&setlocale>("setlocale")(nCategory, fgMissing ? "no_such_locale.NONE" : pszLocale);
}

// The functions by which start-up and shut-down are seen: those of a program are found before those of a shared library,
// also by that library.

char* KLocale::Init(LocalSupport eLanguage) {
    return TraceAndCall<char*>("KLocale::Init " + std::to_string(eLanguage), "_ZN7KLocale4InitENS_12LocalSupportE",
                               eLanguage);
}
void KLocale::Deinit() {
    TraceAndCall<void>("KLocale::Deinit", "_ZN7KLocale6DeinitEv");
}
void KAssert::Init(KAssertType type) {
    TraceAndCall<void>("KAssert::Init " + std::to_string(type), "_ZN7KAssert4InitENS_11KAssertTypeE", type);
}
void KAssert::Deinit() {
    TraceAndCall<void>("KAssert::Deinit", "_ZN7KAssert6DeinitEv");
}
void KDebug::Init() {
    TraceAndCall<void>("KDebug::Init", "_ZN6KDebug4InitEv");
}
void KDebug::Deinit() {
    TraceAndCall<void>("KDebug::Deinit", "_ZN6KDebug6DeinitEv");
}
bool KMem::Init() {
    return TraceAndCall<bool>("KMem::Init", "_ZN4KMem4InitEv");
}
void KMem::Deinit() {
    TraceAndCall<void>("KMem::Deinit", "_ZN4KMem6DeinitEv");
}
void KDirectory::Init() {
    TraceAndCall<void>("KDirectory::Init", "_ZN10KDirectory4InitEv");
}
void KDirectory::Deinit() {
    TraceAndCall<void>("KDirectory::Deinit", "_ZN10KDirectory6DeinitEv");
}
void KNet::Init() {
    TraceAndCall<void>("KNet::Init", "_ZN4KNet4InitEv");
}
void KNet::Deinit() {
    TraceAndCall<void>("KNet::Deinit", "_ZN4KNet6DeinitEv");
}
KSystem* KSystem::Init() {
    return TraceAndCall<KSystem*>("KSystem::Init", "_ZN7KSystem4InitEv");
}
KSystem* KSystem::GetInstance() {
    return TraceAndCall<KSystem*>("KSystem::GetInstance", "_ZN7KSystem11GetInstanceEv");
}
void KSystem::Deinit() {
    TraceAndCall<void>("KSystem::Deinit", "_ZN7KSystem6DeinitEv");
}
bool KSystem::SetHWInfo() {
    return TraceAndCall<bool>("KSystem::SetHWInfo", "_ZN7KSystem9SetHWInfoEv", this);
}
bool KSystem::SetOSInfo() {
    return TraceAndCall<bool>("KSystem::SetOSInfo", "_ZN7KSystem9SetOSInfoEv", this);
}
bool KSystem::SetUserInfo() {
    return TraceAndCall<bool>("KSystem::SetUserInfo", "_ZN7KSystem11SetUserInfoEv", this);
}
bool KSystem::SetDiskInfo() {
    return TraceAndCall<bool>("KSystem::SetDiskInfo", "_ZN7KSystem11SetDiskInfoEv", this);
}
bool KSystem::SetDefaultStoragePathInfo() {
    return TraceAndCall<bool>("KSystem::SetDefaultStoragePathInfo", "_ZN7KSystem25SetDefaultStoragePathInfoEv", this);
}

namespace {

constexpr const char* kStartUp =
    "KLocale::Init 0\n"
    "KAssert::Init 0\n"
    "KDebug::Init\n"
    "Log: KEntry Create\n"
    "KMem::Init\n"
    "KDirectory::Init\n"
    "KSystem::Init\n"
    "KNet::Init\n"
    "KSystem::GetInstance\n"
    "KSystem::SetHWInfo\n"
    "KSystem::GetInstance\n"
    "KSystem::SetOSInfo\n"
    "KSystem::GetInstance\n"
    "KSystem::SetHWInfo\n"
    "KSystem::GetInstance\n"
    "KSystem::SetOSInfo\n"
    "KSystem::GetInstance\n"
    "KSystem::SetUserInfo\n"
    "KSystem::GetInstance\n"
    "KSystem::SetDiskInfo\n"
    "KSystem::GetInstance\n"
    "KSystem::SetDefaultStoragePathInfo\n";

constexpr const char* kShutDown =
    "KNet::Deinit\n"
    "KDirectory::Deinit\n"
    "KSystem::Deinit\n"
    "KMem::Deinit\n"
    "KDebug::Deinit\n"
    "KAssert::Deinit\n";

/// What code writes to the log, with the calls of the modules between.
template <typename Code>
std::string TraceOf(Code&& code) {
    g_fgTrace = true;
    std::string lines = LogOf(std::forward<Code>(code));
    g_fgTrace = false;
    return lines;
}

KEntry* Start() {
    return KEntry::Init(0, nullptr);
}

/// The line of the leak report for an entry of the registry.
std::string LeakLine(int nSlot, const void* pBlock, int nSize) {
    char szLine[64];
    std::snprintf(szLine, sizeof szLine, "Log: OBJ %08d nonClass:%08x Size:%08d\n", nSlot,
                  static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(pBlock)), nSize);
    return szLine;
}

/// The library is not started before and after each test, and everything is logged.
class KEntryTest : public testing::Test {
 protected:
    void SetUp() override {
#ifdef KALVOREN_SMALL
        GTEST_SKIP()
            << "calls from one part of the library to another cannot be watched where it is optimised as a whole";
#endif
        g_eDebugLevel = 0;
        KDebug::Deinit();  // Blocks that an earlier line allocated would be lost in a start.
    }
    void TearDown() override {
        KEntry::Deinit();
        KDebug::Deinit();
        KAssert::SetActive(false);
        setlocale(LC_ALL, m_LocaleBefore.c_str());
    }

 private:
    std::string m_LocaleBefore = setlocale(LC_ALL, nullptr);
};

}  // namespace

// -------------------------------------------------------------------------------------------------------------- Starting

TEST_F(KEntryTest, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<KEntry>::value);
}

TEST_F(KEntryTest, InitStartsTheModulesInOrder) {
    KEntry* pEntry = nullptr;
    EXPECT_EQ(TraceOf([&] { pEntry = Start(); }), kStartUp);
    EXPECT_NE(pEntry, nullptr);
}

TEST_F(KEntryTest, ASecondInitGivesTheSameInstanceAndStartsNothing) {
    KEntry* const pEntry = Start();
    EXPECT_EQ(TraceOf([&] { EXPECT_EQ(Start(), pEntry); }), "");
}

TEST_F(KEntryTest, TheArgumentsAreNotUsed) {
    char* argv[] = {nullptr};
    EXPECT_NE(KEntry::Init(-1, nullptr), nullptr);
    KEntry::Deinit();
    EXPECT_NE(KEntry::Init(1000, argv), nullptr);
}

TEST_F(KEntryTest, AfterInitTheChecksAreOn) {
    ASSERT_FALSE(KAssert::GetActive());
    Start();
    EXPECT_TRUE(KAssert::GetActive());
}

TEST_F(KEntryTest, AfterInitTheLogHasItsBuffers) {
    ASSERT_EQ(g_pDebugBuffer, nullptr);
    Start();
    EXPECT_NE(g_pDebugFormat, nullptr);
    EXPECT_NE(g_pDebugBuffer, nullptr);
}

TEST_F(KEntryTest, AfterInitThereIsARegistryOfAllocations) {
    Start();
    EXPECT_FALSE(KMem::Init());
}

TEST_F(KEntryTest, AfterInitTheOperatingSystemIsKnown) {
    Start();
    EXPECT_STREQ(KSystem::GetOSInfo().m_strName.GetBuffer(), "Linux");
}

TEST_F(KEntryTest, TheFirstInitHasTheProcessIgnoreThePipeSignal) {
    EXPECT_EXIT(
        {
            std::signal(SIGPIPE, SIG_DFL);
            Start();
            raise(SIGPIPE);
            support::LeaveProcess(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(KEntryTest, AfterInitTheLocaleIsEnglishWhereItIsInstalled) {
    const support::ScopedLocales locales({"en_US"});
    if (setlocale(LC_ALL, "en_US.UTF-8") == nullptr) {
        GTEST_SKIP() << "the locale en_US.UTF-8 is not installed and cannot be made (Debian: locales)";
    }
    setlocale(LC_ALL, "C");
    Start();
    EXPECT_STREQ(KLocale::GetSystemLocale(), "en_US.UTF-8");
}

TEST_F(KEntryTest, WithoutTheEnglishLocaleTheOneBeforeStaysWithoutAWord) {
    setlocale(LC_ALL, "C");
    g_fgNoEnglish = true;
    EXPECT_EQ(TraceOf([] { Start(); }), kStartUp);
    g_fgNoEnglish = false;
    EXPECT_STREQ(KLocale::GetSystemLocale(), "C");
    EXPECT_STREQ(KString::FromWideString(L"gr\u00FCn").GetBuffer(), "grn");
}

TEST_F(KEntryTest, AStepThatFailsDoesNotStopTheOthers) {
    ASSERT_TRUE(KMem::Init());  // There can be no second registry.
    EXPECT_EQ(TraceOf([] { Start(); }), kStartUp);
}

TEST_F(KEntryTest, WithoutMemoryNothingIsStarted) {
    EXPECT_EQ(TraceOf([] {
                  const support::ScopedNoMemory noMemory;
                  EXPECT_EQ(Start(), nullptr);
              }),
              "");
    EXPECT_FALSE(KAssert::GetActive());
    EXPECT_EQ(TraceOf([] { EXPECT_NE(Start(), nullptr); }), kStartUp);
}

// ------------------------------------------------------------------------------------------------------------- Stopping

TEST_F(KEntryTest, DeinitShutsTheModulesDownInOrder) {
    Start();
    EXPECT_EQ(TraceOf([] { KEntry::Deinit(); }), kShutDown);
}

TEST_F(KEntryTest, DeinitWithoutInitDoesNothing) {
    KAssert::SetActive(true);
    EXPECT_EQ(TraceOf([] { KEntry::Deinit(); }), "");
    EXPECT_TRUE(KAssert::GetActive());
}

TEST_F(KEntryTest, ASecondDeinitDoesNothing) {
    Start();
    KEntry::Deinit();
    EXPECT_EQ(TraceOf([] { KEntry::Deinit(); }), "");
}

TEST_F(KEntryTest, AfterDeinitTheChecksAreOff) {
    Start();
    KEntry::Deinit();
    EXPECT_FALSE(KAssert::GetActive());
}

TEST_F(KEntryTest, AfterDeinitTheLogHasNoBuffers) {
    Start();
    KEntry::Deinit();
    EXPECT_EQ(g_pDebugFormat, nullptr);
    EXPECT_EQ(g_pDebugBuffer, nullptr);
}

TEST_F(KEntryTest, AfterDeinitThereIsNoRegistryOfAllocations) {
    Start();
    KEntry::Deinit();
    EXPECT_TRUE(KMem::Init());
    KMem::Deinit();
}

TEST_F(KEntryTest, AfterDeinitTheRecordsOfTheSystemAreEmpty) {
    Start();
    KEntry::Deinit();
    EXPECT_EQ(KSystem::GetOSInfo().m_strName.Length(), 0);
}

TEST_F(KEntryTest, TheLocaleStaysAfterDeinit) {
    Start();
    const std::string started = setlocale(LC_ALL, nullptr);
    KEntry::Deinit();
    EXPECT_EQ(setlocale(LC_ALL, nullptr), started);
}

// ------------------------------------------------------------------------------------------------------- The leak report

TEST_F(KEntryTest, DeinitReportsWhatIsLeftByTheRegistrysSlots) {
    Start();
    void* pFirst = KMem::Malloc(10);
    void* pGone = KMem::Malloc(20);
    void* pThird = KMem::Calloc(3, 30);
    const std::unique_ptr<KMem> pObject(new KMem(40));
    KMem::Free(&pGone);
    KAssert::SetActive(false);  // Or the shut-down ends here.
    EXPECT_EQ(TraceOf([] { KEntry::Deinit(); }), "KNet::Deinit\nKDirectory::Deinit\nKSystem::Deinit\nKMem::Deinit\n" +
                                                     LeakLine(0, pObject.get(), 40) + LeakLine(0, pFirst, 10) +
                                                     LeakLine(2, pThird, 30) + "KDebug::Deinit\nKAssert::Deinit\n");
    std::free(pFirst);
    std::free(pThird);
}

TEST_F(KEntryTest, WhatWasAllocatedBeforeTheStartIsReportedToo) {
    void* pBefore = KMem::Malloc(10);
    Start();
    KAssert::SetActive(false);
    EXPECT_THAT(LogOf([] { KEntry::Deinit(); }), LeakLine(0, pBefore, 10));
    std::free(pBefore);
}

TEST_F(KEntryTest, WithTheChecksOnWhatIsLeftEndsTheProcessBehindTheReport) {
    EXPECT_EXIT(
        {
            Start();
            KMem::Malloc(1234);
            KEntry::Deinit();
        },
        testing::KilledBySignal(SIGABRT),
        testing::AllOf(
            testing::ContainsRegex("OBJ 00000000 nonClass:[0-9a-f]{8} Size:00001234\n.*src/api/KMem:[0-9]+: "),
            HasSubstr(": static void KMem::Deinit(): Assertion `g_pMemInfoContainer->mnInstanceCount == 0' "
                      "failed.")));
}

TEST_F(KEntryTest, WithoutARegistryTheShutDownFailsTheRegistrysCheck) {
    EXPECT_CHECK_FAILS(
        {
            Start();
            KMem::Deinit();
            KEntry::Deinit();
        },
        "g_pMemInfoContainer", "src/api/KMem", "static void KMem::Deinit()");
}

// ------------------------------------------------------------------------------------------------------ Again and again

TEST_F(KEntryTest, ItCanBeStartedAgainWithEveryStep) {
    Start();
    KEntry::Deinit();
    EXPECT_EQ(TraceOf([] { Start(); }), kStartUp);
    EXPECT_TRUE(KAssert::GetActive());
    EXPECT_STREQ(KSystem::GetOSInfo().m_strName.GetBuffer(), "Linux");
    EXPECT_EQ(TraceOf([] { KEntry::Deinit(); }), kShutDown);
}

namespace {

/// A channel's two sides and the server's end of their connection, and two sides of shared memory. Channels are made once, for
/// their records are never freed.
class Channels {
 public:
    explicit Channels(const std::string& path) {
        for (KIPC* const pChannel : {&m_Server, &m_Client, &m_Peer}) {
            pChannel->SetType(KIPC::LOCAL_SOCKET);
            pChannel->SetPath(KPath(path.c_str()));
        }
        for (KIPC* const pChannel : {&m_Writer, &m_Reader}) {
            // Until it is created, its end would close the standard input.
            pChannel->SetType(KIPC::UNSUPPORTED);
            pChannel->SetIndex(m_nShared);
        }
    }

    /// Passes a record from one side to the other, each way.
    void Work() {
        ASSERT_NO_FATAL_FAILURE(Send());
        ASSERT_NO_FATAL_FAILURE(Share());
    }

 private:
    void Send() {
        ASSERT_TRUE(m_Server.Create(true, KIPC::LOCAL_SOCKET));
        ASSERT_TRUE(m_Client.CreateClient());
        ASSERT_TRUE(m_Client.ConnectToServer());
        ASSERT_TRUE(m_Server.WaitForConnectToMe(m_Peer));
        KIPC::IPCData sent = {{'x'}};
        KIPC::IPCData received = {};
        ASSERT_TRUE(m_Client.Write(sent));
        ASSERT_TRUE(m_Peer.Read(received));
        ASSERT_EQ(received.bytes[0], 'x');
        m_Peer.Close();
        m_Client.Close();
        m_Server.Close();
    }

    void Share() {
        ASSERT_TRUE(m_Writer.Create(true, KIPC::SHARED_MEMORY));
        ASSERT_TRUE(m_Reader.Create(false, KIPC::SHARED_MEMORY));
        ASSERT_NE(m_Writer.GetSharedMemory(), nullptr);
        ASSERT_NE(m_Reader.GetSharedMemory(), nullptr);
        std::memset(m_Writer.GetSharedMemory(), 'x', sizeof(KIPC::IPCData));
        ASSERT_EQ(std::memcmp(m_Reader.GetSharedMemory(), m_Writer.GetSharedMemory(), sizeof(KIPC::IPCData)), 0);
        m_Reader.Close();
        m_Writer.Close();
    }

    const support::ScopedNumber m_nShared;
    KIPC m_Server, m_Client, m_Peer, m_Writer, m_Reader;
};

struct Worker : KThread {
    ~Worker() override { Stop(); }
    int ThreadMainLoop() override {
        fgRan = true;
        return 0;
    }
    std::atomic<bool> fgRan{false};
};

void UseAThread() {
    Worker worker;
    ASSERT_TRUE(worker.Start(0, KThread::NORMAL, -1, nullptr));
    while (!worker.fgRan) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(worker.Stop());
}

void UseAMessage() {
    struct Handler : KMessageHandler {
        int HandleMessage(const KMessage&) override { return ++nReceived; }
        int nReceived = 0;
    } handler;
    KString name("at work");
    ASSERT_TRUE(KMessageHandler::Register(&handler, name));
    KMessageHandler::SendMessage(name, KMessage(name, name, nullptr, 0));
    ASSERT_EQ(handler.nReceived, 1);
    ASSERT_TRUE(KMessageHandler::Unregister(&handler, name));
}

/// Writes a property list to a file, and reads it from there and from a text.
void UseAFileAndAPropertyList(const std::string& name) {
    char szText[] =
        "<plist><dict><key>Name</key><string>North gate</string><key>Port</key><integer>80</integer></dict></plist>";
    KPath path(name.c_str());
    KFile file;
    ASSERT_TRUE(file.Open(path, true));
    ASSERT_TRUE(file.Write(0, szText, std::strlen(szText)));
    ASSERT_EQ(file.GetSize(), std::strlen(szText));
    ASSERT_TRUE(file.Close());
    support::ReadList fromFile(path);
    ASSERT_EQ(fromFile.Dump(), "key(Name){string(North gate)}key(Port){integer(80)}");
    support::ReadList fromText{KString(szText)};
    ASSERT_EQ(fromText.Dump(), fromFile.Dump());
    ASSERT_TRUE(KFile::Delete(path));
}

/// Ends a connection at once: a thousand would keep their ports for a minute each.
void Hang(KNet& net) {
    const linger nothing = {1, 0};
    setsockopt(net.GetSocket(), SOL_SOCKET, SO_LINGER, &nothing, sizeof(nothing));
    ASSERT_TRUE(net.DeleteSocket());
}

/// Sends some bytes from one end of a connection to the other.
void UseAConnection() {
    KNetInfo here(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "127.0.0.1", 0);
    KNet server(here, 0);
    ASSERT_TRUE(server.CreateSocket());
    ASSERT_TRUE(server.Bind());
    KNetInfo there(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "127.0.0.1", support::PortOf(server.GetSocket()));
    KNet client(there, 0);
    ASSERT_TRUE(client.GetHostName());
    ASSERT_TRUE(client.CreateSocket());
    ASSERT_TRUE(client.SyncConnectWithBlock());
    KNet accepted;
    ASSERT_TRUE(server.Accept(accepted));
    ASSERT_EQ(client.Write("hello", 5), 5);
    char bytes[5] = {};
    ASSERT_EQ(accepted.Read(bytes, 5, false), -1);
    ASSERT_EQ(std::string(bytes, 5), "hello");
    ASSERT_NO_FATAL_FAILURE(Hang(client));
    ASSERT_NO_FATAL_FAILURE(Hang(accepted));
    ASSERT_TRUE(server.DeleteSocket());
}

void UseAPlugIn() {
    KLib library;
    ASSERT_TRUE(library.Load(KPath(KALVOREN_PLUGINS "/places/codec")));
    ASSERT_NE(library.GetFunc(KString("PluginName")), nullptr);
    ASSERT_TRUE(library.Unload());
}

/// Uses the modules, and leaves nothing behind.
void Work(KPath& path, Channels& channels) {
    void* pBlock = KMem::Malloc(100);
    pBlock = KMem::Realloc(pBlock, 200);
    KMem::Free(&pBlock);
    KMem block(100);
    block += KMem(10);
    ASSERT_NO_FATAL_FAILURE(UseAThread());
    ASSERT_NO_FATAL_FAILURE(UseAMessage());
    ASSERT_NO_FATAL_FAILURE(UseAFileAndAPropertyList(std::string(path.GetPath().GetBuffer()) + "/list"));
    ASSERT_NO_FATAL_FAILURE(UseAConnection());
    ASSERT_NO_FATAL_FAILURE(UseAPlugIn());
    ASSERT_NO_FATAL_FAILURE(channels.Work());
    KDirectory directory;
    ASSERT_TRUE(directory.Open(path));
    ASSERT_EQ(directory.GetCount(), 2);
    ASSERT_TRUE(KSystem::GetInstance()->SetOSInfo());
    KDebug::Log("at work");
}

constexpr int kTableOf = 2;

/// Hands a buffer from one end of a queue to the other. Its table is never freed: kTableOf pointers.
void UseAQueue() {
    constexpr int kQueue = 7;
    ASSERT_TRUE(KManagedDynamicDataQueue::Create(kQueue, kTableOf));
    KManagedDynamicDataQueue& queue = *KManagedDynamicDataQueue::GetInstance(kQueue);
    KDynamicDataBuffer* const pBuffer = queue.PopWrite();
    ASSERT_NE(pBuffer, nullptr);
    ASSERT_NE(pBuffer->LockWriteBuffer(5000, 0), nullptr);
    pBuffer->SetDataSize(5000);
    pBuffer->UnlockWriteBuffer();
    ASSERT_TRUE(queue.PushWrite(pBuffer));
    ASSERT_EQ(queue.PopRead(), pBuffer);
    ASSERT_TRUE(queue.PushRead(pBuffer));
    ASSERT_TRUE(KManagedDynamicDataQueue::Delete(kQueue));
}

/// A thousand; under valgrind, where each takes a quarter of a second, fewer.
int Starts() {
    return support::IsUnderValgrind() ? 100 : 1000;
}

/// Starts and stops the library as often as Starts() says, with work between. Expects that each time leaves so many bytes allocated,
/// where no sanitizer has an allocator of its own, and no descriptor.
template <typename Code>
void ExpectLeftByEachStart(std::size_t nWanted, const Code& work) {
    constexpr std::size_t kQuarters = 4;
    const std::size_t nQuarter = static_cast<std::size_t>(Starts()) / kQuarters;
    std::array<std::size_t, kQuarters> bytes = {};
    std::vector<int> descriptors;
    for (std::size_t i = 0; i < kQuarters * nQuarter; ++i) {
        ASSERT_NE(Start(), nullptr);
        ASSERT_NO_FATAL_FAILURE(work());
        KEntry::Deinit();
        ASSERT_FALSE(KAssert::GetActive());
        ASSERT_EQ(g_pDebugBuffer, nullptr);
        if (i + 1 == nQuarter) {
            descriptors = support::OpenDescriptors();
        }
        bytes[i / nQuarter] = support::BytesInUse();
    }
    // What each start leaves comes in every quarter. In the first there is also what is kept from the first time on, and in
    // any of them blocks that libc has in hand, which it counts, once for each size.
    double rLeft = static_cast<double>(bytes[1]) - static_cast<double>(bytes[0]);
    for (std::size_t i = 2; i < kQuarters; ++i) {
        rLeft = std::min(rLeft, static_cast<double>(bytes[i]) - static_cast<double>(bytes[i - 1]));
    }
    // Not exact: libc counts what is too small to be cut off a block that it gives, too. A block that is lost has 16 bytes at
    // least, so that one in more than every fourth start is seen.
    constexpr double kSlack = 4;
    EXPECT_NEAR(rLeft / static_cast<double>(nQuarter), bytes[0] > 0 ? static_cast<double>(nWanted) : 0, kSlack);
    EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

}  // namespace

TEST_F(KEntryTest, AThousandStartsAndStopsWithWorkBetween) {
    const support::ScopedDirectory scratch;
    const support::ScopedDirectory sockets;
    KPath path(scratch.Path().c_str());
    Channels channels(sockets.Entry("channel"));
    const std::string lines = LogOf([&] { ExpectLeftByEachStart(0, [&] { Work(path, channels); }); });
    EXPECT_EQ(CountOf(lines, "Log: KEntry Create\n"), Starts());
    EXPECT_EQ(CountOf(lines, "Log: at work\nLog: Directory Close " + scratch.Path()), Starts());
    EXPECT_THAT(lines, testing::Not(HasSubstr("OBJ ")));
}

TEST_F(KEntryTest, AThousandStartsAndStopsWithAQueueLeaveItsTableEachTime) {
    // What libc takes for a block of the table's size.
    void* const pLike = std::malloc(kTableOf * sizeof(void*));
    const std::size_t nTable = malloc_usable_size(pLike) + sizeof(std::size_t);
    std::free(pLike);
    const std::string lines = LogOf([&] {
        ExpectLeftByEachStart(nTable, [] {
            UseAQueue();
            KAssert::SetActive(false);  // Or the shut-down ends at what is left.
        });
    });
    EXPECT_EQ(CountOf(lines, "OBJ "), Starts());
    char szSize[32];
    std::snprintf(szSize, sizeof(szSize), " Size:%08d\n", static_cast<int>(kTableOf * sizeof(void*)));
    EXPECT_EQ(CountOf(lines, szSize), Starts()) << "of the table and nothing else";
}

// --------------------------------------------------------------------------------------------------------- Other objects

TEST_F(KEntryTest, AnObjectOfTheProgramsOwnStartsAndStopsTheLibraryToo) {
    EXPECT_EQ(TraceOf([] { const KEntry entry(0, nullptr); }), std::string(kStartUp) + kShutDown);
}

TEST_F(KEntryTest, CannotBeCopied) {
    EXPECT_CHECK_FAILS(const KEntry copy(*Start()), "0", kSource, "KEntry::KEntry(const KEntry&)");
}

TEST_F(KEntryTest, CannotBeAssigned) {
    EXPECT_CHECK_FAILS(
        {
            KEntry& entry = *Start();
            entry = *Start();
        },
        "0", kSource, "KEntry& KEntry::operator=(const KEntry&)");
}

TEST_F(KEntryTest, AnAssignmentWithTheChecksOffDoesNothing) {
    KEntry& entry = *Start();
    KAssert::SetActive(false);
    EXPECT_EQ(TraceOf([&] { EXPECT_EQ(&(entry = *Start()), &entry); }), "");
}

TEST_F(KEntryTest, ACopyWithTheChecksOffStartsNothingButItsEndShutsTheLibraryDown) {
    KEntry& entry = *Start();
    KAssert::SetActive(false);
    EXPECT_EQ(TraceOf([&] { const KEntry copy(entry); }), kShutDown);
    // The instance is still there, and shuts down what is left.
    EXPECT_EQ(Start(), &entry);
    EXPECT_EQ(TraceOf([] { KEntry::Deinit(); }), kShutDown);
}
