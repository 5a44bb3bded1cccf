#include "our_typed.hpp"

#include "documents.hpp"
#include "our_client.hpp"

#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <stdexcept>
#include <utility>

namespace bench {
namespace {

using mqtt::MqttData;
using mqtt::RequestReply;
using zym::common::Uuid;

/// Renders its value anew for every publication.
template <class T>
class OurValuePublisher final : public ValuePublisher {
public:
    OurValuePublisher(int port, std::string const& topic, T value)
        : client_(port), endpoint_(*client_, topic) {
        endpoint_.value = std::move(value);
        client_.connect();
    }

    void publish() override { endpoint_.publish(); }

private:
    OurClient client_;
    MqttData<T> endpoint_;
};

template <class T>
class OurValueSubscriber final : public Subscriber, private MqttData<T>::Subscriber {
public:
    OurValueSubscriber(int port, std::string const& topic, Tally& received)
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

    Tally& received_;
    OurClient client_;
    MqttData<T> endpoint_;
};

class OurAnsweringService final : private mqtt::RequestReplyServer::Listener {
public:
    explicit OurAnsweringService(int port)
        : client_(port), server_(*client_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME) {
        client_.connect();
        require(server_.subscribe(this, Uuid(), std::make_shared<Text>()), "subscribe");
        // The broker acknowledges in order.
        require(client_->publishWait("bench/probe", PROBE, 1, false, PATIENCE), "publish");
    }

private:
    std::shared_ptr<mqtt::RequestReplyData> onRequest(std::string const& /*name*/,
                                                      Uuid const& /*clientUuid*/,
                                                      Uuid const& /*serverUuid*/,
                                                      mqtt::RequestReplyData const& /*requestData*/,
                                                      RequestReply::ErrorCode& /*error*/) override {
        return answer_;
    }

    std::shared_ptr<Text> const answer_ = std::make_shared<Text>();
    OurClient client_;
    mqtt::RequestReplyServer server_;
};

class OurRequester final : public Requester {
public:
    explicit OurRequester(int port)
        : service_(port),
          client_(port),
          requests_(*client_, SERVICE_BASE, mqtt::Topic(), SERVICE_NAME) {
        client_.connect();
    }

    void request() override {
        auto const code =
            requests_.requestWait(Uuid(REQUESTER), Uuid(), question_, answer_, PATIENCE);
        if (code != RequestReply::ErrorCode::SUCCESS) {
            throw std::runtime_error("our request ended with code "
                                     + std::to_string(static_cast<int>(code)));
        }
    }

private:
    std::shared_ptr<Text> const question_ = std::make_shared<Text>();
    std::shared_ptr<Text> const answer_ = std::make_shared<Text>();
    OurAnsweringService service_;
    OurClient client_;
    mqtt::RequestReplyClient requests_;
};

} // namespace

std::unique_ptr<ValuePublisher> makeOurValuePublisher(int port, std::string const& topic,
                                                      Document document) {
    if (document == Document::COMMUNICATION) {
        return std::make_unique<OurValuePublisher<conv::CommunicationStatus>>(
            port, topic, sampleCommunication());
    }
    return std::make_unique<OurValuePublisher<conv::Identification>>(port, topic,
                                                                     sampleIdentification());
}

std::unique_ptr<Subscriber> makeOurValueSubscriber(int port, std::string const& topic,
                                                   Document document, Tally& received) {
    if (document == Document::COMMUNICATION) {
        return std::make_unique<OurValueSubscriber<conv::CommunicationStatus>>(port, topic,
                                                                               received);
    }
    return std::make_unique<OurValueSubscriber<conv::Identification>>(port, topic, received);
}

std::unique_ptr<Requester> makeOurRequester(int port) {
    return std::make_unique<OurRequester>(port);
}

} // namespace bench
