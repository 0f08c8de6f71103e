#include <benchmark/benchmark.h>
#include <pthread.h>

#include "KThread.h"

namespace {

void MakeAndDestroy(benchmark::State& state) {
    for (auto _ : state) {
        const KMutex mutex;
        benchmark::DoNotOptimize(&mutex);
    }
}
BENCHMARK(MakeAndDestroy);

/// The bare POSIX calls, to compare LockAndUnlock with.
void PosixLockAndUnlock(benchmark::State& state) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
}
BENCHMARK(PosixLockAndUnlock);

void LockAndUnlock(benchmark::State& state) {
    const KMutex mutex;
    for (auto _ : state) {
        mutex.Lock();
        mutex.Unlock();
    }
}
BENCHMARK(LockAndUnlock);

void LockAndUnlockAmongThreads(benchmark::State& state) {
    static const KMutex mutex;
    static long nSum = 0;
    for (auto _ : state) {
        mutex.Lock();
        benchmark::DoNotOptimize(++nSum);
        mutex.Unlock();
    }
}
BENCHMARK(LockAndUnlockAmongThreads)->ThreadRange(1, 8)->UseRealTime();

void TryLockAndUnlock(benchmark::State& state) {
    KMutex mutex;
    for (auto _ : state) {
        mutex.TryLock();
        mutex.Unlock();
    }
}
BENCHMARK(TryLockAndUnlock);

void TryLockOfAHeldMutex(benchmark::State& state) {
    KMutex mutex;
    mutex.Lock();
    for (auto _ : state) {
        benchmark::DoNotOptimize(mutex.TryLock());
    }
    mutex.Unlock();
}
BENCHMARK(TryLockOfAHeldMutex);

void TimedLockOfAFreeMutex(benchmark::State& state) {
    KMutex mutex;
    for (auto _ : state) {
        mutex.LockWithTimeOut(0);
        mutex.Unlock();
    }
}
BENCHMARK(TimedLockOfAFreeMutex);

/// Every deadline is over before the wait begins and unlocks the mutex, which is then taken again.
void TimeOutAndLockAgain(benchmark::State& state) {
    KMutex mutex;
    mutex.Lock();
    for (auto _ : state) {
        mutex.LockWithSystemTimeBasedTimeOut(0, false);
        mutex.Lock();
    }
    mutex.Unlock();
}
BENCHMARK(TimeOutAndLockAgain);

}  // namespace
