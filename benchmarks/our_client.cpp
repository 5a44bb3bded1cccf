#include "benchmark_client.hpp"
#include "samples.hpp"

#include <mqtt/client.hpp>
#include <mqtt/connection_options.hpp>
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
        : port_(port), client_(nextClientId(), false, "", BROKER_HOST, port, false, options()) {}
    ~Connection() { client_.disconnect(TIMEOUT_SECONDS); }
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    mqtt::MqttClient* operator->() { return &client_; }
    mqtt::MqttClient& operator*() { return client_; }
    void connect() { require(client_.connect(BROKER_HOST, port_, TIMEOUT_SECONDS), "connect"); }

private:
    static mqtt::ConnectionOptions options() {
        mqtt::ConnectionOptions result;
        if (!brokersAuthority.empty()) {
            result.tls.emplace().caFile = brokersAuthority;
        }
        return result;
    }

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

/// Writes its value anew for every publication, and reads what it gets.
template <class T>
class ValueStream final : private MqttData<T>::Subscriber {
public:
    ValueStream(int port, std::string const& topic, T value, MessageCounter& received)
        : received_(received),
          subscriberClient_(port),
          publisherClient_(port),
          subscriber_(*subscriberClient_, topic),
          publisher_(*publisherClient_, topic) {
        publisher_.value = std::move(value);
        subscriberClient_.connect();
        publisherClient_.connect();
        received_.reset();
        require(subscriber_.subscribe(this, 0), "subscribe");
        // The readers of the measured types accept any text.
        require(subscriberClient_->publish(subscriber_.topicBase(), PROBE, 0, false), "publish");
        received_.waitFor(1);
        received_.reset();
    }

    void publish() { publisher_.publish(); }

private:
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override { received_.add(); }

    MessageCounter& received_;
    Connection subscriberClient_;
    Connection publisherClient_;
    MqttData<T> subscriber_;
    MqttData<T> publisher_;
};

template <class T>
Action valueStream(int port, std::string const& topic, T value, MessageCounter& received) {
    auto const stream = std::make_shared<ValueStream<T>>(port, topic, std::move(value), received);
    return [stream] { stream->publish(); };
}

/// A service, and a client that requests it.
class Requester final : private mqtt::RequestReplyServer::Listener {
public:
    explicit Requester(int port)
        : serviceClient_(port),
          client_(port),
          server_(*serviceClient_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME),
          requests_(*client_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME) {
        serviceClient_.connect();
        require(server_.subscribe(this, Uuid(), std::make_shared<Text>()), "subscribe");
        // The broker handles the packets of a client in their order: after this acknowledgement the
        // subscription is in force.
        require(serviceClient_->publishWait("bench/probe", PROBE, 1, false, TIMEOUT_SECONDS),
                "publish");
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
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const& /*name*/,
                                                      Uuid const& /*clientUuid*/,
                                                      Uuid const& /*serverUuid*/,
                                                      mqtt::RequestReplyData const& /*requestData*/,
                                                      RequestReply::ErrorCode& /*error*/) override {
        return sentReply_;
    }

    std::shared_ptr<Text> const request_ = std::make_shared<Text>();
    std::shared_ptr<Text> const sentReply_ = std::make_shared<Text>();
    std::shared_ptr<Text> const reply_ = std::make_shared<Text>();
    Connection serviceClient_;
    Connection client_;
    mqtt::RequestReplyServer server_;
    mqtt::RequestReplyClient requests_;
};

class OurLibrary final : public ClientLibrary {
public:
    OurLibrary()
        : ClientLibrary("ours", [](int port) { return std::make_unique<OurClient>(port); }) {}

    Action makeValueStream(int port, std::string const& topic, Document document,
                           MessageCounter& received) const override {
        return document == Document::COMMUNICATION
                   ? valueStream(port, topic, sampleCommunication(), received)
                   : valueStream(port, topic, sampleIdentification(), received);
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
