// The control channel: commands over a local socket.
#ifndef CAMERA_CONTROL_H
#define CAMERA_CONTROL_H

#include <KIPC.h>
#include <KThread.h>
#include <pthread.h>

#include <atomic>
#include <functional>

#include "Settings.h"

namespace camera {

/// Accepts clients one after the other: each sends a record with a command, gets one with the answer, and is closed.
///
/// A KIPC waits for clients and records without a time limit, and does not tell its descriptor, so that one cannot ask
/// first. What ends such a wait is a signal to the thread, SIGUSR1, whose handler does nothing: the system's call fails, and
/// with it the operation. (KThread::ForceStop() would end it too, by cancelling the thread with all it holds.)
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
    void Interrupt();
    void End();

    const Answerer m_Answerer;
    KPath m_File;
    KIPC m_Listener;
    KIPC m_Peer;  ///< Used for all clients: the record of a KIPC is never freed, so that one for each would pile up.
    std::atomic<pthread_t> m_Thread;         ///< 0 before the thread's first step.
    std::atomic<bool> m_fgActive;            ///< From the start of the thread to its last step.
    std::atomic<long long> m_nWaitingSince;  ///< For the client's command; 0 while there is no client.
};

/// The other side: connects, sends a command and waits for the answer. Returns false when no camera is there.
bool SendCommand(const Settings& settings, const KString& command, KString& answer);

}  // namespace camera

#endif  // CAMERA_CONTROL_H
