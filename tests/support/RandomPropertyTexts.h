// Property lists, or what might be taken for some, made at random.
#ifndef KALVOREN_TESTS_RANDOMPROPERTYTEXTS_H
#define KALVOREN_TESTS_RANDOMPROPERTYTEXTS_H

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace support {

/// The same texts for the same seed.
class RandomPropertyTexts {
 public:
    explicit RandomPropertyTexts(unsigned int nSeed) : m_Random(nSeed) {}

    /// A text of up to 59 pieces: mostly of such as a configuration has, so that reads go deep before they end.
    std::string Next() {
        static const std::vector<std::string> usual = {"<plist>",
                                                       "<dict>",
                                                       "</dict>",
                                                       "<dict>",
                                                       "<array>",
                                                       "</array>",
                                                       "<Array>",
                                                       "</DICT>",
                                                       "</plist>",
                                                       "</PLIST>",
                                                       "<key>a</key>",
                                                       "<key>b</key>",
                                                       "<key>c</KEY>",
                                                       "<key></key>",
                                                       "<string>x</string>",
                                                       "<string></string>",
                                                       "<true/>",
                                                       "<FALSE/>",
                                                       "<date></date>",
                                                       "<data>\nA\n</data>",
                                                       "\n",
                                                       "\r\n\t\t"};
        static const std::vector<std::string> rare = {" ",
                                                      "<",
                                                      ">",
                                                      "<>",
                                                      "/",
                                                      "x",
                                                      "&lt;",
                                                      "&#x;",
                                                      "<key>",
                                                      "</key>",
                                                      "<string>",
                                                      "</string>",
                                                      "<real>",
                                                      "</real>",
                                                      "<integer>",
                                                      "</integer>",
                                                      "<dict/>",
                                                      "<true />",
                                                      "<keys>",
                                                      "</dictator>",
                                                      "<string a>y</string a>",
                                                      "<a true/>",
                                                      "<!-- true/ -->",
                                                      "<!-- -->",
                                                      "<!--",
                                                      "-->",
                                                      "<![CDATA[",
                                                      "]]>",
                                                      "<?xml",
                                                      "?>",
                                                      "<?xml?>",
                                                      "<!DOCTYPE plist>"};
        std::string text;
        for (std::size_t nPieces = Below(60); nPieces > 0; --nPieces) {
            const auto& pieces = Below(25) == 0 ? rare : usual;
            text += pieces[Below(pieces.size())];
        }
        return text;
    }

    /// A text of so many bytes, mostly of those that mean something.
    std::string NextBytes(int nLength) {
        static const std::string meaning = "<>/?!&;#-\"\n\t\r tTrRuUeEfFaAlLsSkKyYdDiIcC";
        std::string text;
        for (int i = 0; i < nLength; ++i) {
            text += Below(8) == 0 ? static_cast<char>(Below(256)) : meaning[Below(meaning.size())];
        }
        return text;
    }

 private:
    std::size_t Below(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(m_Random); }

    std::mt19937 m_Random;
};

}  // namespace support

#endif  // KALVOREN_TESTS_RANDOMPROPERTYTEXTS_H
