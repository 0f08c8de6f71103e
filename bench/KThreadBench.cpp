#include <benchmark/benchmark.h>

#include <thread>

#include "KThread.h"

namespace {

/// Ends at once.
class Errand : public KThread {
 public:
    ~Errand() override { Stop(); }
    int ThreadMainLoop() override { return 0; }
};

/// Polls its status until it is stopped.
class Poller : public KThread {
 public:
    ~Poller() override { Stop(); }
    int ThreadMainLoop() override {
        while (IsRunning()) {
            std::this_thread::yield();
        }
        return 0;
    }
};

void MakeAndDestroy(benchmark::State& state) {
    for (auto _ : state) {
        KThread thread;
        benchmark::DoNotOptimize(&thread);
    }
}
BENCHMARK(MakeAndDestroy);

/// The standard library's thread, to compare StartAndStop with.
void StandardThread(benchmark::State& state) {
    for (auto _ : state) {
        std::thread([] {}).join();
    }
}
BENCHMARK(StandardThread)->UseRealTime();

void StartAndStop(benchmark::State& state) {
    Errand thread;
    for (auto _ : state) {
        thread.Start(10, KThread::NORMAL, -1, nullptr);
        thread.Stop();
    }
}
BENCHMARK(StartAndStop)->UseRealTime();

void StartAndStopWithAStackSize(benchmark::State& state) {
    Errand thread;
    for (auto _ : state) {
        thread.Start(10, KThread::NORMAL, static_cast<int>(state.range(0)), nullptr);
        thread.Stop();
    }
}
BENCHMARK(StartAndStopWithAStackSize)->RangeMultiplier(16)->Range(1 << 16, 1 << 24)->UseRealTime();

void ForceStopOfARunningThread(benchmark::State& state) {
    KThread thread;
    for (auto _ : state) {
        thread.Start(1000, KThread::NORMAL, -1, nullptr);
        thread.ForceStop();
        state.PauseTiming();
        thread.Stop();  // destroys the attribute
        state.ResumeTiming();
    }
}
BENCHMARK(ForceStopOfARunningThread)->UseRealTime();

void PollTheStatus(benchmark::State& state) {
    Poller thread;
    thread.Start(10, KThread::NORMAL, -1, nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(thread.IsRunning());
    }
}
BENCHMARK(PollTheStatus);

void PauseAndRun(benchmark::State& state) {
    KThread thread;
    thread.SetStatus(KThread::RUNNING);
    for (auto _ : state) {
        thread.Pause();
        thread.SetStatus(KThread::RUNNING);
    }
}
BENCHMARK(PauseAndRun);

void SleepOfNoTime(benchmark::State& state) {
    for (auto _ : state) {
        KThread::Sleep(0);
    }
}
BENCHMARK(SleepOfNoTime)->UseRealTime();

}  // namespace
