#include "KString.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "KDebug.h"
#include "KMem.h"
#include "support/FailingMalloc.h"
#include "support/HeapUse.h"
#include "support/LittleMemory.h"
#include "support/Sanitizers.h"
#include "support/Support.h"
#include "support/Texts.h"

using namespace std::string_literals;
using support::ScopedChecks;
using support::ScopedLevel;
using support::ScopedNoMalloc;
using support::StderrOf;
using support::TextOf;

namespace {

thread_local bool t_fgReallocFails = false;

/// For the length of a block, this thread's realloc gives null.
class ScopedNoRealloc {
 public:
    ScopedNoRealloc() { t_fgReallocFails = true; }
    ~ScopedNoRealloc() { t_fgReallocFails = false; }
    ScopedNoRealloc(const ScopedNoRealloc&) = delete;
    ScopedNoRealloc& operator=(const ScopedNoRealloc&) = delete;
};

}  // namespace

/// The sanitizers call this before code that they instrumented could run.
extern "C" __attribute__((no_sanitize("thread", "address", "undefined"))) void* realloc(void* pBlock,
                                                                                        std::size_t nSize) noexcept {
    const auto pNext = support::Next<&realloc>("realloc");
    return t_fgReallocFails ? nullptr : pNext(pBlock, nSize);
}

namespace {

constexpr const char* kNull = nullptr;

/// A string with exactly these bytes, NULs included.
KString Of(const std::string& bytes) {
    return bytes.empty() ? KString() : KString(bytes.data(), static_cast<int>(bytes.size()));
}

/// Comparing with a null pointer tells whether a string has a buffer.
bool HasBuffer(const KString& text) {
    return !(text != kNull);
}

/// An empty string that has a buffer.
KString EmptyWithBuffer() {
    return KString("", 0);
}

std::vector<std::string> Fields(const KList<KString>& list) {
    std::vector<std::string> fields;
    KList<KString>::Reader reader(list);
    while (const KString* const pField = reader.Next()) {
        fields.push_back(TextOf(*pField));
    }
    return fields;
}

/// A string whose length exceeds its text, as formatting more than 10,240 characters makes it.
constexpr int kCutLength = 20000;
constexpr int kCutText = 10239;
KString Cut() {
    KString text;
    text.Sprintf("%s", std::string(kCutLength, 'x').c_str());
    return text;
}

/// A text of gigabytes that takes hardly any memory: the same few pages again and again.
class EndlessText {
 public:
    explicit EndlessText(std::size_t nLength) {
        const std::size_t nPieces = nLength / kPiece + 1;
        m_nSize = nPieces * kPiece;
        void* const pRoom = mmap(nullptr, m_nSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        const int nFile = memfd_create("text", MFD_CLOEXEC);
        m_pszText = pRoom != MAP_FAILED ? static_cast<char*>(pRoom) : nullptr;
        bool fgMade = m_pszText != nullptr && ftruncate(nFile, kPiece) == 0;
        for (std::size_t i = 0; i < nPieces && fgMade; ++i) {
            // The last piece has a NUL in it, so that it is its own.
            const int nKind = i + 1 < nPieces ? MAP_SHARED : MAP_PRIVATE;
            fgMade =
                mmap(m_pszText + i * kPiece, kPiece, PROT_READ | PROT_WRITE, nKind | MAP_FIXED, nFile, 0) != MAP_FAILED;
        }
        close(nFile);
        if (fgMade) {
            std::memset(m_pszText, 'x', kPiece);
            m_pszText[nLength] = '\0';
        } else if (m_pszText != nullptr) {
            munmap(m_pszText, m_nSize);
            m_pszText = nullptr;
        }
    }
    ~EndlessText() {
        if (m_pszText != nullptr) {
            munmap(m_pszText, m_nSize);
        }
    }
    EndlessText(const EndlessText&) = delete;
    EndlessText& operator=(const EndlessText&) = delete;

    /// Null where there are not enough addresses for it.
    const char* Text() const { return m_pszText; }

 private:
    static constexpr std::size_t kPiece = 16 << 20;

    std::size_t m_nSize;
    char* m_pszText;
};

/// Sets the locale for the length of a block.
class ScopedLocale {
 public:
    explicit ScopedLocale(const char* pszName) : m_strBefore(setlocale(LC_ALL, nullptr)) {
        m_fgSet = setlocale(LC_ALL, pszName) != nullptr;
    }
    ~ScopedLocale() { setlocale(LC_ALL, m_strBefore.c_str()); }
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;

    bool IsSet() const { return m_fgSet; }

 private:
    std::string m_strBefore;
    bool m_fgSet;
};

/// Texts of random length from few different bytes, so that there is much to find in them.
class RandomText {
 public:
    explicit RandomText(unsigned int nSeed) : m_Random(nSeed) {}

    int Number(int nLow, int nHigh) { return std::uniform_int_distribution<int>(nLow, nHigh)(m_Random); }

    std::string Text(int nMaxLength, const std::string& alphabet) {
        std::string text(static_cast<std::size_t>(Number(0, nMaxLength)), ' ');
        for (char& ch : text) {
            ch = alphabet[static_cast<std::size_t>(Number(0, static_cast<int>(alphabet.size()) - 1))];
        }
        return text;
    }

 private:
    std::mt19937 m_Random;
};

constexpr int kRandomRounds = 3000;

char AsciiLower(char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
}

std::string AsciiLower(std::string text) {
    for (char& ch : text) {
        ch = AsciiLower(ch);
    }
    return text;
}

/// The object as it lies in memory.
struct Image {
    void* pVirtualTable;
    int nLen;
    char* pszString;
};
static_assert(sizeof(Image) == sizeof(KString), "the length and the buffer are all the fields there are");

Image ImageOf(const void* pString) {
    Image image;
    std::memcpy(&image, pString, sizeof(image));
    return image;
}

}  // namespace

// ---------------------------------------------------------------------------------------------- Making and assigning

TEST(KStringTest, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<KString>::value);
}

TEST(KStringTest, HoldsItsLengthThenItsBuffer) {
    const KString text("hello");
    const Image image = ImageOf(&text);
    EXPECT_EQ(image.nLen, 5);
    EXPECT_EQ(image.pszString, text.GetBuffer());
}

TEST(KStringTest, TheDestructorLeavesNoBufferAndNoLength) {
    alignas(KString) unsigned char storage[sizeof(KString)];
    KString* const pText = new (storage) KString("hello");
    pText->~KString();
    const Image image = ImageOf(storage);
    EXPECT_EQ(image.nLen, 0);
    EXPECT_EQ(image.pszString, nullptr);
}

TEST(KStringTest, TheDefaultIsEmptyWithoutABuffer) {
    const KString text;
    EXPECT_EQ(text.Length(), 0);
    EXPECT_FALSE(HasBuffer(text));
    EXPECT_STREQ(text.GetBuffer(), "");
}

TEST(KStringTest, IsMadeFromBytesAndALengthWithEmbeddedNuls) {
    const KString text("a\0b\xFF", 4);
    EXPECT_EQ(text.Length(), 4);
    EXPECT_EQ(TextOf(text), "a\0b\xFF"s);
    EXPECT_EQ(text.GetBuffer()[4], '\0');
}

TEST(KStringTest, TakesOnlyAsManyBytesAsTheLengthSays) {
    EXPECT_EQ(TextOf(KString("hello", 2)), "he");
}

TEST(KStringTest, NoBytesOfATextMakeAnEmptyStringThatHasABuffer) {
    const KString text("abc", 0);
    EXPECT_EQ(text.Length(), 0);
    EXPECT_TRUE(HasBuffer(text));
    EXPECT_STREQ(text.GetBuffer(), "");
}

TEST(KStringTest, ANullPointerMakesAnEmptyString) {
    for (const KString& text : {KString(kNull), KString(kNull, 0), KString(kNull, 5), KString(kNull, -1)}) {
        EXPECT_EQ(text.Length(), 0);
        EXPECT_FALSE(HasBuffer(text));
    }
}

TEST(KStringTest, ALengthThatCannotBeHeldMakesAnEmptyString) {
    for (const int nLength : {-1, INT_MIN, INT_MAX}) {
        const KString text("abc", nLength);
        EXPECT_EQ(text.Length(), 0) << nLength;
        EXPECT_FALSE(HasBuffer(text)) << nLength;
    }
}

TEST(KStringTest, IsMadeFromATextUpToItsNul) {
    const KString text("ab\0cd");
    EXPECT_EQ(TextOf(text), "ab");
    EXPECT_TRUE(HasBuffer(text));
}

TEST(KStringTest, AnEmptyTextLeavesTheBufferNull) {
    const KString text("");
    EXPECT_EQ(text.Length(), 0);
    EXPECT_FALSE(HasBuffer(text));
    EXPECT_STREQ(text.GetBuffer(), "");
}

TEST(KStringTest, ACopyHasTheSameBytesAndABufferOfItsOwn) {
    const KString text("a\0b", 3);
    KString copy(text);
    EXPECT_EQ(TextOf(copy), "a\0b"s);
    EXPECT_NE(copy.GetBuffer(), text.GetBuffer());
    copy.Replace('a', 'z');
    EXPECT_EQ(TextOf(text), "a\0b"s);
}

TEST(KStringTest, ACopyOfAnEmptyStringHasNoBuffer) {
    const KString empty;
    const KString buffered = EmptyWithBuffer();
    EXPECT_FALSE(HasBuffer(KString(empty)));
    EXPECT_FALSE(HasBuffer(KString(buffered)));
}

TEST(KStringTest, AMovedStringIsLeftEmpty) {
    KString text("hello");
    const char* const pszBefore = text.GetBuffer();
    KString moved(static_cast<KString&&>(text));
    EXPECT_EQ(TextOf(moved), "hello");
    EXPECT_EQ(moved.GetBuffer(), pszBefore);
    EXPECT_EQ(text.Length(), 0);
    EXPECT_FALSE(HasBuffer(text));

    KString target("old");
    target = static_cast<KString&&>(moved);
    EXPECT_EQ(TextOf(target), "hello");
    EXPECT_FALSE(HasBuffer(moved));
}

TEST(KStringTest, AMovedEmptyStringHasNoBufferAsACopyWouldNot) {
    KString buffered = EmptyWithBuffer();
    KString target("old");
    target = static_cast<KString&&>(buffered);
    EXPECT_FALSE(HasBuffer(target));
    EXPECT_FALSE(HasBuffer(buffered));
}

TEST(KStringTest, MovingAStringToItselfKeepsIt) {
    KString text("hello");
    KString& same = text;
    text = static_cast<KString&&>(same);
    EXPECT_EQ(TextOf(text), "hello");
}

TEST(KStringTest, AssignmentReplacesTheBytes) {
    KString text("old text");
    const KString source("a\0b", 3);
    KString& result = text = source;
    EXPECT_EQ(&result, &text);
    EXPECT_EQ(TextOf(text), "a\0b"s);
    EXPECT_NE(text.GetBuffer(), source.GetBuffer());
}

TEST(KStringTest, AssigningAStringToItselfDoesNothing) {
    KString text("hello");
    const char* const pszBefore = text.GetBuffer();
    const KString& same = text;
    text = same;
    EXPECT_EQ(text.GetBuffer(), pszBefore);
    EXPECT_EQ(TextOf(text), "hello");

    KString buffered = EmptyWithBuffer();
    const KString& sameBuffered = buffered;
    buffered = sameBuffered;
    EXPECT_TRUE(HasBuffer(buffered));
}

TEST(KStringTest, AssigningAnEmptyStringLeavesNoBuffer) {
    KString text("old");
    text = KString();
    EXPECT_FALSE(HasBuffer(text));
    text = "old";
    const KString buffered = EmptyWithBuffer();
    text = buffered;
    EXPECT_EQ(text.Length(), 0);
    EXPECT_FALSE(HasBuffer(text));
}

TEST(KStringTest, AssigningATextReplacesTheBytes) {
    KString text("old text");
    KString& result = text = "new";
    EXPECT_EQ(&result, &text);
    EXPECT_EQ(TextOf(text), "new");
    text = "";
    EXPECT_EQ(text.Length(), 0);
    EXPECT_FALSE(HasBuffer(text));
}

