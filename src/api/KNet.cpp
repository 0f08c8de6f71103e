#include "KNet.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Checks.h"
#include "KDebug.h"
#include "KMem.h"

namespace {

constexpr Checks g_Checks("src/api/KNet");

constexpr int kNoSocket = -1;
constexpr int kBacklog = 1000;
constexpr int kReceiveTimeOut = 10000;

}  // namespace

// --------------------------------------------------------------------------------------------------------- KNetInfo

KNetInfo::KNetInfo()
    : m_eDomain(UNSPECIFIED), m_eProtocol(RAW), m_eCasting(UNICAST), m_pRawAddress(nullptr), m_nPort(-1) {}

KNetInfo::KNetInfo(NetAddressDomain eDomain, NetProtocol eProtocol, NetCasting eCasting, const char* pszAddress,
                   int nPort)
    : KNetInfo(eDomain, eProtocol, eCasting, KString(pszAddress), nPort) {}

KNetInfo::KNetInfo(NetAddressDomain eDomain, NetProtocol eProtocol, NetCasting eCasting, const KString& address,
                   int nPort)
    : KNetInfo() {
    Set(eDomain, eProtocol, eCasting, address, nPort);
}

KNetInfo::KNetInfo(const KNetInfo& other) : KNetInfo() {
    *this = other;
}

KNetInfo& KNetInfo::operator=(const KNetInfo& other) {
    if (this != &other) {
        Set(other.m_eDomain, other.m_eProtocol, other.m_eCasting, other.m_Address, other.m_nPort);
        // Not released: callers hold on to it across an assignment.
        m_pRawAddress = nullptr;
    }
    return *this;
}

KNetInfo::~KNetInfo() {
    delete[] m_pRawAddress;
}

bool KNetInfo::Set(NetAddressDomain eDomain, NetProtocol eProtocol, NetCasting eCasting, const KString& address,
                   int nPort) {
    SetAddressDomain(eDomain);
    SetProtocol(eProtocol);
    SetCasting(eCasting);
    SetAddress(address);
    SetPort(nPort);
    return true;
}

bool KNetInfo::SetAddressDomain(NetAddressDomain eDomain) {
    m_eDomain = eDomain;
    return true;
}

bool KNetInfo::SetProtocol(NetProtocol eProtocol) {
    m_eProtocol = eProtocol;
    return true;
}

bool KNetInfo::SetCasting(NetCasting eCasting) {
    m_eCasting = eCasting;
    return true;
}

bool KNetInfo::SetAddress(const char* pszAddress) {
    m_Address = pszAddress;
    return true;
}

bool KNetInfo::SetAddress(const KString& address) {
    m_Address = address;
    return true;
}

bool KNetInfo::SetPort(int nPort) {
    m_nPort = nPort;
    return true;
}

const char* KNetInfo::RawAddress() {
    constexpr std::size_t kSpare = 20;
    const int nLen = m_Address.Length() + 1;
    char* const pRawAddress = new (std::nothrow) char[static_cast<std::size_t>(nLen) + kSpare];
    if (pRawAddress != nullptr) {
        // The text needs none of the spare bytes.
        m_Address.GetUTF8String(pRawAddress, nLen);
    }
    delete[] m_pRawAddress;
    m_pRawAddress = pRawAddress;
    return m_pRawAddress;
}

// ------------------------------------------------------------------------------------------------------ Host entries

namespace {

/// The answer to one look-up, in memory of its own: libc's is shared by all threads.
class HostLookup {
 public:
    explicit HostLookup(const char* pszHost) : m_Storage(), m_pEntry(nullptr), m_pBuffer(nullptr) {
        constexpr std::size_t kFirstSize = 1024;
        constexpr std::size_t kLargestSize = 1048576;
        int nError = 0;
        int nRet = ERANGE;
        for (std::size_t nSize = kFirstSize; nRet == ERANGE && nSize <= kLargestSize; nSize *= 2) {
            m_pBuffer.reset(new (std::nothrow) char[nSize]);
            if (m_pBuffer == nullptr) {
                return;
            }
            nRet = gethostbyname_r(pszHost, &m_Storage, m_pBuffer.get(), nSize, &m_pEntry, &nError);
        }
        if (nRet != 0 || (m_pEntry != nullptr && m_pEntry->h_addr_list[0] == nullptr)) {
            m_pEntry = nullptr;
        }
    }

