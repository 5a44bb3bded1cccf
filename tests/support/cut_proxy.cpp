#include "support/cut_proxy.hpp"

#include "support/socket.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace support {

namespace {

enum class Outcome { MOVED, NOTHING_THERE, NO_ROOM, ENDED, BROKEN };

struct Step {
    Outcome outcome;
    std::size_t bytes = 0;
};

bool tryAgain() {
    return errno == EAGAIN || errno == EINTR;
}

/// Takes only what the other side has room for: nothing is kept in between, and a slow reader
/// slows down the writer as without a proxy.
Step move(FileDescriptor const& from, FileDescriptor const& to, std::size_t limit) {
    std::array<char, 16384> bytes;
    ssize_t const there = ::recv(from.get(), bytes.data(), std::min(limit, bytes.size()), MSG_PEEK);
    if (there == 0) {
        return {Outcome::ENDED};
    }
    if (there < 0) {
        return {tryAgain() ? Outcome::NOTHING_THERE : Outcome::BROKEN};
    }
    ssize_t const sent =
        ::send(to.get(), bytes.data(), static_cast<std::size_t>(there), MSG_NOSIGNAL);
    if (sent < 0) {
        return {tryAgain() ? Outcome::NO_ROOM : Outcome::BROKEN};
    }
    ::recv(from.get(), bytes.data(), static_cast<std::size_t>(sent), 0);
    return {Outcome::MOVED, static_cast<std::size_t>(sent)};
}

void increment(Watched<int>& counter, int by = 1) {
    counter.change([by](int& count) { count += by; });
}

} // namespace

CutProxy::CutProxy(int serverPort)
    : serverPort_(serverPort),
      listener_(listenOn(lease_.port(), 64)),
      wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_([this] { serve(); }) {}

CutProxy::~CutProxy() {
    stop_ = true;
    eventfd_write(wakeUp_.get(), 1);
    thread_.join();
}

void CutProxy::cutCurrentAfter(Direction direction, std::size_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open_.empty()) {
        open_.back()->cut = Cut{direction, bytes};
    }
    eventfd_write(wakeUp_.get(), 1);
}

void CutProxy::cutNow() {
    std::lock_guard<std::mutex> lock(mutex_);
    increment(cuts_, static_cast<int>(open_.size()));
    for (auto const& connection : open_) {
        resetConnection(connection->client);
        resetConnection(connection->server);
    }
    open_.clear();
    eventfd_write(wakeUp_.get(), 1);
}

void CutProxy::setFrozen(bool frozen) {
    std::lock_guard<std::mutex> lock(mutex_);
    frozen_ = frozen;
    eventfd_write(wakeUp_.get(), 1);
}

void CutProxy::serve() {
    while (!stop_) {
        waitForEvents();
        std::lock_guard<std::mutex> lock(mutex_);
        acceptAll();
        for (auto const& connection : open_) {
            if (!frozen_) {
                cutIfDue(*connection);
                forward(*connection, Direction::TO_SERVER);
                forward(*connection, Direction::TO_CLIENT);
            }
        }
        auto const closed = [](auto const& connection) { return !connection->client.valid(); };
        open_.erase(std::remove_if(open_.begin(), open_.end(), closed), open_.end());
    }
}

void CutProxy::waitForEvents() {
    std::vector<pollfd> sockets{{wakeUp_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    auto const add = [&](FileDescriptor const& from, FileDescriptor const& to, bool blocked) {
        sockets.push_back(blocked ? pollfd{to.get(), POLLOUT, 0} : pollfd{from.get(), POLLIN, 0});
    };
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto const& connection : open_) {
            if (!frozen_) {
                add(connection->client, connection->server, connection->blocked[0]);
                add(connection->server, connection->client, connection->blocked[1]);
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
        increment(connections_);
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
        open_.push_back(std::move(connection));
    }
}

void CutProxy::forward(Connection& connection, Direction direction) {
    bool const toServer = direction == Direction::TO_SERVER;
    FileDescriptor& from = toServer ? connection.client : connection.server;
    FileDescriptor& to = toServer ? connection.server : connection.client;
    if (!from.valid()) {
        return;
    }
    bool const limited = connection.cut && connection.cut->direction == direction;
    Step const step = move(from, to, limited ? connection.cut->bytes : SIZE_MAX);
    connection.blocked[toServer ? 0 : 1] = step.outcome == Outcome::NO_ROOM;
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
    // Counted first: a client that sees the reset finds it counted.
    increment(cuts_);
    resetConnection(connection.client);
    connection.server.reset();
}

} // namespace support
