#include "measurements.hpp"

#include "samples.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Figures = std::vector<Figure>;
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

/// @param fraction above 0, up to 1
double percentile(Samples samples, double fraction) {
    std::sort(samples.begin(), samples.end());
    auto const rank = std::ceil(fraction * static_cast<double>(samples.size()));
    return samples[static_cast<std::size_t>(rank) - 1];
}

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
    auto const start = Clock::now();
    publishAll(publish, received, messages);
    double const seconds = secondsSince(start);
    double const clients = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - clientsBefore;
    auto const count = static_cast<double>(messages);
    return {{"throughput", "msg/s", count / seconds},
            {"client CPU", "us/msg", clients / count * MICROSECONDS},
            {"broker CPU", "us/msg", (broker.cpuSeconds() - brokerBefore) / count * MICROSECONDS}};
}

Measurement throughput(int qos, std::size_t size, Effort const& effort) {
    return {"throughput-qos" + std::to_string(qos) + '-' + std::to_string(size),
            [=](Library library, Broker broker) {
                MessageCounter received;
                auto const subscriber =
                    makeCountingSubscriber(library, broker.port(), TOPIC, received);
                auto const publisher = library.makeClient(broker.port());
                auto const topic = publisher->addTopic(TOPIC);
                publisher->connect();
                std::string const payload(size, 'x');
                return measureThroughput(
                    [&] { publisher->publishInStream(topic, payload, qos, false); }, received,
                    broker, messagesAt(qos, effort));
            }};
}

Measurement valueThroughput(char const* name, Document document, Effort const& effort) {
    return {name, [=](Library library, Broker broker) {
                // Values are retained: a topic that was used before would bring an old one.
                static unsigned runs = 0;
                std::string const topic = "bench/device" + std::to_string(++runs);
                MessageCounter received;
                auto const publish =
                    library.makeValueStream(broker.port(), topic, document, received);
                return measureThroughput(publish, received, broker, effort.messages);
            }};
}

// Latency

template <class Action>
double microsecondsOf(Action&& action) {
    auto const start = Clock::now();
    action();
    return secondsSince(start) * MICROSECONDS;
}

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
    takeSamples(effort.latencies, effort, [&] { samples.push_back(microsecondsOf(action)); });
    return {{"p50", "us", percentile(samples, 0.5)}, {"p99", "us", percentile(samples, 0.99)}};
}

Measurement acknowledgement(int qos, Effort const& effort) {
    return {"acknowledge-qos" + std::to_string(qos), [=](Library library, Broker broker) {
                auto const publisher = library.makeClient(broker.port());
                auto const topic = publisher->addTopic(TOPIC);
                publisher->connect();
                return measureLatencies(effort,
                                        [&] { publisher->publishAndWait(topic, TEXT, qos); });
            }};
}

Measurement dialogue(char const* name, Effort const& effort, void (*exchange)(Dialogue&)) {
    return {name, [=](Library library, Broker broker) {
                Dialogue dialogue(library, broker.port(),
                                  {"bench/device/question", "bench/panel/answer", TEXT, TEXT});
                dialogue.subscribe();
                return measureLatencies(effort, [&] { exchange(dialogue); });
            }};
}

Measurement requestReply(Effort const& effort) {
    return {"request-reply", [=](Library library, Broker broker) {
                return measureLatencies(effort, library.makeRequester(broker.port()));
            }};
}

Measurement connecting(Effort const& effort) {
    return {"connect", [=](Library library, Broker broker) {
                auto const client = library.makeClient(broker.port());
                Samples connects;
                Samples both;
                takeSamples(effort.connections, effort, [&] {
                    connects.push_back(microsecondsOf([&] { client->connect(); }));
                    both.push_back(connects.back() + microsecondsOf([&] { client->disconnect(); }));
                });
                return Figures{{"connect p50", "us", percentile(connects, 0.5)},
                               {"connect p99", "us", percentile(connects, 0.99)},
                               {"connect and disconnect p50", "us", percentile(both, 0.5)}};
            }};
}

} // namespace

Measurement firstExchanges(Effort const& effort) {
    return {"first-exchanges", [=](Library library, Broker broker) {
                constexpr int EXCHANGES = 24;
                Samples samples;
                // Client and service connect anew each time.
                takeSamples(effort.connections, effort, [&] {
                    auto const request = library.makeRequester(broker.port());
                    for (int i = 0; i < EXCHANGES; ++i) {
                        samples.push_back(microsecondsOf(request));
                    }
                });
                return Figures{{"p50", "us", percentile(samples, 0.5)},
                               {"p99", "us", percentile(samples, 0.99)},
                               {"slowest", "us", percentile(samples, 1)}};
            }};
}

std::vector<Measurement> allMeasurements(Effort const& effort) {
    std::vector<Measurement> all;
    for (int const qos : {0, 1, 2}) {
        all.push_back(throughput(qos, 64, effort));
        all.push_back(throughput(qos, 1024, effort));
    }
    all.push_back(valueThroughput("values-communication", Document::COMMUNICATION, effort));
    all.push_back(valueThroughput("values-identification", Document::IDENTIFICATION, effort));
    all.push_back(acknowledgement(1, effort));
    all.push_back(acknowledgement(2, effort));
    all.push_back(dialogue("round-trip", effort, [](Dialogue& both) { both.ask(1); }));
    all.push_back(dialogue("burst-of-four", effort, [](Dialogue& both) { both.ask(4); }));
    all.push_back(requestReply(effort));
    all.push_back(connecting(effort));
    return all;
}

std::vector<Measurement> measurementsOfEncryption(Effort const& effort) {
    return {throughput(0, 64, effort),   throughput(1, 64, effort), throughput(2, 64, effort),
            throughput(1, 1024, effort), requestReply(effort),      connecting(effort)};
}

} // namespace bench