TEST(KStringTest, AssigningANullPointerEmptiesIt) {
    KString text("old");
    text = kNull;
    EXPECT_EQ(text.Length(), 0);
    EXPECT_FALSE(HasBuffer(text));
}

TEST(KStringTest, ATextOutOfItsOwnBufferCanBeAssigned) {
    KString text("hello");
    text = text.GetBuffer() + 2;
    EXPECT_EQ(TextOf(text), "llo");
    text = text.GetBuffer() + 3;
    EXPECT_EQ(text.Length(), 0);
}

TEST(KStringTest, AppendingJoinsBothByTheirLengths) {
    KString text("a\0b", 3);
    KString& result = text += KString("c\0d", 3);
    EXPECT_EQ(&result, &text);
    EXPECT_EQ(TextOf(text), "a\0bc\0d"s);
    EXPECT_EQ(text.GetBuffer()[6], '\0');
}

TEST(KStringTest, AppendingToAnEmptyStringTakesTheText) {
    KString text;
    text += KString("abc");
    EXPECT_EQ(TextOf(text), "abc");
    KString buffered = EmptyWithBuffer();
    buffered += "abc";
    EXPECT_EQ(TextOf(buffered), "abc");
}

TEST(KStringTest, AppendingNothingChangesNothing) {
    KString text("abc");
    const char* const pszBefore = text.GetBuffer();
    text += KString();
    text += EmptyWithBuffer();
    text += "";
    text += kNull;
    EXPECT_EQ(text.GetBuffer(), pszBefore);
    EXPECT_EQ(TextOf(text), "abc");

    KString empty;
    empty += EmptyWithBuffer();
    EXPECT_FALSE(HasBuffer(empty));
}

TEST(KStringTest, AppendingAStringToItselfDoublesIt) {
    KString text("ab\0c", 4);
    text += text;
    EXPECT_EQ(TextOf(text), "ab\0cab\0c"s);
    for (int i = 0; i < 8; ++i) {
        text += text;
    }
    EXPECT_EQ(text.Length(), 8 * 256);
}

TEST(KStringTest, ATextOutOfItsOwnBufferCanBeAppended) {
    KString text("hello");
    text += text.GetBuffer() + 3;
    EXPECT_EQ(TextOf(text), "hellolo");
    text += text.GetBuffer();
    EXPECT_EQ(TextOf(text), "hellolohellolo");
    text += text.GetBuffer() + text.Length();
    EXPECT_EQ(TextOf(text), "hellolohellolo");
}

TEST(KStringTest, ItsOwnTextIsAppendedAlsoWhereTheBufferMoves) {
    const std::string once(200, 'x');
    // Buffers that lie one behind the other: few of them can grow where they are.
    std::vector<KString> texts(20, KString(once.c_str()));
    for (KString& text : texts) {
        text += text.GetBuffer();
        EXPECT_EQ(TextOf(text), once + once);
    }
    for (KString& text : texts) {
        text += text;
        EXPECT_EQ(TextOf(text), once + once + once + once);
    }
}

TEST(KStringTest, AppendingALittleTakesLittleMemory) {
    KString text(std::string(1000000, 'x').c_str());
    const std::string little(10000, 'y');
    const std::size_t nBefore = support::BytesInUse();
    text += little.c_str();
    EXPECT_LT(support::BytesInUse(), nBefore + 500000);
    EXPECT_EQ(text.Length(), 1010000);
}

TEST(KStringTest, WhatWouldMakeTheStringLongerThanALengthCanTellIsNotAppended) {
    if (KALVOREN_WITH_TSAN != 0) {
        GTEST_SKIP() << "the thread sanitizer notes every byte that is read, in memory of its own";
    }
    const EndlessText endless(INT_MAX - 2);
    if (endless.Text() == nullptr) {
        GTEST_SKIP() << "there are not enough addresses here";
    }
    KString text("ab");
    text += endless.Text();
    EXPECT_EQ(TextOf(text), "ab");
}

TEST(KStringTest, TheSumIsANewString) {
    const KString left("ab");
    const KString right("cd");
    EXPECT_EQ(TextOf(left + right), "abcd");
    EXPECT_EQ(TextOf(left + "ef"), "abef");
    EXPECT_EQ(TextOf(left + left), "abab");
    EXPECT_EQ(TextOf(left + kNull), "ab");
    EXPECT_EQ(TextOf(KString() + right), "cd");
    EXPECT_EQ(TextOf("ab" + right), "abcd");
    EXPECT_FALSE(HasBuffer(KString() + KString()));
    EXPECT_FALSE(HasBuffer(EmptyWithBuffer() + EmptyWithBuffer()));
    EXPECT_EQ(TextOf(left), "ab");
    EXPECT_EQ(TextOf(right), "cd");
}

// ------------------------------------------------------------------------------------------------------------ Access

TEST(KStringTest, AnIndexGivesTheByteAndZeroOutside) {
    const KString text("a\xFF\0d", 4);
    EXPECT_EQ(text[0], 'a');
    EXPECT_EQ(text[1], '\xFF');
    EXPECT_EQ(text[2], '\0');
    EXPECT_EQ(text[3], 'd');
    for (const int nIndex : {-1, 4, 5, INT_MIN, INT_MAX}) {
        EXPECT_EQ(text[nIndex], '\0') << nIndex;
        EXPECT_EQ(KString()[nIndex], '\0') << nIndex;
    }
    EXPECT_EQ(KString()[0], '\0');
}

// -------------------------------------------------------------------------------------------------------- Comparing

TEST(KStringTest, IsSameIsZeroForEqualTextsAndHasTheSignOfTheirOrder) {
    const KString text("abc");
    EXPECT_EQ(text.IsSame("abc"), 0);
    EXPECT_EQ(text.IsSame(KString("abc")), 0);
    EXPECT_LT(text.IsSame("abd"), 0);
    EXPECT_LT(text.IsSame(KString("abd")), 0);
    EXPECT_GT(text.IsSame("abb"), 0);
    EXPECT_GT(text.IsSame("ABC"), 0);
    EXPECT_GT(text.IsSame(""), 0);
    EXPECT_LT(text.IsSame("ab\xFF"), 0) << "bytes are compared unsigned";
}

TEST(KStringTest, IsSameIsZeroAsWellWhenEitherSideHasNoText) {
    const KString text("abc");
    EXPECT_EQ(text.IsSame(kNull), 0);
    EXPECT_EQ(text.IsSame(KString()), 0);
    EXPECT_EQ(KString().IsSame("abc"), 0);
    EXPECT_EQ(KString().IsSame(text), 0);
    EXPECT_EQ(KString().IsSame(KString()), 0);
    EXPECT_GT(text.IsSame(EmptyWithBuffer()), 0);
    EXPECT_LT(EmptyWithBuffer().IsSame(text), 0);
}

TEST(KStringTest, IsSameLooksNoFurtherThanTheFirstNul) {
    EXPECT_EQ(KString("ab\0x", 4).IsSame(KString("ab\0y", 4)), 0);
    EXPECT_EQ(KString("ab\0x", 4).IsSame("ab"), 0);
}

TEST(KStringTest, IsCaseIgnoreSameIsZeroForTextsThatDifferInCaseAlone) {
    const KString text("aBc");
    EXPECT_EQ(text.IsCaseIgnoreSame("AbC"), 0);
    EXPECT_EQ(text.IsCaseIgnoreSame(KString("ABC")), 0);
    EXPECT_LT(text.IsCaseIgnoreSame("ABD"), 0);
    EXPECT_GT(text.IsCaseIgnoreSame(KString("ABB")), 0);
    EXPECT_EQ(KString("ab\0x", 4).IsCaseIgnoreSame("AB"), 0);
}

TEST(KStringTest, IsCaseIgnoreSameIsMinusOneWhenEitherSideHasNoText) {
    const KString text("abc");
    EXPECT_EQ(text.IsCaseIgnoreSame(kNull), -1);
    EXPECT_EQ(text.IsCaseIgnoreSame(KString()), -1);
    EXPECT_EQ(KString().IsCaseIgnoreSame("abc"), -1);
    EXPECT_EQ(KString().IsCaseIgnoreSame(text), -1);
    EXPECT_EQ(KString().IsCaseIgnoreSame(KString()), -1);
    EXPECT_EQ(EmptyWithBuffer().IsCaseIgnoreSame(""), 0);
}

TEST(KStringTest, StringsAreEqualWhenTheirBytesAre) {
    struct Case {
        std::string left;
        std::string right;
        bool fgEqual;
    };
    const Case cases[] = {
        {"abc", "abc", true},     {"abc", "abd", false},     {"abc", "ABC", false}, {"abc", "ab", false},
        {"a\0b"s, "a\0b"s, true}, {"a\0b"s, "a\0c"s, false}, {"a\0b"s, "a", false},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(Of(test.left) == Of(test.right), test.fgEqual) << test.left << " and " << test.right;
        EXPECT_EQ(Of(test.left) != Of(test.right), !test.fgEqual) << test.left << " and " << test.right;
        EXPECT_EQ(Of(test.right) == Of(test.left), test.fgEqual) << test.left << " and " << test.right;
    }
}

TEST(KStringTest, StringsWithoutABufferAreEqualToNothing) {
    const KString empty;
    const KString text("a");
    EXPECT_FALSE(empty == KString());
    EXPECT_TRUE(empty != KString());
    EXPECT_FALSE(empty == text);
    EXPECT_TRUE(empty != text);
    EXPECT_FALSE(text == empty);
    EXPECT_TRUE(text != empty);
    const KString& same = empty;
    EXPECT_FALSE(empty == same);
    EXPECT_TRUE(empty != same);
    EXPECT_FALSE(empty == EmptyWithBuffer());
    EXPECT_TRUE(EmptyWithBuffer() != empty);
}

TEST(KStringTest, EmptyStringsThatHaveBuffersAreEqual) {
    EXPECT_TRUE(EmptyWithBuffer() == EmptyWithBuffer());
    EXPECT_FALSE(EmptyWithBuffer() != EmptyWithBuffer());
}

TEST(KStringTest, IsComparedWithATextByLengthAndBytes) {
    const KString text("abc");
    EXPECT_TRUE(text == "abc");
    EXPECT_FALSE(text != "abc");
    for (const char* const pszOther : {"abd", "ab", "abcd", "", "ABC"}) {
        EXPECT_FALSE(text == pszOther) << pszOther;
        EXPECT_TRUE(text != pszOther) << pszOther;
    }
    EXPECT_FALSE(KString("ab\0c", 4) == "ab");
    EXPECT_TRUE(KString("ab\0c", 4) != "ab");
    EXPECT_FALSE(KString() == "");
    EXPECT_TRUE(KString() != "");
    EXPECT_TRUE(EmptyWithBuffer() == "");
    EXPECT_FALSE(EmptyWithBuffer() != "");
}

TEST(KStringTest, DiffersFromANullPointerExactlyWhenItHasNoBuffer) {
    EXPECT_FALSE(KString("ab") != kNull);
    EXPECT_TRUE(KString() != kNull);
    EXPECT_FALSE(EmptyWithBuffer() != kNull);
}

TEST(KStringTest, IsNeverEqualToANullPointer) {
    EXPECT_FALSE(KString("ab") == kNull);
    EXPECT_FALSE(KString() == kNull);
}

// ------------------------------------------------------------------------------------------------------- Converting

namespace {

/// The two operations that copy the text into a caller's buffer.
using CopyingOperation = int (KString::*)(char*, int) const;
const CopyingOperation kCopyingOperations[] = {&KString::GetString, &KString::GetUTF8String};

}  // namespace

TEST(KStringTest, CopyingTheTextWritesTheBytesAndANulAndReturnsTheLength) {
    const ScopedChecks checks(true);
    for (const CopyingOperation get : kCopyingOperations) {
        char buffer[8];
        std::memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ((KString("a\0cde", 5).*get)(buffer, 6), 5);
        EXPECT_EQ(std::string(buffer, sizeof(buffer)), "a\0cde\0##"s);
    }
}

