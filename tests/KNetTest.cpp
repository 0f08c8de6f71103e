// The sockets are real ones on loopback, and on a network of the test's own where several hosts are needed. Functions in
// front of libc's tell what the system is asked, and stand for failures that cannot be brought about.

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "KNet.h"
#include "support/Descriptors.h"
#include "support/FailingNew.h"
#include "support/Hosts.h"
#include "support/Interpose.h"
#include "support/Process.h"
#include "support/Sockets.h"
#include "support/Support.h"
#include "support/Texts.h"
#include "support/Threads.h"

using support::AwaitInput;
using support::PortOf;
using support::TextOf;

namespace {

using support::Host;
using support::InANetwork;
using support::IsOpen;
using support::Network;
using support::OpenDescriptors;
using support::ScopedCalls;
using support::ScopedChecks;
using support::ScopedLevel;
using support::ScopedNoMemory;
using support::StderrOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr const char* kSource = "src/api/KNet";
constexpr const char* kLocal = "127.0.0.1";
/// Looks like an address and is none, so that no name server is asked.
constexpr const char* kNoHost = "300.0.0.1";
/// Long enough for whatever is certain to happen.
constexpr int kLong = 60000;
constexpr int kIpcSize = 520;

/// A name server that does not answer holds a test up no longer than this.
const bool g_fgPatience = setenv("RES_OPTIONS", "timeout:1 attempts:1", 1) == 0;

// ------------------------------------------------------------------------- What libc is given in the length of a block

thread_local const char* t_pszHostName = nullptr;

/// For the length of a block, this thread's host has another name.
class ScopedHostName {
 public:
    explicit ScopedHostName(const char* pszName) { t_pszHostName = pszName; }
    ~ScopedHostName() { t_pszHostName = nullptr; }
    ScopedHostName(const ScopedHostName&) = delete;
    ScopedHostName& operator=(const ScopedHostName&) = delete;
};

/// For the length of a block, this thread's look-ups with less room than @p nEnough are answered instead of passed on, and
/// the room that each is given is noted.
class ScopedLookUps {
 public:
    ScopedLookUps(int nAnswer, hostent* pFound, std::size_t nEnough)
        : m_nAnswer(nAnswer), m_pFound(pFound), m_nEnough(nEnough) {
        Current() = this;
    }
    ~ScopedLookUps() { Current() = nullptr; }
    ScopedLookUps(const ScopedLookUps&) = delete;
    ScopedLookUps& operator=(const ScopedLookUps&) = delete;

    const std::vector<std::size_t>& Sizes() const { return m_Sizes; }

    std::optional<int> Note(std::size_t nSize, hostent** ppFound) {
        m_Sizes.push_back(nSize);
        if (nSize >= m_nEnough) {
            return std::nullopt;
        }
        *ppFound = m_pFound;
        return m_nAnswer;
    }

    static ScopedLookUps*& Current() {
        static thread_local ScopedLookUps* t_pCurrent = nullptr;
        return t_pCurrent;
    }

 private:
    int m_nAnswer;
    hostent* m_pFound;
    std::size_t m_nEnough;
    std::vector<std::size_t> m_Sizes;
};

/// A call as text: its name and its numbers.
template <typename... Numbers>
std::string Call(const std::string& name, Numbers... numbers) {
    return ((name + ... + (" " + std::to_string(numbers))));
}

std::string AddressOf(const sockaddr* pAddress) {
    sockaddr_in address = {};
    std::memcpy(&address, pAddress, sizeof(address));
    char szText[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address.sin_addr, szText, sizeof(szText));
    return std::to_string(address.sin_family) + " " + szText + ":" + std::to_string(ntohs(address.sin_port));
}

std::optional<int> Noted(const std::string& call) {
    ScopedCalls* const pCalls = ScopedCalls::Current();
    return pCalls != nullptr ? pCalls->Note(call.c_str()) : std::nullopt;
}

/// Notes a call, then answers it or passes it on.
template <auto pOwn, typename... Arguments>
int NoteAs(const std::string& call, const char* pszName, Arguments... arguments) {
    static const auto pNext = support::NextFunction(pOwn, pszName);
    const std::optional<int> answer = Noted(call);
    return answer ? *answer : static_cast<int>(pNext(arguments...));
}

}  // namespace

extern "C" {

int socket(int nDomain, int nType, int nProtocol) noexcept {
    return NoteAs<&socket>(Call("socket", nDomain, nType, nProtocol), "socket", nDomain, nType, nProtocol);
}

int setsockopt(int nSocket, int nLevel, int nOption, const void* pValue, socklen_t nSize) noexcept {
    std::string call = Call("setsockopt", nLevel, nOption);
    if (nSize == sizeof(int)) {
        int nValue = 0;
        std::memcpy(&nValue, pValue, sizeof(nValue));
        call += " " + std::to_string(nValue);
    } else if (nSize == sizeof(ip_mreq)) {
        ip_mreq membership = {};
        std::memcpy(&membership, pValue, sizeof(membership));
        call += std::string(" ") + inet_ntoa(membership.imr_multiaddr);
        call += std::string(" ") + inet_ntoa(membership.imr_interface);
    }
    return NoteAs<&setsockopt>(call, "setsockopt", nSocket, nLevel, nOption, pValue, nSize);
}

int bind(int nSocket, const sockaddr* pAddress, socklen_t nSize) noexcept {
    const std::string call = "bind " + AddressOf(pAddress) + " " + std::to_string(nSize);
    return NoteAs<&bind>(call, "bind", nSocket, pAddress, nSize);
}

int listen(int nSocket, int nBacklog) noexcept {
    return NoteAs<&listen>(Call("listen", nBacklog), "listen", nSocket, nBacklog);
}

int connect(int nSocket, const sockaddr* pAddress, socklen_t nSize) {
    const std::string call = "connect " + AddressOf(pAddress) + " " + std::to_string(nSize);
    return NoteAs<&connect>(call, "connect", nSocket, pAddress, nSize);
}

ssize_t sendto(int nSocket, const void* pBuffer, size_t nLength, int nFlags, const sockaddr* pAddress,
               socklen_t nSize) {
    const std::string call = Call("sendto", nLength, nFlags) + " " + AddressOf(pAddress) + " " + std::to_string(nSize);
    return NoteAs<&sendto>(call, "sendto", nSocket, pBuffer, nLength, nFlags, pAddress, nSize);
}

/// An answer leaves nothing ready, as a time-out does.
int select(int nCount, fd_set* pRead, fd_set* pWrite, fd_set* pExcept, timeval* pTimeOut) {
    static const auto pNext = support::NextFunction(&select, "select");
    if (const std::optional<int> answer = Noted(Call("select", pTimeOut->tv_sec, pTimeOut->tv_usec))) {
        FD_ZERO(pRead);
        FD_ZERO(pWrite);
        return *answer;
    }
    return pNext(nCount, pRead, pWrite, pExcept, pTimeOut);
}

int poll(pollfd* pEntries, nfds_t nCount, int nMilliseconds) {
    // libc declares the entries as written only, and GCC objects to their being read.
    const pollfd* volatile pAsked = pEntries;
    const std::string call = Call("poll", pAsked->events, nMilliseconds);
    return NoteAs<&poll>(call, "poll", pEntries, nCount, nMilliseconds);
}

int gethostbyname_r(const char* pszName, hostent* pStorage, char* pBuffer, size_t nSize, hostent** ppFound,
                    int* pnError) {
    static const auto pNext = support::NextFunction(&gethostbyname_r, "gethostbyname_r");
    ScopedLookUps* const pLookUps = ScopedLookUps::Current();
    const std::optional<int> answer = pLookUps != nullptr ? pLookUps->Note(nSize, ppFound) : std::nullopt;
    return answer ? *answer : pNext(pszName, pStorage, pBuffer, nSize, ppFound, pnError);
}

int gethostname(char* pszName, size_t nSize) noexcept {
    static const auto pNext = support::NextFunction(&gethostname, "gethostname");
    if (t_pszHostName == nullptr) {
        return pNext(pszName, nSize);
    }
    std::strncpy(pszName, t_pszHostName, nSize);
    return 0;
}

}  // extern "C"

namespace {

// ------------------------------------------------------------------------------------------------------- Small helpers

/// A KNet that closes its socket at the end.
class Net : public KNet {
 public:
    explicit Net(KNetInfo info, int nTimeOut = 10000) : KNet(info, nTimeOut) {}
    Net() = default;
    ~Net() override { DeleteSocket(); }
    Net(const Net&) = delete;
    Net& operator=(const Net&) = delete;

    /// Stores another delivery and keeps the rest.
    void SetCasting(int nCasting) {
        KNetInfo info = GetConnectionInfo();
        info.SetCasting(static_cast<KNetInfo::NetCasting>(nCasting));
        SetConnectionInfo(info, GetTimeOut());
    }
};

KNetInfo Tcp(int nPort = 0, const char* pszHost = kLocal) {
    return KNetInfo(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, pszHost, nPort);
}

KNetInfo Udp(int nPort = 0, const char* pszHost = kLocal, KNetInfo::NetCasting eCasting = KNetInfo::UNICAST) {
    return KNetInfo(KNetInfo::IPV4, KNetInfo::UDP, eCasting, pszHost, nPort);
}

KNetInfo Odd(int nDomain, int nProtocol, int nCasting) {
    return KNetInfo(static_cast<KNetInfo::NetAddressDomain>(nDomain), static_cast<KNetInfo::NetProtocol>(nProtocol),
                    static_cast<KNetInfo::NetCasting>(nCasting), kLocal, 0);
}

bool IsNonBlocking(const KNet& net) {
    return (fcntl(net.GetSocket(), F_GETFL) & O_NONBLOCK) != 0;
}

int Option(int nSocket, int nLevel, int nOption) {
    int nValue = -1;
    socklen_t nSize = sizeof(nValue);
    EXPECT_EQ(getsockopt(nSocket, nLevel, nOption, &nValue, &nSize), 0);
    return nValue;
}

/// A descriptor that is closed at the end.
class Descriptor {
 public:
    explicit Descriptor(int nDescriptor) : m_nDescriptor(nDescriptor) {}
    Descriptor(Descriptor&& other) noexcept : m_nDescriptor(std::exchange(other.m_nDescriptor, -1)) {}
    ~Descriptor() { Close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return m_nDescriptor; }

    void Close() {
        if (m_nDescriptor >= 0) {
            close(std::exchange(m_nDescriptor, -1));
        }
    }

    /// Closes a connection by a reset instead of an orderly end.
    void Reset() {
        const linger abort = {1, 0};
        EXPECT_EQ(setsockopt(m_nDescriptor, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort)), 0);
        Close();
    }

    void Send(const std::string& text) const {
        EXPECT_EQ(send(m_nDescriptor, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    /// Receives one datagram, or whatever a stream has; waits for it.
    std::string Receive() const {
        char buffer[4096];
        const ssize_t nReceived = recv(m_nDescriptor, buffer, sizeof(buffer), 0);
        EXPECT_GE(nReceived, 0);
        return std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(nReceived, 0)));
    }

 private:
    int m_nDescriptor;
};

/// A socket without any KNet, bound to a port that the system chooses where none is given.
class Bare : public Descriptor {
 public:
    explicit Bare(int nType, const char* pszAddress = kLocal, int nPort = 0) : Descriptor(::socket(AF_INET, nType, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(nPort));
        EXPECT_EQ(inet_pton(AF_INET, pszAddress, &address.sin_addr), 1);
        EXPECT_EQ(::bind(Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }

    int Port() const { return PortOf(Get()); }

    void SendTo(const std::string& text, int nPort) const {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(nPort));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::sendto(Get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof(address)),
                  static_cast<ssize_t>(text.size()));
    }
};

/// A server without any KNet.
class BareServer : public Bare {
 public:
    explicit BareServer(int nBacklog = 8, const char* pszAddress = kLocal) : Bare(SOCK_STREAM, pszAddress) {
        EXPECT_EQ(::listen(Get(), nBacklog), 0);
    }

    Descriptor Accept() const { return Descriptor(::accept(Get(), nullptr, nullptr)); }
};

/// A server whose queue of waiting clients is full, so that a further one gets no answer.
class FullServer : public BareServer {
 public:
    FullServer() : BareServer(0), m_First(Tcp(Port())) {
        EXPECT_TRUE(m_First.GetHostName() && m_First.CreateSocket() && m_First.SyncConnectWithBlock());
        AwaitInput(Get());
    }

 private:
    Net m_First;
};

/// A port of a description at which nobody listens, and which nobody else gets.
class ClosedPort : public Bare {
 public:
    ClosedPort() : Bare(SOCK_STREAM) {}
};

/// A connected KNet, and the other end without any.
struct Connection {
    BareServer server;
    Net client;
    Descriptor peer;

    Connection() : client(Tcp(server.Port())), peer(Accepted()) {}

 private:
    Descriptor Accepted() {
        EXPECT_TRUE(client.GetHostName());
        EXPECT_TRUE(client.CreateSocket());
        EXPECT_TRUE(client.SyncConnectWithBlock());
        return server.Accept();
    }
};

/// A KNet server on a port that the system chose.
class Server : public Net {
 public:
    Server() : Net(Tcp(0, "0.0.0.0")) {
        EXPECT_TRUE(CreateSocket());
        EXPECT_TRUE(Bind());
    }

    int Port() const { return PortOf(GetSocket()); }
};

bool Connect(Net& client) {
    return client.GetHostName() && client.CreateSocket() && client.SyncConnectWithBlock();
}

/// Makes a socket and looks its host up.
bool Prepare(Net& net) {
    return net.GetHostName() && net.CreateSocket();
}

/// Looks up a host whose text is going to be forgotten, because the description is replaced afterwards. The leak check knows
/// this name.
[[gnu::noinline]] bool LookUpALeakingText(KNet& net) {
    return net.GetHostName();
}

/// The address and port that a socket is connected to.
std::string PeerOf(const KNet& net) {
    sockaddr_in address = {};
    socklen_t nSize = sizeof(address);
    EXPECT_EQ(getpeername(net.GetSocket(), reinterpret_cast<sockaddr*>(&address), &nSize), 0);
    return AddressOf(reinterpret_cast<sockaddr*>(&address));
}

/// The address that a look-up found: a datagram socket "connects" to it without any traffic.
std::string FoundBy(KNet& net) {
    EXPECT_TRUE(net.CreateSocket());
    EXPECT_EQ(net.ASyncConnectionCheckStart(), 0);
    const std::string peer = PeerOf(net);
    EXPECT_TRUE(net.DeleteSocket());
    return peer;
}

/// For the length of a block, sending to a peer that is gone is an error instead of the end of the process.
class ScopedNoSigpipe {
 public:
    ScopedNoSigpipe() : m_pBefore(std::signal(SIGPIPE, SIG_IGN)) {}
    ~ScopedNoSigpipe() { std::signal(SIGPIPE, m_pBefore); }
    ScopedNoSigpipe(const ScopedNoSigpipe&) = delete;
    ScopedNoSigpipe& operator=(const ScopedNoSigpipe&) = delete;

