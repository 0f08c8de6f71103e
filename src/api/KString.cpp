#include "KString.h"

#include <malloc.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "Checks.h"
#include "KMem.h"
#include "Numbers.h"

template class KList<KString>;

namespace {

constexpr Checks g_Checks("src/api/KString");

/// Sprintf's first capacity, and what it is multiplied by for an output that fits it exactly.
constexpr int kFormatCapacity = 10240;
constexpr int kFormatGrowth = 10;

/// The bytes of a wide target that are zeroed before a conversion.
constexpr std::size_t kWideZeroed = 16;

/// Room for a text of @p nLen bytes and its NUL.
tchar* Allocate(std::size_t nLen) {
    return nLen < INT_MAX ? static_cast<tchar*>(std::malloc(nLen + 1)) : nullptr;
}

/// A new text of @p nLen bytes; null when the memory is lacking.
tchar* Duplicate(const char* p, std::size_t nLen) {
    tchar* const pszCopy = Allocate(nLen);
    if (pszCopy != nullptr) {
        std::memcpy(pszCopy, p, nLen);
        pszCopy[nLen] = '\0';
    }
    return pszCopy;
}

int NotNegative(int n) {
    return n < 0 ? 0 : n;
}

constexpr unsigned char Byte(char ch) {
    return static_cast<unsigned char>(ch);
}

char Lower(char ch) {
    return static_cast<char>(std::tolower(Byte(ch)));
}
char Upper(char ch) {
    return static_cast<char>(std::toupper(Byte(ch)));
}

/// The value of a hexadecimal digit in either case; -1 for any other byte.
int HexDigit(char ch) {
    if (ch >= '0' && ch <= '9') {
        return ch - '0';
    }
    if (ch >= 'A' && ch <= 'F') {
        return ch - 'A' + 10;
    }
    return ch >= 'a' && ch <= 'f' ? ch - 'a' + 10 : -1;
}

int HexValue(const char* p) {
    int nValue = 0;
    for (int nDigit = HexDigit(*p); nDigit >= 0; nDigit = HexDigit(*++p)) {
        nValue = WrappedSum(WrappedProduct(nValue, 16), nDigit);
    }
    return nValue;
}

int BinaryValue(const char* p, const char* pEnd) {
    int nValue = 0;
    for (; p < pEnd && Byte(*p) <= '1'; ++p) {
        nValue = WrappedSum(WrappedProduct(nValue, 2), Byte(*p) - '0');
    }
    return nValue;
}

int DecimalValue(const char* p) {
    const int nSign = *p == '-' ? -1 : 1;
    if (*p == '-') {
        ++p;
    }
    int nValue = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        nValue = WrappedSum(WrappedProduct(nValue, 10), *p - '0');
    }
    return WrappedProduct(nValue, nSign);
}

/// The number of bytes that AllocAndCopy() and Copy() copy; below 1 when there is nothing to copy.
long long CopyCount(const char* p, int n) {
    if (p == nullptr || n == INT_MAX) {
        return 0;
    }
    return n == -1 ? static_cast<long long>(std::strlen(p)) + 1 : n + 1LL;
}

/// Searches a text, of which no byte behind @p pEnd may be read but the NUL there.
using TextSearch = const char* (*)(const char* pszText, const char* pEnd, const char* pszSought);

/// The bytes that most texts are full of.
class OftenMet {
 public:
    constexpr OftenMet() : m_nBits() {
        for (const char* p = " aehinorst"; *p != '\0'; ++p) {
            m_nBits[Byte(*p) / 32] |= std::uint32_t{1} << Byte(*p) % 32;
        }
    }
    constexpr bool Has(char ch) const { return (m_nBits[Byte(ch) / 32] >> Byte(ch) % 32 & 1) != 0; }

 private:
    std::uint32_t m_nBits[8];
};
constexpr OftenMet g_OftenMet;

