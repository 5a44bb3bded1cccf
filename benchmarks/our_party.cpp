#include "our_client.hpp"
#include "our_typed.hpp"
#include "party_of.hpp"

#include <mqtt/client.hpp>

namespace bench {
namespace {

class OurPublisher final : public Publisher {
public:
    OurPublisher(int port, std::string const& topic) : topic_(topic), client_(port) {
        client_.connect();
    }

    void publish(std::string const& payload, int qos) override {
        require(client_->publish(topic_, payload, qos, false), "publish");
    }
    void publishAndWait(std::string const& payload, int qos) override {
        require(client_->publishWait(topic_, payload, qos, false, PATIENCE), "publishWait");
    }

private:
    mqtt::Topic const topic_;
    OurClient client_;
};

class OurSubscriber final : public Subscriber, private mqtt::MqttClient::Subscriber {
public:
    OurSubscriber(int port, mqtt::Topic const& topic, Tally& received)
        : received_(received), client_(port) {
        client_.connect();
        client_.listen(topic, *this, received_);
    }
    ~OurSubscriber() override { client_->release(this); }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        received_.add();
    }

    Tally& received_;
    OurClient client_;
};

class OurAnswerer final : private mqtt::MqttClient::Subscriber {
public:
    OurAnswerer(int port, mqtt::Topic const& question, mqtt::Topic const& answer)
        : answer_(answer), client_(port) {
        client_.connect();
        client_.listen(question, *this, heard_);
    }
    ~OurAnswerer() override { client_->release(this); }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& payload) override {
        if (payload == PROBE) {
            heard_.add();
        } else {
            client_->publish(answer_, payload, 2, false);
        }
    }

    mqtt::Topic const answer_;
    Tally heard_;
    OurClient client_;
};

class OurDialogue final : public Dialogue, private mqtt::MqttClient::Subscriber {
public:
    OurDialogue(int port, mqtt::Topic const& question, mqtt::Topic const& answer)
        : question_(question), answer_(answer), answerer_(port, question, answer), client_(port) {
        client_.connect();
        client_.listen(answer, *this, answers_);
    }
    ~OurDialogue() override { client_->release(this); }

    void ask(std::string const& payload, unsigned count) override {
        answers_.reset();
        for (unsigned asked = 0; asked < count; ++asked) {
            require(client_->publish(question_, payload, 2, false), "publish");
        }
        answers_.waitFor(count);
    }

    void askAnew(std::string const& payload) override {
        require(client_->unsubscribe(answer_, this), "unsubscribe");
        require(client_->subscribe(answer_, this, 0), "subscribe");
        ask(payload, 1);
    }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        answers_.add();
    }

    mqtt::Topic const question_;
    mqtt::Topic const answer_;
    OurAnswerer answerer_;
    Tally answers_;
    OurClient client_;
};

class OurCaller final : public Caller {
public:
    explicit OurCaller(int port) : client_(port) {}

    void connect() override { client_.connect(); }
    void disconnect() override { require(client_->disconnect(PATIENCE), "disconnect"); }

private:
    OurClient client_;
};

class OurParty final : public PartyOf<OurPublisher, OurSubscriber, OurDialogue, OurCaller> {
public:
    char const* name() const override { return "ours"; }

    std::unique_ptr<ValuePublisher> makeValuePublisher(int port, std::string const& topic,
                                                       Document document) override {
        return makeOurValuePublisher(port, topic, document);
    }
    std::unique_ptr<bench::Subscriber> makeValueSubscriber(int port, std::string const& topic,
                                                           Document document,
                                                           Tally& received) override {
        return makeOurValueSubscriber(port, topic, document, received);
    }
    std::unique_ptr<Requester> makeRequester(int port) override { return makeOurRequester(port); }
};

} // namespace

std::unique_ptr<Party> makeOurParty() {
    return std::make_unique<OurParty>();
}

} // namespace bench
