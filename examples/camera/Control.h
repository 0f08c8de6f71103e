// The control channel: commands over a local socket.
#ifndef CAMERA_CONTROL_H
#define CAMERA_CONTROL_H

#include <KIPC.h>
#include <KThread.h>

#include <atomic>
#include <functional>

#include "Settings.h"

namespace camera {

/// Accepts clients one after the other: each sends a record with a command, gets one with the answer, and is closed.
///
/// A KIPC waits for clients and records without a time limit, and does not tell its descriptor, so that one cannot ask
/// first. What ends such a wait is KThread::ForceStop(), which cancels the thread. So that this never happens in the middle
/// of a command, the thread can be cancelled while it waits and at no other time.
class Control : public KThread {
 public:
    /// Answers a command, on the channel's thread.
    using Answerer = std::function<KString(const KString& command)>;

    Control(const Settings& settings, const Answerer& answerer);
    ~Control() override;

    /// Makes the socket file and starts the thread. Returns false when the file cannot be made.
    bool Serve();

    /// Sends a client away that has said nothing for two seconds. Call it from time to time.
    void Tick();

    int ThreadMainLoop() override;

 private:
    void End();

    const Answerer m_Answerer;
    KPath m_File;
    KIPC m_Listener;
    KIPC m_Peer;  ///< Used for all clients: the record of a KIPC is never freed, so that one for each would pile up.
    bool m_fgStarted;
    std::atomic<long long> m_nWaitingSince;  ///< For the client's command; 0 while there is no client.
};

/// The other side: connects, sends a command and waits for the answer. Returns false when no camera is there.
bool SendCommand(const Settings& settings, const KString& command, KString& answer);

}  // namespace camera

#endif  // CAMERA_CONTROL_H
