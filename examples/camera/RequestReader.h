// Takes a client's request off its connection.
#ifndef CAMERA_REQUESTREADER_H
#define CAMERA_REQUESTREADER_H

#include "Connection.h"
#include "Request.h"

namespace camera {

/// The longest head of a request that is read, in bytes.
constexpr int kLargestHead = 8192;

/// What came of reading a request.
enum class Arrival {
    REQUEST,    ///< One that can be answered.
    NONSENSE,   ///< A whole head that is no request.
    TOO_LARGE,  ///< No end of the head within the longest that is read.
    LATE,       ///< No end of it before the deadline.
    GONE        ///< The client left before the end, or the owner stops.
};

/// Reads up to the empty line behind the head, in whatever pieces it comes. Without a request @p request is unchanged.
Arrival ReadRequest(Connection& connection, long long nDeadline, Request& request);

}  // namespace camera

#endif  // CAMERA_REQUESTREADER_H
