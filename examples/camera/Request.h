// Reads the head of an HTTP request.
#ifndef CAMERA_REQUEST_H
#define CAMERA_REQUEST_H

#include <KString.h>

#include <cstddef>

namespace camera {

struct Request {
    KString method;  ///< "GET"
    KString path;    ///< "/status.json", without what follows a question mark.
};

/// Where the head of a request ends: the number of bytes up to and with the empty line, 0 when that has not come yet.
std::size_t EndOfHead(const char* pData, std::size_t nSize);

/// Takes the head of a request apart. Returns false, with @p request unchanged, for anything that does not begin with a line
/// like "GET /path HTTP/1.1". The header lines behind it are not looked at: no page here depends on one.
bool ParseRequest(const char* pData, std::size_t nSize, Request& request);

}  // namespace camera

#endif  // CAMERA_REQUEST_H
