// All traffic stays on loopback. A thread of the benchmark's own is the other end of each conversation.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "KDebug.h"
#include "KNet.h"

namespace {

constexpr const char* kLocal = "127.0.0.1";
constexpr int kIpcSize = 520;

/// A write to an end that is gone at the end of a benchmark is neither worth a line nor the end of the program.
const bool g_fgQuiet = [] {
    g_eDebugLevel = 3;
    return std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}();

KNetInfo InfoOf(KNetInfo::NetProtocol eProtocol, int nPort, const char* pszHost = kLocal) {
    return KNetInfo(KNetInfo::IPV4, eProtocol, KNetInfo::UNICAST, pszHost, nPort);
}

int PortOf(const KNet& net) {
    sockaddr_in address = {};
    socklen_t nSize = sizeof(address);
    getsockname(net.GetSocket(), reinterpret_cast<sockaddr*>(&address), &nSize);
    return ntohs(address.sin_port);
}

/// A KNet that closes its socket at the end.
class Net : public KNet {
 public:
    Net() = default;
    explicit Net(KNetInfo info) : KNet(info, 0) {}
    ~Net() override { DeleteSocket(); }
    Net(const Net&) = delete;
    Net& operator=(const Net&) = delete;

    /// Small messages leave at once.
    void DoNotDelay() const {
        const int nOn = 1;
        setsockopt(GetSocket(), IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
    }
};

/// Both ends of a TCP connection.
struct Connection {
    Net server;
    Net client;
    Net accepted;
    bool fgMade;

    Connection() : server(InfoOf(KNetInfo::TCP, 0)), fgMade(server.CreateSocket() && server.Bind()) {
        client.SetConnectionInfo(InfoOf(KNetInfo::TCP, PortOf(server)), 0);
        fgMade = fgMade && client.GetHostName() && client.CreateSocket() && client.SyncConnectWithBlock() &&
                 server.Accept(accepted);
        client.DoNotDelay();
        accepted.DoNotDelay();
    }
};

/// A datagram socket that can be sent to; Bind() cannot make one.
class Receiver : public Net {
 public:
    bool fgMade;

    Receiver() : Net(InfoOf(KNetInfo::UDP, 0)), fgMade(CreateSocket() && BindToLocal()) {}

