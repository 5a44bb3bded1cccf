#include "support/cut_proxy.hpp"

#include "support/socket.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace support {

namespace {

enum class Outcome { MOVED, NOTHING_THERE, NO_ROOM, ENDED, BROKEN };

struct Step {
    Outcome outcome;
    std::size_t bytes = 0;
};

bool again() {
    return errno == EAGAIN || errno == EINTR;
}

/// Looks at what there is and takes only what the other side has room for: nothing is ever
/// kept in between, and who reads slowly slows the other down as without a proxy.
Step move(FileDescriptor const& from, FileDescriptor const& to, std::size_t limit) {
    std::array<char, 16384> bytes;
    ssize_t const there = ::recv(from.get(), bytes.data(), std::min(limit, bytes.size()), MSG_PEEK);
    if (there == 0) {
        return {Outcome::ENDED};
    }
    if (there < 0) {
        return {again() ? Outcome::NOTHING_THERE : Outcome::BROKEN};
    }
    ssize_t const sent =
        ::send(to.get(), bytes.data(), static_cast<std::size_t>(there), MSG_NOSIGNAL);
    if (sent < 0) {
        return {again() ? Outcome::NO_ROOM : Outcome::BROKEN};
    }
    ::recv(from.get(), bytes.data(), static_cast<std::size_t>(sent), 0);
    return {Outcome::MOVED, static_cast<std::size_t>(sent)};
}

} // namespace

CutProxy::CutProxy(int serverPort)
    : serverPort_(serverPort),
      listener_(listenOn(lease_.port(), 64)),
      wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_([this] { serve(); }) {}

CutProxy::~CutProxy() {
    stop_ = true;
    wake();
    thread_.join();
}

void CutProxy::cutCurrentAfter(Direction direction, std::size_t bytes) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!connections_.empty()) {
            connections_.back()->cut = Cut{direction, bytes};
        }
    }
    wake();
}

void CutProxy::cutNextAfter(Direction direction, std::size_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    orders_.push_back({direction, bytes});
}

void CutProxy::cutNow() {
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.change([this](Seen& seen) { seen.cuts += static_cast<int>(connections_.size()); });
    for (auto const& connection : connections_) {
        resetConnection(connection->client);
        resetConnection(connection->server);
    }
    connections_.clear();
    wake();
}

void CutProxy::freeze() {
    std::lock_guard<std::mutex> lock(mutex_);
    frozen_ = true;
}

void CutProxy::thaw() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        frozen_ = false;
    }
    wake();
}

int CutProxy::connections() const {
    return seen_.read([](Seen const& seen) { return seen.connections; });
}

int CutProxy::cuts() const {
    return seen_.read([](Seen const& seen) { return seen.cuts; });
}

std::size_t CutProxy::bytes(Direction direction) const {
    return seen_.read([&](Seen const& seen) {
        return direction == Direction::TO_SERVER ? seen.toServer : seen.toClient;
    });
}

bool CutProxy::waitForConnections(int count, std::chrono::milliseconds deadline) const {
    return seen_.waitFor([&](Seen const& seen) { return seen.connections >= count; }, deadline);
}

bool CutProxy::waitForCuts(int count, std::chrono::milliseconds deadline) const {
    return seen_.waitFor([&](Seen const& seen) { return seen.cuts >= count; }, deadline);
}

bool CutProxy::waitForBytes(Direction direction, std::size_t count,
                            std::chrono::milliseconds deadline) const {
    auto const enough = [&](Seen const& seen) {
        return (direction == Direction::TO_SERVER ? seen.toServer : seen.toClient) >= count;
    };
    return seen_.waitFor(enough, deadline);
}

void CutProxy::wake() {
    eventfd_write(wakeUp_.get(), 1);
}

void CutProxy::serve() {
    while (!stop_) {
        waitForNews();
        std::lock_guard<std::mutex> lock(mutex_);
        acceptAll();
        for (auto const& connection : connections_) {
            if (!frozen_) {
                forward(*connection);
            }
        }
        auto const closed = [](auto const& connection) { return !connection->client.valid(); };
        connections_.erase(std::remove_if(connections_.begin(), connections_.end(), closed),
                           connections_.end());
    }
}

void CutProxy::waitForNews() {
    std::vector<pollfd> sockets{{wakeUp_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    auto const add = [&](FileDescriptor const& from, FileDescriptor const& to, bool blocked) {
        sockets.push_back(blocked ? pollfd{to.get(), POLLOUT, 0} : pollfd{from.get(), POLLIN, 0});
    };
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto const& connection : connections_) {
            if (!frozen_) {
                add(connection->client, connection->server, connection->blockedToServer);
                add(connection->server, connection->client, connection->blockedToClient);
            }
        }
    }
    ::poll(sockets.data(), sockets.size(), -1);
    eventfd_t count = 0;
    eventfd_read(wakeUp_.get(), &count);
}

void CutProxy::acceptAll() {
    for (;;) {
        auto connection = std::make_unique<Connection>();
        connection->client = acceptFrom(listener_);
        if (!connection->client.valid()) {
            return;
        }
        seen_.change([](Seen& seen) { ++seen.connections; });
        connection->server = startConnecting(serverPort_);
        if (!connection->server.valid()) {
            resetConnection(connection->client);
            continue;
        }
        sendAtOnce(connection->server);
        if (!orders_.empty()) {
            connection->cut = orders_.front();
            orders_.pop_front();
        }
        connections_.push_back(std::move(connection));
    }
}

void CutProxy::forward(Connection& connection) {
    cutIfDue(connection);
    forward(connection, Direction::TO_SERVER);
    forward(connection, Direction::TO_CLIENT);
}

void CutProxy::forward(Connection& connection, Direction direction) {
    bool const up = direction == Direction::TO_SERVER;
    FileDescriptor& from = up ? connection.client : connection.server;
    FileDescriptor& to = up ? connection.server : connection.client;
    if (!from.valid()) {
        return;
    }
    bool const limited = connection.cut && connection.cut->direction == direction;
    Step const step = move(from, to, limited ? connection.cut->bytes : SIZE_MAX);
    (up ? connection.blockedToServer : connection.blockedToClient) =
        step.outcome == Outcome::NO_ROOM;
    count(direction, step.bytes);
    if (limited) {
        connection.cut->bytes -= step.bytes;
        cutIfDue(connection);
    }
    if (step.outcome == Outcome::ENDED) {
        connection.client.reset();
        connection.server.reset();
    } else if (step.outcome == Outcome::BROKEN) {
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
    // Counted first: who sees the reset finds it counted.
    seen_.change([](Seen& seen) { ++seen.cuts; });
    resetConnection(connection.client);
    connection.server.reset();
}

void CutProxy::count(Direction direction, std::size_t bytes) {
    if (bytes > 0) {
        seen_.change([&](Seen& seen) {
            (direction == Direction::TO_SERVER ? seen.toServer : seen.toClient) += bytes;
        });
    }
}

} // namespace support
