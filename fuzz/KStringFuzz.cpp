// Texts: sequences of searches and edits on a string and on a model made of std::string. Texts may hold NULs, which some
// operations count and others stop at.
#include <strings.h>

#include <cctype>
#include <clocale>
#include <cwchar>
#include <utility>
#include <vector>

#include "Fuzz.h"

namespace {

constexpr std::size_t kLongest = 4000;

bool SameLetter(char ch, char chSought) {
    const auto byte = static_cast<unsigned char>(chSought);
    return ch == static_cast<char>(std::tolower(byte)) || ch == static_cast<char>(std::toupper(byte));
}

std::string Lowered(std::string text) {
    for (char& ch : text) {
        ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    }
    return text;
}

/// Searches, on copies in lower case where the case is not to matter.
struct Search {
    std::string text;
    std::string sought;
    bool fgHasBuffer;
    int nLength;

    int First(int nStart) const {
        if (!fgHasBuffer || nStart >= nLength) {
            return -1;
        }
        const std::string from = fuzz::Plain(text.substr(static_cast<std::size_t>(nStart)));
        const std::size_t nHit = from.find(sought);
        return nHit == std::string::npos ? -1 : static_cast<int>(nHit) + nStart;
    }

    int Last(int nStart) const {
        if (!fgHasBuffer || nStart >= nLength) {
            return -1;
        }
        int nFound = -1;
        const std::string plain = fuzz::Plain(text);
        for (std::size_t n = plain.find(sought); n != std::string::npos; n = plain.find(sought, n + 1)) {
            if (static_cast<int>(n) <= nLength - nStart) {
                nFound = static_cast<int>(n);
            }
        }
        return nFound;
    }
};

/// A text that is sought as a string, one that is not there, and places before the start.
void CompareSearchesOtherwise(const KString& text, const Search& exact, const Search& anyCase, int nStart) {
    // Made of no bytes it has a buffer all the same, and is found where an empty text is.
    const KString sought = fuzz::Made(exact.sought);
    const KString soughtAnyCase = fuzz::Made(anyCase.sought);
    fuzz::ExpectSame(text.Find(sought, nStart), exact.First(nStart), "Find of a string");
    fuzz::ExpectSame(text.FindR(sought, nStart), exact.Last(nStart), "FindR of a string");
    fuzz::ExpectSame(text.FindCaseIgnore(soughtAnyCase, nStart), anyCase.First(nStart), "FindCaseIgnore of a string");
    fuzz::ExpectSame(text.FindRCaseIgnore(soughtAnyCase, nStart), anyCase.Last(nStart), "FindRCaseIgnore of a string");
    const int nBefore = -1 - nStart;
    fuzz::ExpectSame(text.Find(sought, nBefore), exact.First(0), "Find from before the start");
    fuzz::ExpectSame(text.FindR(sought, nBefore), exact.Last(0), "FindR from behind the end");
    fuzz::ExpectSame(text.FindCaseIgnore(sought, nBefore), anyCase.First(0), "FindCaseIgnore from before the start");
    fuzz::ExpectSame(text.FindRCaseIgnore(sought, nBefore), anyCase.Last(0), "FindRCaseIgnore from behind the end");
    const char* const pNull = nullptr;
    const bool fgNone = text.Find(pNull, 0) == -1 && text.FindR(pNull, 0) == -1 &&
                        text.FindCaseIgnore(pNull, 0) == -1 && text.FindRCaseIgnore(pNull, 0) == -1 &&
                        text.HasCaseIgnoreString(pNull) == -1 && text.Find(KString(), 0) == -1 &&
                        text.FindR(KString(), 0) == -1 && text.FindCaseIgnore(KString(), 0) == -1 &&
                        text.FindRCaseIgnore(KString(), 0) == -1;
    fuzz::Expect(fgNone, "no text is found nowhere");
}

void CompareSearches(const KString& text, const std::string& model, fuzz::Input& input) {
    const std::string sought = input.PlainText();
    const int nStart = input.Byte();
    const int nLength = static_cast<int>(model.size());
    const bool fgHasBuffer = nLength > 0;
    const Search exact = {model, sought, fgHasBuffer, nLength};
    fuzz::ExpectSame(text.Find(sought.c_str(), nStart), exact.First(nStart), "Find");
    fuzz::ExpectSame(text.FindR(sought.c_str(), nStart), exact.Last(nStart), "FindR");
    const Search anyCase = {Lowered(model), Lowered(sought), fgHasBuffer, nLength};
    fuzz::ExpectSame(text.FindCaseIgnore(sought.c_str(), nStart), anyCase.First(nStart), "FindCaseIgnore");
    fuzz::ExpectSame(text.FindRCaseIgnore(sought.c_str(), nStart), anyCase.Last(nStart), "FindRCaseIgnore");
    fuzz::ExpectSame(text.HasCaseIgnoreString(sought.c_str()), anyCase.First(0), "HasCaseIgnoreString");
    CompareSearchesOtherwise(text, exact, anyCase, nStart);

    const char ch = static_cast<char>(input.Byte());
    int nFirst = -1, nLast = -1, nFirstAny = -1, nLastAny = -1;
    for (int i = nLength - 1; i >= 0; --i) {
        const char chHere = model[static_cast<std::size_t>(i)];
        nFirst = chHere == ch && i >= nStart ? i : nFirst;
        nFirstAny = SameLetter(chHere, ch) && i >= nStart ? i : nFirstAny;
        nLast = nLast < 0 && chHere == ch && i < nLength - nStart ? i : nLast;
        nLastAny = nLastAny < 0 && SameLetter(chHere, ch) && i < nLength - nStart ? i : nLastAny;
    }
    fuzz::ExpectSame(text.Find(ch, nStart), nFirst, "Find of a character");
    fuzz::ExpectSame(text.FindR(ch, nStart), nLast, "FindR of a character");
    fuzz::ExpectSame(text.FindCaseIgnore(ch, nStart), nFirstAny, "FindCaseIgnore of a character");
    fuzz::ExpectSame(text.FindRCaseIgnore(ch, nStart), nLastAny, "FindRCaseIgnore of a character");
    const bool fgFromStart = text.Find(ch, -1 - nStart) == text.Find(ch, 0) &&
                             text.FindR(ch, -1 - nStart) == text.FindR(ch, 0) &&
                             text.FindCaseIgnore(ch, -1 - nStart) == text.FindCaseIgnore(ch, 0) &&
                             text.FindRCaseIgnore(ch, -1 - nStart) == text.FindRCaseIgnore(ch, 0);
    fuzz::Expect(fgFromStart, "a place before the start counts as the start");
}

int Sign(int n) {
    return n < 0 ? -1 : n > 0 ? 1 : 0;
}

void CompareWithNothing(const KString& text, const std::string& model) {
    const char* const pNull = nullptr;
    const KString none;
    fuzz::Expect(!(text == pNull) && !(text == none) && text != none, "no text equals none");
    fuzz::ExpectSame(text != pNull, model.empty(), "!= of null");
    fuzz::Expect(text.IsSame(pNull) == 0 && text.IsSame(none) == 0, "IsSame of none");
    fuzz::Expect(text.IsCaseIgnoreSame(pNull) == -1 && text.IsCaseIgnoreSame(none) == -1, "IsCaseIgnoreSame of none");
    const KString copy(text);  // NOLINT(performance-unnecessary-copy-initialization): it is what is compared
    fuzz::ExpectSame(copy == text, !model.empty(), "a copy equals what it was made of");
}

void CompareCases(const KString& text, const std::string& model) {
    KString lower(text);
    lower.ToLower();
    fuzz::ExpectSame(fuzz::TextOf(lower), Lowered(model), "ToLower");
    KString upper(text);
    upper.ToUpper();
    upper.ToLower();
    fuzz::ExpectSame(fuzz::TextOf(upper), Lowered(model), "ToUpper and ToLower");
}

void CompareTexts(const KString& text, const std::string& model, const std::string& other) {
    const KString given = fuzz::Made(other);
    // A string made of no bytes but a pointer has a buffer, and equals no string without one.
    const bool fgSame = !model.empty() && model == other;
    fuzz::ExpectSame(text == given, fgSame, "==");
    fuzz::ExpectSame(text != given, !fgSame, "!=");
    fuzz::ExpectSame(text == other.c_str(), fgSame, "== of a text");
    fuzz::ExpectSame(text != other.c_str(), !fgSame, "!= of a text");
    const int nOrder = model.empty() ? 0 : std::strcmp(model.c_str(), other.c_str());
    fuzz::ExpectSame(Sign(text.IsSame(given)), Sign(nOrder), "IsSame");
    fuzz::ExpectSame(Sign(text.IsSame(other.c_str())), Sign(nOrder), "IsSame of a text");
    const int nAnyCase = model.empty() ? -1 : strcasecmp(model.c_str(), other.c_str());
    fuzz::ExpectSame(Sign(text.IsCaseIgnoreSame(given)), Sign(nAnyCase), "IsCaseIgnoreSame");
    fuzz::ExpectSame(Sign(text.IsCaseIgnoreSame(other.c_str())), Sign(nAnyCase), "IsCaseIgnoreSame of a text");
    CompareWithNothing(text, model);
    CompareCases(text, model);
    bool fgNoDigit = true, fgAllDigits = true;
    for (const char ch : model) {
        const bool fgDigit = std::isxdigit(static_cast<unsigned char>(ch)) != 0;
        fgNoDigit = fgNoDigit && !fgDigit;
        fgAllDigits = fgAllDigits && fgDigit;
    }
    KString ignored;
    fuzz::ExpectSame(text.IsHexString(), fgNoDigit, "IsHexString");
    fuzz::ExpectSame(KString(text).IsHexStringWithOther(ignored), fgAllDigits, "IsHexStringWithOther");
}

/// The fields of a text, by a delimiter that is not empty.
std::vector<std::string> Fields(const std::string& model, const std::string& delimiter) {
    std::vector<std::string> fields;
    for (std::size_t nFrom = 0; nFrom < model.size();) {
        const std::string rest = fuzz::Plain(model.substr(nFrom));
        const std::size_t nHit = rest.find(delimiter);
        fields.push_back(rest.substr(0, nHit));
        if (nHit == std::string::npos) {
            break;
        }
        nFrom += nHit + delimiter.size();
    }
    return fields;
}

/// What is in the list already stays in it.
void CompareFieldsBy(const char* pszDelimiter, const KString& text, const std::vector<std::string>& fields) {
    KList<KString> got;
    got.Add(KString("before"));
    fuzz::Expect(text.Divide(pszDelimiter, got), "Divide is true");
    std::vector<std::string> wanted = {"before"};
    wanted.insert(wanted.end(), fields.begin(), fields.end());
    fuzz::ExpectSame(got.GetCount(), static_cast<int>(wanted.size()), "number of fields");
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        fuzz::ExpectSame(fuzz::TextOf(*got[static_cast<int>(i)]), wanted[i], "field");
    }
}