TEST(KStringTest, CopyingAnEmptyTextWritesANul) {
    const ScopedChecks checks(true);
    for (const CopyingOperation get : kCopyingOperations) {
        char buffer[2] = {'#', '#'};
        EXPECT_EQ((KString().*get)(buffer, 1), 0);
        EXPECT_EQ(std::string(buffer, sizeof(buffer)), "\0#"s);
    }
}

TEST(KStringTest, CopyingTheTextWithTheChecksOffWritesNoMoreThanTheBufferHolds) {
    const ScopedChecks checks(false);
    for (const CopyingOperation get : kCopyingOperations) {
        char buffer[6];
        std::memset(buffer, '#', sizeof(buffer));
        for (const int nLength : {0, -1, INT_MIN}) {
            EXPECT_EQ((KString("hello").*get)(buffer, nLength), 5);
            EXPECT_EQ(std::string(buffer, sizeof(buffer)), "######") << nLength;
        }
        EXPECT_EQ((KString("hello").*get)(buffer, 3), 5);
        EXPECT_EQ(std::string(buffer, sizeof(buffer)), "he\0###"s);
        EXPECT_EQ((KString("hello").*get)(buffer, 5), 5);
        EXPECT_EQ(std::string(buffer, sizeof(buffer)), "hell\0#"s);
        EXPECT_EQ((KString("hello").*get)(nullptr, 10), 5);
    }
}

TEST(KStringTest, CopyingTheTextChecksThatThereIsABuffer) {
    EXPECT_CHECK_FAILS(KString("hello").GetString(nullptr, 10), "pszString", "src/api/KString",
                       "int KString::GetString(tchar*, int) const");
    EXPECT_CHECK_FAILS(KString("hello").GetUTF8String(nullptr, 10), "pszUTF8", "src/api/KString",
                       "int KString::GetUTF8String(char*, int) const");
}

TEST(KStringTest, CopyingTheTextChecksThatTheNulHasRoomToo) {
    char buffer[8];
    EXPECT_CHECK_FAILS(KString("hello").GetString(buffer, 5), "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)",
                       "src/api/KString", "int KString::GetString(tchar*, int) const");
    EXPECT_CHECK_FAILS(KString().GetString(buffer, 0), "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)", "src/api/KString",
                       "int KString::GetString(tchar*, int) const");
    EXPECT_CHECK_FAILS(KString("hello").GetUTF8String(buffer, 5), "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)",
                       "src/api/KString", "int KString::GetUTF8String(char*, int) const");
    EXPECT_CHECK_FAILS(KString("hello").GetUTF8String(buffer, -1), "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)",
                       "src/api/KString", "int KString::GetUTF8String(char*, int) const");
}

// Wide characters, one by one: libc compares wide texts in whole registers, behind their ends, which memcheck reports.

template <std::size_t N>
std::vector<wchar_t> Whole(const wchar_t (&target)[N]) {
    return std::vector<wchar_t>(target, target + N);
}

template <std::size_t N>
std::vector<wchar_t> Literal(const wchar_t (&text)[N]) {
    return std::vector<wchar_t>(text, text + N - 1);
}

TEST(KStringTest, GetWideStringConvertsAndZeroesFourWideCharacters) {
    const ScopedChecks checks(true);
    wchar_t target[6];
    std::wmemset(target, L'#', 6);
    EXPECT_EQ(KString("ab").GetWideString(target, 6), 2);
    EXPECT_EQ(Whole(target), Literal(L"ab\0\0##"));
}

TEST(KStringTest, GetWideStringWritesNoTerminatorWhenEveryByteIsACharacter) {
    const ScopedChecks checks(true);
    wchar_t target[8];
    std::wmemset(target, L'#', 8);
    EXPECT_EQ(KString("abcde").GetWideString(target, 6), 5);
    EXPECT_EQ(Whole(target), Literal(L"abcde###"));
}

TEST(KStringTest, GetWideStringOfAnEmptyStringOnlyZeroes) {
    const ScopedChecks checks(true);
    wchar_t target[5];
    std::wmemset(target, L'#', 5);
    EXPECT_EQ(KString().GetWideString(target, 1), 0);
    EXPECT_EQ(Whole(target), Literal(L"\0\0\0\0#"));
}

TEST(KStringTest, GetWideStringConvertsByTheLocale) {
    const ScopedLocale locale("C.UTF-8");
    if (!locale.IsSet()) {
        GTEST_SKIP() << "the locale C.UTF-8 is not installed";
    }
    const ScopedChecks checks(true);
    wchar_t target[8];
    std::wmemset(target, L'#', 8);
    EXPECT_EQ(KString("\xC3\xA9\xE2\x82\xAC").GetWideString(target, 6), 2);
    EXPECT_EQ(Whole(target), Literal(L"\u00E9\u20AC\0\0####"));
}

TEST(KStringTest, GetWideStringOfAnInvalidTextIsMinusOne) {
    const ScopedLocale locale("C.UTF-8");
    if (!locale.IsSet()) {
        GTEST_SKIP() << "the locale C.UTF-8 is not installed";
    }
    wchar_t target[8];
    EXPECT_EQ(KString("ab\xFF").GetWideString(target, 8), -1);
}

TEST(KStringTest, GetWideStringChecksItsTargetAndItsLength) {
    wchar_t target[8];
    EXPECT_CHECK_FAILS(KString("hello").GetWideString(nullptr, 8), "pszWideString", "src/api/KString",
                       "int KString::GetWideString(wchar_t*, int) const");
    EXPECT_CHECK_FAILS(KString("hello").GetWideString(target, 5), "nLen >= m_nLen + 1", "src/api/KString",
                       "int KString::GetWideString(wchar_t*, int) const");
}

TEST(KStringTest, GetWideStringWithTheChecksOffConvertsNoMoreThanTheTargetHolds) {
    const ScopedChecks checks(false);
    wchar_t target[6];
    std::wmemset(target, L'#', 6);
    EXPECT_EQ(KString("hello").GetWideString(target, 3), 5);
    EXPECT_EQ(Whole(target), Literal(L"hel\0##"));
    EXPECT_EQ(KString("hello").GetWideString(target, -1), 5);
    EXPECT_EQ(Whole(target), Literal(L"\0\0\0\0##"));
    EXPECT_EQ(KString("hello").GetWideString(nullptr, 8), 5);
}

TEST(KStringTest, FromUTF8StringCopiesATextUpToItsNul) {
    EXPECT_EQ(TextOf(KString::FromUTF8String("h\xC3\xA9\0x")), "h\xC3\xA9");
    EXPECT_FALSE(HasBuffer(KString::FromUTF8String("")));
    EXPECT_FALSE(HasBuffer(KString::FromUTF8String(nullptr)));
}

TEST(KStringTest, FromWideStringConvertsByTheLocale) {
    EXPECT_EQ(TextOf(KString::FromWideString(L"hello")), "hello");
    EXPECT_FALSE(HasBuffer(KString::FromWideString(L"")));
    EXPECT_FALSE(HasBuffer(KString::FromWideString(nullptr)));

    const ScopedLocale locale("C.UTF-8");
    if (!locale.IsSet()) {
        GTEST_SKIP() << "the locale C.UTF-8 is not installed";
    }
    EXPECT_EQ(TextOf(KString::FromWideString(L"h\u00E9\u20AC")), "h\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(TextOf(KString::FromWideString(L"\U0001F600\U0001F601\U0001F602")),
              "\xF0\x9F\x98\x80\xF0\x9F\x98\x81\xF0\x9F\x98\x82")
        << "four bytes for every character";
}

TEST(KStringTest, FromWideStringHasRoomForWhateverTheLocaleMakesOfACharacter) {
    const ScopedLocale locale("C.UTF-8");
    if (!locale.IsSet()) {
        GTEST_SKIP() << "the locale C.UTF-8 is not installed";
    }
    for (const std::uint32_t nCharacter :
         {0x7Fu, 0x7FFu, 0xD800u, 0xFFFFu, 0x10FFFFu, 0x110000u, 0x3FFFFFFu, 0x7FFFFFFFu}) {
        const std::wstring text(3, static_cast<wchar_t>(nCharacter));
        char bytes[MB_LEN_MAX];
        const int nBytes = std::wctomb(bytes, text[0]);
        std::string expected;
        for (int i = 0; i < 3 && nBytes > 0; ++i) {
            expected.append(bytes, static_cast<std::size_t>(nBytes));
        }
        EXPECT_EQ(TextOf(KString::FromWideString(text.c_str())), expected) << std::hex << nCharacter;
    }
}

TEST(KStringTest, FromWideStringLeavesOutWhatTheLocaleCannotExpress) {
    const ScopedLocale locale("C");
    ASSERT_TRUE(locale.IsSet());
    EXPECT_EQ(TextOf(KString::FromWideString(L"a\u20ACb\U0001F600")), "ab");
    EXPECT_FALSE(HasBuffer(KString::FromWideString(L"\u20AC")));
}

// ------------------------------------------------------------------------------------------- Formatting and parsing

TEST(KStringTest, SprintfReplacesTheTextAndReturnsItsLength) {
    KString text("a longer text before");
    EXPECT_EQ(text.Sprintf("%s-%03d", "x", 7), 5);
    EXPECT_EQ(TextOf(text), "x-007");
}

TEST(KStringTest, ANulFollowsWhatSprintfMakes) {
    for (int nLength = 1; nLength <= 100; ++nLength) {
        KString text;
        EXPECT_EQ(text.Sprintf("%*d", nLength, 7), nLength);
        EXPECT_EQ(text.GetBuffer()[nLength], '\0') << nLength;
    }
}

TEST(KStringTest, SprintfWithoutMemoryReturnsZeroAndLeavesTheStringAsItWas) {
    KString text("before");
    int nLength = -1;
    {
        const ScopedNoMalloc none;
        nLength = text.Sprintf("%d", 7);
    }
    EXPECT_EQ(nLength, 0);
    EXPECT_EQ(TextOf(text), "before");
}

TEST(KStringTest, SprintfWithoutMemoryForTheTextAloneReturnsZeroAndLeavesTheStringAsItWas) {
    for (const char* const pszText : {"7", "seven"}) {
        KString text("before");
        int nLength = -1;
        {
            const ScopedNoRealloc none;
            nLength = text.Sprintf("%s", pszText);
        }
        EXPECT_EQ(nLength, 0) << pszText;
        EXPECT_EQ(TextOf(text), "before") << pszText;
    }
}

TEST(KStringTest, SprintfCanUseTheStringItChanges) {
    KString text("ab");
    EXPECT_EQ(text.Sprintf("[%s|%s]", text.GetBuffer(), text.GetBuffer()), 7);
    EXPECT_EQ(TextOf(text), "[ab|ab]");
}

TEST(KStringTest, SprintfKeepsANulThatItWrites) {
    KString text;
    EXPECT_EQ(text.Sprintf("a%cb", '\0'), 3);
    EXPECT_EQ(TextOf(text), "a\0b"s);
}

TEST(KStringTest, SprintfOfAnEmptyTextLeavesTheStringAsItWas) {
    KString text("before");
    const char* const pszBefore = text.GetBuffer();
    EXPECT_EQ(text.Sprintf("%s", ""), 0);
    EXPECT_EQ(TextOf(text), "before");
    EXPECT_EQ(text.GetBuffer(), pszBefore);
}

TEST(KStringTest, SprintfThatFailsReturnsTheFailureAndLeavesTheStringAsItWas) {
    const ScopedLocale locale("C");
    KString text("before");
    EXPECT_LT(text.Sprintf("%ls", L"\u20AC"), 0);
    EXPECT_EQ(TextOf(text), "before");
}

TEST(KStringTest, SprintfKeepsUpTo10240CharactersAndCutsMoreTo10239WhileTheLengthCountsThemAll) {
    struct Case {
        int nOutput;
        int nKept;
    };
    const Case cases[] = {
        {1, 1},         {10238, 10238}, {10239, 10239},  {10240, 10240},  {10241, 10239},
        {10242, 10239}, {20480, 10239}, {102400, 10239}, {102401, 10239}, {1024000, 10239},
    };
    for (const Case& test : cases) {
        const std::string output(static_cast<std::size_t>(test.nOutput), 'x');
        KString text("before");
        EXPECT_EQ(text.Sprintf("%s", output.c_str()), test.nOutput);
        EXPECT_EQ(text.Length(), test.nOutput);
        const std::size_t nKept = static_cast<std::size_t>(test.nKept);
        EXPECT_EQ(TextOf(text), output.substr(0, nKept) + std::string(output.size() - nKept, '\0')) << test.nOutput;
        EXPECT_EQ(text.GetBuffer()[test.nOutput], '\0');
    }
}

