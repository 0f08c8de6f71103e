#include "Connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "Clock.h"

namespace camera {

namespace {

constexpr int kLookMs = 100;  // from one look at the owner to the next

constexpr int kFinishMs = 1000;

/// The system sends this much ahead of a client: a few pictures. A slow client is then behind by these, not by seconds.
constexpr int kSendBuffer = 128 * 1024;

}  // namespace

bool Connection::AcceptFrom(KNet& listener) {
    if (!listener.Accept(m_Net)) {
        return false;
    }
    const int nSocket = m_Net.GetSocket();
    const int nYes = 1;
    fcntl(nSocket, F_SETFL, fcntl(nSocket, F_GETFL) | O_NONBLOCK);
    setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nYes, sizeof(nYes));
    setsockopt(nSocket, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
    return true;
}

bool Connection::WaitFor(short nEvents, long long nDeadline) {
    pollfd poller = {m_Net.GetSocket(), nEvents, 0};
    while (m_Owner.IsRunning()) {
        const long long nLeft = nDeadline - NowMs();
        if (poll(&poller, 1, static_cast<int>(std::max(0LL, std::min<long long>(nLeft, kLookMs)))) > 0) {
            return true;
        }
        if (nLeft <= 0) {
            return false;
        }
    }
    return false;
}

/// Takes what has come: the number of bytes, 0 for none and at the end of the stream.
int Connection::Take(char* pData, int nSize) {
    KString ignoredAddress;
    int nIgnoredPort = 0;
    return m_Net.ReadWithClientInfo(pData, nSize, ignoredAddress, nIgnoredPort, false);
}

int Connection::Read(char* pData, int nSize, long long nDeadline) {
    // KNet::Read() waits until the whole buffer is full, which the head of a request of unknown length never makes it.
    return WaitFor(POLLIN, nDeadline) ? Take(pData, nSize) : 0;
}

bool Connection::Write(const char* pData, int nSize, long long nDeadline) {
    // The socket does not block, so that KNet::Write() sends what the system takes and says how much that was.
    while (nSize > 0) {
        const int nSent = WaitFor(POLLOUT, nDeadline) ? m_Net.Write(pData, nSize) : -1;
        if (nSent <= 0) {
            return false;
        }
        pData += nSent;
        nSize -= nSent;
    }
    return true;
}

bool Connection::IsClosedByPeer() {
    pollfd poller = {m_Net.GetSocket(), POLLIN, 0};
    char ignored[512];
    return poll(&poller, 1, 0) > 0 && Take(ignored, sizeof(ignored)) == 0;
}

void Connection::Finish() {
    shutdown(m_Net.GetSocket(), SHUT_WR);
    char ignored[8192];
    const long long nDeadline = NowMs() + kFinishMs;
    while (NowMs() < nDeadline && Read(ignored, sizeof(ignored), nDeadline) > 0) {
    }
    Close();
}

void Connection::Refuse(const KString& answer) {
    // What has come is read first: closing a socket with something unread in it would take the answer back.
    char ignored[2048];
    Take(ignored, sizeof(ignored));
    m_Net.Write(answer.GetBuffer(), answer.Length());
    shutdown(m_Net.GetSocket(), SHUT_WR);
    Take(ignored, sizeof(ignored));
    Close();
}

}  // namespace camera
