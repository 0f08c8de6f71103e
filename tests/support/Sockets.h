// Sockets as the system has them.
#ifndef KALVOREN_TESTS_SOCKETS_H
#define KALVOREN_TESTS_SOCKETS_H

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace support {

/// The port that a socket is bound to.
inline int PortOf(int nSocket) {
    sockaddr_in address = {};
    socklen_t nSize = sizeof(address);
    EXPECT_EQ(getsockname(nSocket, reinterpret_cast<sockaddr*>(&address), &nSize), 0);
    return ntohs(address.sin_port);
}

/// Waits for what is on its way to a descriptor. Fails rather than wait for what will never come.
inline void AwaitInput(int nDescriptor) {
    constexpr int kPatience = 120 * 1000;
    pollfd poller = {nDescriptor, POLLIN, 0};
    EXPECT_EQ(poll(&poller, 1, kPatience), 1);
}

}  // namespace support

#endif  // KALVOREN_TESTS_SOCKETS_H
