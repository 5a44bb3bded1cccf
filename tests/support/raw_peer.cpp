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

void mustHold(bool held, char const* what) {
    if (!held) {
        throw std::runtime_error(std::string("raw peer: ") + what);
    }
}

std::string uniqueName(char const* what) {
    static std::atomic<unsigned> counter{0};
    return std::string(what) + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

/// Initialised before the first client and left so: clients may live in static objects.
void initialiseLibrary() {
    static int const result = mosquitto_lib_init();
    check(result, "initialise");
}

/// Without it the kernel holds our acknowledgements back, and a broker with its default
/// settings waits for them: 44 ms for every exchange.
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
    : host_(host),
      port_(port),
      keepAlive_(options.keepAlive),
      client_(nullptr, &mosquitto_destroy) {
    create(options);
    if (options.connect) {
        connect();
    }
}

RawPeer::~RawPeer() {
    mosquitto_disconnect(client_.get());
    endNetwork();
}

void RawPeer::create(Options const& options) {
    initialiseLibrary();
    std::string const id = options.clientId.empty() ? uniqueName("raw") : options.clientId;
    client_.reset(mosquitto_new(id.c_str(), options.cleanSession, this));
    mustHold(client_ != nullptr, "cannot be made");
    check(mosquitto_threaded_set(client_.get(), true), "threads");
    check(mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1), "option");
    if (options.will) {
        Message const& will = *options.will;
        check(mosquitto_will_set(client_.get(), will.topic.c_str(),
                                 static_cast<int>(will.payload.size()), will.payload.data(),
                                 will.qos, will.retain),
              "will");
    }
    mosquitto_connect_callback_set(client_.get(), onConnect);
    mosquitto_disconnect_callback_set(client_.get(), onDisconnect);
    mosquitto_publish_callback_set(client_.get(), onPublish);
    mosquitto_subscribe_callback_set(client_.get(), onSubscribe);
    mosquitto_unsubscribe_callback_set(client_.get(), onUnsubscribe);
    mosquitto_message_callback_set(client_.get(), onMessage);
}

void RawPeer::connect() {
    endNetwork();
    seen_.change([](Seen& seen) { seen.connack.reset(); });
    check(mosquitto_connect(client_.get(), host_.c_str(), port_, keepAlive_), "connect");
    stop_ = false;
    network_ = std::thread([this] { runNetwork(); });
    mustHold(seen_.waitFor([](Seen const& seen) { return seen.connack.has_value(); }),
             "no answer to CONNECT");
    check(seen_.read([](Seen const& seen) { return *seen.connack; }), "connection refused");
}

void RawPeer::disconnect() {
    check(mosquitto_disconnect(client_.get()), "disconnect");
    mustHold(waitForConnectionLoss(), "stays connected");
    endNetwork();
}

void RawPeer::drop() {
    int const socket = mosquitto_socket(client_.get());
    if (socket >= 0) {
        ::shutdown(socket, SHUT_RDWR);
        mustHold(waitForConnectionLoss(), "stays connected");
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
    mustHold(seen_.waitFor([&](Seen const& seen) { return seen.subscribed.count(mid) > 0; }),
             "no answer to SUBSCRIBE");
    mustHold(seen_.read([&](Seen const& seen) { return seen.refused.count(mid) == 0; }),
             "subscription refused");
}

void RawPeer::unsubscribe(std::string const& topic) {
    int mid = 0;
    check(mosquitto_unsubscribe(client_.get(), &mid, topic.c_str()), "unsubscribe");
    mustHold(seen_.waitFor([&](Seen const& seen) { return seen.unsubscribed.count(mid) > 0; }),
             "no answer to UNSUBSCRIBE");
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
    mustHold(seen_.waitFor([](Seen const& seen) { return seen.pending.empty(); }),
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

void RawPeer::onConnect(mosquitto* /*client*/, void* self, int code) {
    static_cast<RawPeer*>(self)->seen_.change([&](Seen& seen) {
        seen.connack = code;
        seen.connected = code == 0;
    });
}

void RawPeer::onDisconnect(mosquitto* /*client*/, void* self, int /*code*/) {
    static_cast<RawPeer*>(self)->seen_.change([](Seen& seen) { seen.connected = false; });
}

void RawPeer::onPublish(mosquitto* /*client*/, void* self, int mid) {
    static_cast<RawPeer*>(self)->seen_.change([&](Seen& seen) {
        if (seen.pending.erase(mid) == 0) {
            seen.early.insert(mid);
        }
    });
}

void RawPeer::onSubscribe(mosquitto* /*client*/, void* self, int mid, int count,
                          int const* granted) {
    constexpr int REFUSED = 128;
    static_cast<RawPeer*>(self)->seen_.change([&](Seen& seen) {
        seen.subscribed.insert(mid);
        if (count > 0 && granted[0] == REFUSED) {
            seen.refused.insert(mid);
        }
    });
}

void RawPeer::onUnsubscribe(mosquitto* /*client*/, void* self, int mid) {
    static_cast<RawPeer*>(self)->seen_.change([&](Seen& seen) { seen.unsubscribed.insert(mid); });
}

void RawPeer::onMessage(mosquitto* /*client*/, void* self, mosquitto_message const* message) {
    Message copy{message->topic, {}, message->qos, message->retain};
    if (message->payloadlen > 0) {
        copy.payload.assign(static_cast<char const*>(message->payload),
                            static_cast<std::size_t>(message->payloadlen));
    }
    static_cast<RawPeer*>(self)->seen_.change(
        [&](Seen& seen) { seen.messages.push_back(std::move(copy)); });
}

/// The broker queues what it retains when it handles the subscription, so ahead of a message
/// published after its acknowledgement: when that arrives, all has arrived.
std::vector<Message> allRetained(Broker const& broker, std::string const& pattern) {
    RawPeer peer(broker);
    std::string const last = uniqueName("end-of-retained");
    peer.subscribe(last, 2);
    peer.subscribe(pattern, 2);
    peer.publish(last, "", 2, false);
    auto const complete = [&](RawPeer::Messages const& all) {
        return !all.empty() && all.back().topic == last;
    };
    mustHold(peer.waitFor(complete), "no end of the retained messages");
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