void CompareFields(const KString& text, const std::string& model, const std::string& delimiter) {
    if (!delimiter.empty()) {
        CompareFieldsBy(delimiter.c_str(), text, Fields(model, delimiter));
        return;
    }
    // Nowhere is a delimiter that is not there.
    const std::vector<std::string> whole(model.empty() ? 0 : 1, fuzz::Plain(model));
    CompareFieldsBy("", text, whole);
    CompareFieldsBy(nullptr, text, whole);
}

void CompareBytes(const KString& text, const std::string& model) {
    const int nLength = static_cast<int>(model.size());
    fuzz::ExpectSame(text.Length(), nLength, "length");
    for (const int nOutside : {-1 - nLength, -1, nLength, nLength + 1}) {
        fuzz::ExpectSame(static_cast<int>(text[nOutside]), 0, "no byte");
    }
    std::string bytes;
    for (int n = 0; n < nLength; ++n) {
        bytes += text[n];
    }
    fuzz::ExpectSame(bytes, model, "bytes");
}

// -------------------------------------------------------------------------------------------------------- Conversions

using Converter = int (KString::*)(tchar*, int) const;

/// Copies a text into a buffer of any size: as much of it as there is room for, and a NUL.
void CompareCopyOut(const KString& text, const std::string& model, int nSize, Converter pConvert) {
    constexpr char kUntouched = '#';
    const std::size_t nRoom = nSize > 0 ? static_cast<std::size_t>(nSize) : 0;
    std::string wanted(nRoom + 1, kUntouched);
    if (nRoom > 0) {
        const std::size_t nCopied = model.size() < nRoom ? model.size() : nRoom - 1;
        wanted.replace(0, nCopied + 1, model.substr(0, nCopied) + '\0');
    }
    std::string target(nRoom + 1, kUntouched);
    fuzz::ExpectSame((text.*pConvert)(&target[0], nSize), static_cast<int>(model.size()), "length of a copy");
    fuzz::ExpectSame(target, wanted, "a copy");
    fuzz::ExpectSame((text.*pConvert)(nullptr, nSize), static_cast<int>(model.size()), "length of no copy");
}

