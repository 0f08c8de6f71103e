// A lock taken and given back, and threads started and joined.
#include <pthread.h>

#include <mutex>
#include <thread>

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

class Errand : public KThread {
 public:
    ~Errand() override { Stop(); }
    int ThreadMainLoop() override { return 0; }
};

void StartKalvoren(benchmark::State& state) {
    Errand thread;
    for (auto _ : state) {
        thread.Start(10, KThread::NORMAL, -1, nullptr);
        thread.Stop();
    }
}
BENCHMARK(StartKalvoren)->Name("start and join a thread|Kalvoren")->UseRealTime();

void StartLimit(benchmark::State& state) {
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(
            &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
        pthread_join(thread, nullptr);
    }
}
BENCHMARK(StartLimit)->Name("start and join a thread|limit: pthread")->UseRealTime();

void StartStd(benchmark::State& state) {
    for (auto _ : state) {
        std::thread([] {}).join();
    }
}
BENCHMARK(StartStd)->Name("start and join a thread|std::thread")->UseRealTime();

#ifdef KALVOREN_PEER_POCO
void StartPoco(benchmark::State& state) {
    Poco::Thread thread;
    for (auto _ : state) {
        thread.startFunc([] {});
        thread.join();
    }
}
BENCHMARK(StartPoco)->Name("start and join a thread|POCO")->UseRealTime();
#endif

}  // namespace