 private:
    void (*m_pBefore)(int);
};

std::string WriteError(int nError) {
    return support::StampPattern() + "KNet Write Error: " + std::to_string(nError) + "\n";
}

/// A socket without a record, as it is when memory was lacking. The checks have to be off when it is used.
std::unique_ptr<KNet> WithoutRecord() {
    const ScopedNoMemory none;
    return std::make_unique<KNet>();
}

// --------------------------------------------------------------------------------------------------------------- Values

static_assert(std::has_virtual_destructor<KNet>::value, "programs delete sockets through their class");
static_assert(std::is_same<std::underlying_type<KNet::NetError>::type, int>::value, "32 bits, signed");

TEST(KNetTest, TheErrorsHaveTheirNumbers) {
    EXPECT_EQ(KNet::NONE, 0);
    EXPECT_EQ(KNet::NO_SOCKET, 1);
    EXPECT_EQ(KNet::HOST_NOT_FOUND, 2);
    EXPECT_EQ(KNet::SOCKET_FAILED, 3);
    EXPECT_EQ(KNet::MULTICAST_FAILED, 4);
    EXPECT_EQ(KNet::CONNECT_FAILED, 5);
    EXPECT_EQ(KNet::BIND_FAILED, 6);
    EXPECT_EQ(KNet::RECEIVE_FAILED, 8);
    EXPECT_EQ(KNet::BAD_DOMAIN, 10);
    EXPECT_EQ(KNet::CASTING_NEEDS_UDP, 11);
    EXPECT_EQ(KNet::BAD_CASTING, 12);
    EXPECT_EQ(KNet::PEER_NOT_IPV4, 13);
}

// ------------------------------------------------------------------------------------------------- Making and copying

TEST(KNetTest, InitAndDeinitDoNothing) {
    const std::vector<int> before = OpenDescriptors();
    KNet::Init();
    KNet::Init();
    KNet::Deinit();
    KNet::Deinit();
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(KNetTest, ADefaultObjectHasNoSocketAndTenSeconds) {
    const KNet net;
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_EQ(net.GetTimeOut(), 10000);
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_EQ(net.GetConnectionInfo().GetAddressDomain(), KNetInfo::UNSPECIFIED);
    EXPECT_EQ(net.GetConnectionInfo().GetProtocol(), KNetInfo::RAW);
    EXPECT_EQ(net.GetConnectionInfo().GetCasting(), KNetInfo::UNICAST);
    EXPECT_EQ(TextOf(net.GetConnectionInfo().GetAddress()), "");
    EXPECT_EQ(net.GetConnectionInfo().GetPort(), -1);
}

TEST(KNetTest, AnObjectMadeOfADescriptionHoldsACopyOfIt) {
    KNetInfo info = Tcp(8080, "camera");
    const KNet net(info, -7);
    info.SetAddress("elsewhere");
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_EQ(net.GetTimeOut(), -7);
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_EQ(TextOf(net.GetConnectionInfo().GetAddress()), "camera");
    EXPECT_EQ(net.GetConnectionInfo().GetPort(), 8080);
    EXPECT_EQ(net.GetConnectionInfo().GetProtocol(), KNetInfo::TCP);
}

TEST(KNetTest, TheDescriptionCanBeReplacedAndNothingElseChanges) {
    Net net(Tcp());
    ASSERT_TRUE(net.CreateSocket());
    const int nSocket = net.GetSocket();
    ASSERT_FALSE(net.Accept(net));
    EXPECT_TRUE(net.SetConnectionInfo(Udp(9, "camera"), 250));
    EXPECT_EQ(TextOf(net.GetConnectionInfo().GetAddress()), "camera");
    EXPECT_EQ(net.GetConnectionInfo().GetProtocol(), KNetInfo::UDP);
    EXPECT_EQ(net.GetTimeOut(), 250);
    EXPECT_EQ(net.GetSocket(), nSocket);
    EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
}

TEST(KNetTest, ReplacingTheDescriptionAfterALookUpLosesTheTextOfTheHost) {
    // The description's raw address is forgotten: a leak that stays.
    Net net(Tcp());
    ASSERT_TRUE(LookUpALeakingText(net));
    EXPECT_TRUE(net.SetConnectionInfo(Tcp(0, "127.0.0.2"), 0));
    EXPECT_EQ(TextOf(net.GetConnectionInfo().GetAddress()), "127.0.0.2");
}

TEST(KNetTest, ACopySharesTheDescriptorAndWorksOnAfterTheFirstIsGone) {
    Connection connection;
    auto pFirst = std::make_unique<KNet>(connection.client);
    KNet second(*pFirst);
    EXPECT_EQ(second.GetSocket(), pFirst->GetSocket());
    pFirst.reset();
    EXPECT_EQ(second.Write("still there", 11), 11);
    EXPECT_EQ(connection.peer.Receive(), "still there");
    connection.peer.Send("and back");
    EXPECT_EQ(second.GetReceivedSize(), 8);
}

TEST(KNetTest, ACopyHasErrorDescriptionAndTimeOut) {
    Net net(Tcp(1, kNoHost), 77);
    ASSERT_FALSE(net.GetHostName());
    const KNet copy(net);
    EXPECT_EQ(copy.GetError(), KNet::HOST_NOT_FOUND);
    EXPECT_EQ(copy.GetTimeOut(), 77);
    EXPECT_EQ(TextOf(copy.GetConnectionInfo().GetAddress()), kNoHost);
    KNet assigned;
    EXPECT_EQ(&(assigned = net), &assigned);
    EXPECT_EQ(assigned.GetError(), KNet::HOST_NOT_FOUND);
    EXPECT_EQ(assigned.GetTimeOut(), 77);
    EXPECT_EQ(TextOf(assigned.GetConnectionInfo().GetAddress()), kNoHost);
}

TEST(KNetTest, AnAssignmentTakesTheSocketOverAndDoesNotCloseTheOldOne) {
    Net source(Tcp());
    Net target(Tcp());
    ASSERT_TRUE(source.CreateSocket());
    ASSERT_TRUE(target.CreateSocket());
    const Descriptor old(target.GetSocket());
    target.KNet::operator=(source);
    EXPECT_EQ(target.GetSocket(), source.GetSocket());
    EXPECT_TRUE(IsOpen(old.Get()));
    // Two owners: one has to forget.
    ASSERT_TRUE(target.DeleteSocket());
    EXPECT_FALSE(IsOpen(source.GetSocket()));
    source.KNet::operator=(KNet());
}

TEST(KNetTest, SelfAssignmentChangesNothing) {
    Connection connection;
    KNet& same = connection.client;
    const int nSocket = same.GetSocket();
    EXPECT_EQ(&(connection.client.KNet::operator=(same)), &same);
    EXPECT_EQ(same.GetSocket(), nSocket);
    EXPECT_EQ(TextOf(same.GetConnectionInfo().GetAddress()), kLocal);
    EXPECT_EQ(same.Write("x", 1), 1);
}

TEST(KNetTest, TheDestructorDoesNotCloseTheSocket) {
    int nSocket = -1;
    {
        KNetInfo info = Tcp();
        KNet net(info, 0);
        ASSERT_TRUE(net.CreateSocket());
        nSocket = net.GetSocket();
    }
    const Descriptor left(nSocket);
    EXPECT_TRUE(IsOpen(nSocket));
}

TEST(KNetTest, TheHostEntryLivesAsLongAsAnyCopy) {
    auto pFirst = std::make_unique<Net>(Udp(7, "127.0.0.9"));
    ASSERT_TRUE(LookUpALeakingText(*pFirst));
    const KNet second(*pFirst);
    KNet third;
    third = second;
    // The first goes on to another host, which the copies know nothing of.
    pFirst->SetConnectionInfo(Udp(7, "127.0.0.10"), 0);
    ASSERT_TRUE(pFirst->GetHostName());
    EXPECT_EQ(FoundBy(*pFirst), "2 127.0.0.10:7");
    pFirst.reset();
    EXPECT_EQ(FoundBy(third), "2 127.0.0.9:7");
    third = second;
    EXPECT_EQ(FoundBy(third), "2 127.0.0.9:7");
}

// ---------------------------------------------------------------------------------------------------- Without a record

struct NoRecordCase {
    const char* pszSignature;
    std::function<int(KNet&)> operation;
    int nResult;
};

std::vector<NoRecordCase> NoRecordCases() {
    static KNet s_Client;
    static char s_Buffer[1];
    static KString s_Ip;
    static int s_nPort = 0;
    return {
        {"bool KNet::GetHostName()", [](KNet& net) { return net.GetHostName(); }, 0},
        {"bool KNet::CreateSocket()", [](KNet& net) { return net.CreateSocket(); }, 0},
        {"bool KNet::DeleteSocket()", [](KNet& net) { return net.DeleteSocket(); }, 0},
        {"bool KNet::Bind()", [](KNet& net) { return net.Bind(); }, 0},
        {"bool KNet::Bind()", [](KNet& net) { return net.BindTest(); }, 0},
        {"bool KNet::Accept(KNet&)", [](KNet& net) { return net.Accept(s_Client); }, 0},
        {"bool KNet::SyncConnectWithBlock()", [](KNet& net) { return net.SyncConnectWithBlock(); }, 0},
        {"bool KNet::SyncConnectWithTimedBlock(int)", [](KNet& net) { return net.SyncConnectWithTimedBlock(1); }, 0},
        {"int KNet::ASyncConnectionCheckStart()", [](KNet& net) { return net.ASyncConnectionCheckStart(); }, -1},
        {"int KNet::ASyncConnectionChecking(int)", [](KNet& net) { return net.ASyncConnectionChecking(1); }, -1},
        {"bool KNet::ASyncConnectionCheckDone(bool)", [](KNet& net) { return net.ASyncConnectionCheckDone(true); }, 0},
        {"bool KNet::ConnectionTest(int)", [](KNet& net) { return net.ConnectionTest(1); }, 0},
        {"int KNet::Read(char*, int, bool)", [](KNet& net) { return net.Read(s_Buffer, 1, false); }, 0},
        {"int KNet::ReadWithClientInfo(char*, int, KString&, int&, bool)",
         [](KNet& net) { return net.ReadWithClientInfo(s_Buffer, 1, s_Ip, s_nPort, false); }, 0},
        {"int KNet::Write(const char*, int)", [](KNet& net) { return net.Write(s_Buffer, 1); }, -1},
        {"int KNet::WriteWithOtherPort(const char*, int, int)",
         [](KNet& net) { return net.WriteWithOtherPort(s_Buffer, 1, 1); }, -1},
        {"int KNet::WriteWithClientInfo(const char*, int, const KString&, int)",
         [](KNet& net) { return net.WriteWithClientInfo(s_Buffer, 1, kLocal, 1); }, -1},
        {"int KNet::GetReceivedSize()", [](KNet& net) { return net.GetReceivedSize(); }, 0},
    };
}

TEST(KNetTest, WithoutARecordEveryOperationFailsTheCheckPInfo) {
    for (const NoRecordCase& c : NoRecordCases()) {
        EXPECT_CHECK_FAILS(c.operation(*WithoutRecord()), "pInfo", kSource, c.pszSignature);
    }
}

TEST(KNetTest, WithoutARecordAndChecksEveryOperationSaysNoSocket) {
    for (const NoRecordCase& c : NoRecordCases()) {
        const std::unique_ptr<KNet> pNet = WithoutRecord();
        EXPECT_EQ(c.operation(*pNet), c.nResult) << c.pszSignature;
        EXPECT_EQ(pNet->GetError(), KNet::NO_SOCKET) << c.pszSignature;
    }
}

TEST(KNetTest, AcceptNeedsTheClientsRecordToo) {
    Server server;
    EXPECT_CHECK_FAILS(server.Accept(*WithoutRecord()), "pInfo", kSource, "bool KNet::Accept(KNet&)");
    const std::unique_ptr<KNet> pClient = WithoutRecord();
    EXPECT_FALSE(server.Accept(*pClient));
    EXPECT_EQ(server.GetError(), KNet::NO_SOCKET);
    EXPECT_GE(server.GetSocket(), 0);
}

TEST(KNetTest, WhatNeedsNoRecordWorksWithoutOne) {
    const std::unique_ptr<KNet> pNet = WithoutRecord();
    const ScopedChecks on(true);
    EXPECT_EQ(pNet->GetSocket(), -1);
    EXPECT_TRUE(pNet->SetConnectionInfo(Tcp(5), 6));
    EXPECT_EQ(pNet->GetConnectionInfo().GetPort(), 5);
    EXPECT_EQ(pNet->GetTimeOut(), 6);
    EXPECT_TRUE(pNet->isClientConnected());
    const ScopedHostName name("localhost");
    KList<KString> ips;
    pNet->GetLocalIPs(ips);
    EXPECT_GE(ips.GetCount(), 1);
    EXPECT_EQ(pNet->GetError(), KNet::NONE);
}

TEST(KNetTest, ACopyFromOrToAnObjectWithoutARecordHasTheRest) {
    Net net(Tcp(5), 6);
    ASSERT_TRUE(net.CreateSocket());
    const std::unique_ptr<KNet> pNone = WithoutRecord();
    *pNone = net;
    EXPECT_EQ(pNone->GetSocket(), -1);
    EXPECT_EQ(pNone->GetTimeOut(), 6);
    KNet copy(*pNone);
    EXPECT_EQ(copy.GetSocket(), -1);
    EXPECT_EQ(copy.GetTimeOut(), 6);
    copy = net;
    copy = *pNone;
    EXPECT_EQ(copy.GetSocket(), net.GetSocket());
}

TEST(KNetTest, WithoutMemoryForARecordACopyHasTheRest) {
    Net net(Tcp(5), 6);
    ASSERT_TRUE(net.CreateSocket());
    const ScopedNoMemory none;
    const KNet copy(net);
    EXPECT_EQ(copy.GetSocket(), -1);
    EXPECT_EQ(copy.GetTimeOut(), 6);
}

// ------------------------------------------------------------------------------------------------------------ Look-ups

TEST(KNetTest, ALookUpFindsAddressesAndNames) {
    const struct {
        const char* pszHost;
        const char* pszFound;
    } cases[] = {{"127.0.0.1", "2 127.0.0.1:9"},
                 {"127.0.0.77", "2 127.0.0.77:9"},
                 {"127.1", "2 127.0.0.1:9"},
                 {"localhost", "2 127.0.0.1:9"}};
    for (const auto& c : cases) {
        Net net(Udp(9, c.pszHost));
        EXPECT_TRUE(net.GetHostName()) << c.pszHost;
        EXPECT_EQ(net.GetError(), KNet::NONE) << c.pszHost;
        EXPECT_EQ(FoundBy(net), c.pszFound) << c.pszHost;
    }
}

TEST(KNetTest, AHostWithoutAnAddressIsNotFound) {
    for (const char* const pszHost : {kNoHost, "", " ", "::1", "127.0.0.1:80", "kalvoren.invalid"}) {
        Net net(Tcp(9, pszHost));
        EXPECT_FALSE(net.GetHostName()) << pszHost;
        EXPECT_EQ(net.GetError(), KNet::HOST_NOT_FOUND) << pszHost;
    }
}

TEST(KNetTest, AHostNameOfAnyLengthIsSafe) {
    for (const std::size_t nLength : {255u, 256u, 2048u, 100000u}) {
        const std::string name(nLength, '1');
        Net net(Tcp(9, name.c_str()));
        EXPECT_FALSE(net.GetHostName()) << nLength;
        EXPECT_EQ(net.GetError(), KNet::HOST_NOT_FOUND) << nLength;
    }
}

TEST(KNetTest, AHostWhoseEntryNeedsMoreRoomIsAskedForAgainWithTwiceAsMuch) {
    Net net(Tcp(9, "127.0.0.6"));
    const ScopedLookUps lookUps(ERANGE, nullptr, 4096);
    EXPECT_TRUE(net.GetHostName());
    EXPECT_THAT(lookUps.Sizes(), ElementsAre(1024, 2048, 4096));
}

TEST(KNetTest, AHostWhoseEntryNeedsMoreThanAMebibyteIsNotFound) {
    Net net(Tcp(9));
    hostent entry = {};
    const ScopedLookUps lookUps(ERANGE, &entry, 2097152);
    EXPECT_FALSE(net.GetHostName());
    EXPECT_EQ(net.GetError(), KNet::HOST_NOT_FOUND);
    EXPECT_EQ(lookUps.Sizes().back(), 1048576u);
}

TEST(KNetTest, AHostWhoseEntryHasNoAddressIsNotFound) {
    char* noAddress = nullptr;
    hostent entry = {};
    entry.h_addrtype = AF_INET;
    entry.h_addr_list = &noAddress;
    Net net(Tcp(9));
    const ScopedLookUps lookUps(0, &entry, 2048);
    EXPECT_FALSE(net.GetHostName());
    EXPECT_EQ(net.GetError(), KNet::HOST_NOT_FOUND);
}

TEST(KNetTest, AFailedLookUpForgetsTheHostFoundBefore) {
    Net net(Tcp(9));
    ASSERT_TRUE(LookUpALeakingText(net));
    net.SetConnectionInfo(Tcp(9, kNoHost), 0);
    EXPECT_FALSE(net.GetHostName());
    ASSERT_TRUE(net.CreateSocket());
    EXPECT_FALSE(net.SyncConnectWithBlock());
    EXPECT_EQ(net.GetError(), KNet::CONNECT_FAILED);
}

TEST(KNetTest, ASuccessfulLookUpLeavesTheErrorAsItWas) {
    Net net(Tcp(9, kNoHost));
    ASSERT_FALSE(LookUpALeakingText(net));
    net.SetConnectionInfo(Tcp(9), 0);
    EXPECT_TRUE(net.GetHostName());
    EXPECT_EQ(net.GetError(), KNet::HOST_NOT_FOUND);
}

TEST(KNetTest, WithoutMemoryForTheTextTheHostFoundBeforeStays) {
    Net net(Udp(9, "127.0.0.5"));
    {
        const ScopedNoMemory none;
        EXPECT_FALSE(net.GetHostName());
        EXPECT_EQ(net.GetError(), KNet::HOST_NOT_FOUND);
    }
    ASSERT_TRUE(net.GetHostName());
    {
        const ScopedNoMemory none;
        EXPECT_TRUE(net.GetHostName());
    }
    EXPECT_EQ(FoundBy(net), "2 127.0.0.5:9");
}

#if __GLIBC_PREREQ(2, 33)
TEST(KNetTest, AHostEntryIsGivenBackWithTheLastOfItsUsers) {
    const auto lookUpCopyAndForget = [] {
        Net net(Tcp(9));
        EXPECT_TRUE(net.GetHostName());
        KNet copy(net);
        EXPECT_TRUE(net.GetHostName());
        copy = net;
    };
    lookUpCopyAndForget();  // libc keeps the first blocks for the next.
    const std::size_t nBefore = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) {
        lookUpCopyAndForget();
    }
    EXPECT_EQ(mallinfo2().uordblks, nBefore);
}
#endif

TEST(KNetTest, LookUpsOfSeveralObjectsDoNotMix) {
    Net first(Udp(9, "127.0.0.2"));
    Net second(Udp(9, "127.0.0.3"));
    ASSERT_TRUE(first.GetHostName());
    ASSERT_TRUE(second.GetHostName());
    EXPECT_EQ(FoundBy(first), "2 127.0.0.2:9");
    EXPECT_EQ(FoundBy(second), "2 127.0.0.3:9");
}

TEST(KNetTest, LookUpsOfManyThreadsDoNotMix) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 50;
    std::atomic<int> nMixed(0);
    support::RunInThreads(kThreads, [&nMixed](int nThread) {
        for (int i = 0; i < kRounds; ++i) {
            const std::string host = "127.0." + std::to_string(nThread) + "." + std::to_string(i + 1);
            Net net(Udp(9, host.c_str()));
            Net local(Udp(9, "localhost"));
            const bool fgFound = net.GetHostName() && local.GetHostName();
            std::this_thread::yield();
            if (!fgFound || FoundBy(net) != "2 " + host + ":9" || FoundBy(local) != "2 127.0.0.1:9") {
                ++nMixed;
            }
        }
    });
    EXPECT_EQ(nMixed, 0);
}

