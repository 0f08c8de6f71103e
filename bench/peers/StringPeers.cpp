// Texts: made, copied, compared, searched, appended to, divided.
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>

#include "BareCalls.h"
#include "KString.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif

namespace {

void Sizes(benchmark::internal::Benchmark* job) {
    job->Arg(8)->Arg(32)->Arg(1 << 10)->Arg(64 << 10);
}

// ------------------------------------------------------------------------------------------------------- Making

void MakeKalvoren(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        const KString made(text.c_str());
        benchmark::DoNotOptimize(made.GetBuffer());
    }
}
BENCHMARK(MakeKalvoren)->Name("make a text|Kalvoren")->Apply(Sizes);

void MakeStd(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        const std::string made(text.c_str());
        benchmark::DoNotOptimize(made.c_str());
    }
}
BENCHMARK(MakeStd)->Name("make a text|std::string")->Apply(Sizes);

void MakeLimit(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        const char* const pszText = Hidden(text.c_str());
        const std::size_t nSize = std::strlen(pszText) + 1;
        void* const pMade = std::malloc(nSize);
        std::memcpy(pMade, pszText, nSize);
        benchmark::DoNotOptimize(pMade);
        std::free(pMade);
    }
}
BENCHMARK(MakeLimit)->Name("make a text|limit: strlen, malloc, memcpy")->Apply(Sizes);

#ifdef KALVOREN_PEER_GLIB
void MakeGlib(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        GString* const pMade = g_string_new(text.c_str());
        benchmark::DoNotOptimize(pMade->str);
        g_string_free(pMade, TRUE);
    }
}
BENCHMARK(MakeGlib)->Name("make a text|GString")->Apply(Sizes);
#endif

// ------------------------------------------------------------------------------------------------------ Copying

void CopyKalvoren(benchmark::State& state) {
    const KString text(TextOf(state.range(0)).c_str());
    for (auto _ : state) {
        const KString copy(text);
        benchmark::DoNotOptimize(copy.GetBuffer());
    }
}
BENCHMARK(CopyKalvoren)->Name("copy a text|Kalvoren")->Apply(Sizes);

void CopyStd(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        const std::string copy(text);
        benchmark::DoNotOptimize(copy.c_str());
    }
}
BENCHMARK(CopyStd)->Name("copy a text|std::string")->Apply(Sizes);

void CopyLimit(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        void* const pCopy = std::malloc(text.size() + 1);
        std::memcpy(pCopy, text.c_str(), text.size() + 1);
        benchmark::DoNotOptimize(pCopy);
        std::free(pCopy);
    }
}
BENCHMARK(CopyLimit)->Name("copy a text|limit: malloc, memcpy")->Apply(Sizes);

#ifdef KALVOREN_PEER_GLIB
void CopyGlib(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        GString* const pCopy = g_string_new_len(text.c_str(), static_cast<gssize>(text.size()));
        benchmark::DoNotOptimize(pCopy->str);
        g_string_free(pCopy, TRUE);
    }
}
BENCHMARK(CopyGlib)->Name("copy a text|GString")->Apply(Sizes);
#endif

// ---------------------------------------------------------------------------------------------------- Comparing

