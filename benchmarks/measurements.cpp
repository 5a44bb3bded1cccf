#include "measurements.hpp"

#include "cpu_clock.hpp"
#include "statistics.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <limits>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char const* TOPIC = "bench/device/status";
constexpr double MICROSECONDS = 1e6;
constexpr double UNKNOWN = std::numeric_limits<double>::quiet_NaN();

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The processor times of everyone who takes part in a throughput run.
struct CpuTimes {
    double publisher;
    double subscriber;
    double broker;
};

/// Both clients live in this process: what the subscriber's worker thread did not use went
/// into publishing, on the caller's and the publisher's worker thread.
CpuTimes cpuTimes(Tally const& received, BrokerProcess const& broker) {
    double const subscriber = received.countingThreadCpuTime();
    return {cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - subscriber, subscriber, broker.cpuTime()};
}

/// At QoS 0 the last small packets of a window now and then wait 40 ms for an acknowledgement
/// by the other kernel: a longer run has its fair share of these pauses, a short one has luck.
std::uint64_t messagesAt(int qos, Effort const& effort) {
    return qos == 0 ? effort.messages * 5 : effort.messages;
}

/// The broker throws QoS 0 messages away when a subscriber falls too far behind, so only
/// a window of them is on its way. The wait is for half a window, lest everything come to
/// a stop and be woken up again all the time.
template <typename Send>
void publishAll(Send send, Tally& received, std::uint64_t messages, unsigned window) {
    std::uint64_t const half = std::max(window / 2, 1U);
    for (std::uint64_t sent = 0; sent < messages; ++sent) {
        if (sent >= 2 * half && sent % half == 0) {
            received.waitFor(sent - half);
        }
        send();
    }
    received.waitFor(messages);
}

template <typename Send>
std::vector<Figure> timeAll(Party const& party, Send send, Tally& received,
                            BrokerProcess const& broker, std::uint64_t messages, unsigned window) {
    CpuTimes const before = cpuTimes(received, broker);
    auto const start = Clock::now();
    publishAll(send, received, messages, window);
    double const seconds = secondsSince(start);
    CpuTimes const after = cpuTimes(received, broker);
    auto const count = static_cast<double>(messages);
    auto const each = [count](double used) { return used / count * MICROSECONDS; };
    double const publisher = each(after.publisher - before.publisher);
    double const subscriber = each(after.subscriber - before.subscriber);
    bool const apart = party.hasThreadsOfItsOwn();
    return {{"throughput", "msg/s", count / seconds},
            {"publisher CPU", "us/msg", apart ? publisher : UNKNOWN},
            {"subscriber CPU", "us/msg", apart ? subscriber : UNKNOWN},
            {"client CPU", "us/msg", publisher + subscriber},
            {"broker CPU", "us/msg", each(after.broker - before.broker)}};
}

std::vector<Figure> throughput(Party& party, BrokerProcess const& broker, int qos, std::size_t size,
                               Effort const& effort) {
    Tally received;
    auto const subscriber = party.makeSubscriber(broker.port(), TOPIC, received);
    auto const publisher = party.makePublisher(broker.port(), TOPIC);
    std::string const payload(size, 'x');
    return timeAll(
        party, [&] { publisher->publish(payload, qos); }, received, broker, messagesAt(qos, effort),
        effort.window);
}

/// Typed values are retained: with a topic of its own no run meets the last value of another.
std::vector<Figure> valueThroughput(Party& party, BrokerProcess const& broker, Document document,
                                    Effort const& effort) {
    static unsigned runs = 0;
    std::string const topic = "bench/device" + std::to_string(++runs);
    Tally received;
    auto const subscriber = party.makeValueSubscriber(broker.port(), topic, document, received);
    auto const publisher = party.makeValuePublisher(broker.port(), topic, document);
    return timeAll(
        party, [&] { publisher->publish(); }, received, broker, effort.messages, effort.window);
}

/// Repeats until there are enough samples or enough time has gone by: one sample takes from
/// a fraction of a millisecond to a tenth of a second.
template <typename Sample>
void takeSamples(unsigned count, Effort const& effort, Sample sample) {
    auto const start = Clock::now();
    for (unsigned taken = 0; taken < count && secondsSince(start) < effort.seconds; ++taken) {
        sample();
    }
}

