// Lists of numbers: filled, walked, emptied from the front, all under their lock.
#include <pthread.h>

#include <cstdlib>
#include <list>
#include <mutex>

#include "KList.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif

namespace {

void Counts(benchmark::internal::Benchmark* job) {
    job->Arg(100)->Arg(10000)->Arg(1000000);
}

void Fill(KList<int>& list, std::int64_t nCount) {
    KList<int>::Appender appender(list);
    for (int i = 0; i < nCount; ++i) {
        appender.Add(i);
    }
}

void Fill(std::list<int>& list, std::mutex& mutex, std::int64_t nCount) {
    const std::lock_guard<std::mutex> guard(mutex);
    for (int i = 0; i < nCount; ++i) {
        list.push_back(i);
    }
}

void FillKalvoren(benchmark::State& state) {
    for (auto _ : state) {
        KList<int> list;
        Fill(list, state.range(0));
        benchmark::DoNotOptimize(list);
    }
}
BENCHMARK(FillKalvoren)->Name("fill a list and destroy it|Kalvoren")->Apply(Counts);

void FillStd(benchmark::State& state) {
    for (auto _ : state) {
        std::mutex mutex;
        std::list<int> list;
        Fill(list, mutex, state.range(0));
        benchmark::DoNotOptimize(list);
    }
}
BENCHMARK(FillStd)->Name("fill a list and destroy it|std::list, std::mutex")->Apply(Counts);

void WalkKalvoren(benchmark::State& state) {
    KList<int> list;
    Fill(list, state.range(0));
    for (auto _ : state) {
        long long nSum = 0;
        KList<int>::Reader reader(list);
        while (const int* const pValue = reader.Next()) {
            nSum += *pValue;
        }
        benchmark::DoNotOptimize(nSum);
    }
}
BENCHMARK(WalkKalvoren)->Name("walk a list|Kalvoren")->Apply(Counts);

void WalkStd(benchmark::State& state) {
    std::mutex mutex;
    std::list<int> list;
    Fill(list, mutex, state.range(0));
    for (auto _ : state) {
        long long nSum = 0;
        const std::lock_guard<std::mutex> guard(mutex);
        for (const int nValue : list) {
            nSum += nValue;
        }
        benchmark::DoNotOptimize(nSum);
    }
}
BENCHMARK(WalkStd)->Name("walk a list|std::list, std::mutex")->Apply(Counts);

void PopKalvoren(benchmark::State& state) {
    for (auto _ : state) {
        KList<int> list;
        Fill(list, state.range(0));
        int nValue = 0;
        while (list.Pop(nValue, 0)) {
            benchmark::DoNotOptimize(nValue);
        }
    }
}
BENCHMARK(PopKalvoren)->Name("fill a list and pop all|Kalvoren")->Apply(Counts);

void PopStd(benchmark::State& state) {
    for (auto _ : state) {
        std::mutex mutex;
        std::list<int> list;
        Fill(list, mutex, state.range(0));
        for (;;) {
            const std::lock_guard<std::mutex> guard(mutex);
            if (list.empty()) {
                break;
            }
            int nValue = list.front();
            list.pop_front();
            benchmark::DoNotOptimize(nValue);
        }
    }
}
BENCHMARK(PopStd)->Name("fill a list and pop all|std::list, std::mutex")->Apply(Counts);

/// A chain of numbers under a lock of pthread's, as bare as it can be.
class BareList {
 public:
    struct Node {
        Node* pNext;
        int nValue;
    };

    BareList() = default;
    ~BareList() {
        while (m_pFirst != nullptr) {
            Node* const pNext = m_pFirst->pNext;
            std::free(m_pFirst);
            m_pFirst = pNext;
        }
    }
    BareList(const BareList&) = delete;
    BareList& operator=(const BareList&) = delete;

    void Fill(std::int64_t nCount) {
        pthread_mutex_lock(&m_Mutex);
        Node** ppLast = &m_pFirst;
        for (int i = 0; i < nCount; ++i) {
            *ppLast = static_cast<Node*>(std::malloc(sizeof(Node)));
            **ppLast = {nullptr, i};
            ppLast = &(*ppLast)->pNext;
        }
        pthread_mutex_unlock(&m_Mutex);
    }

