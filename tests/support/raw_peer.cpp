#include "support/raw_peer.hpp"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <stdexcept>

namespace support {

namespace {

void require(bool condition, std::string const& failure) {
    if (!condition) {
        throw std::runtime_error("raw peer: " + failure);
    }
}

void check(int result, std::string const& operation) {
    require(result == MOSQ_ERR_SUCCESS, operation + ": " + mosquitto_strerror(result));
}

} // namespace

RawPeer::RawPeer(std::string const& host, int port) : client_(nullptr, &mosquitto_destroy) {
    // Never undone: clients may live in static objects.
    static int const initialised = mosquitto_lib_init();
    check(initialised, "initialise");
    client_.reset(mosquitto_new(nullptr, true, &seen_)); // the broker chooses the identifier
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

RawPeer::~RawPeer() {
    mosquitto_disconnect(client_.get());
    stop_ = true;
    network_.join();
}

void RawPeer::subscribe(std::string const& topic, int qos) {
    seen_.change([](Seen& seen) { seen.granted.reset(); });
    check(mosquitto_subscribe(client_.get(), nullptr, topic.c_str(), qos), "subscribe");
    auto const granted = [](Seen const& seen) { return seen.granted.has_value(); };
    require(seen_.waitFor(granted), "no answer to SUBSCRIBE");
    require(*seen_.copy().granted, "subscription refused");
}

void RawPeer::post(std::string const& topic, std::string const& payload, int qos, bool retain) {
    seen_.change([](Seen& seen) { ++seen.pending; });
    check(mosquitto_publish(client_.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                            payload.data(), qos, retain),
          "publish");
}

void RawPeer::waitForAcknowledgements() const {
    require(seen_.waitFor([](Seen const& seen) { return seen.pending == 0; }),
            "publication not acknowledged");
}

std::vector<std::string> RawPeer::payloads() const {
    std::vector<std::string> result;
    for (Message const& message : messages()) {
        result.push_back(message.payload);
    }
    return result;
}

int RawPeer::step() {
    int const result = mosquitto_loop(client_.get(), 100, 1);
    // Otherwise the kernel delays the acknowledgements, and a broker with its default settings
    // waits for them: 44 ms for every exchange.
    int const on = 1;
    setsockopt(mosquitto_socket(client_.get()), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    return result;
}

void RawPeer::setCallbacks() {
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

/// The broker queues retained messages when it handles the subscription, so ahead of a message
/// that is published after its acknowledgement: when that one arrives, all have arrived.
std::vector<Message> allRetained(Broker const& broker, std::string const& pattern) {
    RawPeer peer(broker);
    std::string const last = "end-of-retained";
    peer.subscribe(last);
    peer.subscribe(pattern);
    peer.publish(last, "");
    auto const complete = [&](RawPeer::Messages const& all) {
        return !all.empty() && all.back().topic == last;
    };
    require(peer.waitFor(complete), "no end of the retained messages");
    std::vector<Message> found;
    for (Message const& message : peer.messages()) {
        if (message.retain) {
            found.push_back(message);
        }
    }
    return found;
}

std::optional<Message> retained(Broker const& broker, std::string const& topic) {
    std::vector<Message> const found = allRetained(broker, topic);
    return found.empty() ? std::nullopt : std::optional<Message>(found.front());
}

} // namespace support
