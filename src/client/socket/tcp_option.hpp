#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

namespace mqtt {

/// False for what is no TCP socket.
inline bool setTcpOption(int fd, int option, int value) {
    return ::setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value) == 0;
}

} // namespace mqtt
