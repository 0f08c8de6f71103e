// Sockets and channels between processes.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "KAssert.h"
#include "KIPC.h"
#include "KNet.h"
#include "support/Channels.h"
#include "support/Sockets.h"
#include "support/Support.h"
#include "torture/Scenarios.h"

namespace torture {

namespace {

using support::AwaitInput;
using support::PortOf;

constexpr char kLocalHost[] = "127.0.0.1";

sockaddr_in LocalAddress(int nPort) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(nPort));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

const sockaddr* Plain(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

/// Whether a look-up failed for good: where only the room for the answer was short, there is more the next time.
bool FoundNoHost(const Step& step) {
    return step.Failed("gethostbyname_r") && TheOutcome().nError != ERANGE;
}

/// A socket of the test's own, closed at the end.
class Peer {
 public:
    explicit Peer(int nType) : m_nSocket(socket(AF_INET, nType | SOCK_CLOEXEC, 0)) {
        const sockaddr_in any = LocalAddress(0);
        EXPECT_EQ(bind(m_nSocket, Plain(any), sizeof(any)), 0);
        if (nType == SOCK_STREAM) {
            EXPECT_EQ(listen(m_nSocket, 4), 0);
        }
    }
    ~Peer() {
        close(m_nSocket);
        if (m_nAccepted >= 0) {
            close(m_nAccepted);
        }
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    int Port() const { return PortOf(m_nSocket); }
    void Accept() { EXPECT_GE(m_nAccepted = accept(m_nSocket, nullptr, nullptr), 0); }
    void Send(const char* pBytes, std::size_t nBytes) const {
        EXPECT_EQ(send(m_nAccepted, pBytes, nBytes, MSG_NOSIGNAL), static_cast<ssize_t>(nBytes));
    }
    /// What is on its way to the socket, or once somebody was accepted, from there.
    std::string Received() const {
        char bytes[64];
        const int nSocket = m_nAccepted >= 0 ? m_nAccepted : m_nSocket;
        AwaitInput(nSocket);
        const ssize_t nBytes = recv(nSocket, bytes, sizeof(bytes), MSG_DONTWAIT);
        return std::string(bytes, nBytes > 0 ? static_cast<std::size_t>(nBytes) : 0);
    }
    void SendTo(int nPort, const char* pBytes, std::size_t nBytes) const {
        const sockaddr_in target = LocalAddress(nPort);
        EXPECT_EQ(sendto(m_nSocket, pBytes, nBytes, 0, Plain(target), sizeof(target)), static_cast<ssize_t>(nBytes));
    }

 private:
    int m_nSocket;
    int m_nAccepted = -1;
};

/// A socket object that is left as it was found.
class Socket {
 public:
    Socket(KNetInfo::NetProtocol eProtocol, int nPort)
        : m_Info(KNetInfo::IPV4, eProtocol, KNetInfo::UNICAST, kLocalHost, nPort), m_Net(m_Info, 1000) {}
    ~Socket() {
        if (m_Net->GetSocket() >= 0) {
            m_Net->DeleteSocket();
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    KNet* operator->() { return &*m_Net; }
    KNet& operator*() { return *m_Net; }

    bool HasRecord() const { return !m_Net.Making().Failed("new"); }
    bool HasAddress() const { return !m_Net.Making().Failed("malloc"); }

    /// Looks its host up and makes its socket. Whether that worked; what could not be done is told. Without the text of its
    /// address there is nothing to look up.
    bool Make() {
        if (!HasAddress()) {
            return false;
        }
        bool fgDone = false;
        const Step lookUp([&] { fgDone = m_Net->GetHostName(); });
        EXPECT_EQ(fgDone, HasRecord() && !FoundNoHost(lookUp) && !lookUp.LackedMemory());
        if (!fgDone) {
            EXPECT_EQ(m_Net->GetError(), HasRecord() ? KNet::HOST_NOT_FOUND : KNet::NO_SOCKET);
            return false;
        }
        const Step make([&] { fgDone = m_Net->CreateSocket(); });
        EXPECT_EQ(fgDone, !make.Failed("socket"));
        EXPECT_EQ(m_Net->GetError(), fgDone ? KNet::NONE : KNet::SOCKET_FAILED);
        EXPECT_EQ(m_Net->GetSocket() >= 0, fgDone);
        return fgDone;
    }

 private:
    KNetInfo m_Info;
    Made<KNet> m_Net;
};

/// Writes to a peer, which gets what was written.
void WriteTo(const Peer& peer, Socket& own) {
    int nResult = 0;
    const Step write([&] { nResult = own->Write("question", 8); });
    EXPECT_EQ(nResult, !write.Failed("send") ? 8 : TheOutcome().nError == kShort ? 4 : -1);
    write.ExpectLog(Lines(nResult < 0 ? 1 : 0, "Log: KNet Write Error: " + ErrorNumber()));
    if (nResult > 0) {
        EXPECT_EQ(peer.Received(), std::string("question").substr(0, static_cast<std::size_t>(nResult)));
    }
}

/// Reads an answer that is on its way, with its sender as it is told.
void ReadAnswer(Socket& own, const char* pszSender, int nSenderPort) {
    AwaitInput(own->GetSocket());
    char bytes[16] = {};
    KString sender;
    int nResult = 0;
    int nPort = -1;
    const Step read([&] { nResult = own->ReadWithClientInfo(bytes, 16, sender, nPort, false); });
    if (read.Failed("recvfrom") && TheOutcome().nError > 0) {
        EXPECT_EQ(nResult, 0);
        EXPECT_EQ(own->GetError(), KNet::RECEIVE_FAILED);
        return;
    }
    // What is shorter than there is room, or nothing, is as good as anything else.
    EXPECT_EQ(nResult, !read.Failed("recvfrom") ? 6 : TheOutcome().nError == kShort ? 3 : 0);
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(nResult)),
              std::string("answer").substr(0, static_cast<std::size_t>(nResult)));
    EXPECT_EQ(own->GetError(), KNet::NONE);
    EXPECT_EQ(nPort, nSenderPort);
    // The text of the address takes memory, and libc to render it.
    EXPECT_EQ(TextOf(sender), read.Failed() && !read.Failed("recvfrom") ? "" : pszSender);
}

/// Connects and waits. Whether that worked; without a connection there is no socket either.
bool Connect(Socket& own) {
    bool fgDone = false;
    const Step connecting([&] { fgDone = own->SyncConnectWithBlock(); });
    EXPECT_EQ(fgDone, !connecting.Failed("connect"));
    EXPECT_EQ(own->GetSocket() >= 0, fgDone);
    EXPECT_EQ(own->GetError(), fgDone ? KNet::NONE : KNet::CONNECT_FAILED);
    return fgDone;
}

void ClientConnectsAndTalks() {
    Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (!client.Make() || !Connect(client)) {
        return;
    }
    peer.Accept();
    WriteTo(peer, client);
    peer.Send("answer", 6);
    int nResult = 0;
    const Step size([&] { nResult = client->GetReceivedSize(); });
    const bool fgTimeOut = size.Failed("poll") && TheOutcome().nError == kNothing;
    // An error of the socket, or an end, is something to read too.
    const bool fgNoPoll = size.Failed("poll") && TheOutcome().nError > 0;
    EXPECT_EQ(nResult, fgTimeOut ? 0 : fgNoPoll || size.Failed("ioctl") ? -1 : 6);
    EXPECT_EQ(client->GetError(), fgNoPoll ? KNet::RECEIVE_FAILED : KNet::NONE);
    char bytes[6] = {};
    const Step read([&] { nResult = client->Read(bytes, 6, false); });
    EXPECT_EQ(nResult, read.Failed("recv") ? 0 : -1);
    if (read.Failed("recv")) {
        EXPECT_EQ(client->GetError(), KNet::RECEIVE_FAILED);
    } else {
        EXPECT_EQ(std::string(bytes, 6), "answer");
    }
    bool fgDone = false;
    const Step end([&] { fgDone = client->DeleteSocket(); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(client->GetSocket(), -1);
}

/// A stream tells no sender.
void StreamIsReadAsFarAsItCame() {
    Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (client.Make() && Connect(client)) {
        peer.Accept();
        peer.Send("answer", 6);
        ReadAnswer(client, "0.0.0.0", 0);
    }
}

int FlagsOf(int nSocket) {
    return fcntl(nSocket, F_GETFL);
}

void ClientConnectsInTime() {
    Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (!client.Make()) {
        return;
    }
    const int nFlags = FlagsOf(client->GetSocket());
    bool fgDone = false;
    const Step connecting([&] { fgDone = client->SyncConnectWithTimedBlock(5000); });
    // A connect that fails makes the socket ready, and counts as one that was made.
    EXPECT_EQ(fgDone, !connecting.Failed("select"));
    EXPECT_EQ(client->GetSocket() >= 0, fgDone);
    EXPECT_EQ(client->GetError(), fgDone ? KNet::NONE : KNet::CONNECT_FAILED);
    // They are asked for, changed for the wait, and put back behind it.
    const int nFailed = connecting.Failed("fcntl") ? connecting.FailedOfItsKind() : 0;
    if (fgDone && nFailed != 1) {
        const bool fgPutBack = nFailed == 2 || (nFailed == 0 && connecting.Calls("select") > 0);
        EXPECT_EQ(FlagsOf(client->GetSocket()), fgPutBack ? nFlags : nFlags | O_NONBLOCK);
    }
}

/// Without a look-up there is no target: the socket is closed.
void ClientHasNoTarget() {
    for (const bool fgInTime : {false, true}) {
        KNetInfo info(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, kLocalHost, 1);
        Made<KNet> net(info, 1000);
        bool fgMade = false;
        const Step make([&] { fgMade = net->CreateSocket(); });
        EXPECT_EQ(fgMade, !net.Making().Failed("new") && !make.Failed("socket"));
        bool fgDone = true;
        const Step connecting(
            [&] { fgDone = fgInTime ? net->SyncConnectWithTimedBlock(5000) : net->SyncConnectWithBlock(); });
        EXPECT_FALSE(fgDone);
        EXPECT_EQ(net->GetError(), fgMade ? KNet::CONNECT_FAILED : KNet::NO_SOCKET);
        EXPECT_EQ(net->GetSocket(), -1);
    }
}

void ClientConnectsAsynchronously() {
    Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (!client.Make()) {
        return;
    }
    const int nFlags = FlagsOf(client->GetSocket());
    int nState = 0;
    const Step start([&] { nState = client->ASyncConnectionCheckStart(); });
    const int nFailed = start.Failed("fcntl") ? start.FailedOfItsKind() : 0;
    if (nFailed != 1) {
        EXPECT_EQ(FlagsOf(client->GetSocket()), nFailed == 2 ? nFlags : nFlags | O_NONBLOCK);
    }
    // On the way, failed or not, unless it was made at once.
    EXPECT_THAT(nState, testing::AnyOf(start.Failed("connect") ? 1 : 0, 1));
    if (nState == 1) {
        const Step check([&] { nState = client->ASyncConnectionChecking(5000); });
        EXPECT_EQ(nState, check.Failed("select") ? 1 : 0);
    }
    bool fgDone = false;
    const Step done([&] { fgDone = client->ASyncConnectionCheckDone(nState == 0); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(client->GetSocket() >= 0, nState == 0);
    EXPECT_EQ(client->GetError(), nState == 0 ? KNet::NONE : KNet::CONNECT_FAILED);
    if (nState == 0 && nFailed != 1) {
        EXPECT_EQ(FlagsOf(client->GetSocket()), done.Failed("fcntl") ? nFlags | O_NONBLOCK : nFlags);
    }
}

void ServerAcceptsAClient() {
    Socket server(KNetInfo::TCP, 0);
    if (!server.Make()) {
        return;
    }
    bool fgDone = false;
    const Step binding([&] { fgDone = server->Bind(); });
    EXPECT_EQ(fgDone, !binding.Failed({"bind", "listen"}));
    if (!fgDone) {
        EXPECT_EQ(server->GetError(), KNet::BIND_FAILED);
        EXPECT_EQ(server->GetSocket(), -1);
        return;
    }
    const sockaddr_in address = LocalAddress(PortOf(server->GetSocket()));
    const int nCaller = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(nCaller, Plain(address), sizeof(address)), 0);
    {
        Made<KNet> accepted;
        const Step accepting([&] { fgDone = server->Accept(*accepted); });
        EXPECT_EQ(fgDone, !accepting.Failed("accept") && !accepted.LackedMemory());
        EXPECT_EQ(server->GetError(), accepting.Failed("accept") ? KNet::BIND_FAILED
                                      : accepted.LackedMemory()  ? KNet::NO_SOCKET
                                                                 : KNet::NONE);
        EXPECT_EQ(server->GetSocket() >= 0, !accepting.Failed("accept"));
        if (fgDone) {
            // The description is copied before the peer is there; then its address takes memory, and libc to render it.
            EXPECT_EQ(TextOf(accepted->GetConnectionInfo().GetAddress()), accepting.FailedCall() > 1 ? "" : kLocalHost);
            EXPECT_TRUE(accepted->DeleteSocket());
        }
    }
    close(nCaller);
}

void DatagramsAreExchanged() {
    const Peer peer(SOCK_DGRAM);
    Socket own(KNetInfo::UDP, 0);
    if (!own.Make()) {
        return;
    }
    // A datagram socket cannot listen: the port is the system's choice.
    int nResult = 0;
    const KString host(kLocalHost);
    const Step write([&] { nResult = own->WriteWithClientInfo("question", 8, host, peer.Port()); });
    EXPECT_EQ(nResult, write.Failed("sendto") || FoundNoHost(write) || write.LackedMemory() ? -1 : 8);
    if (nResult < 0) {
        return;
    }
    EXPECT_EQ(peer.Received(), "question");
    peer.SendTo(PortOf(own->GetSocket()), "answer", 6);
    ReadAnswer(own, kLocalHost, peer.Port());
}

/// Once it is connected, a datagram socket writes as a stream does.
void DatagramsGoToOnePeer() {
    const Peer peer(SOCK_DGRAM);
    Socket own(KNetInfo::UDP, peer.Port());
    if (own.Make() && Connect(own)) {
        WriteTo(peer, own);
    }
}

/// A port is bound, and free again afterwards.
void PortIsTested() {
    Socket server(KNetInfo::TCP, 0);
    if (!server.Make()) {
        return;
    }
    bool fgDone = false;
    const Step test([&] { fgDone = server->BindTest(); });
    EXPECT_EQ(fgDone, !test.Failed({"bind", "listen"}));
    EXPECT_EQ(server->GetError(), fgDone ? KNet::NONE : KNet::BIND_FAILED);
    EXPECT_EQ(server->GetSocket(), -1);
}

void EverybodyIsWrittenTo() {
    const Peer peer(SOCK_DGRAM);
    KNetInfo info(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::BROADCAST, kLocalHost, peer.Port());
    Made<KNet> net(info, 1000);
    const bool fgRecord = !net.Making().Failed("new");
    bool fgDone = false;
    const Step make([&] { fgDone = net->CreateSocket(); });
    EXPECT_EQ(fgDone, fgRecord && !make.Failed({"socket", "setsockopt"}));
    // Without permission to broadcast the socket stays, and there is no error.
    EXPECT_EQ(net->GetError(), !fgRecord ? KNet::NO_SOCKET : make.Failed("socket") ? KNet::SOCKET_FAILED : KNet::NONE);
    EXPECT_EQ(net->GetSocket() >= 0, fgRecord && !make.Failed("socket"));
    if (fgDone) {
        int nResult = 0;
        const Step write([&] { nResult = net->WriteWithOtherPort("everybody", 9, peer.Port()); });
        EXPECT_EQ(nResult, write.Failed("sendto") ? -1 : 9);
        if (nResult == 9) {
            EXPECT_EQ(peer.Received(), "everybody");
        }
        // What a connect stores, with or without one, is where everything else goes.
        const Step lookUp([&] { fgDone = net->GetHostName(); });
        EXPECT_EQ(fgDone, !net.LackedMemory() && !FoundNoHost(lookUp) && !lookUp.LackedMemory());
        if (fgDone && net->SyncConnectWithTimedBlock(0)) {
            const Step writeOn([&] { nResult = net->Write("one", 3); });
            EXPECT_EQ(nResult, writeOn.Failed("sendto") ? -1 : 3);
            if (nResult == 3) {
                EXPECT_EQ(peer.Received(), "one");
            }
        }
    }
    const Step end([&] { net->DeleteSocket(); });
    EXPECT_EQ(net->GetSocket(), -1);
}

void GroupIsJoined() {
    KNetInfo info(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::MULTICAST, "239.255.0.1", 0);
    Made<KNet> net(info, 1000);
    if (net.LackedMemory()) {
        return;
    }
    bool fgDone = false;
    const Step lookUp([&] { fgDone = net->GetHostName(); });
    EXPECT_EQ(fgDone, !FoundNoHost(lookUp) && !lookUp.LackedMemory());
    const bool fgGroup = fgDone;
    const Step make([&] { fgDone = net->CreateSocket(); });
    EXPECT_EQ(fgDone, !make.Failed({"socket", "setsockopt"}));
    EXPECT_EQ(net->GetSocket() >= 0, fgDone);
    if (make.Failed("setsockopt")) {
        EXPECT_EQ(net->GetError(), KNet::MULTICAST_FAILED);
    }
    if (fgDone) {
        // A datagram socket cannot listen: this fails whatever else does, and closes it.
        const Step binding([&] { fgDone = net->Bind(); });
        EXPECT_FALSE(fgDone);
        EXPECT_EQ(net->GetError(), KNet::BIND_FAILED);
        EXPECT_EQ(net->GetSocket(), -1);
        // Bound, in the group, listening: each goes before the next. That the address may be in use does not matter if it
        // fails.
        const bool fgBound = !binding.Failed("bind");
        const bool fgJoined = !binding.Failed("setsockopt") || binding.FailedOfItsKind() == 1;
        EXPECT_EQ(binding.Calls("setsockopt"), fgBound && fgGroup ? 2 : 1);
        EXPECT_EQ(binding.Calls("listen"), fgBound && fgGroup && fgJoined ? 1 : 0);
    }
}

void GroupIsWrittenTo() {
    const Peer peer(SOCK_DGRAM);
    KNetInfo info(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::MULTICAST, "239.255.0.1", peer.Port());
    Made<KNet> net(info, 1000);
    if (net.LackedMemory()) {
        return;
    }
    bool fgGroup = false;
    const Step lookUp([&] { fgGroup = net->GetHostName(); });
    EXPECT_EQ(fgGroup, !FoundNoHost(lookUp) && !lookUp.LackedMemory());
    bool fgDone = false;
    const Step make([&] { fgDone = net->CreateSocket(); });
    EXPECT_EQ(fgDone, !make.Failed({"socket", "setsockopt"}));
    // What a connect stores is where everything goes. Without a group there is nothing to store, and no socket then.
    const bool fgMade = fgDone;
    const Step connecting([&] { fgDone = net->SyncConnectWithTimedBlock(0); });
    EXPECT_EQ(fgDone, fgMade && fgGroup);
    EXPECT_EQ(net->GetSocket() >= 0, fgDone);
    int nResult = 0;
    const Step write([&] { nResult = net->Write("all", 3); });
    EXPECT_EQ(nResult, !fgDone ? 0 : write.Failed("sendto") ? -1 : 3);
    if (nResult == 3) {
        EXPECT_EQ(peer.Received(), "all");
    }
    const Step end([&] { net->DeleteSocket(); });
    EXPECT_EQ(net->GetSocket(), -1);
}

void ConnectionIsTested() {
    const Peer peer(SOCK_STREAM);
    for (const int nTimeOut : {0, 5000}) {
        Socket client(KNetInfo::TCP, peer.Port());
        if (!client.HasAddress()) {
            return;
        }
        bool fgDone = false;
        const Step test([&] { fgDone = client->ConnectionTest(nTimeOut); });
        const bool fgFailed = test.Failed({"socket", "select"}) || (nTimeOut == 0 && test.Failed("connect"));
        EXPECT_EQ(fgDone, client.HasRecord() && !fgFailed && !FoundNoHost(test) && !test.LackedMemory());
        EXPECT_EQ(client->GetSocket(), -1);
    }
}

void OwnAddressesAreListed() {
    Made<KNet> net;
    KList<KString> addresses;
    const Step list([&] { net->GetLocalIPs(addresses); });
    std::vector<std::string> expected = {"192.0.2.1", "192.0.2.2"};
    // The name, the room for the entry, the entry; then for each address three calls for the text, one for the place in the
    // list, and one for the copy that stands there.
    const int nCall = list.FailedCall();
    if (nCall == 1 || nCall == 2 || FoundNoHost(list)) {
        expected.clear();
    } else if (nCall > 3) {
        const auto pLacking = expected.begin() + (nCall - 4) / 5;
        if ((nCall - 4) % 5 == 3) {
            expected.erase(pLacking);
        } else {
            *pLacking = "";
        }
    }
    EXPECT_EQ(TextsOf(addresses), expected);
}

void SocketIsShared() {
    const Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (!client.Make()) {
        return;
    }
    Made<KNet> copy(*client);
    // Without its record the copy shares nothing.
    EXPECT_EQ(copy->GetSocket(), copy.Making().Failed("new") ? -1 : client->GetSocket());
    EXPECT_EQ(TextOf(copy->GetConnectionInfo().GetAddress()), copy.Making().Failed("malloc") ? "" : kLocalHost);
    KNet assigned;
    const Step assign([&] { assigned = *client; });
    EXPECT_EQ(assigned.GetSocket(), client->GetSocket());
    EXPECT_EQ(TextOf(assigned.GetConnectionInfo().GetAddress()), assign.LackedMemory() ? "" : kLocalHost);
    KNetInfo other(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::UNICAST, "other", 1);
    bool fgDone = false;
    const Step describe([&] { fgDone = assigned.SetConnectionInfo(other, 5); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(TextOf(assigned.GetConnectionInfo().GetAddress()), describe.LackedMemory() ? "" : "other");
}

// ---------------------------------------------------------------------------------------------------------- Channels

int FreeChannel() {
    return 1001 + getpid() * 500 + 499;
}

void SharedMemoryIsMade() {
    {
        Made<KIPC> server;
        // A channel's record is never freed.
        LeavesBlocks(server.LackedMemory() ? 0 : 1);
        server->SetIndex(FreeChannel());
        bool fgDone = false;
        const Step create([&] { fgDone = server->Create(true, KIPC::SHARED_MEMORY); });
        // What could not be made is opened, where it is there; it is not.
        EXPECT_EQ(fgDone, !create.Failed("shm_open"));
        const bool fgMapped = server->GetSharedMemory() != nullptr;
        EXPECT_EQ(fgMapped, !server.LackedMemory() && fgDone && !create.Failed({"mmap", "fstat", "ftruncate"}));
        if (fgMapped) {
            std::memset(server->GetSharedMemory(), 7, sizeof(KIPC::IPCData));
            // Another server finds the memory there, unless it may not.
            KIPC other;
            LeavesBlocks(1);
            other.SetIndex(FreeChannel());
            const Step join([&] { fgDone = other.Create(true, KIPC::SHARED_MEMORY); });
            EXPECT_EQ(fgDone, join.FailedCall() != 2 || !join.Failed("shm_open"));
            EXPECT_EQ(other.GetSharedMemory() != nullptr, !join.Failed({"mmap", "fstat"}) && fgDone);
            const void* const pSeen = other.GetSharedMemory();
            EXPECT_TRUE(pSeen == nullptr || std::memcmp(pSeen, server->GetSharedMemory(), sizeof(KIPC::IPCData)) == 0);
            Made<KIPC> client;
            LeavesBlocks(client.LackedMemory() ? 0 : 1);
            client->SetIndex(FreeChannel());
            const Step open([&] { fgDone = client->Create(false, KIPC::SHARED_MEMORY); });
            EXPECT_EQ(fgDone, !open.Failed("shm_open"));
            EXPECT_EQ(client->GetSharedMemory() != nullptr, !client.LackedMemory() && !open.Failed());
            const Step close([&] { client->Close(); });
            // What could not be unmapped stays, and can be closed again.
            EXPECT_EQ(client->GetSharedMemory() != nullptr, close.Failed("munmap"));
            client->Close();
            other.Close();
        }
        const Step close([&] { server->Close(); });
        EXPECT_EQ(server->GetSharedMemory() != nullptr, close.Failed("munmap"));
        server->Close();
    }
    // The name goes with the first that closes, or where that failed, with the next.
}

/// Channel 0, the one that the table gives up.
void ChannelIsMadeAndRemoved() {
    const support::ScopedTableNames names(0);
    bool fgDone = false;
    const Step init([&] { fgDone = KIPC::Init(0, true, KIPC::SHARED_MEMORY, KPath()); });
    const bool fgChannel = init.FailedCall() != 1;
    const bool fgRecord = init.FailedCall() != 2;
    EXPECT_EQ(fgDone, fgChannel && !init.Failed("shm_open"));
    // The record is never freed.
    LeavesBlocks(fgChannel && fgRecord ? 1 : 0);
    if (fgChannel) {
        EXPECT_EQ(KIPC::GetInstance(0)->GetSharedMemory() != nullptr,
                  fgDone && fgRecord && !init.Failed({"mmap", "fstat", "ftruncate"}));
        const Step again([&] { fgDone = KIPC::Init(0, false, KIPC::LOCAL_SOCKET, KPath()); });
        EXPECT_TRUE(fgDone);
        EXPECT_EQ(KIPC::GetInstance(0)->GetType(), KIPC::SHARED_MEMORY);
    }
    // It is closed, and once more with its end: what failed the first time is done then.
    const Step end([&] { fgDone = KIPC::Deinit(0); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(end.Calls("shm_unlink"), fgChannel && fgRecord ? 2 : 0);
    if (!KAssert::GetActive()) {
        EXPECT_EQ(KIPC::GetInstance(0), nullptr);
    }
}

/// Expects the lines of a channel that makes its socket, and of its end.
void ExpectSocket(const Step& create, Made<KIPC>& channel) {
    EXPECT_EQ(channel->IsCreated(), !create.Failed("socket"));
    if (create.Failed("socket")) {
        create.ExpectLog({"Error****: IPC Socket Create Failed"});
    } else {
        create.ExpectLog({"Log: Create IPC " + std::to_string(LastSocket())});
        channel.EndsWith({"Log: Close IPC " + std::to_string(LastSocket())});
    }
}

void LocalSocketsTalk() {
    Scratch directory;
    const KPath path(directory.Entry("s").c_str());
    Made<KIPC> server;
    Made<KIPC> client;
    Made<KIPC> accepted;
    // A channel's record is never freed.
    LeavesBlocks(HasLackedMemory() ? 2 : 3);
    for (KIPC* const pChannel : {&*server, &*client, &*accepted}) {
        pChannel->SetType(KIPC::LOCAL_SOCKET);
        const Step name([&] { pChannel->SetPath(path); });
    }
    if (HasLackedMemory()) {
        return;
    }
    bool fgDone = false;
    directory.File("s_0", "left by a server before");
    const Step create([&] { fgDone = server->Create(true, KIPC::LOCAL_SOCKET); });
    EXPECT_EQ(fgDone, !create.Failed({"socket", "unlink", "bind", "listen"}));
    ExpectSocket(create, server);
    // The file is in the way until it is deleted; that of this socket stays too.
    directory.Leaves("s_0", !create.Failed("bind"));
    if (!fgDone) {
        return;
    }
    const Step createClient([&] { fgDone = client->CreateClient(); });
    EXPECT_EQ(fgDone, !createClient.Failed("socket"));
    ExpectSocket(createClient, client);
    const std::string strClient = std::to_string(LastSocket());
    const Step connecting([&] { fgDone = client->ConnectToServer(); });
    EXPECT_EQ(fgDone, !createClient.Failed("socket") && !connecting.Failed("connect"));
    if (!fgDone) {
        return;
    }
    const Step accepting([&] { fgDone = server->WaitForConnectToMe(*accepted); });
    EXPECT_EQ(fgDone, !accepting.Failed("accept"));
    if (!fgDone) {
        return;
    }
    accepted.EndsWith({"Log: Close IPC " + std::to_string(LastSocket())});
    KIPC::IPCData sent = {};
    std::memset(&sent, 5, sizeof(sent));
    const Step write([&] { fgDone = client->Write(sent); });
    EXPECT_EQ(fgDone, !write.Failed("write"));
    if (fgDone) {
        KIPC::IPCData received = {};
        const Step read([&] { fgDone = accepted->Read(received); });
        EXPECT_EQ(fgDone, !read.Failed("read"));
        EXPECT_TRUE(!fgDone || std::memcmp(&sent, &received, sizeof(sent)) == 0);
    }
    const Step close([&] { fgDone = client->Close(); });
    EXPECT_TRUE(fgDone);
    close.ExpectLog({"Log: Close IPC " + strClient});
    client.EndsWith({});
    EXPECT_FALSE(client->IsCreated());
}

/// A channel of the table stays there: this process has it from here on.
void ChannelIsKeptInTheTable() {
    constexpr int kChannel = 5;
    Scratch directory;
    // Without memory for its path, the socket file is made where the process is.
    EXPECT_EQ(chdir(directory.Path().c_str()), 0);
    const KPath path(directory.Entry("s").c_str());
    bool fgDone = false;
    const Step init([&] { fgDone = KIPC::Init(kChannel, true, KIPC::LOCAL_SOCKET, path); });
    const bool fgChannel = init.FailedCall() != 1;
    const bool fgRecord = init.FailedCall() != 2;
    EXPECT_EQ(fgDone, fgChannel && !init.Failed({"socket", "bind", "listen"}));
    KIPC* pChannel = nullptr;
    const Step find([&] { pChannel = KIPC::GetInstance(kChannel); });
    EXPECT_EQ(pChannel != nullptr, fgChannel);
    if (pChannel == nullptr) {
        return;
    }
    const bool fgSocket = fgRecord && !init.Failed("socket");
    const std::string strSocket = std::to_string(LastSocket());
    init.ExpectLog(Lines(fgSocket ? 1 : 0, "Log: Create IPC " + strSocket) +
                   ErrorIf(init.Failed("socket"), "IPC Socket Create Failed"));
    directory.Leaves(init.FailedCall() == 3 ? "_5" : "s_5", fgSocket && !init.Failed("bind"));
    // The channel, its record, its path.
    LeavesBlocks(init.LackedMemory() ? 2 : 3);
    EXPECT_EQ(pChannel->IsCreated(), fgRecord && !init.Failed("socket"));
    {
        Made<KIPC> copy(*pChannel);
        EXPECT_EQ(copy->GetIndex(), kChannel);
        EXPECT_EQ(copy->IsCreated(), pChannel->IsCreated());
        KIPC assigned;
        const Step assign([&] { assigned = *pChannel; });
        EXPECT_EQ(assigned.GetIndex(), kChannel);
        // Each has a record for good, and all close the one socket.
        LeavesBlocks(copy.Making().Failed("new") ? 1 : 2);
        assigned.SetType(KIPC::UNSUPPORTED);
        copy->SetType(KIPC::UNSUPPORTED);
    }
    const Step end([&] { fgDone = KIPC::Deinit(kChannel); });
    EXPECT_TRUE(fgDone);
    const Step close([&] { fgDone = pChannel->Close(); });
    EXPECT_TRUE(fgDone);
    close.ExpectLog(Lines(fgSocket ? 1 : 0, "Log: Close IPC " + strSocket));
    EXPECT_FALSE(pChannel->IsCreated());
}

}  // namespace

std::vector<Scenario> ConnectionScenarios() {
    const std::string strNoRecord = "new in bool KNet::GetHostName(): pInfo";
    return {{"ClientConnectsAndTalks", ClientConnectsAndTalks, {strNoRecord}},
            {"StreamIsReadAsFarAsItCame", StreamIsReadAsFarAsItCame, {strNoRecord}},
            {"ClientConnectsInTime", ClientConnectsInTime, {strNoRecord}},
            {"ClientHasNoTarget", ClientHasNoTarget, {"new in bool KNet::CreateSocket(): pInfo"}},
            {"ClientConnectsAsynchronously", ClientConnectsAsynchronously, {strNoRecord}},
            {"ServerAcceptsAClient", ServerAcceptsAClient, {strNoRecord, "new in bool KNet::Accept(KNet&): pInfo"}},
            {"PortIsTested", PortIsTested, {strNoRecord}},
            {"DatagramsAreExchanged", DatagramsAreExchanged, {strNoRecord}},
            {"DatagramsGoToOnePeer", DatagramsGoToOnePeer, {strNoRecord}},
            {"EverybodyIsWrittenTo", EverybodyIsWrittenTo, {"new in bool KNet::CreateSocket(): pInfo"}},
            {"GroupIsJoined", GroupIsJoined, {}},
            {"GroupIsWrittenTo", GroupIsWrittenTo, {}},
            {"ConnectionIsTested", ConnectionIsTested, {"new in bool KNet::ConnectionTest(int): pInfo"}},
            {"OwnAddressesAreListed", OwnAddressesAreListed, {}},
            {"SocketIsShared", SocketIsShared, {strNoRecord}},
            {"SharedMemoryIsMade", SharedMemoryIsMade, {"new in KIPC::KIPC(): m_pInternal"}},
            {"ChannelIsMadeAndRemoved", ChannelIsMadeAndRemoved, {"new in KIPC::KIPC(): m_pInternal"}},
            {"LocalSocketsTalk", LocalSocketsTalk, {"new in KIPC::KIPC(): m_pInternal"}},
            {"ChannelIsKeptInTheTable",
             ChannelIsKeptInTheTable,
             {"new in KIPC::KIPC(): m_pInternal", "new in static KIPC* KIPC::GetInstance(int): 0"},
             true}};
}

}  // namespace torture