    /// Null when the host was not found; else an entry with one address at least.
    const hostent* Entry() const { return m_pEntry; }

 private:
    hostent m_Storage;
    hostent* m_pEntry;
    std::unique_ptr<char[]> m_pBuffer;
};

/// A host entry that socket records share: it lives until the last of them lets go.
struct SharedHost {
    hostent entry;
    std::atomic<int> nUsers;
    in_addr address;
    char* pAddresses[2];

    /// A copy of an entry with its first address; null when memory is lacking. The caller is its first user.
    static hostent* Make(const hostent& found) {
        SharedHost* const pHost = new (std::nothrow) SharedHost();
        if (pHost == nullptr) {
            return nullptr;
        }
        std::memcpy(&pHost->address, found.h_addr_list[0], sizeof(pHost->address));
        pHost->pAddresses[0] = reinterpret_cast<char*>(&pHost->address);
        pHost->entry.h_addrtype = found.h_addrtype;
        pHost->entry.h_length = found.h_length;
        pHost->entry.h_addr_list = pHost->pAddresses;
        pHost->nUsers = 1;
        return &pHost->entry;
    }

    static hostent* Share(hostent* pEntry) {
        if (pEntry != nullptr) {
            Of(pEntry)->nUsers.fetch_add(1, std::memory_order_relaxed);
        }
        return pEntry;
    }

    static void Release(hostent* pEntry) {
        if (pEntry != nullptr && Of(pEntry)->nUsers.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete Of(pEntry);  // GCOVR_EXCL_BR_LINE: delete asks once more whether there is one
        }
    }

    static SharedHost* Of(hostent* pEntry) { return reinterpret_cast<SharedHost*>(pEntry); }
};

in_addr FirstAddress(const hostent& entry) {
    in_addr address = {};
    std::memcpy(&address, entry.h_addr_list[0], sizeof(address));
    return address;
}

KString AddressText(const in_addr& address) {
    unsigned char bytes[sizeof(address)];
    std::memcpy(bytes, &address, sizeof(bytes));
    KString text;
    text.Sprintf("%d.%d.%d.%d", bytes[0], bytes[1], bytes[2], bytes[3]);
    return text;
}

in_port_t NetworkPort(int nPort) {
    return htons(static_cast<std::uint16_t>(nPort));
}

sockaddr_in MakeAddress(int nFamily, int nPort, in_addr address) {
    sockaddr_in result = {};
    result.sin_family = static_cast<sa_family_t>(nFamily);
    result.sin_port = NetworkPort(nPort);
    result.sin_addr = address;
    return result;
}

const sockaddr* Plain(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

/// A time-out as the connects count it: what is left over whole seconds is taken for microseconds.
timeval TimeOut(int nMilliseconds) {
    timeval timeOut = {};
    timeOut.tv_sec = nMilliseconds / 1000;
    timeOut.tv_usec = nMilliseconds % 1000;
    return timeOut;
}

bool IsSelectable(int nSocket) {
    return nSocket >= 0 && nSocket < FD_SETSIZE;
}

}  // namespace

// ------------------------------------------------------------------------------------------------------------- KNet

/// What a socket holds of the system: 296 bytes on the 32-bit target.
struct KNet::SocketInfo {
    bool fgListening;
    int nSocket;
    hostent* pHost;
    sockaddr_in address;
    pollfd poll;
    int nSavedFlags;
    fd_set readSet;
    fd_set writeSet;

    SocketInfo()
        : fgListening(), nSocket(kNoSocket), pHost(), address(), poll(), nSavedFlags(), readSet(), writeSet() {}

    ~SocketInfo() { SharedHost::Release(pHost); }

    SocketInfo(const SocketInfo&) = delete;
    SocketInfo& operator=(const SocketInfo&) = delete;

