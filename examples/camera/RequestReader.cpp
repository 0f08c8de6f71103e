#include "RequestReader.h"

#include "Clock.h"

namespace camera {

Arrival ReadRequest(Connection& connection, long long nDeadline, Request& request) {
    char head[kLargestHead];
    int nSize = 0;
    while (EndOfHead(head, static_cast<std::size_t>(nSize)) == 0) {
        if (nSize == kLargestHead) {
            return Arrival::TOO_LARGE;
        }
        const int nCame = connection.Read(head + nSize, kLargestHead - nSize, nDeadline);
        if (nCame <= 0) {
            return NowMs() >= nDeadline ? Arrival::LATE : Arrival::GONE;
        }
        nSize += nCame;
    }
    return ParseRequest(head, static_cast<std::size_t>(nSize), request) ? Arrival::REQUEST : Arrival::NONSENSE;
}

}  // namespace camera
