#include "raw_typed.hpp"

#include "documents.hpp"
#include "raw_client.hpp"

namespace bench {
namespace {

class RawValuePublisher final : public ValuePublisher, private RawClient {
public:
    RawValuePublisher(int port, std::string const& topic, Document document)
        : topic_(valueTopic(topic, document)), text_(documentText(document)) {
        open(port);
    }
    ~RawValuePublisher() override { close(); }

    void publish() override { send(topic_, text_, 2, true); }

private:
    std::string const topic_;
    std::string const text_;
};

class RawAnsweringService final : private RawClient {
public:
    explicit RawAnsweringService(int port) {
        open(port);
        listen(requestTopic(), heard_);
    }
    ~RawAnsweringService() override { close(); }

private:
    void on_message(mosquitto_message const* message) override {
        if (isProbe(*message)) {
            heard_.add();
        } else {
            send(topic_, text_, 2);
        }
    }

    std::string const topic_ = replyTopic();
    std::string const text_ = replyText();
    Tally heard_;
};

class RawRequester final : public Requester, private RawClient {
public:
    explicit RawRequester(int port) : service_(port) { open(port); }
    ~RawRequester() override { close(); }

    void request() override {
        replies_.reset();
        require(subscribe(nullptr, replyTopic_.c_str(), 0), "subscribe");
        send(requestTopic_, text_, 2);
        replies_.waitFor(1);
        require(unsubscribe(nullptr, replyTopic_.c_str()), "unsubscribe");
    }

private:
    void on_message(mosquitto_message const* /*message*/) override { replies_.add(); }

    std::string const requestTopic_ = requestTopic();
    std::string const replyTopic_ = replyTopic();
    std::string const text_ = requestText();
    RawAnsweringService service_;
    Tally replies_;
};

} // namespace

std::unique_ptr<ValuePublisher> makeRawValuePublisher(int port, std::string const& topic,
                                                      Document document) {
    return std::make_unique<RawValuePublisher>(port, topic, document);
}

std::unique_ptr<Requester> makeRawRequester(int port) {
    return std::make_unique<RawRequester>(port);
}

} // namespace bench