TEST(KNetTest, DatagramsOfManyThreadsGoToTheirOwnHosts) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 50;
    support::RunInThreads(kThreads, [](int nThread) {
        const std::string host = "127.0.0." + std::to_string(nThread + 2);
        const Bare receiver(SOCK_DGRAM, host.c_str());
        Net net(Udp());
        EXPECT_TRUE(net.CreateSocket());
        for (int nRound = 0; nRound < kRounds; ++nRound) {
            EXPECT_EQ(net.WriteWithClientInfo(host.c_str(), static_cast<int>(host.size()), KString(host.c_str()),
                                              receiver.Port()),
                      static_cast<int>(host.size()));
            EXPECT_EQ(receiver.Receive(), host);
        }
    });
}

TEST(KNetTest, CopiesInManyThreadsShareAHostEntrySafely) {
    Net net(Udp(9, "127.0.0.4"));
    ASSERT_TRUE(net.GetHostName());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([copy = KNet(net)]() mutable {
            for (int nRound = 0; nRound < 100; ++nRound) {
                KNet another(copy);
                copy = KNet();
                copy = another;
            }
            EXPECT_EQ(FoundBy(copy), "2 127.0.0.4:9");
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(FoundBy(net), "2 127.0.0.4:9");
}

// ------------------------------------------------------------------------------------------------------ Making a socket

TEST(KNetTest, TheSystemIsAskedForTheDescribedKindOfSocket) {
    const std::pair<int, int> domains[] = {{KNetInfo::UNSPECIFIED, AF_UNSPEC},
                                           {KNetInfo::IPV4, AF_INET},
                                           {KNetInfo::IPV6, AF_INET6},
                                           {KNetInfo::LOCAL, AF_UNIX}};
    const struct {
        int nProtocol;
        int nType;
        int nNumber;
    } protocols[] = {{KNetInfo::RAW, SOCK_RAW, 255}, {KNetInfo::IP, SOCK_RAW, 0},     {KNetInfo::ICMP, SOCK_RAW, 1},
                     {KNetInfo::IGMP, SOCK_RAW, 2},  {KNetInfo::TCP, SOCK_STREAM, 0}, {KNetInfo::UDP, SOCK_DGRAM, 0}};
    for (const auto& domain : domains) {
        for (const auto& protocol : protocols) {
            const std::string expected = Call("socket", domain.second, protocol.nType, protocol.nNumber);
            Net net(Odd(domain.first, protocol.nProtocol, KNetInfo::UNICAST));
            const ScopedCalls calls({{expected, -1}});
            EXPECT_FALSE(net.CreateSocket());
            EXPECT_THAT(calls.Names(), ElementsAre(expected));
            EXPECT_EQ(net.GetError(), KNet::SOCKET_FAILED);
            EXPECT_EQ(net.GetSocket(), -1);
        }
    }
}

TEST(KNetTest, ASocketIsMade) {
    const std::pair<int, int> types[] = {{KNetInfo::TCP, SOCK_STREAM}, {KNetInfo::UDP, SOCK_DGRAM}};
    for (const auto& type : types) {
        Net net(Odd(KNetInfo::IPV4, type.first, KNetInfo::UNICAST));
        EXPECT_TRUE(net.CreateSocket());
        EXPECT_EQ(net.GetError(), KNet::NONE);
        EXPECT_EQ(Option(net.GetSocket(), SOL_SOCKET, SO_DOMAIN), AF_INET);
        EXPECT_EQ(Option(net.GetSocket(), SOL_SOCKET, SO_TYPE), type.second);
    }
}

TEST(KNetTest, ARawSocketIsMadeForThoseWhoMay) {
    Net net(Odd(KNetInfo::IPV4, KNetInfo::ICMP, KNetInfo::UNICAST));
    if (!net.CreateSocket()) {
        EXPECT_EQ(net.GetError(), KNet::SOCKET_FAILED);
        GTEST_SKIP() << "this user may not make raw sockets here";
    }
    EXPECT_EQ(Option(net.GetSocket(), SOL_SOCKET, SO_TYPE), SOCK_RAW);
    EXPECT_EQ(Option(net.GetSocket(), SOL_SOCKET, SO_PROTOCOL), IPPROTO_ICMP);
}

TEST(KNetTest, TheFamilyOfTheHostThatWasFoundComesFirst) {
    for (const int nDomain : {0, 2, 3, 99, -1}) {
        const ScopedChecks on(true);
        Net net(Odd(nDomain, KNetInfo::TCP, KNetInfo::UNICAST));
        ASSERT_TRUE(net.GetHostName());
        EXPECT_TRUE(net.CreateSocket()) << nDomain;
        EXPECT_EQ(Option(net.GetSocket(), SOL_SOCKET, SO_DOMAIN), AF_INET) << nDomain;
    }
}

TEST(KNetTest, AnUnspecifiedFamilyMakesNoSocket) {
    Net net(Odd(KNetInfo::UNSPECIFIED, KNetInfo::TCP, KNetInfo::UNICAST));
    EXPECT_FALSE(net.CreateSocket());
    EXPECT_EQ(net.GetError(), KNet::SOCKET_FAILED);
    EXPECT_EQ(net.GetSocket(), -1);
}

TEST(KNetTest, AnUnknownFamilyFailsTheCheck) {
    for (const int nDomain : {4, -1}) {
        Net net(Odd(nDomain, KNetInfo::TCP, KNetInfo::UNICAST));
        EXPECT_CHECK_FAILS(net.CreateSocket(), "0", kSource, "bool KNet::CreateSocket()");
    }
}

TEST(KNetTest, AnUnknownFamilyIsABadDomainWithTheChecksOff) {
    for (const int nDomain : {4, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        Net net(Odd(nDomain, 99, 99));
        const ScopedCalls calls;
        EXPECT_FALSE(net.CreateSocket()) << nDomain;
        EXPECT_EQ(net.GetError(), KNet::BAD_DOMAIN) << nDomain;
        EXPECT_THAT(calls.Names(), IsEmpty()) << nDomain;
    }
}

TEST(KNetTest, AnUnknownProtocolFailsTheCheck) {
    for (const int nProtocol : {6, -1}) {
        Net net(Odd(KNetInfo::IPV4, nProtocol, KNetInfo::UNICAST));
        EXPECT_CHECK_FAILS(net.CreateSocket(), "0", kSource, "bool KNet::CreateSocket()");
    }
}

TEST(KNetTest, AnUnknownProtocolIsASuccessWithNothingMadeWithTheChecksOff) {
    for (const int nProtocol : {6, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        Net net(Odd(KNetInfo::IPV4, nProtocol, 99));
        ASSERT_FALSE(net.Bind());
        const ScopedCalls calls;
        EXPECT_TRUE(net.CreateSocket()) << nProtocol;
        EXPECT_EQ(net.GetSocket(), -1) << nProtocol;
        EXPECT_EQ(net.GetError(), KNet::NO_SOCKET) << nProtocol;
        EXPECT_THAT(calls.Names(), IsEmpty()) << nProtocol;
    }
}

TEST(KNetTest, MakingASocketOverwritesTheOldDescriptorWithoutClosingIt) {
    Net net(Tcp());
    ASSERT_TRUE(net.CreateSocket());
    const Descriptor old(net.GetSocket());
    EXPECT_TRUE(net.CreateSocket());
    EXPECT_NE(net.GetSocket(), old.Get());
    EXPECT_TRUE(IsOpen(old.Get()));
}

TEST(KNetTest, MakingASocketClearsTheError) {
    Net net(Tcp());
    ASSERT_FALSE(net.Bind());
    ASSERT_EQ(net.GetError(), KNet::NO_SOCKET);
    EXPECT_TRUE(net.CreateSocket());
    EXPECT_EQ(net.GetError(), KNet::NONE);
}

TEST(KNetTest, MulticastSwitchesItsLoopBackOff) {
    Net net(Udp(0, "239.1.2.3", KNetInfo::MULTICAST));
    const ScopedCalls calls;
    EXPECT_TRUE(net.CreateSocket());
    EXPECT_THAT(calls.Names(), ElementsAre(Call("socket", AF_INET, SOCK_DGRAM, 0),
                                           Call("setsockopt", IPPROTO_IP, IP_MULTICAST_LOOP, 0)));
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_EQ(Option(net.GetSocket(), IPPROTO_IP, IP_MULTICAST_LOOP), 0);
}

TEST(KNetTest, MulticastWithoutALoopBackToSwitchOffFailsAndClosesTheSocket) {
    // A local socket has no such option.
    const std::vector<int> before = OpenDescriptors();
    Net net(Odd(KNetInfo::LOCAL, KNetInfo::UDP, KNetInfo::MULTICAST));
    EXPECT_FALSE(net.CreateSocket());
    EXPECT_EQ(net.GetError(), KNet::MULTICAST_FAILED);
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(KNetTest, BroadcastIsSwitchedOn) {
    Net net(Udp(0, "127.255.255.255", KNetInfo::BROADCAST));
    const ScopedCalls calls;
    EXPECT_TRUE(net.CreateSocket());
    EXPECT_THAT(calls.Names(),
                ElementsAre(Call("socket", AF_INET, SOCK_DGRAM, 0), Call("setsockopt", SOL_SOCKET, SO_BROADCAST, 1)));
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_EQ(Option(net.GetSocket(), SOL_SOCKET, SO_BROADCAST), 1);
}

TEST(KNetTest, ABroadcastThatCannotBeSwitchedOnIsFalseWithoutAnErrorAndLeavesTheSocketOpen) {
    Net net(Udp(0, "127.255.255.255", KNetInfo::BROADCAST));
    ASSERT_FALSE(net.Bind());
    const ScopedCalls calls({{Call("setsockopt", SOL_SOCKET, SO_BROADCAST, 1), -1}});
    EXPECT_FALSE(net.CreateSocket());
    EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
    EXPECT_TRUE(IsOpen(net.GetSocket()));
}

TEST(KNetTest, MulticastAndBroadcastNeedUdpAndLeaveTheSocketOpen) {
    // The check on this path never fails.
    const ScopedChecks on(true);
    const char* const kinds[] = {"3 255", "3 0", "3 1", "3 2", "1 0"};
    for (int nProtocol = KNetInfo::RAW; nProtocol <= KNetInfo::TCP; ++nProtocol) {
        for (const int nCasting : {KNetInfo::MULTICAST, KNetInfo::BROADCAST}) {
            const std::string call = std::string("socket 2 ") + kinds[nProtocol];
            // Most of them are for the privileged, so any descriptor stands for one.
            const ScopedCalls calls({{call, open("/dev/null", O_RDONLY)}});
            Net net(Odd(KNetInfo::IPV4, nProtocol, nCasting));
            EXPECT_FALSE(net.CreateSocket());
            EXPECT_EQ(net.GetError(), KNet::CASTING_NEEDS_UDP);
            EXPECT_TRUE(IsOpen(net.GetSocket()));
            EXPECT_THAT(calls.Names(), ElementsAre(call));
        }
    }
}

TEST(KNetTest, AnUnknownDeliveryFailsTheCheck) {
    for (const int nCasting : {3, -1}) {
        Net net(Odd(KNetInfo::IPV4, KNetInfo::UDP, nCasting));
        EXPECT_CHECK_FAILS(net.CreateSocket(), "0", kSource, "bool KNet::CreateSocket()");
    }
}

TEST(KNetTest, AnUnknownDeliveryIsABadCastingWithTheChecksOffAndLeavesTheSocketOpen) {
    for (const int nCasting : {3, -1}) {
        for (const int nProtocol : {KNetInfo::TCP, KNetInfo::UDP}) {
            Net net(Odd(KNetInfo::IPV4, nProtocol, nCasting));
            EXPECT_FALSE(net.CreateSocket());
            EXPECT_EQ(net.GetError(), KNet::BAD_CASTING);
            EXPECT_TRUE(IsOpen(net.GetSocket()));
        }
    }
}

TEST(KNetTest, ASocketThatOnlyStayedOpenIsNotYetWaitedFor) {
    // Only a success notes the descriptor and the event to wait for.
    Net net(Odd(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::MULTICAST));
    ASSERT_FALSE(net.CreateSocket());
    const ScopedCalls calls({{Call("poll", 0, 10000), 0}});
    EXPECT_EQ(net.GetReceivedSize(), 0);
    EXPECT_THAT(calls.Names(), ElementsAre(Call("poll", 0, 10000)));
}

TEST(KNetTest, DeletingASocketClosesIt) {
    Net net(Tcp());
    ASSERT_TRUE(net.CreateSocket());
    const int nSocket = net.GetSocket();
    EXPECT_TRUE(net.DeleteSocket());
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
    EXPECT_TRUE(net.DeleteSocket());
    EXPECT_EQ(net.GetError(), KNet::NONE);
}

// -------------------------------------------------------------------------------------------------------------- Binding

const std::string kReuse = Call("setsockopt", SOL_SOCKET, SO_REUSEADDR, 1);

TEST(KNetTest, BindBindsAllAddressesAndListensWithABacklogOfAThousand) {
    Net net(Tcp(0, "127.0.0.1"));
    ASSERT_TRUE(net.CreateSocket());
    const ScopedCalls calls;
    EXPECT_TRUE(net.Bind());
    EXPECT_THAT(calls.Names(), ElementsAre(kReuse, "bind 0 0.0.0.0:0 16", "listen 1000"));
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_EQ(Option(net.GetSocket(), SOL_SOCKET, SO_ACCEPTCONN), 1);
}

TEST(KNetTest, BindKeepsTheFamilyThatAConnectLeftBehind) {
    const ClosedPort closed;
    Net net(Tcp(closed.Port()));
    ASSERT_FALSE(LookUpALeakingText(net) && net.CreateSocket() && net.SyncConnectWithBlock());
    net.SetConnectionInfo(Tcp(0), 0);
    ASSERT_TRUE(net.CreateSocket());
    const ScopedCalls calls;
    EXPECT_TRUE(net.Bind());
    EXPECT_THAT(calls.Names(), ElementsAre(kReuse, "bind 2 0.0.0.0:0 16", "listen 1000"));
}

TEST(KNetTest, ThePortIsTakenInItsLowSixteenBits) {
    const std::pair<int, const char*> cases[] = {{-1, "bind 0 0.0.0.0:65535 16"},
                                                 {65536, "bind 0 0.0.0.0:0 16"},
                                                 {0x12345678, "bind 0 0.0.0.0:22136 16"},
                                                 {std::numeric_limits<int>::min(), "bind 0 0.0.0.0:0 16"}};
    for (const auto& c : cases) {
        Net net(Tcp(c.first));
        ASSERT_TRUE(net.CreateSocket());
        const ScopedCalls calls({{c.second, -1}});
        EXPECT_FALSE(net.Bind());
        EXPECT_THAT(calls.Names(), ElementsAre(kReuse, c.second));
    }
}

TEST(KNetTest, BindNeedsASocket) {
    Net net(Tcp());
    EXPECT_FALSE(net.Bind());
    EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
    EXPECT_FALSE(net.BindTest());
}

TEST(KNetTest, APortInUseCannotBeBound) {
    const BareServer other;
    Net net(Tcp(other.Port()));
    ASSERT_TRUE(net.CreateSocket());
    const int nSocket = net.GetSocket();
    EXPECT_FALSE(net.Bind());
    EXPECT_EQ(net.GetError(), KNet::BIND_FAILED);
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
}

TEST(KNetTest, ThePortOfAConnectionThatHasEndedCanBeBoundAgain) {
    Server server;
    const int nPort = server.Port();
    Net client(Tcp(nPort));
    ASSERT_TRUE(Connect(client));
    Net accepted;
    ASSERT_TRUE(server.Accept(accepted));
    // The side that closes first keeps the port for a while.
    accepted.DeleteSocket();
    server.DeleteSocket();
    AwaitInput(client.GetSocket());
    client.DeleteSocket();
    Net again(Tcp(nPort));
    ASSERT_TRUE(again.CreateSocket());
    EXPECT_TRUE(again.Bind());
}

TEST(KNetTest, ADatagramSocketCannotListenSoThatBindFails) {
    for (const int nCasting : {KNetInfo::UNICAST, KNetInfo::BROADCAST}) {
        Net net(Odd(KNetInfo::IPV4, KNetInfo::UDP, nCasting));
        ASSERT_TRUE(net.CreateSocket());
        const int nSocket = net.GetSocket();
        const ScopedCalls calls;
        EXPECT_FALSE(net.Bind());
        EXPECT_THAT(calls.Names(), ElementsAre(kReuse, "bind 0 0.0.0.0:0 16", "listen 1000"));
        EXPECT_EQ(net.GetError(), KNet::BIND_FAILED);
        EXPECT_EQ(net.GetSocket(), -1);
        EXPECT_FALSE(IsOpen(nSocket));
    }
}

TEST(KNetTest, AMulticastBindJoinsTheGroupThatWasFoundBeforeItListens) {
    const std::string join = Call("setsockopt", IPPROTO_IP, IP_ADD_MEMBERSHIP) + " 239.1.2.3 0.0.0.0";
    Net net(Udp(0, "239.1.2.3", KNetInfo::MULTICAST));
    ASSERT_TRUE(Prepare(net));
    // Answered here, so that nothing is said on the machine's network.
    const ScopedCalls calls({{join, 0}, {"listen 1000", 0}});
    EXPECT_TRUE(net.Bind());
    EXPECT_THAT(calls.Names(), ElementsAre(kReuse, "bind 0 0.0.0.0:0 16", join, "listen 1000"));
}

TEST(KNetTest, AMulticastBindFailsWhereTheGroupCannotBeJoined) {
    Net net(Udp(0, "127.0.0.1", KNetInfo::MULTICAST));
    ASSERT_TRUE(Prepare(net));
    const int nSocket = net.GetSocket();
    const ScopedCalls calls;
    EXPECT_FALSE(net.Bind());
    EXPECT_EQ(calls.Names().size(), 3U) << "it goes on after the join";
    EXPECT_EQ(net.GetError(), KNet::BIND_FAILED);
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
}

TEST(KNetTest, AMulticastBindFailsWithoutAHostThatWasFound) {
    Net net(Udp(0, "239.1.2.3", KNetInfo::MULTICAST));
    ASSERT_TRUE(net.CreateSocket());
    const ScopedCalls calls;
    EXPECT_FALSE(net.Bind());
    EXPECT_THAT(calls.Names(), ElementsAre(kReuse, "bind 0 0.0.0.0:0 16")) << "it neither joins nor listens";
    EXPECT_EQ(net.GetError(), KNet::BIND_FAILED);
    EXPECT_EQ(net.GetSocket(), -1);
}

TEST(KNetTest, BindFailsForAnUnknownDeliveryAfterItHasBound) {
    const ScopedChecks on(true);
    for (const int nCasting : {3, -1}) {
        Net net(Tcp());
        ASSERT_TRUE(net.CreateSocket());
        net.SetCasting(nCasting);
        const ScopedCalls calls;
        EXPECT_FALSE(net.Bind());
        EXPECT_THAT(calls.Names(), ElementsAre(kReuse, "bind 0 0.0.0.0:0 16"));
        EXPECT_EQ(net.GetError(), KNet::BIND_FAILED);
        EXPECT_EQ(net.GetSocket(), -1);
    }
}

TEST(KNetTest, BindGoesOnWhereTheReuseOfThePortIsRefused) {
    Net net(Tcp());
    ASSERT_TRUE(net.CreateSocket());
    const ScopedCalls calls({{kReuse, -1}});
    EXPECT_TRUE(net.Bind());
}

TEST(KNetTest, ABindTestLeavesNoSocketOpen) {
    const std::vector<int> before = OpenDescriptors();
    Net net(Tcp());
    ASSERT_TRUE(net.CreateSocket());
    EXPECT_TRUE(net.BindTest());
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(KNetTest, ABindTestTellsThatThePortIsTaken) {
    const BareServer other;
    Net net(Tcp(other.Port()));
    ASSERT_TRUE(net.CreateSocket());
    EXPECT_FALSE(net.BindTest());
    EXPECT_EQ(net.GetError(), KNet::BIND_FAILED);
    EXPECT_EQ(net.GetSocket(), -1);
}

// ------------------------------------------------------------------------------------------------------------ Accepting

TEST(KNetTest, AcceptHandsThePeersSocketToTheClient) {
    Server server;
    Net client(Tcp(server.Port(), "127.0.0.1"));
    ASSERT_TRUE(Connect(client));
    Net accepted(Udp(1, "elsewhere"), 123);
    EXPECT_TRUE(server.Accept(accepted));
    EXPECT_EQ(server.GetError(), KNet::NONE);
    EXPECT_NE(accepted.GetSocket(), server.GetSocket());
    // The server's description with the peer's address; the time-out stays.
    EXPECT_EQ(TextOf(accepted.GetConnectionInfo().GetAddress()), "127.0.0.1");
    EXPECT_EQ(accepted.GetConnectionInfo().GetProtocol(), KNetInfo::TCP);
    EXPECT_EQ(accepted.GetConnectionInfo().GetPort(), 0);
    EXPECT_EQ(TextOf(server.GetConnectionInfo().GetAddress()), "0.0.0.0");
    EXPECT_EQ(accepted.GetTimeOut(), 123);
    // It is the one to be waited for, too.
    ASSERT_EQ(client.Write("hello", 5), 5);
    EXPECT_EQ(accepted.GetReceivedSize(), 5);
    EXPECT_EQ(PeerOf(accepted), "2 127.0.0.1:" + std::to_string(PortOf(client.GetSocket())));
}

TEST(KNetTest, AcceptGivesTheAddressOfEachPeer) {
    Server server;
    const auto accept = [&server](const char* pszAddress) {
        const Bare peer(SOCK_STREAM, pszAddress);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(server.Port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(peer.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        Net accepted;
        EXPECT_TRUE(server.Accept(accepted));
        return TextOf(accepted.GetConnectionInfo().GetAddress());
    };
    for (const char* const pszAddress : {"127.0.0.1", "127.0.0.2", "127.200.0.255", "127.255.255.254"}) {
        EXPECT_EQ(accept(pszAddress), pszAddress);
    }
}

TEST(KNetTest, AnAcceptedClientDoesNotListen) {
    Server server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Connect(client));
    Net accepted;
    ASSERT_TRUE(server.Accept(accepted));
    KNet none;
    EXPECT_FALSE(accepted.Accept(none));
    EXPECT_EQ(accepted.GetError(), KNet::NO_SOCKET);
    EXPECT_GE(accepted.GetSocket(), 0);
}

TEST(KNetTest, AcceptOverwritesWhatTheClientHeldWithoutClosingIt) {
    Server server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Connect(client));
    Net accepted(Tcp());
    ASSERT_TRUE(accepted.CreateSocket());
    const Descriptor held(accepted.GetSocket());
    EXPECT_TRUE(server.Accept(accepted));
    EXPECT_NE(accepted.GetSocket(), held.Get());
    EXPECT_TRUE(IsOpen(held.Get()));
}

TEST(KNetTest, AcceptWithoutAListeningSocketLeavesTheClientWithACopyOfTheServer) {
    KNetInfo info = Tcp(7, "127.0.0.9");
    KNet server(info, 0);
    ASSERT_TRUE(server.CreateSocket());
    const Descriptor own(server.GetSocket());
    KNet client;
    EXPECT_FALSE(server.Accept(client));
    EXPECT_EQ(server.GetError(), KNet::NO_SOCKET);
    EXPECT_TRUE(IsOpen(own.Get()));
    EXPECT_EQ(client.GetSocket(), own.Get());
    EXPECT_EQ(TextOf(client.GetConnectionInfo().GetAddress()), "127.0.0.9");
    EXPECT_EQ(client.GetError(), KNet::NONE);
}

TEST(KNetTest, AcceptWithoutAnySocketSaysNoSocket) {
    Server server;
    ASSERT_TRUE(server.DeleteSocket());
    KNet client;
    EXPECT_FALSE(server.Accept(client));
    EXPECT_EQ(server.GetError(), KNet::NO_SOCKET);
    EXPECT_EQ(client.GetSocket(), -1);
}

TEST(KNetTest, AnAcceptThatFailsClosesTheListeningSocket) {
    Server server;
    const int nSocket = server.GetSocket();
    // Nobody is waiting, and it does not wait either.
    ASSERT_EQ(fcntl(nSocket, F_SETFL, O_NONBLOCK), 0);
    KNet client;
    EXPECT_FALSE(server.Accept(client));
    EXPECT_EQ(server.GetError(), KNet::BIND_FAILED);
    EXPECT_EQ(server.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
    // The client was given a copy before, and holds a descriptor that is closed by now.
    EXPECT_EQ(client.GetSocket(), nSocket);
    EXPECT_EQ(client.GetError(), KNet::NONE);
}

TEST(KNetTest, ASocketThatListenedOnceStillCountsAsListening) {
    // A new socket in the same object is accepted on, fails and is closed.
    Server server;
    server.DeleteSocket();
    ASSERT_TRUE(server.CreateSocket());
    KNet client;
    EXPECT_FALSE(server.Accept(client));
    EXPECT_EQ(server.GetError(), KNet::BIND_FAILED);
    EXPECT_EQ(server.GetSocket(), -1);
}

TEST(KNetTest, AcceptIntoItselfStopsListening) {
    Server server;
    const int nSocket = server.GetSocket();
    EXPECT_FALSE(server.Accept(server));
    EXPECT_EQ(server.GetError(), KNet::NO_SOCKET);
    EXPECT_EQ(server.GetSocket(), nSocket);
}

TEST(KNetTest, APeerThatIsNotIpv4LeavesTheListeningSocketWithTheClientAndIsTrue) {
    Server server;
    // Another kind of listening socket takes the descriptor's place.
    const Descriptor other(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // A name of the system's choice that is no file.
    ASSERT_EQ(::bind(other.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(sa_family_t)), 0);
    ASSERT_EQ(::listen(other.Get(), 1), 0);
    ASSERT_EQ(dup2(other.Get(), server.GetSocket()), server.GetSocket());
    socklen_t nSize = sizeof(address);
    ASSERT_EQ(getsockname(other.Get(), reinterpret_cast<sockaddr*>(&address), &nSize), 0);
    const Descriptor peer(::socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(peer.Get(), reinterpret_cast<sockaddr*>(&address), nSize), 0);

    const std::vector<int> before = OpenDescriptors();
    KNet client;
    EXPECT_TRUE(server.Accept(client));
    EXPECT_EQ(server.GetError(), KNet::PEER_NOT_IPV4);
    EXPECT_EQ(client.GetSocket(), server.GetSocket());
    EXPECT_EQ(client.GetError(), KNet::NONE);
    EXPECT_EQ(TextOf(client.GetConnectionInfo().GetAddress()), "0.0.0.0");
    // The peer's own descriptor is open and nobody's.
    std::vector<int> lost;
    const std::vector<int> after = OpenDescriptors();
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(lost));
    ASSERT_EQ(lost.size(), 1U);
    close(lost[0]);
}

// ---------------------------------------------------------------------------------------------- Connecting and waiting

TEST(KNetTest, AConnectReachesTheServer) {
    Server server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    const ScopedCalls calls;
    EXPECT_TRUE(client.SyncConnectWithBlock());
    EXPECT_THAT(calls.Names(), ElementsAre("connect 2 127.0.0.1:" + std::to_string(server.Port()) + " 16"));
    EXPECT_EQ(client.GetError(), KNet::NONE);
    EXPECT_FALSE(IsNonBlocking(client));
}

TEST(KNetTest, AConnectToAClosedPortFailsAndClosesTheSocket) {
    const ClosedPort closed;
    Net client(Tcp(closed.Port()));
    ASSERT_TRUE(Prepare(client));
    const int nSocket = client.GetSocket();
    EXPECT_FALSE(client.SyncConnectWithBlock());
    EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
    EXPECT_EQ(client.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
}

TEST(KNetTest, TheConnectsNeedASocket) {
    Net client(Tcp(9));
    ASSERT_TRUE(client.GetHostName());
    EXPECT_FALSE(client.SyncConnectWithBlock());
    EXPECT_EQ(client.GetError(), KNet::NO_SOCKET);
    Net timed(Tcp(9));
    ASSERT_TRUE(timed.GetHostName());
    EXPECT_FALSE(timed.SyncConnectWithTimedBlock(1));
    EXPECT_EQ(timed.GetError(), KNet::NO_SOCKET);
}

TEST(KNetTest, WithoutAHostThatWasFoundAConnectFails) {
    for (const bool fgTimed : {false, true}) {
        Net client(Tcp(9));
        ASSERT_TRUE(client.CreateSocket());
        const ScopedCalls calls;
        EXPECT_FALSE(fgTimed ? client.SyncConnectWithTimedBlock(1) : client.SyncConnectWithBlock());
        EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
        EXPECT_EQ(client.GetSocket(), -1);
        EXPECT_THAT(calls.Names(), IsEmpty());
    }
}

// ----------------------------------------------------------------------------------------------------- Timed connecting

TEST(KNetTest, ATimedConnectReachesTheServerAndBlocksAgain) {
    Server server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    EXPECT_TRUE(client.SyncConnectWithTimedBlock(kLong));
    EXPECT_EQ(client.GetError(), KNet::NONE);
    EXPECT_FALSE(IsNonBlocking(client));
    EXPECT_EQ(PeerOf(client), "2 127.0.0.1:" + std::to_string(server.Port()));
}

TEST(KNetTest, ATimedConnectGivesTheFlagsBackThatTheProgramHadSet) {
    Server server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    const int nFlags = fcntl(client.GetSocket(), F_GETFL) | O_NONBLOCK | O_APPEND;
    ASSERT_EQ(fcntl(client.GetSocket(), F_SETFL, nFlags), 0);
    ASSERT_TRUE(client.SyncConnectWithTimedBlock(kLong));
    EXPECT_EQ(fcntl(client.GetSocket(), F_GETFL), nFlags);
}

TEST(KNetTest, ATimedConnectThatSucceedsAtOnceLeavesTheSocketNonBlocking) {
    Net client(Tcp(9));
    ASSERT_TRUE(Prepare(client));
    const ScopedCalls calls({{"connect 2 127.0.0.1:9 16", 0}});
    EXPECT_TRUE(client.SyncConnectWithTimedBlock(kLong));
    EXPECT_THAT(calls.Names(), ElementsAre("connect 2 127.0.0.1:9 16"));
    EXPECT_TRUE(IsNonBlocking(client));
}

TEST(KNetTest, ATimedConnectTakesTheMillisecondsOverWholeSecondsForMicroseconds) {
    const struct {
        int nMilliseconds;
        int nSeconds;
        int nMicroseconds;
    } cases[] = {{0, 0, 0}, {1, 0, 1}, {999, 0, 999}, {1000, 1, 0}, {1500, 1, 500}, {10000, 10, 0}, {123456, 123, 456}};
    for (const auto& c : cases) {
        Net client(Tcp(9));
        ASSERT_TRUE(Prepare(client));
        const std::string wait = Call("select", c.nSeconds, c.nMicroseconds);
        const ScopedCalls calls({{"connect 2 127.0.0.1:9 16", -1}, {wait, 0}});
        EXPECT_FALSE(client.SyncConnectWithTimedBlock(c.nMilliseconds));
        EXPECT_THAT(calls.Names(), ElementsAre("connect 2 127.0.0.1:9 16", wait));
        EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
        EXPECT_EQ(client.GetSocket(), -1);
    }
}

TEST(KNetTest, ASecondTimedConnectDoesNotWaitForTheSocketOfTheFirst) {
    const ClosedPort closed;  // What is refused is ready for reading.
    Net client(Tcp(closed.Port()));
    ASSERT_TRUE(Prepare(client));
    ASSERT_TRUE(client.SyncConnectWithTimedBlock(kLong));
    {
        const Descriptor first(client.GetSocket());
        ASSERT_TRUE(client.CreateSocket());
    }
    EXPECT_TRUE(client.SyncConnectWithTimedBlock(kLong)) << "the first is closed, and cannot be waited for";
}

TEST(KNetTest, ATimedConnectEndsWhereTheServerDoesNotAnswer) {
    const FullServer server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    const int nSocket = client.GetSocket();
    EXPECT_FALSE(client.SyncConnectWithTimedBlock(100));
    EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
    EXPECT_EQ(client.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
}

TEST(KNetTest, ATimedConnectToAClosedPortIsTrue) {
    // The socket is ready, and nobody asks for what. The first write tells.
    const ClosedPort closed;
    Net client(Tcp(closed.Port()));
    ASSERT_TRUE(Prepare(client));
    EXPECT_TRUE(client.SyncConnectWithTimedBlock(kLong));
    EXPECT_EQ(client.GetError(), KNet::NONE);
    EXPECT_FALSE(IsNonBlocking(client));
    EXPECT_THAT(StderrOf([&] { EXPECT_EQ(client.Write("x", 1), -1); }), MatchesRegex(WriteError(ECONNREFUSED)));
}

TEST(KNetTest, ATimedConnectWithANegativeTimeFails) {
    const FullServer server;
    for (const int nMilliseconds : {-1, -1000, std::numeric_limits<int>::min()}) {
        Net client(Tcp(server.Port()));
        ASSERT_TRUE(Prepare(client));
        EXPECT_FALSE(client.SyncConnectWithTimedBlock(nMilliseconds));
        EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
        EXPECT_EQ(client.GetSocket(), -1);
    }
}

TEST(KNetTest, ATimedConnectOfAnythingButUnicastTcpIsTrueWithoutAConnect) {
    const struct {
        int nProtocol;
        int nCasting;
    } cases[] = {{KNetInfo::UDP, KNetInfo::UNICAST},   {KNetInfo::UDP, KNetInfo::MULTICAST},
                 {KNetInfo::UDP, KNetInfo::BROADCAST}, {KNetInfo::TCP, KNetInfo::MULTICAST},
                 {KNetInfo::RAW, KNetInfo::UNICAST},   {KNetInfo::UDP, 99}};
    for (const auto& c : cases) {
        Net client(Udp(9));
        ASSERT_TRUE(LookUpALeakingText(client) && client.CreateSocket());
        client.SetConnectionInfo(Odd(KNetInfo::IPV4, c.nProtocol, c.nCasting), 0);
        const ScopedCalls calls;
        EXPECT_TRUE(client.SyncConnectWithTimedBlock(1));
        EXPECT_THAT(calls.Names(), IsEmpty());
        EXPECT_FALSE(IsNonBlocking(client));
        EXPECT_GE(client.GetSocket(), 0);
    }
}

// --------------------------------------------------------------------------------------------- Connecting step by step

TEST(KNetTest, AStartedConnectBecomesReadyAndBlocksAgainWhenDone) {
    Server server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    const int nStarted = client.ASyncConnectionCheckStart();
    EXPECT_GE(nStarted, 0);
    EXPECT_TRUE(IsNonBlocking(client));
    if (nStarted == 1) {
        EXPECT_EQ(client.ASyncConnectionChecking(kLong), 0);
        EXPECT_EQ(client.ASyncConnectionChecking(kLong), 0);
    }
    EXPECT_TRUE(client.ASyncConnectionCheckDone(true));
    EXPECT_FALSE(IsNonBlocking(client));
    EXPECT_EQ(client.GetError(), KNet::NONE);
    EXPECT_EQ(PeerOf(client), "2 127.0.0.1:" + std::to_string(server.Port()));
}

TEST(KNetTest, AConnectThatIsReadyAtOnceIsZero) {
    // A datagram socket needs nobody's answer.
    const Bare receiver(SOCK_DGRAM);
    Net client(Udp(receiver.Port()));
    ASSERT_TRUE(Prepare(client));
    EXPECT_EQ(client.ASyncConnectionCheckStart(), 0);
    EXPECT_TRUE(client.ASyncConnectionCheckDone(true));
    EXPECT_EQ(client.Write("hello", 5), 5);
    EXPECT_EQ(receiver.Receive(), "hello");
}

TEST(KNetTest, AStartedConnectIsPendingWhileTheServerDoesNotAnswer) {
    const FullServer server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    EXPECT_EQ(client.ASyncConnectionCheckStart(), 1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client.ASyncConnectionChecking(100), 1);
    }
    EXPECT_EQ(client.GetError(), KNet::NONE);
    const int nSocket = client.GetSocket();
    EXPECT_TRUE(client.ASyncConnectionCheckDone(false));
    EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
    EXPECT_EQ(client.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
}

TEST(KNetTest, AStartedConnectBecomesReadyOnceTheServerHasRoom) {
    // The client asks again after a second.
    const FullServer server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    ASSERT_EQ(client.ASyncConnectionCheckStart(), 1);
    ASSERT_EQ(client.ASyncConnectionChecking(1), 1);
    const Descriptor first = server.Accept();
    EXPECT_EQ(client.ASyncConnectionChecking(kLong), 0);
    EXPECT_TRUE(client.ASyncConnectionCheckDone(true));
    const Descriptor second = server.Accept();
    second.Send("welcome");
    char welcome[7];
    EXPECT_EQ(client.Read(welcome, sizeof(welcome), false), -1);
}

TEST(KNetTest, AStartedConnectToAClosedPortIsOnTheWayAndThenReady) {
    const ClosedPort closed;
    Net client(Tcp(closed.Port()));
    ASSERT_TRUE(Prepare(client));
    EXPECT_EQ(client.ASyncConnectionCheckStart(), 1);
    EXPECT_EQ(client.ASyncConnectionChecking(kLong), 0);
}

TEST(KNetTest, EveryFailureToStartAConnectCountsAsOnTheWay) {
    Net client(Tcp(9));
    ASSERT_TRUE(Prepare(client));
    const ScopedCalls calls({{"connect 2 127.0.0.1:9 16", -1}});
    EXPECT_EQ(client.ASyncConnectionCheckStart(), 1);
    EXPECT_EQ(client.GetError(), KNet::NONE);
    EXPECT_GE(client.GetSocket(), 0);
}

TEST(KNetTest, AConnectIsNotStartedWithoutASocketOrAHost) {
    Net none(Tcp(9));
    ASSERT_TRUE(none.GetHostName());
    EXPECT_EQ(none.ASyncConnectionCheckStart(), -1);
    EXPECT_EQ(none.GetError(), KNet::NONE);
    Net unknown(Tcp(9));
    ASSERT_TRUE(unknown.CreateSocket());
    EXPECT_EQ(unknown.ASyncConnectionCheckStart(), -1);
    EXPECT_GE(unknown.GetSocket(), 0);
}

TEST(KNetTest, AConnectOfAnythingButUnicastIsNotStartedButTheSocketIsNonBlocking) {
    for (const int nCasting : {KNetInfo::MULTICAST, KNetInfo::BROADCAST, static_cast<KNetInfo::NetCasting>(99)}) {
        Net client(Udp(9));
        ASSERT_TRUE(LookUpALeakingText(client) && client.CreateSocket());
        client.SetCasting(nCasting);
        const ScopedCalls calls;
        EXPECT_EQ(client.ASyncConnectionCheckStart(), -1);
        EXPECT_THAT(calls.Names(), IsEmpty());
        EXPECT_TRUE(IsNonBlocking(client));
        EXPECT_EQ(client.GetError(), KNet::NONE);
    }
}

TEST(KNetTest, CheckingTakesTheMillisecondsOverWholeSecondsForMicroseconds) {
    Net client(Tcp(9));
    ASSERT_TRUE(Prepare(client));
    {
        const ScopedCalls calls({{"connect 2 127.0.0.1:9 16", -1}});
        ASSERT_EQ(client.ASyncConnectionCheckStart(), 1);
    }
    const struct {
        int nMilliseconds;
        const char* pszWait;
        int nAnswer;
        int nResult;
    } cases[] = {{1500, "select 1 500", 0, 1}, {7, "select 0 7", -1, 1}, {2000, "select 2 0", 1, -1}};
    for (const auto& c : cases) {
        const ScopedCalls calls({{c.pszWait, c.nAnswer}});
        EXPECT_EQ(client.ASyncConnectionChecking(c.nMilliseconds), c.nResult) << c.pszWait;
        EXPECT_THAT(calls.Names(), ElementsAre(c.pszWait));
    }
    EXPECT_EQ(client.GetError(), KNet::NONE);
}

TEST(KNetTest, CheckingWithANegativeTimeIsPending) {
    Server server;
    Net client(Tcp(server.Port()));
    ASSERT_TRUE(Prepare(client));
    ASSERT_GE(client.ASyncConnectionCheckStart(), 0);
    EXPECT_EQ(client.ASyncConnectionChecking(-1), 1);
}

TEST(KNetTest, CheckingWithoutASocketIsNeither) {
    Net net(Tcp());
    EXPECT_EQ(net.ASyncConnectionChecking(0), -1);
    EXPECT_EQ(net.GetError(), KNet::NONE);
}

TEST(KNetTest, CheckingIsNeitherWhenAnotherSocketIsTheOneThatIsReady) {
    const ClosedPort closed;
    Net client(Tcp(closed.Port()));
    ASSERT_TRUE(Prepare(client));
    ASSERT_EQ(client.ASyncConnectionCheckStart(), 1);
    const Descriptor started(client.GetSocket());
    // The new socket has the next free number, and the wait is still for the old one.
    ASSERT_TRUE(client.CreateSocket());
    ASSERT_GT(client.GetSocket(), started.Get());
    EXPECT_EQ(client.ASyncConnectionChecking(kLong), -1);
}

TEST(KNetTest, ADoneConnectWithoutASocketIsTrue) {
    Net net(Tcp());
    EXPECT_TRUE(net.ASyncConnectionCheckDone(true));
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_TRUE(net.ASyncConnectionCheckDone(false));
    EXPECT_EQ(net.GetError(), KNet::CONNECT_FAILED);
}

// ------------------------------------------------------------------------------------------------------ Descriptor zero

TEST(KNetTest, DescriptorZeroIsASocketLikeAnyOther) {
    support::InChildProcess([] {
        Server server;
        Net client(Tcp(server.Port()));
        close(STDIN_FILENO);
        ASSERT_TRUE(Prepare(client));
        ASSERT_EQ(client.GetSocket(), STDIN_FILENO);
        EXPECT_TRUE(client.SyncConnectWithTimedBlock(kLong));
        EXPECT_EQ(client.Write("x", 1), 1);
        EXPECT_TRUE(client.DeleteSocket());
        EXPECT_FALSE(IsOpen(STDIN_FILENO));
        ASSERT_TRUE(client.CreateSocket());
        ASSERT_EQ(client.GetSocket(), STDIN_FILENO);
        ASSERT_GE(client.ASyncConnectionCheckStart(), 0);
        EXPECT_EQ(client.ASyncConnectionChecking(kLong), 0);
        char chByte = 0;
        EXPECT_EQ(client.Read(&chByte, -1, false), 0);
        EXPECT_EQ(client.GetError(), KNet::RECEIVE_FAILED);
    });
}

TEST(KNetTest, ReadingWithClientInfoFailsAtDescriptorZeroAsAnywhereElse) {
    support::InChildProcess([] {
        close(STDIN_FILENO);
        Net net(Udp());
        ASSERT_TRUE(net.CreateSocket());
        ASSERT_EQ(net.GetSocket(), STDIN_FILENO);
        char chByte = 0;
        KString ip;
        int nPort = 0;
        EXPECT_EQ(net.ReadWithClientInfo(&chByte, 1, ip, nPort, false), 0);
        EXPECT_EQ(net.GetError(), KNet::RECEIVE_FAILED);
    });
}

TEST(KNetTest, AcceptTakesDescriptorZeroLikeAnyOther) {
    support::InChildProcess([] {
        Server server;
        Net client(Tcp(server.Port()));
        ASSERT_TRUE(Connect(client));
        close(STDIN_FILENO);
        Net peer;
        EXPECT_TRUE(server.Accept(peer));
        EXPECT_EQ(peer.GetSocket(), STDIN_FILENO);
        EXPECT_EQ(client.Write("x", 1), 1);
        char chByte = 0;
        EXPECT_EQ(peer.Read(&chByte, 1, false), -1);
    });
}

TEST(KNetTest, AServerAtDescriptorZeroAcceptsLikeAnyOther) {
    support::InChildProcess([] {
        close(STDIN_FILENO);
        Server server;
        ASSERT_EQ(server.GetSocket(), STDIN_FILENO);
        Net client(Tcp(server.Port()));
        ASSERT_TRUE(Connect(client));
        Net peer;
        EXPECT_TRUE(server.Accept(peer));
        EXPECT_EQ(server.GetError(), KNet::NONE);
    });
}

// ---------------------------------------------------------------------------------- Descriptors that do not fit fd_set

/// Answers the making of a TCP socket with one whose descriptor is above what `select` takes; empty where the system
/// allows no such descriptor.
ScopedCalls::Answers LargeSocket() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur <= FD_SETSIZE && limit.rlim_max > FD_SETSIZE) {
        limit.rlim_cur = FD_SETSIZE + 16;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    const Descriptor small(::socket(AF_INET, SOCK_STREAM, 0));
    const int nLarge = fcntl(small.Get(), F_DUPFD, FD_SETSIZE);
    return nLarge >= 0 ? ScopedCalls::Answers{{Call("socket", AF_INET, SOCK_STREAM, 0), nLarge}}
                       : ScopedCalls::Answers{};
}

bool PrepareLarge(Net& net) {
    const ScopedCalls::Answers answers = LargeSocket();
    const ScopedCalls calls(answers);
    return !answers.empty() && Prepare(net);
}

TEST(KNetTest, ALargeDescriptorCanConnectAndWait) {
    Server server;
    Net client(Tcp(server.Port()));
    if (!PrepareLarge(client)) {
        GTEST_SKIP() << "no descriptor above " << FD_SETSIZE << " to be had";
    }
    EXPECT_GE(client.GetSocket(), FD_SETSIZE);
    EXPECT_TRUE(client.SyncConnectWithBlock());
    Net accepted;
    ASSERT_TRUE(server.Accept(accepted));
    ASSERT_EQ(accepted.Write("hello", 5), 5);
    EXPECT_EQ(client.GetReceivedSize(), 5);
}

TEST(KNetTest, ATimedConnectOfALargeDescriptorFails) {
    Server server;
    Net client(Tcp(server.Port()));
    if (!PrepareLarge(client)) {
        GTEST_SKIP() << "no descriptor above " << FD_SETSIZE << " to be had";
    }
    const int nSocket = client.GetSocket();
    EXPECT_FALSE(client.SyncConnectWithTimedBlock(kLong));
    EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
    EXPECT_EQ(client.GetSocket(), -1);
    EXPECT_FALSE(IsOpen(nSocket));
}

TEST(KNetTest, AConnectOfALargeDescriptorIsNotStarted) {
    Server server;
    Net client(Tcp(server.Port()));
    if (!PrepareLarge(client)) {
        GTEST_SKIP() << "no descriptor above " << FD_SETSIZE << " to be had";
    }
    EXPECT_EQ(client.ASyncConnectionCheckStart(), -1);
    EXPECT_EQ(client.ASyncConnectionChecking(1), -1);
    EXPECT_GE(client.GetSocket(), 0);
}

// ------------------------------------------------------------------------------------------------------ Connection test

TEST(KNetTest, AConnectionTestFindsAServerAndLeavesNoSocketOpen) {
    const BareServer server;
    for (const int nMilliseconds : {0, -1, kLong}) {
        const std::vector<int> before = OpenDescriptors();
        Net net(Tcp(server.Port()));
        EXPECT_TRUE(net.ConnectionTest(nMilliseconds)) << nMilliseconds;
        EXPECT_EQ(net.GetSocket(), -1);
        EXPECT_EQ(net.GetError(), KNet::NONE);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

TEST(KNetTest, AConnectionTestWithoutLimitWaitsInTheConnect) {
    const struct {
        int nMilliseconds;
        std::vector<std::string> waits;
    } cases[] = {{0, {}}, {-5, {}}, {1, {"select 0 1"}}, {1500, {"select 1 500"}}};
    for (const auto& c : cases) {
        Net net(Tcp(9));
        std::vector<std::string> expected = {"socket 2 1 0", "connect 2 127.0.0.1:9 16"};
        expected.insert(expected.end(), c.waits.begin(), c.waits.end());
        ScopedCalls::Answers answers = {{"connect 2 127.0.0.1:9 16", -1}};
        for (const std::string& wait : c.waits) {
            answers[wait] = 0;
        }
        const ScopedCalls calls(answers);
        EXPECT_FALSE(net.ConnectionTest(c.nMilliseconds));
        EXPECT_THAT(calls.Names(), ElementsAreArray(expected));
    }
}

TEST(KNetTest, AConnectionTestOfAClosedPortFailsWithoutLimitButIsTrueWithOne) {
    const ClosedPort closed;
    const std::vector<int> before = OpenDescriptors();
    Net net(Tcp(closed.Port()));
    EXPECT_FALSE(net.ConnectionTest(0));
    EXPECT_EQ(net.GetError(), KNet::CONNECT_FAILED);
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_TRUE(net.ConnectionTest(kLong));
    EXPECT_EQ(net.GetSocket(), -1);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(KNetTest, AConnectionTestOfASilentServerTimesOut) {
    const FullServer server;
    const std::vector<int> before = OpenDescriptors();
    Net net(Tcp(server.Port()));
    EXPECT_FALSE(net.ConnectionTest(100));
    EXPECT_EQ(net.GetError(), KNet::CONNECT_FAILED);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(KNetTest, AConnectionTestOfRawAndUdpIsTrueWithoutTouchingTheNetworkAndClosesTheSocket) {
    for (const int nProtocol : {KNetInfo::RAW, KNetInfo::UDP}) {
        Net net(Udp(9));
        ASSERT_TRUE(net.CreateSocket());
        const int nSocket = net.GetSocket();
        KNetInfo info = Udp(9, kNoHost);
        info.SetProtocol(static_cast<KNetInfo::NetProtocol>(nProtocol));
        net.SetConnectionInfo(info, 0);
        const ScopedCalls calls;
        EXPECT_TRUE(net.ConnectionTest(0));
        EXPECT_THAT(calls.Names(), IsEmpty());
        EXPECT_EQ(net.GetError(), KNet::NONE);
        EXPECT_EQ(net.GetSocket(), -1);
        EXPECT_FALSE(IsOpen(nSocket));
    }
}

TEST(KNetTest, AConnectionTestFailsForAHostThatIsNotFound) {
    Net net(Tcp(9, kNoHost));
    const ScopedCalls calls;
    EXPECT_FALSE(net.ConnectionTest(0));
    EXPECT_EQ(net.GetError(), KNet::HOST_NOT_FOUND);
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KNetTest, AConnectionTestFailsWhereNoSocketCanBeMade) {
    Net net(Tcp(9));
    const ScopedCalls calls({{"socket 2 1 0", -1}});
    EXPECT_FALSE(net.ConnectionTest(0));
    EXPECT_EQ(net.GetError(), KNet::SOCKET_FAILED);
    EXPECT_THAT(calls.Names(), ElementsAre("socket 2 1 0"));
}

TEST(KNetTest, AConnectionTestOfADeliveryThatNeedsUdpFailsAndLeavesTheSocketOpen) {
    for (const int nCasting : {KNetInfo::MULTICAST, KNetInfo::BROADCAST}) {
        Net net(Odd(KNetInfo::IPV4, KNetInfo::TCP, nCasting));
        EXPECT_FALSE(net.ConnectionTest(0));
        EXPECT_EQ(net.GetError(), KNet::CASTING_NEEDS_UDP);
        EXPECT_TRUE(IsOpen(net.GetSocket()));
    }
}

TEST(KNetTest, AConnectionTestOfAnUnknownProtocolDependsOnTheDeliveryWithTheChecksOff) {
    // No socket is made for it, which counts as success; only unicast then tries to connect.
    Net unicast(Odd(KNetInfo::IPV4, 99, KNetInfo::UNICAST));
    EXPECT_FALSE(unicast.ConnectionTest(0));
    EXPECT_EQ(unicast.GetError(), KNet::NO_SOCKET);
    Net multicast(Odd(KNetInfo::IPV4, 99, KNetInfo::MULTICAST));
    EXPECT_TRUE(multicast.ConnectionTest(0));
    EXPECT_EQ(multicast.GetError(), KNet::NONE);
}

TEST(KNetTest, AClientAlwaysCountsAsConnected) {
    KNet none;
    EXPECT_TRUE(none.isClientConnected());
    Connection connection;
    connection.peer.Reset();
    EXPECT_TRUE(connection.client.isClientConnected());
}

// -------------------------------------------------------------------------------------------------------------- Reading

TEST(KNetTest, ACompleteReadIsMinusOne) {
    Connection connection;
    connection.peer.Send("hello world");
    char buffer[12] = {};
    EXPECT_EQ(connection.client.Read(buffer, 5, false), -1);
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(connection.client.Read(buffer, 6, false), -1);
    EXPECT_STREQ(buffer, " world");
    EXPECT_EQ(connection.client.GetError(), KNet::NONE);
}

TEST(KNetTest, AReadWaitsForTheLastByte) {
    Connection connection;
    std::thread sender([&connection] {
        for (int i = 0; i < kIpcSize; ++i) {
            connection.peer.Send(std::string(1, static_cast<char>(i % 100)));
        }
    });
    char buffer[kIpcSize] = {};
    EXPECT_EQ(connection.client.Read(buffer, kIpcSize, false), -1);
    sender.join();
    for (int i = 0; i < kIpcSize; ++i) {
        ASSERT_EQ(buffer[i], i % 100) << i;
    }
}

TEST(KNetTest, APeekLeavesTheBytesWhereTheyAre) {
    Connection connection;
    connection.peer.Send("hello");
    char buffer[6] = {};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(connection.client.Read(buffer, 5, true), -1);
        EXPECT_STREQ(buffer, "hello");
        std::memset(buffer, 0, sizeof(buffer));
    }
    EXPECT_EQ(connection.client.Read(buffer, 5, false), -1);
    EXPECT_STREQ(buffer, "hello");
}

TEST(KNetTest, ReadingNothingIsCompleteOnceThereIsSomethingToReadOrTheEnd) {
    Connection connection;
    connection.peer.Send("x");
    char buffer[1] = {};
    EXPECT_EQ(connection.client.Read(buffer, 0, false), -1);
    EXPECT_EQ(connection.client.Read(buffer, 1, false), -1);
    EXPECT_EQ(buffer[0], 'x');
    connection.peer.Close();
    EXPECT_EQ(connection.client.Read(nullptr, 0, false), -1);
    EXPECT_EQ(connection.client.GetError(), KNet::NONE);
}

TEST(KNetTest, AShortReadIsZeroAndAnErrorAlthoughItsBytesHaveCome) {
    Connection connection;
    connection.peer.Send("abc");
    connection.peer.Close();
    char buffer[8] = {};
    EXPECT_EQ(connection.client.Read(buffer, 7, false), 0);
    EXPECT_EQ(connection.client.GetError(), KNet::RECEIVE_FAILED);
    EXPECT_STREQ(buffer, "abc");
}

TEST(KNetTest, APeerThatVanishesWhileAReadIsWaitingEndsIt) {
    for (const bool fgReset : {false, true}) {
        Connection connection;
        connection.peer.Send(std::string(100, 'x'));
        std::thread peer([&connection, fgReset] {
            if (fgReset) {
                connection.peer.Reset();
            } else {
                connection.peer.Close();
            }
        });
        char buffer[kIpcSize] = {};
        EXPECT_EQ(connection.client.Read(buffer, kIpcSize, false), 0);
        EXPECT_EQ(connection.client.GetError(), KNet::RECEIVE_FAILED);
        peer.join();
    }
}

TEST(KNetTest, AReadAfterTheEndIsAnError) {
    Connection connection;
    connection.peer.Close();
    char buffer[1];
    EXPECT_EQ(connection.client.Read(buffer, 1, false), 0);
    EXPECT_EQ(connection.client.GetError(), KNet::RECEIVE_FAILED);
    EXPECT_GE(connection.client.GetSocket(), 0);
}

TEST(KNetTest, AReadWithoutASocketSaysNoSocket) {
    Net net(Tcp());
    char buffer[1];
    EXPECT_EQ(net.Read(buffer, 1, false), 0);
    EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
    Net other(Tcp());
    EXPECT_EQ(other.Read(buffer, 0, false), 0);
    EXPECT_EQ(other.GetError(), KNet::NO_SOCKET);
}

TEST(KNetTest, AReadOfANegativeLengthFailsAndTakesNothing) {
    Connection connection;
    connection.peer.Send("x");
    char buffer[1] = {};
    for (const int nLength : {-1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(connection.client.Read(buffer, nLength, false), 0);
        EXPECT_EQ(connection.client.GetError(), KNet::RECEIVE_FAILED);
    }
    EXPECT_EQ(connection.client.Read(buffer, 1, false), -1);
    EXPECT_EQ(buffer[0], 'x');
}

/// A datagram KNet that can be sent to.
class Receiver : public Net {
 public:
    Receiver() : Net(Udp()) {
        EXPECT_TRUE(CreateSocket());
        // Bind() cannot do it.
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(GetSocket(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }

    int Port() const { return PortOf(GetSocket()); }
};

TEST(KNetTest, AReadTakesOneDatagramAndNoMore) {
    Receiver receiver;
    const Bare sender(SOCK_DGRAM);
    for (const char* const pszText : {"four", "longer", "s", "next"}) {
        sender.SendTo(pszText, receiver.Port());
    }
    char buffer[5] = {};
    EXPECT_EQ(receiver.Read(buffer, 4, false), -1);
    EXPECT_STREQ(buffer, "four");
    EXPECT_EQ(receiver.Read(buffer, 4, false), -1);
    EXPECT_STREQ(buffer, "long");
    EXPECT_EQ(receiver.Read(buffer, 4, false), 0);
    EXPECT_EQ(receiver.GetError(), KNet::RECEIVE_FAILED);
    EXPECT_EQ(receiver.Read(buffer, 4, false), -1);
    EXPECT_STREQ(buffer, "next");
}

// -------------------------------------------------------------------------------------------- Reading with client info

struct Sender {
    KString ip = "untouched";
    int nPort = -5;
};

TEST(KNetTest, ADatagramComesWithItsSendersAddressAndPort) {
    Receiver receiver;
    const Bare sender(SOCK_DGRAM, "127.0.0.200");
    sender.SendTo("hello", receiver.Port());
    AwaitInput(receiver.GetSocket());
    char buffer[16] = {};
    Sender from;
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, sizeof(buffer), from.ip, from.nPort, true), 5);
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, sizeof(buffer), from.ip, from.nPort, false), 5);
    EXPECT_STREQ(buffer, "hello");
    EXPECT_EQ(TextOf(from.ip), "127.0.0.200");
    EXPECT_EQ(from.nPort, sender.Port());
    EXPECT_EQ(receiver.GetError(), KNet::NONE);
}

TEST(KNetTest, ReadingWithClientInfoDoesNotWait) {
    Receiver receiver;
    char buffer[16] = {};
    Sender from;
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, sizeof(buffer), from.ip, from.nPort, false), 0);
    EXPECT_EQ(receiver.GetError(), KNet::RECEIVE_FAILED);
    EXPECT_EQ(TextOf(from.ip), "untouched");
    EXPECT_EQ(from.nPort, -5);
}

TEST(KNetTest, AnEmptyDatagramIsZeroWithoutAnError) {
    Receiver receiver;
    const Bare sender(SOCK_DGRAM);
    sender.SendTo("", receiver.Port());
    AwaitInput(receiver.GetSocket());
    char buffer[1];
    Sender from;
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, 1, from.ip, from.nPort, false), 0);
    EXPECT_EQ(receiver.GetError(), KNet::NONE);
    EXPECT_EQ(TextOf(from.ip), "127.0.0.1");
    EXPECT_EQ(from.nPort, sender.Port());
}

TEST(KNetTest, ReadingNothingWithClientInfoTakesADatagramAndTellsItsSender) {
    Receiver receiver;
    const Bare sender(SOCK_DGRAM);
    sender.SendTo("lost", receiver.Port());
    AwaitInput(receiver.GetSocket());
    char buffer[1];
    Sender from;
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, 0, from.ip, from.nPort, false), 0);
    EXPECT_EQ(receiver.GetError(), KNet::NONE);
    EXPECT_EQ(from.nPort, sender.Port());
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, 1, from.ip, from.nPort, false), 0);
    EXPECT_EQ(receiver.GetError(), KNet::RECEIVE_FAILED) << "there was one";
}

TEST(KNetTest, ADatagramThatIsTooLongIsCut) {
    Receiver receiver;
    const Bare sender(SOCK_DGRAM);
    sender.SendTo("hello", receiver.Port());
    AwaitInput(receiver.GetSocket());
    char buffer[3] = {'-', '-', '-'};
    Sender from;
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, 2, from.ip, from.nPort, false), 2);
    EXPECT_EQ(std::string(buffer, 3), "he-");
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, 2, from.ip, from.nPort, false), 0);
    EXPECT_EQ(receiver.GetError(), KNet::RECEIVE_FAILED);
}

