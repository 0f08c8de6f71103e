// What the comparisons share. A comparison's name is "job|who", then its size: "copy a text|Kalvoren/32".
#ifndef KALVOREN_BENCH_PEERS_H
#define KALVOREN_BENCH_PEERS_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>

/// So many bytes of words that hold no z but for a last "zebra", where there is room for it.
inline std::string TextOf(std::int64_t nSize) {
    static const std::string kWords = "some words, then others; ";
    static const std::string kLast = "zebra";
    const auto nLength = static_cast<std::size_t>(nSize);
    std::string text;
    while (text.size() < nLength) {
        text += kWords;
    }
    text.resize(nLength);
    if (nLength > kLast.size()) {
        text.replace(nLength - kLast.size(), kLast.size(), kLast);
    }
    return text;
}

/// The value, of which the compiler no longer knows where it is from. (benchmark::DoNotOptimize is for what comes out: what goes
/// in it may leave undefined.)
template <class T>
T Hidden(T value) {
    asm volatile("" : "+r"(value) : : "memory");
    return value;
}

/// A level of the log.
constexpr int kNoLines = 3;
constexpr int kAllLines = 0;

/// Whether libc gives memory back to the kernel as it does in a program that leaves it to libc. What a job frees stays with the
/// process unless KALVOREN_BENCH_LIBCS_OWN is set: libc has no way back from another setting.
bool HasLibcsOwnSettings();

/// A directory of the program's own below the one for temporary files, gone with everything in it at the end.
class ScratchDirectory {
 public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& Path() const { return m_Path; }

 private:
    std::string m_Path;
};

#endif  // KALVOREN_BENCH_PEERS_H
