#pragma once

#include "support/broker.hpp"
#include "support/watched.hpp"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

struct mosquitto;

namespace support {

/// A message as a raw client sees it.
struct Message {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
};

inline bool operator==(Message const& a, Message const& b) {
    return std::tie(a.topic, a.payload, a.qos, a.retain)
           == std::tie(b.topic, b.payload, b.qos, b.retain);
}
inline std::ostream& operator<<(std::ostream& out, Message const& message) {
    return out << "{\"" << message.topic << "\", \"" << message.payload << "\", qos " << message.qos
               << (message.retain ? ", retained}" : "}");
}

/// A client on the C library of the broker's makers alone: it shows what the broker does, without
/// any code of ours. It has a network thread of its own and never reconnects.
///
/// The operations wait until the broker has answered. Subscribe on one thread at a time.
/// @throws std::runtime_error from every operation that fails or gets no answer
class RawPeer {
public:
    using Messages = std::vector<Message>;

    explicit RawPeer(Broker const& broker) : RawPeer(broker.host(), broker.port()) {}
    RawPeer(std::string const& host, int port);
    ~RawPeer();
    RawPeer(RawPeer const&) = delete;
    RawPeer& operator=(RawPeer const&) = delete;

    void subscribe(std::string const& topic, int qos = 2);
    void publish(std::string const& topic, std::string const& payload, int qos = 2,
                 bool retain = false) {
        post(topic, payload, qos, retain);
        waitForAcknowledgements();
    }
    /// Publishes without waiting; `waitForAcknowledgements` waits for all that was posted.
    void post(std::string const& topic, std::string const& payload, int qos = 2,
              bool retain = false);
    void waitForAcknowledgements() const;

    Messages messages() const {
        return seen_.read([](Seen const& seen) { return seen.messages; });
    }
    std::vector<std::string> payloads() const;
    void clearMessages() {
        seen_.change([](Seen& seen) { seen.messages.clear(); });
    }
    template <class Condition>
    bool waitFor(Condition const& condition) const {
        return seen_.waitFor([&](Seen const& seen) { return condition(seen.messages); });
    }
    /// Waits for that many messages, or more.
    bool waitForMessages(std::size_t count) const {
        return waitFor([&](Messages const& all) { return all.size() >= count; });
    }

private:
    struct Seen {
        bool connected = false;
        std::optional<bool> granted; ///< the answer to the last SUBSCRIBE
        int pending = 0;             ///< publications without acknowledgement
        Messages messages;
    };

    void setCallbacks();
    int step();

    Watched<Seen> seen_;
    std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_;
    std::atomic<bool> stop_{false};
    std::thread network_;
};

/// The message that the broker retains on this topic, read over a connection of its own.
std::optional<Message> retained(Broker const& broker, std::string const& topic);
/// All that it retains under a pattern.
std::vector<Message> allRetained(Broker const& broker, std::string const& pattern);

} // namespace support
