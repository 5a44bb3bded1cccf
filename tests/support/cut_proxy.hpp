#pragma once

#include "support/file_descriptor.hpp"
#include "support/port_lease.hpp"
#include "support/watched.hpp"

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace support {

/// A TCP proxy on a port of its own, in front of a server on the loopback address, that cuts
/// connections where the test wants. One thread serves all connections.
///
/// A cut resets the client's connection. After a cut at a number of bytes these bytes surely
/// reach the one they are for, and not one more.
class CutProxy {
public:
    enum class Direction { TO_SERVER, TO_CLIENT };

    explicit CutProxy(int serverPort);
    ~CutProxy();
    CutProxy(CutProxy const&) = delete;
    CutProxy& operator=(CutProxy const&) = delete;

    std::string host() const { return "127.0.0.1"; }
    int port() const noexcept { return lease_.port(); }

    /// Cuts the latest connection once that many more bytes were forwarded in this direction.
    /// Nothing when there is no connection.
    void cutCurrentAfter(Direction direction, std::size_t bytes);
    /// Cuts a connection to come after that many bytes. Each connection takes one such order,
    /// in the order they were given.
    void cutNextAfter(Direction direction, std::size_t bytes);
    /// Resets all connections, both ends of them.
    void cutNow();
    /// Forwards nothing any more, also on connections to come, until `thaw`.
    void freeze();
    void thaw();

    /// Connections accepted so far.
    int connections() const;
    /// Connections cut so far.
    int cuts() const;
    /// Bytes forwarded in this direction so far, over all connections.
    std::size_t bytes(Direction direction) const;
    bool waitForConnections(int count, std::chrono::milliseconds deadline = DEADLINE) const;
    bool waitForCuts(int count, std::chrono::milliseconds deadline = DEADLINE) const;
    bool waitForBytes(Direction direction, std::size_t count,
                      std::chrono::milliseconds deadline = DEADLINE) const;

private:
    struct Cut {
        Direction direction;
        std::size_t bytes;
    };
    struct Connection {
        FileDescriptor client;
        FileDescriptor server;
        std::optional<Cut> cut;       ///< bytes still to go
        bool blockedToServer = false; ///< there is no room at the server's side
        bool blockedToClient = false;
    };
    struct Seen {
        int connections = 0;
        int cuts = 0;
        std::size_t toServer = 0;
        std::size_t toClient = 0;
    };

    void wake();
    void serve();
    void waitForNews();
    void acceptAll();
    void forward(Connection& connection);
    void forward(Connection& connection, Direction direction);
    void cutIfDue(Connection& connection);
    void count(Direction direction, std::size_t bytes);

    PortLease lease_;
    int const serverPort_;
    std::mutex mutex_; ///< what follows, up to the descriptors
    bool frozen_ = false;
    std::deque<Cut> orders_;
    std::vector<std::unique_ptr<Connection>> connections_;
    FileDescriptor listener_;
    FileDescriptor wakeUp_;
    Watched<Seen> seen_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace support
