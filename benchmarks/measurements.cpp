#include "measurements.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <utility>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Samples = std::vector<double>;
using Library = ClientLibrary const&;
using Broker = BenchmarkBroker const&;

constexpr char const* TOPIC = "bench/device/status";
constexpr double MICROSECONDS = 1e6;
/// At most so many messages are under way: the broker drops messages at QoS 0 for a subscriber that
/// is 1000 behind.
constexpr std::uint64_t WINDOW = 800;
std::string const TEXT(64, 'x');

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

template <class Action>
double secondsOf(Action&& action) {
    auto const start = Clock::now();
    action();
    return secondsSince(start);
}

/// A percentile of microseconds. @param fraction above 0, up to 1
Figure figureOf(char const* name, Samples samples, double fraction) {
    std::sort(samples.begin(), samples.end());
    auto const rank = std::ceil(fraction * static_cast<double>(samples.size()));
    return {name, "us", samples[static_cast<std::size_t>(rank) - 1]};
}

// Clients that work together

/// The broker handles the packets of one client in their order.
void subscribeAndConfirm(BenchmarkClient& client, BenchmarkClient::TopicId topic,
                         MessageCounter& received) {
    received.reset();
    client.subscribe(topic);
    client.publish(topic, PROBE, 0, false);
    received.waitFor(1);
    received.reset();
}

/// A connected client that counts the messages of one topic. The subscription is in force and the
/// count is 0 when this returns.
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

/// Two connected clients: one asks on one topic, the other one answers each request on another
/// topic. Requests and replies are always the same text, at QoS 2.
class Dialogue {
public:
    /// The asking client is not subscribed to the replies yet.
    Dialogue(ClientLibrary const& library, BenchmarkBroker const& broker, ExchangeTexts texts)
        : texts_(std::move(texts)),
          responder_(library.makeClient(broker)),
          requester_(library.makeClient(broker)) {
        responder_->onMessage = [this](std::string_view payload) { answer(payload); };
        responder_->connect();
        subscribeAndConfirm(*responder_, responder_->addTopic(texts_.requestTopic), probes_);
        requester_->onMessage = [this](std::string_view /*payload*/) { replies_.add(); };
        requester_->connect();
    }

    void subscribe() { requester_->subscribe(replyTopic_); }
    void unsubscribe() { requester_->unsubscribe(replyTopic_); }
    /// Sends so many requests in a row, and returns when all replies have come.
    void ask(unsigned count) {
        replies_.reset();
        for (unsigned sent = 0; sent < count; ++sent) {
            requester_->publish(requestTopic_, texts_.request, 2, false);
        }
        replies_.waitFor(count);
    }

private:
    /// An answer to the probe could come late, and count as the reply to the first request.
    void answer(std::string_view request) {
        if (request == PROBE) {
            probes_.add();
        } else {
            responder_->publish(responderReplyTopic_, texts_.reply, 2, false);
        }
    }

    ExchangeTexts const texts_;
    MessageCounter probes_;
    MessageCounter replies_;
    std::unique_ptr<BenchmarkClient> const responder_;
    std::unique_ptr<BenchmarkClient> const requester_;
    BenchmarkClient::TopicId const responderReplyTopic_ = responder_->addTopic(texts_.replyTopic);
    BenchmarkClient::TopicId const requestTopic_ = requester_->addTopic(texts_.requestTopic);
    BenchmarkClient::TopicId const replyTopic_ = requester_->addTopic(texts_.replyTopic);
};

// Throughput

/// At QoS 0 the last small packets of a window sometimes wait 40 ms for an acknowledgement by the
/// other kernel. Only a long run has an average share of these pauses.
std::uint64_t messagesAt(int qos, Effort const& effort) {
    return qos == 0 ? effort.messages * 5 : effort.messages;
}

/// Waits for half a window each time: waiting for all of it would stop everyone again and again.
void publishAll(Action const& publish, MessageCounter& received, std::uint64_t messages) {
    for (std::uint64_t sent = 0; sent < messages; ++sent) {
        if (sent >= WINDOW && sent % (WINDOW / 2) == 0) {
            received.waitFor(sent - WINDOW / 2);
        }
        publish();
    }
    received.waitFor(messages);
}

/// Both clients live in this process.
Figures measureThroughput(Action const& publish, MessageCounter& received,
                          BenchmarkBroker const& broker, std::uint64_t messages) {
    double const clientsBefore = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
    double const brokerBefore = broker.cpuSeconds();
    double const seconds = secondsOf([&] { publishAll(publish, received, messages); });
    double const clients = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - clientsBefore;
    auto const count = static_cast<double>(messages);
    return {{"throughput", "msg/s", count / seconds},
            {"client CPU", "us/msg", clients / count * MICROSECONDS},
            {"broker CPU", "us/msg", (broker.cpuSeconds() - brokerBefore) / count * MICROSECONDS}};
}

ClientMeasurement throughput(int qos, std::size_t size, Effort const& effort) {
    return {"throughput-qos" + std::to_string(qos) + '-' + std::to_string(size),
            [=](Library library, Broker broker) {
                MessageCounter received;
                auto const subscriber = makeCountingSubscriber(library, broker, TOPIC, received);
                auto const publisher = library.makeClient(broker);
                auto const topic = publisher->addTopic(TOPIC);
                publisher->connect();
                std::string const payload(size, 'x');
                return measureThroughput(
                    [&] { publisher->publishInStream(topic, payload, qos, false); }, received,
                    broker, messagesAt(qos, effort));
            }};
}