template <typename Action>
std::vector<Figure> latencies(Effort const& effort, Action action) {
    std::vector<double> samples;
    takeSamples(effort.latencies, effort, [&] {
        auto const start = Clock::now();
        action();
        samples.push_back(secondsSince(start) * MICROSECONDS);
    });
    return {{"p50", "us", percentile(samples, 0.5)}, {"p99", "us", percentile(samples, 0.99)}};
}

std::vector<Figure> acknowledgement(Party& party, BrokerProcess const& broker, int qos,
                                    Effort const& effort) {
    auto const publisher = party.makePublisher(broker.port(), TOPIC);
    std::string const payload(64, 'x');
    return latencies(effort, [&] { publisher->publishAndWait(payload, qos); });
}

template <typename Exchange>
std::vector<Figure> exchanges(Party& party, BrokerProcess const& broker, Effort const& effort,
                              Exchange exchange) {
    auto const dialogue =
        party.makeDialogue(broker.port(), "bench/device/question", "bench/panel/answer");
    std::string const payload(64, 'x');
    return latencies(effort, [&] { exchange(*dialogue, payload); });
}

std::vector<Figure> requests(Party& party, BrokerProcess const& broker, Effort const& effort) {
    auto const requester = party.makeRequester(broker.port());
    return latencies(effort, [&] { requester->request(); });
}

std::vector<Figure> connecting(Party& party, BrokerProcess const& broker, Effort const& effort) {
    auto const caller = party.makeCaller(broker.port());
    std::vector<double> connects;
    std::vector<double> visits;
    takeSamples(effort.connections, effort, [&] {
        auto const start = Clock::now();
        caller->connect();
        connects.push_back(secondsSince(start) * MICROSECONDS);
        caller->disconnect();
        visits.push_back(secondsSince(start) * MICROSECONDS);
    });
    return {{"connect p50", "us", percentile(connects, 0.5)},
            {"connect p99", "us", percentile(connects, 0.99)},
            {"connect and disconnect p50", "us", percentile(visits, 0.5)}};
}

template <typename Exchange>
Measurement exchangeOf(char const* name, Effort const& effort, Exchange exchange) {
    return {name, [=](Party& party, BrokerProcess const& broker) {
                return exchanges(party, broker, effort, exchange);
            }};
}

Measurement throughputOf(int qos, std::size_t size, Effort const& effort) {
    return {"throughput-qos" + std::to_string(qos) + '-' + std::to_string(size),
            [=](Party& party, BrokerProcess const& broker) {
                return throughput(party, broker, qos, size, effort);
            }};
}

Measurement valueThroughputOf(char const* name, Document document, Effort const& effort) {
    return {name, [=](Party& party, BrokerProcess const& broker) {
                return valueThroughput(party, broker, document, effort);
            }};
}

Measurement acknowledgementOf(int qos, Effort const& effort) {
    return {"acknowledge-qos" + std::to_string(qos),
            [=](Party& party, BrokerProcess const& broker) {
                return acknowledgement(party, broker, qos, effort);
            }};
}

} // namespace

std::vector<Measurement> allMeasurements(Effort const& effort) {
    std::vector<Measurement> all;
    for (int const qos : {0, 1, 2}) {
        for (std::size_t const size : {std::size_t{64}, std::size_t{1024}}) {
            all.push_back(throughputOf(qos, size, effort));
        }
    }
    all.push_back(valueThroughputOf("values-communication", Document::COMMUNICATION, effort));
    all.push_back(valueThroughputOf("values-identification", Document::IDENTIFICATION, effort));
    all.push_back(acknowledgementOf(1, effort));
    all.push_back(acknowledgementOf(2, effort));
    using Payload = std::string const&;
    all.push_back(exchangeOf("round-trip", effort,
                             [](Dialogue& dialogue, Payload text) { dialogue.ask(text, 1); }));
    all.push_back(exchangeOf("burst-of-four", effort,
                             [](Dialogue& dialogue, Payload text) { dialogue.ask(text, 4); }));
    all.push_back(exchangeOf("subscribe-and-ask", effort,
                             [](Dialogue& dialogue, Payload text) { dialogue.askAnew(text); }));
    all.push_back({"request-reply", [effort](Party& party, BrokerProcess const& broker) {
                       return requests(party, broker, effort);
                   }});
    all.push_back({"connect", [effort](Party& party, BrokerProcess const& broker) {
                       return connecting(party, broker, effort);
                   }});
    return all;
}

} // namespace bench
