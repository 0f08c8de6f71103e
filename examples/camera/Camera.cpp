#include "Camera.h"

#include <KDebug.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "Clock.h"
#include "Command.h"
#include "Guard.h"
#include "Json.h"

namespace camera {

namespace {

constexpr int kFramesQueue = 0;  // places in the process's table of queues
constexpr int kJpegsQueue = 1;
constexpr int kFramesWaiting = 4;
constexpr int kJpegsWaiting = 12;

/// Copies a text into a place in the record, cut to what fits.
template <std::size_t nSize>
void Put(const KString& text, char (&place)[nSize]) {
    std::strncpy(place, text.GetBuffer(), nSize - 1);
    place[nSize - 1] = '\0';
}

/// How many a second there were, in tenths.
std::uint32_t RateInTenths(std::uint32_t nNow, std::uint32_t nBefore, long long nMs) {
    return nMs > 0 ? static_cast<std::uint32_t>((nNow - nBefore) * 10000LL / nMs) : 0;
}

}  // namespace

Camera::Camera(const Settings& settings)
    : m_Settings(settings),
      m_nStarted(NowMs()),
      m_Record(),
      m_nLastTick(m_nStarted),
      m_Status(settings.nChannel),
      m_Recorder(settings.directory, settings.nSegmentSeconds, 1024LL * settings.nLimitKilobytes),
      m_Server(m_Settings, Site{m_Broadcaster, m_Counters, [this] { return StatusJson(); }}),
      m_Control(m_Settings, [this](const KString& text) { return Answer(text); }) {}

bool Camera::Start() {
    int nOwner = 0;
    if (!m_Status.Serve(nOwner)) {
        KDebug::Error("channel %d %s (process %d); set another Control/Channel", m_Settings.nChannel,
                      nOwner != 0 ? "belongs to another camera" : "cannot be made", nOwner);
        return false;
    }
    KString reason;
    if (!m_Encoder.Load(m_Settings, reason)) {
        KDebug::Error("encoder plug-in \"%s\": %s", m_Settings.plugin.GetBuffer(), reason.GetBuffer());
        return false;
    }
    if (!m_Server.Listen()) {
        KDebug::Error("port %d is in use, or not for this user", m_Settings.nPort);
        return false;
    }
    if (!m_Control.Serve()) {
        KDebug::Error("control socket %s_%d cannot be made", m_Settings.socket.GetBuffer(), m_Settings.nChannel);
        return false;
    }
    const unsigned int nFrameSize = static_cast<unsigned int>(m_Settings.nWidth * m_Settings.nHeight * 3);
    m_pFrames = std::make_unique<FrameQueue>(kFramesQueue, kFramesWaiting, nFrameSize);
    if (m_Settings.fgRecord) {
        m_Recorder.Open();
        m_pJpegs = std::make_unique<FrameQueue>(kJpegsQueue, kJpegsWaiting, m_Encoder.Bound());
        m_pRecording = std::make_unique<Recording>(*m_pJpegs, m_Recorder);
        m_pRecording->Start(0, KThread::NORMAL, -1, nullptr);
    }
    m_pEncoding =
        std::make_unique<Encoding>(m_Settings, m_Encoder, *m_pFrames, m_pJpegs.get(), m_Broadcaster, m_Counters);
    m_pEncoding->Start(0, KThread::NORMAL, -1, nullptr);
    m_pSource = std::make_unique<Source>(m_Settings, *m_pFrames, m_Counters);
    m_pSource->Start(0, KThread::NORMAL, -1, nullptr);
    m_Server.Start(0, KThread::NORMAL, -1, nullptr);
    Announce(event::kConfigurationRead, m_Settings.name);
    Tick();
    return true;
}

void Camera::Tick() {
    m_Control.Tick();
    const long long nNow = NowMs();
    StatusRecord record = MakeRecord();
    {
        const Guard guard(m_Mutex);
        record.nFramesTenths = RateInTenths(record.nFrames, m_Record.nFrames, nNow - m_nLastTick);
        record.nDropsTenths = RateInTenths(record.nDropped, m_Record.nDropped, nNow - m_nLastTick);
        m_Record = record;
    }
    m_nLastTick = nNow;
    m_Status.Publish(record);
}

StatusRecord Camera::MakeRecord() const {
    StatusRecord record = {};
    record.nMagic = kStatusMagic;
    record.nVersion = kStatusVersion;
    record.nProcess = getpid();
    record.nUptime = static_cast<std::uint32_t>((NowMs() - m_nStarted) / 1000);
    record.nFrames = m_Counters.nFrames;
    record.nDropped = m_Counters.nDropped;
    record.nNotRecorded = m_Counters.nNotRecorded;
    record.nSkipped = m_Counters.nSkipped;
    record.nJoined = m_Counters.nJoined;
    record.nRefused = m_Counters.nRefused;
    record.nCommands = m_Counters.nCommands;
    record.nClients = m_Counters.nClients;
    record.nQueued = m_pFrames->GetDepth() + (m_pJpegs != nullptr ? m_pJpegs->GetDepth() : 0);
    record.nSegments = m_Recorder.GetSegmentCount();
    record.nRecordedKilobytes = static_cast<std::uint32_t>(m_Recorder.GetSize() / 1024);
    record.nPort = m_Server.GetPort();
    record.nLogLevel = __atomic_load_n(&g_eDebugLevel, __ATOMIC_RELAXED);
    record.fgMotion = m_Counters.fgMotion ? 1 : 0;
    record.fgRecording = m_Settings.fgRecord ? 1 : 0;
    record.fgPaused = m_Recorder.IsPaused() ? 1 : 0;
    Put(m_Settings.name, record.szName);
    const std::deque<Event> events = m_Events.Last();
    if (!events.empty()) {
        Put(events.front().name + ": " + events.front().text.GetBuffer(), record.szLastEvent);
    }
    return record;
}

// -------------------------------------------------------------------------------------------------------------- Commands

KString Camera::Answer(const KString& text) {
    Command command;
    KString answer;
    if (!ParseCommand(text, command)) {
        return "error: no such command";
    }
    switch (command.eVerb) {
        case Command::SNAPSHOT:
            answer = SaveSnapshot();
            break;
        case Command::ROTATE:
            answer = m_Recorder.Rotate() ? "ok" : "error: nothing is being recorded";
            break;
        case Command::LOG_LEVEL:
            // A plain global that every thread reads: an atomic store is what the library's own reads go with.
            __atomic_store_n(&g_eDebugLevel, command.nLevel, __ATOMIC_RELAXED);
            answer = "ok";
            break;
        case Command::STOP:
            // The one way out: main() waits for this signal.
            kill(getpid(), SIGTERM);
            answer = "ok";
            break;
    }
    ++m_Counters.nCommands;
    return answer;
}

KString Camera::SaveSnapshot() {
    const JpegPointer jpeg = m_Broadcaster.Latest();
    if (jpeg == nullptr) {
        return "error: there is no picture yet";
    }
    const KString path = m_Recorder.Save(jpeg->bytes.data(), static_cast<unsigned int>(jpeg->bytes.size()));
    return path.Length() > 0 ? KString("ok ") + path : KString("error: the picture cannot be saved");
}

// ------------------------------------------------------------------------------------------------------- For the page

KString Camera::StatusJson() const {
    StatusRecord record;
    {
        const Guard guard(m_Mutex);
        record = m_Record;
    }
    KString json;
    json.Sprintf(
        "{\"uptime\":%u,\"fps\":%.1f,\"dropsPerSecond\":%.1f,\"frames\":%u,\"drops\":%u,\"notRecorded\":%u,"
        "\"skipped\":%u,\"clients\":%d,\"joined\":%u,\"refused\":%u,\"commands\":%u,\"framesQueued\":%d,"
        "\"picturesQueued\":%d,\"motion\":%s,\"recording\":\"%s\",\"segments\":%d,\"recordedKilobytes\":%u,",
        record.nUptime, record.nFramesTenths / 10.0, record.nDropsTenths / 10.0, m_Counters.nFrames.load(),
        record.nDropped, record.nNotRecorded, record.nSkipped, m_Counters.nClients.load(), record.nJoined,
        record.nRefused, record.nCommands, m_pFrames->GetDepth(), m_pJpegs != nullptr ? m_pJpegs->GetDepth() : 0,
        m_Counters.fgMotion ? "true" : "false",
        record.fgRecording == 0 ? "off"
        : record.fgPaused != 0  ? "paused"
                                : "on",
        record.nSegments, record.nRecordedKilobytes);
    json += "\"configuration\":{";
    KString comma;
    VisitSettings(m_Settings, [&](const char* pszKey, const KString& value) {
        json += comma + Quoted(pszKey) + ":" + Quoted(value).GetBuffer();
        comma = ",";
    });
    json += "},\"events\":[";
    comma = "";
    for (const Event& event : m_Events.Last()) {
        KString head;
        head.Sprintf("{\"number\":%u,\"time\":%d,\"name\":", event.nNumber, event.time.sec);
        json += comma + head + Quoted(event.name) + ",\"text\":" + Quoted(event.text) + "}";
        comma = ",";
    }
    json += "]}";
    return json;
}

}  // namespace camera
