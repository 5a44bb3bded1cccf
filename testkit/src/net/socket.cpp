#include "net/socket.hpp"

#include "mqtt/test/port_lease.hpp"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace mqtt::test {

namespace {

[[noreturn]] void fail(std::string const& operation) {
    throw std::system_error(errno, std::generic_category(), operation);
}

/// Calls `::bind` or `::connect`.
template <class Call>
bool callWithAddress(Call const& call, FileDescriptor const& socket, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return call(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

FileDescriptor tcpSocket(int flags = 0) {
    FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!socket.valid()) {
        fail("socket");
    }
    return socket;
}

void setOption(FileDescriptor const& socket, int level, int option) {
    int const on = 1;
    setsockopt(socket.get(), level, option, &on, sizeof on);
}

bool bindTo(FileDescriptor const& socket, int port) {
    setOption(socket, SOL_SOCKET, SO_REUSEADDR);
    return callWithAddress(::bind, socket, port);
}

} // namespace

bool canBind(int port) {
    return bindTo(tcpSocket(), port);
}

FileDescriptor listenOn(int port, int backlog) {
    FileDescriptor listener = tcpSocket(SOCK_NONBLOCK);
    if (!bindTo(listener, port) || listen(listener.get(), backlog) != 0) {
        fail("listen on port " + std::to_string(port));
    }
    return listener;
}

FileDescriptor connectTo(int port) {
    FileDescriptor socket = tcpSocket();
    return callWithAddress(::connect, socket, port) ? std::move(socket) : FileDescriptor();
}

FileDescriptor startConnecting(int port) {
    FileDescriptor socket = tcpSocket(SOCK_NONBLOCK);
    setOption(socket, IPPROTO_TCP, TCP_NODELAY);
    bool const started = callWithAddress(::connect, socket, port) || errno == EINPROGRESS;
    return started ? std::move(socket) : FileDescriptor();
}

FileDescriptor acceptFrom(FileDescriptor const& listener) {
    FileDescriptor socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    setOption(socket, IPPROTO_TCP, TCP_NODELAY);
    return socket;
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
    PortLease const lease;
    FileDescriptor const listener = listenOn(lease.port(), 1);
    near = connectTo(lease.port());
    pollfd incoming{listener.get(), POLLIN, 0};
    poll(&incoming, 1, -1);
    far = FileDescriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!near.valid() || !far.valid()) {
        fail("TCP connection over loopback");
    }
}

} // namespace mqtt::test
