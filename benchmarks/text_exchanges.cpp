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

Responder::Responder(ClientLibrary const& library, int port, std::string const& requestTopic,
                     std::string const& replyTopic, std::string reply)
    : reply_(std::move(reply)),
      client_(library.makeClient(port)),
      replyTopic_(client_->addTopic(replyTopic)) {
    client_->onMessage = [this](std::string_view payload) {
        // An answer to the probe could come late, and count as the answer to the first request.
        if (payload == PROBE) {
            probes_.add();
        } else {
            client_->publish(replyTopic_, reply_, 2, false);
        }
    };
    client_->connect();
    subscribeAndConfirm(*client_, client_->addTopic(requestTopic), probes_);
}

Dialogue::Dialogue(ClientLibrary const& library, int port, std::string const& requestTopic,
                   std::string const& replyTopic, std::string request, std::string reply,
                   bool staysSubscribed)
    : request_(std::move(request)),
      responder_(library, port, requestTopic, replyTopic, std::move(reply)),
      client_(library.makeClient(port)),
      requestTopic_(client_->addTopic(requestTopic)),
      replyTopic_(client_->addTopic(replyTopic)) {
    client_->onMessage = [this](std::string_view /*payload*/) { replies_.add(); };
    client_->connect();
    if (staysSubscribed) {
        subscribeAndConfirm(*client_, replyTopic_, replies_);
    }
}

void Dialogue::ask(unsigned count) {
    replies_.reset();
    for (unsigned sent = 0; sent < count; ++sent) {
        client_->publish(requestTopic_, request_, 2, false);
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
    auto const dialogue = std::make_shared<Dialogue>(*this, port, requestTopic(), replyTopic(),
                                                     requestText(), replyText(), false);
    return [dialogue] {
        dialogue->subscribe();
        dialogue->ask(1);
        dialogue->unsubscribe();
    };
}

} // namespace bench
