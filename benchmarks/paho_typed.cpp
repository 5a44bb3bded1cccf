#include "paho_typed.hpp"

#include "documents.hpp"
#include "paho_client.hpp"
#include "paho_flight.hpp"

namespace bench {
namespace {

using Message = mqtt::const_message_ptr;

class PahoValuePublisher final : public ValuePublisher, private PahoClient {
public:
    PahoValuePublisher(int port, std::string const& topic, Document document)
        : PahoClient(port),
          value_(
              mqtt::message::create(valueTopic(topic, document), documentText(document), 2, true)) {
        open();
    }

    void publish() override { flight_.add(client().publish(value_), 2); }

private:
    Message const value_;
    PahoFlight flight_;
};

class PahoAnsweringService final : private PahoClient {
public:
    explicit PahoAnsweringService(int port) : PahoClient(port) {
        client().set_message_callback([this](Message const& message) { hear(*message); });
        open();
        listen(requestTopic(), heard_);
    }
    ~PahoAnsweringService() { close(); }

private:
    void hear(mqtt::message const& message) {
        if (isProbe(message)) {
            heard_.add();
        } else {
            client().publish(reply_);
        }
    }

    Message const reply_ = mqtt::message::create(replyTopic(), replyText(), 2, false);
    Tally heard_;
};

class PahoRequester final : public Requester, private PahoClient {
public:
    explicit PahoRequester(int port) : PahoClient(port), service_(port) {
        client().set_message_callback([this](Message const& /*message*/) { replies_.add(); });
        open();
    }
    ~PahoRequester() override { close(); }

    void request() override {
        replies_.reset();
        client().subscribe(replyTopic_, 0);
        client().publish(request_);
        replies_.waitFor(1);
        client().unsubscribe(replyTopic_);
    }

private:
    Message const request_ = mqtt::message::create(requestTopic(), requestText(), 2, false);
    std::string const replyTopic_ = replyTopic();
    PahoAnsweringService service_;
    Tally replies_;
};

} // namespace

std::unique_ptr<ValuePublisher> makePahoValuePublisher(int port, std::string const& topic,
                                                       Document document) {
    return std::make_unique<PahoValuePublisher>(port, topic, document);
}

std::unique_ptr<Requester> makePahoRequester(int port) {
    return std::make_unique<PahoRequester>(port);
}

} // namespace bench
