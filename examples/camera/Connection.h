// A client's socket, with time limits.
#ifndef CAMERA_CONNECTION_H
#define CAMERA_CONNECTION_H

#include <KNet.h>
#include <KThread.h>

namespace camera {

/// KNet waits for as long as it takes, or not at all. Here is what lies between: a wait that ends at a deadline, when the
/// thread that waits is told to stop, or when the client is gone. It needs the socket's descriptor, which KNet tells.
class Connection {
 public:
    /// The thread that reads and writes, and whose end ends every wait.
    explicit Connection(KThread& owner) : m_Owner(owner) {}

    /// Takes over a client from a listening socket. False when that failed; the listening socket is closed then.
    bool AcceptFrom(KNet& listener);

    /// Returns the client's address.
    const KString& GetPeer() const { return m_Net.GetConnectionInfo().GetAddress(); }

    /// Returns the descriptor, -1 when there is none.
    int GetSocket() const { return m_Net.GetSocket(); }

    /// Waits for bytes and takes what has come, at most @p nSize bytes. Returns their number; 0 after the deadline, at the
    /// end of the stream, and when the owner stops.
    int Read(char* pData, int nSize, long long nDeadline);

    /// Sends all bytes. Returns false after the deadline, when the client is gone, and when the owner stops.
    bool Write(const char* pData, int nSize, long long nDeadline);
    bool Write(const KString& text, long long nDeadline) { return Write(text.GetBuffer(), text.Length(), nDeadline); }

    /// Returns true when the client has closed its side. Bytes that came are thrown away.
    bool IsClosedByPeer();

    /// Sends a short answer without waiting for anything, and closes.
    void Refuse(const KString& answer);

    /// Says that nothing more will come, throws away what the client still sends for a second, and closes. To close with
    /// something unread, the body of a request that was refused say, would take the answer back.
    void Finish();

    /// Closes. A destructor that did this would be too late: the connection lives longer than the client.
    void Close() { m_Net.DeleteSocket(); }

 private:
    bool WaitFor(short nEvents, long long nDeadline);
    int Take(char* pData, int nSize);

    KThread& m_Owner;
    KNet m_Net;
};

}  // namespace camera

#endif  // CAMERA_CONNECTION_H
