#pragma once

#include "mqtt/test/address.hpp"

#include <cstddef>
#include <memory>
#include <string>

namespace mqtt::test {

/// A TCP proxy on a port of its own, in front of a server on the loopback address, that cuts
/// connections where the test wants. One thread serves all connections.
///
/// A cut resets the client's connection. After a cut at a number of bytes exactly these bytes
/// reach their destination. All operations may be called from any thread.
class CutProxy {
public:
    enum class Direction { TO_SERVER, TO_CLIENT };

    /// @throws std::runtime_error when there is no free port
    explicit CutProxy(int serverPort);
    ~CutProxy();
    CutProxy(CutProxy const&) = delete;
    CutProxy& operator=(CutProxy const&) = delete;

    std::string host() const { return "127.0.0.1"; }
    int port() const noexcept;
    operator Address() const { return {host(), port()}; }

    /// Cuts the latest connection, if there is one, once that many more bytes were forwarded.
    void cutCurrentAfter(Direction direction, std::size_t bytes);
    /// Cuts a future connection after that many bytes. Each connection takes one such order, in
    /// the order they were given.
    void cutNextAfter(Direction direction, std::size_t bytes);
    /// Resets all connections, on both sides.
    void cutNow();
    /// Resets all connections, and every future one as soon as it was accepted, until `accept`.
    void refuse();
    void accept();
    /// Forwards nothing until `thaw`, on future connections too.
    void freeze();
    void thaw();

    /// Connections accepted so far; those that were refused too.
    int connections() const;
    /// Waits for that many, or more. @return false after 30 seconds
    bool waitForConnections(int count) const;
    /// Connections cut so far; those that were refused too.
    int cuts() const;

private:
    class Relay;
    std::unique_ptr<Relay> relay_;
};

} // namespace mqtt::test