void CompareKalvoren(benchmark::State& state) {
    const KString one(TextOf(state.range(0)).c_str());
    const KString other(one);
    for (auto _ : state) {
        bool fgSame = one == other;
        benchmark::DoNotOptimize(fgSame);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(CompareKalvoren)->Name("compare equal texts|Kalvoren")->Apply(Sizes);

void CompareStd(benchmark::State& state) {
    const std::string one = TextOf(state.range(0));
    const std::string other(one);
    for (auto _ : state) {
        bool fgSame = one == other;
        benchmark::DoNotOptimize(fgSame);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(CompareStd)->Name("compare equal texts|std::string")->Apply(Sizes);

void CompareLimit(benchmark::State& state) {
    const std::string one = TextOf(state.range(0));
    const std::string other(one);
    for (auto _ : state) {
        const std::size_t nSize = Hidden(one.size());
        bool fgSame =
            nSize == Hidden(other.size()) && std::memcmp(Hidden(one.data()), Hidden(other.data()), nSize) == 0;
        benchmark::DoNotOptimize(fgSame);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(CompareLimit)->Name("compare equal texts|limit: lengths, memcmp")->Apply(Sizes);

#ifdef KALVOREN_PEER_GLIB
void CompareGlib(benchmark::State& state) {
    const std::string text = TextOf(state.range(0));
    GString* const pOne = g_string_new(text.c_str());
    GString* const pOther = g_string_new(text.c_str());
    for (auto _ : state) {
        bool fgSame = g_string_equal(pOne, pOther) != 0;
        benchmark::DoNotOptimize(fgSame);
        benchmark::ClobberMemory();
    }
    g_string_free(pOne, TRUE);
    g_string_free(pOther, TRUE);
}
BENCHMARK(CompareGlib)->Name("compare equal texts|GString")->Apply(Sizes);
#endif

// ---------------------------------------------------------------------------------------------------- Searching

/// The first letter of the one is everywhere in the text, that of the other nowhere else: whoever looks for the first letter
/// first has a hard time with the one and an easy one with the other. The letters of the third are all everywhere, and it is not
/// there.
constexpr const char* kCommon = "ebra";
constexpr const char* kRare = "zebra";
constexpr const char* kEverywhere = "other hints";

void SearchKalvoren(benchmark::State& state, const char* pszSought) {
    const KString text(TextOf(state.range(0)).c_str());
    for (auto _ : state) {
        int nAt = text.Find(pszSought, 0);
        benchmark::DoNotOptimize(nAt);
        benchmark::ClobberMemory();
    }
}

void SearchStd(benchmark::State& state, const char* pszSought) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        std::size_t nAt = text.find(pszSought);
        benchmark::DoNotOptimize(nAt);
        benchmark::ClobberMemory();
    }
}

void SearchLimit(benchmark::State& state, const char* pszSought) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        const char* const pszText = Hidden(text.c_str());
        const char* pszAt = std::strstr(pszText, pszSought);
        benchmark::DoNotOptimize(pszAt);
    }
}

#ifdef KALVOREN_PEER_GLIB
void SearchGlib(benchmark::State& state, const char* pszSought) {
    const std::string text = TextOf(state.range(0));
    for (auto _ : state) {
        const char* pszAt = g_strstr_len(text.c_str(), -1, pszSought);
        benchmark::DoNotOptimize(pszAt);
        benchmark::ClobberMemory();
    }
}
#endif

const bool g_fgSearchesRegistered = [] {
    const auto add = [](const std::string& who, void (*pSearch)(benchmark::State&, const char*)) {
        benchmark::RegisterBenchmark(("search a text for its last word|" + who).c_str(), pSearch, kCommon)
            ->Apply(Sizes);
        benchmark::RegisterBenchmark(("search a text, the word's first letter is rare|" + who).c_str(), pSearch, kRare)
            ->Apply(Sizes);
        benchmark::RegisterBenchmark(
            ("search a text for what is not there, of letters that are everywhere|" + who).c_str(), pSearch,
            kEverywhere)
            ->Apply(Sizes);
    };
    add("Kalvoren", SearchKalvoren);
    add("std::string", SearchStd);
    add("limit: strstr", SearchLimit);
#ifdef KALVOREN_PEER_GLIB
    add("GLib: g_strstr_len", SearchGlib);
#endif
    return true;
}();

// ---------------------------------------------------------------------------------------------------- Appending

constexpr const char* kPiece = "sixteen letters.";

void Pieces(benchmark::internal::Benchmark* job) {
    job->RangeMultiplier(4)->Range(64, 65536);
}

void AppendKalvoren(benchmark::State& state) {
    for (auto _ : state) {
        KString text;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            text += kPiece;
        }
        benchmark::DoNotOptimize(text.GetBuffer());
    }
}
BENCHMARK(AppendKalvoren)->Name("append 16 bytes n times|Kalvoren")->Apply(Pieces);

void AppendStd(benchmark::State& state) {
    for (auto _ : state) {
        std::string text;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            text += kPiece;
        }
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(AppendStd)->Name("append 16 bytes n times|std::string")->Apply(Pieces);

void AppendLimit(benchmark::State& state) {
    for (auto _ : state) {
        char* pszText = nullptr;
        std::size_t nSize = 0;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            const char* const pszPiece = Hidden(kPiece);
            const std::size_t nPiece = std::strlen(pszPiece);
            pszText = static_cast<char*>(std::realloc(pszText, nSize + nPiece + 1));
            std::memcpy(pszText + nSize, pszPiece, nPiece + 1);
            nSize += nPiece;
        }
        benchmark::DoNotOptimize(pszText);
        std::free(pszText);
    }
}
BENCHMARK(AppendLimit)->Name("append 16 bytes n times|limit: strlen, exact realloc, memcpy")->Apply(Pieces);

#ifdef KALVOREN_PEER_GLIB
void AppendGlib(benchmark::State& state) {
    for (auto _ : state) {
        GString* const pText = g_string_new(nullptr);
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            g_string_append(pText, kPiece);
        }
        benchmark::DoNotOptimize(pText->str);
        g_string_free(pText, TRUE);
    }
}
BENCHMARK(AppendGlib)->Name("append 16 bytes n times|GString")->Apply(Pieces);
#endif