TEST(KStringTest, WhatWasCutByFormattingIsMemoryOfTheString) {
    const ScopedChecks checks(true);
    const KString cut = Cut();
    ASSERT_EQ(cut.Length(), kCutLength);
    ASSERT_EQ(KString::LengthOfString(cut.GetBuffer()), kCutText);

    KString copy(cut);
    EXPECT_TRUE(copy == cut);
    EXPECT_EQ(copy[kCutText - 1], 'x');
    EXPECT_EQ(copy[kCutText], '\0');
    EXPECT_EQ(copy[kCutLength - 1], '\0');
    EXPECT_EQ(copy.IsSame(cut), 0);
    EXPECT_EQ(copy.Find('\0', 0), kCutText);
    EXPECT_EQ(copy.FindR('x', 0), kCutText - 1);
    EXPECT_EQ(copy.Find("x", kCutText), -1);
    EXPECT_EQ(copy.Find("x", kCutLength - 1), -1);
    EXPECT_EQ(copy.FindR("xx", 0), kCutText - 2);
    EXPECT_EQ(copy.Sub(kCutText - 1, kCutLength).Length(), kCutLength - kCutText + 1);
    EXPECT_EQ(TextOf(copy.Insert(kCutLength, "y")), std::string(kCutText, 'x'));
    EXPECT_EQ((copy + copy).Length(), 2 * kCutLength);
    EXPECT_FALSE(copy.IsHexStringWithOther(*std::make_unique<KString>()));

    std::vector<char> target(kCutLength + 1, '#');
    EXPECT_EQ(copy.GetString(target.data(), kCutLength + 1), kCutLength);
    EXPECT_EQ(target[kCutLength], '\0');

    KList<KString> fields;
    EXPECT_TRUE(copy.Divide("y", fields));
    ASSERT_EQ(fields.GetCount(), 1);
    EXPECT_EQ(fields[0]->Length(), kCutText);

    KString edited(cut);
    edited.ToUpper();
    EXPECT_EQ(edited[kCutText - 1], 'X');
    EXPECT_EQ(edited.Length(), kCutLength);
    edited.TrimR('X');
    EXPECT_EQ(edited.Length(), kCutLength);
    edited.Trim('Y');
    EXPECT_EQ(edited.Length(), kCutText);

    KString replaced(cut);
    EXPECT_TRUE(replaced.Replace("xxx", "y"));
    EXPECT_EQ(TextOf(replaced), std::string(kCutText / 3, 'y'));
}

TEST(KStringTest, ScanfReadsFromTheStartGivenAndReturnsHowManyWereRead) {
    const KString text("ab 12 cd");
    int nNumber = -1;
    char word[8] = "";
    EXPECT_EQ(text.Scanf(2, "%d %7s", &nNumber, word), 2);
    EXPECT_EQ(nNumber, 12);
    EXPECT_STREQ(word, "cd");
    EXPECT_EQ(text.Scanf(0, "%d", &nNumber), 0);
    EXPECT_EQ(text.Scanf(0, "ab %d", &nNumber), 1);
    EXPECT_EQ(text.Scanf(6, "%d", &nNumber), 0);
    EXPECT_EQ(KString("  ").Scanf(0, "%d", &nNumber), EOF);
}

TEST(KStringTest, ScanfFromTheEndOrBehindItReadsNothing) {
    int nNumber = -1;
    for (const int nStart : {2, 3, INT_MAX}) {
        EXPECT_EQ(KString("12").Scanf(nStart, "%d", &nNumber), 0) << nStart;
    }
    EXPECT_EQ(KString().Scanf(0, "%d", &nNumber), 0);
    EXPECT_EQ(EmptyWithBuffer().Scanf(0, "%d", &nNumber), 0);
    EXPECT_EQ(nNumber, -1);
}

TEST(KStringTest, ScanfFromANegativeStartReadsFromTheBeginning) {
    for (const int nStart : {-1, INT_MIN}) {
        int nNumber = 0;
        EXPECT_EQ(KString("12").Scanf(nStart, "%d", &nNumber), 1);
        EXPECT_EQ(nNumber, 12);
    }
}

TEST(KStringTest, ScanfOfAnEmptyTextFromANegativeStartFindsNothing) {
    int nNumber = 0;
    EXPECT_EQ(EmptyWithBuffer().Scanf(-1, "%d", &nNumber), EOF);
    EXPECT_EQ(KString().Scanf(-1, "%d", &nNumber), EOF);
    EXPECT_EQ(nNumber, 0);
}

TEST(KStringTest, ToDigitReadsHexadecimalBinaryAndDecimalNumbers) {
    struct Case {
        std::string text;
        int nValue;
    };
    const Case cases[] = {
        // Hexadecimal.
        {"0x1A", 26},
        {"0X1a", 26},
        {"0xfF", 255},
        {"0x0", 0},
        {"0x7", 7},
        {"0xG", 0},
        {"0x1G2", 1},
        {"0x-1", 0},
        {"0xFFFFFFFF", -1},
        {"0x80000000", INT_MIN},
        {"0x123456789", 0x23456789},
        {"0x1:", 1},
        {"0x1@", 1},
        {"0x1`", 1},
        {"0x1/", 1},
        {"0x1\xE1", 1},
        // Binary.
        {"0b1", 1},
        {"0b101", 5},
        {"0B101", 5},
        {"0b12", 1},
        {"0b21", 0},
        {"0b11111111111111111111111111111111", -1},
        {"0b100000000000000000000000000000001", 1},
        {"0b1\xFF", 1},
        {"0b1\x80", 1},
        // Bytes below '0' count as negative digits: '/' is -1, a blank -16, a NUL -48.
        {"0b1/", 1},
        {"0b1/1", 3},
        {"0b1 1", -27},
        {"0b1\0"s, -46},
        {"0b1\0001"s, -91},
        // Decimal.
        {"42", 42},
        {"-42", -42},
        {"12ab", 12},
        {"+5", 0},
        {" 5", 0},
        {"-", 0},
        {"--5", 0},
        {"-+5", 0},
        {"", 0},
        {"0", 0},
        {"-0", 0},
        {"007", 7},
        {"abc", 0},
        {"12:", 12},
        {"12/", 12},
        {"1\xE9", 1},
        {"1\0002"s, 1},
        {"2147483647", INT_MAX},
        {"2147483648", INT_MIN},
        {"-2147483648", INT_MIN},
        {"4294967295", -1},
        {"4294967297", 1},
        // Too short for a base, or not at the start.
        {"0x", 0},
        {"0b", 0},
        {"-0x1A", 0},
        {"00x1A", 0},
        {" 0x1A", 0},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(Of(test.text).ToDigit(), test.nValue) << '"' << test.text << '"';
    }
}

TEST(KStringTest, IsHexStringIsTrueWhenNoByteIsAHexadecimalDigit) {
    EXPECT_FALSE(KString("12").IsHexString());
    for (const char ch : "0123456789abcdefABCDEF"s) {
        EXPECT_FALSE(Of("z"s + ch).IsHexString()) << ch;
    }
    EXPECT_TRUE(KString("zz").IsHexString());
    EXPECT_TRUE(KString().IsHexString());
    EXPECT_FALSE(KString("azz").IsHexString());
    EXPECT_FALSE(KString("zza").IsHexString());
    EXPECT_FALSE(KString("zzF").IsHexString());
    EXPECT_FALSE(KString("z\0f", 3).IsHexString());
    EXPECT_TRUE(KString("gG/:@`\xE1\xFF\0", 9).IsHexString());
}

TEST(KStringTest, IsHexStringWithOtherIsTrueWhenEveryByteIsAHexadecimalDigit) {
    KString ignored("zz");
    EXPECT_TRUE(KString("12").IsHexStringWithOther(ignored));
    EXPECT_TRUE(KString("0123456789abcdefABCDEF").IsHexStringWithOther(ignored));
    EXPECT_TRUE(KString().IsHexStringWithOther(ignored));
    for (const char ch : {'g', 'G', '/', ':', '@', '`', ' ', '\xE1', '\xFF', '\0'}) {
        EXPECT_FALSE(Of("1"s + ch).IsHexStringWithOther(ignored)) << ch;
    }
    EXPECT_FALSE(KString("g12").IsHexStringWithOther(ignored));
    EXPECT_EQ(TextOf(ignored), "zz");
}

// ----------------------------------------------------------------------------------------------------- Text helpers

TEST(KStringTest, LengthsOfTextsAreCountedUpToTheNul) {
    EXPECT_EQ(KString::LengthOfString("ab\0cd"), 2);
    EXPECT_EQ(KString::LengthOfString(""), 0);
    EXPECT_EQ(KString::LengthOfUTF8String("\xC3\xA9"), 2);
    EXPECT_EQ(KString::LengthOfWideString(L"\u00E9\u20AC"), 2);
    EXPECT_EQ(KString::LengthOfWideString(L""), 0);
}

TEST(KStringTest, NoTextHasNoLength) {
    EXPECT_EQ(KString::LengthOfString(nullptr), 0);
    EXPECT_EQ(KString::LengthOfUTF8String(nullptr), 0);
    EXPECT_EQ(KString::LengthOfWideString(nullptr), 0);
}

TEST(KStringTest, AllocAndCopyCopiesTheTextOrOneByteMoreThanTheCount) {
    struct Case {
        int nCount;
        std::string copied;
    };
    const Case cases[] = {
        {-1, "abcdef\0\0"s},
        {0, "a\0"s},
        {2, "abc\0"s},
        {6, "abcdef\0\0"s},
    };
    char text[] = "abcdef";
    for (const Case& test : cases) {
        char* pCopy = nullptr;
        EXPECT_TRUE(KString::AllocAndCopy(&pCopy, text, test.nCount));
        ASSERT_NE(pCopy, nullptr);
        EXPECT_EQ(std::string(pCopy, test.copied.size()), test.copied) << test.nCount;
        EXPECT_TRUE(KString::FreeAllocedString(&pCopy));
        EXPECT_EQ(pCopy, nullptr);
    }
}

TEST(KStringTest, AllocAndCopyOfNoBytesOrOfMoreThanCanBeAllocatedIsFalseAndLeavesNull) {
    char text[] = "abc";
    for (const int nCount : {-2, -3, INT_MIN, INT_MAX, INT_MAX - 1, INT_MAX / 4}) {
        char* pCopy = text;
        EXPECT_FALSE(KString::AllocAndCopy(&pCopy, text, nCount)) << nCount;
        EXPECT_EQ(pCopy, nullptr) << nCount;
    }
    char* pCopy = text;
    EXPECT_FALSE(KString::AllocAndCopy(&pCopy, nullptr, -1));
    EXPECT_EQ(pCopy, nullptr);
}

TEST(KStringTest, AllocAndCopyToNowhereIsFalse) {
    char text[] = "abc";
    EXPECT_FALSE(KString::AllocAndCopy(nullptr, text, -1));
}

TEST(KStringTest, AllocAndCopyAsksForMemoryUpToTheMostThatALengthCanTell) {
    const ScopedChecks checks(false);
    struct Case {
        int nCount;
        int nRefused;
    };
    char text[] = "abc";
    for (const Case& test : {Case{INT_MAX / 4 - 1, 1}, Case{INT_MAX / 4, 0}}) {
        char* pCopy = text;
        bool fgCopied = true;
        int nRefused = -1;
        {
            const ScopedNoMalloc none;
            fgCopied = KString::AllocAndCopy(&pCopy, text, test.nCount);
            nRefused = none.Refused();
        }
        EXPECT_FALSE(fgCopied) << test.nCount;
        EXPECT_EQ(pCopy, nullptr) << test.nCount;
        EXPECT_EQ(nRefused, test.nRefused) << test.nCount;
    }
}

