#include "Events.h"

#include <KDebug.h>

#include "Guard.h"

namespace camera {

namespace {

constexpr const char* kNames[] = {event::kConfigurationRead, event::kClientJoined,    event::kClientLeft,
                                  event::kMotionBegan,       event::kMotionEnded,     event::kSegmentClosed,
                                  event::kSnapshotSaved,     event::kRecordingPaused, event::kRecordingResumed};

}  // namespace

void Announce(const char* pszName, const KString& text) {
    // A handler is not told under which name it was called, so the name goes along as the first text. There is no payload:
    // its memory would come from KMem, whose registry is for one thread.
    KString name(pszName);
    KString detail(text);
    KMessageHandler::SendMessage(name, KMessage(name, detail, nullptr, 0));
}

EventLog::EventLog() {
    for (const char* pszName : kNames) {
        KString name(pszName);
        Register(this, name);
    }
}

EventLog::~EventLog() {
    for (const char* pszName : kNames) {
        KString name(pszName);
        Unregister(this, name);
    }
}

int EventLog::HandleMessage(const KMessage& message) {
    // Called on the thread that announces, while the registry of handlers is locked: be quick, and announce nothing.
    KDebug::Debug("%s: %s", message.GetText1().GetBuffer(), message.GetText2().GetBuffer());
    Event event;
    event.time = KTime::GetCurrentTime();
    event.name = message.GetText1();
    event.text = message.GetText2();
    const Guard guard(m_Mutex);
    event.nNumber = m_Events.empty() ? 1 : m_Events.front().nNumber + 1;
    m_Events.push_front(event);
    if (m_Events.size() > kRemembered) {
        m_Events.pop_back();
    }
    return 0;
}

std::deque<Event> EventLog::Last() const {
    const Guard guard(m_Mutex);
    return m_Events;
}

}  // namespace camera
