#include "HttpServer.h"

#include <KDebug.h>
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "Clock.h"
#include "Events.h"
#include "Page.h"
#include "RequestReader.h"

namespace camera {

namespace {

constexpr int kRequestMs = 5000;  // within which a client has to say what it wants
constexpr int kAnswerMs = 10000;  // within which it has to take the answer, or one picture of the stream
constexpr int kLookMs = 200;      // from one look at the thread's status to the next

/// For a client's thread, in bytes. The usual 8 MB for each would be half of what addresses a 32-bit machine has.
constexpr int kStackSize = 256 * 1024;

KString Head(const char* pszStatus, const char* pszType, unsigned int nLength) {
    KString head;
    head.Sprintf(
        "HTTP/1.1 %s\r\nContent-Type: %s\r\nContent-Length: %u\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n",
        pszStatus, pszType, nLength);
    return head;
}

KString Refusal(const char* pszStatus, const KString& text) {
    return Head(pszStatus, "text/plain", static_cast<unsigned int>(text.Length())) + text;
}

}  // namespace

// ----------------------------------------------------------------------------------------------------------- One client

bool HttpClient::Serve(KNet& listener, bool fgLocalOnly) {
    Stop();  // Waits for nothing: the thread that served the client before is at its end.
    if (!m_Connection.AcceptFrom(listener)) {
        return false;
    }
    // KNet binds to all addresses of the machine; who may come is decided here.
    if (fgLocalOnly && m_Connection.GetPeer().Find("127.", 0) != 0) {
        if (m_Site.counters.nStrangers++ == 0) {
            KDebug::Error("%s was sent away, as all others will be: Http/LocalOnly is set",
                          m_Connection.GetPeer().GetBuffer());
        }
        m_Connection.Refuse(Refusal("403 Forbidden", "For this machine alone.\n"));
        return true;
    }
    m_fgBusy = true;
    Start(0, NORMAL, kStackSize, nullptr);
    return true;
}

bool HttpClient::Refuse(KNet& listener) {
    if (!m_Connection.AcceptFrom(listener)) {
        return false;
    }
    m_Connection.Refuse(Refusal("503 Service Unavailable", "All places are taken.\n"));
    return true;
}

int HttpClient::ThreadMainLoop() {
    Answer();
    m_Connection.Finish();
    m_fgBusy = false;
    return 0;
}

void HttpClient::Answer() {
    Request request;
    if (!TakeRequest(request)) {
        return;
    }
    if (request.method != "GET") {
        SendError("405 Method Not Allowed");
    } else if (request.path == "/") {
        SendText("200 OK", "text/html; charset=utf-8", kPage);
    } else if (request.path == "/status.json") {
        SendText("200 OK", "application/json", m_Site.statusJson());
    } else if (request.path == "/snapshot.jpg") {
        SendSnapshot();
    } else if (request.path == "/stream.mjpg") {
        SendStream();
    } else {
        SendError("404 Not Found");
    }
}

/// Returns false, after an answer where one is due, when there is no request.
bool HttpClient::TakeRequest(Request& request) {
    switch (ReadRequest(m_Connection, NowMs() + kRequestMs, request)) {
        case Arrival::REQUEST:
            return true;
        case Arrival::NONSENSE:
            SendError("400 Bad Request");
            return false;
        case Arrival::TOO_LARGE:
            SendError("431 Request Header Fields Too Large");
            return false;
        case Arrival::LATE:
            SendError("408 Request Timeout");
            return false;
        case Arrival::GONE:
            return false;
    }
    return false;
}

void HttpClient::SendText(const char* pszStatus, const char* pszType, const KString& text) {
    const long long nDeadline = NowMs() + kAnswerMs;
    if (m_Connection.Write(Head(pszStatus, pszType, static_cast<unsigned int>(text.Length())), nDeadline)) {
        m_Connection.Write(text, nDeadline);
    }
}

void HttpClient::SendError(const char* pszStatus) {
    SendText(pszStatus, "text/plain", KString(pszStatus) + "\n");
}

void HttpClient::SendSnapshot() {
    const JpegPointer jpeg = m_Site.broadcaster.WaitForNewer(0, kAnswerMs / 10);
    if (jpeg == nullptr) {
        SendError("503 Service Unavailable");
        return;
    }
    const long long nDeadline = NowMs() + kAnswerMs;
    const unsigned int nSize = static_cast<unsigned int>(jpeg->bytes.size());
    if (m_Connection.Write(Head("200 OK", "image/jpeg", nSize), nDeadline)) {
        m_Connection.Write(reinterpret_cast<const char*>(jpeg->bytes.data()), static_cast<int>(nSize), nDeadline);
    }
}

/// Motion JPEG: one answer of many parts, each of which replaces the one before in the browser.
void HttpClient::SendStream() {
    static constexpr char szHead[] =
        "HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=picture\r\n"
        "Cache-Control: no-store\r\nConnection: close\r\n\r\n";
    ++m_Site.counters.nJoined;
    ++m_Site.counters.nClients;
    Announce(event::kClientJoined, m_Connection.GetPeer());
    bool fgGoOn = m_Connection.Write(szHead, NowMs() + kAnswerMs);
    for (unsigned int nLast = 0; fgGoOn && IsRunning() && !m_Connection.IsClosedByPeer();) {
        const JpegPointer jpeg = m_Site.broadcaster.WaitForNewer(nLast, kLookMs);
        if (jpeg != nullptr) {
            // While this client took its last picture others may have come, and gone.
            m_Site.counters.nSkipped += nLast != 0 ? jpeg->nNumber - nLast - 1 : 0;
            nLast = jpeg->nNumber;
            fgGoOn = SendPart(*jpeg);
        }
    }
    --m_Site.counters.nClients;
    Announce(event::kClientLeft, m_Connection.GetPeer());
}

bool HttpClient::SendPart(const Jpeg& jpeg) {
    const long long nDeadline = NowMs() + kAnswerMs;
    const int nSize = static_cast<int>(jpeg.bytes.size());
    KString head;
    head.Sprintf("--picture\r\nContent-Type: image/jpeg\r\nContent-Length: %d\r\n\r\n", nSize);
    return m_Connection.Write(head, nDeadline) &&
           m_Connection.Write(reinterpret_cast<const char*>(jpeg.bytes.data()), nSize, nDeadline) &&
           m_Connection.Write("\r\n", nDeadline);
}

// ----------------------------------------------------------------------------------------------------------- The server

HttpServer::HttpServer(const Settings& settings, const Site& site)
    : m_Settings(settings), m_Counters(site.counters), m_nPort(settings.nPort), m_fgTold(false), m_Doorkeeper(site) {
    for (int i = 0; i < settings.nClients; ++i) {
        m_Clients.push_back(std::make_unique<HttpClient>(site));
    }
}

HttpServer::~HttpServer() {
    Stop();
    m_Listener.DeleteSocket();
    // All threads are asked to end before the first one is waited for.
    for (const auto& pClient : m_Clients) {
        if (pClient->IsBusy()) {
            pClient->SetStatus(STOPPING);
        }
    }
}

bool HttpServer::Listen() {
    KNetInfo here(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "", m_nPort);
    m_Listener.SetConnectionInfo(here, 0);
    if (!m_Listener.CreateSocket() || !m_Listener.Bind()) {
        return false;
    }
    // KNet does not tell which port the system chose.
    sockaddr_in address = {};
    socklen_t nSize = sizeof(address);
    getsockname(m_Listener.GetSocket(), reinterpret_cast<sockaddr*>(&address), &nSize);
    m_nPort = ntohs(address.sin_port);
    return true;
}

int HttpServer::ThreadMainLoop() {
    while (IsRunning()) {
        // An accept that fails, for lack of descriptors say, closes the listening socket: it is made anew.
        if (m_Listener.GetSocket() < 0 && !Listen()) {
            Tell("it cannot be listened at; trying again");
            Sleep(kLookMs);
            continue;
        }
        // KNet::Accept() waits for as long as it takes; whether someone is there is asked first.
        pollfd poller = {m_Listener.GetSocket(), POLLIN, 0};
        if (poll(&poller, 1, kLookMs) > 0) {
            AcceptOne();
        }
    }
    return 0;
}

void HttpServer::AcceptOne() {
    const auto ppFree =
        std::find_if(m_Clients.begin(), m_Clients.end(), [](const auto& pClient) { return !pClient->IsBusy(); });
    if (ppFree == m_Clients.end()) {
        ++m_Counters.nRefused;
    }
    const bool fgAccepted = ppFree != m_Clients.end() ? (*ppFree)->Serve(m_Listener, m_Settings.fgLocalOnly)
                                                      : m_Doorkeeper.Refuse(m_Listener);
    if (fgAccepted) {
        m_fgTold = false;
    } else {
        Tell("a client was not accepted; listening anew");
        Sleep(kLookMs);
    }
}

/// Tells of the first of several failures: without descriptors there are five a second.
void HttpServer::Tell(const char* pszWhat) {
    if (!m_fgTold) {
        KDebug::Error("port %d: %s", GetPort(), pszWhat);
    }
    m_fgTold = true;
}

}  // namespace camera
