// Bytes through sockets of this machine. One thread holds both ends, so that no scheduling is measured.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "BareCalls.h"
#include "KIPC.h"
#include "KNet.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_POCO
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#endif

namespace {

constexpr const char* kLocal = "127.0.0.1";

const bool g_fgNoSignal = std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;

void DoNotDelay(int nSocket) {
    const int nOn = 1;
    setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn);
}

// ----------------------------------------------------------------------------------------------------- The connections

/// Each kind of connection has two ends, and moves so many bytes from the one to the other or back. What moves them tells
/// how many.
class KalvorenTcp {
 public:
    KalvorenTcp() {
        KNetInfo info(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, kLocal, 0);
        m_Server.SetConnectionInfo(info, 0);
        m_Server.CreateSocket();
        m_Server.Bind();
        info.SetPort(PortOf(m_Server.GetSocket()));
        m_Client.SetConnectionInfo(info, 0);
        if (m_Client.GetHostName() && m_Client.CreateSocket() && m_Client.SyncConnectWithBlock()) {
            m_Server.Accept(m_Peer);
        }
        DoNotDelay(m_Client.GetSocket());
        DoNotDelay(m_Peer.GetSocket());
    }
    ~KalvorenTcp() {
        m_Client.DeleteSocket();
        m_Peer.DeleteSocket();
        m_Server.DeleteSocket();
    }
    KalvorenTcp(const KalvorenTcp&) = delete;
    KalvorenTcp& operator=(const KalvorenTcp&) = delete;

    int Send(const char* pBytes, int nSize) { return m_Client.Write(pBytes, nSize); }
    int Receive(char* pBytes, int nSize) { return Get(m_Peer, pBytes, nSize); }
    int Answer(const char* pBytes, int nSize) { return m_Peer.Write(pBytes, nSize); }
    int ReceiveAnswer(char* pBytes, int nSize) { return Get(m_Client, pBytes, nSize); }

 private:
    /// Reading is -1 when all bytes have come.
    static int Get(KNet& net, char* pBytes, int nSize) { return net.Read(pBytes, nSize, false) == -1 ? nSize : 0; }

    KNet m_Server;
    KNet m_Client;
    KNet m_Peer;
};

/// What is sent begins with a line of the cache, whoever sends it: the kernel's copying depends on it.
struct alignas(64) Line {
    char bytes[64];
};

/// Moves records of a size of its own.
class KalvorenLocal {
 public:
    KalvorenLocal() {
        for (KIPC* const pChannel : {&m_Server, &m_Client, &m_Peer}) {
            pChannel->SetIndex(1);
            pChannel->SetType(KIPC::LOCAL_SOCKET);
            pChannel->SetPath(KPath(m_Directory.Path().c_str()));
        }
        m_Server.Create(true, KIPC::LOCAL_SOCKET);
        m_Client.CreateClient();
        if (m_Client.ConnectToServer()) {
            m_Server.WaitForConnectToMe(m_Peer);
        }
    }

    int Send(const char*, int nSize) { return m_Client.Write(m_Data) ? nSize : 0; }
    int Receive(char*, int nSize) { return m_Peer.Read(m_Data) ? nSize : 0; }
    int Answer(const char*, int nSize) { return m_Peer.Write(m_Data) ? nSize : 0; }
    int ReceiveAnswer(char*, int nSize) { return m_Client.Read(m_Data) ? nSize : 0; }

 private:
    alignas(Line) KIPC::IPCData m_Data = {};
    ScratchDirectory m_Directory;
    KIPC m_Server;
    KIPC m_Client;
    KIPC m_Peer;
};

ssize_t ReceiveBytes(int nSocket, void* pBytes, std::size_t nSize) {
    return recv(nSocket, pBytes, nSize, MSG_WAITALL);
}
ssize_t SendBytes(int nSocket, const void* pBytes, std::size_t nSize) {
    return send(nSocket, pBytes, nSize, 0);
}

template <ssize_t (*ReceiveCall)(int, void*, std::size_t), ssize_t (*SendCall)(int, const void*, std::size_t)>
class Bare {
 public:
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    int Send(const char* pBytes, int nSize) { return Put(m_nClient, pBytes, nSize); }
    int Receive(char* pBytes, int nSize) { return Get(m_nPeer, pBytes, nSize); }
    int Answer(const char* pBytes, int nSize) { return Put(m_nPeer, pBytes, nSize); }
    int ReceiveAnswer(char* pBytes, int nSize) { return Get(m_nClient, pBytes, nSize); }

 protected:
    Bare() = default;
    ~Bare() {
        close(m_nClient);
        close(m_nPeer);
    }

    /// Connects the two ends by way of a socket that is bound to an address.
    template <class Address>
    void Connect(const Address& address) {
        const int nServer = socket(AddressOf(address)->sa_family, SOCK_STREAM, 0);
        m_nClient = socket(AddressOf(address)->sa_family, SOCK_STREAM, 0);
        // The port is the system's choice.
        Address bound = {};
        socklen_t nSize = sizeof bound;
        if (bind(nServer, AddressOf(address), sizeof address) == 0 && listen(nServer, 1) == 0 &&
            getsockname(nServer, reinterpret_cast<sockaddr*>(&bound), &nSize) == 0 &&
            connect(m_nClient, AddressOf(bound), nSize) == 0) {
            m_nPeer = accept(nServer, nullptr, nullptr);
        }
        close(nServer);
    }

    int m_nClient = -1;
    int m_nPeer = -1;

