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

int PortOf(int nSocket) {
    sockaddr_in address = {};
    socklen_t nSize = sizeof address;
    getsockname(nSocket, reinterpret_cast<sockaddr*>(&address), &nSize);
    return ntohs(address.sin_port);
}

// --------------------------------------------------------------------------------------------- Records, both ways

void RecordKalvoren(benchmark::State& state) {
    const ScratchDirectory directory;
    KIPC server;
    KIPC client;
    KIPC peer;
    for (KIPC* const pChannel : {&server, &client, &peer}) {
        pChannel->SetIndex(1);
        pChannel->SetType(KIPC::LOCAL_SOCKET);
        pChannel->SetPath(KPath(directory.Path().c_str()));
    }
    server.Create(true, KIPC::LOCAL_SOCKET);
    client.CreateClient();
    if (!client.ConnectToServer() || !server.WaitForConnectToMe(peer)) {
        state.SkipWithError("no connection");
    }
    KIPC::IPCData data = {};
    for (auto _ : state) {
        bool fgWhole = client.Write(data) && peer.Read(data) && peer.Write(data) && client.Read(data);
        benchmark::DoNotOptimize(fgWhole);
    }
}
BENCHMARK(RecordKalvoren)->Name("a 520-byte record there and back|Kalvoren");

void RecordLimit(benchmark::State& state) {
    int nEnds[2] = {};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, nEnds) != 0) {
        state.SkipWithError("no connection");
    }
    char record[520] = {};
    for (auto _ : state) {
        ssize_t nSum = send(nEnds[0], record, sizeof record, 0);
        nSum += recv(nEnds[1], record, sizeof record, 0);
        nSum += send(nEnds[1], record, sizeof record, 0);
        nSum += recv(nEnds[0], record, sizeof record, 0);
        benchmark::DoNotOptimize(nSum);
    }
    close(nEnds[0]);
    close(nEnds[1]);
}
BENCHMARK(RecordLimit)->Name("a 520-byte record there and back|limit: send, recv");

#ifdef KALVOREN_PEER_POCO
void RecordPoco(benchmark::State& state) {
    const ScratchDirectory directory;
    Poco::Net::ServerSocket server;
    const Poco::Net::SocketAddress address(Poco::Net::SocketAddress::UNIX_LOCAL, directory.Path() + "/socket");
    server.bind(address);
    server.listen();
    Poco::Net::StreamSocket client(address);
    Poco::Net::StreamSocket peer = server.acceptConnection();
    char record[520] = {};
    constexpr int kSize = sizeof record;
    for (auto _ : state) {
        int nSum = client.sendBytes(record, kSize) + peer.receiveBytes(record, kSize);
        nSum += peer.sendBytes(record, kSize) + client.receiveBytes(record, kSize);
        if (nSum != 4 * kSize) {
            state.SkipWithError("bytes were lost");
        }
    }
}
BENCHMARK(RecordPoco)->Name("a 520-byte record there and back|POCO");
#endif

// ------------------------------------------------------------------------------------------------------------ TCP

/// Each kind of connection has the two ends as sockets, and `Echo` and `Pass`, which move so many bytes.
class Kalvoren {
 public:
    Kalvoren() {
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
    ~Kalvoren() {
        m_Client.DeleteSocket();
        m_Peer.DeleteSocket();
        m_Server.DeleteSocket();
    }
    Kalvoren(const Kalvoren&) = delete;
    Kalvoren& operator=(const Kalvoren&) = delete;

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

class Bare {
 public:
    Bare() {
        const int nServer = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(nServer, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(nServer, 1);
        address.sin_port = htons(static_cast<std::uint16_t>(PortOf(nServer)));
        m_nClient = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(m_nClient, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            m_nPeer = accept(nServer, nullptr, nullptr);
        }
        close(nServer);
        DoNotDelay(m_nClient);
        DoNotDelay(m_nPeer);
    }
    ~Bare() {
        close(m_nClient);
        close(m_nPeer);
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    int Send(const char* pBytes, int nSize) { return Put(m_nClient, pBytes, nSize); }
    int Receive(char* pBytes, int nSize) { return Get(m_nPeer, pBytes, nSize); }
    int Answer(const char* pBytes, int nSize) { return Put(m_nPeer, pBytes, nSize); }
    int ReceiveAnswer(char* pBytes, int nSize) { return Get(m_nClient, pBytes, nSize); }

 private:
    static int Put(int nSocket, const char* pBytes, int nSize) {
        return static_cast<int>(send(nSocket, pBytes, static_cast<std::size_t>(nSize), 0));
    }
    static int Get(int nSocket, char* pBytes, int nSize) {
        return static_cast<int>(recv(nSocket, pBytes, static_cast<std::size_t>(nSize), 0));
    }

    int m_nClient = -1;
    int m_nPeer = -1;
};

#ifdef KALVOREN_PEER_POCO
class Poco_ {
 public:
    Poco_() {
        Poco::Net::ServerSocket server(Poco::Net::SocketAddress(kLocal, 0));
        m_Client.connect(server.address());
        m_Peer = server.acceptConnection();
        m_Client.setNoDelay(true);
        m_Peer.setNoDelay(true);
    }

    int Send(const char* pBytes, int nSize) { return m_Client.sendBytes(pBytes, nSize); }
    int Receive(char* pBytes, int nSize) { return m_Peer.receiveBytes(pBytes, nSize); }
    int Answer(const char* pBytes, int nSize) { return m_Peer.sendBytes(pBytes, nSize); }
    int ReceiveAnswer(char* pBytes, int nSize) { return m_Client.receiveBytes(pBytes, nSize); }

 private:
    Poco::Net::StreamSocket m_Client;
    Poco::Net::StreamSocket m_Peer;
};
#endif

template <class Connection>
void Echo(benchmark::State& state) {
    Connection connection;
    char bytes[64] = {};
    constexpr int kSize = sizeof bytes;
    for (auto _ : state) {
        int nSum = connection.Send(bytes, kSize) + connection.Receive(bytes, kSize);
        nSum += connection.Answer(bytes, kSize) + connection.ReceiveAnswer(bytes, kSize);
        if (nSum != 4 * kSize) {
            state.SkipWithError("bytes were lost");
        }
    }
}

template <class Connection>
void Stream(benchmark::State& state) {
    constexpr int kSize = 64 << 10;
    Connection connection;
    std::vector<char> bytes(kSize);
    for (auto _ : state) {
        const int nSent = connection.Send(bytes.data(), kSize);
        for (int nReceived = 0; nReceived < nSent;) {
            const int nPart = connection.Receive(bytes.data(), kSize);
            if (nPart <= 0) {
                state.SkipWithError("bytes were lost");
                break;
            }
            nReceived += nPart;
        }
    }
}

BENCHMARK_TEMPLATE(Echo, Kalvoren)->Name("64 bytes over TCP and back|Kalvoren");
BENCHMARK_TEMPLATE(Echo, Bare)->Name("64 bytes over TCP and back|limit: send, recv");
BENCHMARK_TEMPLATE(Stream, Kalvoren)->Name("64 KiB over TCP|Kalvoren");
BENCHMARK_TEMPLATE(Stream, Bare)->Name("64 KiB over TCP|limit: send, recv");
#ifdef KALVOREN_PEER_POCO
BENCHMARK_TEMPLATE(Echo, Poco_)->Name("64 bytes over TCP and back|POCO");
BENCHMARK_TEMPLATE(Stream, Poco_)->Name("64 KiB over TCP|POCO");
#endif

}  // namespace
