#include "text_exchanges.hpp"

#include "samples.hpp"

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

std::shared_ptr<BenchmarkClient> makeCountingSubscriber(ClientLibrary const& library, int port,
                                                        std::string const& topic,
                                                        MessageCounter& received) {
    std::shared_ptr<BenchmarkClient> client = library.makeClient(port);
    client->onMessage = [&received](std::string_view /*payload*/) { received.add(); };
    client->connect();
    subscribeAndConfirm(*client, client->addTopic(topic), received);
    return client;
}

Dialogue::Dialogue(ClientLibrary const& library, int port, Texts texts)
    : texts_(std::move(texts)),
      responder_(library.makeClient(port)),
      requester_(library.makeClient(port)),
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

Action ClientLibrary::makeValuePublisher(int port, std::string const& topic,
                                         Document document) const {
    std::shared_ptr<BenchmarkClient> const client = makeClient(port);
    auto const id = client->addTopic(valueTopic(topic, document));
    client->connect();
    return
        [client, id, text = documentText(document)] { client->publishInStream(id, text, 2, true); };
}

std::shared_ptr<void> ClientLibrary::makeValueSubscriber(int port, std::string const& topic,
                                                         Document document,
                                                         MessageCounter& received) const {
    return makeCountingSubscriber(*this, port, valueTopic(topic, document), received);
}

Action ClientLibrary::makeRequester(int port) const {
    auto const dialogue = std::make_shared<Dialogue>(
        *this, port, Dialogue::Texts{requestTopic(), replyTopic(), requestText(), replyText()});
    return [dialogue] {
        dialogue->subscribe();
        dialogue->ask(1);
        dialogue->unsubscribe();
    };
}

} // namespace bench
