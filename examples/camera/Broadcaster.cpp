#include "Broadcaster.h"

#include <chrono>
#include <utility>

namespace camera {

void Broadcaster::Publish(JpegPointer jpeg) {
    {
        // The picture before is let go of behind the lock: freeing it takes time.
        const std::lock_guard<std::mutex> lock(m_Mutex);
        std::swap(m_Latest, jpeg);
    }
    m_Published.notify_all();
}

JpegPointer Broadcaster::Latest() const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Latest;
}

JpegPointer Broadcaster::WaitForNewer(unsigned int nNumber, int nMilliseconds) const {
    std::unique_lock<std::mutex> lock(m_Mutex);
    const bool fgNewer = m_Published.wait_for(lock, std::chrono::milliseconds(nMilliseconds),
                                              [&] { return m_Latest != nullptr && m_Latest->nNumber > nNumber; });
    return fgNewer ? m_Latest : nullptr;
}

}  // namespace camera
