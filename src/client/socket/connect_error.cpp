#include "client/socket/connect_error.hpp"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace mqtt {

namespace {

/// @param fd a socket that is being connected
int resultOf(int fd, std::chrono::milliseconds timeout) {
    pollfd connected{fd, POLLOUT, 0};
    if (::poll(&connected, 1, static_cast<int>(timeout.count())) <= 0) {
        return ETIMEDOUT;
    }
    int error = 0;
    socklen_t length = sizeof error;
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

int connectError(sockaddr const& address, socklen_t length, std::chrono::milliseconds timeout) {
    int const fd = ::socket(address.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int error = errno;
    if (fd >= 0) {
        error = ::connect(fd, &address, length) == 0 ? 0 : errno;
        if (error == EINPROGRESS) {
            error = resultOf(fd, timeout);
        }
        ::close(fd);
    }
    return error == 0 ? ECONNREFUSED : error;
}

int unixConnectError(char const* path, std::chrono::milliseconds timeout) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return connectError(reinterpret_cast<sockaddr const&>(address), sizeof address, timeout);
}

} // namespace

int connectError(char const* host, int port, std::chrono::milliseconds timeout) {
    if (port == 0) {
        return unixConnectError(host, timeout);
    }
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host, std::to_string(port).c_str(), &wanted, &found) != 0) {
        return EHOSTUNREACH;
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> const addresses(found, ::freeaddrinfo);
    // The library reports the last address, when connecting to all of them has failed.
    while (found->ai_next != nullptr) {
        found = found->ai_next;
    }
    return connectError(*found->ai_addr, found->ai_addrlen, timeout);
}

} // namespace mqtt
