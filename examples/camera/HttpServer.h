// Serves browsers: as much of HTTP as they need for a page, a picture and a stream.
#ifndef CAMERA_HTTPSERVER_H
#define CAMERA_HTTPSERVER_H

#include <KNet.h>
#include <KThread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "Broadcaster.h"
#include "Connection.h"
#include "Request.h"
#include "Settings.h"
#include "Status.h"

namespace camera {

/// What the server shows.
struct Site {
    const Broadcaster& broadcaster;
    Counters& counters;
    std::function<KString()> statusJson;  ///< Called from any client's thread.
};

/// One client and its thread: reads one request, answers it and closes. An answer to /stream.mjpg has no end.
class HttpClient : public KThread {
 public:
    explicit HttpClient(const Site& site) : m_Site(site), m_Connection(*this), m_fgBusy(false) {}
    ~HttpClient() override { Stop(); }

    /// Whether there is a client. The thread's status does not tell: a thread that was started is not yet running.
    bool IsBusy() const { return m_fgBusy; }

    /// Takes a client from a listening socket and starts the thread. False when that failed.
    bool Serve(KNet& listener, bool fgLocalOnly);

    /// Takes a client and sends it away.
    bool Refuse(KNet& listener);

    int ThreadMainLoop() override;

 private:
    void Answer();
    bool TakeRequest(Request& request);
    void SendText(const char* pszStatus, const char* pszType, const KString& text);
    void SendError(const char* pszStatus);
    void SendSnapshot();
    void SendStream();
    bool SendPart(const Jpeg& jpeg);

    const Site m_Site;
    Connection m_Connection;
    std::atomic<bool> m_fgBusy;
};

/// Listens, and hands each client to a thread of its own. When all threads are busy the client gets a 503 at once.
class HttpServer : public KThread {
 public:
    HttpServer(const Settings& settings, const Site& site);
    ~HttpServer() override;

    /// Listens at the configured port. Returns false when it is not to be had. Call it before Start().
    bool Listen();

    /// Returns the port, also where the system chose it.
    int GetPort() const { return m_nPort; }

    int ThreadMainLoop() override;

 private:
    void AcceptOne();
    void Tell(const char* pszWhat);

    const Settings& m_Settings;
    Counters& m_Counters;
    KNet m_Listener;
    std::atomic<int> m_nPort;  ///< Of a listener that is made anew, while others ask.
    bool m_fgTold;             ///< Of a failure; until a client is accepted the next ones are not told.
    std::vector<std::unique_ptr<HttpClient>> m_Clients;
    HttpClient m_Doorkeeper;  ///< Never started: refuses clients.
};

}  // namespace camera

#endif  // CAMERA_HTTPSERVER_H
