// A message sent by name: h handlers have it among n registrations.
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "KMessage.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_BOOST
#include <boost/signals2/signal.hpp>
#endif
#ifdef KALVOREN_PEER_SIGCXX
#include <sigc++/sigc++.h>
#endif

namespace {

void Registrations(benchmark::internal::Benchmark* job) {
    job->ArgNames({"handlers", "registrations"});
    for (const std::int64_t nHandlers : {1, 10, 100}) {
        for (const std::int64_t nAll : {1, 10, 100, 1000}) {
            if (nHandlers <= nAll) {
                job->Args({nHandlers, nAll});
            }
        }
    }
}

std::string OtherName(std::int64_t i) {
    return "event number " + std::to_string(i);
}

constexpr const char* kName = "segment closed";

/// Those that have the message are spread evenly among all.
bool IsOurs(std::int64_t i, const benchmark::State& state) {
    return i * state.range(0) / state.range(1) != (i + 1) * state.range(0) / state.range(1);
}

class Counter : public KMessageHandler {
 public:
    int HandleMessage(const KMessage& message) override {
        m_nBytes += message.GetSize();
        return 0;
    }
    virtual ~Counter() = default;

 private:
    long long m_nBytes = 0;
};

void DispatchKalvoren(benchmark::State& state) {
    std::vector<std::unique_ptr<Counter>> handlers;
    std::vector<KString> names;
    for (std::int64_t i = 0; i < state.range(1); ++i) {
        handlers.push_back(std::make_unique<Counter>());
        names.emplace_back(IsOurs(i, state) ? kName : OtherName(i).c_str());
        KMessageHandler::Register(handlers.back().get(), names.back());
    }
    const KString name(kName);
    const KMessage message;
    for (auto _ : state) {
        int nResult = KMessageHandler::SendMessage(name, message);
        benchmark::DoNotOptimize(nResult);
    }
    for (std::size_t i = 0; i < handlers.size(); ++i) {
        KMessageHandler::Unregister(handlers[i].get(), names[i]);
    }
}
BENCHMARK(DispatchKalvoren)->Name("dispatch by name|Kalvoren")->Apply(Registrations);

/// A plain table: names and handlers in a vector, walked under a mutex.
void DispatchVector(benchmark::State& state) {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::unique_ptr<Counter>>> handlers;
    for (std::int64_t i = 0; i < state.range(1); ++i) {
        handlers.emplace_back(IsOurs(i, state) ? kName : OtherName(i), std::make_unique<Counter>());
    }
    const std::string name(kName);
    const KMessage message;
    for (auto _ : state) {
        const std::lock_guard<std::mutex> guard(mutex);
        int nResult = 0;
        for (const auto& [registered, pHandler] : handlers) {
            if (registered == name) {
                nResult += pHandler->HandleMessage(message);
            }
        }
        benchmark::DoNotOptimize(nResult);
    }
}
BENCHMARK(DispatchVector)->Name("dispatch by name|std::mutex, std::vector")->Apply(Registrations);

/// A signal a name, found in a table.
template <class Signal>
void DispatchBySignal(benchmark::State& state) {
    std::unordered_map<std::string, Signal> signals;
    std::vector<std::unique_ptr<Counter>> handlers;
    for (std::int64_t i = 0; i < state.range(1); ++i) {
        handlers.push_back(std::make_unique<Counter>());
        signals[IsOurs(i, state) ? kName : OtherName(i)].connect(
            [pHandler = handlers.back().get()](const KMessage& message) { return pHandler->HandleMessage(message); });
    }
    const std::string name(kName);
    const KMessage message;
    for (auto _ : state) {
        signals.find(name)->second(message);
    }
}
#ifdef KALVOREN_PEER_BOOST
BENCHMARK_TEMPLATE(DispatchBySignal, boost::signals2::signal<int(const KMessage&)>)
    ->Name("dispatch by name|boost::signals2 in a table")
    ->Apply(Registrations);
#endif
#ifdef KALVOREN_PEER_SIGCXX
BENCHMARK_TEMPLATE(DispatchBySignal, sigc::signal<int, const KMessage&>)
    ->Name("dispatch by name|sigc++ in a table, no lock")
    ->Apply(Registrations);
#endif

}  // namespace
