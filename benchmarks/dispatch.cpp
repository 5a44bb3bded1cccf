// From a message of the broker library to the call of its subscriber, by number of subscriptions.

#include "in_process.hpp"
#include "resources.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {
namespace {

using Texts = std::vector<std::string>;

constexpr std::size_t FEW = 10;
constexpr std::size_t MANY = 10000;
constexpr std::array<std::size_t, 4> NUMBERS{FEW, 100, 1000, MANY};

Texts devices(std::size_t number, std::string const& level, std::string const& last) {
    Texts result;
    for (std::size_t i = 0; i < number; ++i) {
        result.push_back("plant/" + level + "/device" + std::to_string(i * 7919) + '/' + last);
    }
    return result;
}

Texts sorted(Texts texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

Texts exactTopics(std::size_t number) {
    return devices(number, "hall", "state");
}

Texts patterns(std::size_t number) {
    return devices(number, "+", "#");
}

/// They differ only in which of their levels are "+": the worst case of the search.
Texts similarPatterns(std::size_t number) {
    constexpr unsigned LEVELS = 14; // enough for MANY
    Texts result;
    for (std::size_t i = 0; i < number; ++i) {
        std::string text;
        for (unsigned level = 0; level < LEVELS; ++level) {
            text += (i >> level) % 2 == 0 ? "+/" : "a/";
        }
        result.push_back(text + "end");
    }
    return result;
}

struct Case {
    char const* name;
    Texts (*subscriptions)(std::size_t number);
    /// What arrives, again and again, in random order.
    Texts (*messages)(std::size_t number);
};

Case const CASES[] = {
    {"text, the same ten", exactTopics, [](std::size_t /*number*/) { return exactTopics(FEW); }},
    {"text, each in turn", exactTopics, exactTopics},
    {"text, none", exactTopics, [](std::size_t n) { return devices(n, "hall", "other"); }},
    {"pattern, the first", patterns,
     [](std::size_t n) { return Texts{sorted(exactTopics(n)).front()}; }},
    {"pattern, the last", patterns,
     [](std::size_t n) { return Texts{sorted(exactTopics(n)).back()}; }},
    {"pattern, each in turn", patterns, exactTopics},
    {"pattern, none", patterns, [](std::size_t n) { return devices(n, "hall/east", "state"); }},
    {"similar patterns, none", similarPatterns,
     [](std::size_t /*number*/) { return Texts{"a/a/a/a/a/a/a/a/a/a/a/a/a/a/other"}; }},
};

/// A client that never connects.
class ClientWithSubscriptions : private mqtt::MqttClient::Subscriber {
public:
    explicit ClientWithSubscriptions(Texts const& subscriptions) {
        client_.pause();
        for (auto const& text : subscriptions) {
            if (client_.subscribe(text, this, 0) != mqtt::MqttClient::Error::SUCCESS) {
                throw std::runtime_error("cannot subscribe to " + text);
            }
        }
    }
    ~ClientWithSubscriptions() { client_.release(this); }
    ClientWithSubscriptions(ClientWithSubscriptions const&) = delete;
    ClientWithSubscriptions& operator=(ClientWithSubscriptions const&) = delete;

    /// @return how many messages a subscriber has got so far
    std::size_t receive(mosquitto_message const& message) {
        bench::receive(client_, message);
        return received_;
    }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        ++received_;
    }

    std::size_t received_ = 0;
    mqtt::MqttClient client_{zym::common::Uuid(1), false, "", "", 0, false};
};

/// Messages that arrive in random order. There are as many for few topics as for many, side by
/// side, so that the memory of the messages does not make a difference.
class Messages {
public:
    explicit Messages(Texts const& topics) {
        for (std::size_t i = 0; i < topics_.size(); ++i) {
            auto const& topic = topics[i % topics.size()];
            topic.copy(topics_[i].data(), topics_[i].size() - 1);
        }
        std::shuffle(topics_.begin(), topics_.end(), std::mt19937(1));
    }

    mosquitto_message next() {
        auto const message = messageOf(topics_[next_].data(), payload_);
        next_ = next_ + 1 == topics_.size() ? 0 : next_ + 1;
        return message;
    }

private:
    std::vector<std::array<char, 48>> topics_{MANY};
    std::size_t next_ = 0;
    std::string payload_ = "{\"state\": 3}";
};

struct Subject {
    explicit Subject(Case const& measured, std::size_t number)
        : client(measured.subscriptions(number)), messages(measured.messages(number)) {}

    ClientWithSubscriptions client;
    Messages messages;
};

void measureCase(Options const& options, Case const& measured) {
    int const repetitions = repetitionsOf(options, "dispatch", measured.name, 9);
    if (repetitions == 0) {
        return;
    }
    double const seconds = options.quick ? 0.002 : 0.05;
    std::map<std::size_t, std::unique_ptr<Subject>> subjects;
    for (std::size_t const number : NUMBERS) {
        subjects[number] = std::make_unique<Subject>(measured, number);
    }
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (auto const& [number, subject] : subjects) {
            auto const receiveNext = [&client = subject->client, &messages = subject->messages] {
                return client.receive(messages.next());
            };
            print({"dispatch", measured.name, std::to_string(number), "ns", "ours", "", repetition,
                   nanosecondsPerCall(receiveNext, seconds)});
        }
    }
}

void measureHeap(char const* figure, Texts const& subscriptions) {
    std::size_t const before = heapInUse();
    ClientWithSubscriptions const client(subscriptions);
    auto const bytes = static_cast<double>(heapInUse() - before);
    print({"dispatch", "heap of a subscription", figure, "bytes", "ours", "", 0,
           bytes / static_cast<double>(subscriptions.size())});
}

} // namespace

void measureDispatch(Options const& options) {
    for (auto const& measured : CASES) {
        measureCase(options, measured);
    }
    if (repetitionsOf(options, "dispatch", "heap of a subscription", 1) > 0) {
        measureHeap("text", exactTopics(MANY));
        measureHeap("pattern", patterns(MANY));
    }
}

} // namespace bench
