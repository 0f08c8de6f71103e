#include "Control.h"

#include <KFile.h>
#include <signal.h>

#include "Clock.h"
#include "Command.h"

namespace camera {

namespace {

constexpr int kSilenceMs = 2000;
constexpr int kRetryMs = 100;
constexpr int kInterruptMs = 5;  // from one signal to the next

/// Makes SIGUSR1 a signal that does nothing but end waits.
void PrepareSignal() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // And no SA_RESTART, which would let the wait go on.
    sigaction(SIGUSR1, &action, nullptr);
}

}  // namespace

Control::Control(const Settings& settings, const Answerer& answerer)
    : m_Answerer(answerer), m_Thread(0), m_fgActive(false), m_nWaitingSince(0) {
    KString file;
    file.Sprintf("%s_%d", settings.socket.GetBuffer(), settings.nChannel);
    m_File = file;
    m_Listener.SetPath(KPath(settings.socket));
    m_Listener.SetIndex(settings.nChannel);
    // Closing objects of another type would act on shared memory, or close descriptor 0.
    m_Listener.SetType(KIPC::LOCAL_SOCKET);
    m_Peer.SetType(KIPC::LOCAL_SOCKET);
}

Control::~Control() {
    End();
    if (m_Listener.IsCreated()) {
        m_Listener.Close();
        KFile::Delete(m_File);  // Closing leaves the socket file behind.
    }
}

bool Control::Serve() {
    // Create() removes a socket file that is there, whoever listens at it: the camera has made sure before, by its channel
    // of shared memory, that nobody does.
    if (!m_Listener.Create(true, KIPC::LOCAL_SOCKET)) {
        m_Listener.Close();  // A socket that could not be bound stays open.
        return false;
    }
    PrepareSignal();
    m_fgActive = true;
    Start(0, NORMAL, -1, nullptr);
    return true;
}

void Control::Tick() {
    const long long nSince = m_nWaitingSince;
    if (nSince != 0 && NowMs() - nSince > kSilenceMs) {
        Interrupt();
    }
}

void Control::Interrupt() {
    const pthread_t thread = m_Thread;
    if (thread != 0) {
        pthread_kill(thread, SIGUSR1);
    }
}

void Control::End() {
    SetStatus(STOPPING);
    // A signal that comes just before the wait is lost on it, so there is another one until the thread has seen its status.
    while (m_fgActive) {
        Interrupt();
        Sleep(kInterruptMs);
    }
    Stop();
}

int Control::ThreadMainLoop() {
    m_Thread = pthread_self();
    while (IsRunning()) {
        if (!m_Listener.WaitForConnectToMe(m_Peer)) {
            Sleep(kRetryMs);
            continue;
        }
        m_nWaitingSince = NowMs();
        KIPC::IPCData record;
        const bool fgCame = m_Peer.Read(record);
        m_nWaitingSince = 0;
        if (fgCame) {
            m_Peer.Write(RecordOf(m_Answerer(TextOf(record))));
        }
        m_Peer.Close();
    }
    m_fgActive = false;
    return 0;
}

bool SendCommand(const Settings& settings, const KString& command, KString& answer) {
    // CreateClient(), not Create(), which would take the socket file away from the camera.
    KIPC client;
    client.SetType(KIPC::LOCAL_SOCKET);
    client.SetPath(KPath(settings.socket));
    client.SetIndex(settings.nChannel);
    KIPC::IPCData record;
    if (!client.CreateClient() || !client.ConnectToServer() || !client.Write(RecordOf(command)) ||
        !client.Read(record)) {
        return false;
    }
    answer = TextOf(record);
    return true;
}

}  // namespace camera
