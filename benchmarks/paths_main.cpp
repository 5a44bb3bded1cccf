// The ways in and out, in process: between the broker library, which is replaced by one that does
// nothing, and the application. With the allocations on them, and beside what an application would
// write by hand.

#include "broker_librarys_view.hpp"
#include "documents.hpp"
#include "pinning.hpp"
#include "processor_time.hpp"
#include "rapidjson_documents.hpp"
#include "results.hpp"
#include "simple_options.hpp"

#include "support/allocations.hpp"

#include <mqtt/payloads.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

constexpr char const* USAGE =
    "bench-paths [--quick] [--check] [--results FILE]\n"
    "Compares the ways in and out, in process, with what one would write by hand.\n"
    "  --check  fails when a message takes more allocations than it should\n";

constexpr char const* TOPIC = "plant/hall-seventeen/device-0815";

/// Somebody does it.
using Action = std::function<std::size_t()>;

/// One way, walked by us and by hand.
struct Path {
    char const* name;
    std::size_t mostAllocations; ///< of ours
    Action ours;
    Action byHand;
};

template <class T>
class Taker final : public mqtt::MqttData<T>::Subscriber {
    void onMqttData(T const& /*value*/, bool /*empty*/, int /*id*/) override { ++bench::sink; }
};

class TextTaker final : public mqtt::MqttClient::Subscriber {
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& payload) override {
        bench::sink = payload.size();
    }
};

/// What arrives, as the broker library hands it over.
class Message {
public:
    Message(std::string topic, std::string payload)
        : topic_(std::move(topic)), payload_(std::move(payload)) {
        message_.topic = topic_.data();
        message_.payload = payload_.data();
        message_.payloadlen = static_cast<int>(payload_.size());
    }
    Message(Message const&) = delete;
    Message& operator=(Message const&) = delete;

    mosquitto_message const* get() const { return &message_; }

private:
    std::string topic_;
    std::string payload_;
    mosquitto_message message_{};
};

/// What one writes at first: a table of handlers under a lock, and strings.
class ByHand {
public:
    using Handler = std::function<void(std::string const& topic, std::string const& payload)>;

    void subscribe(std::string const& topic, Handler handler) {
        handlers_[topic] = std::move(handler);
    }

    std::size_t receive(mosquitto_message const& message) {
        std::string const topic(message.topic);
        std::string const payload(static_cast<char const*>(message.payload),
                                  static_cast<std::size_t>(message.payloadlen));
        std::lock_guard<std::mutex> const lock(mutex_);
        auto const handler = handlers_.find(topic);
        if (handler != handlers_.end()) {
            handler->second(topic, payload);
        }
        return payload.size();
    }

    std::size_t publish(std::string const& topic, std::string const& payload) {
        std::lock_guard<std::mutex> const lock(mutex_);
        sent_ += topic.size() + payload.size();
        return sent_;
    }

private:
    std::mutex mutex_;
    std::map<std::string, Handler> handlers_;
    std::size_t sent_ = 0;
};

class Client {
public:
    Client() {
        constexpr std::uint32_t PATIENCE = 30;
        if (client_.connect("nowhere", 1883, PATIENCE) != mqtt::MqttClient::Error::SUCCESS) {
            throw std::runtime_error("the broker that is none does not consent");
        }
    }

    mqtt::MqttClient& operator*() { return client_; }
    mqtt::MqttClient* operator->() { return &client_; }

    std::size_t receive(Message const& message) {
        bench::brokerLibrarysView(client_).on_message(message.get());
        return 1;
    }

private:
    mqtt::MqttClient client_{zym::common::Uuid(1), false, "", "", 0, false};
};

class Measurements {
public:
    explicit Measurements(bench::SimpleOptions const& options)
        : repetitions_(options.quick || options.check ? 1 : 9),
          seconds_(options.quick || options.check ? 0.01 : 0.1),
          results_(options.results, "paths") {
        std::printf("| way | figure | by hand | ours | ratio |\n|---|---|--:|--:|--:|\n");
    }

    void take(Path const& path) {
        auto const ours = static_cast<double>(allocationsOf(path.ours));
        auto const byHand = static_cast<double>(allocationsOf(path.byHand));
        tell(path, {"allocations",
                    "",
                    "by hand",
                    {byHand, byHand, byHand},
                    {ours, ours, ours},
                    {ours / byHand, ours / byHand, ours / byHand}});
        takeTimes(path);
        if (ours > static_cast<double>(path.mostAllocations)) {
            std::printf("FAILED: %s takes %.0f allocations, not %zu at most\n", path.name, ours,
                        path.mostAllocations);
            kept_ = false;
        }
    }