/// What strstr finds, and sooner in most texts: it looks for a byte that is not often met, which libc does many bytes at a
/// time, and leaves the rest to strstr where that byte turns out to be met often.
const char* FindExact(const char* pszText, const char* pEnd, const char* pszSought) {
    constexpr std::ptrdiff_t kShort = 16;
    if (pEnd - pszText < kShort) {
        return std::strstr(pszText, pszSought);
    }
    std::ptrdiff_t nRare = 0;
    while (g_OftenMet.Has(pszSought[nRare])) {
        ++nRare;
    }
    if (pszSought[nRare] == '\0') {
        return std::strstr(pszText, pszSought);
    }
    const std::size_t nSought = std::strlen(pszSought);
    // What a miss takes at most, in bytes of text that could have been looked at instead; a few are free.
    const std::size_t nMissCost = 64 + nSought;
    const char* p = pszText;
    for (std::size_t nSpent = 0; nSpent <= static_cast<std::size_t>(p - pszText) + 2 * nMissCost; nSpent += nMissCost) {
        p = std::strchr(p, pszSought[nRare]);
        if (p == nullptr) {
            return nullptr;
        }
        // No NUL is in what is sought, nor in what equals it.
        if (p - pszText >= nRare && pEnd - p + nRare >= static_cast<std::ptrdiff_t>(nSought) &&
            std::memcmp(p - nRare, pszSought, nSought) == 0) {
            return p - nRare;
        }
        ++p;
    }
    return std::strstr(p - std::min(p - pszText, nRare), pszSought);
}
const char* FindAnyCase(const char* pszText, const char*, const char* pszSought) {
    return strcasestr(pszText, pszSought);
}

/// Whether a text can be searched for at all.
bool CanFind(const KString& text, const tchar* pszText, const char* pszSought, int nStart) {
    return pszSought != nullptr && pszText != nullptr && nStart < text.Length();
}

int FindText(const tchar* pszText, int nLength, const char* pszSought, int nStart, TextSearch search) {
    const char* const pHit = search(pszText + NotNegative(nStart), pszText + nLength, pszSought);
    return pHit != nullptr ? static_cast<int>(pHit - pszText) : -1;
}

/// The last hit at or before @p nLimit.
int FindLastText(const tchar* pszText, int nLength, const char* pszSought, long long nLimit, TextSearch search) {
    int nFound = -1;
    const char* const pEnd = pszText + nLength;
    const char* pHit = search(pszText, pEnd, pszSought);
    while (pHit != nullptr && pHit - pszText <= nLimit) {
        nFound = static_cast<int>(pHit - pszText);
        // An empty text is found at the terminating NUL too; there is nothing behind that.
        pHit = *pHit != '\0' ? search(pHit + 1, pEnd, pszSought) : nullptr;
    }
    return nFound;
}

bool IsInSet(char ch, const char* pszSet) {
    return ch != '\0' && pszSet != nullptr && std::strchr(pszSet, ch);
}

}  // namespace

// --------------------------------------------------------------------------------------------- Making and assigning

/// Replaces the buffer by another, which may be null: the string is then empty.
void KString::Adopt(tchar* pszString, int nLen) {
    std::free(m_pszString);
    m_pszString = pszString;
    m_nLen = pszString != nullptr ? nLen : 0;
}

/// Replaces the buffer by another; one of an empty text is given back.
void KString::AdoptText(tchar* pszString, std::size_t nLen) {
    if (nLen == 0) {
        std::free(pszString);
        pszString = nullptr;
    }
    Adopt(pszString, static_cast<int>(nLen));
}

/// Replaces the text by a copy of one that may be part of it.
void KString::AssignText(const char* p, std::size_t nLen) {
    Adopt(nLen > 0 ? Duplicate(p, nLen) : nullptr, static_cast<int>(nLen));
}

namespace {

/// A block of text that has room for so many bytes: the one that is there, or one that has an eighth more, so that text
/// appended piece by piece asks for memory a few times and not for every piece. Null when the memory is lacking.
tchar* WithRoom(tchar* pszBlock, std::size_t nSize) {
    const std::size_t nRoom = pszBlock != nullptr ? malloc_usable_size(pszBlock) : 0;
    return nSize <= nRoom ? pszBlock : static_cast<tchar*>(std::realloc(pszBlock, nSize + nSize / 8));
}

}  // namespace

/// Appends bytes that may be this string's own.
void KString::Append(const char* p, int n) {
    if (n < 1 || n >= INT_MAX - m_nLen) {
        return;
    }
    const std::uintptr_t nOffset = reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(m_pszString);
    if (m_pszString != nullptr && nOffset <= static_cast<std::uintptr_t>(m_nLen)) {
        const KString copy(p, n);
        Append(copy.m_pszString, copy.m_nLen);
        return;
    }
    tchar* const pszGrown = WithRoom(m_pszString, static_cast<std::size_t>(m_nLen + n) + 1);
    if (pszGrown == nullptr) {
        return;
    }
    std::memcpy(pszGrown + m_nLen, p, static_cast<std::size_t>(n));
    m_nLen += n;
    pszGrown[m_nLen] = '\0';
    m_pszString = pszGrown;
}

