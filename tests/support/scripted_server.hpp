#pragma once

#include "support/file_descriptor.hpp"
#include "support/mqtt_packet.hpp"
#include "support/port_lease.hpp"
#include "support/watched.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
        DROP    ///< no answer; the connection is reset
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
    void refuseWith(int code) {
        refusal_ = code;
        setMode(Mode::REFUSE);
    }
    /// Called on the server's thread for every packet before it is answered.
    void setHook(Hook hook) {
        std::lock_guard<std::mutex> lock(mutex_);
        hook_ = std::move(hook);
    }
    /// Lets the n-th packet of this type, counted from now over all connections, reset its
    /// connection. Several may be set.
    void dropAtPacket(PacketType type, std::size_t n) {
        std::lock_guard<std::mutex> lock(mutex_);
        drops_.push_back({type, n});
    }
    /// Keeps back all answers to packets of this type, until `release`.
    void hold(PacketType type) {
        std::lock_guard<std::mutex> lock(mutex_);
        held_.push_back(type);
    }
    /// Sends the answers that were kept back, in order, as far as their connections still exist;
    /// no answers are kept back any more.
    void release();

    // On the latest connection. @return false when there is none
    bool publish(std::string const& topic, std::string const& payload, int qos = 0,
                 bool retain = false);
    /// Resets the connection.
    bool drop();

    // What was received.
    History received() const {
        return seen_.read([](Seen const& seen) { return seen.packets; });
    }
    std::vector<MqttPacket> received(PacketType type) const;
    std::size_t count(PacketType type) const { return received(type).size(); }
    int tcpConnections() const {
        return seen_.read([](Seen const& seen) { return seen.accepted; });
    }
    bool waitForPackets(PacketType type, std::size_t count,
                        std::chrono::milliseconds deadline = DEADLINE) const;
    bool waitForTcpConnections(int count, std::chrono::milliseconds deadline = DEADLINE) const {
        return seen_.waitFor([&](Seen const& seen) { return seen.accepted >= count; }, deadline);
    }
    /// Waits until no connection is open.
    bool waitForNoConnection(std::chrono::milliseconds deadline = DEADLINE) const {
        return seen_.waitFor([](Seen const& seen) { return seen.open == 0; }, deadline);
    }
    bool waitFor(std::function<bool(History const&)> const& condition,
                 std::chrono::milliseconds deadline = DEADLINE) const {
        return seen_.waitFor([&](Seen const& seen) { return condition(seen.packets); }, deadline);
    }

private:
    struct Connection {
        int number;
        FileDescriptor socket;
        MqttReader reader;
        std::atomic<bool> ending{false}; ///< closed on this side, not yet by the client
    };
    struct Drop {
        PacketType type;
        std::size_t left;
    };
    struct Seen {
        History packets;
        int accepted = 0;
        int open = 0;
    };

    void fillBacklog();
    void emptyBacklog();
    void serve();
    void waitForEvents();
    void acceptAll();
    void readFrom(Connection& connection);
    void handle(Connection& connection, MqttPacket const& packet);
    Reaction reactionTo(MqttPacket const& packet);
    void answer(Connection& connection, MqttPacket const& packet);
    static void reset(Connection& connection);
    void removeClosed();
    Connection* latest();

    PortLease lease_;
    std::atomic<int> refusal_{5}; ///< the code of CONNACK
    mutable std::mutex mutex_;    ///< guards what follows, up to wakeUp_
    Mode mode_;
    Hook hook_;
    std::vector<Drop> drops_;
    std::vector<PacketType> held_;
    std::vector<std::pair<int, std::string>> keptBack_; ///< answers by number of connection
    std::vector<std::unique_ptr<Connection>> connections_;
    FileDescriptor filler_; ///< a connection of our own that fills the kernel's queue
    std::uint16_t lastMid_ = 0;
    FileDescriptor listener_;
    FileDescriptor wakeUp_;
    Watched<Seen> seen_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace support