TEST(KStringTest, AllocAndCopyAllocatesFourBytesForEachByteCopiedAndEntersThemInTheRegistry) {
    const ScopedChecks checks(false);
    const ScopedLevel level(0);
    KMem::Deinit();
    char text[] = "abc";
    char* pCopy = nullptr;
    ASSERT_TRUE(KString::AllocAndCopy(&pCopy, text, -1));
    std::memset(pCopy, '#', 16);
    const std::string report = StderrOf([] { KMem::Deinit(); });
    EXPECT_THAT(report, testing::ContainsRegex("OBJ 00000000 nonClass:[0-9a-f]{8} Size:00000016\n"));
    EXPECT_TRUE(KString::FreeAllocedString(&pCopy));
}

TEST(KStringTest, FreeingNoAllocatedTextIsTrue) {
    char* pNone = nullptr;
    EXPECT_TRUE(KString::FreeAllocedString(&pNone));
    EXPECT_TRUE(KString::FreeAllocedString(nullptr));
}

TEST(KStringTest, CopyWritesANulBehindTheBytesItCopies) {
    char text[] = "abcdef";
    char target[8];

    std::memset(target, '#', sizeof(target));
    EXPECT_TRUE(KString::Copy(target, 4, text + 3, -1));
    EXPECT_EQ(std::string(target, sizeof(target)), "def\0\0###"s) << "five bytes for a buffer of four";

    std::memset(target, '#', sizeof(target));
    EXPECT_TRUE(KString::Copy(target, 3, text, 2));
    EXPECT_EQ(std::string(target, sizeof(target)), "abc\0####"s);

    std::memset(target, '#', sizeof(target));
    EXPECT_TRUE(KString::Copy(target, 1, text, 0));
    EXPECT_EQ(std::string(target, sizeof(target)), "a\0######"s);
}

TEST(KStringTest, CopyIntoABufferThatIsTooShortIsFalseAndWritesNothing) {
    char text[] = "abc";
    char target[] = "####";
    EXPECT_FALSE(KString::Copy(target, 3, text, -1));
    EXPECT_FALSE(KString::Copy(target, 2, text, 2));
    EXPECT_FALSE(KString::Copy(target, 0, text, 0));
    EXPECT_FALSE(KString::Copy(target, -1, text, 0));
    EXPECT_STREQ(target, "####");
}

TEST(KStringTest, CopyOfNoBytesOrWithoutABufferIsFalse) {
    char text[] = "abc";
    char target[] = "####";
    for (const int nCount : {-2, INT_MIN, INT_MAX}) {
        EXPECT_FALSE(KString::Copy(target, 4, text, nCount)) << nCount;
    }
    EXPECT_FALSE(KString::Copy(target, 4, nullptr, -1));
    EXPECT_FALSE(KString::Copy(nullptr, 4, text, -1));
    EXPECT_STREQ(target, "####");
}

// ------------------------------------------------------------------------------------------------------- Debug log

TEST(KStringTest, TheLogWritesAStringAsItStands) {
    const ScopedLevel level(0);
    const KString text("100% %s %n %d");
    EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(KDebug::Error(text)); }), "Error****: 100% %s %n %d\n");
    EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(KDebug::Debug(text)); }), "Debug: 100% %s %n %d\n");
    EXPECT_THAT(StderrOf([&] { EXPECT_TRUE(KDebug::Log(text)); }),
                testing::MatchesRegex(support::StampPattern() + "100% %s %n %d\n"));
}

TEST(KStringTest, TheLogWritesAnEmptyStringAsAnEmptyMessage) {
    const ScopedLevel level(0);
    EXPECT_EQ(StderrOf([] { EXPECT_TRUE(KDebug::Error(KString())); }), "Error****: \n");
}

TEST(KStringTest, TheLogFiltersStringsByTheLevel) {
    const ScopedLevel level(3);
    const KString text("text");
    EXPECT_EQ(StderrOf([&] {
                  EXPECT_TRUE(KDebug::Error(text));
                  EXPECT_TRUE(KDebug::Debug(text));
                  EXPECT_TRUE(KDebug::Log(text));
              }),
              "");
}

// ------------------------------------------------------------------------------------------------------- Searching

TEST(KStringTest, FindsACharacterFromTheFrontAndFromTheBack) {
    const KString text("banana");
    EXPECT_EQ(text.Find('a', 0), 1);
    EXPECT_EQ(text.Find('a', 2), 3);
    EXPECT_EQ(text.Find('b', 1), -1);
    EXPECT_EQ(text.Find('a', 6), -1);
    EXPECT_EQ(text.Find('x', 0), -1);
    EXPECT_EQ(text.FindR('a', 0), 5);
    EXPECT_EQ(text.FindR('a', 1), 3);
    EXPECT_EQ(text.FindR('n', 1), 4);
    EXPECT_EQ(text.FindR('n', 2), 2);
    EXPECT_EQ(text.FindR('b', 5), 0);
    EXPECT_EQ(text.FindR('b', 6), -1);
    EXPECT_EQ(text.FindR('x', 0), -1);
}

TEST(KStringTest, FindsACharacterInEitherCase) {
    const KString text("bAnaNa");
    EXPECT_EQ(text.FindCaseIgnore('a', 0), 1);
    EXPECT_EQ(text.FindCaseIgnore('A', 2), 3);
    EXPECT_EQ(text.FindRCaseIgnore('N', 2), 2);
    EXPECT_EQ(text.FindRCaseIgnore('n', 0), 4);
    EXPECT_EQ(text.FindRCaseIgnore('B', 5), 0);
    EXPECT_EQ(text.FindCaseIgnore('x', 0), -1);
}

TEST(KStringTest, SearchesForACharacterNeverLeaveTheText) {
    for (const int nStart : {6, 7, INT_MAX}) {
        const KString text("banana");
        EXPECT_EQ(text.Find('a', nStart), -1) << nStart;
        EXPECT_EQ(text.FindR('a', nStart), -1) << nStart;
        EXPECT_EQ(text.FindCaseIgnore('a', nStart), -1) << nStart;
        EXPECT_EQ(text.FindRCaseIgnore('a', nStart), -1) << nStart;
    }
    for (const int nStart : {-1, -100, INT_MIN}) {
        const KString text("banana");
        EXPECT_EQ(text.Find('b', nStart), 0) << nStart;
        EXPECT_EQ(text.FindR('a', nStart), 5) << nStart;
        EXPECT_EQ(text.FindCaseIgnore('B', nStart), 0) << nStart;
        EXPECT_EQ(text.FindRCaseIgnore('A', nStart), 5) << nStart;
        EXPECT_EQ(text.Find("ba", nStart), 0) << nStart;
        EXPECT_EQ(text.FindR("na", nStart), 4) << nStart;
        EXPECT_EQ(text.FindCaseIgnore("BA", nStart), 0) << nStart;
        EXPECT_EQ(text.FindRCaseIgnore("NA", nStart), 4) << nStart;
        EXPECT_EQ(KString().Find('b', nStart), -1) << nStart;
        EXPECT_EQ(KString().FindR('b', nStart), -1) << nStart;
        EXPECT_EQ(KString().FindCaseIgnore('b', nStart), -1) << nStart;
        EXPECT_EQ(KString().FindRCaseIgnore('b', nStart), -1) << nStart;
    }
}

TEST(KStringTest, TheTerminatingNulIsNotFoundButAnEmbeddedOneIs) {
    EXPECT_EQ(KString("abc").Find('\0', 0), -1);
    EXPECT_EQ(KString("abc").FindR('\0', 0), -1);
    EXPECT_EQ(KString("a\0c", 3).Find('\0', 0), 1);
    EXPECT_EQ(KString("a\0c", 3).FindR('\0', 0), 1);
    EXPECT_EQ(KString("a\0c", 3).FindCaseIgnore('\0', 0), 1);
}

TEST(KStringTest, FindsBytesAbove127WhateverTheSignOfAChar) {
    const KString text("a\xE9\xFF\x80z");
    EXPECT_EQ(text.Find('\xFF', 0), 2);
    EXPECT_EQ(text.FindR('\xE9', 0), 1);
    EXPECT_EQ(text.FindCaseIgnore('\x80', 0), 3);
    EXPECT_EQ(text.FindRCaseIgnore('\xFF', 0), 2);
}

TEST(KStringTest, FindsATextFromTheFront) {
    const KString text("banana");
    EXPECT_EQ(text.Find("an", 0), 1);
    EXPECT_EQ(text.Find("an", 2), 3);
    EXPECT_EQ(text.Find("an", 4), -1);
    EXPECT_EQ(text.Find("banana", 0), 0);
    EXPECT_EQ(text.Find("bananas", 0), -1);
    EXPECT_EQ(text.Find(KString("na"), 3), 4);
    EXPECT_EQ(text.FindCaseIgnore("AN", 2), 3);
    EXPECT_EQ(text.FindCaseIgnore(KString("NA"), 0), 2);
}

TEST(KStringTest, FindsATextThatIsTheEndOfALongerOne) {
    const char szLonger[] = "xan";
    EXPECT_EQ(KString("banana").Find(szLonger + 1, 0), 1);
    EXPECT_EQ(KString("banana").FindR(szLonger + 1, 0), 3);
}

TEST(KStringTest, FindsATextWhereverASearchByteByByteDoes) {
    // Of letters that are often met, that are not, and of both; near each other, and so far apart that a hit is a surprise.
    const std::string alphabets[] = {"ae", "xy", "ax", "e x,", "a\xE1\xF5", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaax"};
    std::mt19937 random(20);
    const auto text = [&random](const std::string& alphabet, std::size_t nMost) {
        std::string made(random() % (nMost + 1), '\0');
        std::generate(made.begin(), made.end(), [&] { return alphabet[random() % alphabet.size()]; });
        return made;
    };
    int nFound = 0;
    for (int i = 0; i < 40000; ++i) {
        const std::string& alphabet = alphabets[random() % std::size(alphabets)];
        const std::string where = text(alphabet, i % 2 == 0 ? 12 : 400);
        const std::string what = text(alphabet, 6);
        const std::size_t nStart = random() % (where.size() + 1);
        const std::size_t nAt = nStart < where.size() ? where.find(what, nStart) : std::string::npos;
        const int nExpected = nAt != std::string::npos ? static_cast<int>(nAt) : -1;
        ASSERT_EQ(KString(where.c_str()).Find(what.c_str(), static_cast<int>(nStart)), nExpected)
            << '"' << what << "\" in \"" << where << "\" from " << nStart;
        nFound += nExpected > 0 ? 1 : 0;
    }
    EXPECT_GT(nFound, 10000);
}

TEST(KStringTest, FindsATextWhoseRareLetterIsEverywhere) {
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += "ax";
    }
    EXPECT_EQ(KString((text + "ay").c_str()).Find("xay", 0), 1999);
    EXPECT_EQ(KString((text + "axx").c_str()).Find("xx", 0), 2001);
    EXPECT_EQ(KString(text.c_str()).Find("xx", 0), -1);
    EXPECT_EQ(KString((std::string(5000, 'a') + text + "aax").c_str()).Find("xaax", 0), 6999);
}

TEST(KStringTest, AWordThatWouldGoOnBehindTheTextsEndIsNotFound) {
    // Around the length from which on a word's rarest letter is looked for, and at each end of the block.
    for (const std::size_t nBefore : {0U, 5U, 10U, 11U, 12U, 13U, 14U, 15U, 16U, 40U}) {
        const std::string text = std::string(nBefore, '-') + "zeb";
        EXPECT_EQ(KString(text.c_str()).Find("zebra", 0), -1) << nBefore;
        EXPECT_EQ(KString(text.c_str()).Find("zeb", 0), static_cast<int>(nBefore));
        EXPECT_EQ(KString(text.c_str()).FindR("zeb", 0), static_cast<int>(nBefore));
        const std::string reversed = "bra" + std::string(nBefore, '-');
        EXPECT_EQ(KString(reversed.c_str()).Find("zebra", 0), -1) << nBefore;
        EXPECT_EQ(KString(reversed.c_str()).Find("bra", 0), 0) << nBefore;
    }
}

TEST(KStringTest, NoByteInFrontOfTheWordIsRead) {
    const KString text("in the heat of the xenon lamp, the axe");
    // A block of its own, in front of which the address sanitizer looks.
    for (const char* const pszWord : {"hex", "heat o", "the x", "the axe", "theq"}) {
        const KString word(pszWord);
        EXPECT_EQ(text.Find(word.GetBuffer(), 0), static_cast<int>(std::string(text.GetBuffer()).find(pszWord)));
    }
}

