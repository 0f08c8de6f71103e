// A clock for durations: KTime follows the wall clock, which may be set.
#ifndef CAMERA_CLOCK_H
#define CAMERA_CLOCK_H

#include <chrono>

namespace camera {

/// Milliseconds since some moment in the past, never running backwards.
inline long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace camera

#endif  // CAMERA_CLOCK_H
