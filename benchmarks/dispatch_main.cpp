// From a message of the broker library to the call of its subscriber, by number of subscriptions,
// in process and without a broker.

#include "cpu_clock.hpp"
#include "pinning.hpp"
#include "statistics.hpp"

#include <mqtt/client.hpp>

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr char const* USAGE = "bench-dispatch [--quick]\n"
                              "Compares dispatch with many subscriptions to dispatch with ten.\n";

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

// The base class is private: only this cast may pass, and it is the broker library's way in.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
mosqpp::mosquittopp& brokerLibrarysView(mqtt::MqttClient& client) {
    return (mosqpp::mosquittopp&)client;
}
#pragma GCC diagnostic pop

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
        brokerLibrarysView(client_).on_message(&message);
        next_ = next_ + 1 == messages_.size() ? 0 : next_ + 1;
    }

    std::vector<std::array<char, 48>> messages_{MESSAGES};
    std::size_t next_ = 0;
    std::string payload_ = "{\"state\": 3}";
    Counter counter_;
    mqtt::MqttClient client_{zym::common::Uuid(1), false, "", "", 0, false};
};

void compare(Measurement const& measurement, Effort const& effort) {
    std::map<std::size_t, std::unique_ptr<Subject>> subjects;
    std::map<std::size_t, std::vector<double>> ratios;
    for (std::size_t const number : NUMBERS) {
        subjects[number] = std::make_unique<Subject>(measurement, number);
    }
    for (unsigned i = 0; i < effort.repetitions; ++i) {
        double const few = subjects[FEW]->measure(effort.seconds);
        for (std::size_t const number : NUMBERS) {
            ratios[number].push_back(subjects[number]->measure(effort.seconds) / few);
        }
    }
    std::printf("| %-21s |", measurement.name);
    for (std::size_t const number : NUMBERS) {
        auto const ratio = bench::summarize(ratios[number]);
        std::printf(" %5.2f (%.2f..%.2f) |", ratio.median, ratio.lowest, ratio.highest);
    }
    std::printf("\n");
    std::fflush(stdout);
}

std::size_t heapInUse() {
#if __GLIBC_PREREQ(2, 33)
    return ::mallinfo2().uordblks;
#else
    return static_cast<std::size_t>(::mallinfo().uordblks);
#endif
}

void printMemory(char const* name, Texts const& texts) {
    Counter counter;
    mqtt::MqttClient client(zym::common::Uuid(1), false, "", "", 0, false);
    client.pause();
    std::size_t const before = heapInUse();
    for (auto const& text : texts) {
        static_cast<void>(client.subscribe(text, &counter, 0));
    }
    std::printf("%s: %zu bytes of heap for each of %zu\n", name,
                (heapInUse() - before) / texts.size(), texts.size());
    client.release(&counter);
}

} // namespace

int main(int argc, char** argv) try {
    Effort effort;
    if (argc == 2 && std::string(argv[1]) == "--quick") {
        effort = {1, 0.002};
    } else if (argc > 1) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    bench::pin(-1);
    std::printf("| messages              | 10 | 100 | 1000 | 10000 |\n|---|---|---|---|---|\n");
    for (auto const& measurement : MEASUREMENTS) {
        compare(measurement, effort);
    }
    std::printf("\n");
    printMemory("texts", exact(NUMBERS[3]));
    printMemory("patterns", patterns(NUMBERS[3]));
    return 0;
} catch (std::exception const& error) {
    std::fprintf(stderr, "bench-dispatch: %s\n", error.what());
    return 1;
}
