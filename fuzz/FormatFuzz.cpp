// Formatting and parsing: Sprintf and Scanf against libc's, ToDigit against wide arithmetic.
#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <iterator>
#include <vector>

#include "Fuzz.h"

namespace {

/// The arguments that every format gets: as many and of the kinds that a format made here can ask for.
struct Arguments {
    int nFirst;
    int nSecond;
    long long nLong;
    std::string text;
    double dReal;
};

/// Conversions of each kind, in the order of the arguments, with texts before them, flags, width and precision.
std::vector<std::string> MakeConversions(fuzz::Input& input) {
    static const char* const kConversions[][3] = {
        {"d", "x", "c"}, {"u", "o", "X"}, {"lld", "llx", "llu"}, {"s", "s", "s"}, {"f", "e", "g"}};
    static const char* const kFlags[] = {"", "-", "0", "+", " ", "#", "-+", "0+"};
    std::vector<std::string> made;
    for (const auto& conversions : kConversions) {
        std::string format;
        for (const char ch : input.PlainText()) {
            format += ch == '%' ? std::string("%%") : std::string(1, ch);
        }
        const std::string conversion = conversions[input.Range(0, 2)];
        format += "%";
        format += kFlags[input.Range(0, 7)];
        const int nWidth = input.Byte();
        // Now and then as wide as the first room is, where the library's way of trying again shows.
        format += nWidth == 255  ? std::to_string(10000 + input.Range(0, 255))
                  : nWidth > 100 ? std::to_string(nWidth)
                                 : "";
        const int nPrecision = input.Byte();
        format += nPrecision >= 200 ? "." + std::to_string(nPrecision - 200) : "";
        format += conversion;
        made.push_back(format);
    }
    return made;
}

/// As many of the conversions as a byte says, all for 0; and now and then the first number as a wide character, which few
/// numbers are.
std::string Joined(const std::vector<std::string>& conversions, int nByte) {
    const std::size_t nCount = conversions.size() - static_cast<std::size_t>(nByte) % (conversions.size() + 1);
    constexpr int kWide = 200;
    std::string format = nByte >= kWide ? "%lc" : "";
    for (std::size_t i = format.empty() ? 0 : 1; i < nCount; ++i) {
        format += conversions[i];
    }
    return format;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void CompareSprintf(const std::string& format, const Arguments& arguments) {
    constexpr std::size_t kCapacity = 10240;
    const auto render = [&](char* pTarget, std::size_t nSize) {
        return std::snprintf(pTarget, nSize, format.c_str(), arguments.nFirst, arguments.nSecond, arguments.nLong,
                             arguments.text.c_str(), arguments.dReal);
    };
    KString text("before");
    const int nCount = text.Sprintf(format.c_str(), arguments.nFirst, arguments.nSecond, arguments.nLong,
                                    arguments.text.c_str(), arguments.dReal);
    const int nWanted = render(nullptr, 0);
    fuzz::ExpectSame(nCount, nWanted, "the count of Sprintf");
    if (nWanted <= 0) {
        fuzz::ExpectSame(fuzz::TextOf(text), std::string("before"), "a format that gives nothing changes nothing");
        return;
    }
    std::string wanted(static_cast<std::size_t>(nWanted) + 1, '\0');
    render(&wanted[0], wanted.size());
    wanted.pop_back();
    // What is longer than the room is cut, but for the one length that fits it exactly; the length is the whole one.
    if (wanted.size() > kCapacity) {
        std::memset(&wanted[kCapacity - 1], 0, wanted.size() - (kCapacity - 1));
    }
    fuzz::ExpectSame(fuzz::TextOf(text), wanted, "the text of Sprintf");
}

void CompareScanf(const std::string& subject, const std::string& set, int nStart) {
    const KString text = fuzz::Made(subject);
    int nGot[2] = {-1, -1}, nWanted[2] = {-1, -1};
    char szGot[300] = "", szWanted[300] = "";
    std::string format = "%d %x %255[";
    for (const char ch : set) {
        format += std::isalnum(static_cast<unsigned char>(ch)) != 0 ? std::string(1, ch) : "";
    }
    format += "x]";
    const int nCount = text.Scanf(nStart, format.c_str(), &nGot[0], &nGot[1], szGot);
    const bool fgPast = nStart >= static_cast<int>(subject.size());
    const int nPlace = nStart < 0 ? 0 : nStart;
    const int nWantedCount =
        fgPast ? 0 : std::sscanf(subject.c_str() + nPlace, format.c_str(), &nWanted[0], &nWanted[1], szWanted);
    fuzz::ExpectSame(nCount, nWantedCount, "the count of Scanf");
    fuzz::ExpectSame(nGot[0], nWanted[0], "the first number of Scanf");
    fuzz::ExpectSame(nGot[1], nWanted[1], "the second number of Scanf");
    fuzz::ExpectSame(std::string(szGot), std::string(szWanted), "the text of Scanf");
}

/// Where the values of a scan go: places that every kind of value fits into, a text of the longest subject too.
class Values {
 public:
    static constexpr std::size_t kCount = 6;

    Values() { std::fill(std::begin(m_Places), std::end(m_Places), Place{}); }

    void* operator[](std::size_t n) { return m_Places[n].bytes; }
    std::string Bytes() const { return std::string(reinterpret_cast<const char*>(m_Places), sizeof(m_Places)); }

 private:
    struct Place {
        alignas(long long) unsigned char bytes[320];
    };

    Place m_Places[kCount];
};

/// A number of characters that a conversion may take at most, or none.
std::string Width(fuzz::Input& input) {
    const int nWidth = input.Byte();
    return nWidth % 4 == 0 && nWidth > 0 ? std::to_string(nWidth) : "";
}

/// Characters to be taken, or to be stopped at.
std::string Set(fuzz::Input& input) {
    std::string set;
    for (const char ch : input.PlainText()) {
        set += std::isalnum(static_cast<unsigned char>(ch)) != 0 || ch == '-' || ch == ' ' ? std::string(1, ch) : "";
    }
    return (input.Byte() % 2 == 0 ? "[^" : "[") + set + "x]";
}

/// Any conversions with or without a place for their value, with a width or none, and what has to stand between them.
std::string MakeScan(fuzz::Input& input) {
    static const char* const kConversions[] = {"d", "x", "s", "c", "u", "n", "[", "i", "o"};
    constexpr std::size_t kMost = 10;
    std::string format;
    std::size_t nValues = 0;
    const std::size_t nCount = input.Byte() % (kMost + 1);
    for (std::size_t i = 0; i < nCount; ++i) {
        const int nByte = input.Byte();
        const std::string conversion = kConversions[nByte % 9];
        if (nByte % 4 == 3) {
            for (const char ch : input.PlainText().substr(0, 4)) {
                format += ch == '%' ? std::string("%%") : std::string(1, ch);
            }
            continue;
        }
        // How far it came has neither a width nor a value that is left out.
        const bool fgCount = conversion == "n";
        const bool fgLeftOut = !fgCount && nByte % 4 == 2;
        nValues += fgLeftOut ? 0 : 1;
        if (nValues > Values::kCount) {
            break;
        }
        format += fgLeftOut ? "%*" : "%";
        format += fgCount ? "" : Width(input);
        format += conversion == "[" ? Set(input) : conversion;
    }
    return format;
}

void CompareAnyScanf(fuzz::Input& input) {
    const std::string format = MakeScan(input);
    const std::string subject = input.PlainText();
    const int nStart = static_cast<int>(static_cast<unsigned>(input.Int()) % 306) - 5;
    const KString text = fuzz::Made(subject);
    const auto scan = [&](const char* pText, Values& v) {
        return std::sscanf(pText, format.c_str(), v[0], v[1], v[2], v[3], v[4], v[5]);
    };
    Values got, wanted;
    const int nCount = text.Scanf(nStart, format.c_str(), got[0], got[1], got[2], got[3], got[4], got[5]);
    const bool fgPast = nStart >= static_cast<int>(subject.size());
    fuzz::ExpectSame(nCount, fgPast ? 0 : scan(subject.c_str() + (nStart < 0 ? 0 : nStart), wanted),
                     "the count of any Scanf");
    fuzz::ExpectSame(got.Bytes(), wanted.Bytes(), "the values of any Scanf");
}

#pragma GCC diagnostic pop

/// Digits of a base from a place on, in arithmetic that wraps.
int Digits(const std::string& text, std::size_t nFrom, unsigned nBase) {
    const std::string digits = "0123456789abcdef";
    unsigned long long nValue = 0;
    for (std::size_t i = nFrom; i < text.size(); ++i) {
        const std::size_t nDigit = digits.find(static_cast<char>(std::tolower(static_cast<unsigned char>(text[i]))));
        if (nDigit >= nBase) {
            break;
        }
        nValue = nValue * nBase + nDigit;
    }
    return fuzz::Low32(nValue);
}

int ModelDigit(const std::string& text) {
    const char chBase = text.size() > 2 && text[0] == '0' ? text[1] : '\0';
    if (chBase == 'x' || chBase == 'X') {
        return Digits(text, 2, 16);
    }
    if (chBase == 'b' || chBase == 'B') {
        unsigned long long nValue = 0;
        for (std::size_t i = 2; i < text.size() && static_cast<unsigned char>(text[i]) <= '1'; ++i) {
            // Bytes below '0' count as what they are.
            nValue = nValue * 2 + static_cast<unsigned long long>(static_cast<unsigned char>(text[i]) - '0');
        }
        return fuzz::Low32(nValue);
    }
    const bool fgMinus = !text.empty() && text[0] == '-';
    const auto nValue = static_cast<std::uint32_t>(Digits(text, fgMinus ? 1 : 0, 10));
    return static_cast<int>(fgMinus ? 0 - nValue : nValue);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    fuzz::Input input(pBytes, nBytes);
    const std::vector<std::string> conversions = MakeConversions(input);
    Arguments arguments;
    arguments.nFirst = input.Int();
    arguments.nSecond = input.Int();
    arguments.nLong = static_cast<long long>(input.Int()) * input.Int();
    arguments.text = input.PlainText();
    arguments.dReal = static_cast<double>(input.Int()) / 7;
    // One after the other: the order in which a call's arguments are taken differs between compilers.
    const std::string subject = input.PlainText();
    const std::string set = input.PlainText();
    CompareScanf(subject, set, input.Range(-5, 100));
    for (int i = 0; i < 4; ++i) {
        const std::string digits = input.Text();
        fuzz::ExpectSame(fuzz::Made(digits).ToDigit(), ModelDigit(digits), "ToDigit");
    }
    CompareSprintf(Joined(conversions, input.Byte()), arguments);
    CompareAnyScanf(input);
    return 0;
}