/// Drops what is behind the first bytes of the text, of which there are some. The buffer stays.
void KString::Shorten(int nLen) {
    m_nLen = nLen;
    m_pszString[nLen] = '\0';
}

KString::KString() : m_nLen(0), m_pszString(nullptr) {}

/// A string without a buffer before takes one.
void KString::Begin(tchar* pszString, std::size_t nLen) {
    m_pszString = pszString;
    m_nLen = pszString != nullptr ? static_cast<int>(nLen) : 0;
}

KString::KString(const char* p, int n) : KString() {
    if (p != nullptr && n >= 0) {
        const std::size_t nLen = static_cast<std::size_t>(n);
        Begin(Duplicate(p, nLen), nLen);
    }
}

KString::KString(const char* p) : KString() {
    const std::size_t nLen = p != nullptr ? std::strlen(p) : 0;
    if (nLen > 0) {
        Begin(Duplicate(p, nLen), nLen);
    }
}

KString::KString(const KString& other) : KString() {
    const std::size_t nLen = static_cast<std::size_t>(other.m_nLen);
    if (nLen > 0) {
        Begin(Duplicate(other.m_pszString, nLen), nLen);
    }
}

KString::KString(KString&& other) noexcept : KString() {
    *this = static_cast<KString&&>(other);
}

KString::~KString() {
    Adopt(nullptr, 0);
}

KString& KString::operator=(const KString& other) {
    if (this != &other) {
        AssignText(other.m_pszString, static_cast<std::size_t>(other.m_nLen));
    }
    return *this;
}

KString& KString::operator=(KString&& other) noexcept {
    if (this != &other) {
        tchar* const pszString = other.m_pszString;
        const int nLen = other.m_nLen;
        other.m_pszString = nullptr;
        other.m_nLen = 0;
        // As a copy would be: an empty string that is assigned has no buffer.
        AdoptText(pszString, static_cast<std::size_t>(nLen));
    }
    return *this;
}

KString& KString::operator=(const char* p) {
    AssignText(p, p != nullptr ? std::strlen(p) : 0);
    return *this;
}

KString& KString::operator+=(const KString& other) {
    Append(other.m_pszString, other.m_nLen);
    return *this;
}

KString& KString::operator+=(const char* p) {
    Append(p, LengthOfString(p));
    return *this;
}

/// Empties a text of which a part found no memory: it would be another text.
void KString::EmptyUnlessWhole(unsigned int nLen) noexcept {
    if (static_cast<unsigned int>(m_nLen) != nLen) {
        Adopt(nullptr, 0);
    }
}

/// Not inlined: both sums call it.
[[gnu::noinline]] KString KString::Joined(const char* p, int n) const {
    KString sum(*this);
    sum.Append(p, n);
    sum.EmptyUnlessWhole(static_cast<unsigned int>(m_nLen) + static_cast<unsigned int>(n));
    return sum;
}

KString operator+(const KString& left, const KString& right) {
    return left.Joined(right.m_pszString, right.m_nLen);
}

KString operator+(const KString& left, const char* right) {
    return left.Joined(right, KString::LengthOfString(right));
}

// -------------------------------------------------------------------------------------------------------- Comparing

int KString::IsSame(const char* p) const {
    return m_pszString != nullptr && p != nullptr ? std::strcmp(m_pszString, p) : 0;
}

int KString::IsSame(const KString& other) const {
    return IsSame(other.m_pszString);
}

int KString::IsCaseIgnoreSame(const char* p) const {
    return m_pszString != nullptr && p != nullptr ? strcasecmp(m_pszString, p) : -1;
}

int KString::IsCaseIgnoreSame(const KString& other) const {
    return IsCaseIgnoreSame(other.m_pszString);
}

bool KString::operator==(const KString& other) const {
    return m_pszString != nullptr && other.m_pszString != nullptr && m_nLen == other.m_nLen &&
           std::memcmp(m_pszString, other.m_pszString, static_cast<std::size_t>(m_nLen)) == 0;
}

bool KString::operator!=(const KString& other) const {
    return !(*this == other);
}