TEST(KNetTest, AStreamHasNoSendersAddressAndPrintsZeros) {
    Connection connection;
    connection.peer.Send("hello");
    AwaitInput(connection.client.GetSocket());
    char buffer[16] = {};
    Sender from;
    EXPECT_EQ(connection.client.ReadWithClientInfo(buffer, sizeof(buffer), from.ip, from.nPort, false), 5);
    EXPECT_EQ(TextOf(from.ip), "0.0.0.0");
    EXPECT_EQ(from.nPort, 0);
    connection.peer.Close();
    AwaitInput(connection.client.GetSocket());
    EXPECT_EQ(connection.client.ReadWithClientInfo(buffer, sizeof(buffer), from.ip, from.nPort, false), 0);
    EXPECT_EQ(connection.client.GetError(), KNet::NONE);
}

TEST(KNetTest, AResetStreamFailsToReadWithClientInfo) {
    Connection connection;
    connection.peer.Reset();
    AwaitInput(connection.client.GetSocket());
    char buffer[1];
    Sender from;
    EXPECT_EQ(connection.client.ReadWithClientInfo(buffer, 1, from.ip, from.nPort, false), 0);
    EXPECT_EQ(connection.client.GetError(), KNet::RECEIVE_FAILED);
    EXPECT_EQ(TextOf(from.ip), "untouched");
}

