#pragma once

#include "mqtt/test/port_lease.hpp"
#include "mqtt/test/watched.hpp"
#include "net/serving_thread.hpp"
#include "net/socket.hpp"
#include "support/mqtt_packet.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

namespace support {

/// A TCP server on a port of its own that speaks MQTT 3.1.1 as the test scripts it, and records
/// all packets that it receives.
///
/// As made it accepts connections and acknowledges everything, but forwards nothing. One thread
/// serves all connections.
class ScriptedServer {
public:
    /// What it does with connections from now on.
    enum class Mode {
        BROKER,       ///< accepts and acknowledges
        SILENT,       ///< accepts TCP connections, reads, never answers
        REFUSE,       ///< answers CONNECT with a code that is not 0, and closes
        NOT_ACCEPTING ///< accepts nothing, and the kernel's queue is full: connecting blocks
    };

    /// What happens to the packet that a hook was shown.
    enum class Reaction {
        ANSWER, ///< what the mode answers
        IGNORE, ///< no answer
        HOLD,   ///< what a broker answers, at the next `release`
        DROP    ///< no answer; the connection is reset
    };
    using Hook = std::function<Reaction(MqttPacket const&)>;

    struct Received {
        int connection; ///< counted from 1
        MqttPacket packet;
    };
    using History = std::vector<Received>;

    explicit ScriptedServer(Mode mode = Mode::BROKER) { setMode(mode); }

    std::string host() const { return "127.0.0.1"; }
    int port() const noexcept { return lease_.port(); }

    // The script; may change at any time.
    /// Connections that wait since NOT_ACCEPTING are accepted when that ends, and one of our own,
    /// which is closed.
    void setMode(Mode mode) {
        Lock const lock(mutex_);
        if (mode == Mode::NOT_ACCEPTING && mode_ != Mode::NOT_ACCEPTING) {
            fillBacklog();
        } else if (mode != Mode::NOT_ACCEPTING) {
            filler_.reset();
            ::listen(listener_.get(), BACKLOG);
        }
        mode_ = mode;
        thread_.wake();
    }
    /// Called on the server's thread for every packet before it is recorded and answered. It must
    /// not use the server; while it blocks, no connection is read or written.
    void setHook(Hook hook) {
        Lock const lock(mutex_);
        hook_ = std::move(hook);
    }
    /// Keeps back all answers to packets of this type, until `release`.
    void hold(PacketType type) {
        setHook([type](MqttPacket const& packet) {
            return packet.type == type ? Reaction::HOLD : Reaction::ANSWER;
        });
    }
    /// Sends the answers that were kept back, and ends the hook.
    void release() {
        Lock const lock(mutex_);
        hook_ = nullptr;
        for (Connection& connection : connections_) {
            mqtt::test::sendAll(connection.socket, connection.keptBack);
            connection.keptBack.clear();
        }
    }

    /// On the latest connection. @return false when there is none
    bool publish(std::string const& topic, std::string const& payload, int qos = 0,
                 bool retain = false) {
        Lock const lock(mutex_);
        MqttPacket packet;
        packet.topic = topic;
        packet.payload = payload;
        packet.qos = qos;
        packet.retain = retain;
        packet.mid = ++lastMid_;
        Connection const* const to = latest();
        return to && mqtt::test::sendAll(to->socket, publishPacket(packet));
    }
    /// Resets the latest connection.
    void drop() {
        Lock const lock(mutex_);
        if (Connection* const connection = latest()) {
            mqtt::test::resetConnection(connection->socket);
        }
        thread_.wake();
    }

    // What was received.
    History received() const {
        return seen_.read([](Seen const& seen) { return seen.packets; });
    }
    std::vector<MqttPacket> received(PacketType type) const {
        std::vector<MqttPacket> result;
        for (Received const& one : received()) {
            if (one.packet.type == type) {
                result.push_back(one.packet);
            }
        }
        return result;
    }
    std::size_t count(PacketType type) const { return received(type).size(); }
    int tcpConnections() const {
        return seen_.read([](Seen const& seen) { return seen.accepted; });
    }
    /// Waits for that many packets of this type, or more.
    bool waitForPackets(PacketType type, std::size_t count) const {
        auto const matches = [&](Received const& one) { return one.packet.type == type; };
        return seen_.waitFor([&](Seen const& seen) {
            return std::count_if(seen.packets.begin(), seen.packets.end(), matches)
                   >= static_cast<long>(count);
        });
    }
    /// Waits until no connection is open.
    bool waitForNoConnection() const {
        return seen_.waitFor([](Seen const& seen) { return seen.open == 0; });
    }

private:
    using Lock = std::lock_guard<std::mutex>;
    static constexpr int BACKLOG = 64;