bool KString::operator==(const char* p) const {
    return p != nullptr && m_pszString != nullptr && static_cast<std::size_t>(m_nLen) == std::strlen(p) &&
           std::memcmp(m_pszString, p, static_cast<std::size_t>(m_nLen)) == 0;
}

bool KString::operator!=(const char* p) const {
    return p == nullptr ? m_pszString == nullptr : !(*this == p);
}

// ------------------------------------------------------------------------------------------------------- Converting

namespace {

/// Copies a text with its NUL as far as the target has room. What the checks refuse, this must survive without them.
int CopyOut(const KString& text, char* pszTarget, int nLen) {
    if (pszTarget != nullptr && nLen > 0) {
        const int nCopied = text.Length() < nLen ? text.Length() : nLen - 1;
        std::memcpy(pszTarget, text.GetBuffer(), static_cast<std::size_t>(nCopied));
        pszTarget[nCopied] = '\0';
    }
    return text.Length();
}

}  // namespace

int KString::GetString(tchar* pszString, int nLen) const {
    const char* const pszSignature = "int KString::GetString(tchar*, int) const";
    g_Checks.Hold(pszString != nullptr, "pszString", pszSignature);
    g_Checks.Hold(nLen > m_nLen, "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)", pszSignature);
    return CopyOut(*this, pszString, nLen);
}

int KString::GetUTF8String(char* pszUTF8, int nLen) const {
    const char* const pszSignature = "int KString::GetUTF8String(char*, int) const";
    g_Checks.Hold(pszUTF8 != nullptr, "pszUTF8", pszSignature);
    g_Checks.Hold(nLen > m_nLen, "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)", pszSignature);
    return CopyOut(*this, pszUTF8, nLen);
}

int KString::GetWideString(wchar_t* pszWideString, int nLen) const {
    const char* const pszSignature = "int KString::GetWideString(wchar_t*, int) const";
    const bool fgTarget = g_Checks.Hold(pszWideString != nullptr, "pszWideString", pszSignature);
    const bool fgFits = g_Checks.Hold(nLen > m_nLen, "nLen >= m_nLen + 1", pszSignature);
    if (!fgTarget) {
        return static_cast<int>(std::mbstowcs(nullptr, GetBuffer(), 0));
    }
    std::memset(static_cast<void*>(pszWideString), 0, kWideZeroed);
    const int nLimit = fgFits ? m_nLen : NotNegative(nLen);
    const std::size_t nCount = std::mbstowcs(pszWideString, GetBuffer(), static_cast<std::size_t>(nLimit));
    return static_cast<int>(fgFits ? nCount : std::mbstowcs(nullptr, GetBuffer(), 0));
}

KString KString::FromUTF8String(const char* p) {
    return KString(p);
}

KString KString::FromWideString(const wchar_t* p) {
    KString result;
    if (p == nullptr) {
        return result;
    }
    const std::size_t nSize = std::wcslen(p) * MB_CUR_MAX;
    char* const pScratch = Allocate(nSize);
    if (pScratch == nullptr) {
        return result;
    }
    std::size_t nLen = 0;
    for (; *p != L'\0'; ++p) {
        std::mbstate_t state = {};
        const std::size_t nBytes = std::wcrtomb(pScratch + nLen, *p, &state);
        if (nBytes != static_cast<std::size_t>(-1)) {
            nLen += nBytes;
        }
    }
    result.AssignText(pScratch, nLen);
    std::free(pScratch);
    return result;
}

namespace {

/// Renders a text into a new block, cut where it does not fit, and stores its count of characters as `vsnprintf` tells
/// it. Null, with the count as it was, when the memory is lacking.
tchar* Format(int nCapacity, int& nCount, const char* format, va_list arguments) {
    const std::size_t nSize = static_cast<std::size_t>(nCapacity);
    tchar* const pszText = Allocate(nSize);
    if (pszText != nullptr) {
        nCount = std::vsnprintf(pszText, nSize, format, arguments);
    }
    return pszText;
}

}  // namespace