    /// Whether no way took more allocations than it may.
    bool kept() const { return kept_; }

private:
    /// Of the second time: the first one finds nothing prepared.
    static std::size_t allocationsOf(Action const& action) {
        action();
        support::AllocationCount const count;
        action();
        return count.value();
    }

    void takeTimes(Path const& path) {
        std::vector<double> ours;
        std::vector<double> theirs;
        std::vector<double> ratios;
        for (unsigned i = 0; i < repetitions_; ++i) {
            theirs.push_back(bench::processorTimeOf(std::ref(path.byHand), seconds_));
            ours.push_back(bench::processorTimeOf(std::ref(path.ours), seconds_));
            ratios.push_back(ours.back() / theirs.back());
        }
        tell(path, {"processor time", "ns", "by hand", bench::summarize(theirs),
                    bench::summarize(ours), bench::summarize(ratios)});
    }

    void tell(Path const& path, bench::Comparison const& row) {
        std::printf("| %-26s | %-14s | %7.1f | %7.1f | %6.3f |\n", path.name, row.name.c_str(),
                    row.reference.median, row.candidate.median, row.ratio.median);
        std::fflush(stdout);
        results_.add("", path.name, row);
    }

    unsigned const repetitions_;
    double const seconds_;
    bench::Results results_;
    bool kept_ = true;
};

void measureTexts(Measurements& measurements) {
    Client client;
    TextTaker taker;
    ByHand byHand;
    mqtt::Topic const topic(TOPIC);
    std::string const brief = "21.5";
    std::string const text(1000, 'x');
    if (client->subscribe(topic, &taker, 0) != mqtt::MqttClient::Error::SUCCESS) {
        throw std::runtime_error("cannot subscribe");
    }
    byHand.subscribe(
        TOPIC, [](auto const& /*topic*/, auto const& payload) { bench::sink = payload.size(); });
    for (auto const& [name, payload, most] :
         {std::tuple{"receive 4 bytes", &brief, 0U}, {"receive 1000 bytes", &text, 1U}}) {
        Message const message(TOPIC, *payload);
        measurements.take({name, most, [&] { return client.receive(message); },
                           [&] { return byHand.receive(*message.get()); }});
    }
    measurements.take(
        {"send 1000 bytes", 0,
         [&] { return static_cast<std::size_t>(client->publish(topic, text, 1, true)); },
         [&] { return byHand.publish(TOPIC, text); }});
    client->release(&taker);
}

template <class T>
void measureValues(Measurements& measurements, T const& sample, char const* receive,
                   std::size_t mostToReceive, char const* send) {
    Client client;
    Taker<T> taker;
    ByHand byHand;
    mqtt::MqttData<T> endpoint(*client, mqtt::Topic(TOPIC));
    std::string text;
    mqtt::MqttData<T>::serialize(endpoint.topicBase(), text, sample);
    Message const message(endpoint.topicBase().text(), text);
    T value = sample;
    endpoint.subscribe(&taker, 0);
    byHand.subscribe(endpoint.topicBase().text(), [&](auto const& /*topic*/, auto const& payload) {
        bench::rapid::read(payload, value);
    });
    measurements.take({receive, mostToReceive, [&] { return client.receive(message); },
                       [&] { return byHand.receive(*message.get()); }});

    mqtt::MqttData<T> sender(*client, mqtt::Topic(TOPIC));
    sender.value = sample;
    measurements.take({send, 3,
                       [&] {
                           sender.publish();
                           return std::size_t{1};
                       },
                       [&] {
                           return byHand.publish(std::string(TOPIC) + "/value",
                                                 bench::rapid::text(sample));
                       }});
}

/// Those of a sample that do not fit into a string itself, and those of them that have escapes.
/// Each is allocated in the copy for the listener; one with escapes also on its way.
constexpr std::size_t LONG_TEXTS = 4;
constexpr std::size_t ESCAPED_TEXTS = 1;

int run(bench::SimpleOptions const& options) {
    if (!options.check) {
        bench::pin(-1);
    }
    Measurements measurements(options);
    measureTexts(measurements);
    measureValues(measurements, bench::sampleCommunication(), "receive a status", 1,
                  "send a status");
    measureValues(measurements, bench::sampleIdentification(), "receive an identification",
                  1 + LONG_TEXTS + ESCAPED_TEXTS, "send an identification");
    return options.check && !measurements.kept() ? 1 : 0;
}

} // namespace

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, USAGE, run);
}