TEST(KNetTest, ReadingWithClientInfoWithoutASocketSaysNoSocket) {
    Net net(Udp());
    char buffer[1];
    Sender from;
    EXPECT_EQ(net.ReadWithClientInfo(buffer, 1, from.ip, from.nPort, false), 0);
    EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
    EXPECT_EQ(TextOf(from.ip), "untouched");
}

TEST(KNetTest, ReadingANegativeLengthWithClientInfoFailsAndTakesNothing) {
    Receiver receiver;
    const Bare sender(SOCK_DGRAM);
    sender.SendTo("hello", receiver.Port());
    AwaitInput(receiver.GetSocket());
    char buffer[5];
    Sender from;
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, -1, from.ip, from.nPort, false), 0);
    EXPECT_EQ(receiver.GetError(), KNet::RECEIVE_FAILED);
    EXPECT_EQ(receiver.ReadWithClientInfo(buffer, 5, from.ip, from.nPort, false), 5);
}

// -------------------------------------------------------------------------------------------------------------- Writing

TEST(KNetTest, AWriteIsTheNumberOfBytesSent) {
    Connection connection;
    const std::string log = StderrOf([&] {
        EXPECT_EQ(connection.client.Write("hello", 5), 5);
        EXPECT_EQ(connection.client.Write("ignored", 0), 0);
    });
    EXPECT_EQ(log, "");
    EXPECT_EQ(connection.peer.Receive(), "hello");
}

