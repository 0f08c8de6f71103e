// What texts cost, by their length.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "KDebug.h"
#include "KString.h"

namespace {

constexpr int kShortest = 8;
constexpr int kLongest = 64 << 10;

/// A text of the length that a run is for, made of words that hold few a's and no z.
std::string TextFor(const benchmark::State& state) {
    static const std::string kWords = "some words, then others; ";
    std::string text;
    while (text.size() < static_cast<std::size_t>(state.range(0))) {
        text += kWords;
    }
    text.resize(static_cast<std::size_t>(state.range(0)));
    return text;
}

void SetBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}

void MakeFromText(benchmark::State& state) {
    const std::string text = TextFor(state);
    for (auto _ : state) {
        const KString made(text.c_str());
        benchmark::DoNotOptimize(made.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(MakeFromText)->Range(kShortest, kLongest)->Complexity();

void Copy(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        KString copy(text);
        benchmark::DoNotOptimize(copy);
    }
    SetBytes(state);
}
BENCHMARK(Copy)->Range(kShortest, kLongest)->Complexity();

void Move(benchmark::State& state) {
    KString text(TextFor(state).c_str());
    KString other;
    for (auto _ : state) {
        other = static_cast<KString&&>(text);
        text = static_cast<KString&&>(other);
        benchmark::DoNotOptimize(text.GetBuffer());
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(Move)->Range(kShortest, kLongest)->Complexity();

void AssignText(benchmark::State& state) {
    const std::string source = TextFor(state);
    KString text;
    for (auto _ : state) {
        text = source.c_str();
        benchmark::DoNotOptimize(text.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(AssignText)->Range(kShortest, kLongest)->Complexity();

/// A text put together one byte at a time.
void AppendByteByByte(benchmark::State& state) {
    for (auto _ : state) {
        KString text;
        for (int i = 0; i < state.range(0); ++i) {
            text += "x";
        }
        benchmark::DoNotOptimize(text.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(AppendByteByByte)->Range(kShortest, kLongest)->Complexity();

void Join(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        const KString sum = text + text;
        benchmark::DoNotOptimize(sum.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(Join)->Range(kShortest, kLongest)->Complexity();

void CompareEqual(benchmark::State& state) {
    const KString left(TextFor(state).c_str());
    const KString right(TextFor(state).c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(left == right);
    }
    SetBytes(state);
}
BENCHMARK(CompareEqual)->Range(kShortest, kLongest)->Complexity();

void CompareIgnoringCase(benchmark::State& state) {
    const KString left(TextFor(state).c_str());
    KString right(left);
    right.ToUpper();
    for (auto _ : state) {
        benchmark::DoNotOptimize(left.IsCaseIgnoreSame(right));
    }
    SetBytes(state);
}
BENCHMARK(CompareIgnoringCase)->Range(kShortest, kLongest)->Complexity();

// Searches that go through the whole text.

void FindCharacter(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.Find('z', 0));
    }
    SetBytes(state);
}
BENCHMARK(FindCharacter)->Range(kShortest, kLongest)->Complexity();

void FindCharacterFromTheBack(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.FindR('z', 0));
    }
    SetBytes(state);
}
BENCHMARK(FindCharacterFromTheBack)->Range(kShortest, kLongest)->Complexity();

void FindCharacterInEitherCase(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.FindCaseIgnore('z', 0));
    }
    SetBytes(state);
}
BENCHMARK(FindCharacterInEitherCase)->Range(kShortest, kLongest)->Complexity();

void FindText(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.Find("words!", 0));
    }
    SetBytes(state);
}
BENCHMARK(FindText)->Range(kShortest, kLongest)->Complexity();

void FindTextFromTheBack(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.FindR("words", 0));
    }
    SetBytes(state);
}
BENCHMARK(FindTextFromTheBack)->Range(kShortest, kLongest)->Complexity();

void FindTextInEitherCase(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.FindCaseIgnore("WORDS!", 0));
    }
    SetBytes(state);
}
BENCHMARK(FindTextInEitherCase)->Range(kShortest, kLongest)->Complexity();

void ReplaceByte(benchmark::State& state) {
    KString text(TextFor(state).c_str());
    for (auto _ : state) {
        text.Replace('o', 'O');
        text.Replace('O', 'o');
        benchmark::ClobberMemory();
    }
    SetBytes(state);
}
BENCHMARK(ReplaceByte)->Range(kShortest, kLongest)->Complexity();