/// What libc makes of a text, one character after the other. False for a text that is not valid.
bool Widened(const std::string& text, std::wstring& wide) {
    std::mbstate_t state = {};
    for (std::size_t n = 0; n < text.size();) {
        wchar_t ch = L'\0';
        const std::size_t nBytes = std::mbrtowc(&ch, text.data() + n, text.size() - n, &state);
        if (nBytes == 0 || nBytes > text.size() - n) {
            return false;
        }
        wide += ch;
        n += nBytes;
    }
    return true;
}

/// Into a target of any size, of which the first four characters are zeroed.
void CompareWide(const KString& text, const std::string& model, int nSize) {
    constexpr std::size_t kZeroed = 4;
    std::wstring wide;
    const bool fgValid = Widened(fuzz::Plain(model), wide);
    const int nWanted = fgValid ? static_cast<int>(wide.size()) : -1;
    const std::size_t nRoom = nSize > 0 ? static_cast<std::size_t>(nSize) : 0;
    std::wstring target((nRoom < kZeroed ? kZeroed : nRoom) + 1, L'#');
    fuzz::ExpectSame(text.GetWideString(&target[0], nSize), nWanted, "GetWideString");
    fuzz::Expect(target.back() == L'#', "GetWideString writes no more than there is room for");
    fuzz::ExpectSame(text.GetWideString(nullptr, nSize), nWanted, "GetWideString without a target");
    if (fgValid) {
        std::wstring wanted(target.size(), L'#');
        wanted.replace(0, kZeroed, kZeroed, L'\0');
        // A NUL follows where there is room for it in the text's length and in the target.
        const std::size_t nLimit = model.size() < nRoom ? model.size() : nRoom;
        const std::wstring put = (wide + L'\0').substr(0, nLimit);
        wanted.replace(0, put.size(), put);
        fuzz::Expect(target == wanted, "the wide text");
    }
    if (fgValid) {
        fuzz::ExpectSame(fuzz::TextOf(KString::FromWideString(wide.c_str())), fuzz::Plain(model), "there and back");
        fuzz::ExpectSame(KString::LengthOfWideString(wide.c_str()), nWanted, "LengthOfWideString");
    }
}