int KString::Sprintf(const char* format, ...) {
    int nCapacity = kFormatCapacity;
    int nCount = 0;
    va_list arguments;
    va_start(arguments, format);
    tchar* pszText = Format(nCapacity, nCount, format, arguments);
    va_end(arguments);
    if (nCount == nCapacity) {
        // The same arguments give the same count: once more is enough.
        std::free(pszText);
        nCapacity *= kFormatGrowth;
        va_start(arguments, format);
        pszText = Format(nCapacity, nCount, format, arguments);
        va_end(arguments);
    }
    if (pszText == nullptr) {
        return 0;
    }
    tchar* const pszFitted =
        nCount > 0 ? static_cast<tchar*>(std::realloc(pszText, static_cast<std::size_t>(nCount) + 1)) : nullptr;
    if (pszFitted == nullptr) {
        std::free(pszText);
        return nCount > 0 ? 0 : nCount;
    }
    if (nCount >= nCapacity) {
        // Cut: the length counts what is not there, so NULs stand in for it.
        std::memset(pszFitted + nCapacity - 1, 0, static_cast<std::size_t>(nCount - nCapacity) + 2);
    }
    Adopt(pszFitted, nCount);
    return nCount;
}

int KString::Scanf(int nStart, const char* format, ...) const {
    if (nStart >= m_nLen) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int nCount = std::vsscanf(GetBuffer() + NotNegative(nStart), format, arguments);
    va_end(arguments);
    return nCount;
}

int KString::ToDigit() const {
    if (m_nLen > 2 && m_pszString[0] == '0') {
        const char chBase = Lower(m_pszString[1]);
        if (chBase == 'x') {
            return HexValue(m_pszString + 2);
        }
        if (chBase == 'b') {
            return BinaryValue(m_pszString + 2, m_pszString + m_nLen);
        }
    }
    return DecimalValue(GetBuffer());
}

bool KString::IsHexString() const {
    for (int i = 0; i < m_nLen; ++i) {
        if (HexDigit(m_pszString[i]) >= 0) {
            return false;
        }
    }
    return true;
}

bool KString::IsHexStringWithOther(KString&) const {
    for (int i = 0; i < m_nLen; ++i) {
        if (HexDigit(m_pszString[i]) < 0) {
            return false;
        }
    }
    return true;
}

// ----------------------------------------------------------------------------------------------------- Text helpers

int KString::LengthOfString(const char* p) {
    return p != nullptr ? static_cast<int>(std::strlen(p)) : 0;
}

int KString::LengthOfUTF8String(const char* p) {
    return LengthOfString(p);
}

int KString::LengthOfWideString(const wchar_t* p) {
    return p != nullptr ? static_cast<int>(std::wcslen(p)) : 0;
}

bool KString::AllocAndCopy(char** pp, char* p, int n) {
    constexpr long long kBytesForEach = 4;
    if (pp == nullptr) {
        return false;
    }
    const long long nCount = CopyCount(p, n);
    *pp = nullptr;
    if (nCount < 1 || nCount > INT_MAX / kBytesForEach) {
        return false;
    }
    *pp = static_cast<char*>(KMem::Malloc(static_cast<std::size_t>(nCount * kBytesForEach)));
    if (*pp == nullptr) {
        return false;
    }
    std::memcpy(*pp, p, static_cast<std::size_t>(nCount));
    (*pp)[nCount] = '\0';
    return true;
}

bool KString::Copy(char* pDst, int nDstLen, char* p, int n) {
    const long long nCount = CopyCount(p, n);
    if (pDst == nullptr || nCount < 1 || nDstLen < nCount) {
        return false;
    }
    std::memcpy(pDst, p, static_cast<std::size_t>(nCount));
    pDst[nCount] = '\0';
    return true;
}

bool KString::FreeAllocedString(char** pp) {
    if (pp != nullptr) {
        void* pBlock = *pp;
        KMem::Free(&pBlock);
        *pp = nullptr;
    }
    return true;
}

// -------------------------------------------------------------------------------------------------------- Searching

int KString::Find(char ch, int nStart) const {
    const int nFirst = NotNegative(nStart);
    if (nFirst >= m_nLen) {
        return -1;
    }
    const void* const pHit = std::memchr(m_pszString + nFirst, Byte(ch), static_cast<std::size_t>(m_nLen - nFirst));
    return pHit != nullptr ? static_cast<int>(static_cast<const char*>(pHit) - m_pszString) : -1;
}

int KString::FindR(char ch, int nStart) const {
    const int nSearched = m_nLen - NotNegative(nStart);
    if (nSearched <= 0) {
        return -1;
    }
    const void* const pHit = memrchr(m_pszString, Byte(ch), static_cast<std::size_t>(nSearched));
    return pHit != nullptr ? static_cast<int>(static_cast<const char*>(pHit) - m_pszString) : -1;
}

