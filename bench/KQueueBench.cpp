#include "KQueue.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "KDebug.h"

namespace {

using Buffer = KDynamicDataBuffer;
using Queue = KManagedDynamicDataQueue;

unsigned int SizeOf(const benchmark::State& state) {
    return static_cast<unsigned int>(state.range(0));
}

int CountOf(const benchmark::State& state) {
    return static_cast<int>(state.range(0));
}

// ------------------------------------------------------------------------------------------------------------- Buffers

void MakeAndDestroyABuffer(benchmark::State& state) {
    for (auto _ : state) {
        const Buffer buffer(SizeOf(state));
        benchmark::DoNotOptimize(&buffer);
    }
}
BENCHMARK(MakeAndDestroyABuffer)->RangeMultiplier(32)->Range(1 << 10, 1 << 20);

void LockAndUnlockForWriting(benchmark::State& state) {
    Buffer buffer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(buffer.LockWriteBuffer(1000, 0));
        buffer.UnlockWriteBuffer();
    }
}
BENCHMARK(LockAndUnlockForWriting);

void LockAndUnlockForReading(benchmark::State& state) {
    Buffer buffer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(buffer.LockReadBuffer(0));
        buffer.UnlockReadBuffer();
    }
}
BENCHMARK(LockAndUnlockForReading);

/// Fills a new buffer in pieces of a thousand bytes.
void GrowABuffer(benchmark::State& state) {
    constexpr unsigned int kPiece = 1000;
    const std::string piece(kPiece, 'x');
    for (auto _ : state) {
        Buffer buffer;
        for (unsigned int nOffset = 0; nOffset + kPiece <= SizeOf(state); nOffset += kPiece) {
            std::memcpy(buffer.LockWriteBuffer(kPiece, nOffset), piece.data(), kPiece);
            buffer.UnlockWriteBuffer();
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(GrowABuffer)->RangeMultiplier(8)->Range(1 << 11, 1 << 20)->Complexity();

// -------------------------------------------------------------------------------------------------------------- Queues

/// From two buffers on: the end of a queue whose only buffer is at home sleeps. Each queue leaves its pool's table in the
/// registry, which has room for 102,400.
void CreateAndDeleteAQueue(benchmark::State& state) {
    for (auto _ : state) {
        Queue::Create(1, CountOf(state));
        Queue::Delete(1);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(CreateAndDeleteAQueue)->RangeMultiplier(2)->Range(2, 64)->Iterations(2000)->Complexity(benchmark::oN);

void FindAQueue(benchmark::State& state) {
    Queue::Create(2, 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Queue::GetInstance(2));
    }
}
BENCHMARK(FindAQueue);

/// One buffer's whole way, the others being at home.
void PassOneBuffer(benchmark::State& state) {
    Queue queue(CountOf(state));
    for (auto _ : state) {
        queue.PushWrite(queue.PopWrite());
        queue.PushRead(queue.PopRead());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(PassOneBuffer)->RangeMultiplier(4)->Range(4, 64);

/// All buffers of a pool, each step for all before the next: looking for places and walking the list at their longest.
void PassAWholePool(benchmark::State& state) {
    Queue queue(CountOf(state));
    for (auto _ : state) {
        for (int i = 0; i < CountOf(state); ++i) {
            queue.PushWrite(queue.PopWrite());
        }
        for (int i = 0; i < CountOf(state); ++i) {
            queue.PushRead(queue.PopRead());
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(PassAWholePool)->RangeMultiplier(2)->Range(2, 256)->Complexity();

/// Two threads take turns at getting an empty and a full buffer; both yield while there is none.
template <typename Pop>
Buffer* WaitFor(Pop pop) {
    Buffer* pBuffer = pop();
    while (pBuffer == nullptr) {
        std::this_thread::yield();
        pBuffer = pop();
    }
    return pBuffer;
}

/// A producer and a consumer move ten million buffers; the consumer checks the contents of each.
void MoveTenMillionBuffersBetweenTwoThreads(benchmark::State& state) {
    constexpr unsigned int kBuffers = 10000000;
    constexpr unsigned int kWords = 4;
    const auto wordOf = [](unsigned int nBuffer, unsigned int nWord) { return nBuffer * 2654435761u + nWord; };
    for (auto _ : state) {
        Queue queue(CountOf(state));
        std::thread producer([&] {
            for (unsigned int i = 0; i < kBuffers; ++i) {
                Buffer* const pBuffer = WaitFor([&] { return queue.PopWrite(); });
                auto* const pWords = static_cast<unsigned int*>(pBuffer->LockWriteBuffer(kWords * sizeof(int), 0));
                for (unsigned int n = 0; n < kWords; ++n) {
                    pWords[n] = wordOf(i, n);
                }
                pBuffer->SetDataSize(kWords * sizeof(int));
                pBuffer->UnlockWriteBuffer();
                queue.PushWrite(pBuffer);
            }
        });
        unsigned int nWrong = 0;
        for (unsigned int i = 0; i < kBuffers; ++i) {
            Buffer* const pBuffer = WaitFor([&] { return queue.PopRead(); });
            const auto* const pWords = static_cast<const unsigned int*>(pBuffer->LockReadBuffer(0));
            bool fgRight = pBuffer->GetDataSize() == kWords * sizeof(int);
            for (unsigned int n = 0; n < kWords; ++n) {
                fgRight = fgRight && pWords[n] == wordOf(i, n);
            }
            nWrong += fgRight ? 0 : 1;
            pBuffer->UnlockReadBuffer();
            queue.PushRead(pBuffer);
        }
        producer.join();
        if (nWrong != 0) {
            state.SkipWithError("buffers came with wrong contents or out of order");
        }
    }
    state.SetItemsProcessed(state.iterations() * kBuffers);
}
BENCHMARK(MoveTenMillionBuffersBetweenTwoThreads)
    ->Arg(16)
    ->Iterations(1)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kSecond);

}  // namespace
