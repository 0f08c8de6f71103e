#include "Control.h"

#include <KFile.h>
#include <pthread.h>

#include "Clock.h"
#include "Command.h"

namespace camera {

namespace {

constexpr int kSilenceMs = 2000;

/// Lets KThread::ForceStop() end this thread for the length of a block.
class ScopedCancellation {
 public:
    ScopedCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
    ~ScopedCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    ScopedCancellation(const ScopedCancellation&) = delete;
    ScopedCancellation& operator=(const ScopedCancellation&) = delete;
};

bool WaitForClient(KIPC& listener, KIPC& peer) {
    const ScopedCancellation cancellation;
    return listener.WaitForConnectToMe(peer);
}

bool WaitForCommand(KIPC& peer, KIPC::IPCData& record) {
    const ScopedCancellation cancellation;
    return peer.Read(record);
}

}  // namespace

Control::Control(const Settings& settings, const Answerer& answerer)
    : m_Answerer(answerer), m_fgStarted(false), m_nWaitingSince(0) {
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
    Start(0, NORMAL, -1, nullptr);
    m_fgStarted = true;
    return true;
}

void Control::Tick() {
    const long long nSince = m_nWaitingSince;
    if (nSince != 0 && NowMs() - nSince > kSilenceMs) {
        End();
        Serve();
    }
}

void Control::End() {
    if (m_fgStarted) {
        ForceStop();
        m_fgStarted = false;
    }
    m_Peer.Close();
    m_nWaitingSince = 0;
}

int Control::ThreadMainLoop() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    while (IsRunning()) {
        if (!WaitForClient(m_Listener, m_Peer)) {
            Sleep(kSilenceMs / 10);
            continue;
        }
        m_nWaitingSince = NowMs();
        KIPC::IPCData record;
        if (WaitForCommand(m_Peer, record)) {
            m_nWaitingSince = 0;
            m_Peer.Write(RecordOf(m_Answerer(TextOf(record))));
        }
        m_nWaitingSince = 0;
        m_Peer.Close();
    }
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
