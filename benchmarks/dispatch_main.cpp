// From a message of the broker library to the call of its subscriber, by number of subscriptions,
// in process and without a broker.

#include "broker_librarys_view.hpp"
#include "cpu_clock.hpp"
#include "dispatch_check.hpp"
#include "heap.hpp"
#include "pinning.hpp"
#include "results.hpp"
#include "simple_options.hpp"
#include "statistics.hpp"

#include <mqtt/client.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr char const* USAGE = "bench-dispatch [--quick] [--check] [--results FILE]\n"
                              "Compares dispatch with many subscriptions to dispatch with ten.\n"
                              "  --check  takes no times: fails when a subscription is chosen that "
                              "a walk would not choose\n";

constexpr std::size_t FEW = 10;
constexpr std::size_t NUMBERS[] = {FEW, 100, 1000, 10000};

struct Effort {
    unsigned repetitions = 15;
    double seconds = 0.05; ///< of one measurement
};

struct Counter : mqtt::MqttClient::Subscriber {
    void onMqttMessage(int /*tag*/, mqtt::Topic const& /*topic*/,
                       std::string const& /*payload*/) override {
        ++count;
    }
    std::size_t count = 0;
};

using Texts = std::vector<std::string>;

std::string device(std::size_t i, char const* level, char const* what) {
    return "plant/" + std::string(level) + "/device" + std::to_string(i * 7919) + "/" + what;
}

Texts devices(std::size_t number, char const* level, char const* what) {
    Texts result;
    for (std::size_t i = 0; i < number; ++i) {
        result.push_back(device(i, level, what));
    }
    return result;
}

