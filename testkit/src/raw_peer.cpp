#include "mqtt/test/raw_peer.hpp"

#include "mqtt/test/test_client.hpp"

#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>

namespace mqtt::test {

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

RawPeer::RawPeer(Address const& address) {
    require(client_ != nullptr, "cannot be made");
    check(mosquitto_threaded_set(client_.get(), true), "threads");
    check(mosquitto_int_option(client_.get(), MOSQ_OPT_TCP_NODELAY, 1), "option");
    setCallbacks();
    connect(address);
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

void RawPeer::connect(Address const& address) {
    if (auto const& login = address.credentials) {
        check(mosquitto_username_pw_set(client_.get(), login->userName.c_str(),
                                        login->password.c_str()),
              "credentials");
    }
    check(mosquitto_connect(client_.get(), address.host.c_str(), address.port, 60), "connect");
    auto const isConnected = [&] {
        check(step(), "connection refused or lost");
        return seen_.copy().connected;
    };
    require(eventually(isConnected), "no answer to CONNECT");
}

void RawPeer::subscribe(std::string const& pattern, int qos) {
    seen_.change([](Seen& seen) { seen.granted.reset(); });
    check(mosquitto_subscribe(client_.get(), nullptr, pattern.c_str(), qos), "subscribe");
    auto const answered = [](Seen const& seen) { return seen.granted.has_value(); };
    require(seen_.waitFor(answered), "no answer to SUBSCRIBE");
    require(*seen_.copy().granted, "subscription refused");
}

void RawPeer::subscribeToRetained(std::string const& pattern) {
    // The broker queues retained messages when it handles the subscription, so ahead of a message
    // that is published after its acknowledgement: when that one arrives, all have arrived.
    std::string const last = "end-of-retained/" + uniqueId().base64URL();
    auto const isLast = [&](Message const& one) { return one.topic == last; };
    subscribe(last);
    subscribe(pattern);
    publish(last, "");
    require(
        waitFor([&](Messages const& all) { return std::any_of(all.begin(), all.end(), isLast); }),
        "no end of the retained messages");
    seen_.change([&](Seen& seen) {
        auto& all = seen.messages;
        all.erase(std::remove_if(all.begin(), all.end(), isLast), all.end());
    });
}

void RawPeer::publish(std::string const& topic, std::string const& payload, int qos, bool retain) {
    post(topic, payload, qos, retain);
    waitForAcknowledgements();
}

void RawPeer::post(std::string const& topic, std::string const& payload, int qos, bool retain) {
    seen_.change([](Seen& seen) { ++seen.pending; });
    auto const size = static_cast<int>(payload.size());
    int const result =
        mosquitto_publish(client_.get(), nullptr, topic.c_str(), size, payload.data(), qos, retain);
    if (result != MOSQ_ERR_SUCCESS) {
        seen_.change([](Seen& seen) { --seen.pending; }); // it will not be acknowledged
    }
    check(result, "publish");
}

void RawPeer::waitForAcknowledgements() const {
    require(seen_.waitFor([](Seen const& seen) { return seen.pending == 0; }),
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

bool RawPeer::waitForMessage(std::string const& topic, std::string const& payload,
                             std::chrono::milliseconds deadline) const {
    auto const matches = [&](Message const& one) {
        return one.topic == topic && one.payload == payload;
    };
    return waitFor(
        [&](Messages const& all) { return std::any_of(all.begin(), all.end(), matches); },
        deadline);
}

mosquitto* RawPeer::newClient(Watched<Seen>& seen) {
    // Never undone: clients may live in static objects.
    static int const initialised = mosquitto_lib_init();
    check(initialised, "initialise");
    return mosquitto_new(nullptr, true, &seen); // the broker chooses the identifier
}

void RawPeer::destroyClient(mosquitto* client) {
    mosquitto_destroy(client);
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

std::vector<Message> allRetained(Address const& broker, std::string const& pattern) {
    RawPeer peer(broker);
    peer.subscribeToRetained(pattern);
    std::vector<Message> found;
    for (Message const& message : peer.messages()) {
        if (message.retain) {
            found.push_back(message);
        }
    }
    return found;
}

std::optional<Message> retained(Address const& broker, std::string const& topic) {
    auto const found = allRetained(broker, topic);
    return found.empty() ? std::nullopt : std::optional<Message>(found.front());
}

} // namespace mqtt::test
