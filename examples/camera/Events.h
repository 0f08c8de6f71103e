// What happens in the camera, announced by name to whoever registered for that name.
#ifndef CAMERA_EVENTS_H
#define CAMERA_EVENTS_H

#include <KMessage.h>
#include <KThread.h>
#include <KTime.h>

#include <deque>

namespace camera {

/// The names of the events.
namespace event {
constexpr char kConfigurationRead[] = "configuration.read";
constexpr char kClientJoined[] = "client.joined";
constexpr char kClientLeft[] = "client.left";
constexpr char kMotionBegan[] = "motion.began";
constexpr char kMotionEnded[] = "motion.ended";
constexpr char kSegmentClosed[] = "segment.closed";
constexpr char kSnapshotSaved[] = "snapshot.saved";
constexpr char kRecordingPaused[] = "recording.paused";
constexpr char kRecordingResumed[] = "recording.resumed";
}  // namespace event

/// Announces an event. May be called from any thread, but not by a handler.
void Announce(const char* pszName, const KString& text);

struct Event {
    unsigned int nNumber = 0;  ///< From 1.
    KTime time;
    KString name;
    KString text;
};

/// Hears every event, writes it into the log and remembers the last ones.
class EventLog : public KMessageHandler {
 public:
    static constexpr std::size_t kRemembered = 24;

    EventLog();
    virtual ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    int HandleMessage(const KMessage& message) override;

    /// Returns the last events, the newest first.
    std::deque<Event> Last() const;

 private:
    KMutex m_Mutex;
    std::deque<Event> m_Events;
};

}  // namespace camera

#endif  // CAMERA_EVENTS_H
