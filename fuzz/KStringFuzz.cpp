// Texts: sequences of searches and edits on a string and on a model made of std::string. Texts may hold NULs, which some
// operations count and others stop at.
#include <strings.h>

#include <cctype>
#include <vector>

#include "Fuzz.h"

namespace {

constexpr std::size_t kLongest = 4000;

/// A text as far as its first NUL.
std::string Plain(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

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
        const std::string from = Plain(text.substr(static_cast<std::size_t>(nStart)));
        const std::size_t nHit = from.find(sought);
        return nHit == std::string::npos ? -1 : static_cast<int>(nHit) + nStart;
    }

    int Last(int nStart) const {
        if (!fgHasBuffer || nStart >= nLength) {
            return -1;
        }
        int nFound = -1;
        const std::string plain = Plain(text);
        for (std::size_t n = plain.find(sought); n != std::string::npos; n = plain.find(sought, n + 1)) {
            if (static_cast<int>(n) <= nLength - nStart) {
                nFound = static_cast<int>(n);
            }
        }
        return nFound;
    }
};

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
}

int Sign(int n) {
    return n < 0 ? -1 : n > 0 ? 1 : 0;
}

void CompareTexts(const KString& text, const std::string& model, const std::string& other) {
    const KString given = fuzz::Made(other);
    const bool fgBoth = !model.empty() && !other.empty();
    // A string made of no bytes but a pointer has a buffer, and equals no string without one.
    if (!other.empty()) {
        fuzz::ExpectSame(text == given, fgBoth && model == other, "==");
        fuzz::ExpectSame(text != given, !(fgBoth && model == other), "!=");
        const int nOrder = model.empty() ? 0 : std::strcmp(model.c_str(), other.c_str());
        fuzz::ExpectSame(Sign(text.IsSame(given)), Sign(nOrder), "IsSame");
        const int nAnyCase = model.empty() ? -1 : strcasecmp(model.c_str(), other.c_str());
        fuzz::ExpectSame(Sign(text.IsCaseIgnoreSame(given)), Sign(nAnyCase), "IsCaseIgnoreSame");
    }
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
    std::string scratch = model;
    for (std::size_t nFrom = 0; nFrom < model.size();) {
        const std::string rest = Plain(scratch.substr(nFrom));
        const std::size_t nHit = rest.find(delimiter);
        fields.push_back(rest.substr(0, nHit));
        if (nHit == std::string::npos) {
            break;
        }
        nFrom += nHit + delimiter.size();
    }
    return fields;
}

void CompareFields(const KString& text, const std::string& model, const std::string& delimiter) {
    if (delimiter.empty()) {
        return;
    }
    KList<KString> got;
    text.Divide(delimiter.c_str(), got);
    const std::vector<std::string> wanted = Fields(model, delimiter);
    fuzz::ExpectSame(got.GetCount(), static_cast<int>(wanted.size()), "number of fields");
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        fuzz::ExpectSame(fuzz::TextOf(*got[static_cast<int>(i)]), wanted[i], "field");
    }
}

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
        model = Plain(model.substr(nLeading));
    }
}

std::string Replaced(const std::string& text, const std::string& from, const std::string& to) {
    std::string result = Plain(text);
    for (std::size_t n = result.find(from); n != std::string::npos; n = result.find(from, n + to.size())) {
        result.replace(n, from.size(), to);
    }
    return result;
}

void Edit(KString& text, std::string& model, fuzz::Input& input) {
    const int nOperation = input.Range(0, 11);
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
                model = Plain(model.insert(nStart < model.size() ? nStart : model.size(), first));
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
                model = Plain(model);
            }
            break;
        default:
            text.ToUpper();
            for (char& chHere : model) {
                chHere = static_cast<char>(std::toupper(static_cast<unsigned char>(chHere)));
            }
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
        CompareSearches(text, model, input);
        CompareTexts(text, model, input.PlainText());
        CompareFields(text, model, input.PlainText());
    }
    return 0;
}