    long long Sum() {
        long long nSum = 0;
        pthread_mutex_lock(&m_Mutex);
        for (const Node* pNode = m_pFirst; pNode != nullptr; pNode = pNode->pNext) {
            nSum += pNode->nValue;
        }
        pthread_mutex_unlock(&m_Mutex);
        return nSum;
    }

    /// False when there is none.
    bool Pop() {
        pthread_mutex_lock(&m_Mutex);
        Node* const pNode = m_pFirst;
        if (pNode != nullptr) {
            m_pFirst = pNode->pNext;
            int nValue = pNode->nValue;
            benchmark::DoNotOptimize(nValue);
            std::free(pNode);
        }
        pthread_mutex_unlock(&m_Mutex);
        return pNode != nullptr;
    }

 private:
    pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
    Node* m_pFirst = nullptr;
};

void FillLimit(benchmark::State& state) {
    for (auto _ : state) {
        BareList list;
        list.Fill(state.range(0));
        benchmark::DoNotOptimize(list);
    }
}
BENCHMARK(FillLimit)->Name("fill a list and destroy it|limit: pthread, malloc, free")->Apply(Counts);

void WalkLimit(benchmark::State& state) {
    BareList list;
    list.Fill(state.range(0));
    for (auto _ : state) {
        long long nSum = list.Sum();
        benchmark::DoNotOptimize(nSum);
    }
}
BENCHMARK(WalkLimit)->Name("walk a list|limit: pthread")->Apply(Counts);

void PopLimit(benchmark::State& state) {
    for (auto _ : state) {
        BareList list;
        list.Fill(state.range(0));
        while (list.Pop()) {
        }
    }
}
BENCHMARK(PopLimit)->Name("fill a list and pop all|limit: pthread, malloc, free")->Apply(Counts);

#ifdef KALVOREN_PEER_GLIB
void Fill(GQueue& queue, GMutex& mutex, std::int64_t nCount) {
    g_mutex_lock(&mutex);
    for (int i = 0; i < nCount; ++i) {
        g_queue_push_tail(&queue, GINT_TO_POINTER(i));
    }
    g_mutex_unlock(&mutex);
}

void FillGlib(benchmark::State& state) {
    for (auto _ : state) {
        GMutex mutex;
        g_mutex_init(&mutex);
        GQueue queue = G_QUEUE_INIT;
        Fill(queue, mutex, state.range(0));
        benchmark::DoNotOptimize(queue);
        g_queue_clear(&queue);
        g_mutex_clear(&mutex);
    }
}
BENCHMARK(FillGlib)->Name("fill a list and destroy it|GQueue, GMutex")->Apply(Counts);

void WalkGlib(benchmark::State& state) {
    GMutex mutex;
    g_mutex_init(&mutex);
    GQueue queue = G_QUEUE_INIT;
    Fill(queue, mutex, state.range(0));
    for (auto _ : state) {
        long long nSum = 0;
        g_mutex_lock(&mutex);
        for (const GList* pNode = queue.head; pNode != nullptr; pNode = pNode->next) {
            nSum += GPOINTER_TO_INT(pNode->data);
        }
        g_mutex_unlock(&mutex);
        benchmark::DoNotOptimize(nSum);
    }
    g_queue_clear(&queue);
    g_mutex_clear(&mutex);
}
BENCHMARK(WalkGlib)->Name("walk a list|GQueue, GMutex")->Apply(Counts);

void PopGlib(benchmark::State& state) {
    for (auto _ : state) {
        GMutex mutex;
        g_mutex_init(&mutex);
        GQueue queue = G_QUEUE_INIT;
        Fill(queue, mutex, state.range(0));
        for (bool fgEmpty = false; !fgEmpty;) {
            g_mutex_lock(&mutex);
            fgEmpty = g_queue_is_empty(&queue) != 0;
            gpointer pValue = g_queue_pop_head(&queue);
            g_mutex_unlock(&mutex);
            benchmark::DoNotOptimize(pValue);
        }
        g_mutex_clear(&mutex);
    }
}
BENCHMARK(PopGlib)->Name("fill a list and pop all|GQueue, GMutex")->Apply(Counts);
#endif

}  // namespace
