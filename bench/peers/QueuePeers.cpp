// Buffers handed from a writer to a reader and back, by one thread and by two.
#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "KQueue.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_MOODYCAMEL
#include <concurrentqueue/concurrentqueue.h>
#endif

namespace {

constexpr int kPool = 32;

/// Each side is asked for a buffer until it has one, and given it on. A reader that finds none yields.
class Kalvoren {
 public:
    Kalvoren() : m_Queue(kPool) {}
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
    StdDeque() : m_Buffers(kPool) {
        for (auto& buffer : m_Buffers) {
            m_Free.Push(&buffer);
        }
    }
    bool Hand() { return Move(m_Free, m_Full); }
    bool Take() { return Move(m_Full, m_Free); }

 private:
    using Buffer = std::vector<unsigned char>;
    class Queue {
     public:
        void Push(Buffer* pBuffer) {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            m_Queue.push_back(pBuffer);
        }
        Buffer* Pop() {
            const std::lock_guard<std::mutex> guard(m_Mutex);
            if (m_Queue.empty()) {
                return nullptr;
            }
            Buffer* const pBuffer = m_Queue.front();
            m_Queue.pop_front();
            return pBuffer;
        }

     private:
        std::mutex m_Mutex;
        std::deque<Buffer*> m_Queue;
    };
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
    Glib() : m_Buffers(kPool), m_pFree(g_async_queue_new()), m_pFull(g_async_queue_new()) {
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
        gpointer const pBuffer = g_async_queue_try_pop(pFrom);
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
    Moodycamel() : m_Buffers(kPool) {
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

template <class Queue>
void OneThread(benchmark::State& state) {
    Queue queue;
    for (auto _ : state) {
        queue.Hand();
        queue.Take();
    }
}

constexpr int kBatch = 10000;

/// A second thread hands over what this one takes, so many buffers an iteration.
template <class Queue>
void TwoThreads(benchmark::State& state) {
    Queue queue;
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

BENCHMARK_TEMPLATE(OneThread, Kalvoren)->Name("hand a buffer on, one thread|Kalvoren");
BENCHMARK_TEMPLATE(OneThread, StdDeque)->Name("hand a buffer on, one thread|std::mutex, std::deque");
BENCHMARK_TEMPLATE(TwoThreads, Kalvoren)->Name("hand 10,000 buffers on, two threads|Kalvoren")->UseRealTime();
BENCHMARK_TEMPLATE(TwoThreads, StdDeque)
    ->Name("hand 10,000 buffers on, two threads|std::mutex, std::deque")
    ->UseRealTime();
#ifdef KALVOREN_PEER_GLIB
BENCHMARK_TEMPLATE(OneThread, Glib)->Name("hand a buffer on, one thread|GAsyncQueue");
BENCHMARK_TEMPLATE(TwoThreads, Glib)->Name("hand 10,000 buffers on, two threads|GAsyncQueue")->UseRealTime();
#endif
#ifdef KALVOREN_PEER_MOODYCAMEL
BENCHMARK_TEMPLATE(OneThread, Moodycamel)->Name("hand a buffer on, one thread|moodycamel");
BENCHMARK_TEMPLATE(TwoThreads, Moodycamel)->Name("hand 10,000 buffers on, two threads|moodycamel")->UseRealTime();
#endif

}  // namespace
