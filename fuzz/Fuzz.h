// What the fuzz targets share: an input that is taken apart, and expectations that end the process.
#ifndef KALVOREN_FUZZ_FUZZ_H
#define KALVOREN_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "KDebug.h"
#include "KString.h"

/// Every target is this function. Where the fuzzer is not there, a plain program calls it with each file it is given.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes);

namespace fuzz {

/// A text as far as its first NUL.
inline std::string Plain(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

/// What 32 bits keep of a number.
template <typename Integer>
int Low32(Integer nValue) {
    return static_cast<int>(static_cast<std::uint32_t>(nValue));
}

/// Numbers and texts out of the bytes that the fuzzer makes. Behind the end everything is 0 or empty.
class Input {
 public:
    Input(const std::uint8_t* pBytes, std::size_t nBytes) : m_p(pBytes), m_pEnd(pBytes + nBytes) {}

    bool IsEmpty() const { return m_p == m_pEnd; }

    std::uint8_t Byte() { return IsEmpty() ? std::uint8_t{0} : *m_p++; }

    /// Little-endian, so that a file means the same on every machine.
    int Int() {
        std::uint32_t nValue = 0;
        for (unsigned nShift = 0; nShift < 32; nShift += 8) {
            nValue |= std::uint32_t{Byte()} << nShift;
        }
        return static_cast<int>(nValue);
    }

    /// A number from @p nLowest to @p nHighest.
    int Range(int nLowest, int nHighest) { return nLowest + Byte() % (nHighest - nLowest + 1); }

    /// Up to 255 bytes: a count, then so many bytes as they are.
    std::string Text() { return Bytes(Byte()); }

    /// Like Text(), without NULs.
    std::string PlainText() { return Plain(Text()); }

    std::string Rest() { return Bytes(static_cast<std::size_t>(m_pEnd - m_p)); }

 private:
    std::string Bytes(std::size_t nBytes) {
        const std::size_t nLeft = static_cast<std::size_t>(m_pEnd - m_p);
        const std::size_t nTaken = nBytes < nLeft ? nBytes : nLeft;
        std::string text(reinterpret_cast<const char*>(m_p), nTaken);
        m_p += nTaken;
        return text;
    }

    const std::uint8_t* m_p;
    const std::uint8_t* m_pEnd;
};

/// A text as it can be told in a message.
inline std::string Shown(const std::string& text) {
    std::string shown = "\"";
    for (const char ch : text) {
        char szByte[8];
        const bool fgPlain = ch >= ' ' && ch <= '~' && ch != '\\' && ch != '"';
        std::snprintf(szByte, sizeof(szByte), fgPlain ? "%c" : "\\x%02x", static_cast<unsigned char>(ch));
        shown += szByte;
    }
    return shown + "\"";
}
inline std::string Shown(const char* pszText) {
    return Shown(std::string(pszText));
}
inline std::string Shown(long long nValue) {
    return std::to_string(nValue);
}

/// Ends the process unless the library and the model agree.
template <typename Got, typename Wanted>
void ExpectSame(const Got& got, const Wanted& wanted, const char* pszWhat) {
    if (!(got == wanted)) {
        std::cerr << pszWhat << ": the library gives " << Shown(got) << ", the model " << Shown(wanted) << std::endl;
        std::abort();
    }
}

inline void Expect(bool fgHolds, const char* pszWhat) {
    ExpectSame(fgHolds, true, pszWhat);
}

inline std::string TextOf(const KString& text) {
    return std::string(text.GetBuffer(), static_cast<std::size_t>(text.Length()));
}

inline KString Made(const std::string& text) {
    return KString(text.data(), static_cast<int>(text.size()));
}

/// The library's log would drown the fuzzer's.
inline void BeQuiet() {
    constexpr int kNothing = 3;
    // Before a target has threads of its own, which look at it.
    if (g_eDebugLevel != kNothing) {
        g_eDebugLevel = kNothing;
    }
}

}  // namespace fuzz

#endif  // KALVOREN_FUZZ_FUZZ_H
