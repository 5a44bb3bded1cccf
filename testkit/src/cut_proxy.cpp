#include "mqtt/test/cut_proxy.hpp"

#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/watched.hpp"
#include "net/serving_thread.hpp"
#include "net/socket.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <optional>
#include <string>

namespace mqtt::test {

/// What serves the connections.
class CutProxy::Relay {
public:
    explicit Relay(int serverPort) : serverPort_(serverPort) {}

    int port() const noexcept { return lease_.port(); }

    void cutCurrentAfter(Direction direction, std::size_t bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!open_.empty()) {
            open_.back().cut = Cut{direction, bytes};
        }
        thread_.wake();
    }
    void cutNextAfter(Direction direction, std::size_t bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        orders_.push_back({direction, bytes});
    }
    void cutNow() {
        std::lock_guard<std::mutex> lock(mutex_);
        cuts_ += static_cast<int>(open_.size());
        for (Connection& connection : open_) {
            connection.reset();
        }
        open_.clear();
        thread_.wake();
    }
    void setRefusing(bool refusing) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            refusing_ = refusing;
        }
        if (refusing) {
            cutNow();
        }
    }
    void setFrozen(bool frozen) {
        std::lock_guard<std::mutex> lock(mutex_);
        frozen_ = frozen;
        thread_.wake();
    }

    int connections() const { return connections_.copy(); }
    bool waitForConnections(int count) const {
        return connections_.waitFor([&](int all) { return all >= count; });
    }
    int cuts() const { return cuts_; }

private:
    struct Cut {
        Direction direction;
        std::size_t bytes;
    };
    struct Connection {
        FileDescriptor client;
        FileDescriptor server;
        std::optional<Cut> cut;        ///< bytes still to be forwarded
        std::array<bool, 2> blocked{}; ///< by direction: the destination takes no more for now

        FileDescriptor& from(Direction direction) {
            return direction == Direction::TO_SERVER ? client : server;
        }
        FileDescriptor& to(Direction direction) {
            return direction == Direction::TO_SERVER ? server : client;
        }
        void reset() {
            resetConnection(client);
            resetConnection(server);
        }
    };
    static constexpr std::array<Direction, 2> DIRECTIONS{Direction::TO_SERVER,
                                                         Direction::TO_CLIENT};

    std::vector<pollfd> sockets() {
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

    void serve() {
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

    void acceptAll() {
        for (;;) {
            Connection connection;
            connection.client = acceptFrom(listener_);
            if (!connection.client.valid()) {
                return;
            }
            connections_.change([](int& count) { ++count; });
            if (refusing_) {
                ++cuts_;
                resetConnection(connection.client);
                continue;
            }
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

    /// Takes only what the other side has room for: nothing is kept in between, and a slow reader
    /// slows down the writer as without a proxy.
    void forward(Connection& connection, Direction direction) {
        int const from = connection.from(direction).get();
        int const to = connection.to(direction).get();
        std::array<char, 16384> bytes;
        bool const limited = connection.cut && connection.cut->direction == direction;
        std::size_t const limit =
            limited ? std::min(connection.cut->bytes, bytes.size()) : bytes.size();
        ssize_t const there = ::recv(from, bytes.data(), limit, MSG_PEEK);
        ssize_t const sent =
            there > 0 ? ::send(to, bytes.data(), static_cast<std::size_t>(there), MSG_NOSIGNAL)
                      : there;
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

    void cutIfDue(Connection& connection) {
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

    PortLease lease_;
    int const serverPort_;
    std::mutex mutex_; ///< guards what follows, up to the listener
    bool frozen_ = false;
    bool refusing_ = false;
    std::deque<Cut> orders_;
    std::vector<Connection> open_;
    FileDescriptor listener_ = listenOn(lease_.port(), 64);
    Watched<int> connections_;
    std::atomic<int> cuts_{0};
    ServingThread thread_{mutex_, [this] { return sockets(); }, [this] { serve(); }};
};

CutProxy::CutProxy(int serverPort) : relay_(std::make_unique<Relay>(serverPort)) {}
CutProxy::~CutProxy() = default;

int CutProxy::port() const noexcept {
    return relay_->port();
}
void CutProxy::cutCurrentAfter(Direction direction, std::size_t bytes) {
    relay_->cutCurrentAfter(direction, bytes);
}
void CutProxy::cutNextAfter(Direction direction, std::size_t bytes) {
    relay_->cutNextAfter(direction, bytes);
}
void CutProxy::cutNow() {
    relay_->cutNow();
}
void CutProxy::refuse() {
    relay_->setRefusing(true);
}
void CutProxy::accept() {
    relay_->setRefusing(false);
}
void CutProxy::freeze() {
    relay_->setFrozen(true);
}
void CutProxy::thaw() {
    relay_->setFrozen(false);
}
int CutProxy::connections() const {
    return relay_->connections();
}
bool CutProxy::waitForConnections(int count) const {
    return relay_->waitForConnections(count);
}
int CutProxy::cuts() const {
    return relay_->cuts();
}

} // namespace mqtt::test