 private:
    template <class Address>
    static const sockaddr* AddressOf(const Address& address) {
        return reinterpret_cast<const sockaddr*>(&address);
    }
    static int Put(int nSocket, const char* pBytes, int nSize) {
        return static_cast<int>(SendCall(nSocket, pBytes, static_cast<std::size_t>(nSize)));
    }
    static int Get(int nSocket, char* pBytes, int nSize) {
        return static_cast<int>(ReceiveCall(nSocket, pBytes, static_cast<std::size_t>(nSize)));
    }
};

class BareTcp : public Bare<ReceiveBytes, SendBytes> {
 public:
    BareTcp() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Connect(address);
        DoNotDelay(m_nClient);
        DoNotDelay(m_nPeer);
    }
};

/// As the library's channel: a socket with a name, and read and write.
class BareLocal : public Bare<read, write> {
 public:
    BareLocal() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        (m_Directory.Path() + "/socket").copy(address.sun_path, sizeof address.sun_path - 1);
        Connect(address);
    }

 private:
    ScratchDirectory m_Directory;
};

#ifdef KALVOREN_PEER_POCO
class PocoEnds {
 public:
    int Send(const char* pBytes, int nSize) { return m_Client.sendBytes(pBytes, nSize); }
    int Receive(char* pBytes, int nSize) { return m_Peer.receiveBytes(pBytes, nSize); }
    int Answer(const char* pBytes, int nSize) { return m_Peer.sendBytes(pBytes, nSize); }
    int ReceiveAnswer(char* pBytes, int nSize) { return m_Client.receiveBytes(pBytes, nSize); }

 protected:
    PocoEnds() = default;

    void Connect(Poco::Net::ServerSocket& server) {
        m_Client.connect(server.address());
        m_Peer = server.acceptConnection();
    }

    Poco::Net::StreamSocket m_Client;
    Poco::Net::StreamSocket m_Peer;
};

class PocoTcp : public PocoEnds {
 public:
    PocoTcp() {
        Poco::Net::ServerSocket server(Poco::Net::SocketAddress(kLocal, 0));
        Connect(server);
        m_Client.setNoDelay(true);
        m_Peer.setNoDelay(true);
    }
};

class PocoLocal : public PocoEnds {
 public:
    PocoLocal() {
        Poco::Net::ServerSocket server;
        server.bind(Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, m_Directory.Path() + "/socket"));
        server.listen();
        Connect(server);
    }

 private:
    ScratchDirectory m_Directory;
};
#endif

// ------------------------------------------------------------------------------------------------------------ The jobs

/// Calls @p receive with how many bytes are left until none is; returns how many came.
template <class Receive>
int ReceiveAll(int nSize, Receive receive) {
    int nReceived = 0;
    while (nReceived < nSize) {
        const int nPart = receive(nSize - nReceived);
        if (nPart <= 0) {
            break;
        }
        nReceived += nPart;
    }
    return nReceived;
}

template <class Connection>
void Echo(benchmark::State& state) {
    const int nSize = static_cast<int>(state.range(0));
    Connection connection;
    std::vector<Line> lines(static_cast<std::size_t>(nSize) / sizeof(Line) + 1);
    char* const pBytes = lines.data()->bytes;
    for (auto _ : state) {
        const int nSent = connection.Send(pBytes, nSize) +
                          ReceiveAll(nSize, [&](int nRest) { return connection.Receive(pBytes, nRest); });
        const int nAnswered = connection.Answer(pBytes, nSize) +
                              ReceiveAll(nSize, [&](int nRest) { return connection.ReceiveAnswer(pBytes, nRest); });
        if (nSent + nAnswered != 4 * nSize) {
            state.SkipWithError("bytes were lost");
        }
    }
}

template <class Connection>
void Stream(benchmark::State& state) {
    const int nSize = static_cast<int>(state.range(0));
    Connection connection;
    std::vector<Line> lines(static_cast<std::size_t>(nSize) / sizeof(Line) + 1);
    char* const pBytes = lines.data()->bytes;
    for (auto _ : state) {
        const int nSent = connection.Send(pBytes, nSize);
        if (ReceiveAll(nSent, [&](int nRest) { return connection.Receive(pBytes, nRest); }) != nSize) {
            state.SkipWithError("bytes were lost");
        }
    }
}

void Record(benchmark::internal::Benchmark* job) {
    job->Arg(sizeof(KIPC::IPCData));
}

void Sizes(benchmark::internal::Benchmark* job) {
    job->Arg(64)->Arg(1 << 10)->Arg(16 << 10)->Arg(64 << 10);
}

const bool g_fgRegistered = [] {
    const auto add = [](const char* pszName, void (*pJob)(benchmark::State&),
                        void (*pSizes)(benchmark::internal::Benchmark*)) {
        benchmark::RegisterBenchmark(pszName, pJob)->Apply(pSizes);
    };
    add("a record of n bytes there and back|Kalvoren", Echo<KalvorenLocal>, Record);
    add("a record of n bytes there and back|limit: write, read", Echo<BareLocal>, Record);
    add("n bytes over TCP and back|Kalvoren", Echo<KalvorenTcp>, Sizes);
    add("n bytes over TCP and back|limit: send, recv", Echo<BareTcp>, Sizes);
    add("n bytes over TCP|Kalvoren", Stream<KalvorenTcp>, Sizes);
    add("n bytes over TCP|limit: send, recv", Stream<BareTcp>, Sizes);
#ifdef KALVOREN_PEER_POCO
    add("a record of n bytes there and back|POCO", Echo<PocoLocal>, Record);
    add("n bytes over TCP and back|POCO", Echo<PocoTcp>, Sizes);
    add("n bytes over TCP|POCO", Stream<PocoTcp>, Sizes);
#endif
    return true;
}();

}  // namespace
