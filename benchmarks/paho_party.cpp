#include "paho_client.hpp"
#include "paho_flight.hpp"
#include "paho_typed.hpp"
#include "party_of.hpp"

#include <utility>

namespace bench {
namespace {

using Message = mqtt::const_message_ptr;

class PahoPublisher final : public Publisher, private PahoClient {
public:
    PahoPublisher(int port, std::string const& topic) : PahoClient(port), topic_(topic) { open(); }

    void publish(std::string const& payload, int qos) override {
        flight_.add(send(topic_, payload, qos), qos);
    }
    void publishAndWait(std::string const& payload, int qos) override {
        finish(send(topic_, payload, qos));
    }

private:
    mqtt::string_ref const topic_;
    PahoFlight flight_;
};

class PahoSubscriber final : public Subscriber, private PahoClient {
public:
    PahoSubscriber(int port, std::string const& topic, Tally& received) : PahoClient(port) {
        client().set_message_callback([&received](Message const& /*message*/) { received.add(); });
        open();
        listen(topic, received);
    }
    ~PahoSubscriber() override { close(); }
};

class PahoAnswerer final : private PahoClient {
public:
    PahoAnswerer(int port, std::string const& question, std::string const& answer)
        : PahoClient(port), answer_(answer) {
        client().set_message_callback([this](Message const& message) { hear(*message); });
        open();
        listen(question, heard_);
    }
    ~PahoAnswerer() { close(); }

private:
    void hear(mqtt::message const& message) {
        if (isProbe(message)) {
            heard_.add();
        } else {
            client().publish(answer_, message.get_payload_ref(), 2, false);
        }
    }

    mqtt::string_ref const answer_;
    Tally heard_;
};

class PahoDialogue final : public Dialogue, private PahoClient {
public:
    PahoDialogue(int port, std::string const& question, std::string const& answer)
        : PahoClient(port),
          question_(question),
          answer_(answer),
          answerer_(port, question, answer) {
        client().set_message_callback([this](Message const& /*message*/) { answers_.add(); });
        open();
        listen(answer, answers_);
    }
    ~PahoDialogue() override { close(); }

    void ask(std::string const& payload, unsigned count) override {
        answers_.reset();
        for (unsigned asked = 0; asked < count; ++asked) {
            send(question_, payload, 2);
        }
        answers_.waitFor(count);
    }

    void askAnew(std::string const& payload) override {
        client().unsubscribe(answer_);
        client().subscribe(answer_, 0);
        ask(payload, 1);
    }

private:
    mqtt::string_ref const question_;
    std::string const answer_;
    PahoAnswerer answerer_;
    Tally answers_;
};

class PahoCaller final : public Caller, private PahoClient {
public:
    explicit PahoCaller(int port) : PahoClient(port) {}

    void connect() override { open(); }
    void disconnect() override { close(); }
};

class PahoParty final : public PartyOf<PahoPublisher, PahoSubscriber, PahoDialogue, PahoCaller> {
public:
    char const* name() const override { return "Paho"; }
    /// All clients of a process share one thread that sends and one that receives.
    bool hasThreadsOfItsOwn() const override { return false; }

    std::unique_ptr<ValuePublisher> makeValuePublisher(int port, std::string const& topic,
                                                       Document document) override {
        return makePahoValuePublisher(port, topic, document);
    }
    std::unique_ptr<Requester> makeRequester(int port) override { return makePahoRequester(port); }
};

} // namespace

std::unique_ptr<Party> makePahoParty() {
    return std::make_unique<PahoParty>();
}

} // namespace bench