TEST(KStringTest, NothingIsFoundBehindANul) {
    KString text("some text, x");
    text.TrimR('x');
    ASSERT_EQ(text.Length(), 12) << "the length counts the NUL";
    EXPECT_EQ(text.Find("x", 0), 7);
    EXPECT_EQ(text.Find("x", 8), -1);
    EXPECT_EQ(text.Find(", x", 0), -1);
    KString longer("some text and more of it, x");
    longer.TrimR('x');
    EXPECT_EQ(longer.Find("x", 0), 7);
    EXPECT_EQ(longer.Find("x", 8), -1);
    EXPECT_EQ(KString("x").Sub(0, 20).Find("y", 0), -1);
}

TEST(KStringTest, FindsATextFromTheBackUpToALimitThatIsInclusive) {
    const KString text("banana");
    EXPECT_EQ(text.FindR("an", 0), 3);
    EXPECT_EQ(text.FindR("an", 3), 3);
    EXPECT_EQ(text.FindR("an", 4), 1);
    EXPECT_EQ(text.FindR("an", 5), 1);
    EXPECT_EQ(text.FindR("an", 6), -1);
    EXPECT_EQ(text.FindR("ba", 5), 0);
    EXPECT_EQ(text.FindR(KString("an"), 4), 1);
    EXPECT_EQ(text.FindR("x", 0), -1);
    EXPECT_EQ(KString("aaaa").FindR("aa", 0), 2) << "hits may overlap";
    EXPECT_EQ(KString("bANana").FindRCaseIgnore("an", 0), 3);
    EXPECT_EQ(KString("bANana").FindRCaseIgnore(KString("aN"), 4), 1);
}

TEST(KStringTest, ATextIsNotFoundWhereThereIsNone) {
    const KString text("banana");
    EXPECT_EQ(text.Find(kNull, 0), -1);
    EXPECT_EQ(text.Find(KString(), 0), -1);
    EXPECT_EQ(text.FindR(kNull, 0), -1);
    EXPECT_EQ(text.FindR(KString(), 0), -1);
    EXPECT_EQ(text.FindCaseIgnore(kNull, 0), -1);
    EXPECT_EQ(text.FindCaseIgnore(KString(), 0), -1);
    EXPECT_EQ(text.FindRCaseIgnore(kNull, 0), -1);
    EXPECT_EQ(text.FindRCaseIgnore(KString(), 0), -1);
    EXPECT_EQ(text.HasCaseIgnoreString(kNull), -1);
    for (const KString& empty : {KString(), EmptyWithBuffer()}) {
        EXPECT_EQ(empty.Find("a", 0), -1);
        EXPECT_EQ(empty.FindR("a", 0), -1);
        EXPECT_EQ(empty.FindCaseIgnore("a", 0), -1);
        EXPECT_EQ(empty.FindRCaseIgnore("a", 0), -1);
        EXPECT_EQ(empty.Find("", 0), -1);
    }
    for (const int nStart : {6, 7, INT_MAX}) {
        EXPECT_EQ(text.Find("a", nStart), -1) << nStart;
        EXPECT_EQ(text.FindR("b", nStart), -1) << nStart;
        EXPECT_EQ(text.FindCaseIgnore("a", nStart), -1) << nStart;
        EXPECT_EQ(text.FindRCaseIgnore("b", nStart), -1) << nStart;
    }
}

TEST(KStringTest, AnEmptyTextIsFoundAtTheStartAndFromTheBackAtTheEnd) {
    const KString text("abc");
    EXPECT_EQ(text.Find("", 0), 0);
    EXPECT_EQ(text.Find("", 2), 2);
    EXPECT_EQ(text.FindCaseIgnore(EmptyWithBuffer(), 1), 1);
    EXPECT_EQ(text.FindR("", 0), 3);
    EXPECT_EQ(text.FindR("", 1), 2);
    EXPECT_EQ(text.FindRCaseIgnore(EmptyWithBuffer(), 2), 1);
    EXPECT_EQ(KString("ab\0cd", 5).FindR("", 0), 2);
}

TEST(KStringTest, SearchesForATextEndAtTheFirstNul) {
    const KString text("ab\0ab", 5);
    EXPECT_EQ(text.Find("ab", 0), 0);
    EXPECT_EQ(text.Find("ab", 1), -1);
    EXPECT_EQ(text.Find("ab", 2), -1);
    EXPECT_EQ(text.Find("ab", 3), 3);
    EXPECT_EQ(text.FindR("ab", 0), 0);
    EXPECT_EQ(text.Find(KString("b\0x", 3), 0), 1);
}

TEST(KStringTest, HasCaseIgnoreStringReturnsAnIndex) {
    EXPECT_EQ(KString("ABC").HasCaseIgnoreString("ab"), 0);
    EXPECT_EQ(KString("xABC").HasCaseIgnoreString("bc"), 2);
    EXPECT_EQ(KString("ABC").HasCaseIgnoreString("d"), -1);
}

namespace {

// The searches as plain loops.

bool Matches(char chText, char ch, bool fgAnyCase) {
    return fgAnyCase ? AsciiLower(chText) == AsciiLower(ch) : chText == ch;
}

int FindByLoop(const std::string& text, char ch, int nStart, bool fgAnyCase) {
    for (int i = nStart; i < static_cast<int>(text.size()); ++i) {
        if (Matches(text[static_cast<std::size_t>(i)], ch, fgAnyCase)) {
            return i;
        }
    }
    return -1;
}

int FindRByLoop(const std::string& text, char ch, int nStart, bool fgAnyCase) {
    for (int i = static_cast<int>(text.size()) - 1 - nStart; i >= 0; --i) {
        if (Matches(text[static_cast<std::size_t>(i)], ch, fgAnyCase)) {
            return i;
        }
    }
    return -1;
}

std::string UpToNul(const std::string& text, int nStart) {
    const std::string rest = text.substr(static_cast<std::size_t>(nStart));
    return rest.substr(0, rest.find('\0'));
}

int FindByLoop(const std::string& text, const std::string& sought, int nStart, bool fgAnyCase) {
    if (nStart >= static_cast<int>(text.size())) {
        return -1;
    }
    const std::string rest = fgAnyCase ? AsciiLower(UpToNul(text, nStart)) : UpToNul(text, nStart);
    const std::size_t nHit = rest.find(fgAnyCase ? AsciiLower(sought) : sought);
    return nHit == std::string::npos ? -1 : nStart + static_cast<int>(nHit);
}

int FindRByLoop(const std::string& text, const std::string& sought, int nStart, bool fgAnyCase) {
    const int nLength = static_cast<int>(text.size());
    if (nStart >= nLength) {
        return -1;
    }
    int nFound = -1;
    const int nEnd = static_cast<int>(UpToNul(text, 0).size());
    for (int i = 0; i <= nEnd; ++i) {
        const bool fgHit = i < nLength ? FindByLoop(text, sought, i, fgAnyCase) == i : sought.empty();
        if (fgHit && i <= nLength - nStart) {
            nFound = i;
        }
    }
    return nFound;
}

}  // namespace

TEST(KStringTest, SearchesForCharactersAgreeWithAPlainLoop) {
    RandomText random(1);
    for (int i = 0; i < kRandomRounds; ++i) {
        const std::string text = random.Text(12, "aAbB\0\xE9\xC9"s);
        const char ch = "aAbB\0\xE9\xC9x"[random.Number(0, 7)];
        const int nStart = random.Number(0, 14);
        const KString string = Of(text);
        ASSERT_EQ(string.Find(ch, nStart), FindByLoop(text, ch, nStart, false));
        ASSERT_EQ(string.FindR(ch, nStart), FindRByLoop(text, ch, nStart, false));
        ASSERT_EQ(string.FindCaseIgnore(ch, nStart), FindByLoop(text, ch, nStart, true));
        ASSERT_EQ(string.FindRCaseIgnore(ch, nStart), FindRByLoop(text, ch, nStart, true));
    }
}

TEST(KStringTest, SearchesForTextsAgreeWithAPlainLoop) {
    RandomText random(2);
    for (int i = 0; i < kRandomRounds; ++i) {
        const std::string text = random.Text(12, "aaabbAB\0"s);
        const std::string sought = random.Text(3, "abAB");
        const int nStart = random.Number(0, 14);
        const KString string = Of(text);
        const char* const pszSought = sought.c_str();
        SCOPED_TRACE(testing::PrintToString(text) + " " + testing::PrintToString(sought) + " " +
                     std::to_string(nStart));
        ASSERT_EQ(string.Find(pszSought, nStart), FindByLoop(text, sought, nStart, false));
        ASSERT_EQ(string.FindR(pszSought, nStart), FindRByLoop(text, sought, nStart, false));
        ASSERT_EQ(string.FindCaseIgnore(pszSought, nStart), FindByLoop(text, sought, nStart, true));
        ASSERT_EQ(string.FindRCaseIgnore(pszSought, nStart), FindRByLoop(text, sought, nStart, true));
    }
}

// --------------------------------------------------------------------------------------------------------- Editing

TEST(KStringTest, ReplacesEveryByteWithinTheLength) {
    KString text("a-b\0-c", 6);
    EXPECT_TRUE(text.Replace('-', '+'));
    EXPECT_EQ(TextOf(text), "a+b\0+c"s);
    EXPECT_TRUE(text.Replace('x', 'y'));
    EXPECT_EQ(TextOf(text), "a+b\0+c"s);
    EXPECT_TRUE(text.Replace('\0', '.'));
    EXPECT_EQ(TextOf(text), "a+b.+c");
    EXPECT_TRUE(text.Replace('c', 'a'));
    EXPECT_EQ(TextOf(text), "a+b.+a") << "up to the last byte";
    EXPECT_TRUE(text.Replace('a', 'a'));
    EXPECT_EQ(TextOf(text), "a+b.+a");
    KString high("\xFF\xE9");
    EXPECT_TRUE(high.Replace('\xFF', 'y'));
    EXPECT_EQ(TextOf(high), "y\xE9");
    KString nuls("\0a\0\0", 4);
    EXPECT_TRUE(nuls.Replace('\0', '.'));
    EXPECT_EQ(TextOf(nuls), ".a..") << "from the first byte on";
    EXPECT_STREQ(nuls.GetBuffer(), ".a..");
}

TEST(KStringTest, ReplacingBytesIsFalseWithoutABuffer) {
    KString empty;
    EXPECT_FALSE(empty.Replace('a', 'b'));
    KString buffered = EmptyWithBuffer();
    EXPECT_TRUE(buffered.Replace('a', 'b'));
}

TEST(KStringTest, ReplacesEveryOccurrenceOfATextFromTheLeft) {
    struct Case {
        std::string text;
        const char* pszFrom;
        const char* pszTo;
        std::string result;
    };
    const Case cases[] = {
        {"banana", "an", "AN", "bANANa"}, {"banana", "ana", "x", "bxna"}, {"banana", "banana", "x", "x"},
        {"banana", "a", "", "bnn"},       {"aaaa", "aa", "a", "aa"},      {"aaa", "aa", "b", "ba"},
        {"banana", "x", "y", "banana"},   {"a", "a", "aaa", "aaa"},       {"aaaa", "a", "", ""},
        {"ab\0ab"s, "ab", "c", "c"},      {"ab\0ab"s, "x", "y", "ab"},    {"\0ab"s, "ab", "c", ""},
    };
    for (const Case& test : cases) {
        KString text = Of(test.text);
        EXPECT_TRUE(text.Replace(test.pszFrom, test.pszTo));
        EXPECT_EQ(TextOf(text), test.result) << testing::PrintToString(test.text);
        EXPECT_EQ(HasBuffer(text), !test.result.empty()) << testing::PrintToString(test.text);
    }
}

TEST(KStringTest, ANulFollowsWhatReplacingATextLeaves) {
    for (std::size_t nLength = 1; nLength <= 100; ++nLength) {
        KString text = Of(std::string(nLength, 'a'));
        // What was in the memory before, as far as it can be told.
        static_cast<void>(Of(std::string(nLength + 1, 'z')));
        EXPECT_TRUE(text.Replace("a", "b"));
        EXPECT_STREQ(text.GetBuffer(), std::string(nLength, 'b').c_str());
    }
}

