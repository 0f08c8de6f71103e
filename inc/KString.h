/// @file
/// The string.
#ifndef KALVOREN_KSTRING_H
#define KALVOREN_KSTRING_H

#include "KList.h"
#include "KTypes.h"

/// The library's text: owned bytes with an explicit length, always followed by a NUL.
///
/// An empty string usually has no buffer, which several comparisons look at (see there); only `KString(p, 0)` makes an
/// empty string that has one. Indexes are zero-based ints; a search that finds nothing returns -1.
///
/// The length is not always the place of the first NUL: `KString(p, n)` keeps NULs within the text, and Sprintf(),
/// Sub() and TrimR() can leave a length beyond the text. The bytes up to the length are always the string's own. Each
/// operation says which of the two it goes by where they can differ.
///
/// A string whose memory is lacking becomes (or stays) what its operation says; where nothing is said, the result is
/// empty.
///
/// Thread-safety: none. Share a string between threads under a lock of your own.
class KALVOREN_API KString {
 public:
    // ------------------------------------------------------------------------------------ Making and assigning

    /// An empty string without a buffer.
    KString();

    /// A copy of @p n bytes, NULs included. A null @p p or a negative @p n gives an empty string; 0 bytes an empty
    /// string that has a buffer.
    KString(const char* p, int n);

    /// A copy of a text up to its NUL. A null @p p gives an empty string.
    KString(const char* p);

    /// A copy of another string.
    KString(const KString& other);

    /// Takes over the other string's buffer and leaves it empty.
    KString(KString&& other) noexcept;

    virtual ~KString();

    /// Takes a copy of the other string's text.
    KString& operator=(const KString& other);

    /// Takes over the other string's text.
    KString& operator=(KString&& other) noexcept;

    /// Takes a copy of a text, which may be part of this string's own. A null @p p empties the string.
    KString& operator=(const char* p);

    /// Appends a text by its length. `s += s` doubles it. Where the memory is lacking, or the sum would not fit an int,
    /// the string stays as it was.
    KString& operator+=(const KString& other);
    KString& operator+=(const char* p);

    // ------------------------------------------------------------------------------------------------- Access

    /// Returns the length in bytes.
    int Length() const { return m_nLen; }

    /// Returns the text. It belongs to the string and is good until the next change. Never null: a string without a
    /// buffer gives an empty text.
    const tchar* GetBuffer() const { return m_pszString != nullptr ? m_pszString : ""; }

    /// Returns the byte at @p n; 0 when @p n is negative or not below the length.
    tchar operator[](int n) const { return n >= 0 && n < m_nLen ? m_pszString[n] : '\0'; }

    // --------------------------------------------------------------------------------------------- Comparing

    /// Compares up to the first NUL (`strcmp`): 0 means the same. @b Beware: it is 0 as well when either side has no
    /// text (a null pointer, or an empty string without a buffer).
    int IsSame(const char* p) const;
    int IsSame(const KString& other) const;

    /// Compares without regard to case (`strcasecmp`): 0 means the same. It is -1 when either side has no text.
    int IsCaseIgnoreSame(const char* p) const;
    int IsCaseIgnoreSame(const KString& other) const;

    /// Returns true when both have the same bytes. @b Two @b empty @b strings @b are @b not @b equal: false when either
    /// has no buffer.
    bool operator==(const KString& other) const;

    /// Returns true when the bytes differ, or either side has no buffer: `KString() != KString()` is true.
    bool operator!=(const KString& other) const;

    /// As between strings. False for a null @p p.
    bool operator==(const char* p) const;

    /// As between strings, except for a null @p p: then true exactly when this string has no buffer, so that
    /// `KString("ab") != nullptr` is false.
    bool operator!=(const char* p) const;

    // ------------------------------------------------------------------------------------------- Converting

    /// Copies the text and a NUL into a buffer of @p nLen bytes and returns the length of the text. Checks "pszString"
    /// and "nLen >= (m_nLen + 1 ) * (int)sizeof(tchar)": the buffer must have room for the NUL. With the checks off no
    /// more than @p nLen bytes are written, the last of them a NUL, and the length of the whole text is returned.
    int GetString(tchar* pszString, int nLen) const;

    /// The same. The first check is "pszUTF8".
    int GetUTF8String(char* pszUTF8, int nLen) const;

    /// Converts the text by the process's locale (`mbstowcs`) and returns the number of wide characters, or -1 for a
    /// text that is not valid in the locale. @p nLen is the size of the target in wide characters. Checks
    /// "pszWideString" and "nLen >= m_nLen + 1"; with the checks off no more than @p nLen are written,
    /// and the number is that of the whole text.
    ///
    /// @b Beware: the first 16 bytes of the target (four wide characters) are zeroed whatever its size, so the target
    /// needs room for four. No terminator is written when there are as many wide characters as bytes of text: zero the
    /// target before.
    int GetWideString(wchar_t* pszWideString, int nLen) const;