    void TakeOver(const SocketInfo& other) {
        if (this != &other) {
            SharedHost::Release(pHost);
            KMem::Copy(static_cast<void*>(this), sizeof(*this), &other, sizeof(other));
            SharedHost::Share(pHost);
        }
    }

    void SetPoll() {
        poll.fd = nSocket;
        poll.events = POLLIN;
    }

    void SetWaiting() {
        FD_ZERO(&readSet);
        FD_SET(nSocket, &readSet);
        writeSet = readSet;
    }
};

void KNet::Init() {
    static_assert(sizeof(void*) != 4 || (sizeof(SocketInfo) == 296 && offsetof(SocketInfo, fgListening) == 0 &&
                                         offsetof(SocketInfo, nSocket) == 4 && offsetof(SocketInfo, pHost) == 8 &&
                                         offsetof(SocketInfo, address) == 12 && offsetof(SocketInfo, poll) == 28 &&
                                         offsetof(SocketInfo, nSavedFlags) == 36 &&
                                         offsetof(SocketInfo, readSet) == 40 && offsetof(SocketInfo, writeSet) == 168),
                  "programs on the target know the record");
}

void KNet::Deinit() {}

KNet::KNet() : m_eError(NONE), m_nTimeOut(10000), pInfo(new (std::nothrow) SocketInfo()) {}

KNet::KNet(KNetInfo& info, int nTimeOut)
    : m_eError(NONE), m_ConInfo(info), m_nTimeOut(nTimeOut), pInfo(new (std::nothrow) SocketInfo()) {}

KNet::KNet(const KNet& other)
    : m_eError(other.m_eError),
      m_ConInfo(other.m_ConInfo),
      m_nTimeOut(other.m_nTimeOut),
      pInfo(new (std::nothrow) SocketInfo()) {
    if (pInfo != nullptr && other.pInfo != nullptr) {
        pInfo->TakeOver(*other.pInfo);
    }
}

KNet& KNet::operator=(const KNet& other) {
    if (this != &other) {
        m_eError = other.m_eError;
        m_ConInfo = other.m_ConInfo;
        if (pInfo != nullptr && other.pInfo != nullptr) {
            pInfo->TakeOver(*other.pInfo);
        }
        m_nTimeOut = other.m_nTimeOut;
    }
    return *this;
}

KNet::~KNet() {
    delete pInfo;
    pInfo = nullptr;
}

bool KNet::SetConnectionInfo(const KNetInfo& info, int nTimeOut) {
    m_ConInfo = info;
    m_nTimeOut = nTimeOut;
    return true;
}

int KNet::GetSocket() const {
    return pInfo != nullptr ? pInfo->nSocket : kNoSocket;
}

/// Whether there is a record; sets the error where there is none.
bool KNet::HasInfo(const char* pszSignature) {
    return g_Checks.Hold(pInfo != nullptr, "pInfo", pszSignature) || Fail(NO_SOCKET);
}

/// Whether there is a socket; sets the error where there is none.
bool KNet::HasSocket() {
    return pInfo->nSocket >= 0 || Fail(NO_SOCKET);
}

bool KNet::Fail(NetError eError) {
    m_eError = eError;
    return false;
}

bool KNet::FailAndClose(NetError eError) {
    DeleteSocket();
    return Fail(eError);
}

// --------------------------------------------------------------------------------------------------- Making a socket

bool KNet::GetHostName() {
    if (!HasInfo("bool KNet::GetHostName()")) {
        return false;
    }
    if (const char* const pszHost = m_ConInfo.RawAddress()) {
        const HostLookup lookup(pszHost);
        SharedHost::Release(pInfo->pHost);
        pInfo->pHost = lookup.Entry() != nullptr ? SharedHost::Make(*lookup.Entry()) : nullptr;
    }
    return pInfo->pHost != nullptr || Fail(HOST_NOT_FOUND);
}

namespace {

constexpr int kUnknown = -1;

int SocketDomain(KNetInfo::NetAddressDomain eDomain) {
    switch (eDomain) {
        case KNetInfo::UNSPECIFIED:
            return AF_UNSPEC;
        case KNetInfo::IPV4:
            return AF_INET;
        case KNetInfo::IPV6:
            return AF_INET6;
        case KNetInfo::LOCAL:
            return AF_UNIX;
    }
    return kUnknown;
}

struct SocketKind {
    int nType;
    int nProtocol;
};

/// By protocol.
constexpr SocketKind kSocketKinds[] = {{SOCK_RAW, IPPROTO_RAW}, {SOCK_RAW, 0},    {SOCK_RAW, 1},
                                       {SOCK_RAW, 2},           {SOCK_STREAM, 0}, {SOCK_DGRAM, 0}};
constexpr int kProtocols = sizeof(kSocketKinds) / sizeof(kSocketKinds[0]);

bool SetOption(int nSocket, int nLevel, int nOption, int nValue) {
    return setsockopt(nSocket, nLevel, nOption, &nValue, sizeof(nValue)) == 0;
}

}  // namespace

bool KNet::CreateSocket() {
    const char* const pszSignature = "bool KNet::CreateSocket()";
    if (!HasInfo(pszSignature)) {
        return false;
    }
    const int nDomain = pInfo->pHost != nullptr ? pInfo->pHost->h_addrtype : SocketDomain(m_ConInfo.GetAddressDomain());
    if (!g_Checks.Hold(nDomain != kUnknown, "0", pszSignature)) {
        return Fail(BAD_DOMAIN);
    }
    const KNetInfo::NetProtocol eProtocol = m_ConInfo.GetProtocol();
    if (!g_Checks.Hold(eProtocol >= 0 && eProtocol < kProtocols, "0", pszSignature)) {
        return true;
    }
    pInfo->nSocket = socket(nDomain, kSocketKinds[eProtocol].nType, kSocketKinds[eProtocol].nProtocol);
    if (pInfo->nSocket < 0) {
        return Fail(SOCKET_FAILED);
    }
    if (!PrepareCasting()) {
        return false;
    }
    pInfo->SetPoll();
    m_eError = NONE;
    return true;
}

/// The part of CreateSocket() that depends on the delivery.
bool KNet::PrepareCasting() {
    const bool fgUdp = m_ConInfo.GetProtocol() == KNetInfo::UDP;
    switch (m_ConInfo.GetCasting()) {
        case KNetInfo::UNICAST:
            return true;
        case KNetInfo::MULTICAST:
            if (!fgUdp) {
                return Fail(CASTING_NEEDS_UDP);
            }
            return SetOption(pInfo->nSocket, IPPROTO_IP, IP_MULTICAST_LOOP, 0) || FailAndClose(MULTICAST_FAILED);
        case KNetInfo::BROADCAST:
            if (!fgUdp) {
                return Fail(CASTING_NEEDS_UDP);
            }
            // Neither an error nor a close, unlike multicast.
            return SetOption(pInfo->nSocket, SOL_SOCKET, SO_BROADCAST, 1);
    }
    g_Checks.Fail("bool KNet::CreateSocket()");
    return Fail(BAD_CASTING);
}

bool KNet::DeleteSocket() {
    if (!HasInfo("bool KNet::DeleteSocket()")) {
        return false;
    }
    if (pInfo->nSocket >= 0) {
        close(pInfo->nSocket);
        pInfo->nSocket = kNoSocket;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------------- Serving

bool KNet::Bind() {
    if (!HasInfo("bool KNet::Bind()") || !HasSocket()) {
        return false;
    }
    SetOption(pInfo->nSocket, SOL_SOCKET, SO_REUSEADDR, 1);
    // The family stays what an earlier connect made it, or 0; the system takes either.
    pInfo->address = MakeAddress(pInfo->address.sin_family, m_ConInfo.GetPort(), in_addr());
    if (bind(pInfo->nSocket, Plain(pInfo->address), sizeof(pInfo->address)) != 0 || !JoinGroup() ||
        listen(pInfo->nSocket, kBacklog) != 0) {
        return FailAndClose(BIND_FAILED);
    }
    pInfo->fgListening = true;
    return true;
}

/// Joins the host entry's group where the delivery is to one. False for a delivery that there is not.
bool KNet::JoinGroup() {
    switch (m_ConInfo.GetCasting()) {
        case KNetInfo::UNICAST:
        case KNetInfo::BROADCAST:
            return true;
        case KNetInfo::MULTICAST: {
            if (pInfo->pHost == nullptr) {
                return false;
            }
            ip_mreq membership = {};
            membership.imr_multiaddr = FirstAddress(*pInfo->pHost);
            return setsockopt(pInfo->nSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) >= 0;
        }
    }
    return false;
}

bool KNet::BindTest() {
    return Bind() && DeleteSocket();
}

bool KNet::Accept(KNet& client) {
    const char* const pszSignature = "bool KNet::Accept(KNet&)";
    if (!HasInfo(pszSignature) || !client.HasInfo(pszSignature)) {
        return Fail(NO_SOCKET);
    }
    client.pInfo->TakeOver(*pInfo);
    client.pInfo->fgListening = false;
    client.m_ConInfo = m_ConInfo;
    if (!pInfo->fgListening || pInfo->nSocket < 0) {
        return Fail(NO_SOCKET);
    }
    sockaddr_in peer = {};
    socklen_t nPeer = sizeof(peer);
    const int nSocket = accept(pInfo->nSocket, reinterpret_cast<sockaddr*>(&peer), &nPeer);
    if (nSocket < 0) {
        return FailAndClose(BIND_FAILED);
    }
    if (peer.sin_family == AF_INET) {
        client.m_ConInfo.SetAddress(AddressText(peer.sin_addr));
        client.pInfo->nSocket = nSocket;
    } else {
        Fail(PEER_NOT_IPV4);
    }
    client.pInfo->SetPoll();
    return true;
}

// ------------------------------------------------------------------------------------------------------- Connecting

/// Fills the stored address from the host entry. False without one.
bool KNet::SetTargetAddress() {
    if (pInfo->pHost == nullptr) {
        return false;
    }
    pInfo->address = MakeAddress(pInfo->pHost->h_addrtype, m_ConInfo.GetPort(), FirstAddress(*pInfo->pHost));
    return true;
}

bool KNet::Connect() {
    return connect(pInfo->nSocket, Plain(pInfo->address), sizeof(pInfo->address)) == 0;
}

void KNet::SetNonBlocking() {
    pInfo->nSavedFlags = fcntl(pInfo->nSocket, F_GETFL);
    fcntl(pInfo->nSocket, F_SETFL, pInfo->nSavedFlags | O_NONBLOCK);
}

bool KNet::SyncConnectWithBlock() {
    if (!HasInfo("bool KNet::SyncConnectWithBlock()") || !HasSocket()) {
        return false;
    }
    return (SetTargetAddress() && Connect()) || FailAndClose(CONNECT_FAILED);
}

bool KNet::SyncConnectWithTimedBlock(int nMilliseconds) {
    if (!HasInfo("bool KNet::SyncConnectWithTimedBlock(int)") || !HasSocket()) {
        return false;
    }
    if (!SetTargetAddress()) {
        return FailAndClose(CONNECT_FAILED);
    }
    if (m_ConInfo.GetCasting() != KNetInfo::UNICAST || m_ConInfo.GetProtocol() != KNetInfo::TCP) {
        return true;
    }
    SetNonBlocking();
    if (Connect()) {
        return true;
    }
    if (!IsSelectable(pInfo->nSocket)) {
        return FailAndClose(CONNECT_FAILED);
    }
    pInfo->SetWaiting();
    timeval timeOut = TimeOut(nMilliseconds);
    if (select(pInfo->nSocket + 1, &pInfo->readSet, &pInfo->writeSet, nullptr, &timeOut) < 0) {
        return FailAndClose(CONNECT_FAILED);
    }
    // Whether the connect succeeded is not asked: a refused one makes the socket readable too.
    if (!FD_ISSET(pInfo->nSocket, &pInfo->readSet) && !FD_ISSET(pInfo->nSocket, &pInfo->writeSet)) {
        return FailAndClose(CONNECT_FAILED);
    }
    fcntl(pInfo->nSocket, F_SETFL, pInfo->nSavedFlags);
    return true;
}

int KNet::ASyncConnectionCheckStart() {
    constexpr int kNotStarted = -1;
    if (!HasInfo("int KNet::ASyncConnectionCheckStart()") || pInfo->nSocket < 0 || !SetTargetAddress()) {
        return kNotStarted;
    }
    SetNonBlocking();
    if (m_ConInfo.GetCasting() != KNetInfo::UNICAST || !IsSelectable(pInfo->nSocket)) {
        return kNotStarted;
    }
    if (Connect()) {
        return 0;
    }
    pInfo->SetWaiting();
    return 1;
}

int KNet::ASyncConnectionChecking(int nMilliseconds) {
    if (!HasInfo("int KNet::ASyncConnectionChecking(int)") || !IsSelectable(pInfo->nSocket)) {
        return -1;
    }
    fd_set readSet = pInfo->readSet;
    fd_set writeSet = pInfo->writeSet;
    timeval timeOut = TimeOut(nMilliseconds);
    if (select(pInfo->nSocket + 1, &readSet, &writeSet, nullptr, &timeOut) < 1) {
        return 1;
    }
    return FD_ISSET(pInfo->nSocket, &readSet) || FD_ISSET(pInfo->nSocket, &writeSet) ? 0 : -1;
}

bool KNet::ASyncConnectionCheckDone(bool fgConnected) {
    if (!HasInfo("bool KNet::ASyncConnectionCheckDone(bool)")) {
        return false;
    }
    if (fgConnected) {
        fcntl(pInfo->nSocket, F_SETFL, pInfo->nSavedFlags);
    } else {
        FailAndClose(CONNECT_FAILED);
    }
    return true;
}

bool KNet::ConnectionTest(int nMilliseconds) {
    if (!HasInfo("bool KNet::ConnectionTest(int)")) {
        return false;
    }
    const KNetInfo::NetProtocol eProtocol = m_ConInfo.GetProtocol();
    if (eProtocol == KNetInfo::RAW || eProtocol == KNetInfo::UDP) {
        return DeleteSocket();
    }
    if (!GetHostName() || !CreateSocket()) {
        return false;
    }
    if (m_ConInfo.GetCasting() == KNetInfo::UNICAST &&
        !(nMilliseconds < 1 ? SyncConnectWithBlock() : SyncConnectWithTimedBlock(nMilliseconds))) {
        return false;
    }
    return DeleteSocket();
}

bool KNet::isClientConnected() {
    return true;
}

// ----------------------------------------------------------------------------------------------- Reading and writing

int KNet::Read(char* pBuffer, int nLen, bool fgPeek) {
    constexpr int kComplete = -1;
    if (!HasInfo("int KNet::Read(char*, int, bool)")) {
        return 0;
    }
    const int nFlags = MSG_WAITALL | (fgPeek ? MSG_PEEK : 0);
    if (nLen >= 0 && recv(pInfo->nSocket, pBuffer, static_cast<std::size_t>(nLen), nFlags) == nLen) {
        return kComplete;
    }
    Fail(pInfo->nSocket < 0 ? NO_SOCKET : RECEIVE_FAILED);
    return 0;
}

int KNet::ReadWithClientInfo(char* pBuffer, int nLen, KString& ip, int& nPort, bool fgPeek) {
    if (!HasInfo("int KNet::ReadWithClientInfo(char*, int, KString&, int&, bool)")) {
        return 0;
    }
    const int nFlags = MSG_DONTWAIT | (fgPeek ? MSG_PEEK : 0);
    sockaddr_in sender = {};
    socklen_t nSender = sizeof(sender);
    const ssize_t nReceived = nLen < 0 ? -1
                                       : recvfrom(pInfo->nSocket, pBuffer, static_cast<std::size_t>(nLen), nFlags,
                                                  reinterpret_cast<sockaddr*>(&sender), &nSender);
    if (nReceived < 0) {
        Fail(pInfo->nSocket < 0 ? NO_SOCKET : RECEIVE_FAILED);
        return 0;
    }
    nPort = ntohs(sender.sin_port);
    ip = AddressText(sender.sin_addr);
    return static_cast<int>(nReceived);
}

/// Sends to the other end. A negative length is a failure before the system is asked.
int KNet::Send(const char* pBuffer, int nLen) {
    if (nLen < 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(send(pInfo->nSocket, pBuffer, static_cast<std::size_t>(nLen), 0));
}

/// Sends to an address. A negative length is a failure here too.
int KNet::SendTo(const char* pBuffer, int nLen, const sockaddr_in& target) {
    if (nLen < 0) {
        return -1;
    }
    return static_cast<int>(
        sendto(pInfo->nSocket, pBuffer, static_cast<std::size_t>(nLen), 0, Plain(target), sizeof(target)));
}

int KNet::Write(const char* pBuffer, int nLen) {
    const char* const pszSignature = "int KNet::Write(const char*, int)";
    if (!HasInfo(pszSignature)) {
        return -1;
    }
    if (!HasSocket()) {
        return 0;
    }
    switch (m_ConInfo.GetCasting()) {
        case KNetInfo::UNICAST: {
            const int nSent = Send(pBuffer, nLen);
            if (nSent < 0) {
                KDebug::Log("KNet Write Error: %d", errno);
            }
            return nSent;
        }
        case KNetInfo::MULTICAST:
        case KNetInfo::BROADCAST:
            return SendTo(pBuffer, nLen, pInfo->address);
    }
    g_Checks.Fail(pszSignature);
    Fail(NO_SOCKET);
    return -1;
}

int KNet::WriteWithOtherPort(const char* pBuffer, int nLen, int nPort) {
    const char* const pszSignature = "int KNet::WriteWithOtherPort(const char*, int, int)";
    if (!HasInfo(pszSignature)) {
        return -1;
    }
    if (!HasSocket()) {
        return 0;
    }
    if (!g_Checks.Hold(m_ConInfo.GetCasting() == KNetInfo::BROADCAST, "0", pszSignature)) {
        return -1;
    }
    in_addr everyone = {};
    everyone.s_addr = INADDR_BROADCAST;
    return SendTo(pBuffer, nLen, MakeAddress(AF_INET, nPort, everyone));
}

int KNet::WriteWithClientInfo(const char* pBuffer, int nLen, const KString& host, int nPort) {
    constexpr int kHostCapacity = 2048;
    const char* const pszSignature = "int KNet::WriteWithClientInfo(const char*, int, const KString&, int)";
    if (!HasInfo(pszSignature)) {
        return -1;
    }
    if (!HasSocket()) {
        return 0;
    }
    if (!g_Checks.Hold(m_ConInfo.GetProtocol() == KNetInfo::UDP, "0", pszSignature)) {
        return -1;
    }
    char szHost[kHostCapacity + 1] = {};
    if (host.GetUTF8String(szHost, kHostCapacity) >= kHostCapacity) {
        return -1;
    }
    const HostLookup lookup(szHost);
    if (lookup.Entry() == nullptr) {
        return -1;
    }
    return SendTo(pBuffer, nLen, MakeAddress(AF_INET, nPort, FirstAddress(*lookup.Entry())));
}

int KNet::GetReceivedSize() {
    if (!HasInfo("int KNet::GetReceivedSize()") || !HasSocket()) {
        return 0;
    }
    const int nReady = poll(&pInfo->poll, 1, kReceiveTimeOut);
    if (nReady == 0) {
        return 0;
    }
    if (nReady != 1) {
        Fail(RECEIVE_FAILED);
        return -1;
    }
    int nSize = 0;
    return ioctl(pInfo->nSocket, FIONREAD, &nSize) == 0 ? nSize : -1;
}

void KNet::GetLocalIPs(KList<KString>& ips) {
    constexpr std::size_t kNameSize = 1024;
    char szName[kNameSize] = {};
    gethostname(szName, kNameSize - 1);
    const HostLookup lookup(szName);
    if (lookup.Entry() == nullptr) {
        return;
    }
    for (char** ppAddress = lookup.Entry()->h_addr_list; *ppAddress != nullptr; ++ppAddress) {
        in_addr address = {};
        std::memcpy(&address, *ppAddress, sizeof(address));
        ips.Add(AddressText(address));
    }
}
