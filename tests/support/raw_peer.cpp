#include "support/raw_peer.hpp"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

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

std::string uniqueName(std::string const& what) {
    static std::atomic<unsigned> counter{0};
    return what + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

/// Otherwise the kernel delays the acknowledgements, and a broker with its default settings waits
/// for them: 44 ms for every exchange.
void acknowledgeAtOnce(int socket) {
    int const on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

} // namespace

RawPeer::RawPeer(std::string const& host, int port, Options const& options)
    : client_(nullptr, &mosquitto_destroy) {
    // Never undone: clients may live in static objects.
    static int const initialised = mosquitto_lib_init();
    check(initialised, "initialise");
    std::string const id = options.clientId.empty() ? uniqueName("raw") : options.clientId;
    client_.reset(mosquitto_new(id.c_str(), options.cleanSession, &seen_));
    require(client_ != nullptr, "cannot be made");
    check(mosquitto_threaded_set(client_.get(), true), "threads");
    check(mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1), "option");
    setCallbacks();
    check(mosquitto_connect(client_.get(), host.c_str(), port, 60), "connect");
    network_ = std::thread([this] { runNetwork(); });
    seen_.waitFor([](Seen const& seen) { return seen.connack.has_value(); });
    int const connack = seen_.copy().connack.value_or(MOSQ_ERR_CONN_LOST);
    if (connack != 0) {
        stop_ = true;
        network_.join();
    }
    check(connack, "connection refused or lost");
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

void RawPeer::runNetwork() {
    while (!stop_ && mosquitto_loop(client_.get(), 100, 1) == MOSQ_ERR_SUCCESS) {
        acknowledgeAtOnce(mosquitto_socket(client_.get()));
    }
    seen_.change([](Seen& seen) { seen.connack = seen.connack.value_or(MOSQ_ERR_CONN_LOST); });
}

void RawPeer::setCallbacks() {
    using Watch = Watched<Seen>;
    mosquitto* const client = client_.get();
    mosquitto_connect_callback_set(client, [](mosquitto*, void* watch, int code) {
        static_cast<Watch*>(watch)->change([&](Seen& seen) { seen.connack = code; });
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
    std::string const last = uniqueName("end-of-retained");
    peer.subscribe(last, 2);
    peer.subscribe(pattern, 2);
    peer.publish(last, "", 2, false);
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
