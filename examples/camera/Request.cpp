#include "Request.h"

#include <algorithm>
#include <string_view>

namespace camera {

namespace {

using std::string_view;

bool IsUpper(char ch) {
    return ch >= 'A' && ch <= 'Z';
}

bool IsVisible(char ch) {
    return ch > ' ' && ch < '\x7F';
}

KString Copy(string_view text) {
    return KString(text.data(), static_cast<int>(text.size()));
}

}  // namespace

std::size_t EndOfHead(const char* pData, std::size_t nSize) {
    const string_view data(pData, nSize);
    const std::size_t nWithReturns = data.find("\r\n\r\n");
    const std::size_t nWithout = data.find("\n\n");
    const std::size_t nEnd = std::min(nWithReturns, nWithout);
    return nEnd == string_view::npos ? 0 : nEnd + (nEnd == nWithReturns ? 4 : 2);
}

bool ParseRequest(const char* pData, std::size_t nSize, Request& request) {
    const string_view data(pData, nSize);
    string_view line = data.substr(0, data.find('\n'));
    if (line.size() == data.size()) {
        return false;
    }
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    const std::size_t nMethodEnd = line.find(' ');
    const std::size_t nPathEnd = line.rfind(' ');
    if (nMethodEnd == string_view::npos || nPathEnd == nMethodEnd) {
        return false;
    }
    const string_view method = line.substr(0, nMethodEnd);
    const string_view target = line.substr(nMethodEnd + 1, nPathEnd - nMethodEnd - 1);
    const string_view version = line.substr(nPathEnd + 1);
    if (method.empty() || !std::all_of(method.begin(), method.end(), IsUpper) || target.empty() || target[0] != '/' ||
        !std::all_of(target.begin(), target.end(), IsVisible) || (version != "HTTP/1.1" && version != "HTTP/1.0")) {
        return false;
    }
    request.method = Copy(method);
    request.path = Copy(target.substr(0, target.find('?')));
    return true;
}

}  // namespace camera
