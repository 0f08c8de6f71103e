// The camera's reader of HTTP requests: any bytes, at once and off a connection in pieces, against a model that splits the
// first line at its blanks.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "Fuzz.h"
#include "RequestReader.h"

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

/// What has to come of a text that is all that the client sends; @p eUnended where it does not come to its empty line.
camera::Arrival ModelArrival(const std::string& text, camera::Arrival eUnended) {
    const std::string seen = text.substr(0, camera::kLargestHead);
    if (ModelEnd(seen) == 0) {
        return seen.size() < camera::kLargestHead ? eUnended : camera::Arrival::TOO_LARGE;
    }
    return Model(text).empty() ? camera::Arrival::NONSENSE : camera::Arrival::REQUEST;
}

/// A connection of the camera's. Its socket is exchanged for one end of a pair each time, since only a listening socket
/// makes one.
class Line {
 public:
    Line() : m_Connection(m_Owner) {
        KNetInfo here(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "", 0);
        KNet listener(here, 0);
        fuzz::Expect(listener.CreateSocket() && listener.Bind(), "there is a listening socket");
        sockaddr_in address = {};
        socklen_t nSize = sizeof(address);
        getsockname(listener.GetSocket(), reinterpret_cast<sockaddr*>(&address), &nSize);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int nClient = socket(AF_INET, SOCK_STREAM, 0);
        fuzz::Expect(connect(nClient, reinterpret_cast<const sockaddr*>(&address), nSize) == 0, "it is connected to");
        fuzz::Expect(m_Connection.AcceptFrom(listener), "the camera takes the client");
        close(nClient);
        listener.DeleteSocket();
        m_Owner.SetStatus(KThread::RUNNING);
    }
    ~Line() {
        m_Owner.SetStatus(KThread::STOPPED);
        m_Connection.Close();
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    /// Sends pieces, each of which is read as one, and reads a request: from a client that leaves then, or from one that
    /// stays silent for too long.
    camera::Arrival Read(const std::vector<std::string>& pieces, bool fgStays, camera::Request& request) {
        int nEnds[2] = {};
        fuzz::Expect(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, nEnds) == 0, "there is a pair of sockets");
        fuzz::Expect(dup2(nEnds[1], m_Connection.GetSocket()) >= 0, "the camera has one of them");
        close(nEnds[1]);
        for (const std::string& piece : pieces) {
            fuzz::Expect(send(nEnds[0], piece.data(), piece.size(), MSG_DONTWAIT) == static_cast<ssize_t>(piece.size()),
                         "the pieces fit into the system's buffer");
        }
        if (!fgStays) {
            close(nEnds[0]);
        }
        const long long nDeadline = fgStays ? 0 : std::numeric_limits<long long>::max();
        const camera::Arrival eArrival = camera::ReadRequest(m_Connection, nDeadline, request);
        if (fgStays) {
            close(nEnds[0]);
        }
        return eArrival;
    }

 private:
    KThread m_Owner;
    camera::Connection m_Connection;
};

/// Cuts a text into pieces, none of them empty and not too many, since each is a few calls of the system: each but the last as
/// long as the callback says for its place.
template <typename LengthAt>
std::vector<std::string> Cut(const std::string& text, const LengthAt& lengthAt) {
    constexpr std::size_t kMost = 24;
    std::vector<std::string> pieces;
    for (std::size_t n = 0; n < text.size(); n += pieces.back().size()) {
        pieces.push_back(text.substr(n, pieces.size() < kMost ? lengthAt(n) : std::string::npos));
    }
    return pieces;
}

void CompareRead(const std::string& text, const std::vector<std::string>& pieces, bool fgStays) {
    static Line line;
    const std::vector<std::string> words = Model(text);
    const camera::Arrival eWanted = ModelArrival(text, fgStays ? camera::Arrival::LATE : camera::Arrival::GONE);
    const bool fgRequest = eWanted == camera::Arrival::REQUEST;
    camera::Request request = {"before", "before"};
    fuzz::ExpectSame(static_cast<int>(line.Read(pieces, fgStays, request)), static_cast<int>(eWanted),
                     "what comes of reading it");
    fuzz::ExpectSame(fuzz::TextOf(request.method), fgRequest ? words[0] : "before", "method that was read");
    fuzz::ExpectSame(fuzz::TextOf(request.path), fgRequest ? words[1].substr(0, words[1].find('?')) : "before",
                     "path that was read");
}

/// In one piece; broken behind every end of a line, within an empty line too; and in pieces whose lengths its bytes say.
void CompareReads(const std::string& text) {
    CompareRead(text, Cut(text, [](std::size_t) { return std::string::npos; }), false);
    const auto untilBreak = [&](std::size_t n) {
        const std::size_t nBreak = text.find_first_of("\r\n", n);
        return nBreak == std::string::npos ? std::string::npos : nBreak + 1 - n;
    };
    CompareRead(text, Cut(text, untilBreak), false);
    const auto asItsBytesSay = [&](std::size_t n) { return 1u + static_cast<unsigned char>(text[n]) % 32u; };
    CompareRead(text, Cut(text, asItsBytesSay), true);
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
    // A connection holds no more at once than its socket has room for, and the reader takes half of this.
    CompareReads(text.substr(0, std::size_t{2} * camera::kLargestHead));
    return 0;
}