/// In the order of their patterns.
Texts sorted(Texts texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

struct Measurement {
    char const* name;
    Texts (*subscriptions)(std::size_t number);
    /// What arrives, over and over, in random order.
    Texts (*messages)(std::size_t number);
};

Texts exact(std::size_t number) {
    return devices(number, "hall", "state");
}

Texts patterns(std::size_t number) {
    return devices(number, "+", "#");
}

/// Patterns that differ in nothing but where their "+" stand: the worst there is.
Texts alike(std::size_t number) {
    constexpr unsigned LEVELS = 14; // enough for all the numbers
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

Measurement const MEASUREMENTS[] = {
    {"text, the same ten", exact, [](std::size_t /*number*/) { return exact(FEW); }},
    {"text, each in turn", exact, exact},
    {"text, none", exact, [](std::size_t number) { return devices(number, "hall", "other"); }},
    {"pattern, the first", patterns,
     [](std::size_t number) { return Texts{sorted(devices(number, "hall", "state")).front()}; }},
    {"pattern, the last", patterns,
     [](std::size_t number) { return Texts{sorted(devices(number, "hall", "state")).back()}; }},
    {"pattern, each in turn", patterns, exact},
    {"pattern, none", patterns,
     [](std::size_t number) { return devices(number, "hall/east", "state"); }},
    {"patterns alike, none", alike,
     [](std::size_t /*number*/) { return Texts{"a/a/a/a/a/a/a/a/a/a/a/a/a/a/other"}; }},
};

/// A client with so many subscriptions, never connected, whose worker sleeps.
class Subject {
public:
    Subject(Measurement const& measurement, std::size_t number) {
        auto const topics = measurement.messages(number);
        for (std::size_t i = 0; i < MESSAGES; ++i) {
            auto const& topic = topics[i % topics.size()];
            topic.copy(messages_[i].data(), messages_[i].size() - 1);
        }
        std::mt19937 random(1);
        std::shuffle(messages_.begin(), messages_.end(), random);
        client_.pause();
        for (auto const& text : measurement.subscriptions(number)) {
            if (client_.subscribe(text, &counter_, 0) != mqtt::MqttClient::Error::SUCCESS) {
                throw std::runtime_error("cannot subscribe to " + text);
            }
        }
    }

    ~Subject() { client_.release(&counter_); }
    Subject(Subject const&) = delete;
    Subject& operator=(Subject const&) = delete;

    /// @return nanoseconds of processor time for one message
    double measure(double seconds) {
        double count = 0;
        double passed = 0;
        double const start = bench::cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        while (passed < seconds) {
            for (unsigned i = 0; i < BATCH; ++i) {
                receiveNext();
            }
            count += BATCH;
            passed = bench::cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - start;
        }
        return passed / count * 1e9;
    }

private:
    static constexpr unsigned BATCH = 256; // the clock is read seldom
    // As many for few topics as for many, and side by side: their memory does not tell them apart.
    static constexpr std::size_t MESSAGES = NUMBERS[3];

    void receiveNext() {
        mosquitto_message message{};
        message.topic = messages_[next_].data();
        message.payload = payload_.data();
        message.payloadlen = static_cast<int>(payload_.size());
        bench::brokerLibrarysView(client_).on_message(&message);
        next_ = next_ + 1 == messages_.size() ? 0 : next_ + 1;
    }

    std::vector<std::array<char, 48>> messages_{MESSAGES};
    std::size_t next_ = 0;
    std::string payload_ = "{\"state\": 3}";
    Counter counter_;
    mqtt::MqttClient client_{zym::common::Uuid(1), false, "", "", 0, false};
};

void compare(Measurement const& measurement, Effort const& effort, bench::Results& results) {
    std::map<std::size_t, std::unique_ptr<Subject>> subjects;
    std::map<std::size_t, std::vector<double>> times;
    std::map<std::size_t, std::vector<double>> ratios;
    for (std::size_t const number : NUMBERS) {
        subjects[number] = std::make_unique<Subject>(measurement, number);
    }
    for (unsigned i = 0; i < effort.repetitions; ++i) {
        double const few = subjects[FEW]->measure(effort.seconds);
        for (std::size_t const number : NUMBERS) {
            times[number].push_back(subjects[number]->measure(effort.seconds));
            ratios[number].push_back(times[number].back() / few);
        }
    }
    std::printf("| %-21s |", measurement.name);
    for (std::size_t const number : NUMBERS) {
        auto const ratio = bench::summarize(ratios[number]);
        std::printf(" %5.2f (%.2f..%.2f) |", ratio.median, ratio.lowest, ratio.highest);
        results.add("", measurement.name,
                    {std::to_string(number), "ns", std::to_string(FEW),
                     bench::summarize(times[FEW]), bench::summarize(times[number]), ratio});
    }
    std::printf("\n");
    std::fflush(stdout);
}

void printMemory(char const* name, Texts const& texts) {
    Counter counter;
    mqtt::MqttClient client(zym::common::Uuid(1), false, "", "", 0, false);
    client.pause();
    std::size_t const before = bench::heapInUse();
    for (auto const& text : texts) {
        static_cast<void>(client.subscribe(text, &counter, 0));
    }
    std::printf("%s: %zu bytes of heap for each of %zu\n", name,
                (bench::heapInUse() - before) / texts.size(), texts.size());
    client.release(&counter);
}

/// Some of the messages, since a walk takes its time.
bool check(Measurement const& measurement, std::size_t number) {
    constexpr std::size_t SOME = 200;
    Texts const all = measurement.messages(number);
    Texts messages;
    for (std::size_t i = 0; i < all.size(); i += 1 + all.size() / SOME) {
        messages.push_back(all[i]);
    }
    return bench::choosesAsAWalk(measurement.subscriptions(number), messages);
}

int checkAll() {
    constexpr unsigned REGISTRIES = 300;
    bool agree = bench::choosesAsAWalkAtRandom(REGISTRIES);
    for (auto const& measurement : MEASUREMENTS) {
        for (std::size_t const number : NUMBERS) {
            agree = check(measurement, number) && agree;
        }
    }
    std::printf("The choice %s that of a walk.\n", agree ? "is always" : "IS NOT ALWAYS");
    return agree ? 0 : 1;
}

int run(bench::SimpleOptions const& options) {
    if (options.check) {
        return checkAll();
    }
    Effort const effort = options.quick ? Effort{1, 0.002} : Effort{};
    bench::Results results(options.results, "dispatch");
    bench::pin(-1);
    std::printf("| messages              | 10 | 100 | 1000 | 10000 |\n|---|---|---|---|---|\n");
    for (auto const& measurement : MEASUREMENTS) {
        compare(measurement, effort, results);
    }
    std::printf("\n");
    printMemory("texts", exact(NUMBERS[3]));
    printMemory("patterns", patterns(NUMBERS[3]));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    return bench::runProgram(argc, argv, USAGE, run);
}
