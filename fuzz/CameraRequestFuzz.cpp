// The camera's reader of HTTP requests: any bytes, against a model that splits the first line at its blanks.
#include <algorithm>
#include <vector>

#include "Fuzz.h"
#include "Request.h"

namespace {

std::vector<std::string> Split(const std::string& line) {
    std::vector<std::string> words(1);
    for (const char ch : line) {
        if (ch == ' ') {
            words.emplace_back();
        } else {
            words.back() += ch;
        }
    }
    return words;
}

bool HasOnly(const std::string& text, char chFirst, char chLast) {
    return std::all_of(text.begin(), text.end(), [&](char ch) { return ch >= chFirst && ch <= chLast; });
}

/// The words of the first line; none where it is no request.
std::vector<std::string> Model(const std::string& text) {
    const std::size_t nEnd = text.find('\n');
    if (nEnd == std::string::npos) {
        return {};
    }
    const bool fgReturn = nEnd > 0 && text[nEnd - 1] == '\r';
    const std::vector<std::string> words = Split(text.substr(0, fgReturn ? nEnd - 1 : nEnd));
    const bool fgGood = words.size() == 3 && !words[0].empty() && HasOnly(words[0], 'A', 'Z') && words[1][0] == '/' &&
                        HasOnly(words[1], '!', '~') && (words[2] == "HTTP/1.0" || words[2] == "HTTP/1.1");
    return fgGood ? words : std::vector<std::string>();
}

/// Where the first empty line ends, 0 without one.
std::size_t ModelEnd(const std::string& text) {
    for (std::size_t n = 1; n < text.size(); ++n) {
        if (text.compare(n - 1, 2, "\n\n") == 0) {
            return n + 1;
        }
        if (n >= 3 && text.compare(n - 3, 4, "\r\n\r\n") == 0) {
            return n + 1;
        }
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    const char* const pData = reinterpret_cast<const char*>(pBytes);
    const std::string text(pBytes, pBytes + nBytes);
    const std::vector<std::string> words = Model(text);
    camera::Request request = {"before", "before"};
    fuzz::ExpectSame(camera::ParseRequest(pData, nBytes, request), !words.empty(), "whether it is a request");
    fuzz::ExpectSame(fuzz::TextOf(request.method), words.empty() ? "before" : words[0], "method");
    fuzz::ExpectSame(fuzz::TextOf(request.path), words.empty() ? "before" : words[1].substr(0, words[1].find('?')),
                     "path");
    fuzz::ExpectSame(static_cast<long long>(camera::EndOfHead(pData, nBytes)), static_cast<long long>(ModelEnd(text)),
                     "where the head ends");
    return 0;
}