TEST(KNetTest, AWriteSendsBytesOfAnyValue) {
    Connection connection;
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    EXPECT_EQ(connection.client.Write(bytes.data(), 256), 256);
    EXPECT_EQ(connection.peer.Receive(), bytes);
}

TEST(KNetTest, AWriteToAPeerThatIsGoneIsLogged) {
    const ScopedNoSigpipe ignored;
    const ScopedLevel all(0);
    Connection connection;
    connection.peer.Reset();
    AwaitInput(connection.client.GetSocket());
    EXPECT_THAT(StderrOf([&] { EXPECT_EQ(connection.client.Write("x", 1), -1); }),
                MatchesRegex(WriteError(ECONNRESET)));
    EXPECT_THAT(StderrOf([&] { EXPECT_EQ(connection.client.Write("x", 1), -1); }), MatchesRegex(WriteError(EPIPE)));
    EXPECT_EQ(connection.client.GetError(), KNet::NONE);
    EXPECT_GE(connection.client.GetSocket(), 0);
}

TEST(KNetTest, TheLineOfAFailedWriteIsALogLine) {
    const ScopedLevel errorsAndDebug(1);
    Net net(Tcp());
    ASSERT_TRUE(net.CreateSocket());
    const ScopedNoSigpipe ignored;
    EXPECT_EQ(StderrOf([&] { EXPECT_EQ(net.Write("x", 1), -1); }), "");
}

