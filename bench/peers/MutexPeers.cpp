// A lock taken and given back, and threads started and joined.
#include <pthread.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KThread.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_POCO
#include <Poco/Thread.h>
#endif

namespace {

void LockKalvoren(benchmark::State& state) {
    const KMutex mutex;
    for (auto _ : state) {
        mutex.Lock();
        mutex.Unlock();
    }
}
BENCHMARK(LockKalvoren)->Name("lock and unlock|Kalvoren");

void LockLimit(benchmark::State& state) {
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, nullptr);
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
}
BENCHMARK(LockLimit)->Name("lock and unlock|limit: pthread");

void LockStd(benchmark::State& state) {
    std::mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
    }
}
BENCHMARK(LockStd)->Name("lock and unlock|std::mutex");

#ifdef KALVOREN_PEER_GLIB
void LockGlib(benchmark::State& state) {
    GMutex mutex;
    g_mutex_init(&mutex);
    for (auto _ : state) {
        g_mutex_lock(&mutex);
        g_mutex_unlock(&mutex);
    }
    g_mutex_clear(&mutex);
}
BENCHMARK(LockGlib)->Name("lock and unlock|GMutex");
#endif

// ------------------------------------------------------------------------------------------------------ Threads

/// A thread that does nothing.
class Errand : public KThread {
 public:
    ~Errand() override { Stop(); }
    int ThreadMainLoop() override { return 0; }
};

std::size_t Count(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

// All are started, then each is waited for.

void StartKalvoren(benchmark::State& state) {
    std::vector<Errand> threads(Count(state));
    for (auto _ : state) {
        for (Errand& thread : threads) {
            thread.Start(10, KThread::NORMAL, -1, nullptr);
        }
        for (Errand& thread : threads) {
            thread.Stop();
        }
    }
}

void StartLimit(benchmark::State& state) {
    std::vector<pthread_t> threads(Count(state));
    for (auto _ : state) {
        for (pthread_t& thread : threads) {
            pthread_create(
                &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
        }
        for (const pthread_t thread : threads) {
            pthread_join(thread, nullptr);
        }
    }
}

void StartStd(benchmark::State& state) {
    std::vector<std::thread> threads(Count(state));
    for (auto _ : state) {
        for (std::thread& thread : threads) {
            thread = std::thread([] {});
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

#ifdef KALVOREN_PEER_POCO
void StartPoco(benchmark::State& state) {
    std::vector<Poco::Thread> threads(Count(state));
    for (auto _ : state) {
        for (Poco::Thread& thread : threads) {
            thread.startFunc([] {});
        }
        for (Poco::Thread& thread : threads) {
            thread.join();
        }
    }
}
#endif

const bool g_fgRegistered = [] {
    const auto add = [](const char* pszName, void (*pJob)(benchmark::State&)) {
        benchmark::RegisterBenchmark(pszName, pJob)->Arg(1)->Arg(10)->Arg(100)->UseRealTime();
    };
    add("start and join n threads|Kalvoren", StartKalvoren);
    add("start and join n threads|limit: pthread", StartLimit);
    add("start and join n threads|std::thread", StartStd);
#ifdef KALVOREN_PEER_POCO
    add("start and join n threads|POCO", StartPoco);
#endif
    return true;
}();

}  // namespace
