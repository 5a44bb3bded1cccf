#include "support/raw_peer.hpp"

#include "support/socket.hpp"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ostream>
#include <stdexcept>
#include <tuple>

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

/// Before the first client, and never undone: clients may live in static objects.
void initialiseLibrary() {
    static int const result = mosquitto_lib_init();
    check(result, "initialise");
}

/// Otherwise the kernel delays the acknowledgements, and a broker with its default settings waits
/// for them: 44 ms for every exchange.
void acknowledgeAtOnce(int socket) {
    int const on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

} // namespace

bool operator==(Message const& a, Message const& b) {
    return std::tie(a.topic, a.payload, a.qos, a.retain)
           == std::tie(b.topic, b.payload, b.qos, b.retain);
}

std::ostream& operator<<(std::ostream& out, Message const& message) {
    return out << "{\"" << message.topic << "\", \"" << message.payload << "\", qos " << message.qos
               << (message.retain ? ", retained}" : "}");
}

RawPeer::RawPeer(Broker const& broker, Options const& options)
    : RawPeer(broker.host(), broker.port(), options) {}

RawPeer::RawPeer(std::string const& host, int port, Options const& options)
    : host_(host), port_(port), client_(nullptr, &mosquitto_destroy) {
    initialiseLibrary();
    std::string const id = options.clientId.empty() ? uniqueName("raw") : options.clientId;
    client_.reset(mosquitto_new(id.c_str(), options.cleanSession, this));
    require(client_ != nullptr, "cannot be made");
    check(mosquitto_threaded_set(client_.get(), true), "threads");
    check(mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1), "option");
    setCallbacks();
    if (options.connect) {
        connect();
    }
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
    if (!connected()) {
        endNetwork();
    }
    require(answered, "no answer to CONNECT");
    check(seen_.read([](Seen const& seen) { return *seen.connack; }), "connection refused");
}

void RawPeer::disconnect() {
    check(mosquitto_disconnect(client_.get()), "disconnect");
    require(waitForConnectionLoss(), "stays connected");
    endNetwork();
}

void RawPeer::drop() {
    int const socket = mosquitto_socket(client_.get());
    if (socket >= 0) {
        ::shutdown(socket, SHUT_RDWR);
        require(waitForConnectionLoss(), "stays connected");
    }
    endNetwork();
}

bool RawPeer::connected() const {
    return seen_.read([](Seen const& seen) { return seen.connected; });
}

bool RawPeer::waitForConnectionLoss(std::chrono::milliseconds deadline) const {
    return seen_.waitFor([](Seen const& seen) { return !seen.connected; }, deadline);
}

void RawPeer::subscribe(std::string const& topic, int qos) {
    int mid = 0;
    check(mosquitto_subscribe(client_.get(), &mid, topic.c_str(), qos), "subscribe");
    waitForAcknowledgement(mid, "no answer to SUBSCRIBE");
    require(!seen_.read([](Seen const& seen) { return seen.refused; }), "subscription refused");
}

void RawPeer::unsubscribe(std::string const& topic) {
    int mid = 0;
    check(mosquitto_unsubscribe(client_.get(), &mid, topic.c_str()), "unsubscribe");
    waitForAcknowledgement(mid, "no answer to UNSUBSCRIBE");
}

void RawPeer::waitForAcknowledgement(int mid, char const* what) const {
    require(seen_.waitFor([&](Seen const& seen) { return seen.acknowledged.count(mid) > 0; }),
            what);
}

void RawPeer::publish(std::string const& topic, std::string const& payload, int qos, bool retain) {
    post(topic, payload, qos, retain);
    waitForAcknowledgements();
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

RawPeer::Messages RawPeer::messages() const {
    return seen_.read([](Seen const& seen) { return seen.messages; });
}

std::vector<std::string> RawPeer::payloads() const {
    std::vector<std::string> result;
    for (Message const& message : messages()) {
        result.push_back(message.payload);
    }
    return result;
}

void RawPeer::clearMessages() {
    seen_.change([](Seen& seen) { seen.messages.clear(); });
}

bool RawPeer::waitForMessages(std::size_t count, std::chrono::milliseconds deadline) const {
    return waitFor([&](Messages const& all) { return all.size() >= count; }, deadline);
}

bool RawPeer::waitFor(std::function<bool(Messages const&)> const& condition,
                      std::chrono::milliseconds deadline) const {
    return seen_.waitFor([&](Seen const& seen) { return condition(seen.messages); }, deadline);
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
    mosquitto_subscribe_callback_set(
        client, [](mosquitto*, void* peer, int mid, int count, int const* granted) {
            constexpr int REFUSED = 128;
            note(peer, [&](Seen& seen) {
                seen.acknowledged.insert(mid);
                seen.refused = count > 0 && granted[0] == REFUSED;
            });
        });
    mosquitto_unsubscribe_callback_set(client, [](mosquitto*, void* peer, int mid) {
        note(peer, [&](Seen& seen) { seen.acknowledged.insert(mid); });
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
