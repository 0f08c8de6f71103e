#include "KMessage.h"

#include <benchmark/benchmark.h>

#include <deque>
#include <string>
#include <vector>

namespace {

int SizeOf(const benchmark::State& state) {
    return static_cast<int>(state.range(0));
}

// ------------------------------------------------------------------------------------------------------------ Messages

void MakeAMessage(benchmark::State& state) {
    KString text1("the first text");
    KString text2("the second text");
    std::vector<char> payload(static_cast<std::size_t>(state.range(0)) + 1);
    for (auto _ : state) {
        const KMessage message(text1, text2, payload.data(), SizeOf(state));
        benchmark::DoNotOptimize(message.GetData());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(MakeAMessage)->Arg(0)->RangeMultiplier(64)->Range(16, 1 << 16);

void CopyAMessage(benchmark::State& state) {
    KString text("the first text");
    std::vector<char> payload(static_cast<std::size_t>(state.range(0)) + 1);
    const KMessage message(text, text, payload.data(), SizeOf(state));
    for (auto _ : state) {
        const KMessage copy(message);
        benchmark::DoNotOptimize(copy.GetData());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(CopyAMessage)->Arg(0)->RangeMultiplier(64)->Range(16, 1 << 16);

void AssignAMessage(benchmark::State& state) {
    KString text("the first text");
    std::vector<char> payload(static_cast<std::size_t>(state.range(0)) + 1);
    const KMessage message(text, text, payload.data(), SizeOf(state));
    KMessage target;
    for (auto _ : state) {
        target = message;
        benchmark::DoNotOptimize(target.GetData());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(AssignAMessage)->Arg(0)->RangeMultiplier(64)->Range(16, 1 << 16);

// ------------------------------------------------------------------------------------------------------------ Dispatch

class Counter : public KMessageHandler {
 public:
    virtual ~Counter() = default;
    int HandleMessage(const KMessage&) override { return ++m_nCount; }

 private:
    int m_nCount = 0;
};

/// Handlers that are registered under one name for the length of a block.
class Handlers {
 public:
    Handlers(const benchmark::State& state, const char* pszName)
        : m_Name(pszName), m_Handlers(static_cast<std::size_t>(state.range(0))) {
        for (Counter& handler : m_Handlers) {
            KMessageHandler::Register(&handler, m_Name);
        }
    }
    ~Handlers() {
        for (Counter& handler : m_Handlers) {
            KMessageHandler::Unregister(&handler, m_Name);
        }
    }
    Handlers(const Handlers&) = delete;
    Handlers& operator=(const Handlers&) = delete;

 private:
    KString m_Name;
    std::deque<Counter> m_Handlers;
};

void DispatchToHandlers(benchmark::State& state) {
    const Handlers handlers(state, "a name");
    const KString name("a name");
    const KMessage message;
    for (auto _ : state) {
        KMessageHandler::SendMessage(name, message);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(DispatchToHandlers)->RangeMultiplier(4)->Range(1, 4096)->Complexity(benchmark::oN);

void DispatchPastHandlersOfAnotherName(benchmark::State& state) {
    const Handlers handlers(state, "a name");
    const KString name("b name");
    const KMessage message;
    for (auto _ : state) {
        KMessageHandler::SendMessage(name, message);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(DispatchPastHandlersOfAnotherName)->RangeMultiplier(4)->Range(1, 4096)->Complexity(benchmark::oN);

void RegisterAndUnregisterBehindOthers(benchmark::State& state) {
    const Handlers handlers(state, "a name");
    KString name("a name");
    Counter handler;
    for (auto _ : state) {
        KMessageHandler::Register(&handler, name);
        KMessageHandler::Unregister(&handler, name);
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(RegisterAndUnregisterBehindOthers)->RangeMultiplier(4)->Range(1, 4096)->Complexity(benchmark::oN);

void DispatchAmongThreads(benchmark::State& state) {
    static Counter handler;
    static KString name("threads");
    static const KMessage message;
    if (state.thread_index() == 0) {
        KMessageHandler::Register(&handler, name);
    }
    for (auto _ : state) {
        KMessageHandler::SendMessage(name, message);
    }
    if (state.thread_index() == 0) {
        KMessageHandler::Unregister(&handler, name);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(DispatchAmongThreads)->ThreadRange(1, 8)->UseRealTime();

}  // namespace
