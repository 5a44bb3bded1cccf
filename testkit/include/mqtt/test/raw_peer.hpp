#pragma once

#include "mqtt/test/broker.hpp"
#include "mqtt/test/watched.hpp"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace mqtt::test {

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

    explicit RawPeer(Broker const& broker) : RawPeer(broker.host(), broker.plainPort()) {}
    RawPeer(std::string const& host, int port) {
        require(client_ != nullptr, "cannot be made");
        check(mosquitto_threaded_set(client_.get(), true), "threads");
        check(mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1), "option");
        setCallbacks();
        check(mosquitto_connect(client_.get(), host.c_str(), port, 60), "connect");
        while (!seen_.copy().connected) {
            check(step(), "connection refused or lost");
        }
        network_ = std::thread([this] {
            while (!stop_ && step() == MOSQ_ERR_SUCCESS) {
            }
        });
    }
    ~RawPeer() {
        mosquitto_disconnect(client_.get());
        stop_ = true;
        network_.join();
    }
    RawPeer(RawPeer const&) = delete;
    RawPeer& operator=(RawPeer const&) = delete;

    void subscribe(std::string const& topic, int qos = 2) {
        seen_.change([](Seen& seen) { seen.granted.reset(); });
        check(mosquitto_subscribe(client_.get(), nullptr, topic.c_str(), qos), "subscribe");
        auto const answered = [](Seen const& seen) { return seen.granted.has_value(); };
        require(seen_.waitFor(answered), "no answer to SUBSCRIBE");
        require(*seen_.copy().granted, "subscription refused");
    }
    void publish(std::string const& topic, std::string const& payload, int qos = 2,
                 bool retain = false) {
        post(topic, payload, qos, retain);
        waitForAcknowledgements();
    }
    /// Publishes without waiting; `waitForAcknowledgements` waits for all that was posted.
    void post(std::string const& topic, std::string const& payload, int qos = 2,
              bool retain = false) {
        seen_.change([](Seen& seen) { ++seen.pending; });
        auto const size = static_cast<int>(payload.size());
        check(mosquitto_publish(client_.get(), nullptr, topic.c_str(), size, payload.data(), qos,
                                retain),
              "publish");
    }
    void waitForAcknowledgements() const {
        require(seen_.waitFor([](Seen const& seen) { return seen.pending == 0; }),
                "publication not acknowledged");
    }

    Messages messages() const {
        return seen_.read([](Seen const& seen) { return seen.messages; });
    }
    std::vector<std::string> payloads() const {
        std::vector<std::string> result;
        for (Message const& message : messages()) {
            result.push_back(message.payload);
        }
        return result;
    }
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

    static void require(bool condition, std::string const& failure) {
        if (!condition) {
            throw std::runtime_error("raw peer: " + failure);
        }
    }
    static void check(int result, std::string const& operation) {
        require(result == MOSQ_ERR_SUCCESS, operation + ": " + mosquitto_strerror(result));
    }

    static mosquitto* newClient(Watched<Seen>& seen) {
        // Never undone: clients may live in static objects.
        static int const initialised = mosquitto_lib_init();
        check(initialised, "initialise");
        return mosquitto_new(nullptr, true, &seen); // the broker chooses the identifier
    }

    int step() {
        int const result = mosquitto_loop(client_.get(), 100, 1);
        // Otherwise the kernel delays the acknowledgements, and a broker with its default settings
        // waits for them: 44 ms for every exchange.
        int const on = 1;
        setsockopt(mosquitto_socket(client_.get()), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        return result;
    }

    void setCallbacks() {
        using Watch = Watched<Seen>;
        mosquitto* const client = client_.get();
        mosquitto_connect_callback_set(client, [](mosquitto*, void* watch, int code) {
            static_cast<Watch*>(watch)->change([&](Seen& seen) { seen.connected = code == 0; });
        });
        mosquitto_publish_callback_set(client, [](mosquitto*, void* watch, int) {
            static_cast<Watch*>(watch)->change([](Seen& seen) { --seen.pending; });
        });
        mosquitto_subscribe_callback_set(
            client, [](mosquitto*, void* watch, int, int count, int const* granted) {
                constexpr int REFUSED = 128;
                static_cast<Watch*>(watch)->change(
                    [&](Seen& seen) { seen.granted = count == 0 || granted[0] != REFUSED; });
            });
        mosquitto_message_callback_set(
            client, [](mosquitto*, void* watch, mosquitto_message const* message) {
                auto const* const bytes = static_cast<char const*>(message->payload);
                Message copy{message->topic, std::string(bytes, bytes + message->payloadlen),
                             message->qos, message->retain};
                static_cast<Watch*>(watch)->change(
                    [&](Seen& seen) { seen.messages.push_back(std::move(copy)); });
            });
    }

    Watched<Seen> seen_;
    std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_{newClient(seen_), &mosquitto_destroy};
    std::atomic<bool> stop_{false};
    std::thread network_;
};

/// All that the broker retains under a pattern, read over a connection of its own. The broker
/// queues retained messages when it handles the subscription, so ahead of a message that is
/// published after its acknowledgement: when that one arrives, all have arrived.
inline std::vector<Message> allRetained(Broker const& broker, std::string const& pattern) {
    RawPeer peer(broker);
    std::string const last = "end-of-retained";
    peer.subscribe(last);
    peer.subscribe(pattern);
    peer.publish(last, "");
    auto const complete = [&](RawPeer::Messages const& all) {
        return !all.empty() && all.back().topic == last;
    };
    if (!peer.waitFor(complete)) {
        throw std::runtime_error("no end of the retained messages");
    }
    std::vector<Message> found;
    for (Message const& message : peer.messages()) {
        if (message.retain) {
            found.push_back(message);
        }
    }
    return found;
}

/// The message that it retains on this topic.
inline std::optional<Message> retained(Broker const& broker, std::string const& topic) {
    auto const found = allRetained(broker, topic);
    return found.empty() ? std::nullopt : std::optional<Message>(found.front());
}

} // namespace mqtt::test
