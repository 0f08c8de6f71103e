#include "KPropertyList.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "KDebug.h"
#include "KFile.h"

namespace {

constexpr int kAllLines = 0;
constexpr int kNoLines = 3;

constexpr std::int64_t kSmallest = 10000;
constexpr std::int64_t kLargest = 30000000;

std::string Repeated(const std::string& text, std::int64_t nSize) {
    std::string repeated;
    while (static_cast<std::int64_t>(repeated.size()) < nSize) {
        repeated += text;
    }
    return repeated;
}

std::string Enclosed(const std::string& contents) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" + contents +
           "</dict>\n</plist>\n";
}

/// A configuration of about a size: streams of a device, one behind the other.
std::string Configuration(std::int64_t nSize) {
    return Enclosed(
        Repeated("\t<key>Stream</key>\n\t<dict>\n\t\t<key>Name</key>\n\t\t<string>Main stream</string>\n"
                 "\t\t<key>Width</key>\n\t\t<integer>1920</integer>\n\t\t<key>Audio</key>\n\t\t<true/>\n\t</dict>\n",
                 nSize));
}

/// Dictionaries within one another.
std::string Nested(std::int64_t nSize) {
    const std::string open = "<key>Level</key>\n<dict>\n";
    const std::string close = "</dict>\n";
    const auto nLevels = nSize / static_cast<std::int64_t>(open.size() + close.size());
    return Enclosed(Repeated(open, nLevels * static_cast<std::int64_t>(open.size())) +
                    Repeated(close, nLevels * static_cast<std::int64_t>(close.size())));
}

/// One long value.
std::string LongValue(std::int64_t nSize) {
    return Enclosed("<key>Data</key>\n<data>" + std::string(static_cast<std::size_t>(nSize), 'A') + "</data>\n");
}

/// Destroys all that hangs under a node; its destructor would leave half of it.
void DestroyChildren(KPropertyNode& top) {
    std::vector<KPropertyNode*> waiting = {&top};
    while (!waiting.empty()) {
        KPropertyNode* const pNode = waiting.back();
        waiting.pop_back();
        for (int nLeft = pNode->GetNodeCount(); nLeft > 0; --nLeft) {
            waiting.push_back(*pNode->GetNode(0));
            pNode->RemoveNode(0);
        }
        if (pNode != &top) {
            delete pNode;
        }
    }
}

/// Sends standard error nowhere and sets the debug level, for the length of a block.
class ScopedLog {
 public:
    explicit ScopedLog(int nLevel) : m_nLevelBefore(g_eDebugLevel), m_nErrorBefore(dup(STDERR_FILENO)) {
        const int nNull = open("/dev/null", O_WRONLY);
        dup2(nNull, STDERR_FILENO);
        close(nNull);
        g_eDebugLevel = nLevel;
    }
    ~ScopedLog() {
        g_eDebugLevel = m_nLevelBefore;
        dup2(m_nErrorBefore, STDERR_FILENO);
        close(m_nErrorBefore);
    }
    ScopedLog(const ScopedLog&) = delete;
    ScopedLog& operator=(const ScopedLog&) = delete;

 private:
    int m_nLevelBefore;
    int m_nErrorBefore;
};

/// Measures reading without the destruction of the tree.
template <typename Source>
void Read(benchmark::State& state, const Source& source, std::size_t nSize, int nLevel) {
    const ScopedLog log(nLevel);
    for (auto _ : state) {
        KPropertyList list(source);
        state.PauseTiming();
        DestroyChildren(*list.GetRoot());
        state.ResumeTiming();
    }
    const auto nBytes = static_cast<std::int64_t>(nSize);
    state.SetBytesProcessed(state.iterations() * nBytes);
    state.SetComplexityN(nBytes);
}

void ReadText(benchmark::State& state, std::string (*make)(std::int64_t), int nLevel) {
    const std::string text = make(state.range(0));
    Read(state, KString(text.c_str()), text.size(), nLevel);
}

void Sizes(benchmark::internal::Benchmark* pBenchmark) {
    for (std::int64_t nSize = kSmallest; nSize < kLargest; nSize *= 10) {
        pBenchmark->Arg(nSize);
    }
    pBenchmark->Arg(kLargest)->Unit(benchmark::kMicrosecond)->Complexity(benchmark::oN);
}

BENCHMARK_CAPTURE(ReadText, Configuration, Configuration, kNoLines)->Apply(Sizes);
BENCHMARK_CAPTURE(ReadText, ConfigurationLogged, Configuration, kAllLines)->Apply(Sizes);
BENCHMARK_CAPTURE(ReadText, Nested, Nested, kNoLines)->Apply(Sizes);
BENCHMARK_CAPTURE(ReadText, LongValue, LongValue, kNoLines)->Apply(Sizes);

void ReadFile(benchmark::State& state) {
    std::string text = Configuration(state.range(0));
    KPath path;
    KFile::CreateTempFileName(path);
    KFile file(path, true);
    {
        const ScopedLog log(kNoLines);
        file.Open();
        file.Write(0, &text[0], text.size());
        file.Close();
    }
    Read(state, path, text.size(), kNoLines);
    KFile::Delete(path);
}
BENCHMARK(ReadFile)->Apply(Sizes);

}  // namespace
