#include "client/socket/orderly_close.hpp"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace mqtt {

OrderlyClose::OrderlyClose(int fd) : fd_(fd < 0 ? -1 : ::fcntl(fd, F_DUPFD_CLOEXEC, 0)) {}

OrderlyClose::~OrderlyClose() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void OrderlyClose::waitForPeer(std::chrono::steady_clock::time_point deadline) const {
    if (fd_ < 0) {
        return;
    }
    ::shutdown(fd_, SHUT_WR);
    std::array<char, 16384> dropped{};
    for (;;) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return;
        }
        pollfd readable{fd_, POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(left.count())) <= 0 && errno != EINTR) {
            return;
        }
        auto const count = ::recv(fd_, dropped.data(), dropped.size(), MSG_DONTWAIT);
        if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
            return;
        }
    }
}

void waitForOutput(int fd) {
    pollfd writable{fd, POLLOUT, 0};
    ::poll(&writable, 1, 100);
}

bool isShutDown(int fd) {
    return ::send(fd, "", 0, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 && errno == EPIPE;
}

void replaceByEndOfInput(int fd) {
    std::array<int, 2> sockets{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0) {
        ::close(sockets[1]);
        ::dup3(sockets[0], fd, O_CLOEXEC);
        ::close(sockets[0]);
    }
}

} // namespace mqtt