void ReplaceText(benchmark::State& state) {
    KString text(TextFor(state).c_str());
    for (auto _ : state) {
        text.Replace("words", "WORDS");
        text.Replace("WORDS", "words");
        benchmark::DoNotOptimize(text.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(ReplaceText)->Range(kShortest, kLongest)->Complexity();

void Insert(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    const int nMiddle = text.Length() / 2;
    for (auto _ : state) {
        const KString inserted = text.Insert(nMiddle, "---");
        benchmark::DoNotOptimize(inserted.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(Insert)->Range(kShortest, kLongest)->Complexity();

void Sub(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    for (auto _ : state) {
        const KString part = text.Sub(1, 0);
        benchmark::DoNotOptimize(part.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(Sub)->Range(kShortest, kLongest)->Complexity();

void ChangeCase(benchmark::State& state) {
    KString text(TextFor(state).c_str());
    for (auto _ : state) {
        text.ToUpper();
        text.ToLower();
        benchmark::ClobberMemory();
    }
    SetBytes(state);
}
BENCHMARK(ChangeCase)->Range(kShortest, kLongest)->Complexity();

void TrimSet(benchmark::State& state) {
    const KString text((std::string(static_cast<std::size_t>(state.range(0)) - 1, ' ') + "x").c_str());
    for (auto _ : state) {
        KString trimmed(text);
        trimmed.Trim(" \t");
        benchmark::DoNotOptimize(trimmed.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(TrimSet)->Range(kShortest, kLongest)->Complexity();

/// Many short fields; the number given is that of the fields.
void Divide(benchmark::State& state) {
    std::string text;
    for (int i = 0; i < state.range(0); ++i) {
        text += "field,";
    }
    const KString line(text.c_str());
    for (auto _ : state) {
        KList<KString> fields;
        line.Divide(",", fields);
        benchmark::DoNotOptimize(fields.GetCount());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(Divide)->Range(1, 10000)->Complexity();

void Sprintf(benchmark::State& state) {
    KString text;
    int i = 0;
    for (auto _ : state) {
        text.Sprintf("channel %d of %s", ++i, "device");
        benchmark::DoNotOptimize(text.GetBuffer());
    }
}
BENCHMARK(Sprintf);

void SprintfLong(benchmark::State& state) {
    const std::string source = TextFor(state);
    KString text;
    for (auto _ : state) {
        text.Sprintf("%s", source.c_str());
        benchmark::DoNotOptimize(text.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(SprintfLong)->Arg(1000)->Arg(10239)->Arg(10240)->Arg(10241)->Arg(100000);

void ToDigit(benchmark::State& state) {
    static const char* const kTexts[] = {"-1234567890", "0x7FFFFFFF", "0b1111111111111111111111111111111"};
    const KString text(kTexts[state.range(0)]);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.ToDigit());
    }
    state.SetLabel(text.GetBuffer());
}
BENCHMARK(ToDigit)->DenseRange(0, 2);

void GetString(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    std::vector<char> target(static_cast<std::size_t>(text.Length()) + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.GetString(target.data(), text.Length() + 1));
    }
    SetBytes(state);
}
BENCHMARK(GetString)->Range(kShortest, kLongest)->Complexity();

void GetWideString(benchmark::State& state) {
    const KString text(TextFor(state).c_str());
    std::vector<wchar_t> target(static_cast<std::size_t>(text.Length()) + 4);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.GetWideString(target.data(), text.Length() + 1));
    }
    SetBytes(state);
}
BENCHMARK(GetWideString)->Range(kShortest, kLongest)->Complexity();

void FromWideString(benchmark::State& state) {
    const std::wstring text(static_cast<std::size_t>(state.range(0)), L'x');
    for (auto _ : state) {
        const KString converted = KString::FromWideString(text.c_str());
        benchmark::DoNotOptimize(converted.GetBuffer());
    }
    SetBytes(state);
}
BENCHMARK(FromWideString)->Range(kShortest, kLongest)->Complexity();

/// A message that the level drops.
void LogDropped(benchmark::State& state) {
    g_eDebugLevel = 3;
    const KString text("message");
    for (auto _ : state) {
        benchmark::DoNotOptimize(KDebug::Log(text));
    }
}
BENCHMARK(LogDropped);

}  // namespace
