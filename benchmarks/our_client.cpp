#include "benchmark_client.hpp"

#include "mqtt/test/test_client.hpp"

#include <mqtt/client.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

using mqtt::MqttClient;
using mqtt::MqttData;
using mqtt::RequestReply;
using zym::common::Uuid;

constexpr std::uint32_t TIMEOUT_SECONDS = 60;

void require(MqttClient::Error result, char const* operation) {
    if (result != MqttClient::Error::SUCCESS) {
        std::ostringstream text;
        text << "our " << operation << ": " << result;
        throw std::runtime_error(text.str());
    }
}

std::unique_ptr<MqttClient> idleClient(BenchmarkBroker const& broker) {
    return mqtt::test::testClient(broker, {false, false});
}

std::unique_ptr<MqttClient> connectedClient(BenchmarkBroker const& broker) {
    auto client = idleClient(broker);
    require(client->connect(broker.host(), broker.port(), TIMEOUT_SECONDS), "connect");
    return client;
}

class OurClient final : public ClientWithTopics<mqtt::Topic>, private MqttClient::Subscriber {
public:
    explicit OurClient(BenchmarkBroker const& broker)
        : host_(broker.host()), port_(broker.port()), client_(idleClient(broker)) {}
    ~OurClient() override {
        client_->release(this);
        client_->disconnect(TIMEOUT_SECONDS);
    }

    void connect() override { require(client_->connect(host_, port_, TIMEOUT_SECONDS), "connect"); }
    void disconnect() override { require(client_->disconnect(TIMEOUT_SECONDS), "disconnect"); }

    void subscribe(TopicId topic) override {
        require(client_->subscribe(formOf(topic), this, 0), "subscribe");
    }
    void unsubscribe(TopicId topic) override {
        require(client_->unsubscribe(formOf(topic), this), "unsubscribe");
    }
    void publish(TopicId topic, std::string const& payload, int qos, bool retain) override {
        require(client_->publish(formOf(topic), payload, qos, retain), "publish");
    }
    void publishAndWait(TopicId topic, std::string const& payload, int qos) override {
        require(client_->publishWait(formOf(topic), payload, qos, false, TIMEOUT_SECONDS),
                "publishWait");
    }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& payload) override {
        onMessage(payload);
    }

    std::string const host_;
    int const port_;
    std::unique_ptr<MqttClient> const client_;
};

/// Writes its value anew for every publication, and reads what it gets.
template <class T>
class ValueStream final : private MqttData<T>::Subscriber {
public:
    ValueStream(BenchmarkBroker const& broker, std::string const& topic, T value,
                MessageCounter& received)
        : received_(received),
          subscriberClient_(connectedClient(broker)),
          publisherClient_(connectedClient(broker)),
          subscriber_(*subscriberClient_, topic),
          publisher_(*publisherClient_, topic) {
        publisher_.value = std::move(value);
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
    std::unique_ptr<MqttClient> const subscriberClient_;
    std::unique_ptr<MqttClient> const publisherClient_;
    MqttData<T> subscriber_;
    MqttData<T> publisher_;
};

template <class T>
Action valueStream(BenchmarkBroker const& broker, std::string const& topic, T value,
                   MessageCounter& received) {
    auto const stream = std::make_shared<ValueStream<T>>(broker, topic, std::move(value), received);
    return [stream] { stream->publish(); };
}

/// A service, and a client that requests it.
class Requester final : private mqtt::RequestReplyServer::Listener {
public:
    explicit Requester(BenchmarkBroker const& broker)
        : serviceClient_(connectedClient(broker)), client_(connectedClient(broker)) {
        require(server_.subscribe(this, Uuid(), std::make_shared<Text>()), "subscribe");
        // The broker handles the packets of a client in their order: after this acknowledgement the
        // subscription is in force.
        require(serviceClient_->publishWait("bench/probe", PROBE, 1, false, TIMEOUT_SECONDS),
                "publish");
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
    std::unique_ptr<MqttClient> const serviceClient_;
    std::unique_ptr<MqttClient> const client_;
    mqtt::RequestReplyServer server_{*serviceClient_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME};
    mqtt::RequestReplyClient requests_{*client_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME};
};

} // namespace

Action makeOurValueStream(BenchmarkBroker const& broker, std::string const& topic,
                          Document document, MessageCounter& received) {
    return document == Document::COMMUNICATION
               ? valueStream(broker, topic, sampleCommunication(), received)
               : valueStream(broker, topic, sampleIdentification(), received);
}

Action makeOurRequester(BenchmarkBroker const& broker) {
    auto const requester = std::make_shared<Requester>(broker);
    return [requester] { requester->request(); };
}

ClientLibrary ourLibrary() {
    return {"ours", std::make_unique<OurClient, BenchmarkBroker const&>, true};
}

} // namespace bench
