#include "support/raw_peer.hpp"

#include "support/socket.hpp"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace support {

namespace {

void check(int result, char const* operation) {
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string("raw peer: ") + operation + ": "
                                 + mosquitto_strerror(result));
    }
}

void require(bool condition, char const* what) {
    if (!condition) {
        throw std::runtime_error(std::string("raw peer: ") + what);
    }
}

std::string uniqueName(char const* what) {
    static std::atomic<unsigned> counter{0};
    return std::string(what) + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

/// Otherwise the kernel delays the acknowledgements, and a broker with its default settings waits
/// for them: 44 ms for every exchange.
void acknowledgeAtOnce(int socket) {
    int const on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

} // namespace

RawPeer::RawPeer(std::string const& host, int port, Options const& options)
    : host_(host), port_(port), client_(nullptr, &mosquitto_destroy) {
    // Never undone: clients may live in static objects.
    static int const initialised = mosquitto_lib_init();
    check(initialised, "initialise");
    std::string const id = options.clientId.empty() ? uniqueName("raw") : options.clientId;
    client_.reset(mosquitto_new(id.c_str(), options.cleanSession, this));
    require(client_ != nullptr, "cannot be made");
    check(mosquitto_threaded_set(client_.get(), true), "threads");
    check(mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1), "option");
    setCallbacks();
    connect();
}

RawPeer::~RawPeer() {
    mosquitto_disconnect(client_.get());
    endNetwork();
}

void RawPeer::connect() {
    endNetwork();
    seen_.change([](Seen& seen) { seen.connack.reset(); });
    check(mosquitto_connect(client_.get(), host_.c_str(), port_, 60), "connect");
    stop_ = false;
    network_ = std::thread([this] { runNetwork(); });
    bool const answered = seen_.waitFor([](Seen const& seen) { return seen.connack.has_value(); });
    if (!seen_.read([](Seen const& seen) { return seen.connected; })) {
        endNetwork();
    }
    require(answered, "no answer to CONNECT");
    check(seen_.read([](Seen const& seen) { return *seen.connack; }), "connection refused");
}

void RawPeer::subscribe(std::string const& topic, int qos) {
    int mid = 0;
    check(mosquitto_subscribe(client_.get(), &mid, topic.c_str(), qos), "subscribe");
    auto const answered = [&](Seen const& seen) { return seen.subscriptions.count(mid) > 0; };
    require(seen_.waitFor(answered), "no answer to SUBSCRIBE");
    bool const granted = seen_.read([&](Seen const& seen) { return seen.subscriptions.at(mid); });
    require(granted, "subscription refused");
}

void RawPeer::post(std::string const& topic, std::string const& payload, int qos, bool retain) {
    int mid = 0;
    check(mosquitto_publish(client_.get(), &mid, topic.c_str(), static_cast<int>(payload.size()),
                            payload.data(), qos, retain),
          "publish");
    seen_.change([&](Seen& seen) {
        if (seen.early.erase(mid) == 0) {
            seen.pending.insert(mid);
        }
    });
}

void RawPeer::waitForAcknowledgements() const {
    require(seen_.waitFor([](Seen const& seen) { return seen.pending.empty(); }),
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
    seen_.change([](Seen& seen) {
        seen.connected = false;
        if (!seen.connack) {
            seen.connack = MOSQ_ERR_CONN_LOST;
        }
    });
}

void RawPeer::endNetwork() {
    stop_ = true;
    if (network_.joinable()) {
        network_.join();
    }
}

/// Runs `change(seen)` on what the peer behind a callback of the library has seen.
template <class Change>
void RawPeer::note(void* peer, Change const& change) {
    static_cast<RawPeer*>(peer)->seen_.change(change);
}

void RawPeer::setCallbacks() {
    mosquitto* const client = client_.get();
    mosquitto_connect_callback_set(client, [](mosquitto*, void* peer, int code) {
        note(peer, [&](Seen& seen) {
            seen.connack = code;
            seen.connected = code == 0;
        });
    });
    mosquitto_disconnect_callback_set(client, [](mosquitto*, void* peer, int) {
        note(peer, [](Seen& seen) { seen.connected = false; });
    });
    mosquitto_publish_callback_set(client, [](mosquitto*, void* peer, int mid) {
        note(peer, [&](Seen& seen) {
            if (seen.pending.erase(mid) == 0) {
                seen.early.insert(mid);
            }
        });
    });
    mosquitto_subscribe_callback_set(client, [](mosquitto*, void* peer, int mid, int count,
                                                int const* granted) {
        constexpr int REFUSED = 128;
        note(peer,
             [&](Seen& seen) { seen.subscriptions[mid] = count == 0 || granted[0] != REFUSED; });
    });
    mosquitto_message_callback_set(
        client, [](mosquitto*, void* peer, mosquitto_message const* message) {
            auto const* const bytes = static_cast<char const*>(message->payload);
            std::string payload(bytes, bytes + message->payloadlen);
            note(peer, [&](Seen& seen) {
                seen.messages.push_back(
                    {message->topic, std::move(payload), message->qos, message->retain});
            });
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
