#include "benchmark_client.hpp"

#include <utility>

namespace bench {
namespace {

/// The broker handles the packets of one client in their order.
void subscribeAndConfirm(BenchmarkClient& client, BenchmarkClient::TopicId topic,
                         MessageCounter& received) {
    received.reset();
    client.subscribe(topic);
    client.publish(topic, PROBE, 0, false);
    received.waitFor(1);
    received.reset();
}

} // namespace

std::shared_ptr<BenchmarkClient> makeCountingSubscriber(ClientLibrary const& library,
                                                        BenchmarkBroker const& broker,
                                                        std::string const& topic,
                                                        MessageCounter& received) {
    std::shared_ptr<BenchmarkClient> client = library.makeClient(broker);
    client->onMessage = [&received](std::string_view /*payload*/) { received.add(); };
    client->connect();
    subscribeAndConfirm(*client, client->addTopic(topic), received);
    return client;
}

Dialogue::Dialogue(ClientLibrary const& library, BenchmarkBroker const& broker, ExchangeTexts texts)
    : texts_(std::move(texts)),
      responder_(library.makeClient(broker)),
      requester_(library.makeClient(broker)),
      responderReplyTopic_(responder_->addTopic(texts_.replyTopic)),
      requestTopic_(requester_->addTopic(texts_.requestTopic)),
      replyTopic_(requester_->addTopic(texts_.replyTopic)) {
    responder_->onMessage = [this](std::string_view payload) { answer(payload); };
    responder_->connect();
    subscribeAndConfirm(*responder_, responder_->addTopic(texts_.requestTopic), probes_);
    requester_->onMessage = [this](std::string_view /*payload*/) { replies_.add(); };
    requester_->connect();
}

/// An answer to the probe could come late, and count as the reply to the first request.
void Dialogue::answer(std::string_view request) {
    if (request == PROBE) {
        probes_.add();
    } else {
        responder_->publish(responderReplyTopic_, texts_.reply, 2, false);
    }
}

void Dialogue::ask(unsigned count) {
    replies_.reset();
    for (unsigned sent = 0; sent < count; ++sent) {
        requester_->publish(requestTopic_, texts_.request, 2, false);
    }
    replies_.waitFor(count);
}

Action ClientLibrary::makeValueStream(BenchmarkBroker const& broker, std::string const& topic,
                                      Document document, MessageCounter& received) const {
    if (hasTypes) {
        return makeOurValueStream(broker, topic, document, received);
    }
    auto const whole = valueTopic(topic, document);
    auto const subscriber = makeCountingSubscriber(*this, broker, whole, received);
    std::shared_ptr<BenchmarkClient> const publisher = makeClient(broker);
    auto const id = publisher->addTopic(whole);
    publisher->connect();
    return [subscriber, publisher, id, text = documentText(document)] {
        publisher->publishInStream(id, text, 2, true);
    };
}

Action ClientLibrary::makeRequester(BenchmarkBroker const& broker) const {
    if (hasTypes) {
        return makeOurRequester(broker);
    }
    auto const dialogue = std::make_shared<Dialogue>(*this, broker, requestAndReply());
    return [dialogue] {
        dialogue->subscribe();
        dialogue->ask(1);
        dialogue->unsubscribe();
    };
}

} // namespace bench
