#include "Pipeline.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "Clock.h"
#include "Events.h"

namespace camera {

namespace {

constexpr int kLookMs = 200;       // from one look for motion to the next
constexpr int kStillLooks = 5;     // without a change until motion is over
constexpr int kPollMs = 2;         // between two looks into an empty queue, which does not wait
constexpr int kLongestNapMs = 50;  // so that Stop() does not take long

}  // namespace

// ---------------------------------------------------------------------------------------------------------------- Source

Source::Source(const Settings& settings, FrameQueue& frames, Counters& counters)
    : m_Settings(settings),
      m_Card(settings.nWidth, settings.nHeight, settings.nRate),
      m_Frames(frames),
      m_Counters(counters) {}

int Source::ThreadMainLoop() {
    long long nBegan = NowMs();
    unsigned int nSinceThen = 0;
    for (unsigned int nFrame = 1; IsRunning();) {
        const long long nWait = nBegan + 1000LL * nSinceThen / m_Settings.nRate - NowMs();
        if (nWait > 0) {
            Sleep(static_cast<int>(std::min<long long>(nWait, kLongestNapMs)));
            continue;
        }
        if (nWait < -1000) {  // The machine stood still: do not make up for it.
            nBegan = NowMs();
            nSinceThen = 0;
        }
        DrawOne(nFrame);
        ++nFrame;
        ++nSinceThen;
    }
    return 0;
}

void Source::DrawOne(unsigned int nFrame) {
    KDynamicDataBuffer* const pBuffer = m_Frames.BeginWrite();
    if (pBuffer == nullptr) {
        ++m_Counters.nDropped;
        return;
    }
    const unsigned int nSize = static_cast<unsigned int>(m_Settings.nWidth * m_Settings.nHeight * 3);
    m_Card.Draw(nFrame, KTime::GetCurrentTime(), static_cast<unsigned char*>(pBuffer->LockWriteBuffer(nSize, 0)));
    pBuffer->SetDataSize(nSize);
    pBuffer->UnlockWriteBuffer();
    m_Frames.EndWrite(pBuffer);
}

// -------------------------------------------------------------------------------------------------------------- Encoding

Encoding::Encoding(const Settings& settings, const EncoderPlugin& encoder, FrameQueue& frames, FrameQueue* pJpegs,
                   Broadcaster& broadcaster, Counters& counters)
    : m_Encoder(encoder),
      m_Frames(frames),
      m_pJpegs(pJpegs),
      m_Broadcaster(broadcaster),
      m_Counters(counters),
      m_Motion(settings.nWidth, settings.nHeight, settings.nMotionThreshold),
      m_nNextLook(0),
      m_nStillLooks(0),
      m_Scratch(encoder.Bound()) {}

int Encoding::ThreadMainLoop() {
    while (IsRunning()) {
        KDynamicDataBuffer* const pBuffer = m_Frames.BeginRead();
        if (pBuffer == nullptr) {
            Sleep(kPollMs);
            continue;
        }
        const unsigned char* const pRgb = static_cast<const unsigned char*>(pBuffer->LockReadBuffer(0));
        LookForMotion(pRgb);
        Encode(pRgb);
        pBuffer->UnlockReadBuffer();
        m_Frames.EndRead(pBuffer);
    }
    return 0;
}

void Encoding::LookForMotion(const unsigned char* pRgb) {
    if (NowMs() < m_nNextLook) {
        return;
    }
    m_nNextLook = NowMs() + kLookMs;
    const int nChanged = m_Motion.Look(pRgb);
    if (nChanged > 0) {
        m_nStillLooks = 0;
        if (!m_Counters.fgMotion.exchange(true)) {
            KString text;
            text.Sprintf("%d of %d cells changed", nChanged, Motion::kColumns * Motion::kRows);
            Announce(event::kMotionBegan, text);
        }
    } else if (m_Counters.fgMotion && ++m_nStillLooks == kStillLooks) {
        m_Counters.fgMotion = false;
        Announce(event::kMotionEnded, "the picture is still");
    }
}

void Encoding::Encode(const unsigned char* pRgb) {
    const unsigned int nSize = m_Encoder.Encode(pRgb, m_Scratch.data());
    if (nSize == 0) {
        ++m_Counters.nDropped;
        return;
    }
    const auto jpeg = std::make_shared<const Jpeg>(
        Jpeg{++m_Counters.nFrames, std::vector<unsigned char>(m_Scratch.data(), m_Scratch.data() + nSize)});
    m_Broadcaster.Publish(jpeg);
    if (m_pJpegs != nullptr) {
        HandToRecorder(*jpeg);
    }
}

void Encoding::HandToRecorder(const Jpeg& jpeg) {
    const unsigned int nSize = static_cast<unsigned int>(jpeg.bytes.size());
    KDynamicDataBuffer* const pBuffer = m_pJpegs->BeginWrite();
    if (pBuffer == nullptr) {
        ++m_Counters.nNotRecorded;  // The disk is slow: the record has a gap, and no client notices.
        return;
    }
    std::memcpy(pBuffer->LockWriteBuffer(nSize, 0), jpeg.bytes.data(), nSize);
    pBuffer->SetDataSize(nSize);
    pBuffer->UnlockWriteBuffer();
    m_pJpegs->EndWrite(pBuffer);
}

// ------------------------------------------------------------------------------------------------------------- Recording

int Recording::ThreadMainLoop() {
    while (IsRunning()) {
        KDynamicDataBuffer* const pBuffer = m_Jpegs.BeginRead();
        if (pBuffer == nullptr) {
            Sleep(kPollMs);
            continue;
        }
        m_Recorder.Write(static_cast<const unsigned char*>(pBuffer->LockReadBuffer(0)), pBuffer->GetDataSize());
        pBuffer->UnlockReadBuffer();
        m_Jpegs.EndRead(pBuffer);
    }
    return 0;
}

}  // namespace camera