int KString::FindCaseIgnore(char ch, int nStart) const {
    const char chLower = Lower(ch);
    const char chUpper = Upper(ch);
    for (int i = NotNegative(nStart); i < m_nLen; ++i) {
        if (m_pszString[i] == chLower || m_pszString[i] == chUpper) {
            return i;
        }
    }
    return -1;
}

int KString::FindRCaseIgnore(char ch, int nStart) const {
    const char chLower = Lower(ch);
    const char chUpper = Upper(ch);
    for (int i = m_nLen - 1 - NotNegative(nStart); i >= 0; --i) {
        if (m_pszString[i] == chLower || m_pszString[i] == chUpper) {
            return i;
        }
    }
    return -1;
}

int KString::Find(const char* p, int nStart) const {
    return CanFind(*this, m_pszString, p, nStart) ? FindText(m_pszString, m_nLen, p, nStart, FindExact) : -1;
}

int KString::Find(const KString& text, int nStart) const {
    return Find(text.m_pszString, nStart);
}

int KString::FindCaseIgnore(const char* p, int nStart) const {
    return CanFind(*this, m_pszString, p, nStart) ? FindText(m_pszString, m_nLen, p, nStart, FindAnyCase) : -1;
}

int KString::FindCaseIgnore(const KString& text, int nStart) const {
    return FindCaseIgnore(text.m_pszString, nStart);
}

int KString::FindR(const char* p, int nStart) const {
    return CanFind(*this, m_pszString, p, nStart)
               ? FindLastText(m_pszString, m_nLen, p, static_cast<long long>(m_nLen) - nStart, FindExact)
               : -1;
}

int KString::FindR(const KString& text, int nStart) const {
    return FindR(text.m_pszString, nStart);
}

int KString::FindRCaseIgnore(const char* p, int nStart) const {
    return CanFind(*this, m_pszString, p, nStart)
               ? FindLastText(m_pszString, m_nLen, p, static_cast<long long>(m_nLen) - nStart, FindAnyCase)
               : -1;
}

int KString::FindRCaseIgnore(const KString& text, int nStart) const {
    return FindRCaseIgnore(text.m_pszString, nStart);
}

int KString::HasCaseIgnoreString(const char* p) const {
    return FindCaseIgnore(p, 0);
}

// ---------------------------------------------------------------------------------------------------------- Editing

bool KString::Replace(char from, char to) {
    if (m_pszString == nullptr) {
        return false;
    }
    tchar* const pEnd = m_pszString + m_nLen;
    for (tchar* p = m_pszString; from != to && p != pEnd; ++p) {
        p = static_cast<tchar*>(std::memchr(p, Byte(from), static_cast<std::size_t>(pEnd - p)));
        if (p == nullptr) {
            break;
        }
        *p = to;
    }
    return true;
}

bool KString::Replace(const char* pszFrom, const char* pszTo) {
    if (pszFrom == nullptr || pszTo == nullptr || *pszFrom == '\0') {
        return false;
    }
    if (m_pszString == nullptr) {
        return true;
    }
    const std::size_t nFrom = std::strlen(pszFrom);
    const std::size_t nTo = std::strlen(pszTo);
    unsigned long long nHits = 0;
    for (const char* p = std::strstr(m_pszString, pszFrom); p != nullptr; p = std::strstr(p + nFrom, pszFrom)) {
        ++nHits;
    }
    const unsigned long long nLen = std::strlen(m_pszString) - nHits * nFrom + nHits * nTo;
    tchar* const pszResult = nLen < INT_MAX ? Allocate(static_cast<std::size_t>(nLen)) : nullptr;
    if (pszResult == nullptr) {
        return false;
    }
    char* pOut = pszResult;
    const char* pIn = m_pszString;
    while (const char* const pHit = std::strstr(pIn, pszFrom)) {
        const std::size_t nBefore = static_cast<std::size_t>(pHit - pIn);
        std::memcpy(pOut, pIn, nBefore);
        std::memcpy(pOut + nBefore, pszTo, nTo);
        pOut += nBefore + nTo;
        pIn = pHit + nFrom;
    }
    std::memcpy(pOut, pIn, std::strlen(pIn) + 1);
    AdoptText(pszResult, static_cast<std::size_t>(nLen));
    return true;
}

