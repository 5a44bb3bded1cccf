#pragma once

#include "support/file_descriptor.hpp"
#include "support/mqtt_packet.hpp"
#include "support/port_lease.hpp"
#include "support/watched.hpp"

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace support {

/// A TCP server on a port of its own that says what the test wants in MQTT 3.1.1 and keeps all
/// it hears.
///
/// As made it behaves like the smallest broker there is: it consents to connections and
/// acknowledges everything, but forwards nothing. One thread serves all connections.
class ScriptedServer {
public:
    /// What it does with connections from now on.
    enum class Mode {
        BROKER,       ///< consents and acknowledges
        SILENT,       ///< accepts TCP connections, reads, never answers
        REFUSE,       ///< answers CONNECT with a code that is not 0, and closes
        NOT_ACCEPTING ///< accepts nothing, and the kernel's queue is full: connecting blocks
    };

    /// What happens to the packet that a hook was shown.
    enum class Reaction {
        ANSWER,          ///< what the mode answers
        IGNORE,          ///< no answer
        DROP,            ///< no answer; the connection is reset
        ANSWER_THEN_DROP ///< the answer surely arrives, then the connection ends
    };
    using Hook = std::function<Reaction(MqttPacket const&)>;

    struct Received {
        int connection; ///< counted from 1
        MqttPacket packet;
    };
    using History = std::vector<Received>;

    explicit ScriptedServer(Mode mode = Mode::BROKER);
    ~ScriptedServer();
    ScriptedServer(ScriptedServer const&) = delete;
    ScriptedServer& operator=(ScriptedServer const&) = delete;

    std::string host() const { return "127.0.0.1"; }
    int port() const noexcept { return lease_.port(); }

    // The script; may change at any time.
    /// Connections that wait since NOT_ACCEPTING are accepted when that ends.
    void setMode(Mode mode);
    /// Mode REFUSE with this code of CONNACK.
    void refuseWith(int code);
    /// Called on the server's thread for every packet before it is answered.
    void setHook(Hook hook);
    /// Lets the n-th packet of this type, counted from now over all connections, end its
    /// connection. Several may be set.
    void dropAtPacket(PacketType type, std::size_t n, Reaction how = Reaction::DROP);
    /// Keeps back all answers to packets of this type, until `release`.
    void hold(PacketType type);
    /// Sends what was held back, in order, as far as its connection still stands; nothing is
    /// held any more.
    void release();

    // On the latest connection. @return false when there is none
    bool publish(std::string const& topic, std::string const& payload, int qos = 0,
                 bool retain = false);
    bool send(std::string const& bytes);
    /// Resets the connection.
    bool drop();

    // What was seen.
    History received() const {
        return seen_.read([](Seen const& seen) { return seen.packets; });
    }
    std::vector<MqttPacket> received(PacketType type) const;
    std::size_t count(PacketType type) const;
    int tcpConnections() const;
    int openConnections() const;
    bool waitForPackets(PacketType type, std::size_t count,
                        std::chrono::milliseconds deadline = DEADLINE) const;
    bool waitForTcpConnections(int count, std::chrono::milliseconds deadline = DEADLINE) const;
    /// Waits until no connection is open.
    bool waitForNoConnection(std::chrono::milliseconds deadline = DEADLINE) const;
    bool waitFor(std::function<bool(History const&)> const& condition,
                 std::chrono::milliseconds deadline = DEADLINE) const;

private:
    struct Connection {
        int number;
        FileDescriptor socket;
        MqttReader reader;
        std::atomic<bool> ending{false}; ///< our side is closed; we wait for the peer's end
    };
    struct Drop {
        PacketType type;
        std::size_t left;
        Reaction how;
    };
    struct Answer {
        int connection;
        std::string bytes;
    };
    struct Seen {
        History packets;
        int accepted = 0;
        int open = 0;
    };

    void fillBacklog();
    bool isFiller(FileDescriptor const& socket) const;
    void wake();
    void serve();
    void waitForNews();
    void acceptAll();
    void readFrom(Connection& connection);
    void handle(Connection& connection, MqttPacket const& packet);
    Reaction reactionTo(MqttPacket const& packet);
    Reaction plannedReaction(PacketType type);
    void answer(Connection& connection, MqttPacket const& packet);
    void end(Connection& connection);
    void reset(Connection& connection);
    void removeClosed();
    Connection* latest();

    PortLease lease_;
    mutable std::mutex mutex_; ///< all but seen_ and what the thread alone uses
    Mode mode_;
    int refusal_ = 5;
    Hook hook_;
    std::vector<Drop> drops_;
    std::vector<PacketType> held_;
    std::deque<Answer> heldBack_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::vector<FileDescriptor> fillers_; ///< connections of our own that fill the queue
    std::uint16_t lastMid_ = 0;
    FileDescriptor listener_;
    FileDescriptor wakeUp_;
    Watched<Seen> seen_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace support
