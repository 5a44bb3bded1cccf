#include "support/cut_proxy.hpp"

#include "support/socket.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace support {

CutProxy::CutProxy(int serverPort)
    : serverPort_(serverPort),
      listener_(listenOn(lease_.port(), 64)),
      thread_(
          mutex_, [this] { return sockets(); }, [this] { serve(); }) {}

void CutProxy::cutCurrentAfter(Direction direction, std::size_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open_.empty()) {
        open_.back().cut = Cut{direction, bytes};
    }
    thread_.wake();
}

void CutProxy::cutNow() {
    std::lock_guard<std::mutex> lock(mutex_);
    cuts_ += static_cast<int>(open_.size());
    for (Connection& connection : open_) {
        connection.reset();
    }
    open_.clear();
    thread_.wake();
}

void CutProxy::setFrozen(bool frozen) {
    std::lock_guard<std::mutex> lock(mutex_);
    frozen_ = frozen;
    thread_.wake();
}

void CutProxy::Connection::reset() {
    resetConnection(client);
    resetConnection(server);
}

std::vector<pollfd> CutProxy::sockets() {
    std::vector<pollfd> sockets{{listener_.get(), POLLIN, 0}};
    for (std::size_t i = 0; i < open_.size() && !frozen_; ++i) {
        for (Direction const direction : DIRECTIONS) {
            bool const blocked = open_[i].blocked[static_cast<std::size_t>(direction)];
            sockets.push_back(blocked ? pollfd{open_[i].to(direction).get(), POLLOUT, 0}
                                      : pollfd{open_[i].from(direction).get(), POLLIN, 0});
        }
    }
    return sockets;
}

void CutProxy::serve() {
    acceptAll();
    for (std::size_t i = 0; i < open_.size() && !frozen_; ++i) {
        cutIfDue(open_[i]);
        for (Direction const direction : DIRECTIONS) {
            forward(open_[i], direction);
            cutIfDue(open_[i]);
        }
    }
    auto const closed = [](Connection const& connection) { return !connection.client.valid(); };
    open_.erase(std::remove_if(open_.begin(), open_.end(), closed), open_.end());
}

void CutProxy::acceptAll() {
    for (;;) {
        Connection connection;
        connection.client = acceptFrom(listener_);
        if (!connection.client.valid()) {
            return;
        }
        connections_.change([](int& count) { ++count; });
        connection.server = startConnecting(serverPort_);
        if (!connection.server.valid()) {
            resetConnection(connection.client);
            continue;
        }
        if (!orders_.empty()) {
            connection.cut = orders_.front();
            orders_.pop_front();
        }
        open_.push_back(std::move(connection));
    }
}

/// Takes only what the other side has room for: nothing is kept in between, and a slow reader slows
/// down the writer as without a proxy.
void CutProxy::forward(Connection& connection, Direction direction) {
    int const from = connection.from(direction).get();
    int const to = connection.to(direction).get();
    std::array<char, 16384> bytes;
    bool const limited = connection.cut && connection.cut->direction == direction;
    std::size_t const limit =
        limited ? std::min(connection.cut->bytes, bytes.size()) : bytes.size();
    ssize_t const there = ::recv(from, bytes.data(), limit, MSG_PEEK);
    ssize_t const sent =
        there > 0 ? ::send(to, bytes.data(), static_cast<std::size_t>(there), MSG_NOSIGNAL) : there;
    bool const tryAgain = sent < 0 && (errno == EAGAIN || errno == EINTR);
    connection.blocked[static_cast<std::size_t>(direction)] = tryAgain && there > 0;
    if (sent > 0) {
        ::recv(from, bytes.data(), static_cast<std::size_t>(sent), 0);
        if (limited) {
            connection.cut->bytes -= static_cast<std::size_t>(sent);
        }
    } else if (sent == 0) {
        connection.client.reset();
        connection.server.reset();
    } else if (!tryAgain) {
        connection.reset();
    }
}

void CutProxy::cutIfDue(Connection& connection) {
    if (!connection.client.valid() || !connection.cut || connection.cut->bytes > 0) {
        return;
    }
    // A reset throws away what the kernel has not sent yet.
    eventually([&] { return unsentBytes(connection.client) == 0; }, std::chrono::seconds(5));
    // Counted first: a client that sees the reset finds it counted.
    ++cuts_;
    resetConnection(connection.client);
    connection.server.reset();
}

} // namespace support