/// A character in UTF-8.
std::string Encoded(std::uint32_t nCharacter) {
    const auto tail = [&](unsigned nShift) { return static_cast<char>(0x80 | (nCharacter >> nShift & 0x3F)); };
    if (nCharacter < 0x80) {
        return std::string(1, static_cast<char>(nCharacter));
    }
    if (nCharacter < 0x800) {
        return {static_cast<char>(0xC0 | nCharacter >> 6), tail(0)};
    }
    if (nCharacter < 0x10000) {
        return {static_cast<char>(0xE0 | nCharacter >> 12), tail(6), tail(0)};
    }
    return {static_cast<char>(0xF0 | nCharacter >> 18), tail(12), tail(6), tail(0)};
}

/// Characters of any plane, there and back, without libc.
void CompareCharacters(fuzz::Input& input) {
    std::string text;
    std::wstring wide;
    for (int nCount = input.Range(0, 20); nCount > 0; --nCount) {
        const std::uint32_t nCharacter = static_cast<std::uint32_t>(input.Int()) % 0x110000;
        if (nCharacter != 0 && (nCharacter < 0xD800 || nCharacter > 0xDFFF)) {
            text += Encoded(nCharacter);
            wide += static_cast<wchar_t>(nCharacter);
        }
    }
    fuzz::ExpectSame(fuzz::TextOf(KString::FromWideString(wide.c_str())), text, "FromWideString");
    std::vector<wchar_t> target(text.size() + 5, L'#');
    const int nCount =
        KString::FromUTF8String(text.c_str()).GetWideString(target.data(), static_cast<int>(text.size()) + 1);
    fuzz::ExpectSame(nCount, static_cast<int>(wide.size()), "the number of characters");
    fuzz::Expect(std::wstring(target.data(), wide.size()) == wide, "characters");
}