TEST(KNetTest, AWriteToAPeerThatIsGoneRaisesSigpipe) {
    const auto writeTwice = [] {
        std::signal(SIGPIPE, SIG_DFL);
        Connection connection;
        connection.peer.Reset();
        AwaitInput(connection.client.GetSocket());
        connection.client.Write("x", 1);
        connection.client.Write("x", 1);
    };
    EXPECT_EXIT(writeTwice(), testing::KilledBySignal(SIGPIPE), "KNet Write Error: 104");
}

TEST(KNetTest, AWriteOfANegativeLengthFailsBeforeTheSystemIsAsked) {
    Connection connection;
    const std::string log = StderrOf([&] {
        errno = 0;
        EXPECT_EQ(connection.client.Write("x", -1), -1);
    });
    EXPECT_THAT(log, MatchesRegex(WriteError(EINVAL)));
    const Bare receiver(SOCK_DGRAM);
    Net datagram(Udp(receiver.Port(), kLocal, KNetInfo::BROADCAST));
    ASSERT_TRUE(Prepare(datagram) && datagram.SyncConnectWithTimedBlock(1));
    const ScopedCalls calls;
    EXPECT_EQ(StderrOf([&] {
                  EXPECT_EQ(datagram.Write("x", -1), -1);
                  EXPECT_EQ(datagram.WriteWithOtherPort("x", -1, 9), -1);
                  EXPECT_EQ(datagram.WriteWithClientInfo("x", -1, kLocal, 9), -1);
              }),
              "");
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KNetTest, EveryWriteWithoutASocketIsZeroAndSaysNoSocket) {
    const std::function<int(KNet&)> writes[] = {
        [](KNet& net) { return net.Write("x", 1); },
        [](KNet& net) { return net.WriteWithOtherPort("x", 1, 9); },
        [](KNet& net) { return net.WriteWithClientInfo("x", 1, kLocal, 9); },
    };
    // Whatever the description says: the socket is asked for first.
    const ScopedChecks on(true);
    for (const auto& write : writes) {
        for (const int nCasting : {0, 1, 2, 99}) {
            Net net(Odd(KNetInfo::IPV4, KNetInfo::TCP, nCasting));
            EXPECT_EQ(write(net), 0);
            EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
        }
    }
}

TEST(KNetTest, AWriteOfAnUnknownDeliveryFailsTheCheck) {
    Net net(Udp(9));
    ASSERT_TRUE(net.CreateSocket());
    net.SetCasting(3);
    EXPECT_CHECK_FAILS(net.Write("x", 1), "0", kSource, "int KNet::Write(const char*, int)");
}

TEST(KNetTest, AWriteOfAnUnknownDeliverySaysNoSocketWithTheChecksOff) {
    for (const int nCasting : {3, -1}) {
        Net net(Udp(9));
        ASSERT_TRUE(net.CreateSocket());
        net.SetCasting(nCasting);
        EXPECT_EQ(net.Write("x", 1), -1);
        EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
        EXPECT_GE(net.GetSocket(), 0);
    }
}

TEST(KNetTest, MulticastAndBroadcastWriteToTheAddressThatAConnectStored) {
    for (const int nCasting : {KNetInfo::MULTICAST, KNetInfo::BROADCAST}) {
        const Bare receiver(SOCK_DGRAM, "127.0.0.6");
        Net net(Udp(receiver.Port(), "127.0.0.6", static_cast<KNetInfo::NetCasting>(nCasting)));
        ASSERT_TRUE(Prepare(net));
        ASSERT_TRUE(net.SyncConnectWithTimedBlock(1));
        const ScopedCalls calls;
        EXPECT_EQ(net.Write("hello", 5), 5);
        EXPECT_THAT(calls.Names(), ElementsAre("sendto 5 0 2 127.0.0.6:" + std::to_string(receiver.Port()) + " 16"));
        EXPECT_EQ(receiver.Receive(), "hello");
    }
}

TEST(KNetTest, MulticastAndBroadcastHaveNoAddressBeforeAConnect) {
    for (const int nCasting : {KNetInfo::MULTICAST, KNetInfo::BROADCAST}) {
        Net net(Udp(9, kLocal, static_cast<KNetInfo::NetCasting>(nCasting)));
        ASSERT_TRUE(Prepare(net));
        const ScopedCalls calls({{"sendto 5 0 0 0.0.0.0:0 16", -1}});
        EXPECT_EQ(StderrOf([&] { EXPECT_EQ(net.Write("hello", 5), -1); }), "");
        EXPECT_THAT(calls.Names(), ElementsAre("sendto 5 0 0 0.0.0.0:0 16"));
    }
}

TEST(KNetTest, ABindReplacesTheAddressThatAConnectStored) {
    Net net(Udp(0, "127.0.0.6", KNetInfo::BROADCAST));
    ASSERT_TRUE(Prepare(net) && net.SyncConnectWithTimedBlock(1));
    ASSERT_FALSE(net.Bind());
    ASSERT_TRUE(net.CreateSocket());
    const ScopedCalls calls({{"sendto 5 0 2 0.0.0.0:0 16", 5}});
    EXPECT_EQ(net.Write("hello", 5), 5);
    EXPECT_THAT(calls.Names(), ElementsAre("sendto 5 0 2 0.0.0.0:0 16"));
}

TEST(KNetTest, ABroadcastReachesEveryoneOnTheLoopbackNetwork) {
    const Bare receiver(SOCK_DGRAM, "0.0.0.0");
    Net net(Udp(receiver.Port(), "127.255.255.255", KNetInfo::BROADCAST));
    ASSERT_TRUE(Prepare(net) && net.SyncConnectWithTimedBlock(1));
    EXPECT_EQ(net.Write("to all", 6), 6);
    EXPECT_EQ(receiver.Receive(), "to all");
}

// -------------------------------------------------------------------------------------------- Writing with other port

TEST(KNetTest, WritingWithAnotherPortBroadcastsToEveryone) {
    const std::pair<int, const char*> cases[] = {{9, "sendto 5 0 2 255.255.255.255:9 16"},
                                                 {65535, "sendto 5 0 2 255.255.255.255:65535 16"},
                                                 {65537, "sendto 5 0 2 255.255.255.255:1 16"},
                                                 {-1, "sendto 5 0 2 255.255.255.255:65535 16"}};
    Net net(Udp(8, "127.0.0.6", KNetInfo::BROADCAST));
    ASSERT_TRUE(net.CreateSocket());
    for (const auto& c : cases) {
        const ScopedCalls calls({{c.second, 5}});
        EXPECT_EQ(net.WriteWithOtherPort("hello", 5, c.first), 5);
        EXPECT_THAT(calls.Names(), ElementsAre(c.second));
    }
    const ScopedCalls calls({{"sendto 5 0 2 255.255.255.255:9 16", -1}});
    EXPECT_EQ(StderrOf([&] { EXPECT_EQ(net.WriteWithOtherPort("hello", 5, 9), -1); }), "");
    EXPECT_EQ(net.GetError(), KNet::NONE);
}

TEST(KNetTest, WritingWithAnotherPortIsForBroadcastAlone) {
    for (const int nCasting : {KNetInfo::UNICAST, KNetInfo::MULTICAST, static_cast<KNetInfo::NetCasting>(3)}) {
        Net net(Udp(9));
        ASSERT_TRUE(net.CreateSocket());
        net.SetCasting(nCasting);
        EXPECT_CHECK_FAILS(net.WriteWithOtherPort("x", 1, 9), "0", kSource,
                           "int KNet::WriteWithOtherPort(const char*, int, int)");
        const ScopedCalls calls;
        EXPECT_EQ(net.WriteWithOtherPort("x", 1, 9), -1);
        EXPECT_EQ(net.GetError(), KNet::NONE);
        EXPECT_THAT(calls.Names(), IsEmpty());
    }
}

// -------------------------------------------------------------------------------------------- Writing with client info

TEST(KNetTest, WritingWithClientInfoSendsToAnyHost) {
    const Bare receiver(SOCK_DGRAM);
    // The delivery does not matter.
    for (const int nCasting : {KNetInfo::UNICAST, KNetInfo::MULTICAST, KNetInfo::BROADCAST}) {
        Net net(Udp(1, "127.0.0.6", static_cast<KNetInfo::NetCasting>(nCasting)));
        ASSERT_TRUE(net.CreateSocket());
        for (const char* const pszHost : {"127.0.0.1", "localhost"}) {
            const ScopedCalls calls;
            EXPECT_EQ(net.WriteWithClientInfo("hello", 5, pszHost, receiver.Port()), 5);
            EXPECT_THAT(calls.Names(),
                        testing::Contains("sendto 5 0 2 127.0.0.1:" + std::to_string(receiver.Port()) + " 16"));
            EXPECT_EQ(receiver.Receive(), "hello");
        }
    }
}

TEST(KNetTest, ADatagramIsAnsweredWithTheAddressItCameFrom) {
    Receiver server;
    Net client(Udp(server.Port()));
    ASSERT_TRUE(client.CreateSocket());
    ASSERT_EQ(client.WriteWithClientInfo("ping", 4, kLocal, server.Port()), 4);
    ASSERT_EQ(server.GetReceivedSize(), 4);
    char buffer[5] = {};
    Sender from;
    ASSERT_EQ(server.ReadWithClientInfo(buffer, 4, from.ip, from.nPort, false), 4);
    EXPECT_EQ(server.WriteWithClientInfo("pong", 4, from.ip, from.nPort), 4);
    EXPECT_EQ(client.Read(buffer, 4, false), -1);
    EXPECT_STREQ(buffer, "pong");
}

TEST(KNetTest, ADatagramMayBeSentWithoutBytes) {
    Receiver server;
    Net client(Udp(server.Port()));
    ASSERT_TRUE(client.CreateSocket());
    const ScopedCalls calls;
    EXPECT_EQ(client.WriteWithClientInfo("ignored", 0, kLocal, server.Port()), 0);
    EXPECT_THAT(calls.Names(), testing::Contains("sendto 0 0 2 127.0.0.1:" + std::to_string(server.Port()) + " 16"));
}

TEST(KNetTest, WritingWithClientInfoToAHostThatIsNotFoundFails) {
    Net net(Udp());
    ASSERT_TRUE(net.CreateSocket());
    const ScopedCalls calls;
    for (const char* const pszHost : {kNoHost, "", "::1", "kalvoren.invalid"}) {
        EXPECT_EQ(net.WriteWithClientInfo("x", 1, pszHost, 9), -1) << pszHost;
    }
    EXPECT_THAT(calls.Names(), testing::Not(testing::Contains(testing::StartsWith("sendto"))));
    EXPECT_EQ(net.GetError(), KNet::NONE);
}

TEST(KNetTest, WritingWithClientInfoTakesAHostOfTwoThousandAndFortySevenCharacters) {
    const ScopedChecks on(true);
    Net net(Udp());
    ASSERT_TRUE(net.CreateSocket());
    const std::string longest(2047, '1');
    EXPECT_EQ(net.WriteWithClientInfo("x", 1, longest.c_str(), 9), -1);
    // A number may begin with any count of zeros, and is octal then.
    const Bare receiver(SOCK_DGRAM);
    const std::string address = std::string(2047 - 9, '0') + "177.0.0.1";
    EXPECT_EQ(net.WriteWithClientInfo("x", 1, address.c_str(), receiver.Port()), 1);
    EXPECT_EQ(receiver.Receive(), "x");
}

TEST(KNetTest, WritingWithClientInfoToAHostThatIsTooLongFailsTheCheckOfTheConversion) {
    Net net(Udp());
    ASSERT_TRUE(net.CreateSocket());
    const std::string tooLong(2048, '1');
    EXPECT_CHECK_FAILS(net.WriteWithClientInfo("x", 1, tooLong.c_str(), 9),
                       "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)", "src/api/KString",
                       "int KString::GetUTF8String(char*, int) const");
}

TEST(KNetTest, WritingWithClientInfoToAHostThatIsTooLongFailsWithTheChecksOff) {
    Net net(Udp());
    ASSERT_TRUE(net.CreateSocket());
    for (const std::size_t nLength : {2048u, 2049u, 2050u, 100000u}) {
        const std::string tooLong(nLength, '1');
        const ScopedLookUps lookUps(0, nullptr, SIZE_MAX);
        EXPECT_EQ(net.WriteWithClientInfo("x", 1, tooLong.c_str(), 9), -1);
        EXPECT_THAT(lookUps.Sizes(), IsEmpty()) << nLength;
        const std::string address = std::string(nLength - 9, '0') + "177.0.0.1";
        EXPECT_EQ(net.WriteWithClientInfo("x", 1, address.c_str(), 9), -1);
    }
    // Cut to its buffer, this would be an address.
    KString padded("127.0.0.1\0", 10);
    padded += KString(std::string(4000, '1').c_str());
    const ScopedCalls calls;
    EXPECT_EQ(net.WriteWithClientInfo("x", 1, padded, 9), -1);
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KNetTest, WritingWithClientInfoIsForUdpAlone) {
    for (const int nProtocol : {0, 1, 2, 3, 4, 6, -1}) {
        Net net(Udp());
        ASSERT_TRUE(net.CreateSocket());
        net.SetConnectionInfo(Odd(KNetInfo::IPV4, nProtocol, KNetInfo::UNICAST), 0);
        if (nProtocol == KNetInfo::TCP) {
            EXPECT_CHECK_FAILS(net.WriteWithClientInfo("x", 1, kLocal, 9), "0", kSource,
                               "int KNet::WriteWithClientInfo(const char*, int, const KString&, int)");
        }
        const ScopedCalls calls;
        EXPECT_EQ(net.WriteWithClientInfo("x", 1, kLocal, 9), -1);
        EXPECT_EQ(net.GetError(), KNet::NONE);
        EXPECT_THAT(calls.Names(), IsEmpty());
    }
}

// ------------------------------------------------------------------------------------------------- What has been received

TEST(KNetTest, TheReceivedSizeIsWhatCanBeRead) {
    Connection connection;
    connection.peer.Send("hello");
    EXPECT_EQ(connection.client.GetReceivedSize(), 5);
    EXPECT_EQ(connection.client.GetReceivedSize(), 5);
    char buffer[5];
    ASSERT_EQ(connection.client.Read(buffer, 3, false), -1);
    EXPECT_EQ(connection.client.GetReceivedSize(), 2);
}

TEST(KNetTest, TheReceivedSizeOfDatagramsIsThatOfTheNextOne) {
    Receiver receiver;
    const Bare sender(SOCK_DGRAM);
    sender.SendTo("first", receiver.Port());
    sender.SendTo("2nd", receiver.Port());
    EXPECT_EQ(receiver.GetReceivedSize(), 5);
    char buffer[5];
    ASSERT_EQ(receiver.Read(buffer, 5, false), -1);
    EXPECT_EQ(receiver.GetReceivedSize(), 3);
}