    /// Returns a copy of a text; an empty string for null.
    static KString FromUTF8String(const char* p);

    /// Returns a wide text converted by the process's locale. A character that the locale cannot express is left out.
    /// An empty string for null.
    static KString FromWideString(const wchar_t* p);

    /// Replaces the text by a printf-like one and returns its length. A result of 0 or below (an empty text, or an
    /// error) leaves the string as it was.
    ///
    /// @b Beware: an output of more than 10,240 characters is cut to 10,239, while the length becomes that of the whole
    /// output; the bytes between are NULs. (Exactly 10,240 characters are kept whole.)
    int Sprintf(const char* format, ...) KALVOREN_PRINTF(2, 3);

    /// Reads values from the text at @p nStart (`vsscanf`) and returns how many were read. 0 when @p nStart is not below
    /// the length; a negative one counts as 0, but is below the length of an empty text as well, in which `vsscanf` finds
    /// nothing (-1).
    int Scanf(int nStart, const char* format, ...) const KALVOREN_SCANF(3, 4);

    /// Returns the number at the start of the text: hexadecimal after "0x", binary after "0b" (in either case, and with
    /// at least one more character), else decimal with an optional '-'. It ends at the first byte that does not belong
    /// and wraps in 32 bits. No '+', no octal: "+5" and "0x" are 0, "12ab" is 12. After "0b" only bytes above '1' end
    /// it, so that lower ones count as negative digits.
    int ToDigit() const;

    /// @b Beware: returns true when @b no byte is a hexadecimal digit, false as soon as one is. To test a text for
    /// being hexadecimal use IsHexStringWithOther().
    bool IsHexString() const;

    /// Returns true when every byte is a hexadecimal digit; an empty string is. The argument is ignored.
    bool IsHexStringWithOther(KString& ignored) const;

    // ------------------------------------------------------------------------------------------- Text helpers

    /// `strlen`, `strlen` and `wcslen`. 0 for null.
    static int LengthOfString(const char* p);
    static int LengthOfUTF8String(const char* p);
    static int LengthOfWideString(const wchar_t* p);

    /// Makes a copy of a text in memory from KMem::Malloc and stores its address in `*pp`; release it with
    /// FreeAllocedString(). With @p n -1 the text and its NUL are copied, else @p n @b + @b 1 bytes of it, which must be
    /// there: `AllocAndCopy(&p, "abcdef", 2)` makes "abc". Four bytes are allocated for each byte copied. Returns false,
    /// with null in `*pp`, for any other negative @p n and when the memory is lacking; and for a null @p pp.
    static bool AllocAndCopy(char** pp, char* p, int n);

    /// Copies a text into a buffer of @p nDstLen bytes, as many bytes as AllocAndCopy() would; returns false, with
    /// nothing written, when they do not fit. @b Beware: a NUL is written @b behind the bytes copied, so the buffer
    /// needs one byte @b more than @p nDstLen says: `Copy(buffer, 4, "abc", -1)` writes five bytes. The text must not be
    /// part of the buffer (`memcpy`).
    static bool Copy(char* pDst, int nDstLen, char* p, int n);

    /// KMem::Free(). Returns true.
    static bool FreeAllocedString(char** pp);

    // --------------------------------------------------------------------------------------------- Searching

    /// @name Searching for a character
    /// Find() looks from @p nStart on. FindR() looks backwards, with @p nStart characters @b skipped @b at @b the
    /// @b end: on "banana", `FindR('a', 1)` is 3. A negative @p nStart counts as 0. The CaseIgnore forms match the
    /// lower and the upper case of @p ch.
    /// @{
    int Find(char ch, int nStart) const;
    int FindR(char ch, int nStart) const;
    int FindCaseIgnore(char ch, int nStart) const;
    int FindRCaseIgnore(char ch, int nStart) const;
    /// @}

    /// @name Searching for a text
    /// Find() returns the first hit at @p nStart or later (`strchr`, `strstr`, `strcasestr`). FindR() returns the last hit
    /// whose index is at most the length less @p nStart: on "banana", `FindR("an", 3)` is 3 and `FindR("an", 4)` is 1. -1
    /// when either text is missing or @p nStart is not below the length. A negative @p nStart counts as 0. Searches end at
    /// the first NUL of either text.
    /// @{
    int Find(const char* p, int nStart) const;
    int Find(const KString& text, int nStart) const;
    int FindCaseIgnore(const char* p, int nStart) const;
    int FindCaseIgnore(const KString& text, int nStart) const;
    int FindR(const char* p, int nStart) const;
    int FindR(const KString& text, int nStart) const;
    int FindRCaseIgnore(const char* p, int nStart) const;
    int FindRCaseIgnore(const KString& text, int nStart) const;
    /// @}