void CompareConversions(const KString& text, const std::string& model, fuzz::Input& input) {
    const int nSize = input.Range(-2, 253);
    const int nLength = static_cast<int>(model.size());
    for (const int nRoom : {nSize, nLength, nLength + 1, nLength + 2}) {
        CompareCopyOut(text, model, nRoom, &KString::GetString);
        CompareCopyOut(text, model, nRoom, &KString::GetUTF8String);
        CompareWide(text, model, nRoom);
    }
    // A locale that may be lacking where only the tests of the library are run.
    if (std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr) {
        CompareWide(text, model, nSize);
        CompareWide(text, model, nLength + 1);
        CompareCharacters(input);
        std::setlocale(LC_CTYPE, "C");
    }
    fuzz::ExpectSame(fuzz::TextOf(KString::FromUTF8String(model.c_str())), fuzz::Plain(model), "FromUTF8String");
    const int nPlain = static_cast<int>(fuzz::Plain(model).size());
    fuzz::ExpectSame(KString::LengthOfString(model.c_str()), nPlain, "LengthOfString");
    fuzz::ExpectSame(KString::LengthOfUTF8String(model.c_str()), nPlain, "LengthOfUTF8String");
    const bool fgNothing = KString::LengthOfString(nullptr) == 0 && KString::LengthOfUTF8String(nullptr) == 0 &&
                           KString::LengthOfWideString(nullptr) == 0 &&
                           KString::FromUTF8String(nullptr).Length() == 0 &&
                           KString::FromWideString(nullptr).Length() == 0;
    fuzz::Expect(fgNothing, "null is no text");
}

/// Copies into a buffer that has one byte more than it says. Nothing is wanted where there is nothing to copy.
void CompareCopy(std::string source, int nCount, int nRoom, const std::string& wanted) {
    constexpr char kUntouched = '#';
    const std::size_t nTarget = static_cast<std::size_t>(nRoom < 0 ? 0 : nRoom) + 2;
    std::string target(nTarget, kUntouched);
    std::string filled(nTarget, kUntouched);
    const bool fgFits = !wanted.empty() && static_cast<int>(wanted.size()) <= nRoom;
    if (fgFits) {
        filled.replace(0, wanted.size() + 1, wanted + '\0');
    }
    fuzz::ExpectSame(KString::Copy(&target[0], nRoom, &source[0], nCount), fgFits, "Copy");
    fuzz::ExpectSame(target, filled, "what Copy wrote");
}

/// Copies of a part of the text, or of the whole.
void CompareCopies(const std::string& model, fuzz::Input& input) {
    std::string source = model;
    const int nLength = static_cast<int>(model.size());
    const int nCount = input.Range(0, 3) == 0 ? -1 - input.Range(0, 2) : input.Int() % (nLength + 1);
    const int nRoom = input.Range(-1, 254);
    // One more than asked for, or the text and its NUL. The string that it comes from ends in a NUL too.
    const std::string whole = model + '\0';
    const bool fgNone = nCount < -1;
    const std::string wanted = fgNone         ? ""
                               : nCount == -1 ? fuzz::Plain(model) + '\0'
                                              : whole.substr(0, static_cast<std::size_t>(nCount) + 1);
    char* pCopy = &source[0];
    fuzz::ExpectSame(KString::AllocAndCopy(&pCopy, &source[0], nCount), !fgNone, "AllocAndCopy");
    fuzz::ExpectSame(pCopy != nullptr, !fgNone, "whether there is a copy");
    if (pCopy != nullptr) {
        fuzz::ExpectSame(std::string(pCopy, wanted.size()), wanted, "the copy");
        // There is room for four times as much.
        std::memset(pCopy, '#', 4 * wanted.size());
        fuzz::Expect(KString::FreeAllocedString(&pCopy), "FreeAllocedString");
    }
    const int nWanted = static_cast<int>(wanted.size());
    for (const int nTarget : {nRoom, nWanted - 1, nWanted, nWanted + 1}) {
        CompareCopy(source, nCount, nTarget, wanted);
    }
    char szTarget[4] = "";
    fuzz::Expect(!KString::Copy(nullptr, nRoom, &source[0], nCount) && !KString::Copy(szTarget, 2, nullptr, nCount) &&
                     !KString::AllocAndCopy(&pCopy, nullptr, nCount) && pCopy == nullptr,
                 "null is not copied");
}

// -------------------------------------------------------------------------------------------------------------- Edits

void TrimEnd(std::string& model, const std::string& set) {
    if (!model.empty() && model.back() != '\0' && set.find(model.back()) != std::string::npos) {
        model.back() = '\0';
    }
}

