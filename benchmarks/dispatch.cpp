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
        heapOfSubscriptions_ = heapInUse() - before;
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
    double heapOfSubscriptions() const { return static_cast<double>(heapOfSubscriptions_); }

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
    std::size_t heapOfSubscriptions_ = 0;
    mqtt::MqttClient client_{zym::common::Uuid(1), false, "", "", 0, false};
};

void measureCase(Options const& options, Case const& measured) {
    int const repetitions = repetitionsOf(options, "dispatch", measured.name, 9);
    if (repetitions == 0) {
        return;
    }
    std::map<std::size_t, std::unique_ptr<Subject>> subjects;
    for (std::size_t const number : NUMBERS) {
        subjects[number] =
            std::make_unique<Subject>(measured.subscriptions(number), measured.messages(number));
    }
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        for (auto const& [number, subject] : subjects) {
            print({"dispatch", measured.name, std::to_string(number), "ns", "ours", "", repetition,
                   nanosecondsPerCall([&subject = *subject] { return subject.receiveNext(); },
                                      options.secondsInProcess)});
        }
    }
}

void measureHeap(char const* figure, Texts const& subscriptions) {
    Subject const subject(subscriptions, {"a"});
    print({"dispatch", "heap of a subscription", figure, "bytes", "ours", "", 0,
           subject.heapOfSubscriptions() / MANY});
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