KString KString::InsertText(int nStart, const char* p, std::size_t nText) const {
    g_Checks.Hold(nStart >= 0, "nStart >= 0", "KString KString::Insert(int, const KString&) const");
    KString result;
    if (m_pszString == nullptr) {
        return result;
    }
    const std::size_t nOwn = static_cast<std::size_t>(m_nLen);
    const std::size_t nFirst = std::min(static_cast<std::size_t>(NotNegative(nStart)), nOwn);
    tchar* const pszResult = Allocate(nOwn + nText);
    if (pszResult != nullptr) {
        std::memcpy(pszResult, m_pszString, nFirst);
        if (nText > 0) {
            std::memcpy(pszResult + nFirst, p, nText);
        }
        std::memcpy(pszResult + nFirst + nText, m_pszString + nFirst, nOwn - nFirst + 1);
        result.AdoptText(pszResult, std::strlen(pszResult));
    }
    return result;
}

KString KString::Insert(int nStart, const KString& text) const {
    return InsertText(nStart, text.m_pszString, static_cast<std::size_t>(text.m_nLen));
}

KString KString::Insert(int nStart, const char* p) const {
    return InsertText(nStart, p, p != nullptr ? std::strlen(p) : 0);
}

KString KString::Sub(int nStart, int nEnd) const {
    g_Checks.Hold(nStart <= m_nLen && nStart >= 0, "nStart <= m_nLen && nStart >= 0",
                  "KString KString::Sub(int, int) const");
    KString result;
    const long long nCount = (nEnd == 0 ? m_nLen : static_cast<long long>(nEnd)) - nStart;
    if (m_pszString == nullptr || nStart < 0 || nCount <= 0) {
        return result;
    }
    const int nLen = static_cast<int>(nCount);
    tchar* const pszText = Allocate(static_cast<std::size_t>(nLen));
    if (pszText != nullptr) {
        const int nThere = nStart < m_nLen ? m_nLen - nStart : 0;
        const int nCopied = nLen < nThere ? nLen : nThere;
        std::memcpy(pszText, m_pszString + (m_nLen - nThere), static_cast<std::size_t>(nCopied));
        // Past the end of this text, NULs up to the length asked for.
        std::fill(pszText + nCopied, pszText + nLen, '\0');
        pszText[nLen] = '\0';
    }
    result.Begin(pszText, static_cast<std::size_t>(nLen));
    return result;
}

void KString::ToLower() {
    for (int i = 0; i < m_nLen; ++i) {
        m_pszString[i] = Lower(m_pszString[i]);
    }
}

void KString::ToUpper() {
    for (int i = 0; i < m_nLen; ++i) {
        m_pszString[i] = Upper(m_pszString[i]);
    }
}

void KString::TrimR(char ch) {
    if (m_nLen > 0 && m_pszString[m_nLen - 1] == ch) {
        m_pszString[m_nLen - 1] = '\0';
    }
}

void KString::TrimR(const char* pszSet) {
    if (m_nLen > 0 && IsInSet(m_pszString[m_nLen - 1], pszSet)) {
        m_pszString[m_nLen - 1] = '\0';
    }
}

void KString::TrimL(char ch) {
    for (int i = 0; i < m_nLen; ++i) {
        if (m_pszString[i] != ch) {
            AssignText(m_pszString, std::strlen(m_pszString));
            return;
        }
    }
}

void KString::TrimL(const char* pszSet) {
    int nLeading = 0;
    while (nLeading < m_nLen && IsInSet(m_pszString[nLeading], pszSet)) {
        ++nLeading;
    }
    if (nLeading > 0) {
        AssignText(m_pszString + nLeading, std::strlen(m_pszString + nLeading));
    }
}

void KString::Trim(char ch) {
    TrimR(ch);
    TrimL(ch);
}

void KString::Trim(const char* pszSet) {
    TrimR(pszSet);
    TrimL(pszSet);
}

bool KString::Divide(const char* pszDelimiter, KList<KString>& out) const {
    const std::size_t nDelimiter = static_cast<std::size_t>(LengthOfString(pszDelimiter));
    KList<KString>::Appender appender(out);
    const char* p = m_pszString;
    while (p - m_pszString < m_nLen) {
        const char* const pHit = nDelimiter > 0 ? std::strstr(p, pszDelimiter) : nullptr;
        KString* const pField = appender.Add();
        if (pField == nullptr) {
            break;
        }
        pField->AssignText(p, pHit != nullptr ? static_cast<std::size_t>(pHit - p) : std::strlen(p));
        if (pHit == nullptr) {
            break;
        }
        p = pHit + nDelimiter;
    }
    return true;
}
