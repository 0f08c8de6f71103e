#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "KIPC.h"
#include "support/Channels.h"
#include "support/Descriptors.h"
#include "support/FailingNew.h"
#include "support/HeapUse.h"
#include "support/Interpose.h"
#include "support/LogLines.h"
#include "support/Process.h"
#include "support/Support.h"
#include "support/Umask.h"

namespace {

using support::ChildProcess;
using support::Gate;
using support::InChildProcess;
using support::IsOpen;
using support::kChannels;
using support::LogOf;
using support::ScopedCalls;
using support::ScopedChecks;
using support::ScopedDirectory;
using support::ScopedLevel;
using support::ScopedNoMemory;
using support::ScopedNumber;
using support::ScopedTableNames;
using support::SharedNameOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSource = "src/api/KIPC";
constexpr const char* kIndexCheck = "nIndex >= 0 && nIndex < (1000)";
constexpr const char* kInit = "static bool KIPC::Init(int, bool, KIPC::KIPCType, const KPath&)";
constexpr const char* kGetInstance = "static KIPC* KIPC::GetInstance(int)";
constexpr const char* kDeinit = "static bool KIPC::Deinit(int)";

constexpr std::size_t kRecordSize = 520;
constexpr std::size_t kAddressSize = 110;
constexpr std::size_t kFileNameSize = 108;

// ---------------------------------------------------------------------------------- What the system's calls were given

struct Given {
    std::string name;
    std::vector<int> flags;
    mode_t nMode;
    int nDomain;
    int nType;
    int nProtocol;
    int nBacklog;
    std::size_t nLength;
    sockaddr_un address;
};
thread_local Given t_Given = {};

void NoteAddress(const sockaddr* pAddress, socklen_t nLength) {
    t_Given.nLength = nLength;
    std::memcpy(&t_Given.address, pAddress, std::min<std::size_t>(nLength, sizeof t_Given.address));
}

// -------------------------------------------------------------------------------------------------- Names and numbers

struct stat StatusOfSharedMemory(int nIndex) {
    struct stat status = {};
    const int nDescriptor = shm_open(SharedNameOf(nIndex).c_str(), O_RDONLY, 0);
    EXPECT_EQ(fstat(nDescriptor, &status), 0);
    close(nDescriptor);
    return status;
}

bool SharedNameExists(int nIndex) {
    const int nDescriptor = shm_open(SharedNameOf(nIndex).c_str(), O_RDONLY, 0);
    if (nDescriptor >= 0) {
        close(nDescriptor);
    }
    return nDescriptor >= 0;
}

/// A shared-memory object that somebody else made.
int MakeSharedObject(int nIndex, std::size_t nSize) {
    const int nDescriptor = shm_open(SharedNameOf(nIndex).c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    EXPECT_EQ(ftruncate(nDescriptor, static_cast<off_t>(nSize)), 0);
    return nDescriptor;
}

// ------------------------------------------------------------------------------------------------ Channels and records

/// A channel with a number of the test's own.
class Channel : public KIPC {
 public:
    explicit Channel(int nIndex) { SetIndex(nIndex); }
};

KPath ChannelPath(const ScopedDirectory& directory) {
    return KPath(directory.Entry("channel").c_str());
}

/// A path that no socket file can be made at.
KPath PathToNowhere() {
    return KPath("/kalvoren-test/nowhere/channel");
}

/// A local-socket channel. Its type is set, so that closing it acts on a socket and nothing else.
class SocketChannel : public KIPC {
 public:
    explicit SocketChannel(const KPath& path, int nIndex = 7) {
        SetType(LOCAL_SOCKET);
        SetPath(path);
        SetIndex(nIndex);
    }
    explicit SocketChannel(const ScopedDirectory& directory, int nIndex = 7)
        : SocketChannel(ChannelPath(directory), nIndex) {}
};

std::string SocketFile(const ScopedDirectory& directory, int nIndex = 7) {
    return directory.Entry("channel_" + std::to_string(nIndex));
}

struct stat StatusOfSocketFile(const ScopedDirectory& directory) {
    struct stat status = {};
    EXPECT_EQ(stat(SocketFile(directory).c_str(), &status), 0);
    return status;
}

/// A record whose every byte depends on its place and on a number.
KIPC::IPCData RecordOf(unsigned int nNumber) {
    KIPC::IPCData data;
    unsigned int nNext = nNumber * 2654435761u + 1;
    for (unsigned char& byte : data.bytes) {
        nNext = nNext * 1103515245u + 12345u;
        byte = static_cast<unsigned char>(nNext >> 16);
    }
    return data;
}

bool IsRecord(const void* pBytes, unsigned int nNumber) {
    return pBytes != nullptr && std::memcmp(pBytes, RecordOf(nNumber).bytes, kRecordSize) == 0;
}

bool ReadsRecord(KIPC& channel, unsigned int nNumber) {
    KIPC::IPCData data = {};
    return channel.Read(data) && IsRecord(data.bytes, nNumber);
}

void Fill(KIPC& channel, unsigned int nNumber) {
    ASSERT_NE(channel.GetSharedMemory(), nullptr);
    std::memcpy(channel.GetSharedMemory(), RecordOf(nNumber).bytes, kRecordSize);
}

/// A connected server's peer and client in one process.
struct Pair {
    explicit Pair(const ScopedDirectory& directory) : server(directory), peer(directory), client(directory) {
        EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
        EXPECT_TRUE(client.CreateClient());
        EXPECT_TRUE(client.ConnectToServer());
        EXPECT_TRUE(server.WaitForConnectToMe(peer));
    }

    SocketChannel server;
    SocketChannel peer;
    SocketChannel client;
};

/// A socket that is connected to a server past the class.
int ConnectPlainly(const std::string& file) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, file.c_str(), sizeof address.sun_path - 1);
    const int nSocket = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(connect(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << file;
    return nSocket;
}

void SendPlainly(int nSocket, const void* pBytes, std::size_t nSize) {
    EXPECT_EQ(send(nSocket, pBytes, nSize, MSG_NOSIGNAL), static_cast<ssize_t>(nSize));
}

// ------------------------------------------------------------------------------------------------------- Descriptors

/// The descriptor that the system gives out next.
int NextDescriptor() {
    const int nDescriptor = open("/dev/null", O_RDONLY);
    close(nDescriptor);
    return nDescriptor;
}

/// Puts something at descriptor 0 that may be closed.
void PutSomethingAtStandardInput() {
    const int nNull = open("/dev/null", O_RDONLY);
    dup2(nNull, STDIN_FILENO);
    if (nNull != STDIN_FILENO) {
        close(nNull);
    }
}

/// Whether the system lets itself write to memory of this process.
bool IsWritable(void* pMemory) {
    int nPipe[2];
    EXPECT_EQ(pipe(nPipe), 0);
    EXPECT_EQ(write(nPipe[1], pMemory, 1), 1);
    const ssize_t nRead = read(nPipe[0], pMemory, 1);
    EXPECT_TRUE(nRead == 1 || errno == EFAULT);
    close(nPipe[0]);
    close(nPipe[1]);
    return nRead == 1;
}

void IgnoreBrokenPipes() {
    signal(SIGPIPE, SIG_IGN);
}

}  // namespace

// ------------------------------------------------------------------------------------ The functions in front of libc's

extern "C" int shm_open(const char* pszName, int nFlags, mode_t nMode) {
    if (ScopedCalls::Current() != nullptr) {
        t_Given.name = pszName;
        t_Given.flags.push_back(nFlags);
        t_Given.nMode = nMode;
    }
    return support::NoteAndPassOn<&shm_open>("shm_open", pszName, nFlags, nMode);
}

extern "C" int shm_unlink(const char* pszName) {
    if (ScopedCalls::Current() != nullptr) {
        t_Given.name = pszName;
    }
    return support::NoteAndPassOn<&shm_unlink>("shm_unlink", pszName);
}

extern "C" int unlink(const char* pszName) noexcept {
    if (ScopedCalls::Current() != nullptr) {
        t_Given.name = pszName;
    }
    return support::NoteAndPassOn<&unlink>("unlink", pszName);
}

extern "C" int socket(int nDomain, int nType, int nProtocol) noexcept {
    t_Given.nDomain = nDomain;
    t_Given.nType = nType;
    t_Given.nProtocol = nProtocol;
    return support::NoteAndPassOn<&socket>("socket", nDomain, nType, nProtocol);
}

extern "C" int bind(int nSocket, const sockaddr* pAddress, socklen_t nLength) noexcept {
    NoteAddress(pAddress, nLength);
    return support::NoteAndPassOn<&bind>("bind", nSocket, pAddress, nLength);
}

extern "C" int listen(int nSocket, int nBacklog) noexcept {
    t_Given.nBacklog = nBacklog;
    return support::NoteAndPassOn<&listen>("listen", nSocket, nBacklog);
}

extern "C" int connect(int nSocket, const sockaddr* pAddress, socklen_t nLength) {
    NoteAddress(pAddress, nLength);
    return support::NoteAndPassOn<&connect>("connect", nSocket, pAddress, nLength);
}

extern "C" int accept(int nSocket, sockaddr* __restrict pAddress, socklen_t* __restrict pnLength) {
    t_Given.nLength = *pnLength;
    return support::NoteAndPassOn<&accept>("accept", nSocket, pAddress, pnLength);
}

extern "C" ssize_t read(int nDescriptor, void* pBytes, std::size_t nSize) {
    if (ScopedCalls::Current() == nullptr) {
        return support::NextFunction(&read, "read")(nDescriptor, pBytes, nSize);
    }
    t_Given.nLength = nSize;
    return ScopedCalls::Current()->Note("read").value_or(-1);
}

extern "C" ssize_t write(int nDescriptor, const void* pBytes, std::size_t nSize) {
    if (ScopedCalls::Current() == nullptr) {
        return support::NextFunction(&write, "write")(nDescriptor, pBytes, nSize);
    }
    t_Given.nLength = nSize;
    return ScopedCalls::Current()->Note("write").value_or(-1);
}

namespace {

// ----------------------------------------------------------------------------------------------- Objects and accessors

TEST(KIPCTest, ANewObjectIsASharedMemoryClientOfChannelZeroThatIsNotCreated) {
    KIPC channel;
    EXPECT_EQ(channel.GetIndex(), 0);
    EXPECT_FALSE(channel.IsServer());
    EXPECT_EQ(channel.GetType(), KIPC::SHARED_MEMORY);
    EXPECT_FALSE(channel.IsCreated());
    EXPECT_EQ(channel.GetSharedMemory(), nullptr);
    channel.SetType(KIPC::UNSUPPORTED);  // Its end must not close descriptor 0.
}

TEST(KIPCTest, OfADestroyedChannelTheRecordStaysAndNothingElse) {
    struct Record {
        int nShared;
        void* pMapped;
        int nSocket;
        sockaddr_un address;
    };
    std::vector<std::unique_ptr<Record>> kept;
    kept.reserve(1000);
    const auto keepTwo = [&kept] {
        kept.push_back(std::make_unique<Record>());
        kept.push_back(std::make_unique<Record>());
    };
    EXPECT_EQ(support::BytesLeftBy([] {
                  KIPC channel;
                  channel.SetType(KIPC::UNSUPPORTED);  // Or its end closes descriptor 0.
                  const KIPC copy(channel);
              }),
              support::BytesLeftBy(keepTwo));
}

TEST(KIPCTest, TheAccessorsStoreWhatTheyAreGivenAndReturnTrue) {
    KIPC channel;
    EXPECT_TRUE(channel.SetIndex(-5));
    EXPECT_EQ(channel.GetIndex(), -5);
    EXPECT_TRUE(channel.SetPath(KPath("/somewhere")));
    EXPECT_TRUE(channel.SetType(static_cast<KIPC::KIPCType>(99)));
    EXPECT_EQ(channel.GetType(), 99);
    EXPECT_TRUE(channel.SetType(KIPC::UNSUPPORTED));
    EXPECT_EQ(channel.GetType(), KIPC::UNSUPPORTED);
}

TEST(KIPCTest, TheKindsOfChannelHaveFixedValuesAndTheRecordAFixedSize) {
    EXPECT_EQ(KIPC::SHARED_MEMORY, 0);
    EXPECT_EQ(KIPC::UNSUPPORTED, 1);
    EXPECT_EQ(KIPC::LOCAL_SOCKET, 2);
    EXPECT_EQ(sizeof(KIPC::IPCData), kRecordSize);
    EXPECT_TRUE(std::has_virtual_destructor<KIPC>::value);
}

// -------------------------------------------------------------------------------------------------------- The table

TEST(KIPCTest, AnIndexOutsideTheTableFailsTheCheck) {
    for (const int nIndex : {-1, kChannels, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(nIndex);
        EXPECT_CHECK_FAILS(KIPC::Init(nIndex, true, KIPC::UNSUPPORTED, KPath()), kIndexCheck, kSource, kInit);
        EXPECT_CHECK_FAILS(KIPC::GetInstance(nIndex), kIndexCheck, kSource, kGetInstance);
        EXPECT_CHECK_FAILS(KIPC::Deinit(nIndex), kIndexCheck, kSource, kDeinit);
    }
}

TEST(KIPCTest, AskingForAChannelThatIsNotThereFailsTheCheck) {
    EXPECT_CHECK_FAILS(KIPC::GetInstance(5), "0", kSource, kGetInstance);
}

TEST(KIPCTest, WithTheChecksOffAChannelThatIsNotThereIsNull) {
    const ScopedChecks checks(false);
    for (const int nIndex : {-1, 5, 999, 1000, 1001, INT_MIN, INT_MAX}) {
        EXPECT_EQ(KIPC::GetInstance(nIndex), nullptr) << nIndex;
    }
}

TEST(KIPCTest, WithTheChecksOffChannelNumber1000IsLetInAndNoOtherOutside) {
    InChildProcess([] {
        const ScopedChecks checks(false);
        const ScopedDirectory directory;
        for (const int nIndex : {1001, -1, INT_MIN, INT_MAX}) {
            EXPECT_FALSE(KIPC::Init(nIndex, true, KIPC::LOCAL_SOCKET, ChannelPath(directory))) << nIndex;
            EXPECT_EQ(KIPC::GetInstance(nIndex), nullptr) << nIndex;
        }
        EXPECT_TRUE(KIPC::Init(1000, true, KIPC::LOCAL_SOCKET, ChannelPath(directory)));
        ASSERT_NE(KIPC::GetInstance(1000), nullptr);
        EXPECT_EQ(KIPC::GetInstance(1000)->GetIndex(), 1000);
        EXPECT_TRUE(KIPC::Deinit(1000));
        EXPECT_NE(KIPC::GetInstance(1000), nullptr);
        EXPECT_EQ(KIPC::GetInstance(999), nullptr);
        EXPECT_EQ(KIPC::GetInstance(0), nullptr);
    });
}

TEST(KIPCTest, InitMakesTheChannelWithItsNumberPathSideAndType) {
    InChildProcess([] {
        const ScopedChecks checks(true);
        const ScopedDirectory directory;
        EXPECT_TRUE(KIPC::Init(5, true, KIPC::LOCAL_SOCKET, ChannelPath(directory)));
        KIPC* const pChannel = KIPC::GetInstance(5);
        ASSERT_NE(pChannel, nullptr);
        EXPECT_EQ(pChannel->GetIndex(), 5);
        EXPECT_TRUE(pChannel->IsServer());
        EXPECT_EQ(pChannel->GetType(), KIPC::LOCAL_SOCKET);
        EXPECT_TRUE(pChannel->IsCreated());
        EXPECT_EQ(access(SocketFile(directory, 5).c_str(), F_OK), 0);
    });
}

TEST(KIPCTest, ASecondInitOfAChannelIsTrueAndDoesNothingEvenForAnotherType) {
    InChildProcess([] {
        const ScopedChecks checks(true);
        const ScopedDirectory directory;
        EXPECT_TRUE(KIPC::Init(6, true, KIPC::LOCAL_SOCKET, ChannelPath(directory)));
        KIPC* const pChannel = KIPC::GetInstance(6);
        const ScopedCalls calls;
        EXPECT_TRUE(KIPC::Init(6, false, KIPC::SHARED_MEMORY, KPath("elsewhere")));
        EXPECT_THAT(calls.Names(), IsEmpty());
        EXPECT_EQ(KIPC::GetInstance(6), pChannel);
        EXPECT_EQ(pChannel->GetType(), KIPC::LOCAL_SOCKET);
        EXPECT_TRUE(pChannel->IsServer());
    });
}

TEST(KIPCTest, AChannelThatCouldNotBeCreatedStaysInTheTable) {
    const ScopedTableNames names;
    InChildProcess([] {
        const ScopedChecks checks(true);
        EXPECT_FALSE(KIPC::Init(7, false, KIPC::SHARED_MEMORY, KPath()));
        ASSERT_NE(KIPC::GetInstance(7), nullptr);
        EXPECT_EQ(KIPC::GetInstance(7)->GetIndex(), 7);
        EXPECT_TRUE(KIPC::Init(7, false, KIPC::SHARED_MEMORY, KPath()));
    });
}

TEST(KIPCTest, WithoutMemoryForAChannelInitIsFalseAndTheTableStaysAsItWas) {
    const ScopedChecks checks(false);
    {
        const ScopedNoMemory noMemory;
        EXPECT_FALSE(KIPC::Init(8, true, KIPC::LOCAL_SOCKET, PathToNowhere()));
    }
    EXPECT_EQ(KIPC::GetInstance(8), nullptr);
}

TEST(KIPCTest, DeinitOfAnotherChannelRemovesChannelZero) {
    const ScopedTableNames names;
    InChildProcess([] {
        const ScopedChecks checks(false);
        EXPECT_TRUE(KIPC::Init(0, true, KIPC::SHARED_MEMORY, KPath()));
        EXPECT_TRUE(KIPC::Init(3, true, KIPC::SHARED_MEMORY, KPath()));
        KIPC* const pThird = KIPC::GetInstance(3);
        Fill(*pThird, 3);
        EXPECT_TRUE(KIPC::Deinit(3));
        EXPECT_EQ(KIPC::GetInstance(0), nullptr);
        EXPECT_FALSE(SharedNameExists(0));
        EXPECT_EQ(KIPC::GetInstance(3), pThird);
        EXPECT_TRUE(SharedNameExists(3));
        EXPECT_TRUE(IsRecord(pThird->GetSharedMemory(), 3));
        EXPECT_TRUE(IsOpen(STDIN_FILENO));
    });
}

TEST(KIPCTest, OfAChannelThatIsRemovedTheRecordStaysAndNothingElse) {
    const ScopedTableNames names;
    InChildProcess([] {
        const std::size_t nRecord = support::BytesLeftBy([] { const KIPC channel; });
        EXPECT_EQ(support::BytesLeftBy([] {
                      KIPC::Init(0, true, KIPC::SHARED_MEMORY, KPath());
                      KIPC::Deinit(0);
                  }),
                  nRecord);
    });
}

TEST(KIPCTest, DeinitWithoutChannelZeroDoesNothing) {
    const ScopedTableNames names;
    InChildProcess([] {
        const ScopedChecks checks(false);
        EXPECT_TRUE(KIPC::Init(3, true, KIPC::SHARED_MEMORY, KPath()));
        EXPECT_TRUE(KIPC::Deinit(3));
        EXPECT_NE(KIPC::GetInstance(3), nullptr);
        EXPECT_TRUE(SharedNameExists(3));
    });
}

TEST(KIPCTest, DeinitOfAChannelThatIsNotThereLeavesChannelZero) {
    const ScopedTableNames names;
    InChildProcess([] {
        const ScopedChecks checks(false);
        EXPECT_TRUE(KIPC::Init(0, true, KIPC::SHARED_MEMORY, KPath()));
        for (const int nIndex : {4, -1, 1000, 1001, INT_MIN, INT_MAX}) {
            EXPECT_TRUE(KIPC::Deinit(nIndex)) << nIndex;
        }
        EXPECT_NE(KIPC::GetInstance(0), nullptr);
        EXPECT_TRUE(KIPC::Deinit(0));
        EXPECT_EQ(KIPC::GetInstance(0), nullptr);
        EXPECT_TRUE(KIPC::Deinit(0));
    });
}

TEST(KIPCTest, DeinitNeverRemovesALocalSocketChannelUntilItIsClosed) {
    InChildProcess([] {
        const ScopedChecks checks(false);
        const ScopedDirectory directory;
        EXPECT_TRUE(KIPC::Init(0, true, KIPC::LOCAL_SOCKET, ChannelPath(directory)));
        EXPECT_TRUE(KIPC::Init(1, true, KIPC::LOCAL_SOCKET, ChannelPath(directory)));
        EXPECT_TRUE(KIPC::Deinit(0));
        EXPECT_TRUE(KIPC::Deinit(1));
        ASSERT_NE(KIPC::GetInstance(0), nullptr);
        EXPECT_TRUE(KIPC::GetInstance(0)->IsCreated());
        EXPECT_NE(KIPC::GetInstance(1), nullptr);
        KIPC::GetInstance(0)->Close();
        EXPECT_TRUE(KIPC::Deinit(0));
        EXPECT_EQ(KIPC::GetInstance(0), nullptr);
        EXPECT_NE(KIPC::GetInstance(1), nullptr);
    });
}

// --------------------------------------------------------------------------------------------------- Shared memory

TEST(KIPCTest, ASharedMemoryServerMakesAZeroedObjectOf520Bytes) {
    const ScopedChecks checks(true);
    const ScopedNumber number;
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_TRUE(server.IsServer());
    EXPECT_EQ(server.GetType(), KIPC::SHARED_MEMORY);
    EXPECT_EQ(StatusOfSharedMemory(number).st_size, 520);
    const auto* const pBytes = static_cast<unsigned char*>(server.GetSharedMemory());
    ASSERT_NE(pBytes, nullptr);
    EXPECT_THAT(std::vector<unsigned char>(pBytes, pBytes + kRecordSize), Each(0));
}

TEST(KIPCTest, WhoMayOpenSharedMemoryIsEverybodyLessTheProcesssMask) {
    for (const mode_t nMask : {0000u, 0022u, 0077u}) {
        const support::ScopedUmask mask(nMask);
        const ScopedNumber number;
        Channel server(number);
        EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
        EXPECT_EQ(StatusOfSharedMemory(number).st_mode & 07777, 0666 & ~nMask);
    }
}

TEST(KIPCTest, SharedMemoryIsNeverMarkedAsCreated) {
    const ScopedNumber number;
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_FALSE(server.IsCreated());
}

TEST(KIPCTest, ASharedMemoryServerOpensANewObjectExclusivelyUnderANameWithoutASlash) {
    const ScopedNumber number;
    Channel server(number);
    t_Given = {};
    const ScopedCalls calls;
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_THAT(calls.Names(), ElementsAre("shm_open"));
    EXPECT_EQ(t_Given.name, "KALVOREN_IPC_" + std::to_string(number));
    EXPECT_THAT(t_Given.flags, ElementsAre(O_CREAT | O_EXCL | O_RDWR));
    EXPECT_EQ(t_Given.flags.front(), 194);
    EXPECT_EQ(t_Given.nMode, 0666u);
}

TEST(KIPCTest, ASecondSharedMemoryServerOpensWhatIsThere) {
    const ScopedNumber number;
    Channel first(number);
    EXPECT_TRUE(first.Create(true, KIPC::SHARED_MEMORY));
    Fill(first, 1);
    Channel second(number);
    t_Given = {};
    const ScopedCalls calls;
    EXPECT_TRUE(second.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_THAT(calls.Names(), ElementsAre("shm_open", "shm_open"));
    EXPECT_THAT(t_Given.flags, ElementsAre(194, 130));
    EXPECT_TRUE(IsRecord(second.GetSharedMemory(), 1));
    Fill(second, 2);
    EXPECT_TRUE(IsRecord(first.GetSharedMemory(), 2));
}

TEST(KIPCTest, ASharedMemoryServerThatCannotOpenWhatIsThereIsNotCreated) {
    const ScopedNumber number;
    Channel server(number);
    const ScopedCalls calls({{"shm_open", -1}});
    EXPECT_FALSE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_THAT(calls.Names(), ElementsAre("shm_open", "shm_open"));
    EXPECT_EQ(server.GetSharedMemory(), nullptr);
    EXPECT_TRUE(server.IsServer());
}

TEST(KIPCTest, ASharedMemoryClientOpensTheObjectForReadingOnly) {
    const ScopedNumber number;
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    Fill(server, 1);
    Channel client(number);
    {
        t_Given = {};
        const ScopedCalls calls;
        EXPECT_TRUE(client.Create(false, KIPC::SHARED_MEMORY));
        EXPECT_THAT(calls.Names(), ElementsAre("shm_open"));
        EXPECT_THAT(t_Given.flags, ElementsAre(O_RDONLY));
        EXPECT_EQ(t_Given.nMode, 0666u);
    }
    EXPECT_FALSE(client.IsServer());
    ASSERT_NE(client.GetSharedMemory(), nullptr);
    EXPECT_NE(client.GetSharedMemory(), server.GetSharedMemory());
    EXPECT_TRUE(IsRecord(client.GetSharedMemory(), 1));
    EXPECT_FALSE(IsWritable(client.GetSharedMemory()));
    EXPECT_TRUE(IsWritable(server.GetSharedMemory()));
}

TEST(KIPCTest, ASharedMemoryClientWithoutAServerIsNotCreatedAndCanTryAgain) {
    const ScopedNumber number;
    Channel client(number);
    EXPECT_FALSE(client.Create(false, KIPC::SHARED_MEMORY));
    EXPECT_EQ(client.GetSharedMemory(), nullptr);
    EXPECT_FALSE(SharedNameExists(number));
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_TRUE(client.Create(false, KIPC::SHARED_MEMORY));
    EXPECT_NE(client.GetSharedMemory(), nullptr);
}

TEST(KIPCTest, AnObjectThatCannotBeGivenItsSizeIsRemovedAndCreateIsTrueWithoutMemory) {
    const ScopedNumber number;
    InChildProcess([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {kRecordSize - 1, kRecordSize - 1};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const int nNext = NextDescriptor();
        Channel server(number);
        const ScopedCalls calls;
        EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
        EXPECT_THAT(calls.Names(), ElementsAre("shm_open", "shm_unlink"));
        EXPECT_EQ(server.GetSharedMemory(), nullptr);
        EXPECT_FALSE(IsOpen(nNext));
    });
    EXPECT_FALSE(SharedNameExists(number));
}

TEST(KIPCTest, AnObjectShorterThan520BytesIsNotMappedAndCreateIsTrue) {
    const ScopedChecks checks(true);
    for (const std::size_t nSize : {0u, 1u, 519u}) {
        for (const bool fgServer : {true, false}) {
            SCOPED_TRACE(testing::Message() << nSize << (fgServer ? " bytes, server" : " bytes, client"));
            const ScopedNumber number;
            close(MakeSharedObject(number, nSize));
            const int nNext = NextDescriptor();
            Channel channel(number);
            EXPECT_TRUE(channel.Create(fgServer, KIPC::SHARED_MEMORY));
            EXPECT_EQ(channel.GetSharedMemory(), nullptr);
            EXPECT_FALSE(IsOpen(nNext));
            EXPECT_TRUE(SharedNameExists(number));
        }
    }
}

TEST(KIPCTest, AnObjectThatWasTooShortCanBeOpenedWhenItHasItsSize) {
    const ScopedNumber number;
    const int nDescriptor = MakeSharedObject(number, 0);
    Channel client(number);
    EXPECT_TRUE(client.Create(false, KIPC::SHARED_MEMORY));
    EXPECT_EQ(client.GetSharedMemory(), nullptr);
    EXPECT_EQ(ftruncate(nDescriptor, kRecordSize), 0);
    close(nDescriptor);
    EXPECT_TRUE(client.Create(false, KIPC::SHARED_MEMORY));
    EXPECT_NE(client.GetSharedMemory(), nullptr);
}

TEST(KIPCTest, AnObjectLongerThan520BytesIsMapped) {
    const ScopedNumber number;
    close(MakeSharedObject(number, 100000));
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    Fill(server, 1);
}

TEST(KIPCTest, SharedMemoryHasNoSocketToConnectReadOrWrite) {
    const ScopedChecks checks(true);
    const ScopedNumber number;
    KIPC::IPCData data = {};
    Channel server(number);
    Channel client(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_TRUE(client.Create(false, KIPC::SHARED_MEMORY));
    EXPECT_FALSE(server.Write(data));
    EXPECT_FALSE(server.Read(data));
    EXPECT_FALSE(client.Write(data));
    EXPECT_FALSE(client.Read(data));
    EXPECT_FALSE(client.ConnectToServer());
    EXPECT_FALSE(server.ConnectToServer());
    EXPECT_FALSE(server.WaitForConnectToMe(client));
}

TEST(KIPCTest, ClosingSharedMemoryUnmapsItClosesItsDescriptorAndRemovesItsNameOnEitherSide) {
    const ScopedChecks checks(true);
    for (const bool fgServer : {true, false}) {
        SCOPED_TRACE(fgServer ? "server" : "client");
        const ScopedNumber number;
        const int nOther = MakeSharedObject(number, kRecordSize);
        const int nNext = NextDescriptor();
        Channel channel(number);
        EXPECT_TRUE(channel.Create(fgServer, KIPC::SHARED_MEMORY));
        EXPECT_TRUE(IsOpen(nNext));
        EXPECT_EQ(support::StderrOf([&] { EXPECT_TRUE(channel.Close()); }), "");
        EXPECT_FALSE(IsOpen(nNext));
        EXPECT_EQ(channel.GetSharedMemory(), nullptr);
        EXPECT_FALSE(SharedNameExists(number));
        close(nOther);
    }
}

namespace {

/// Whether there is memory at an address, where a page begins: the system tells what it knows of that.
bool IsMemory(void* pAddress) {
    unsigned char chResident = 0;
    return mincore(pAddress, 1, &chResident) == 0;
}

}  // namespace

TEST(KIPCTest, ClosingSharedMemoryLeavesNothingAtItsAddress) {
    const ScopedNumber number;
    Channel server(number);
    ASSERT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    void* const pMemory = server.GetSharedMemory();
    ASSERT_TRUE(IsMemory(pMemory));
    EXPECT_TRUE(server.Close());
    EXPECT_FALSE(IsMemory(pMemory));
}

TEST(KIPCTest, ClosingSharedMemoryTwiceOnlyRemovesTheNameAgain) {
    const ScopedNumber number;
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_TRUE(server.Close());
    close(MakeSharedObject(number, kRecordSize));
    EXPECT_TRUE(server.Close());
    EXPECT_FALSE(SharedNameExists(number));
    EXPECT_TRUE(IsOpen(STDIN_FILENO));
}

TEST(KIPCTest, DestroyingASharedMemoryChannelClosesIt) {
    const ScopedNumber number;
    const int nNext = NextDescriptor();
    {
        Channel server(number);
        EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
        EXPECT_TRUE(SharedNameExists(number));
    }
    EXPECT_FALSE(SharedNameExists(number));
    EXPECT_FALSE(IsOpen(nNext));
}

TEST(KIPCTest, AfterAClientClosedTheNextServerMakesANewObject) {
    const ScopedNumber number;
    Channel server(number);
    Channel client(number);
    Channel next(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_TRUE(client.Create(false, KIPC::SHARED_MEMORY));
    Fill(server, 1);
    client.Close();
    EXPECT_TRUE(IsRecord(server.GetSharedMemory(), 1));
    EXPECT_TRUE(next.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_FALSE(IsRecord(next.GetSharedMemory(), 1));
}

TEST(KIPCTest, CreatingSharedMemoryAgainLeavesTheEarlierDescriptorOpen) {
    InChildProcess([] {
        const ScopedNumber number;
        Channel server(number);
        const int nFirst = NextDescriptor();
        EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
        const void* const pFirst = server.GetSharedMemory();
        Fill(server, 1);
        EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
        EXPECT_NE(server.GetSharedMemory(), pFirst);
        server.Close();
        EXPECT_TRUE(IsOpen(nFirst));
        EXPECT_TRUE(IsRecord(pFirst, 1));
    });
}

// ----------------------------------------------------------------------------- What was never created, and other types

TEST(KIPCTest, ClosingAnObjectThatWasNeverCreatedClosesDescriptorZeroAndRemovesTheNameOfChannelZero) {
    const ScopedTableNames names;
    InChildProcess([] {
        const ScopedChecks checks(true);
        PutSomethingAtStandardInput();
        close(MakeSharedObject(0, kRecordSize));
        {
            KIPC channel;
            EXPECT_TRUE(channel.Close());
            EXPECT_FALSE(IsOpen(STDIN_FILENO));
            EXPECT_FALSE(SharedNameExists(0));
            EXPECT_EQ(channel.GetSharedMemory(), nullptr);
            PutSomethingAtStandardInput();
        }
        // Closed already: the end of the object leaves the new descriptor 0 alone.
        EXPECT_TRUE(IsOpen(STDIN_FILENO));
    });
}

TEST(KIPCTest, DestroyingAnObjectThatWasNeverCreatedClosesDescriptorZero) {
    const ScopedNumber number;
    InChildProcess([&] {
        PutSomethingAtStandardInput();
        close(MakeSharedObject(number, kRecordSize));
        { const Channel channel(number); }
        EXPECT_FALSE(IsOpen(STDIN_FILENO));
        EXPECT_FALSE(SharedNameExists(number));
    });
}

TEST(KIPCTest, AnAcceptedPeerKeepsItsOwnTypeSoThatClosingItClosesDescriptorZeroAndNotTheSocket) {
    const ScopedNumber number;
    InChildProcess([&] {
        const ScopedDirectory directory;
        SocketChannel server(directory);
        SocketChannel client(directory);
        Channel peer(number);
        EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
        EXPECT_TRUE(client.CreateClient());
        EXPECT_TRUE(client.ConnectToServer());
        EXPECT_TRUE(server.WaitForConnectToMe(peer));
        EXPECT_EQ(peer.GetType(), KIPC::SHARED_MEMORY);
        PutSomethingAtStandardInput();
        EXPECT_EQ(LogOf([&] { peer.Close(); }), "");
        EXPECT_FALSE(IsOpen(STDIN_FILENO));
        EXPECT_TRUE(client.Write(RecordOf(1)));
        EXPECT_TRUE(ReadsRecord(peer, 1));
    });
}

TEST(KIPCTest, CreatingAnUnsupportedChannelFailsTheCheck) {
    for (const int nType : {1, 3, -1}) {
        SCOPED_TRACE(nType);
        EXPECT_CHECK_FAILS(KIPC().Create(true, static_cast<KIPC::KIPCType>(nType)), "0", kSource,
                           "bool KIPC::Create(bool, KIPC::KIPCType)");
    }
}

TEST(KIPCTest, WithTheChecksOffCreatingAnUnsupportedChannelIsTrueAndMakesNothing) {
    const ScopedChecks checks(false);
    for (const int nType : {1, 3, -1}) {
        SCOPED_TRACE(nType);
        KIPC channel;
        const ScopedCalls calls;
        EXPECT_TRUE(channel.Create(true, static_cast<KIPC::KIPCType>(nType)));
        EXPECT_THAT(calls.Names(), IsEmpty());
        EXPECT_EQ(channel.GetType(), nType);
        EXPECT_TRUE(channel.IsServer());
        EXPECT_FALSE(channel.IsCreated());
        EXPECT_TRUE(channel.Close());
        EXPECT_THAT(calls.Names(), IsEmpty());
        EXPECT_TRUE(IsOpen(STDIN_FILENO));
    }
}

TEST(KIPCTest, ClosingAnUnsupportedChannelIsQuietAndOneOfAnyOtherTypeFailsTheCheck) {
    {
        const ScopedChecks checks(true);
        KIPC channel;
        channel.SetType(KIPC::UNSUPPORTED);
        EXPECT_TRUE(channel.Close());
    }
    EXPECT_CHECK_FAILS(
        {
            KIPC channel;
            channel.SetType(static_cast<KIPC::KIPCType>(3));
            channel.Close();
        },
        "0", kSource, "bool KIPC::Close()");
}

// --------------------------------------------------------------------------------------------- Creating a local socket

TEST(KIPCTest, ALocalSocketIsMadeBoundAndListenedOnWhicheverTheSide) {
    const ScopedChecks checks(true);
    for (const bool fgServer : {true, false}) {
        SCOPED_TRACE(fgServer ? "server" : "client");
        const ScopedDirectory directory;
        SocketChannel channel(directory);
        t_Given = {};
        const ScopedCalls calls;
        EXPECT_TRUE(channel.Create(fgServer, KIPC::LOCAL_SOCKET));
        EXPECT_THAT(calls.Names(), ElementsAre("socket", "unlink", "bind", "listen"));
        EXPECT_EQ(t_Given.nDomain, AF_UNIX);
        EXPECT_EQ(t_Given.nType, SOCK_STREAM);
        EXPECT_EQ(t_Given.nProtocol, 0);
        EXPECT_EQ(t_Given.name, SocketFile(directory));
        EXPECT_EQ(t_Given.nLength, kAddressSize);
        EXPECT_EQ(t_Given.address.sun_family, AF_UNIX);
        EXPECT_STREQ(t_Given.address.sun_path, SocketFile(directory).c_str());
        EXPECT_EQ(t_Given.nBacklog, 1000);
        EXPECT_TRUE(channel.IsCreated());
        EXPECT_EQ(channel.IsServer(), fgServer);
        EXPECT_TRUE(S_ISSOCK(StatusOfSocketFile(directory).st_mode));
    }
}

TEST(KIPCTest, TheAddressBehindTheNameIsZeros) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    channel.SetPath(KPath(directory.Entry(std::string(50, 'n')).c_str()));
    channel.Create(true, KIPC::LOCAL_SOCKET);
    channel.Close();
    channel.SetPath(ChannelPath(directory));
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    const std::string path(t_Given.address.sun_path, kFileNameSize);
    EXPECT_EQ(path, SocketFile(directory) + std::string(kFileNameSize - SocketFile(directory).size(), '\0'));
}

TEST(KIPCTest, ALocalSocketIsLoggedWithItsDescriptorWhenItIsMadeAndWhenItIsClosed) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    int nDescriptor = -1;
    const std::string log = LogOf([&] {
        nDescriptor = NextDescriptor();
        channel.Create(true, KIPC::LOCAL_SOCKET);
        EXPECT_TRUE(IsOpen(nDescriptor));
        channel.Close();
        EXPECT_FALSE(IsOpen(nDescriptor));
        channel.Close();
    });
    const std::string number = std::to_string(nDescriptor);
    EXPECT_EQ(log, "Log: Create IPC " + number + "\nLog: Close IPC " + number + "\n");
}

TEST(KIPCTest, ClosingALocalSocketEndsItsBeingCreatedAndLeavesItsFile) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    channel.Create(true, KIPC::LOCAL_SOCKET);
    const ScopedCalls calls;
    EXPECT_TRUE(channel.Close());
    EXPECT_THAT(calls.Names(), IsEmpty());
    EXPECT_FALSE(channel.IsCreated());
    EXPECT_EQ(access(SocketFile(directory).c_str(), F_OK), 0);
}

TEST(KIPCTest, DestroyingALocalSocketChannelClosesIt) {
    const ScopedDirectory directory;
    const int nDescriptor = NextDescriptor();
    {
        SocketChannel channel(directory);
        channel.Create(true, KIPC::LOCAL_SOCKET);
        EXPECT_TRUE(IsOpen(nDescriptor));
    }
    EXPECT_FALSE(IsOpen(nDescriptor));
}

TEST(KIPCTest, ASocketFileThatIsThereIsReplaced) {
    const ScopedDirectory directory;
    directory.File("channel_7", "not a socket");
    SocketChannel channel(directory);
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_TRUE(S_ISSOCK(StatusOfSocketFile(directory).st_mode));
}

TEST(KIPCTest, WhoMayConnectToALocalSocketIsEverybodyLessTheProcesssMask) {
    for (const mode_t nMask : {0000u, 0022u, 0077u}) {
        const support::ScopedUmask mask(nMask);
        const ScopedDirectory directory;
        SocketChannel channel(directory);
        EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
        EXPECT_EQ(StatusOfSocketFile(directory).st_mode & 07777, 0777 & ~nMask);
    }
}

TEST(KIPCTest, ASocketFileNameIsCutTo107Characters) {
    const ScopedDirectory directory;
    const std::string longName = directory.Entry(std::string(150, 'x'));
    SocketChannel channel(directory);
    channel.SetPath(KPath(longName.c_str()));
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_EQ(std::string(t_Given.address.sun_path, kFileNameSize), longName.substr(0, 107) + '\0');
    EXPECT_EQ(access(longName.substr(0, 107).c_str(), F_OK), 0);
}

TEST(KIPCTest, WithTheChecksOffAPathThatIsTooLongToBeRenderedIsCutLikeAnyOther) {
    const ScopedChecks checks(false);
    const ScopedDirectory directory;
    const std::string longName = directory.Entry(std::string(3000, 'x'));
    SocketChannel channel(directory);
    channel.SetPath(KPath(longName.c_str()));
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_EQ(std::string(t_Given.address.sun_path, kFileNameSize), longName.substr(0, 107) + '\0');
    EXPECT_EQ(access(longName.substr(0, 107).c_str(), F_OK), 0);
}

TEST(KIPCTest, TheNumberStandsBehindThePathInDecimal) {
    for (const int nIndex : {0, 999, -3, INT_MAX, INT_MIN}) {
        const ScopedDirectory directory;
        SocketChannel channel(directory, nIndex);
        EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
        EXPECT_EQ(access(SocketFile(directory, nIndex).c_str(), F_OK), 0) << nIndex;
    }
}

TEST(KIPCTest, ADirectoryPathIsRenderedWithItsSlash) {
    const ScopedDirectory directory;
    KPath path(directory.Path().c_str());
    path.SetType(KPath::TYPE_DIRECTORY);
    SocketChannel channel(directory);
    channel.SetPath(path);
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_EQ(access(directory.Entry("_7").c_str(), F_OK), 0);
}

TEST(KIPCTest, WithoutASocketFromTheSystemCreatingIsAnErrorAndFalse) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    const ScopedCalls calls({{"socket", -1}});
    const std::string text = LogOf([&] {
        EXPECT_FALSE(channel.Create(true, KIPC::LOCAL_SOCKET));
        EXPECT_FALSE(channel.CreateClient());
    });
    EXPECT_EQ(text, "Error****: IPC Socket Create Failed\nError****: IPC Socket Create Failed\n");
    EXPECT_THAT(calls.Names(), ElementsAre("socket", "socket"));
    EXPECT_FALSE(channel.IsCreated());
}

TEST(KIPCTest, WhenBindingOrListeningFailsTheSocketStaysOpenAndIsMarkedAsCreated) {
    for (const char* const pszFailing : {"bind", "listen"}) {
        SCOPED_TRACE(pszFailing);
        const ScopedDirectory directory;
        SocketChannel channel(directory);
        const int nDescriptor = NextDescriptor();
        {
            const ScopedCalls calls({{pszFailing, -1}});
            EXPECT_FALSE(channel.Create(true, KIPC::LOCAL_SOCKET));
            EXPECT_EQ(calls.Names().back(), pszFailing);
        }
        EXPECT_TRUE(channel.IsCreated());
        EXPECT_TRUE(IsOpen(nDescriptor));
        // It has a socket: the next attempt succeeds without doing anything.
        const ScopedCalls calls;
        EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
        EXPECT_THAT(calls.Names(), IsEmpty());
    }
}

TEST(KIPCTest, ADirectoryThatIsNotThereCannotBeBoundTo) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    channel.SetPath(KPath(directory.Entry("missing/channel").c_str()));
    EXPECT_FALSE(channel.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_TRUE(channel.IsCreated());
}

TEST(KIPCTest, CreatingAnObjectThatHasASocketStoresTypeAndSideAndDoesNothingElse) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    const ScopedCalls calls;
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(channel.Create(false, KIPC::LOCAL_SOCKET)); }), "");
    EXPECT_FALSE(channel.IsServer());
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KIPCTest, AClientMadeThroughCreateTakesTheSocketFileFromTheServerAndCannotConnect) {
    const ScopedDirectory directory;
    SocketChannel server(directory);
    SocketChannel taker(directory);
    SocketChannel late(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    const ino_t nBefore = StatusOfSocketFile(directory).st_ino;
    EXPECT_TRUE(taker.Create(false, KIPC::LOCAL_SOCKET));
    EXPECT_NE(StatusOfSocketFile(directory).st_ino, nBefore);
    EXPECT_FALSE(taker.ConnectToServer());
    // Whoever connects from now on waits at the taker, who is no server and accepts nobody.
    EXPECT_TRUE(late.CreateClient());
    EXPECT_TRUE(late.ConnectToServer());
    SocketChannel peer(directory);
    EXPECT_FALSE(taker.WaitForConnectToMe(peer));
}

// ------------------------------------------------------------------------------------------------------ CreateClient

TEST(KIPCTest, CreateClientMakesASocketAndLeavesTheFileAlone) {
    const ScopedChecks checks(true);
    const ScopedDirectory directory;
    KIPC client;
    client.SetPath(ChannelPath(directory));
    client.SetIndex(12);
    int nDescriptor = -1;
    std::vector<std::string> names;
    const std::string log = LogOf([&] {
        nDescriptor = NextDescriptor();
        const ScopedCalls calls;
        EXPECT_TRUE(client.CreateClient());
        names = calls.Names();
    });
    EXPECT_THAT(names, ElementsAre("socket"));
    EXPECT_EQ(log, "Log: Create IPC " + std::to_string(nDescriptor) + "\n");
    EXPECT_TRUE(client.IsCreated());
    EXPECT_FALSE(client.IsServer());
    EXPECT_EQ(client.GetType(), KIPC::LOCAL_SOCKET);
    EXPECT_NE(access(SocketFile(directory, 12).c_str(), F_OK), 0);
}

TEST(KIPCTest, CreateClientOfAnObjectThatHasASocketDoesNothingMore) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    const ScopedCalls calls;
    EXPECT_TRUE(channel.CreateClient());
    EXPECT_THAT(calls.Names(), IsEmpty());
    EXPECT_FALSE(channel.IsServer());
}

