#include "support/socket.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace support {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

FileDescriptor tcpSocket(int flags = 0) {
    FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!socket.valid()) {
        throw std::system_error(errno, std::generic_category(), "socket");
    }
    return socket;
}

bool bindTo(FileDescriptor const& socket, int port) {
    int const on = 1;
    setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in const address = loopback(port);
    return bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

bool connectSocket(FileDescriptor const& socket, int port) {
    sockaddr_in const address = loopback(port);
    return connect(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

} // namespace

bool canBind(int port) {
    return bindTo(tcpSocket(), port);
}

FileDescriptor listenOn(int port, int backlog) {
    FileDescriptor listener = tcpSocket(SOCK_NONBLOCK);
    if (!bindTo(listener, port) || listen(listener.get(), backlog) != 0) {
        throw std::system_error(errno, std::generic_category(),
                                "listen on port " + std::to_string(port));
    }
    return listener;
}

FileDescriptor connectTo(int port) {
    FileDescriptor socket = tcpSocket();
    return connectSocket(socket, port) ? std::move(socket) : FileDescriptor();
}

FileDescriptor startConnecting(int port) {
    FileDescriptor socket = tcpSocket(SOCK_NONBLOCK);
    bool const started = connectSocket(socket, port) || errno == EINPROGRESS;
    return started ? std::move(socket) : FileDescriptor();
}

FileDescriptor acceptFrom(FileDescriptor const& listener) {
    FileDescriptor socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket.valid()) {
        sendAtOnce(socket);
    }
    return socket;
}

void sendAtOnce(FileDescriptor const& socket) {
    int const on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void resetConnection(FileDescriptor& socket) {
    linger const hard{1, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    socket.reset();
}

int unsentBytes(FileDescriptor const& socket) {
    int count = 0;
    ioctl(socket.get(), SIOCOUTQNSD, &count);
    return count;
}

int waitingConnections(FileDescriptor const& listener) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(listener.get(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "TCP_INFO");
    }
    return static_cast<int>(info.tcpi_unacked); // so used for a listening socket
}

bool sendAll(FileDescriptor const& socket, std::string const& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t const n =
            send(socket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n >= 0) {
            sent += static_cast<std::size_t>(n);
        } else if (errno == EAGAIN) {
            pollfd room{socket.get(), POLLOUT, 0};
            poll(&room, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

TcpPair::TcpPair() {
    FileDescriptor const listener = listenOn(0, 1); // on any port
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
    near = connectTo(ntohs(address.sin_port));
    pollfd incoming{listener.get(), POLLIN, 0};
    poll(&incoming, 1, -1);
    far = FileDescriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!near.valid() || !far.valid()) {
        throw std::system_error(errno, std::generic_category(), "TCP connection over loopback");
    }
}

} // namespace support