// ----------------------------------------------------------------------------------------------------- Dividing

/// Fields of about eleven letters; 90,000 of them make 1 MB.
std::string Line(std::int64_t nFields) {
    std::string line;
    for (std::int64_t i = 0; i < nFields; ++i) {
        line += (i == 0 ? "field" : ",field") + std::to_string(10000 + i % 90000);
    }
    return line;
}

void Fields(benchmark::internal::Benchmark* job) {
    job->Arg(900)->Arg(9000)->Arg(90000)->Unit(benchmark::kMicrosecond);
}

void DivideKalvoren(benchmark::State& state) {
    const KString line(Line(state.range(0)).c_str());
    for (auto _ : state) {
        KList<KString> fields;
        line.Divide(",", fields);
        benchmark::DoNotOptimize(fields);
    }
}
BENCHMARK(DivideKalvoren)->Name("divide a line of n fields|Kalvoren")->Apply(Fields);

void DivideStd(benchmark::State& state) {
    const std::string line = Line(state.range(0));
    for (auto _ : state) {
        std::list<std::string> fields;
        std::size_t nStart = 0;
        for (std::size_t nEnd; (nEnd = line.find(',', nStart)) != std::string::npos; nStart = nEnd + 1) {
            fields.emplace_back(line, nStart, nEnd - nStart);
        }
        fields.emplace_back(line, nStart);
        benchmark::DoNotOptimize(fields);
    }
}
BENCHMARK(DivideStd)->Name("divide a line of n fields|std::list of std::string")->Apply(Fields);

void DivideLimit(benchmark::State& state) {
    const std::string line = Line(state.range(0));
    for (auto _ : state) {
        bare::Field* const pFirst = bare::Divide(line.c_str(), ',');
        benchmark::DoNotOptimize(pFirst);
        bare::Free(pFirst);
    }
}
BENCHMARK(DivideLimit)->Name("divide a line of n fields|limit: strchrnul, strndup, malloc")->Apply(Fields);

#ifdef KALVOREN_PEER_GLIB
void DivideGlib(benchmark::State& state) {
    const std::string line = Line(state.range(0));
    for (auto _ : state) {
        gchar** const ppFields = g_strsplit(line.c_str(), ",", -1);
        benchmark::DoNotOptimize(ppFields);
        g_strfreev(ppFields);
    }
}
BENCHMARK(DivideGlib)->Name("divide a line of n fields|g_strsplit")->Apply(Fields);
#endif

}  // namespace
