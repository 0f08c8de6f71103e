// Buffers handed from a writer to a reader and back, by one thread and by two.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "BareCalls.h"
#include "KQueue.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_MOODYCAMEL
#include <concurrentqueue/concurrentqueue.h>
#endif

namespace {

/// Each side is asked for a buffer until it has one, and given it on. A reader that finds none yields.
class Kalvoren {
 public:
    explicit Kalvoren(int nPool) : m_Queue(nPool) {}
    bool Hand() {
        KDynamicDataBuffer* const pBuffer = m_Queue.PopWrite();
        return pBuffer != nullptr && m_Queue.PushWrite(pBuffer);
    }
    bool Take() {
        KDynamicDataBuffer* const pBuffer = m_Queue.PopRead();
        return pBuffer != nullptr && m_Queue.PushRead(pBuffer);
    }

 private:
    KManagedDynamicDataQueue m_Queue;
};

class StdDeque {
 public:
    explicit StdDeque(int nPool) : m_Buffers(static_cast<std::size_t>(nPool)) {
        for (auto& buffer : m_Buffers) {
            m_Free.Push(&buffer);
        }
    }
    bool Hand() { return Move(m_Free, m_Full); }
    bool Take() { return Move(m_Full, m_Free); }

 private:
    using Buffer = std::vector<unsigned char>;
    using Queue = bare::Queue<Buffer>;
    static bool Move(Queue& from, Queue& to) {
        Buffer* const pBuffer = from.Pop();
        if (pBuffer == nullptr) {
            return false;
        }
        to.Push(pBuffer);
        return true;
    }

    std::vector<Buffer> m_Buffers;
    Queue m_Free;
    Queue m_Full;
};

#ifdef KALVOREN_PEER_GLIB
class Glib {
 public:
    explicit Glib(int nPool)
        : m_Buffers(static_cast<std::size_t>(nPool)), m_pFree(g_async_queue_new()), m_pFull(g_async_queue_new()) {
        for (auto& buffer : m_Buffers) {
            g_async_queue_push(m_pFree, &buffer);
        }
    }
    ~Glib() {
        g_async_queue_unref(m_pFree);
        g_async_queue_unref(m_pFull);
    }
    Glib(const Glib&) = delete;
    Glib& operator=(const Glib&) = delete;
    bool Hand() { return Move(m_pFree, m_pFull); }
    bool Take() { return Move(m_pFull, m_pFree); }

 private:
    static bool Move(GAsyncQueue* pFrom, GAsyncQueue* pTo) {
        void* const pBuffer = g_async_queue_try_pop(pFrom);
        if (pBuffer == nullptr) {
            return false;
        }
        g_async_queue_push(pTo, pBuffer);
        return true;
    }

    std::vector<std::vector<unsigned char>> m_Buffers;
    GAsyncQueue* m_pFree;
    GAsyncQueue* m_pFull;
};
#endif

#ifdef KALVOREN_PEER_MOODYCAMEL
class Moodycamel {
 public:
    explicit Moodycamel(int nPool) : m_Buffers(static_cast<std::size_t>(nPool)) {
        for (auto& buffer : m_Buffers) {
            m_Free.enqueue(&buffer);
        }
    }
    bool Hand() { return Move(m_Free, m_Full); }
    bool Take() { return Move(m_Full, m_Free); }

 private:
    using Buffer = std::vector<unsigned char>;
    using Queue = moodycamel::ConcurrentQueue<Buffer*>;
    static bool Move(Queue& from, Queue& to) {
        Buffer* pBuffer = nullptr;
        return from.try_dequeue(pBuffer) && to.enqueue(pBuffer);
    }

    std::vector<Buffer> m_Buffers;
    Queue m_Free;
    Queue m_Full;
};
#endif

/// How many buffers there are.
void Pools(benchmark::internal::Benchmark* job) {
    job->Arg(2)->Arg(32)->Arg(512);
}

/// All buffers are handed over before one is taken.
template <class Queue>
void OneThread(benchmark::State& state) {
    const int nPool = static_cast<int>(state.range(0));
    Queue queue(nPool);
    for (auto _ : state) {
        int nDone = 0;
        for (int i = 0; i < nPool; ++i) {
            nDone += queue.Hand() ? 1 : 0;
        }
        for (int i = 0; i < nPool; ++i) {
            nDone += queue.Take() ? 1 : 0;
        }
        if (nDone != 2 * nPool) {
            state.SkipWithError("buffers were lost");
        }
    }
}

constexpr int kBatch = 10000;

/// A second thread hands over what this one takes, so many buffers an iteration.
template <class Queue>
void TwoThreads(benchmark::State& state) {
    Queue queue(static_cast<int>(state.range(0)));
    std::atomic<bool> fgStop(false);
    std::thread writer([&queue, &fgStop] {
        while (!fgStop.load(std::memory_order_relaxed)) {
            if (!queue.Hand()) {
                std::this_thread::yield();
            }
        }
    });
    for (auto _ : state) {
        for (int i = 0; i < kBatch;) {
            if (queue.Take()) {
                ++i;
            } else {
                std::this_thread::yield();
            }
        }
    }
    fgStop = true;
    writer.join();
}

template <class Queue>
void Register(const std::string& who) {
    benchmark::RegisterBenchmark(("hand n buffers on, one thread|" + who).c_str(), OneThread<Queue>)->Apply(Pools);
    benchmark::RegisterBenchmark(("hand 10,000 buffers on, two threads, n buffers in all|" + who).c_str(),
                                 TwoThreads<Queue>)
        ->Apply(Pools)
        ->UseRealTime();
}

const bool g_fgRegistered = [] {
    Register<Kalvoren>("Kalvoren");
    Register<StdDeque>("std::mutex, std::deque");
#ifdef KALVOREN_PEER_GLIB
    Register<Glib>("GAsyncQueue");
#endif
#ifdef KALVOREN_PEER_MOODYCAMEL
    Register<Moodycamel>("moodycamel");
#endif
    return true;
}();

}  // namespace