    struct Connection {
        int number;
        mqtt::test::FileDescriptor socket;
        std::string bytes;    ///< received, of a packet that is not complete
        std::string keptBack; ///< answers
        bool ending = false;  ///< closed on this side, not yet by the client
    };
    struct Seen {
        History packets;
        int accepted = 0;
        int open = 0;
    };

    /// With a queue for one connection and that place taken the kernel drops every further attempt,
    /// and clients repeat theirs.
    void fillBacklog() {
        ::listen(listener_.get(), 0);
        filler_ = mqtt::test::startConnecting(port());
        pollfd waiting{listener_.get(), POLLIN, 0};
        ::poll(&waiting, 1, -1);
    }

    std::vector<pollfd> sockets() const {
        std::vector<pollfd> sockets;
        if (mode_ != Mode::NOT_ACCEPTING) {
            sockets.push_back({listener_.get(), POLLIN, 0});
        }
        for (Connection const& connection : connections_) {
            sockets.push_back({connection.socket.get(), POLLIN, 0});
        }
        return sockets;
    }

    void serve() {
        acceptAll();
        for (Connection& connection : connections_) {
            readFrom(connection);
        }
        auto const closed = [](Connection const& connection) { return !connection.socket.valid(); };
        connections_.erase(std::remove_if(connections_.begin(), connections_.end(), closed),
                           connections_.end());
        seen_.change([this](Seen& seen) { seen.open = static_cast<int>(connections_.size()); });
    }

    void acceptAll() {
        while (mode_ != Mode::NOT_ACCEPTING) {
            mqtt::test::FileDescriptor socket = mqtt::test::acceptFrom(listener_);
            if (!socket.valid()) {
                return;
            }
            int const number = seen_.change([](Seen& seen) {
                ++seen.open;
                return ++seen.accepted;
            });
            connections_.push_back({number, std::move(socket), {}, {}});
        }
    }

    void readFrom(Connection& connection) {
        std::array<char, 4096> bytes;
        while (connection.socket.valid()) {
            ssize_t const n = ::recv(connection.socket.get(), bytes.data(), bytes.size(), 0);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                return;
            }
            if (n <= 0) {
                connection.socket.reset();
                return;
            }
            connection.bytes.append(bytes.data(), static_cast<std::size_t>(n));
            while (connection.socket.valid() && !connection.ending) {
                auto const packet = takePacket(connection.bytes);
                if (!packet) {
                    break;
                }
                handle(connection, *packet);
            }
        }
    }

    void handle(Connection& connection, MqttPacket const& packet) {
        Reaction const reaction = hook_ ? hook_(packet) : Reaction::ANSWER;
        // Recorded before it is answered: a client that has the answer finds the packet recorded. A
        // test that waited for the packet and then uses the server waits for the lock, and so finds
        // the packet answered.
        seen_.change([&](Seen& seen) { seen.packets.push_back({connection.number, packet}); });
        if (reaction == Reaction::ANSWER) {
            answer(connection, packet);
        } else if (reaction == Reaction::HOLD) {
            connection.keptBack += answerTo(packet);
        } else if (reaction == Reaction::DROP) {
            mqtt::test::resetConnection(connection.socket);
        }
    }

    void answer(Connection& connection, MqttPacket const& packet) {
        if (mode_ == Mode::REFUSE && packet.type == PacketType::CONNECT) {
            constexpr int NOT_AUTHORIZED = 5;
            mqtt::test::sendAll(connection.socket, connack(NOT_AUTHORIZED));
            // Closes this side only: closing a socket with unread bytes would reset the connection,
            // and the client could lose the answer.
            connection.ending = true;
            ::shutdown(connection.socket.get(), SHUT_WR);
        } else if (mode_ != Mode::SILENT) {
            mqtt::test::sendAll(connection.socket, answerTo(packet));
        }
    }

    Connection* latest() {
        bool const open = !connections_.empty() && connections_.back().socket.valid()
                          && !connections_.back().ending;
        return open ? &connections_.back() : nullptr;
    }

    mqtt::test::PortLease lease_;
    std::mutex mutex_; ///< guards what follows, up to seen_
    Mode mode_ = Mode::BROKER;
    Hook hook_;
    std::vector<Connection> connections_;
    mqtt::test::FileDescriptor listener_ = mqtt::test::listenOn(lease_.port(), BACKLOG);
    mqtt::test::FileDescriptor filler_; ///< a connection of our own that fills the kernel's queue
    std::uint16_t lastMid_ = 0;
    mqtt::test::Watched<Seen> seen_;
    mqtt::test::ServingThread thread_{mutex_, [this] { return sockets(); }, [this] { serve(); }};
};

} // namespace support