    /// Returns `FindCaseIgnore(p, 0)`: an @b index, which is 0 for a hit at the start, or -1.
    int HasCaseIgnoreString(const char* p) const;

    // ----------------------------------------------------------------------------------------------- Editing

    /// Replaces every byte @p from by @p to. Returns false for a string without a buffer.
    bool Replace(char from, char to);

    /// Replaces every occurrence of a text, left to right, up to the first NUL of the string. Returns false when either
    /// is null, @p pszFrom is empty, or the memory is lacking; the string is then unchanged. Either may be part of this
    /// string.
    bool Replace(const char* pszFrom, const char* pszTo);

    /// Returns a copy with a text put in before byte @p nStart (at the end, when that is past it), up to the first NUL
    /// of the result. Checks "nStart >= 0"; with the checks off a negative one counts as 0. @b Beware: a string without
    /// a buffer gives an @b empty result; the text is not in it.
    KString Insert(int nStart, const KString& text) const;
    KString Insert(int nStart, const char* p) const;

    /// Returns the bytes from @p nStart up to but not including @p nEnd, where 0 means the length: on "hello",
    /// `Sub(1, 3)` is "el" and `Sub(2, 0)` is "llo". Empty when the end is not behind the start. Checks
    /// "nStart <= m_nLen && nStart >= 0"; with the checks off a negative start gives an empty string.
    ///
    /// @b Beware: an end past the length gives a string as long as was asked for, with NULs behind the text.
    KString Sub(int nStart, int nEnd) const;

    /// Changes every byte to lower or upper case (`tolower`, `toupper`).
    void ToLower();
    void ToUpper();

    /// Overwrites the last byte with a NUL when it is @p ch, or one of @p pszSet. Nothing more is removed, and the length
    /// @b stays.
    void TrimR(char ch);
    void TrimR(const char* pszSet);

    /// @b Removes @b nothing: if some byte differs from @p ch, the length becomes that of the text up to its first NUL.
    void TrimL(char ch);

    /// Removes the leading bytes that are in @p pszSet; the length becomes that of the rest up to its first NUL. Without
    /// any such byte nothing changes.
    void TrimL(const char* pszSet);

    /// TrimR() and TrimL(): at most one trailing @p ch is removed, and the length is corrected.
    void Trim(char ch);

    /// TrimR() and TrimL(): one trailing byte and all leading bytes of the set are removed. Without leading ones, the
    /// length still counts the NUL that TrimR() wrote.
    void Trim(const char* pszSet);

    /// Appends the fields of the text between delimiters to @p out, in one go under the list's lock. Returns true.
    /// "a,,b," at "," gives "a", "" and "b": a trailing delimiter makes no empty last field, an empty string no field. An
    /// empty or null delimiter is found nowhere, so that the whole text is one field.
    bool Divide(const char* pszDelimiter, KList<KString>& out) const;

 private:
    KALVOREN_LOCAL void Begin(tchar* pszString, std::size_t nLen);
    KALVOREN_LOCAL void Adopt(tchar* pszString, int nLen);
    KALVOREN_LOCAL void AdoptText(tchar* pszString, std::size_t nLen);
    KALVOREN_LOCAL void AssignText(const char* p, std::size_t nLen);
    KALVOREN_LOCAL void Append(const char* p, int n);
    KALVOREN_LOCAL void EmptyUnlessWhole(unsigned int nLen) noexcept;
    KALVOREN_LOCAL KString Joined(const char* p, int n) const;
    KALVOREN_LOCAL KString InsertText(int nStart, const char* p, std::size_t nText) const;
    KALVOREN_LOCAL void Shorten(int nLen);

    friend class KPath;  // shortens, assigns and empties its text without a copy
    friend KALVOREN_API KString operator+(const KString& left, const KString& right);
    friend KALVOREN_API KString operator+(const KString& left, const char* right);

    int m_nLen;
    tchar* m_pszString;
};

/// Returns the left text with the right one appended; empty where memory is lacking, or the sum would not fit an int.
KALVOREN_API KString operator+(const KString& left, const KString& right);
KALVOREN_API KString operator+(const KString& left, const char* right);

extern template class KList<KString>;

#endif  // KALVOREN_KSTRING_H
