#include "in_process.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {
namespace {

using Texts = std::vector<std::string>;

constexpr std::size_t FEW = 10;
constexpr std::size_t MANY = 10000;

Texts devices(std::size_t number, std::string const& level, std::string const& last) {
    Texts result;
    for (std::size_t i = 0; i < number; ++i) {
        result.push_back("plant/" + level + "/device" + std::to_string(i * 7919) + '/' + last);
    }
    return result;
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
    {"pattern, the first", patterns, [](std::size_t /*number*/) { return exactTopics(1); }},
    {"pattern, the last", patterns, [](std::size_t n) { return Texts{exactTopics(n).back()}; }},
    {"pattern, each in turn", patterns, exactTopics},
    {"pattern, none", patterns, [](std::size_t n) { return devices(n, "hall/east", "state"); }},
    {"similar patterns, none", similarPatterns,
     [](std::size_t /*number*/) { return Texts{"a/a/a/a/a/a/a/a/a/a/a/a/a/a/other"}; }},
};

/// A client that never connects, and the messages that arrive there in random order.
class Subject : private mqtt::MqttClient::Subscriber {
public:
    Subject(Texts const& subscriptions, Texts const& topics) {
        for (std::size_t i = 0; i < topics_.size(); ++i) {
            auto const& topic = topics[i % topics.size()];
            topic.copy(topics_[i].data(), topics_[i].size() - 1);
        }
        std::shuffle(topics_.begin(), topics_.end(), std::mt19937(1));
        client_.pause();
        std::size_t const before = heapInUse();
        for (auto const& text : subscriptions) {
            if (client_.subscribe(text, this, 0) != mqtt::MqttClient::Error::SUCCESS) {
                throw std::runtime_error("cannot subscribe to " + text);
            }
        }
        heapOfSubscriptions_ = static_cast<double>(heapInUse() - before);
    }
    ~Subject() { client_.release(this); }
    Subject(Subject const&) = delete;
    Subject& operator=(Subject const&) = delete;

    /// @return how many messages the subscriber has got so far
    std::size_t receiveNext() {
        receive(client_, messageOf(topics_[next_].data(), payload_));
        next_ = next_ + 1 == topics_.size() ? 0 : next_ + 1;
        return received_;
    }
    double heapOfSubscriptions() const { return heapOfSubscriptions_; }

private:
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        ++received_;
    }

    // As many for few topics as for many, side by side: their memory makes no difference.
    std::vector<std::array<char, 48>> topics_{MANY};
    std::size_t next_ = 0;
    std::string payload_ = "{\"state\": 3}";
    std::size_t received_ = 0;
    double heapOfSubscriptions_ = 0;
    mqtt::MqttClient client_{zym::common::Uuid(1), false, "", "", 0, false};
};

void measureCase(Options const& options, Case const& measured) {
    Measurement const measurement{"dispatch", measured.name};
    if (!isWanted(options, measurement)) {
        return;
    }
    std::map<std::size_t, Subject> subjects;
    for (std::size_t const number : {FEW, std::size_t{100}, std::size_t{1000}, MANY}) {
        subjects.try_emplace(number, measured.subscriptions(number), measured.messages(number));
    }
    auto const ours = [&](int) {
        Figures figures;
        for (auto& [number, subject] : subjects) {
            auto const receiveNext = [&subject = subject] { return subject.receiveNext(); };
            figures.push_back({std::to_string(number), "ns",
                               nanosecondsPerCall(receiveNext, options.secondsInProcess)});
        }
        return figures;
    };
    measureInTurns(options, measurement, {{"ours", ours}});
}

double heapOfASubscription(Texts const& subscriptions) {
    return Subject(subscriptions, {"a"}).heapOfSubscriptions() / MANY;
}

} // namespace

void measureDispatch(Options const& options) {
    for (auto const& measured : CASES) {
        measureCase(options, measured);
    }
    auto const ours = [](int) {
        return Figures{{"text", "bytes", heapOfASubscription(exactTopics(MANY))},
                       {"pattern", "bytes", heapOfASubscription(patterns(MANY))}};
    };
    measureInTurns(options, {"dispatch", "heap of a subscription", 1}, {{"ours", ours}});
}

} // namespace bench
