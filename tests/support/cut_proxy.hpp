#pragma once

#include "support/port_lease.hpp"
#include "support/serving_thread.hpp"
#include "support/watched.hpp"

#include <array>
#include <deque>
#include <optional>
#include <string>

namespace support {

/// A TCP proxy on a port of its own, in front of a server on the loopback address, that cuts
/// connections where the test wants. One thread serves all connections.
///
/// A cut resets the client's connection. After a cut at a number of bytes exactly these bytes
/// reach their destination.
class CutProxy {
public:
    enum class Direction { TO_SERVER, TO_CLIENT };

    explicit CutProxy(int serverPort);

    std::string host() const { return "127.0.0.1"; }
    int port() const noexcept { return lease_.port(); }

    /// Cuts the latest connection, if there is one, once that many more bytes were forwarded.
    void cutCurrentAfter(Direction direction, std::size_t bytes);
    /// Cuts a future connection after that many bytes. Each connection takes one such order, in
    /// the order they were given.
    void cutNextAfter(Direction direction, std::size_t bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        orders_.push_back({direction, bytes});
    }
    /// Resets all connections, on both sides.
    void cutNow();
    /// Forwards nothing until `thaw`, on future connections too.
    void freeze() { setFrozen(true); }
    void thaw() { setFrozen(false); }

    /// Connections accepted so far.
    int connections() const { return connections_.copy(); }
    bool waitForConnections(int count) const {
        return connections_.waitFor([&](int all) { return all >= count; });
    }
    /// Connections cut so far.
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
        void reset();
    };
    static constexpr std::array<Direction, 2> DIRECTIONS{Direction::TO_SERVER,
                                                         Direction::TO_CLIENT};

    void setFrozen(bool frozen);
    std::vector<pollfd> sockets();
    void serve();
    void acceptAll();
    void forward(Connection& connection, Direction direction);
    void cutIfDue(Connection& connection);

    PortLease lease_;
    int const serverPort_;
    std::mutex mutex_; ///< guards what follows, up to the listener
    bool frozen_ = false;
    std::deque<Cut> orders_;
    std::vector<Connection> open_;
    FileDescriptor listener_;
    Watched<int> connections_;
    std::atomic<int> cuts_{0};
    ServingThread thread_;
};

} // namespace support
