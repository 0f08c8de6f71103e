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

#include "KIPC.h"
#include "KNet.h"
#include "support/Support.h"
#include "torture/Scenarios.h"

namespace torture {

namespace {

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

int PortOf(int nSocket) {
    sockaddr_in address = {};
    socklen_t nSize = sizeof(address);
    getsockname(nSocket, reinterpret_cast<sockaddr*>(&address), &nSize);
    return ntohs(address.sin_port);
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

    /// Looks its host up and makes its socket. Whether that worked; what could not be done is told.
    bool Make() {
        bool fgDone = false;
        const Step lookUp([&] { fgDone = m_Net->GetHostName(); });
        EXPECT_EQ(fgDone, !FoundNoHost(lookUp) && !lookUp.LackedMemory());
        if (!fgDone) {
            EXPECT_EQ(m_Net->GetError(), lookUp.Failed() && HasLackedMemory() && m_Net->GetError() == KNet::NO_SOCKET
                                             ? KNet::NO_SOCKET
                                             : KNet::HOST_NOT_FOUND);
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

void ClientConnectsAndTalks() {
    Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (HasLackedMemory() || !client.Make()) {
        return;
    }
    bool fgDone = false;
    const Step connecting([&] { fgDone = client->SyncConnectWithBlock(); });
    EXPECT_EQ(fgDone, !connecting.Failed("connect"));
    if (!fgDone) {
        EXPECT_EQ(client->GetError(), KNet::CONNECT_FAILED);
        EXPECT_EQ(client->GetSocket(), -1);
        return;
    }
    peer.Accept();
    int nResult = 0;
    const Step write([&] { nResult = client->Write("question", 8); });
    EXPECT_EQ(nResult, !write.Failed("send") ? 8 : TheOutcome().nError == kShort ? 4 : -1);
    EXPECT_EQ(write.Logged("KNet Write Error: "), nResult < 0);
    peer.Send("answer", 6);
    const Step size([&] { nResult = client->GetReceivedSize(); });
    EXPECT_EQ(nResult, size.Failed({"poll", "ioctl"}) ? -1 : 6);
    if (size.Failed("poll")) {
        EXPECT_EQ(client->GetError(), KNet::RECEIVE_FAILED);
    }
    char bytes[6] = {};
    const Step read([&] { nResult = client->Read(bytes, 6, false); });
    EXPECT_EQ(nResult, read.Failed("recv") ? 0 : -1);
    if (read.Failed("recv")) {
        EXPECT_EQ(client->GetError(), KNet::RECEIVE_FAILED);
    }
    const Step end([&] { fgDone = client->DeleteSocket(); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(client->GetSocket(), -1);
}

void ClientConnectsInTime() {
    Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (HasLackedMemory() || !client.Make()) {
        return;
    }
    bool fgDone = false;
    const Step connecting([&] { fgDone = client->SyncConnectWithTimedBlock(5000); });
    if (!connecting.Failed()) {
        EXPECT_TRUE(fgDone);
    } else if (connecting.Failed("select")) {
        EXPECT_FALSE(fgDone);
    }
    EXPECT_EQ(client->GetSocket() >= 0, fgDone);
    if (!fgDone) {
        EXPECT_EQ(client->GetError(), KNet::CONNECT_FAILED);
    }
}

void ClientConnectsAsynchronously() {
    Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (HasLackedMemory() || !client.Make()) {
        return;
    }
    int nState = 0;
    const Step start([&] { nState = client->ASyncConnectionCheckStart(); });
    EXPECT_THAT(nState, testing::AnyOf(0, 1));
    if (nState == 1 && !start.Failed()) {
        const Step check([&] { nState = client->ASyncConnectionChecking(5000); });
        EXPECT_EQ(nState, check.Failed("select") ? 1 : 0);
    }
    bool fgDone = false;
    const Step done([&] { fgDone = client->ASyncConnectionCheckDone(nState == 0); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(client->GetSocket() >= 0, nState == 0);
}

void ServerAcceptsAClient() {
    Socket server(KNetInfo::TCP, 0);
    if (HasLackedMemory() || !server.Make()) {
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
        if (accepting.Failed("accept")) {
            EXPECT_FALSE(fgDone);
            EXPECT_EQ(server->GetError(), KNet::BIND_FAILED);
            EXPECT_EQ(server->GetSocket(), -1);
        } else if (!accepted.LackedMemory()) {
            EXPECT_TRUE(fgDone);
            const std::string strPeer = TextOf(accepted->GetConnectionInfo().GetAddress());
            ExpectWholeOr<std::string>(strPeer, accepting.Failed("vsnprintf") ? "" : kLocalHost, "");
            EXPECT_TRUE(accepted->DeleteSocket());
        }
    }
    close(nCaller);
}

void DatagramsAreExchanged() {
    const Peer peer(SOCK_DGRAM);
    Socket own(KNetInfo::UDP, 0);
    if (HasLackedMemory() || !own.Make()) {
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
    peer.SendTo(PortOf(own->GetSocket()), "answer", 6);
    char bytes[16] = {};
    KString sender;
    int nPort = 0;
    const Step read([&] { nResult = own->ReadWithClientInfo(bytes, 16, sender, nPort, false); });
    EXPECT_EQ(nResult, read.Failed("recvfrom") ? 0 : 6);
    if (nResult == 6) {
        EXPECT_EQ(nPort, peer.Port());
        // The text of the address takes memory, and libc to render it.
        EXPECT_EQ(TextOf(sender), read.Failed() ? "" : kLocalHost);
    } else {
        EXPECT_EQ(own->GetError(), KNet::RECEIVE_FAILED);
    }
}

void DeliveryToManyIsPrepared() {
    for (const auto eCasting : {KNetInfo::MULTICAST, KNetInfo::BROADCAST}) {
        KNetInfo info(KNetInfo::IPV4, KNetInfo::UDP, eCasting, "239.255.0.1", 0);
        Made<KNet> net(info, 1000);
        if (HasLackedMemory()) {
            return;
        }
        bool fgDone = false;
        const Step make([&] { fgDone = net->CreateSocket(); });
        EXPECT_EQ(fgDone, !make.Failed());
        if (make.Failed("setsockopt") && eCasting == KNetInfo::MULTICAST) {
            EXPECT_EQ(net->GetError(), KNet::MULTICAST_FAILED);
            EXPECT_EQ(net->GetSocket(), -1);
        }
        net->DeleteSocket();
    }
}

void ConnectionIsTested() {
    const Peer peer(SOCK_STREAM);
    Socket client(KNetInfo::TCP, peer.Port());
    if (HasLackedMemory()) {
        return;
    }
    bool fgDone = false;
    const Step test([&] { fgDone = client->ConnectionTest(0); });
    EXPECT_EQ(fgDone, !test.Failed({"socket", "connect"}) && !FoundNoHost(test) && !test.LackedMemory());
    EXPECT_EQ(client->GetSocket(), -1);
}

void OwnAddressesAreListed() {
    Made<KNet> net;
    KList<KString> addresses;
    const Step list([&] { net->GetLocalIPs(addresses); });
    if (FoundNoHost(list)) {
        EXPECT_EQ(addresses.GetCount(), 0);
    }
}

// ---------------------------------------------------------------------------------------------------------- Channels

int FreeChannel() {
    return 1001 + getpid() * 500 + 499;
}

void SharedMemoryIsMade() {
    {
        Made<KIPC> server;
        // A channel's record is never freed.
        LeavesBlocks(1);
        server->SetIndex(FreeChannel());
        bool fgDone = false;
        const Step create([&] { fgDone = server->Create(true, KIPC::SHARED_MEMORY); });
        if (create.Failed("shm_open")) {
            // What could not be made is opened, where it is there; it is not.
            EXPECT_FALSE(fgDone);
        } else {
            EXPECT_TRUE(fgDone);
        }
        const bool fgMapped = server->GetSharedMemory() != nullptr;
        if (!server.LackedMemory()) {
            EXPECT_EQ(fgMapped, fgDone && !create.Failed({"mmap", "fstat", "ftruncate"}));
        }
        if (fgMapped) {
            std::memset(server->GetSharedMemory(), 7, sizeof(KIPC::IPCData));
            Made<KIPC> client;
            LeavesBlocks(1);
            client->SetIndex(FreeChannel());
            const Step open([&] { fgDone = client->Create(false, KIPC::SHARED_MEMORY); });
            EXPECT_EQ(fgDone, !open.Failed("shm_open"));
            if (!client.LackedMemory()) {
                EXPECT_EQ(client->GetSharedMemory() != nullptr, !open.Failed());
            }
            const Step close([&] { client->Close(); });
            if (close.Failed("munmap")) {
                // It stays mapped, and can be closed again.
                client->Close();
            }
        }
        const Step close([&] { server->Close(); });
        if (close.Failed("munmap")) {
            server->Close();
        }
    }
    // The name goes with the first that closes; where that failed, by hand.
    shm_unlink(("KALVOREN_IPC_" + std::to_string(FreeChannel())).c_str());
}

void LocalSocketsTalk() {
    const support::ScopedDirectory directory;
    const KPath path(directory.Entry("s").c_str());
    Made<KIPC> server;
    Made<KIPC> client;
    Made<KIPC> accepted;
    LeavesBlocks(3);
    for (KIPC* const pChannel : {&*server, &*client, &*accepted}) {
        pChannel->SetPath(path);
        pChannel->SetType(KIPC::LOCAL_SOCKET);
    }
    if (HasLackedMemory()) {
        return;
    }
    bool fgDone = false;
    const Step create([&] { fgDone = server->Create(true, KIPC::LOCAL_SOCKET); });
    EXPECT_EQ(fgDone, !create.Failed({"socket", "bind", "listen"}));
    EXPECT_EQ(create.Logged("Error****: IPC Socket Create Failed"), create.Failed("socket"));
    if (!fgDone) {
        return;
    }
    const Step createClient([&] { fgDone = client->CreateClient(); });
    EXPECT_EQ(fgDone, !createClient.Failed("socket"));
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
}

}  // namespace

std::vector<Scenario> ConnectionScenarios() {
    return {{"ClientConnectsAndTalks", ClientConnectsAndTalks, {}},
            {"ClientConnectsInTime", ClientConnectsInTime, {}},
            {"ClientConnectsAsynchronously", ClientConnectsAsynchronously, {}},
            {"ServerAcceptsAClient", ServerAcceptsAClient, {"new in bool KNet::Accept(KNet&): pInfo"}},
            {"DatagramsAreExchanged", DatagramsAreExchanged, {}},
            {"DeliveryToManyIsPrepared", DeliveryToManyIsPrepared, {}},
            {"ConnectionIsTested", ConnectionIsTested, {}},
            {"OwnAddressesAreListed", OwnAddressesAreListed, {}},
            {"SharedMemoryIsMade", SharedMemoryIsMade, {"new in KIPC::KIPC(): m_pInternal"}},
            {"LocalSocketsTalk", LocalSocketsTalk, {"new in KIPC::KIPC(): m_pInternal"}}};
}

}  // namespace torture