TEST(KNetTest, TheReceivedSizeIsWaitedFor) {
    Connection connection;
    std::thread sender([&connection] { connection.peer.Send("late"); });
    EXPECT_EQ(connection.client.GetReceivedSize(), 4);
    sender.join();
}

TEST(KNetTest, TheReceivedSizeIsZeroWhenThePeerHasClosed) {
    Connection connection;
    connection.peer.Close();
    EXPECT_EQ(connection.client.GetReceivedSize(), 0);
    EXPECT_EQ(connection.client.GetError(), KNet::NONE);
}

TEST(KNetTest, TheReceivedSizeIsWaitedForTenSecondsWhateverTheTimeOut) {
    Net net(Udp(), 1);
    ASSERT_TRUE(net.CreateSocket());
    const ScopedCalls calls({{Call("poll", POLLIN, 10000), 0}});
    EXPECT_EQ(net.GetReceivedSize(), 0);
    EXPECT_EQ(net.GetError(), KNet::NONE);
    EXPECT_THAT(calls.Names(), ElementsAre(Call("poll", POLLIN, 10000)));
}

TEST(KNetTest, AWaitForReceivedDataThatFailsIsAnError) {
    for (const int nAnswer : {-1, 2}) {
        Net net(Udp());
        ASSERT_TRUE(net.CreateSocket());
        const ScopedCalls calls({{Call("poll", POLLIN, 10000), nAnswer}});
        EXPECT_EQ(net.GetReceivedSize(), -1);
        EXPECT_EQ(net.GetError(), KNet::RECEIVE_FAILED);
    }
}

TEST(KNetTest, TheReceivedSizeOfADescriptorThatSomeoneElseClosedIsMinusOneWithoutAnError) {
    KNetInfo info = Udp();
    KNet net(info, 0);
    ASSERT_TRUE(net.CreateSocket());
    ASSERT_EQ(close(net.GetSocket()), 0);
    EXPECT_EQ(net.GetReceivedSize(), -1);
    EXPECT_EQ(net.GetError(), KNet::NONE);
}

TEST(KNetTest, TheReceivedSizeWithoutASocketIsZeroAndSaysNoSocket) {
    Net net(Tcp());
    const ScopedCalls calls;
    EXPECT_EQ(net.GetReceivedSize(), 0);
    EXPECT_EQ(net.GetError(), KNet::NO_SOCKET);
    EXPECT_THAT(calls.Names(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------ Local addresses

std::vector<std::string> TextsOf(const KList<KString>& list) {
    std::vector<std::string> texts;
    for (int i = 0; i < list.GetCount(); ++i) {
        KString text;
        EXPECT_TRUE(list.Get(text, i));
        texts.push_back(TextOf(text));
    }
    return texts;
}

TEST(KNetTest, TheLocalAddressesAreThoseOfTheHostsName) {
    const ScopedHostName name("localhost");
    std::vector<std::string> expected;
    const hostent* const pEntry = gethostbyname("localhost");
    ASSERT_NE(pEntry, nullptr);
    for (char** ppAddress = pEntry->h_addr_list; *ppAddress != nullptr; ++ppAddress) {
        in_addr address = {};
        std::memcpy(&address, *ppAddress, sizeof(address));
        expected.emplace_back(inet_ntoa(address));
    }
    KNet net;
    KList<KString> ips;
    net.GetLocalIPs(ips);
    EXPECT_EQ(TextsOf(ips), expected);
}

TEST(KNetTest, TheLocalAddressesAreAddedToWhatTheListHas) {
    KNet net;
    KList<KString> ips;
    ips.Add("first");
    for (const char* const pszName : {"127.0.0.8", "127.0.0.9"}) {
        const ScopedHostName name(pszName);
        net.GetLocalIPs(ips);
    }
    EXPECT_THAT(TextsOf(ips), ElementsAre("first", "127.0.0.8", "127.0.0.9"));
}

TEST(KNetTest, AHostWhoseNameHasNoAddressAddsNothing) {
    KNet net;
    KList<KString> ips;
    ips.Add("first");
    const std::string tooLong(1023, '1');
    for (const char* const pszName : {kNoHost, "", tooLong.c_str()}) {
        const ScopedHostName name(pszName);
        net.GetLocalIPs(ips);
    }
    EXPECT_THAT(TextsOf(ips), ElementsAre("first"));
    EXPECT_EQ(net.GetError(), KNet::NONE);
}

// -------------------------------------------------------------------------------------------------------- Conversations

TEST(KNetTest, FiveHundredAndTwentyBytesGoThereAndBack) {
    Server server;
    Net client(Tcp(server.Port(), "localhost"));
    ASSERT_TRUE(Connect(client));
    Net accepted;
    ASSERT_TRUE(server.Accept(accepted));
    std::string sent(kIpcSize, '\0');
    for (int i = 0; i < kIpcSize; ++i) {
        sent[static_cast<std::size_t>(i)] = static_cast<char>(i * 7);
    }
    char buffer[kIpcSize] = {};
    ASSERT_EQ(client.Write(sent.data(), kIpcSize), kIpcSize);
    EXPECT_EQ(accepted.GetReceivedSize(), kIpcSize);
    ASSERT_EQ(accepted.Read(buffer, kIpcSize, false), -1);
    EXPECT_EQ(std::string(buffer, kIpcSize), sent);
    ASSERT_EQ(accepted.Write(buffer, kIpcSize), kIpcSize);
    ASSERT_EQ(client.Read(buffer, kIpcSize, false), -1);
    EXPECT_EQ(std::string(buffer, kIpcSize), sent);
}

TEST(KNetTest, AServerSpeaksWithManyClientsAtOnce) {
    constexpr int kClients = 4;
    constexpr int kRounds = 25;
    Server server;
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([i, nPort = server.Port()] {
            Net client(Tcp(nPort));
            EXPECT_TRUE(Connect(client));
            const std::string text(kIpcSize, static_cast<char>('a' + i));
            for (int nRound = 0; nRound < kRounds; ++nRound) {
                char buffer[kIpcSize] = {};
                EXPECT_EQ(client.Write(text.data(), kIpcSize), kIpcSize);
                EXPECT_EQ(client.Read(buffer, kIpcSize, false), -1);
                EXPECT_EQ(std::string(buffer, kIpcSize), text);
            }
        });
        threads.emplace_back([pClient = std::make_shared<Net>(), &server]() mutable {
            static std::mutex s_Mutex;
            {
                const std::lock_guard<std::mutex> lock(s_Mutex);
                EXPECT_TRUE(server.Accept(*pClient));
            }
            char buffer[kIpcSize] = {};
            while (pClient->Read(buffer, kIpcSize, false) == -1) {
                EXPECT_EQ(pClient->Write(buffer, kIpcSize), kIpcSize);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(KNetTest, AMebibyteArrivesWholeAndInOrder) {
    constexpr int kSize = 1 << 20;
    Connection connection;
    std::string sent(kSize, '\0');
    std::uint32_t nRandom = 12345;
    for (char& byte : sent) {
        nRandom = nRandom * 1664525U + 1013904223U;
        byte = static_cast<char>(nRandom >> 24);
    }
    std::thread sender([&] { connection.peer.Send(sent); });
    std::string received(kSize, '\0');
    EXPECT_EQ(connection.client.Read(&received[0], kSize, false), -1);
    sender.join();
    EXPECT_TRUE(received == sent);
}

// ------------------------------------------------------------------------------------------------------ Several hosts

TEST(KNetTest, HostsSpeakWithEachOtherByName) {
    InANetwork([](Network& network) {
        Server* pServer = nullptr;
        const int nPort = network.Centre().Do([&pServer] {
            pServer = new Server;
            return pServer->Port();
        });
        const std::pair<Host*, const char*> peers[] = {{&network.Left(), Network::kLeft},
                                                       {&network.Right(), Network::kRight}};
        for (const auto& peer : peers) {
            auto answer = peer.first->Start([&peer, nPort] {
                Net client(Tcp(nPort, peer.second == Network::kLeft ? "centre" : Network::kCentreToRight));
                EXPECT_TRUE(Connect(client));
                char buffer[kIpcSize] = {};
                EXPECT_EQ(client.Write(buffer, kIpcSize), kIpcSize);
                EXPECT_EQ(client.Read(buffer, kIpcSize, false), -1);
                return std::string(buffer);
            });
            network.Centre().Do([&] {
                Net accepted;
                EXPECT_TRUE(pServer->Accept(accepted));
                char buffer[kIpcSize] = {};
                EXPECT_EQ(accepted.Read(buffer, kIpcSize, false), -1);
                std::snprintf(buffer, sizeof(buffer), "%s", accepted.GetConnectionInfo().GetAddress().GetBuffer());
                EXPECT_EQ(accepted.Write(buffer, kIpcSize), kIpcSize);
            });
            EXPECT_EQ(answer.get(), peer.second);
        }
        network.Centre().Do([pServer] { delete pServer; });
    });
}

TEST(KNetTest, ABroadcastReachesTheHostsOfTheNetwork) {
    InANetwork([](Network& network) {
        network.Left().Run("ip route add 255.255.255.255 dev eth0");
        const Bare receiver = network.Centre().Do([] { return Bare(SOCK_DGRAM, "0.0.0.0"); });
        network.Left().Do([&receiver] {
            Net net(Udp(receiver.Port(), "192.0.2.255", KNetInfo::BROADCAST));
            EXPECT_TRUE(Prepare(net));
            EXPECT_EQ(net.WriteWithOtherPort("to everyone", 11, receiver.Port()), 11);
            EXPECT_TRUE(net.SyncConnectWithTimedBlock(1));
            EXPECT_EQ(net.Write("to the network", 14), 14);
        });
        EXPECT_EQ(receiver.Receive(), "to everyone");
        EXPECT_EQ(receiver.Receive(), "to the network");
    });
}

TEST(KNetTest, AMulticastReachesTheGroupOnOtherHostsButNotOnItsOwn) {
    InANetwork([](Network& network) {
        constexpr const char* kGroup = "239.1.2.3";
        network.Left().Run("ip route add 239.0.0.0/8 dev eth0");
        network.Centre().Run("ip route add 239.0.0.0/8 dev left");
        const auto join = [](int nPort) {
            Bare member(SOCK_DGRAM, "0.0.0.0", nPort);
            ip_mreq membership = {};
            EXPECT_EQ(inet_pton(AF_INET, kGroup, &membership.imr_multiaddr), 1);
            EXPECT_EQ(setsockopt(member.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)), 0);
            return member;
        };
        const Bare other = network.Centre().Do([&] { return join(0); });
        network.Left().Do([&] {
            const Bare own = join(other.Port());
            Net net(Udp(other.Port(), kGroup, KNetInfo::MULTICAST));
            EXPECT_TRUE(Prepare(net) && net.SyncConnectWithTimedBlock(1));
            EXPECT_EQ(net.Write("to the group", 12), 12);
            // What comes first at home is what was sent with the loop-back on.
            ASSERT_EQ(other.Receive(), "to the group");
            const int nLoop = 1;
            EXPECT_EQ(setsockopt(net.GetSocket(), IPPROTO_IP, IP_MULTICAST_LOOP, &nLoop, sizeof(nLoop)), 0);
            EXPECT_EQ(net.Write("to us too", 9), 9);
            EXPECT_EQ(own.Receive(), "to us too");
        });
        EXPECT_EQ(other.Receive(), "to us too");
    });
}

TEST(KNetTest, AHostThatDoesNotAnswerTimesOut) {
    InANetwork([](Network& network) {
        // A neighbour that is known and not there: nobody says that it is not.
        network.Left().Run("ip neigh add 192.0.2.99 lladdr 02:00:00:00:00:99 dev eth0");
        network.Left().Do([] {
            Net client(Tcp(9, "192.0.2.99"));
            EXPECT_TRUE(Prepare(client));
            EXPECT_FALSE(client.SyncConnectWithTimedBlock(500));
            EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
            EXPECT_EQ(client.GetSocket(), -1);
            EXPECT_TRUE(client.CreateSocket());
            EXPECT_EQ(client.ASyncConnectionCheckStart(), 1);
            EXPECT_EQ(client.ASyncConnectionChecking(500), 1);
            EXPECT_EQ(client.ASyncConnectionChecking(500), 1);
            EXPECT_TRUE(client.ASyncConnectionCheckDone(false));
            EXPECT_FALSE(client.ConnectionTest(500));
        });
    });
}

TEST(KNetTest, ANetworkThatCannotBeReachedFailsOnlyTheConnectThatWaits) {
    InANetwork([](Network& network) {
        network.Left().Do([] {
            Net client(Tcp(9, Network::kRight));
            EXPECT_TRUE(Prepare(client));
            EXPECT_FALSE(client.SyncConnectWithBlock());
            EXPECT_EQ(client.GetError(), KNet::CONNECT_FAILED);
            EXPECT_EQ(client.GetSocket(), -1);
            // A socket whose connect failed at once is ready, which is all that the others ask.
            EXPECT_TRUE(client.CreateSocket());
            EXPECT_TRUE(client.SyncConnectWithTimedBlock(kLong));
            EXPECT_EQ(client.ASyncConnectionCheckStart(), 1);
            EXPECT_EQ(client.ASyncConnectionChecking(kLong), 0);
            Net datagram(Udp(9, Network::kRight));
            EXPECT_TRUE(datagram.CreateSocket());
            EXPECT_EQ(datagram.WriteWithClientInfo("x", 1, "right", 9), -1);
        });
    });
}

TEST(KNetTest, AHostThatVanishesWithoutAWordEndsAReadThatHasSomethingOnItsWay) {
    InANetwork([](Network& network) {
        const BareServer server = network.Centre().Do([] { return BareServer(8, Network::kCentreToLeft); });
        network.Left().Do([&] {
            Net client(Tcp(server.Port(), Network::kCentreToLeft));
            EXPECT_TRUE(Connect(client));
            const Descriptor peer = server.Accept();
            peer.Send(std::string(100, 'x'));
            AwaitInput(client.GetSocket());
            network.Centre().Run("ip link set left down");
            const unsigned int nPatience = 200;
            EXPECT_EQ(setsockopt(client.GetSocket(), IPPROTO_TCP, TCP_USER_TIMEOUT, &nPatience, sizeof(nPatience)), 0);
            EXPECT_EQ(client.Write("are you there?", 14), 14);
            char buffer[kIpcSize] = {};
            EXPECT_EQ(client.Read(buffer, kIpcSize, false), 0);
            EXPECT_EQ(client.GetError(), KNet::RECEIVE_FAILED);
            EXPECT_EQ(std::string(buffer), std::string(100, 'x'));
            EXPECT_EQ(client.Read(buffer, 1, false), 0);
        });
    });
}

TEST(KNetTest, AHostWithSeveralAddressesTellsAllOfThem) {
    InANetwork([](Network& network) {
        network.Centre().Do([] {
            KNet net;
            KList<KString> ips;
            net.GetLocalIPs(ips);
            EXPECT_THAT(TextsOf(ips), ElementsAre(Network::kCentreToLeft, Network::kCentreToRight));
        });
        network.Left().Do([] {
            KNet net;
            KList<KString> ips;
            net.GetLocalIPs(ips);
            EXPECT_THAT(TextsOf(ips), ElementsAre(Network::kLeft));
        });
    });
}

TEST(KNetTest, TheFirstAddressOfAHostIsTheOneThatCounts) {
    InANetwork([](Network& network) {
        network.Right().Do([] {
            Net net(Udp(9, "centre"));
            EXPECT_TRUE(net.GetHostName());
            // The route does not matter to a look-up.
            const ScopedCalls calls;
            EXPECT_TRUE(net.CreateSocket());
            net.ASyncConnectionCheckStart();
            EXPECT_THAT(calls.Names(), testing::Contains(std::string("connect 2 ") + Network::kCentreToLeft + ":9 16"));
        });
    });
}

TEST(KNetTest, AGroupIsJoinedAndLeftAgainBecauseADatagramSocketCannotListen) {
    InANetwork([](Network& network) {
        network.Left().Run("ip route add 239.0.0.0/8 dev eth0");
        network.Left().Do([] {
            Net net(Udp(0, "239.1.2.3", KNetInfo::MULTICAST));
            EXPECT_TRUE(Prepare(net));
            const ScopedCalls calls;
            EXPECT_FALSE(net.Bind());
            EXPECT_EQ(calls.Names().size(), 4U) << "the group could not be joined";
            EXPECT_EQ(net.GetError(), KNet::BIND_FAILED);
            EXPECT_EQ(net.GetSocket(), -1);
        });
    });
}

}  // namespace
