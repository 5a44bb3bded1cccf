#include "support/cut_proxy.hpp"

#include "support/socket.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace support {

namespace {

enum class Outcome { FORWARDED, NO_ROOM, NOTHING_THERE, ENDED, BROKEN };

/// @param count in: at most; out: bytes that were forwarded. It takes only what the other side has
///        room for: nothing is kept in between, and a slow reader slows down the writer as without
///        a proxy.
Outcome forwardBytes(FileDescriptor const& from, FileDescriptor const& to, std::size_t& count) {
    std::array<char, 16384> bytes;
    auto const tryAgain = [] { return errno == EAGAIN || errno == EINTR; };
    std::size_t const limit = std::min(std::exchange(count, 0), bytes.size());
    ssize_t const there = ::recv(from.get(), bytes.data(), limit, MSG_PEEK);
    if (there <= 0) {
        return there == 0 ? Outcome::ENDED : tryAgain() ? Outcome::NOTHING_THERE : Outcome::BROKEN;
    }
    ssize_t const sent =
        ::send(to.get(), bytes.data(), static_cast<std::size_t>(there), MSG_NOSIGNAL);
    if (sent < 0) {
        return tryAgain() ? Outcome::NO_ROOM : Outcome::BROKEN;
    }
    count = static_cast<std::size_t>(sent);
    ::recv(from.get(), bytes.data(), count, 0);
    return Outcome::FORWARDED;
}

} // namespace

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
        resetConnection(connection.client);
        resetConnection(connection.server);
    }
    open_.clear();
    thread_.wake();
}

void CutProxy::setFrozen(bool frozen) {
    std::lock_guard<std::mutex> lock(mutex_);
    frozen_ = frozen;
    thread_.wake();
}

std::array<CutProxy::Stream, 2> CutProxy::Connection::streams() {
    return {{{Direction::TO_SERVER, client, server, blocked[0]},
             {Direction::TO_CLIENT, server, client, blocked[1]}}};
}

std::vector<pollfd> CutProxy::sockets() {
    std::vector<pollfd> sockets{{listener_.get(), POLLIN, 0}};
    for (std::size_t i = 0; i < open_.size() && !frozen_; ++i) {
        for (Stream const& stream : open_[i].streams()) {
            sockets.push_back(stream.blocked ? pollfd{stream.to.get(), POLLOUT, 0}
                                             : pollfd{stream.from.get(), POLLIN, 0});
        }
    }
    return sockets;
}

void CutProxy::serve() {
    acceptAll();
    for (std::size_t i = 0; i < open_.size() && !frozen_; ++i) {
        cutIfDue(open_[i]);
        for (Stream const& stream : open_[i].streams()) {
            forward(open_[i], stream);
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

void CutProxy::forward(Connection& connection, Stream const& stream) {
    if (!stream.from.valid()) {
        return;
    }
    bool const limited = connection.cut && connection.cut->direction == stream.direction;
    std::size_t count = limited ? connection.cut->bytes : SIZE_MAX;
    Outcome const outcome = forwardBytes(stream.from, stream.to, count);
    stream.blocked = outcome == Outcome::NO_ROOM;
    if (limited) {
        connection.cut->bytes -= count;
        cutIfDue(connection);
    }
    if (outcome == Outcome::ENDED) {
        connection.client.reset();
        connection.server.reset();
    } else if (outcome == Outcome::BROKEN) {
        resetConnection(connection.client);
        resetConnection(connection.server);
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