TEST(KStringTest, ReplacingATextIsFalseWhenThereIsNothingToLookForOrToPutIn) {
    KString text("banana");
    const char* const pszBefore = text.GetBuffer();
    EXPECT_FALSE(text.Replace(kNull, "x"));
    EXPECT_FALSE(text.Replace("a", kNull));
    EXPECT_FALSE(text.Replace("", "x"));
    EXPECT_EQ(text.GetBuffer(), pszBefore);
    EXPECT_EQ(TextOf(text), "banana");
}

TEST(KStringTest, ReplacingATextIsFalseWhenTheResultWouldBeLongerThanALengthCanTell) {
    constexpr std::size_t kMebibyte = 1 << 20;
    const std::string source(4096, 'x');
    KString text(source.c_str());
    // 4,294,967,296 bytes: more than an int holds, and 0 in an unsigned int.
    EXPECT_FALSE(text.Replace("x", std::string(kMebibyte, 'y').c_str()));
    EXPECT_EQ(TextOf(text), source);
    // 2,147,483,648 bytes.
    EXPECT_FALSE(text.Replace("x", std::string(kMebibyte / 2, 'y').c_str()));
    EXPECT_EQ(TextOf(text), source);
}

TEST(KStringTest, ReplacingATextInAnEmptyStringIsTrueAndLeavesItEmpty) {
    for (KString text : {KString(), EmptyWithBuffer()}) {
        EXPECT_TRUE(text.Replace("a", "b"));
        EXPECT_EQ(text.Length(), 0);
    }
    KString buffered = EmptyWithBuffer();
    EXPECT_TRUE(buffered.Replace("a", "b"));
    EXPECT_FALSE(HasBuffer(buffered)) << "it is assigned an empty string";
}

TEST(KStringTest, PartsOfItsOwnTextCanBeReplacedByPartsOfIt) {
    KString text("abcab");
    EXPECT_TRUE(text.Replace(text.GetBuffer() + 3, text.GetBuffer()));
    EXPECT_EQ(TextOf(text), "abcabcabcab");
    EXPECT_TRUE(text.Replace(text.GetBuffer(), text.GetBuffer() + 8));
    EXPECT_EQ(TextOf(text), "cab");
}

TEST(KStringTest, ReplacingTextsAgreesWithAPlainLoop) {
    RandomText random(3);
    for (int i = 0; i < kRandomRounds; ++i) {
        const std::string text = random.Text(14, "aabc\0"s);
        const std::string from = random.Text(2, "ab") + "a";
        const std::string to = random.Text(4, "abz");
        std::string expected;
        const std::string source = UpToNul(text, 0);
        std::size_t nAt = 0;
        for (std::size_t nHit = source.find(from); nHit != std::string::npos; nHit = source.find(from, nAt)) {
            expected += source.substr(nAt, nHit - nAt) + to;
            nAt = nHit + from.size();
        }
        expected += source.substr(nAt);
        KString string = Of(text);
        ASSERT_TRUE(string.Replace(from.c_str(), to.c_str()));
        ASSERT_EQ(TextOf(string), expected) << testing::PrintToString(text) << ' ' << from << ' ' << to;
    }
}

TEST(KStringTest, InsertReturnsACopyWithTheTextPutIn) {
    const ScopedChecks checks(true);
    const KString text("hello");
    EXPECT_EQ(TextOf(text.Insert(0, KString("ab"))), "abhello");
    EXPECT_EQ(TextOf(text.Insert(2, "--")), "he--llo");
    EXPECT_EQ(TextOf(text.Insert(5, "!")), "hello!");
    EXPECT_EQ(TextOf(text.Insert(6, "!")), "hello!");
    EXPECT_EQ(TextOf(text.Insert(INT_MAX, "!")), "hello!");
    EXPECT_EQ(TextOf(text.Insert(2, "")), "hello");
    EXPECT_EQ(TextOf(text.Insert(2, kNull)), "hello");
    EXPECT_EQ(TextOf(text.Insert(2, text)), "hehellollo");
    EXPECT_EQ(TextOf(text.Insert(2, text.GetBuffer() + 4)), "heollo");
    EXPECT_EQ(TextOf(text), "hello");
}

TEST(KStringTest, WhatIsInsertedIntoAStringWithoutABufferIsNotInTheResult) {
    EXPECT_FALSE(HasBuffer(KString().Insert(0, KString("x"))));
    EXPECT_FALSE(HasBuffer(KString().Insert(3, "x")));
    EXPECT_EQ(TextOf(EmptyWithBuffer().Insert(0, "x")), "x");
}

TEST(KStringTest, TheResultOfInsertEndsAtItsFirstNul) {
    EXPECT_EQ(TextOf(KString("ab\0cd", 5).Insert(4, "x")), "ab");
    EXPECT_EQ(TextOf(KString("ab\0cd", 5).Insert(1, "x")), "axb");
    EXPECT_EQ(TextOf(KString("abcd").Insert(2, KString("x\0y", 3))), "abx");
    EXPECT_FALSE(HasBuffer(KString("abcd").Insert(0, KString("\0y", 2))));
}

TEST(KStringTest, InsertChecksThatTheStartIsNotNegative) {
    EXPECT_CHECK_FAILS(KString("hello").Insert(-1, KString("x")), "nStart >= 0", "src/api/KString",
                       "KString KString::Insert(int, const KString&) const");
    EXPECT_CHECK_FAILS(KString("hello").Insert(-1, "x"), "nStart >= 0", "src/api/KString",
                       "KString KString::Insert(int, const KString&) const");
    EXPECT_CHECK_FAILS(KString().Insert(-1, "x"), "nStart >= 0", "src/api/KString",
                       "KString KString::Insert(int, const KString&) const");
}

TEST(KStringTest, InsertAtANegativeStartWithTheChecksOffPutsTheTextInFront) {
    const ScopedChecks checks(false);
    EXPECT_EQ(TextOf(KString("hello").Insert(-1, "x")), "xhello");
    EXPECT_EQ(TextOf(KString("hello").Insert(INT_MIN, KString("x"))), "xhello");
}

TEST(KStringTest, SubReturnsTheBytesFromTheStartUpToTheEnd) {
    const ScopedChecks checks(true);
    struct Case {
        std::string text;
        int nStart;
        int nEnd;
        std::string result;
    };
    const Case cases[] = {
        {"hello", 1, 3, "el"},     {"hello", 2, 0, "llo"}, {"hello", 0, 0, "hello"}, {"hello", 0, 5, "hello"},
        {"hello", 4, 5, "o"},      {"hello", 3, 3, ""},    {"hello", 3, 2, ""},      {"hello", 3, -1, ""},
        {"hello", 0, INT_MIN, ""}, {"hello", 5, 0, ""},    {"hello", 5, 5, ""},      {"a\0bc"s, 0, 3, "a\0b"s},
        {"a\0bc"s, 1, 0, "\0bc"s}, {"", 0, 0, ""},         {"", 0, 3, ""},
    };
    for (const Case& test : cases) {
        const KString result = Of(test.text).Sub(test.nStart, test.nEnd);
        EXPECT_EQ(TextOf(result), test.result) << test.text << ' ' << test.nStart << ' ' << test.nEnd;
        EXPECT_EQ(result.GetBuffer()[result.Length()], '\0');
        EXPECT_EQ(HasBuffer(result), !test.result.empty());
    }
}

TEST(KStringTest, SubPastTheEndHasTheLengthAskedForWithTheTextThatWasThere) {
    const ScopedChecks checks(true);
    for (const int nEnd : {6, 7, 100, 100000}) {
        const KString result = KString("hello").Sub(3, nEnd);
        EXPECT_EQ(result.Length(), nEnd - 3);
        EXPECT_STREQ(result.GetBuffer(), "lo");
        const std::string bytes = TextOf(result);
        EXPECT_EQ(bytes, "lo" + std::string(bytes.size() - 2, '\0')) << "the rest is memory of the string";
        EXPECT_TRUE(KString(result) == result);
    }
    EXPECT_EQ(TextOf(KString("hello").Sub(5, 8)), "\0\0\0"s);
    EXPECT_EQ(TextOf(EmptyWithBuffer().Sub(0, 2)), "\0\0"s);
}

TEST(KStringTest, SubUpToAnEndThatNoMemoryReachesIsEmpty) {
    EXPECT_FALSE(HasBuffer(KString("hello").Sub(0, INT_MAX)));
}

TEST(KStringTest, SubChecksItsStart) {
    EXPECT_CHECK_FAILS(KString("hello").Sub(-1, 3), "nStart <= m_nLen && nStart >= 0", "src/api/KString",
                       "KString KString::Sub(int, int) const");
    EXPECT_CHECK_FAILS(KString("hello").Sub(6, 0), "nStart <= m_nLen && nStart >= 0", "src/api/KString",
                       "KString KString::Sub(int, int) const");
    EXPECT_CHECK_FAILS(KString().Sub(1, 0), "nStart <= m_nLen && nStart >= 0", "src/api/KString",
                       "KString KString::Sub(int, int) const");
}

TEST(KStringTest, SubWithTheChecksOffStaysInsideTheText) {
    const ScopedChecks checks(false);
    for (const int nStart : {-1, -100, INT_MIN}) {
        EXPECT_FALSE(HasBuffer(KString("hello").Sub(nStart, 3))) << nStart;
        EXPECT_FALSE(HasBuffer(KString("hello").Sub(nStart, 0))) << nStart;
    }
    EXPECT_FALSE(HasBuffer(KString("hello").Sub(6, 0)));
    EXPECT_FALSE(HasBuffer(KString("hello").Sub(INT_MAX, 0)));
    EXPECT_EQ(TextOf(KString("hello").Sub(6, 8)), "\0\0"s);
}

TEST(KStringTest, ChangesTheCaseOfEveryByteWithinTheLength) {
    KString text("aB\0cD\xE9\xC9z", 8);
    text.ToUpper();
    EXPECT_EQ(TextOf(text), "AB\0CD\xE9\xC9Z"s);
    text.ToLower();
    EXPECT_EQ(TextOf(text), "ab\0cd\xE9\xC9z"s);
    KString empty;
    empty.ToLower();
    empty.ToUpper();
    EXPECT_FALSE(HasBuffer(empty));
}

TEST(KStringTest, TrimROverwritesOneLastByteAndLeavesTheLength) {
    KString text("ab  ");
    text.TrimR(' ');
    EXPECT_EQ(TextOf(text), "ab \0"s);
    text.TrimR(' ');
    EXPECT_EQ(TextOf(text), "ab \0"s) << "the last byte is a NUL now";

    KString set("ab\t ");
    set.TrimR(" \t");
    EXPECT_EQ(TextOf(set), "ab\t\0"s);

    KString other("ab");
    other.TrimR('x');
    other.TrimR("xyz");
    other.TrimR("");
    other.TrimR(kNull);
    EXPECT_EQ(TextOf(other), "ab");

    KString high("ab\xFF");
    high.TrimR("\xE9\xFF");
    EXPECT_EQ(TextOf(high), "ab\0"s);
}

TEST(KStringTest, TrimLOfASetRemovesTheLeadingBytesOfTheSet) {
    struct Case {
        std::string text;
        const char* pszSet;
        std::string result;
    };
    const Case cases[] = {
        {" \tab ", " \t", "ab "},       {"ab ", " ", "ab "}, {"   ", " ", ""},        {" ab\0cd"s, " ", "ab"},
        {"ab\0cd"s, " ", "ab\0cd"s},    {" \0cd"s, " ", ""}, {"\0cd"s, " ", "\0cd"s}, {"  ab", "", "  ab"},
        {"\xFF\xE9z", "\xE9\xFF", "z"}, {"", " ", ""},
    };
    for (const Case& test : cases) {
        KString text = Of(test.text);
        text.TrimL(test.pszSet);
        EXPECT_EQ(TextOf(text), test.result) << testing::PrintToString(test.text);
        EXPECT_EQ(HasBuffer(text), !test.result.empty());
    }
    KString text("  ab");
    text.TrimL(kNull);
    EXPECT_EQ(TextOf(text), "  ab");
}

