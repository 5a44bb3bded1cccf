#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

namespace mqtt {

/// @return false if the socket is not a TCP socket
inline bool setTcpOption(int fd, int option, int value) {
    return ::setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value) == 0;
}

} // namespace mqtt
