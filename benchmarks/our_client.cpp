#include "benchmark_client.hpp"
#include "samples.hpp"
#include "text_exchanges.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace bench {
namespace {

using mqtt::MqttData;
using mqtt::RequestReply;
using zym::common::Uuid;

constexpr std::uint32_t TIMEOUT_SECONDS = 60;

void require(mqtt::MqttClient::Error result, char const* operation) {
    if (result != mqtt::MqttClient::Error::SUCCESS) {
        std::ostringstream text;
        text << "our " << operation << ": " << result;
        throw std::runtime_error(text.str());
    }
}

Uuid nextClientId() {
    static unsigned long long last = 0;
    return Uuid(++last);
}

/// A client that disconnects before it goes.
class Connection {
public:
    explicit Connection(int port)
        : port_(port), client_(nextClientId(), false, "", BROKER_HOST, port, false) {}
    ~Connection() { client_.disconnect(TIMEOUT_SECONDS); }
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    mqtt::MqttClient* operator->() { return &client_; }
    mqtt::MqttClient& operator*() { return client_; }
    void connect() { require(client_.connect(BROKER_HOST, port_, TIMEOUT_SECONDS), "connect"); }

private:
    int const port_;
    mqtt::MqttClient client_;
};

class OurClient final : public BenchmarkClient, private mqtt::MqttClient::Subscriber {
public:
    explicit OurClient(int port) : client_(port) {}
    ~OurClient() override { client_->release(this); }

    void connect() override { client_.connect(); }
    void disconnect() override { require(client_->disconnect(TIMEOUT_SECONDS), "disconnect"); }

    TopicId addTopic(std::string const& text) override {
        topics_.emplace_back(text);
        return topics_.size() - 1;
    }
    void subscribe(TopicId topic) override {
        require(client_->subscribe(topics_[topic], this, 0), "subscribe");
    }
    void unsubscribe(TopicId topic) override {
        require(client_->unsubscribe(topics_[topic], this), "unsubscribe");
    }
    void publish(TopicId topic, std::string const& payload, int qos, bool retain) override {
        require(client_->publish(topics_[topic], payload, qos, retain), "publish");
    }
    void publishAndWait(TopicId topic, std::string const& payload, int qos) override {
        require(client_->publishWait(topics_[topic], payload, qos, false, TIMEOUT_SECONDS),
                "publishWait");
    }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& payload) override {
        onMessage(payload);
    }

    std::vector<mqtt::Topic> topics_;
    Connection client_;
};

/// Writes its value anew for every publication.
template <class T>
struct ValuePublisher {
    ValuePublisher(int port, std::string const& topic, T value)
        : client(port), endpoint(*client, topic) {
        endpoint.value = std::move(value);
        client.connect();
    }

    Connection client;
    MqttData<T> endpoint;
};

template <class T>
Action valuePublisher(int port, std::string const& topic, T value) {
    auto const publisher = std::make_shared<ValuePublisher<T>>(port, topic, std::move(value));
    return [publisher] { publisher->endpoint.publish(); };
}

/// The readers of the measured types accept any text, so the probe reaches the subscriber too.
template <class T>
class ValueSubscriber final : private MqttData<T>::Subscriber {
public:
    ValueSubscriber(int port, std::string const& topic, MessageCounter& received)
        : received_(received), client_(port), endpoint_(*client_, topic) {
        client_.connect();
        received_.reset();
        require(endpoint_.subscribe(this, 0), "subscribe");
        require(client_->publish(endpoint_.topicBase(), PROBE, 0, false), "publish");
        received_.waitFor(1);
        received_.reset();
    }

private:
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override { received_.add(); }

    MessageCounter& received_;
    Connection client_;
    MqttData<T> endpoint_;
};

class Service final : private mqtt::RequestReplyServer::Listener {
public:
    explicit Service(int port)
        : client_(port), server_(*client_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME) {
        client_.connect();
        require(server_.subscribe(this, Uuid(), std::make_shared<Text>()), "subscribe");
        // The broker handles the packets of a client in their order: after this acknowledgement the
        // subscription is in force.
        require(client_->publishWait("bench/probe", PROBE, 1, false, TIMEOUT_SECONDS), "publish");
    }

private:
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const& /*name*/,
                                                      Uuid const& /*clientUuid*/,
                                                      Uuid const& /*serverUuid*/,
                                                      mqtt::RequestReplyData const& /*requestData*/,
                                                      RequestReply::ErrorCode& /*error*/) override {
        return reply_;
    }

    std::shared_ptr<Text> const reply_ = std::make_shared<Text>();
    Connection client_;
    mqtt::RequestReplyServer server_;
};

class Requester {
public:
    explicit Requester(int port)
        : service_(port),
          client_(port),
          requests_(*client_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME) {
        client_.connect();
    }

    void request() {
        auto const code =
            requests_.requestWait(Uuid(REQUESTER), Uuid(), request_, reply_, TIMEOUT_SECONDS);
        if (code != RequestReply::ErrorCode::SUCCESS) {
            throw std::runtime_error("our request ended with code "
                                     + std::to_string(static_cast<int>(code)));
        }
    }

private:
    std::shared_ptr<Text> const request_ = std::make_shared<Text>();
    std::shared_ptr<Text> const reply_ = std::make_shared<Text>();
    Service service_;
    Connection client_;
    mqtt::RequestReplyClient requests_;
};

class OurLibrary final : public ClientLibrary {
public:
    OurLibrary()
        : ClientLibrary("ours", [](int port) { return std::make_unique<OurClient>(port); }) {}

    Action makeValuePublisher(int port, std::string const& topic,
                              Document document) const override {
        return document == Document::COMMUNICATION
                   ? valuePublisher(port, topic, sampleCommunication())
                   : valuePublisher(port, topic, sampleIdentification());
    }
    std::shared_ptr<void> makeValueSubscriber(int port, std::string const& topic, Document document,
                                              MessageCounter& received) const override {
        if (document == Document::COMMUNICATION) {
            return std::make_shared<ValueSubscriber<conv::CommunicationStatus>>(port, topic,
                                                                                received);
        }
        return std::make_shared<ValueSubscriber<conv::Identification>>(port, topic, received);
    }
    Action makeRequester(int port) const override {
        auto const requester = std::make_shared<Requester>(port);
        return [requester] { requester->request(); };
    }
};

} // namespace

std::unique_ptr<ClientLibrary> ourLibrary() {
    return std::make_unique<OurLibrary>();
}

} // namespace bench
