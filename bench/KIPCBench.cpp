#include "KIPC.h"

#include <benchmark/benchmark.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KDebug.h"

namespace {

constexpr int kNoLines = 3;

/// A channel number that no other process on this machine uses at the same time.
int OwnNumber() {
    constexpr int kAboveTheTable = 1001;
    return kAboveTheTable + getpid();
}

/// A directory for socket files, gone at the end of the block. Logging is off: it is not what is measured.
class Scratch {
 public:
    Scratch() : m_nLevelBefore(g_eDebugLevel), m_Directory("/tmp/kalvoren-bench-XXXXXX") {
        g_eDebugLevel = kNoLines;
        if (mkdtemp(&m_Directory[0]) == nullptr) {
            m_Directory = "/tmp";
        }
    }
    ~Scratch() {
        for (int nIndex : m_Numbers) {
            unlink((m_Directory + "/channel_" + std::to_string(nIndex)).c_str());
        }
        rmdir(m_Directory.c_str());
        g_eDebugLevel = m_nLevelBefore;
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    /// Prepares a channel so that it is a local socket in this directory, also when it is destroyed.
    void Prepare(KIPC& channel, int nIndex = 0) {
        channel.SetType(KIPC::LOCAL_SOCKET);
        channel.SetPath(KPath((m_Directory + "/channel").c_str()));
        channel.SetIndex(nIndex);
        m_Numbers.push_back(nIndex);
    }

 private:
    int m_nLevelBefore;
    std::string m_Directory;
    std::vector<int> m_Numbers;
};

// ------------------------------------------------------------------------------------------------------- Shared memory

void CreateAndCloseSharedMemory(benchmark::State& state) {
    KIPC server;
    server.SetIndex(OwnNumber());
    for (auto _ : state) {
        server.Create(true, KIPC::SHARED_MEMORY);
        server.Close();
    }
    server.SetType(KIPC::UNSUPPORTED);
}
BENCHMARK(CreateAndCloseSharedMemory);

void PutARecordIntoSharedMemory(benchmark::State& state) {
    KIPC server;
    server.SetIndex(OwnNumber());
    server.Create(true, KIPC::SHARED_MEMORY);
    const KIPC::IPCData data = {};
    for (auto _ : state) {
        std::memcpy(server.GetSharedMemory(), &data, sizeof data);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(sizeof data));
}
BENCHMARK(PutARecordIntoSharedMemory);

// ------------------------------------------------------------------------------------------------------- Local sockets

void CreateAndCloseALocalSocket(benchmark::State& state) {
    Scratch scratch;
    KIPC server;
    scratch.Prepare(server);
    for (auto _ : state) {
        server.Create(true, KIPC::LOCAL_SOCKET);
        server.Close();
    }
}
BENCHMARK(CreateAndCloseALocalSocket);

void CreateAndCloseManyLocalSockets(benchmark::State& state) {
    Scratch scratch;
    std::vector<std::unique_ptr<KIPC>> servers;
    for (int i = 0; i < state.range(0); ++i) {
        servers.push_back(std::make_unique<KIPC>());
        scratch.Prepare(*servers.back(), i);
    }
    for (auto _ : state) {
        for (const auto& pServer : servers) {
            pServer->Create(true, KIPC::LOCAL_SOCKET);
        }
        for (const auto& pServer : servers) {
            pServer->Close();
        }
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(CreateAndCloseManyLocalSockets)->RangeMultiplier(10)->Range(1, 1000)->Complexity(benchmark::oN);

void ConnectAcceptAndClose(benchmark::State& state) {
    Scratch scratch;
    KIPC server;
    KIPC peer;
    KIPC client;
    scratch.Prepare(server);
    scratch.Prepare(peer);
    scratch.Prepare(client);
    server.Create(true, KIPC::LOCAL_SOCKET);
    for (auto _ : state) {
        client.CreateClient();
        if (!client.ConnectToServer() || !server.WaitForConnectToMe(peer)) {
            state.SkipWithError("no connection");
        }
        client.Close();
        peer.Close();
    }
}
BENCHMARK(ConnectAcceptAndClose);

/// A server's peer and a client that are connected.
struct Connection {
    explicit Connection(Scratch& scratch) {
        scratch.Prepare(server);
        scratch.Prepare(peer);
        scratch.Prepare(client);
        server.Create(true, KIPC::LOCAL_SOCKET);
        client.CreateClient();
        client.ConnectToServer();
        server.WaitForConnectToMe(peer);
    }

    KIPC server;
    KIPC peer;
    KIPC client;
};

void WriteAndReadARecord(benchmark::State& state) {
    Scratch scratch;
    Connection connection(scratch);
    KIPC::IPCData data = {};
    for (auto _ : state) {
        if (!connection.client.Write(data) || !connection.peer.Read(data)) {
            state.SkipWithError("a record was lost");
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(sizeof data));
}
BENCHMARK(WriteAndReadARecord);

/// A record's way to another process and back.
void SendARecordToAnotherProcessAndBack(benchmark::State& state) {
    Scratch scratch;
    Connection connection(scratch);
    const pid_t nChild = fork();
    if (nChild == 0) {
        KIPC::IPCData data = {};
        connection.client.Close();
        while (connection.peer.Read(data) && connection.peer.Write(data)) {
        }
        _exit(0);
    }
    connection.peer.Close();
    KIPC::IPCData data = {};
    for (auto _ : state) {
        if (!connection.client.Write(data) || !connection.client.Read(data)) {
            state.SkipWithError("a record was lost");
        }
    }
    connection.client.Close();
    waitpid(nChild, nullptr, 0);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SendARecordToAnotherProcessAndBack)->UseRealTime();

}  // namespace
