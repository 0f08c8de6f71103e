#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "KDebug.h"
#include "KString.h"
#include "KTime.h"

namespace {

/// Sends standard error to nowhere and sets the level for the length of a block.
class Nowhere {
 public:
    explicit Nowhere(int nLevel) : m_nBefore(dup(STDERR_FILENO)) {
        const int nNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nNull, STDERR_FILENO);
        close(nNull);
        g_eDebugLevel = nLevel;
    }
    ~Nowhere() {
        dup2(m_nBefore, STDERR_FILENO);
        close(m_nBefore);
        g_eDebugLevel = 3;
    }
    Nowhere(const Nowhere&) = delete;
    Nowhere& operator=(const Nowhere&) = delete;

 private:
    int m_nBefore;
};

void DroppedByLevel(benchmark::State& state) {
    const Nowhere nowhere(3);
    for (auto _ : state) {
        KDebug::Error("File Open[%s] ErrorNO:%d", "/etc/device.plist", 2);
    }
}
BENCHMARK(DroppedByLevel);

void Error(benchmark::State& state) {
    const Nowhere nowhere(0);
    const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        KDebug::Error("%s", text.c_str());
    }
    state.SetComplexityN(state.range(0));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Error)->RangeMultiplier(8)->Range(8, 1 << 19)->Complexity(benchmark::oN);

void ErrorOfAString(benchmark::State& state) {
    const Nowhere nowhere(0);
    const KString text("File Open[/etc/device.plist]");
    for (auto _ : state) {
        KDebug::Error(text);
    }
}
BENCHMARK(ErrorOfAString);

/// The stamp comes on top of what an error line costs.
void Log(benchmark::State& state) {
    const Nowhere nowhere(0);
    for (auto _ : state) {
        KDebug::Log("%d streams", 3);
    }
}
BENCHMARK(Log);

void LogAmongThreads(benchmark::State& state) {
    static Nowhere* pNowhere = nullptr;
    if (state.thread_index() == 0) {
        KDebug::Init();
        pNowhere = new Nowhere(0);
    }
    for (auto _ : state) {
        KDebug::Log("%d streams", 3);
    }
    if (state.thread_index() == 0) {
        delete pNowhere;
        KDebug::Deinit();
    }
}
BENCHMARK(LogAmongThreads)->ThreadRange(1, 4)->UseRealTime();

void Time(benchmark::State& state) {
    const Nowhere nowhere(0);
    const KTime time(1714746007LL, 123456, 0, 0);
    for (auto _ : state) {
        KDebug::Time(time);
    }
}
BENCHMARK(Time);

void InitAndDeinit(benchmark::State& state) {
    KDebug::Deinit();
    for (auto _ : state) {
        KDebug::Init();
        KDebug::Deinit();
    }
}
BENCHMARK(InitAndDeinit);

}  // namespace