TEST(KStringTest, TrimLOfACharacterRemovesNothingButCorrectsTheLength) {
    struct Case {
        std::string text;
        std::string result;
    };
    const Case cases[] = {
        {"  ab", "  ab"}, {"  ab\0cd"s, "  ab"}, {"\0cd"s, ""}, {" \0"s, " "}, {"   ", "   "}, {"", ""},
    };
    for (const Case& test : cases) {
        KString text = Of(test.text);
        text.TrimL(' ');
        EXPECT_EQ(TextOf(text), test.result) << testing::PrintToString(test.text);
        EXPECT_EQ(HasBuffer(text), !test.result.empty());
    }
    KString nuls("\0\0", 2);
    nuls.TrimL('\0');
    EXPECT_EQ(TextOf(nuls), "\0\0"s) << "no byte differs";
}

TEST(KStringTest, TrimOfACharacterRemovesOneTrailingByteAndCorrectsTheLength) {
    struct Case {
        std::string text;
        std::string result;
    };
    const Case cases[] = {
        {" ab ", " ab"}, {"ab  ", "ab "}, {"ab", "ab"},     {" ", ""},
        {"  ", " "},     {"", ""},        {"ab\0 "s, "ab"}, {"ab\0c"s, "ab"},
    };
    for (const Case& test : cases) {
        KString text = Of(test.text);
        text.Trim(' ');
        EXPECT_EQ(TextOf(text), test.result) << testing::PrintToString(test.text);
    }
}

TEST(KStringTest, TrimOfASetRemovesOneTrailingAndAllLeadingBytes) {
    struct Case {
        std::string text;
        std::string result;
    };
    const Case cases[] = {
        {" ab ", "ab"},
        {"  ab  ", "ab "},
        {"\tab\t", "ab"},
        {"   ", ""},
        {" ", "\0"s},
        {"", ""},
        // Without a leading byte of the set the length still counts the NUL.
        {"ab ", "ab\0"s},
        {"ab  ", "ab \0"s},
        {"ab", "ab"},
    };
    for (const Case& test : cases) {
        KString text = Of(test.text);
        text.Trim(" \t");
        EXPECT_EQ(TextOf(text), test.result) << testing::PrintToString(test.text);
    }
}

// -------------------------------------------------------------------------------------------------------- Dividing

TEST(KStringTest, DividesTheTextAtEveryDelimiter) {
    struct Case {
        std::string text;
        const char* pszDelimiter;
        std::vector<std::string> fields;
    };
    const Case cases[] = {
        {"a,,b,", ",", {"a", "", "b"}},
        {"a,b", ",", {"a", "b"}},
        {",a", ",", {"", "a"}},
        {",", ",", {""}},
        {",,", ",", {"", ""}},
        {"abc", ",", {"abc"}},
        {"a, b, c", ", ", {"a", "b", "c"}},
        {"aaa", "aa", {"", "a"}},
        {"ab", "abc", {"ab"}},
        {"", ",", {}},
        // A field ends at a NUL of the text, and nothing behind it is found.
        {"a,b\0c,d"s, ",", {"a", "b"}},
        {"a\0b,c"s, ",", {"a"}},
        {"\0a"s, ",", {""}},
        {"a,\0b"s, ",", {"a", ""}},
        {"caf\xE9\xFF"
         "b",
         "\xFF",
         {"caf\xE9", "b"}},
    };
    const ScopedChecks checks(true);
    for (const Case& test : cases) {
        KList<KString> fields;
        EXPECT_TRUE(Of(test.text).Divide(test.pszDelimiter, fields));
        EXPECT_EQ(Fields(fields), test.fields) << testing::PrintToString(test.text);
    }
}

TEST(KStringTest, FieldsAreAppendedToWhatTheListHolds) {
    KList<KString> fields;
    fields.Add("first");
    EXPECT_TRUE(KString("a,b").Divide(",", fields));
    EXPECT_TRUE(KString("c").Divide(",", fields));
    EXPECT_EQ(Fields(fields), (std::vector<std::string>{"first", "a", "b", "c"}));
    EXPECT_EQ(fields.GetCount(), 4);
}

TEST(KStringTest, AnElementOfTheListCanBeDividedIntoIt) {
    KList<KString> fields;
    fields.Add("a,b");
    EXPECT_TRUE(fields[0]->Divide(",", fields));
    EXPECT_EQ(Fields(fields), (std::vector<std::string>{"a,b", "a", "b"}));
}

TEST(KStringTest, EmptyFieldsHaveNoBuffer) {
    KList<KString> fields;
    EXPECT_TRUE(KString(",a").Divide(",", fields));
    ASSERT_EQ(fields.GetCount(), 2);
    EXPECT_FALSE(HasBuffer(*fields[0]));
    EXPECT_TRUE(HasBuffer(*fields[1]));
}

TEST(KStringTest, DividingAnEmptyStringGivesNoFieldAndFailsNoCheck) {
    const ScopedChecks checks(true);
    KList<KString> fields;
    EXPECT_TRUE(KString().Divide(",", fields));
    EXPECT_TRUE(EmptyWithBuffer().Divide(",", fields));
    EXPECT_EQ(fields.GetCount(), 0);
}

TEST(KStringTest, WithoutADelimiterTheWholeTextIsOneField) {
    for (const char* const pszDelimiter : {"", kNull}) {
        KList<KString> fields;
        EXPECT_TRUE(KString("a,b").Divide(pszDelimiter, fields));
        EXPECT_EQ(Fields(fields), std::vector<std::string>{"a,b"});
    }
}

TEST(KStringTest, DividingWithoutMemoryIsTrueAndKeepsTheFieldsThatThereWasMemoryFor) {
    const KString text("a,b,c");
    for (const int nStillWorks : {0, 2}) {
        KList<KString> fields;
        bool fgDivided = false;
        {
            const ScopedNoMalloc none(nStillWorks);
            fgDivided = text.Divide(",", fields);
        }
        EXPECT_TRUE(fgDivided);
        EXPECT_EQ(fields.GetCount(), nStillWorks / 2) << "an element and its text";
    }
}

TEST(KStringTest, DividingAgreesWithAPlainLoop) {
    RandomText random(4);
    for (int i = 0; i < kRandomRounds; ++i) {
        const std::string text = random.Text(14, "aab,,\0"s);
        const std::string delimiter = random.Text(1, "a,") + ",";
        std::vector<std::string> expected;
        for (std::size_t nAt = 0; nAt < text.size();) {
            const std::string rest = UpToNul(text, static_cast<int>(nAt));
            const std::size_t nHit = rest.find(delimiter);
            expected.push_back(rest.substr(0, nHit));
            nAt = nHit == std::string::npos ? text.size() : nAt + nHit + delimiter.size();
        }
        KList<KString> fields;
        ASSERT_TRUE(Of(text).Divide(delimiter.c_str(), fields));
        ASSERT_EQ(Fields(fields), expected) << testing::PrintToString(text) << ' ' << delimiter;
    }
}

// ------------------------------------------------------------------------------------------------------ Everything

TEST(KStringTest, RandomEditsKeepTheBytesOfAModelAndATerminatingNul) {
    RandomText random(5);
    const std::string alphabet = "ab \0,"s;
    KString string;
    std::string model;
    for (int i = 0; i < kRandomRounds; ++i) {
        const std::string piece = random.Text(6, alphabet);
        switch (random.Number(0, 6)) {
            case 0:
                string = Of(piece);
                model = piece;
                break;
            case 1:
                string += Of(piece);
                model += piece;
                break;
            case 2:
                string = piece.c_str();
                model = UpToNul(piece, 0);
                break;
            case 3:
                string.Replace('a', 'b');
                std::replace(model.begin(), model.end(), 'a', 'b');
                break;
            case 4:
                string = string + string.GetBuffer();
                model += UpToNul(model, 0);
                break;
            case 5:
                string = string.Sub(string.Length() / 2, 0);
                model = model.substr(model.size() / 2);
                break;
            default:
                string.TrimR(' ');
                if (!model.empty() && model.back() == ' ') {
                    model.back() = '\0';
                }
                break;
        }
        if (model.size() > 200) {
            string = string.Sub(0, 20);
            model = model.substr(0, 20);
        }
        ASSERT_EQ(TextOf(string), model) << "after step " << i;
        ASSERT_EQ(string.GetBuffer()[string.Length()], '\0');
        ASSERT_EQ(HasBuffer(string), !model.empty());
    }
}

TEST(KStringTest, WhatIsReplacedOrDestroyedGivesItsMemoryBack) {
    const std::string exact(10240, 'x');
    const std::string cut(20000, 'x');
    KString kept("kept");
    const struct {
        const char* pszWhat;
        std::function<void()> use;
    } rows[] = {
        {"a string", [] { const KString text("text"); }},
        {"an empty string that has a buffer", [] { const KString text = EmptyWithBuffer(); }},
        {"assignments", [&] { kept = "other", kept = KString("another"), kept = KString(), kept = EmptyWithBuffer(); }},
        {"appending", [] { KString("a") += KString("b"); }},
        {"appending itself",
         [] {
             KString text("ab");
             text += text;
         }},
        {"a short format", [&] { kept.Sprintf("%d", 5); }},
        {"an empty format", [&] { kept.Sprintf("%s", ""); }},
        {"a format that fits exactly", [&] { kept.Sprintf("%s", exact.c_str()); }},
        {"a format that is cut", [&] { kept.Sprintf("%s", cut.c_str()); }},
        {"a wide text", [] { KString::FromWideString(L"wide"); }},
        {"a wide text of no characters", [] { KString::FromWideString(L""); }},
        {"replacing", [] { KString("aaa").Replace("a", "bb"); }},
        {"replacing all", [] { KString("aaa").Replace("a", ""); }},
        {"parts", [] { KString("text").Insert(1, "x").Sub(1, 9).Trim(" x"); }},
        {"fields",
         [] {
             KList<KString> fields;
             KString("a,b,c").Divide(",", fields);
         }},
        {"an allocated copy",
         [] {
             char szText[] = "text";
             char* pCopy = nullptr;
             KString::AllocAndCopy(&pCopy, szText, -1);
             KString::FreeAllocedString(&pCopy);
         }},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(support::BytesLeftBy(row.use), 0u) << row.pszWhat;
    }
}

TEST(KStringTest, WhereMemoryIsLackingResultsAreEmptyAndChangesDoNotHappen) {
    const ScopedChecks checks(false);
    const std::string source(support::kMuchMemory, 'x');
    const std::wstring wide(support::kMuchMemory, L'x');
    std::string copied = source;
    const KString much(source.c_str());
    const KString small("small");
    KString grown(much);
    KString replaced(much);
    KString formatted("before");
    KString assigned("before");
    KMem::Init();
    const int nStep = support::InLittleMemory([&] {
        if (HasBuffer(KString(source.c_str())) || HasBuffer(KString(much))) {
            return 1;
        }
        if (HasBuffer(much.Sub(1, 0)) || HasBuffer(KString::FromUTF8String(source.c_str()))) {
            return 2;
        }
        grown += much;
        if (grown != much) {
            return 3;
        }
        grown += source.c_str();
        if (grown != much) {
            return 4;
        }
        if (replaced.Replace("x", "yy") || replaced != much) {
            return 5;
        }
        if (formatted.Sprintf("%s", source.c_str()) != 0 || formatted != "before") {
            return 6;
        }
        assigned = much;
        if (assigned.Length() != 0 || HasBuffer(assigned)) {
            return 7;
        }
        char* pCopy = &copied[0];
        if (KString::AllocAndCopy(&pCopy, &copied[0], -1) || pCopy != nullptr) {
            return 8;
        }
        if (HasBuffer(KString::FromWideString(wide.c_str()))) {
            return 9;
        }
        if (HasBuffer(small + much) || HasBuffer(small + source.c_str()) || HasBuffer(much + "x")) {
            return 10;
        }
        return HasBuffer(small.Insert(1, much)) || HasBuffer(much.Insert(1, "x")) ? 11 : 0;
    });
    if (nStep == support::kMemoryCannotBeLimited) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    EXPECT_EQ(nStep, 0);
}
