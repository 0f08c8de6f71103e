// Hands the newest picture to any number of clients.
#ifndef CAMERA_BROADCASTER_H
#define CAMERA_BROADCASTER_H

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace camera {

/// An encoded picture. Everybody who shows it shares it, and the last one frees it.
struct Jpeg {
    unsigned int nNumber;  ///< From 1.
    std::vector<unsigned char> bytes;
};
using JpegPointer = std::shared_ptr<const Jpeg>;

/// One thread publishes pictures, others wait for newer ones. A client that is slow finds a newer picture when it comes
/// back and has lost those between: nobody ever waits for it.
///
/// Waiting for something to happen is what the library has no class for, and so the standard library's is used here.
class Broadcaster {
 public:
    void Publish(JpegPointer jpeg);

    /// Returns the newest picture, null before the first.
    JpegPointer Latest() const;

    /// Waits until there is a picture with a number above @p nNumber and returns it; null after @p nMilliseconds.
    JpegPointer WaitForNewer(unsigned int nNumber, int nMilliseconds) const;

 private:
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Published;
    JpegPointer m_Latest;
};

}  // namespace camera

#endif  // CAMERA_BROADCASTER_H