TEST(KIPCTest, CreateClientTurnsAServerThatWasClosedIntoAClient) {
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    EXPECT_TRUE(channel.Create(true, KIPC::LOCAL_SOCKET));
    channel.Close();
    SocketChannel server(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_TRUE(channel.CreateClient());
    EXPECT_TRUE(channel.ConnectToServer());
}

// -------------------------------------------------------------------------------------------------------- Connecting

TEST(KIPCTest, ConnectingGivesTheWholeAddressToTheSystem) {
    const ScopedDirectory directory;
    SocketChannel client(directory);
    EXPECT_TRUE(client.CreateClient());
    t_Given = {};
    const ScopedCalls calls({{"connect", 0}});
    EXPECT_TRUE(client.ConnectToServer());
    EXPECT_THAT(calls.Names(), ElementsAre("connect"));
    EXPECT_EQ(t_Given.nLength, kAddressSize);
    EXPECT_EQ(t_Given.address.sun_family, AF_UNIX);
    EXPECT_STREQ(t_Given.address.sun_path, SocketFile(directory).c_str());
}

TEST(KIPCTest, AServerOrAnObjectWithoutASocketDoesNotConnect) {
    const ScopedChecks checks(true);
    const ScopedDirectory directory;
    SocketChannel server(directory);
    SocketChannel none(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    const ScopedCalls calls;
    EXPECT_FALSE(server.ConnectToServer());
    EXPECT_FALSE(none.ConnectToServer());
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KIPCTest, OnlyAServerWithASocketWaitsForClients) {
    const ScopedChecks checks(true);
    const ScopedDirectory directory;
    SocketChannel client(directory);
    SocketChannel closed(directory);
    SocketChannel peer(directory);
    EXPECT_TRUE(client.CreateClient());
    EXPECT_TRUE(closed.Create(true, KIPC::LOCAL_SOCKET));
    closed.Close();
    const ScopedCalls calls;
    EXPECT_FALSE(client.WaitForConnectToMe(peer));
    EXPECT_FALSE(closed.WaitForConnectToMe(peer));
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KIPCTest, AcceptingChangesNothingOfThePeerButItsSocket) {
    const ScopedDirectory directory;
    SocketChannel server(directory);
    SocketChannel client(directory);
    SocketChannel peer(directory, 33);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_TRUE(client.CreateClient());
    EXPECT_TRUE(client.ConnectToServer());
    {
        const ScopedCalls calls;
        EXPECT_TRUE(server.WaitForConnectToMe(peer));
        EXPECT_THAT(calls.Names(), ElementsAre("accept"));
        EXPECT_EQ(t_Given.nLength, kAddressSize);
    }
    EXPECT_EQ(peer.GetIndex(), 33);
    EXPECT_FALSE(peer.IsServer());
    EXPECT_FALSE(peer.IsCreated());
    EXPECT_EQ(peer.GetType(), KIPC::LOCAL_SOCKET);
    EXPECT_TRUE(client.Write(RecordOf(1)));
    EXPECT_TRUE(ReadsRecord(peer, 1));
}

TEST(KIPCTest, APeerThatHasASocketForgetsItWithoutClosingIt) {
    const ScopedDirectory directory;
    SocketChannel server(directory);
    SocketChannel first(directory);
    SocketChannel second(directory);
    SocketChannel peer(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_TRUE(first.CreateClient());
    EXPECT_TRUE(first.ConnectToServer());
    EXPECT_TRUE(second.CreateClient());
    EXPECT_TRUE(second.ConnectToServer());
    const int nForgotten = NextDescriptor();
    EXPECT_TRUE(server.WaitForConnectToMe(peer));
    EXPECT_TRUE(server.WaitForConnectToMe(peer));
    EXPECT_TRUE(peer.Write(RecordOf(2)));
    EXPECT_TRUE(ReadsRecord(second, 2));
    EXPECT_TRUE(IsOpen(nForgotten));
    close(nForgotten);
}

TEST(KIPCTest, WhenAcceptingFailsThePeerHasNoSocket) {
    const ScopedDirectory directory;
    Pair pair(directory);
    {
        const ScopedCalls calls({{"accept", -1}});
        EXPECT_FALSE(pair.server.WaitForConnectToMe(pair.peer));
    }
    EXPECT_FALSE(pair.peer.Write(RecordOf(1)));
}

TEST(KIPCTest, APreparedPeerIsClosedAsASocket) {
    const ScopedDirectory directory;
    Pair pair(directory);
    EXPECT_THAT(LogOf([&] { EXPECT_TRUE(pair.peer.Close()); }), testing::StartsWith("Log: Close IPC "));
    KIPC::IPCData data = {};
    EXPECT_FALSE(pair.client.Read(data));
    EXPECT_FALSE(pair.peer.Read(data));
}

TEST(KIPCTest, AServerAcceptsManyClientsOneAfterTheOther) {
    constexpr unsigned int kClients = 20;
    const ScopedLevel level(3);
    const ScopedDirectory directory;
    SocketChannel server(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    for (unsigned int i = 0; i < kClients; ++i) {
        SocketChannel client(directory);
        SocketChannel peer(directory);
        EXPECT_TRUE(client.CreateClient());
        EXPECT_TRUE(client.ConnectToServer());
        EXPECT_TRUE(server.WaitForConnectToMe(peer));
        EXPECT_TRUE(peer.Write(RecordOf(i)));
        EXPECT_TRUE(ReadsRecord(client, i));
    }
}

// ------------------------------------------------------------------------------------------------ Reading and writing

TEST(KIPCTest, ARecordIsReadAndWrittenInOneCallOf520Bytes) {
    const ScopedDirectory directory;
    Pair pair(directory);
    KIPC::IPCData data = {};
    const ScopedCalls calls({{"read", 520}, {"write", 520}});
    EXPECT_TRUE(pair.client.Read(data));
    EXPECT_EQ(t_Given.nLength, kRecordSize);
    t_Given.nLength = 0;
    EXPECT_TRUE(pair.client.Write(data));
    EXPECT_EQ(t_Given.nLength, kRecordSize);
    EXPECT_THAT(calls.Names(), ElementsAre("read", "write"));
}

TEST(KIPCTest, ATransferOfLessThanARecordIsFalseAndNotRetried) {
    const ScopedDirectory directory;
    Pair pair(directory);
    KIPC::IPCData data = {};
    for (const int nMoved : {519, 1, 0, -1}) {
        SCOPED_TRACE(nMoved);
        const ScopedCalls calls({{"read", nMoved}, {"write", nMoved}});
        EXPECT_FALSE(pair.client.Read(data));
        EXPECT_FALSE(pair.client.Write(data));
        EXPECT_THAT(calls.Names(), ElementsAre("read", "write"));
    }
}

TEST(KIPCTest, WithoutASocketNothingIsReadOrWritten) {
    const ScopedChecks checks(true);
    const ScopedDirectory directory;
    SocketChannel channel(directory);
    KIPC::IPCData data = {};
    const ScopedCalls calls;
    EXPECT_FALSE(channel.Read(data));
    EXPECT_FALSE(channel.Write(data));
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KIPCTest, RecordsArriveWholeAndInOrderInBothDirections) {
    const ScopedDirectory directory;
    Pair pair(directory);
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_TRUE(pair.client.Write(RecordOf(i)));
        EXPECT_TRUE(pair.peer.Write(RecordOf(100 + i)));
    }
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_TRUE(ReadsRecord(pair.peer, i));
        EXPECT_TRUE(ReadsRecord(pair.client, 100 + i));
    }
}

TEST(KIPCTest, AfterAPartOfARecordTheStreamIsOutOfStep) {
    constexpr std::size_t kPart = 200;
    const ScopedDirectory directory;
    SocketChannel server(directory);
    SocketChannel peer(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    const int nSocket = ConnectPlainly(SocketFile(directory));
    EXPECT_TRUE(server.WaitForConnectToMe(peer));

    KIPC::IPCData data = {};
    SendPlainly(nSocket, RecordOf(1).bytes, kPart);
    EXPECT_FALSE(peer.Read(data));
    EXPECT_EQ(std::memcmp(data.bytes, RecordOf(1).bytes, kPart), 0);

    SendPlainly(nSocket, RecordOf(1).bytes + kPart, kRecordSize - kPart);
    SendPlainly(nSocket, RecordOf(2).bytes, kRecordSize);
    EXPECT_TRUE(peer.Read(data));
    EXPECT_EQ(std::memcmp(data.bytes, RecordOf(1).bytes + kPart, kRecordSize - kPart), 0);
    EXPECT_EQ(std::memcmp(data.bytes + kRecordSize - kPart, RecordOf(2).bytes, kPart), 0);
    EXPECT_FALSE(peer.Read(data));
    close(nSocket);
}

TEST(KIPCTest, WritingToAPeerThatIsGoneIsFalse) {
    const ScopedDirectory directory;
    InChildProcess([&] {
        IgnoreBrokenPipes();
        Pair pair(directory);
        pair.peer.Close();
        EXPECT_FALSE(pair.client.Write(RecordOf(1)));
    });
}

// ------------------------------------------------------------------------------------------------------------- Copies

TEST(KIPCTest, ACopyHasTheSameSocketAndFields) {
    const ScopedDirectory directory;
    Pair pair(directory);
    KIPC copy(pair.client);
    EXPECT_EQ(copy.GetIndex(), 7);
    EXPECT_EQ(copy.GetType(), KIPC::LOCAL_SOCKET);
    EXPECT_TRUE(copy.IsCreated());
    EXPECT_FALSE(copy.IsServer());
    EXPECT_TRUE(copy.Write(RecordOf(1)));
    EXPECT_TRUE(ReadsRecord(pair.peer, 1));
    EXPECT_TRUE(copy.Close());
    // Each has a record of its own, with the same descriptor in it.
    EXPECT_FALSE(copy.IsCreated());
    EXPECT_TRUE(pair.client.IsCreated());
    EXPECT_FALSE(pair.client.Write(RecordOf(2)));
}

TEST(KIPCTest, ACopyOfASharedMemoryServerHasTheSameMapping) {
    const ScopedNumber number;
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    KIPC copy(server);
    EXPECT_EQ(copy.GetSharedMemory(), server.GetSharedMemory());
    EXPECT_TRUE(copy.IsServer());
    EXPECT_EQ(copy.GetIndex(), number);
}

TEST(KIPCTest, AssigningTakesTheRecordAndAllFieldsAndAnObjectIsItsOwnCopy) {
    const ScopedDirectory directory;
    SocketChannel source(directory);
    EXPECT_TRUE(source.Create(true, KIPC::LOCAL_SOCKET));
    SocketChannel target(directory, 9);
    target.SetPath(KPath("elsewhere"));
    KIPC& base = target;
    EXPECT_EQ(&(base = source), &base);
    EXPECT_TRUE(base.IsServer());
    EXPECT_TRUE(base.IsCreated());
    EXPECT_EQ(base.GetIndex(), 7);
    // The path as well: a client with it reaches the same file.
    base.Close();
    source.Close();
    SocketChannel again(directory);
    EXPECT_TRUE(again.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_TRUE(base.CreateClient());
    EXPECT_TRUE(base.ConnectToServer());
    const KIPC& self = base;
    base = self;
    EXPECT_TRUE(base.Write(RecordOf(1)));
}

// -------------------------------------------------------------------------------------------- Without a channel record

/// Makes an object for which there was no memory.
class WithoutRecord : public SocketChannel {
 public:
    WithoutRecord() : WithoutRecord(ScopedNoMemory()) {}

 private:
    explicit WithoutRecord(const ScopedNoMemory&) : SocketChannel(PathToNowhere()) {}
};

TEST(KIPCTest, WithoutMemoryForTheRecordTheConstructorFailsTheCheck) {
    EXPECT_CHECK_FAILS(
        {
            const ScopedNoMemory noMemory;
            KIPC channel;
        },
        "m_pInternal", kSource, "KIPC::KIPC()");
}

TEST(KIPCTest, WithoutTheRecordEveryOperationFailsTheCheck) {
    struct Case {
        const char* pszSignature;
        void (*pRun)(KIPC&);
    };
    const Case cases[] = {
        {"bool KIPC::Create(bool, KIPC::KIPCType)", [](KIPC& channel) { channel.Create(true, KIPC::LOCAL_SOCKET); }},
        {"bool KIPC::CreateClient()", [](KIPC& channel) { channel.CreateClient(); }},
        {"bool KIPC::Close()", [](KIPC& channel) { channel.Close(); }},
        {"bool KIPC::ConnectToServer()", [](KIPC& channel) { channel.ConnectToServer(); }},
        {"bool KIPC::Read(KIPC::IPCData&)",
         [](KIPC& channel) {
             KIPC::IPCData data = {};
             channel.Read(data);
         }},
        {"bool KIPC::Write(const KIPC::IPCData&)", [](KIPC& channel) { channel.Write(KIPC::IPCData{}); }},
        {"bool KIPC::WaitForConnectToMe(KIPC&)",
         [](KIPC& channel) {
             SocketChannel server(PathToNowhere());
             server.Create(true, KIPC::LOCAL_SOCKET);
             channel = server;
             channel.WaitForConnectToMe(server);
         }},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.pszSignature);
        EXPECT_CHECK_FAILS(
            {
                KAssert::SetActive(false);
                WithoutRecord channel;
                KAssert::SetActive(true);
                each.pRun(channel);
            },
            "m_pInternal", kSource, each.pszSignature);
    }
}

TEST(KIPCTest, APeerWithoutTheRecordFailsTheCheckOfItsOwn) {
    EXPECT_CHECK_FAILS(
        {
            KAssert::SetActive(false);
            WithoutRecord peer;
            KAssert::SetActive(true);
            SocketChannel server(PathToNowhere());
            server.Create(true, KIPC::LOCAL_SOCKET);
            server.WaitForConnectToMe(peer);
        },
        "pCInfo", kSource, "bool KIPC::WaitForConnectToMe(KIPC&)");
}

TEST(KIPCTest, WithTheChecksOffAndWithoutTheRecordOperationsAreTrueWithNothingDone) {
    const ScopedChecks checks(false);
    const ScopedDirectory directory;
    WithoutRecord channel;
    SocketChannel server(directory);
    KIPC::IPCData data = {};
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    const ScopedCalls calls;
    EXPECT_TRUE(channel.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_FALSE(channel.IsServer());
    EXPECT_EQ(channel.GetType(), KIPC::LOCAL_SOCKET);
    EXPECT_TRUE(channel.CreateClient());
    EXPECT_TRUE(channel.ConnectToServer());
    EXPECT_TRUE(channel.Read(data));
    EXPECT_TRUE(channel.Write(data));
    EXPECT_TRUE(channel.Close());
    EXPECT_FALSE(channel.IsCreated());
    EXPECT_EQ(channel.GetSharedMemory(), nullptr);
    EXPECT_FALSE(channel.WaitForConnectToMe(server));
    EXPECT_FALSE(server.WaitForConnectToMe(channel));
    const KIPC copy(channel);
    EXPECT_EQ(copy.GetIndex(), 7);
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KIPCTest, WithTheChecksOffAnObjectWithoutTheRecordTakesOnlyTheFieldsOfAnother) {
    const ScopedChecks checks(false);
    const ScopedDirectory directory;
    SocketChannel server(directory, 8);
    ASSERT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    WithoutRecord none;
    KIPC& channel = none;
    channel = server;
    EXPECT_EQ(channel.GetIndex(), 8);
    EXPECT_TRUE(channel.IsServer());
    EXPECT_TRUE(channel.IsCreated());
    const ScopedCalls calls;
    SocketChannel peer(directory);
    EXPECT_FALSE(channel.WaitForConnectToMe(peer));
    EXPECT_THAT(calls.Names(), IsEmpty());
}

// ----------------------------------------------------------------------------------------------------- Two processes

TEST(KIPCTest, TwoProcessesShareTheMemoryOfAChannel) {
    const ScopedNumber number;
    Gate ready;
    Gate changed;
    Channel server(number);
    EXPECT_TRUE(server.Create(true, KIPC::SHARED_MEMORY));
    Fill(server, 1);
    ChildProcess client([&] {
        Channel channel(number);
        EXPECT_TRUE(channel.Create(false, KIPC::SHARED_MEMORY));
        EXPECT_TRUE(IsRecord(channel.GetSharedMemory(), 1));
        ready.Open();
        changed.Pass();
        EXPECT_TRUE(IsRecord(channel.GetSharedMemory(), 2));
    });
    ready.Pass();
    Fill(server, 2);
    changed.Open();
    EXPECT_EQ(client.Wait(), ChildProcess::kPassed);
    // The client's end of the channel removed the name, and nothing else.
    EXPECT_FALSE(SharedNameExists(number));
    EXPECT_TRUE(IsRecord(server.GetSharedMemory(), 2));
}

TEST(KIPCTest, TwoServerProcessesWriteIntoTheMemoryOfAChannel) {
    const ScopedNumber number;
    Channel first(number);
    EXPECT_TRUE(first.Create(true, KIPC::SHARED_MEMORY));
    InChildProcess([&] {
        Channel second(number);
        EXPECT_TRUE(second.Create(true, KIPC::SHARED_MEMORY));
        Fill(second, 5);
    });
    EXPECT_TRUE(IsRecord(first.GetSharedMemory(), 5));
}

TEST(KIPCTest, TheMemoryOfAServerThatWasKilledIsFoundByTheNextAsItWasLeft) {
    const ScopedNumber number;
    Gate filled;
    ChildProcess server([&] {
        Channel channel(number);
        EXPECT_TRUE(channel.Create(true, KIPC::SHARED_MEMORY));
        std::memcpy(channel.GetSharedMemory(), RecordOf(1).bytes, 200);
        filled.Open();
        Gate().Pass();
    });
    filled.Pass();
    server.Kill();
    EXPECT_TRUE(SharedNameExists(number));
    Channel next(number);
    EXPECT_TRUE(next.Create(true, KIPC::SHARED_MEMORY));
    const auto* const pBytes = static_cast<unsigned char*>(next.GetSharedMemory());
    ASSERT_NE(pBytes, nullptr);
    EXPECT_EQ(std::memcmp(pBytes, RecordOf(1).bytes, 200), 0);
    EXPECT_THAT(std::vector<unsigned char>(pBytes + 200, pBytes + kRecordSize), Each(0));
}

TEST(KIPCTest, AServerThatWasKilledBeforeItSizedItsObjectLeavesOneThatIsRefused) {
    const ScopedNumber number;
    ChildProcess server([&] {
        MakeSharedObject(number, 0);
        kill(getpid(), SIGKILL);
    });
    EXPECT_EQ(server.Wait(), ChildProcess::kKilled);
    Channel next(number);
    EXPECT_TRUE(next.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_EQ(next.GetSharedMemory(), nullptr);
    // Closing removes the stale object's name, so that the next attempt makes a new one.
    next.Close();
    EXPECT_TRUE(next.Create(true, KIPC::SHARED_MEMORY));
    EXPECT_NE(next.GetSharedMemory(), nullptr);
}

TEST(KIPCTest, TouchingMemoryAfterAnotherProcessShortenedTheObjectEndsTheProcess) {
    for (const bool fgServer : {true, false}) {
        SCOPED_TRACE(fgServer ? "server" : "client");
        const ScopedNumber number;
        const int nOwner = MakeSharedObject(number, kRecordSize);
        Gate mapped;
        Gate shortened;
        ChildProcess user([&] {
            // Sanitizers report the signal, and end the process as one that failed.
            signal(SIGBUS, SIG_DFL);
            Channel channel(number);
            EXPECT_TRUE(channel.Create(fgServer, KIPC::SHARED_MEMORY));
            const auto* const pByte = static_cast<const volatile unsigned char*>(channel.GetSharedMemory());
            ASSERT_NE(pByte, nullptr);
            EXPECT_EQ(*pByte, 0);
            mapped.Open();
            shortened.Pass();
            EXPECT_EQ(*pByte, 0);
        });
        mapped.Pass();
        EXPECT_EQ(ftruncate(nOwner, 0), 0);
        shortened.Open();
        EXPECT_EQ(user.Wait(), ChildProcess::kKilled);
        EXPECT_EQ(user.Signal(), SIGBUS);
        // Who has the system read the object is told instead.
        unsigned char bytes[kRecordSize];
        EXPECT_EQ(pread(nOwner, bytes, kRecordSize, 0), 0);
        close(nOwner);
    }
}

TEST(KIPCTest, TwoProcessesExchangeRecordsOverALocalSocket) {
    constexpr unsigned int kRecords = 200;
    const ScopedDirectory directory;
    SocketChannel server(directory);
    SocketChannel peer(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    ChildProcess client([&] {
        SocketChannel channel(directory);
        EXPECT_TRUE(channel.CreateClient());
        EXPECT_TRUE(channel.ConnectToServer());
        for (unsigned int i = 0; i < kRecords; ++i) {
            ASSERT_TRUE(channel.Write(RecordOf(i)));
            ASSERT_TRUE(ReadsRecord(channel, ~i));
        }
    });
    EXPECT_TRUE(server.WaitForConnectToMe(peer));
    for (unsigned int i = 0; i < kRecords; ++i) {
        ASSERT_TRUE(ReadsRecord(peer, i));
        ASSERT_TRUE(peer.Write(RecordOf(~i)));
    }
    EXPECT_EQ(client.Wait(), ChildProcess::kPassed);
    KIPC::IPCData data = {};
    EXPECT_FALSE(peer.Read(data));
}

TEST(KIPCTest, AClientThatStartsBeforeTheServerConnectsOnceTheServerIsThere) {
    const ScopedDirectory directory;
    Gate refused;
    Gate listening;
    ChildProcess client([&] {
        SocketChannel channel(directory);
        EXPECT_TRUE(channel.CreateClient());
        EXPECT_FALSE(channel.ConnectToServer());
        EXPECT_FALSE(channel.Write(RecordOf(0)));
        refused.Open();
        listening.Pass();
        EXPECT_TRUE(channel.ConnectToServer());
        EXPECT_TRUE(channel.Write(RecordOf(1)));
        EXPECT_TRUE(ReadsRecord(channel, 2));
    });
    refused.Pass();
    SocketChannel server(directory);
    SocketChannel peer(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    listening.Open();
    EXPECT_TRUE(server.WaitForConnectToMe(peer));
    EXPECT_TRUE(ReadsRecord(peer, 1));
    EXPECT_TRUE(peer.Write(RecordOf(2)));
    EXPECT_EQ(client.Wait(), ChildProcess::kPassed);
}

TEST(KIPCTest, ASocketFileThatAKilledServerLeftRefusesClientsUntilTheNextServerReplacesIt) {
    const ScopedDirectory directory;
    Gate listening;
    ChildProcess killed([&] {
        SocketChannel server(directory);
        EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
        listening.Open();
        Gate().Pass();
    });
    listening.Pass();
    killed.Kill();
    EXPECT_EQ(access(SocketFile(directory).c_str(), F_OK), 0);
    SocketChannel client(directory);
    SocketChannel server(directory);
    SocketChannel peer(directory);
    EXPECT_TRUE(client.CreateClient());
    EXPECT_FALSE(client.ConnectToServer());
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    EXPECT_TRUE(client.ConnectToServer());
    EXPECT_TRUE(server.WaitForConnectToMe(peer));
    EXPECT_TRUE(peer.Write(RecordOf(1)));
    EXPECT_TRUE(ReadsRecord(client, 1));
}

TEST(KIPCTest, AfterAClientThatWasKilledInMidRecordTheServerReadsNothingMoreAndServesTheNext) {
    const ScopedDirectory directory;
    Gate halfway;
    SocketChannel server(directory);
    SocketChannel peer(directory);
    EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
    ChildProcess killed([&] {
        const int nSocket = ConnectPlainly(SocketFile(directory));
        SendPlainly(nSocket, RecordOf(1).bytes, kRecordSize);
        SendPlainly(nSocket, RecordOf(2).bytes, 260);
        halfway.Open();
        Gate().Pass();
    });
    EXPECT_TRUE(server.WaitForConnectToMe(peer));
    halfway.Pass();
    killed.Kill();
    KIPC::IPCData data = {};
    EXPECT_TRUE(ReadsRecord(peer, 1));
    EXPECT_FALSE(peer.Read(data));
    EXPECT_EQ(std::memcmp(data.bytes, RecordOf(2).bytes, 260), 0);
    EXPECT_FALSE(peer.Read(data));
    peer.Close();

    SocketChannel next(directory);
    EXPECT_TRUE(next.CreateClient());
    EXPECT_TRUE(next.ConnectToServer());
    EXPECT_TRUE(server.WaitForConnectToMe(peer));
    EXPECT_TRUE(next.Write(RecordOf(3)));
    EXPECT_TRUE(ReadsRecord(peer, 3));
}

TEST(KIPCTest, AClientWhoseServerWasKilledReadsAndWritesNothingMore) {
    const ScopedDirectory directory;
    InChildProcess([&] {
        IgnoreBrokenPipes();
        Gate listening;
        ChildProcess killed([&] {
            SocketChannel server(directory);
            SocketChannel peer(directory);
            EXPECT_TRUE(server.Create(true, KIPC::LOCAL_SOCKET));
            listening.Open();
            EXPECT_TRUE(server.WaitForConnectToMe(peer));
            EXPECT_TRUE(peer.Write(RecordOf(1)));
            Gate().Pass();
        });
        SocketChannel client(directory);
        EXPECT_TRUE(client.CreateClient());
        listening.Pass();
        EXPECT_TRUE(client.ConnectToServer());
        EXPECT_TRUE(ReadsRecord(client, 1));
        killed.Kill();
        KIPC::IPCData data = {};
        EXPECT_FALSE(client.Read(data));
        EXPECT_FALSE(client.Write(data));
        client.Close();
        EXPECT_TRUE(client.CreateClient());
        EXPECT_FALSE(client.ConnectToServer());
    });
}

// ----------------------------------------------------------------------------------------------- A thousand channels

/// Room for one descriptor a channel and some more. False where the system does not allow it.
bool AllowManyDescriptors() {
    constexpr rlim_t kNeeded = kChannels + 100;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < kNeeded && (limit.rlim_max == RLIM_INFINITY || limit.rlim_max >= kNeeded)) {
        limit.rlim_cur = kNeeded;
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    return limit.rlim_cur >= kNeeded;
}

TEST(KIPCTest, AThousandSharedMemoryChannelsAreOpenAtOnce) {
    if (!AllowManyDescriptors()) {
        GTEST_SKIP() << "the system does not allow a thousand descriptors";
    }
    const ScopedTableNames names;
    InChildProcess([] {
        const ScopedChecks checks(true);
        for (int i = 0; i < kChannels; ++i) {
            ASSERT_TRUE(KIPC::Init(i, true, KIPC::SHARED_MEMORY, KPath())) << i;
            Fill(*KIPC::GetInstance(i), static_cast<unsigned int>(i));
        }
        InChildProcess([] {
            for (int i = 0; i < kChannels; ++i) {
                Channel client(i);
                ASSERT_TRUE(client.Create(false, KIPC::SHARED_MEMORY)) << i;
                EXPECT_TRUE(IsRecord(client.GetSharedMemory(), static_cast<unsigned int>(i))) << i;
            }
        });
        for (int i = 0; i < kChannels; ++i) {
            EXPECT_EQ(KIPC::GetInstance(i)->GetIndex(), i);
            EXPECT_TRUE(KIPC::GetInstance(i)->Close());
        }
    });
}

TEST(KIPCTest, AThousandLocalSocketChannelsAreOpenAtOnce) {
    if (!AllowManyDescriptors()) {
        GTEST_SKIP() << "the system does not allow a thousand descriptors";
    }
    const ScopedDirectory directory;
    InChildProcess([&] {
        const ScopedChecks checks(true);
        const ScopedLevel level(3);
        for (int i = 0; i < kChannels; ++i) {
            ASSERT_TRUE(KIPC::Init(i, true, KIPC::LOCAL_SOCKET, ChannelPath(directory))) << i;
        }
        ChildProcess clients([&] {
            for (int i = 0; i < kChannels; ++i) {
                SocketChannel client(directory, i);
                ASSERT_TRUE(client.CreateClient());
                ASSERT_TRUE(client.ConnectToServer()) << i;
                ASSERT_TRUE(client.Write(RecordOf(static_cast<unsigned int>(i))));
            }
        });
        for (int i = 0; i < kChannels; ++i) {
            SocketChannel peer(directory);
            ASSERT_TRUE(KIPC::GetInstance(i)->WaitForConnectToMe(peer)) << i;
            ASSERT_TRUE(ReadsRecord(peer, static_cast<unsigned int>(i))) << i;
        }
        EXPECT_EQ(clients.Wait(), ChildProcess::kPassed);
    });
}

}  // namespace
