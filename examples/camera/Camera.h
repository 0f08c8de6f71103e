// The camera: its parts, how they are started and stopped, and what they say to the outside.
#ifndef CAMERA_CAMERA_H
#define CAMERA_CAMERA_H

#include <KString.h>
#include <KThread.h>

#include <memory>

#include "Broadcaster.h"
#include "Control.h"
#include "EncoderPlugin.h"
#include "Events.h"
#include "FrameQueue.h"
#include "HttpServer.h"
#include "Pipeline.h"
#include "Recorder.h"
#include "Settings.h"
#include "Status.h"

namespace camera {

class Camera {
 public:
    explicit Camera(const Settings& settings);
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    /// Starts everything. Returns false, after one line in the log, when the camera cannot work: without its channel, its
    /// plug-in, its port or its control channel. Without its directory it works, and does not record.
    bool Start();

    /// Measures rates and publishes the state. Call it once a second.
    void Tick();

    int GetPort() const { return m_Server.GetPort(); }

 private:
    KString Answer(const KString& text);
    KString SaveSnapshot();
    KString StatusJson() const;
    StatusRecord MakeRecord() const;

    // In the order in which they are made. They go in the opposite order: the control channel and the clients first, each
    // thread before what it uses, and what others find the camera by when all of it has come to rest.
    const Settings m_Settings;
    const long long m_nStarted;
    Counters m_Counters;
    KMutex m_Mutex;  ///< For the record, which the clients' threads read.
    StatusRecord m_Record;
    long long m_nLastTick;
    EventLog m_Events;
    StatusChannel m_Status;
    EncoderPlugin m_Encoder;
    Recorder m_Recorder;
    Broadcaster m_Broadcaster;
    std::unique_ptr<FrameQueue> m_pFrames;
    std::unique_ptr<FrameQueue> m_pJpegs;
    std::unique_ptr<Recording> m_pRecording;
    std::unique_ptr<Encoding> m_pEncoding;
    std::unique_ptr<Source> m_pSource;
    HttpServer m_Server;
    Control m_Control;
};

}  // namespace camera

#endif  // CAMERA_CAMERA_H