void TrimStart(std::string& model, const std::string& set) {
    std::size_t nLeading = 0;
    while (nLeading < model.size() && model[nLeading] != '\0' && set.find(model[nLeading]) != std::string::npos) {
        ++nLeading;
    }
    if (nLeading > 0) {
        model = fuzz::Plain(model.substr(nLeading));
    }
}

std::string Replaced(const std::string& text, const std::string& from, const std::string& to) {
    std::string result = fuzz::Plain(text);
    for (std::size_t n = result.find(from); n != std::string::npos; n = result.find(from, n + to.size())) {
        result.replace(n, from.size(), to);
    }
    return result;
}

/// A place in a text, its end included.
std::size_t PlaceIn(const std::string& model, fuzz::Input& input) {
    return static_cast<std::size_t>(static_cast<unsigned>(input.Int())) % (model.size() + 1);
}

/// Texts that are part of the string itself.
void EditByOwnText(KString& text, std::string& model, fuzz::Input& input) {
    const std::size_t nPlace = PlaceIn(model, input);
    const std::string own = fuzz::Plain(model.substr(nPlace));
    switch (input.Range(0, 2)) {
        case 0:
            text = text.GetBuffer() + nPlace;
            model = own;
            break;
        case 1:
            text += text.GetBuffer() + nPlace;
            model += own;
            break;
        default: {
            // What grows with its square is to stay small.
            constexpr std::size_t kShort = 60;
            const std::size_t nOther = PlaceIn(model, input);
            if (model.size() <= kShort) {
                const std::string other = fuzz::Plain(model.substr(nOther));
                fuzz::ExpectSame(text.Replace(text.GetBuffer() + nPlace, text.GetBuffer() + nOther), !own.empty(),
                                 "Replace by its own text");
                model = own.empty() ? model : Replaced(model, own, other);
            }
            break;
        }
    }
}

/// Also of a string that was moved from.
bool IsEmpty(const KString* pText) {
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.Move): it is what is compared.
    return pText->Length() == 0 && *pText->GetBuffer() == '\0';
}

/// A string that was moved from is empty, and takes another text.
void Move(KString& text, const std::string& model) {
    KString moved(std::move(text));
    fuzz::ExpectSame(fuzz::TextOf(moved), model, "a string moved");
    // NOLINTNEXTLINE(bugprone-use-after-move): it is what is compared.
    fuzz::Expect(IsEmpty(&text), "nothing is left of it");
    KString& same = moved;
    moved = same;
    text = "something else";
    text = std::move(moved);
    // NOLINTNEXTLINE(bugprone-use-after-move): it is what is compared.
    fuzz::Expect(IsEmpty(&moved), "nothing is left of it then");
}

void EditMore(int nOperation, KString& text, std::string& model, const std::string& first, char ch,
              fuzz::Input& input) {
    switch (nOperation) {
        case 12:
            text.ToLower();
            for (char& chHere : model) {
                chHere = static_cast<char>(std::tolower(static_cast<unsigned char>(chHere)));
            }
            break;
        case 13: {
            const int nStart = input.Range(-3, 252);
            const std::string bytes = input.Text();
            text = text.Insert(nStart, fuzz::Made(bytes));
            const std::size_t nPlace = static_cast<std::size_t>(nStart < 0 ? 0 : nStart);
            model =
                model.empty() ? "" : fuzz::Plain(model.insert(nPlace < model.size() ? nPlace : model.size(), bytes));
            break;
        }
        case 14:
            EditByOwnText(text, model, input);
            break;
        case 15:
            Move(text, model);
            break;
        case 16: {
            const std::string bytes = input.Text();
            const KString before(text);
            text = before + fuzz::Made(bytes) + first.c_str();
            fuzz::ExpectSame(fuzz::TextOf(before), model, "the left side of +");
            model += bytes + first;
            break;
        }
        case 17:
            text.TrimR(ch);
            if (!model.empty() && model.back() == ch) {
                model.back() = '\0';
            }
            break;
        case 18:
            text.TrimL(ch);
            model = model.find_first_not_of(ch) != std::string::npos ? fuzz::Plain(model) : model;
            break;
        case 19:
            text.Trim(first.c_str());
            TrimEnd(model, first);
            TrimStart(model, first);
            break;
        case 20:
            text.TrimR(static_cast<const char*>(nullptr));
            text.TrimL(static_cast<const char*>(nullptr));
            text += static_cast<const char*>(nullptr);
            fuzz::Expect(!text.Replace(nullptr, first.c_str()) && !text.Replace(first.c_str(), nullptr),
                         "null is not replaced");
            break;
        case 21:
            CompareConversions(text, model, input);
            break;
        case 22:
            CompareCopies(model, input);
            break;
        default: {
            // Bytes of any number, and none.
            const std::string bytes = input.Text();
            const KString made(bytes.data(), input.Range(0, 9) == 0 ? -1 : static_cast<int>(bytes.size()));
            text = made;
            model = made.Length() > 0 ? bytes : "";
            fuzz::Expect(!(KString("", 0) != static_cast<const char*>(nullptr)) && KString("", 0) == KString("", 0),
                         "an empty text that has a buffer");
            fuzz::Expect(KString("x", -1).Length() == 0 && KString(nullptr, 1).Length() == 0, "no bytes");
            break;
        }
    }
}

