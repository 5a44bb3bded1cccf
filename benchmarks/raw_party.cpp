#include "party_of.hpp"
#include "raw_client.hpp"
#include "raw_typed.hpp"

#include <mosquittopp.h>

#include <utility>

namespace bench {
namespace {

class RawPublisher final : public Publisher, private RawClient {
public:
    RawPublisher(int port, std::string topic) : topic_(std::move(topic)) { open(port); }
    ~RawPublisher() override { close(); }

    void publish(std::string const& payload, int qos) override { send(topic_, payload, qos); }

    void publishAndWait(std::string const& payload, int qos) override {
        done_.reset();
        publish(payload, qos);
        done_.waitFor(1);
    }

private:
    void on_publish(int /*mid*/) override { done_.add(); }

    std::string const topic_;
    Tally done_;
};

class RawSubscriber final : public Subscriber, private RawClient {
public:
    RawSubscriber(int port, std::string const& topic, Tally& received) : received_(received) {
        open(port);
        listen(topic, received);
    }
    ~RawSubscriber() override { close(); }

private:
    void on_message(mosquitto_message const* /*message*/) override { received_.add(); }

    Tally& received_;
};

class RawAnswerer final : private RawClient {
public:
    RawAnswerer(int port, std::string const& question, std::string answer)
        : answer_(std::move(answer)) {
        open(port);
        listen(question, heard_);
    }
    ~RawAnswerer() override { close(); }

private:
    void on_message(mosquitto_message const* message) override {
        if (isProbe(*message)) {
            heard_.add();
        } else {
            publish(nullptr, answer_.c_str(), message->payloadlen, message->payload, 2);
        }
    }

    std::string const answer_;
    Tally heard_;
};

class RawDialogue final : public Dialogue, private RawClient {
public:
    RawDialogue(int port, std::string question, std::string answer)
        : question_(std::move(question)),
          answer_(std::move(answer)),
          answerer_(port, question_, answer_) {
        open(port);
        listen(answer_, answers_);
    }
    ~RawDialogue() override { close(); }

    void ask(std::string const& payload, unsigned count) override {
        answers_.reset();
        for (unsigned asked = 0; asked < count; ++asked) {
            send(question_, payload, 2);
        }
        answers_.waitFor(count);
    }

    void askAnew(std::string const& payload) override {
        require(unsubscribe(nullptr, answer_.c_str()), "unsubscribe");
        require(subscribe(nullptr, answer_.c_str(), 0), "subscribe");
        ask(payload, 1);
    }

private:
    void on_message(mosquitto_message const* /*message*/) override { answers_.add(); }

    std::string const question_;
    std::string const answer_;
    RawAnswerer answerer_;
    Tally answers_;
};

class RawCaller final : public Caller, private RawClient {
public:
    explicit RawCaller(int port) : port_(port) {}

    void connect() override { open(port_); }
    void disconnect() override { close(); }

private:
    int const port_;
};

class RawParty final : public PartyOf<RawPublisher, RawSubscriber, RawDialogue, RawCaller> {
public:
    char const* name() const override { return "raw"; }

    std::unique_ptr<ValuePublisher> makeValuePublisher(int port, std::string const& topic,
                                                       Document document) override {
        return makeRawValuePublisher(port, topic, document);
    }
    std::unique_ptr<Requester> makeRequester(int port) override { return makeRawRequester(port); }
};

} // namespace

std::unique_ptr<Party> makeRawParty() {
    return std::make_unique<RawParty>();
}

} // namespace bench
