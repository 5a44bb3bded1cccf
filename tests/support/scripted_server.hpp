#pragma once

#include "support/mqtt_packet.hpp"
#include "support/port_lease.hpp"
#include "support/serving_thread.hpp"
#include "support/watched.hpp"

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

    explicit ScriptedServer(Mode mode = Mode::BROKER);

    std::string host() const { return "127.0.0.1"; }
    int port() const noexcept { return lease_.port(); }

    // The script; may change at any time.
    /// Connections that wait since NOT_ACCEPTING are accepted when that ends, and one of our own,
    /// which is closed.
    void setMode(Mode mode);
    /// Called on the server's thread for every packet before it is recorded and answered. It must
    /// not use the server; while it blocks, no connection is read or written.
    void setHook(Hook hook);
    /// Keeps back all answers to packets of this type, until `release`.
    void hold(PacketType type) {
        setHook([type](MqttPacket const& packet) {
            return packet.type == type ? Reaction::HOLD : Reaction::ANSWER;
        });
    }
    /// Sends the answers that were kept back, and ends the hook.
    void release();

    /// On the latest connection. @return false when there is none
    bool publish(std::string const& topic, std::string const& payload, int qos = 0,
                 bool retain = false);
    /// Resets the latest connection.
    void drop();

    // What was received.
    History received() const {
        return seen_.read([](Seen const& seen) { return seen.packets; });
    }
    std::vector<MqttPacket> received(PacketType type) const;
    std::size_t count(PacketType type) const { return received(type).size(); }
    int tcpConnections() const {
        return seen_.read([](Seen const& seen) { return seen.accepted; });
    }
    /// Waits for that many packets of this type, or more.
    bool waitForPackets(PacketType type, std::size_t count) const;
    /// Waits until no connection is open.
    bool waitForNoConnection() const {
        return seen_.waitFor([](Seen const& seen) { return seen.open == 0; });
    }

private:
    struct Connection {
        int number;
        FileDescriptor socket;
        std::string bytes;    ///< received, of a packet that is not complete
        std::string keptBack; ///< answers
        bool ending = false;  ///< closed on this side, not yet by the client
    };
    struct Seen {
        History packets;
        int accepted = 0;
        int open = 0;
    };

    void fillBacklog();
    std::vector<pollfd> sockets() const;
    void serve();
    void acceptAll();
    void readFrom(Connection& connection);
    void handle(Connection& connection, MqttPacket const& packet);
    void answer(Connection& connection, MqttPacket const& packet);
    Connection* latest();

    PortLease lease_;
    std::mutex mutex_; ///< guards what follows, up to seen_
    Mode mode_;
    Hook hook_;
    std::vector<Connection> connections_;
    FileDescriptor listener_;
    FileDescriptor filler_; ///< a connection of our own that fills the kernel's queue
    std::uint16_t lastMid_ = 0;
    Watched<Seen> seen_;
    ServingThread thread_;
};

} // namespace support
