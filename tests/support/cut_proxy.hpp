#pragma once

#include "support/file_descriptor.hpp"
#include "support/port_lease.hpp"
#include "support/watched.hpp"

#include <array>
#include <atomic>
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
/// A cut resets the client's connection. After a cut at a number of bytes exactly these bytes
/// reach their destination.
class CutProxy {
public:
    enum class Direction { TO_SERVER, TO_CLIENT };

    explicit CutProxy(int serverPort);
    ~CutProxy();
    CutProxy(CutProxy const&) = delete;
    CutProxy& operator=(CutProxy const&) = delete;

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
    bool waitForConnections(int count, std::chrono::milliseconds deadline = DEADLINE) const {
        return connections_.waitFor([&](int all) { return all >= count; }, deadline);
    }
    /// Connections cut so far.
    int cuts() const { return cuts_.copy(); }
    bool waitForCuts(int count, std::chrono::milliseconds deadline = DEADLINE) const {
        return cuts_.waitFor([&](int all) { return all >= count; }, deadline);
    }

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
    };

    void setFrozen(bool frozen);
    void serve();
    void waitForEvents();
    void acceptAll();
    void forward(Connection& connection, Direction direction);
    void cutIfDue(Connection& connection);

    PortLease lease_;
    int const serverPort_;
    std::mutex mutex_; ///< guards what follows, up to the descriptors
    bool frozen_ = false;
    std::deque<Cut> orders_;
    std::vector<std::unique_ptr<Connection>> open_;
    FileDescriptor listener_;
    FileDescriptor wakeUp_;
    Watched<int> connections_;
    Watched<int> cuts_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace support
