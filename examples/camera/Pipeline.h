// The way of a picture: source, encoder, recorder, each a thread, with a queue from each to the next.
#ifndef CAMERA_PIPELINE_H
#define CAMERA_PIPELINE_H

#include <KThread.h>

#include <vector>

#include "Broadcaster.h"
#include "EncoderPlugin.h"
#include "FrameQueue.h"
#include "Motion.h"
#include "Recorder.h"
#include "Settings.h"
#include "Status.h"
#include "TestCard.h"

namespace camera {

/// Draws pictures at the configured rate into the buffers of a queue. Where there is none left, the picture is dropped.
class Source : public KThread {
 public:
    Source(const Settings& settings, FrameQueue& frames, Counters& counters);
    ~Source() override { Stop(); }  // Before the members are gone that the loop uses.

    int ThreadMainLoop() override;

 private:
    void DrawOne(unsigned int nFrame);

    const Settings& m_Settings;
    const TestCard m_Card;
    FrameQueue& m_Frames;
    Counters& m_Counters;
};

/// Looks for motion, encodes each picture, hands it to the clients and on to the recorder, if there is a queue for that.
class Encoding : public KThread {
 public:
    Encoding(const Settings& settings, const EncoderPlugin& encoder, FrameQueue& frames, FrameQueue* pJpegs,
             Broadcaster& broadcaster, Counters& counters);
    ~Encoding() override { Stop(); }

    int ThreadMainLoop() override;

 private:
    void LookForMotion(const unsigned char* pRgb);
    void Encode(const unsigned char* pRgb);
    void HandToRecorder(const Jpeg& jpeg);

    const EncoderPlugin& m_Encoder;
    FrameQueue& m_Frames;
    FrameQueue* const m_pJpegs;
    Broadcaster& m_Broadcaster;
    Counters& m_Counters;
    Motion m_Motion;
    long long m_nNextLook;
    int m_nStillLooks;
    std::vector<unsigned char> m_Scratch;
};

/// Hands encoded pictures to the recorder, at the pace of the disk.
class Recording : public KThread {
 public:
    Recording(FrameQueue& jpegs, Recorder& recorder) : m_Jpegs(jpegs), m_Recorder(recorder) {}
    ~Recording() override { Stop(); }

    int ThreadMainLoop() override;

 private:
    FrameQueue& m_Jpegs;
    Recorder& m_Recorder;
};

}  // namespace camera

#endif  // CAMERA_PIPELINE_H
