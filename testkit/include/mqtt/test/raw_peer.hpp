#pragma once

#include "mqtt/test/address.hpp"
#include "mqtt/test/watched.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

struct mosquitto;

namespace mqtt::test {

/// A message as a raw client sees it.
struct Message {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false; ///< it was there before the subscription
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
/// any code of ours. It publishes, and records what it has subscribed to. It has a network thread
/// of its own and never reconnects.
///
/// `subscribe` and `publish` wait until the broker has answered. Subscribe on one thread at a time;
/// everything else may be called from any thread.
/// @throws std::runtime_error from every operation that fails or gets no answer in 30 seconds
class RawPeer {
public:
    using Messages = std::vector<Message>;

    explicit RawPeer(Address const& address);
    ~RawPeer();
    RawPeer(RawPeer const&) = delete;
    RawPeer& operator=(RawPeer const&) = delete;

    void subscribe(std::string const& pattern, int qos = 2);
    /// Subscribes, and waits until everything that is retained there has arrived.
    void subscribeToRetained(std::string const& pattern);
    void publish(std::string const& topic, std::string const& payload, int qos = 2,
                 bool retain = false);
    /// Publishes without waiting; `waitForAcknowledgements` waits for all that was posted.
    void post(std::string const& topic, std::string const& payload, int qos = 2,
              bool retain = false);
    void waitForAcknowledgements() const;

    /// All that was received so far, in order.
    Messages messages() const;
    std::vector<std::string> payloads() const;
    void clearMessages();
    /// Waits until `condition(messages)` holds, which is called with the messages locked.
    /// @return whether it came to hold before the deadline
    template <class Condition>
    bool waitFor(Condition const& condition, std::chrono::milliseconds deadline = DEADLINE) const {
        return seen_.waitFor([&](Seen const& seen) { return condition(seen.messages); }, deadline);
    }
    /// Waits for that many messages, or more.
    bool waitForMessages(std::size_t count, std::chrono::milliseconds deadline = DEADLINE) const {
        return waitFor([&](Messages const& all) { return all.size() >= count; }, deadline);
    }
    /// Waits for a message with this topic and payload.
    bool waitForMessage(std::string const& topic, std::string const& payload,
                        std::chrono::milliseconds deadline = DEADLINE) const;

private:
    struct Seen {
        bool connected = false;
        std::optional<bool> granted; ///< the answer to the last SUBSCRIBE
        int pending = 0;             ///< publications without acknowledgement
        Messages messages;
    };

    static mosquitto* newClient(Watched<Seen>& seen);
    static void destroyClient(mosquitto* client);
    void setCallbacks();
    void connect(Address const& address);
    int step();

    Watched<Seen> seen_;
    std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_{newClient(seen_), &destroyClient};
    std::atomic<bool> stop_{false};
    std::thread network_;
};

// Checks of what a broker retains, over connections of their own.
// @throws std::runtime_error when there is no connection or no answer

/// All messages that are retained under a pattern; none: the broker is clean there.
std::vector<Message> allRetained(Address const& broker, std::string const& pattern);
/// The message that is retained on this topic.
std::optional<Message> retained(Address const& broker, std::string const& topic);
/// Waits until `condition(payload)` holds for the message retained on this topic; the payload is
/// empty while there is none.
/// @return whether it came to hold before the deadline
template <class Condition>
bool waitForRetained(Address const& broker, std::string const& topic, Condition const& condition,
                     std::chrono::milliseconds deadline = DEADLINE) {
    RawPeer peer(broker);
    peer.subscribeToRetained(topic);
    return peer.waitFor(
        [&](RawPeer::Messages const& all) {
            return condition(all.empty() ? std::string() : all.back().payload);
        },
        deadline);
}

} // namespace mqtt::test