void Edit(KString& text, std::string& model, fuzz::Input& input) {
    const int nOperation = input.Range(0, 23);
    const std::string first = input.PlainText();
    const char ch = static_cast<char>(input.Byte());
    switch (nOperation) {
        case 0:
            text = first.c_str();
            model = first;
            break;
        case 1: {
            const std::string bytes = input.Text();
            text = fuzz::Made(bytes);
            model = bytes;
            break;
        }
        case 2:
            text += first.c_str();
            model += first;
            break;
        case 3:
            text += text;
            model += std::string(model);
            break;
        case 4: {
            const char chTo = static_cast<char>(input.Byte());
            fuzz::ExpectSame(text.Replace(ch, chTo), !model.empty(), "Replace of a character");
            for (char& chHere : model) {
                chHere = chHere == ch ? chTo : chHere;
            }
            break;
        }
        case 5: {
            const std::string second = input.PlainText();
            fuzz::ExpectSame(text.Replace(first.c_str(), second.c_str()), !first.empty(), "Replace");
            if (!first.empty()) {
                model = Replaced(model, first, second);
            }
            break;
        }
        case 6: {
            const std::size_t nStart = input.Byte();
            text = text.Insert(static_cast<int>(nStart), first.c_str());
            if (!model.empty()) {
                model = fuzz::Plain(model.insert(nStart < model.size() ? nStart : model.size(), first));
            }
            break;
        }
        case 7: {
            const int nStart = input.Byte() % (static_cast<int>(model.size()) + 1);
            const int nEnd = input.Byte();
            text = text.Sub(nStart, nEnd);
            const int nCount = (nEnd == 0 ? static_cast<int>(model.size()) : nEnd) - nStart;
            const bool fgEmpty = model.empty() || nCount <= 0;
            model = fgEmpty ? "" : model.substr(static_cast<std::size_t>(nStart), static_cast<std::size_t>(nCount));
            // What is asked for behind the end is there, as NULs.
            model.resize(fgEmpty ? 0 : static_cast<std::size_t>(nCount), '\0');
            break;
        }
        case 8:
            text.TrimR(first.c_str());
            TrimEnd(model, first);
            break;
        case 9:
            text.TrimL(first.c_str());
            TrimStart(model, first);
            break;
        case 10:
            text.Trim(ch);
            // Where it is a NUL nothing is to be seen of it but the length.
            if (!model.empty() && model.back() == ch) {
                model.back() = '\0';
            }
            if (model.find_first_not_of(ch) != std::string::npos) {
                model = fuzz::Plain(model);
            }
            break;
        case 11:
            text.ToUpper();
            for (char& chHere : model) {
                chHere = static_cast<char>(std::toupper(static_cast<unsigned char>(chHere)));
            }
            break;
        default:
            EditMore(nOperation, text, model, first, ch, input);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    fuzz::Input input(pBytes, nBytes);
    KString text;
    std::string model;
    while (!input.IsEmpty() && model.size() < kLongest) {
        Edit(text, model, input);
        fuzz::ExpectSame(fuzz::TextOf(text), model, "text");
        fuzz::ExpectSame(static_cast<long long>(text.GetBuffer()[text.Length()]), 0LL, "a NUL behind the text");
        CompareBytes(text, model);
        CompareSearches(text, model, input);
        CompareTexts(text, model, input.PlainText());
        CompareFields(text, model, input.PlainText());
    }
    return 0;
}