ClientMeasurement valueThroughput(char const* name, Document document, Effort const& effort) {
    return {name, [=](Library library, Broker broker) {
                // Values are retained: a topic that was used before would bring an old one.
                static unsigned runs = 0;
                std::string const topic = "bench/device" + std::to_string(++runs);
                MessageCounter received;
                auto const publish = library.makeValueStream(broker, topic, document, received);
                return measureThroughput(publish, received, broker, effort.messages);
            }};
}

// Latency

/// Repeats until there are enough samples, or until enough time has gone by: a sample takes from a
/// tenth of a millisecond to a second.
template <class Sample>
void takeSamples(unsigned count, Effort const& effort, Sample&& sample) {
    auto const start = Clock::now();
    for (unsigned taken = 0;
         taken < count && secondsSince(start) < effort.longestSecondsForLatencies; ++taken) {
        sample();
    }
}

Figures measureLatencies(Effort const& effort, Action const& action) {
    Samples samples;
    takeSamples(effort.latencies, effort,
                [&] { samples.push_back(MICROSECONDS * secondsOf(action)); });
    return {figureOf("p50", samples, 0.5), figureOf("p99", samples, 0.99)};
}

ClientMeasurement acknowledgement(int qos, Effort const& effort) {
    return {"acknowledge-qos" + std::to_string(qos), [=](Library library, Broker broker) {
                auto const publisher = library.makeClient(broker);
                auto const topic = publisher->addTopic(TOPIC);
                publisher->connect();
                return measureLatencies(effort,
                                        [&] { publisher->publishAndWait(topic, TEXT, qos); });
            }};
}

ClientMeasurement dialogue(char const* name, Effort const& effort, void (*exchange)(Dialogue&)) {
    return {name, [=](Library library, Broker broker) {
                Dialogue dialogue(library, broker,
                                  {"bench/device/question", "bench/panel/answer", TEXT, TEXT});
                dialogue.subscribe();
                return measureLatencies(effort, [&] { exchange(dialogue); });
            }};
}

ClientMeasurement requestReply(Effort const& effort) {
    return {"request-reply", [=](Library library, Broker broker) {
                return measureLatencies(effort, library.makeRequester(broker));
            }};
}

ClientMeasurement connecting(Effort const& effort) {
    return {"connect", [=](Library library, Broker broker) {
                auto const client = library.makeClient(broker);
                Samples connects;
                Samples both;
                takeSamples(effort.connections, effort, [&] {
                    connects.push_back(MICROSECONDS * secondsOf([&] { client->connect(); }));
                    both.push_back(connects.back()
                                   + MICROSECONDS * secondsOf([&] { client->disconnect(); }));
                });
                return Figures{figureOf("connect p50", connects, 0.5),
                               figureOf("connect p99", connects, 0.99),
                               figureOf("connect and disconnect p50", both, 0.5)};
            }};
}

} // namespace

Action ClientLibrary::makeValueStream(BenchmarkBroker const& broker, std::string const& topic,
                                      Document document, MessageCounter& received) const {
    if (hasTypes) {
        return makeOurValueStream(broker, topic, document, received);
    }
    bool const isShort = document == Document::COMMUNICATION;
    auto const whole = topic + (isShort ? "/communication" : "/identification");
    auto const text = isShort ? textOf(sampleCommunication()) : textOf(sampleIdentification());
    auto const subscriber = makeCountingSubscriber(*this, broker, whole, received);
    std::shared_ptr<BenchmarkClient> const publisher = makeClient(broker);
    auto const id = publisher->addTopic(whole);
    publisher->connect();
    return [subscriber, publisher, id, text] { publisher->publishInStream(id, text, 2, true); };
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

ClientMeasurement firstExchanges(Effort const& effort) {
    return {"first-exchanges", [=](Library library, Broker broker) {
                constexpr int EXCHANGES = 24;
                Samples samples;
                // Client and service connect anew each time.
                takeSamples(effort.connections, effort, [&] {
                    auto const request = library.makeRequester(broker);
                    for (int i = 0; i < EXCHANGES; ++i) {
                        samples.push_back(MICROSECONDS * secondsOf(request));
                    }
                });
                return Figures{figureOf("p50", samples, 0.5), figureOf("p99", samples, 0.99),
                               figureOf("slowest", samples, 1)};
            }};
}

std::vector<ClientMeasurement> allMeasurements(Effort const& effort) {
    return {throughput(0, 64, effort),
            throughput(0, 1024, effort),
            throughput(1, 64, effort),
            throughput(1, 1024, effort),
            throughput(2, 64, effort),
            throughput(2, 1024, effort),
            valueThroughput("values-communication", Document::COMMUNICATION, effort),
            valueThroughput("values-identification", Document::IDENTIFICATION, effort),
            acknowledgement(1, effort),
            acknowledgement(2, effort),
            dialogue("round-trip", effort, [](Dialogue& both) { both.ask(1); }),
            dialogue("burst-of-four", effort, [](Dialogue& both) { both.ask(4); }),
            requestReply(effort),
            connecting(effort)};
}

std::vector<ClientMeasurement> measurementsOfEncryption(Effort const& effort) {
    return {throughput(0, 64, effort),   throughput(1, 64, effort), throughput(2, 64, effort),
            throughput(1, 1024, effort), requestReply(effort),      connecting(effort)};
}

} // namespace bench