 private:
    bool BindToLocal() const {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return bind(GetSocket(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
};

// ------------------------------------------------------------------------------------------------------- Objects

void MakeAndDestroy(benchmark::State& state) {
    for (auto _ : state) {
        const KNet net;
        benchmark::DoNotOptimize(&net);
    }
}
BENCHMARK(MakeAndDestroy);

void Copy(benchmark::State& state) {
    KNetInfo info = InfoOf(KNetInfo::TCP, 0);
    KNet net(info, 0);
    net.GetHostName();
    for (auto _ : state) {
        const KNet copy(net);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(Copy);

void CreateAndDeleteSocket(benchmark::State& state) {
    Net net(InfoOf(KNetInfo::UDP, 0));
    for (auto _ : state) {
        net.CreateSocket();
        net.DeleteSocket();
    }
}
BENCHMARK(CreateAndDeleteSocket);

void BindTest(benchmark::State& state) {
    Net net(InfoOf(KNetInfo::TCP, 0));
    for (auto _ : state) {
        net.CreateSocket();
        if (!net.BindTest()) {
            state.SkipWithError("the port cannot be bound");
        }
    }
}
BENCHMARK(BindTest);

// ------------------------------------------------------------------------------------------------------- Look-ups

void LookUp(benchmark::State& state, const char* pszHost, bool fgExpected) {
    Net net(InfoOf(KNetInfo::TCP, 0, pszHost));
    for (auto _ : state) {
        if (net.GetHostName() != fgExpected) {
            state.SkipWithError("the look-up's result is not the expected one");
        }
    }
}
BENCHMARK_CAPTURE(LookUp, AnAddress, "127.0.0.1", true);
BENCHMARK_CAPTURE(LookUp, AName, "localhost", true);
BENCHMARK_CAPTURE(LookUp, NoAddress, "300.0.0.1", false);

void LookUpAmongThreads(benchmark::State& state) {
    Net net(InfoOf(KNetInfo::TCP, 0, "localhost"));
    for (auto _ : state) {
        benchmark::DoNotOptimize(net.GetHostName());
    }
}
BENCHMARK(LookUpAmongThreads)->ThreadRange(1, 4)->UseRealTime();

void GetLocalIPs(benchmark::State& state) {
    KNet net;
    for (auto _ : state) {
        KList<KString> ips;
        net.GetLocalIPs(ips);
        benchmark::DoNotOptimize(&ips);
    }
}
BENCHMARK(GetLocalIPs);

// ------------------------------------------------------------------------------------------------------- Connecting

enum class Way { BLOCKING, TIMED, STEPWISE };

bool ConnectBy(Way eWay, KNet& net) {
    constexpr int kLong = 10000;
    switch (eWay) {
        case Way::BLOCKING:
            return net.SyncConnectWithBlock();
        case Way::TIMED:
            return net.SyncConnectWithTimedBlock(kLong);
        case Way::STEPWISE:
            return net.ASyncConnectionCheckStart() >= 0 && net.ASyncConnectionChecking(kLong) == 0 &&
                   net.ASyncConnectionCheckDone(true);
    }
    return false;
}

/// A connection from its making to its end. The server resets it, so that no port is kept waiting.
void ConnectAndAccept(benchmark::State& state, Way eWay) {
    Net server(InfoOf(KNetInfo::TCP, 0));
    server.CreateSocket();
    server.Bind();
    Net client(InfoOf(KNetInfo::TCP, PortOf(server)));
    client.GetHostName();
    const linger abort = {1, 0};
    for (auto _ : state) {
        Net accepted;
        if (!client.CreateSocket() || !ConnectBy(eWay, client) || !server.Accept(accepted)) {
            state.SkipWithError("no connection");
            break;
        }
        setsockopt(accepted.GetSocket(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
        accepted.DeleteSocket();
        client.DeleteSocket();
    }
}
BENCHMARK_CAPTURE(ConnectAndAccept, Blocking, Way::BLOCKING);
BENCHMARK_CAPTURE(ConnectAndAccept, Timed, Way::TIMED);
BENCHMARK_CAPTURE(ConnectAndAccept, Stepwise, Way::STEPWISE);

// ---------------------------------------------------------------------------------------------------- Conversations

/// A message there and back, over TCP, by sizes; 520 bytes is what an IPC channel carries.
void TcpEcho(benchmark::State& state) {
    const int nSize = static_cast<int>(state.range(0));
    Connection connection;
    if (!connection.fgMade) {
        state.SkipWithError("no connection");
        return;
    }
    std::thread echo([&connection, nSize] {
        std::vector<char> buffer(static_cast<std::size_t>(nSize));
        while (connection.accepted.Read(buffer.data(), nSize, false) == -1) {
            connection.accepted.Write(buffer.data(), nSize);
        }
    });
    std::vector<char> buffer(static_cast<std::size_t>(nSize), 'x');
    for (auto _ : state) {
        if (connection.client.Write(buffer.data(), nSize) != nSize ||
            connection.client.Read(buffer.data(), nSize, false) != -1) {
            state.SkipWithError("the echo failed");
            break;
        }
    }
    shutdown(connection.client.GetSocket(), SHUT_RDWR);
    echo.join();
    state.SetBytesProcessed(state.iterations() * 2 * nSize);
}
BENCHMARK(TcpEcho)->Arg(1)->Arg(kIpcSize)->Arg(4096)->Arg(65536)->UseRealTime();

/// A stream in one direction, by the size of a write.
void TcpStream(benchmark::State& state) {
    const int nSize = static_cast<int>(state.range(0));
    Connection connection;
    if (!connection.fgMade) {
        state.SkipWithError("no connection");
        return;
    }
    std::thread sink([&connection] {
        std::vector<char> buffer(1 << 16);
        while (recv(connection.accepted.GetSocket(), buffer.data(), buffer.size(), 0) > 0) {
        }
    });
    const std::vector<char> buffer(static_cast<std::size_t>(nSize), 'x');
    for (auto _ : state) {
        if (connection.client.Write(buffer.data(), nSize) != nSize) {
            state.SkipWithError("the write failed");
            break;
        }
    }
    shutdown(connection.client.GetSocket(), SHUT_RDWR);
    sink.join();
    state.SetBytesProcessed(state.iterations() * nSize);
}
BENCHMARK(TcpStream)->RangeMultiplier(8)->Range(64, 262144)->UseRealTime();

/// A datagram of 520 bytes there and back, in one thread.
void UdpRoundTrip(benchmark::State& state) {
    Receiver server;
    Receiver client;
    if (!server.fgMade || !client.fgMade) {
        state.SkipWithError("no sockets");
        return;
    }
    const KString host(kLocal);
    const int nServerPort = PortOf(server);
    std::vector<char> buffer(kIpcSize, 'x');
    for (auto _ : state) {
        KString ip;
        int nPort = 0;
        client.WriteWithClientInfo(buffer.data(), kIpcSize, host, nServerPort);
        if (server.ReadWithClientInfo(buffer.data(), kIpcSize, ip, nPort, false) != kIpcSize ||
            server.WriteWithClientInfo(buffer.data(), kIpcSize, ip, nPort) != kIpcSize ||
            client.Read(buffer.data(), kIpcSize, false) != -1) {
            state.SkipWithError("the round trip failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * 2 * kIpcSize);
}
BENCHMARK(UdpRoundTrip);

void GetReceivedSize(benchmark::State& state) {
    Connection connection;
    connection.accepted.Write("hello", 5);
    for (auto _ : state) {
        if (connection.client.GetReceivedSize() != 5) {
            state.SkipWithError("not what was sent");
            break;
        }
    }
}
BENCHMARK(GetReceivedSize);

}  // namespace
