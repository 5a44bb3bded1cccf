// The choice of a subscription against the plain walk through the registry, for random
// registries and topics.

#include "client/subscription_index.hpp"

#include "client/walked_registry.hpp"
#include "support/sanitizers.hpp"

#include <gtest/gtest.h>

#include <cctype>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using mqtt::Topic;

/// Names of levels: few, so that topics and patterns meet often.
std::vector<std::vector<std::string>> const NAMES{
    {"a", "b", "", "aa"},
    // Below, between and above the wildcards, and the smallest and largest bytes.
    {"", "!", "\"", "$", "$a", "*", "'", ",", "-", ".", "0", "a", "\x01", "\x7f", "\x80", "\xff"},
    {}}; // any bytes

class RandomTexts {
public:
    explicit RandomTexts(unsigned seed) : engine_(seed) {}

    std::size_t below(std::size_t limit) { return engine_() % limit; }
    bool oneIn(std::size_t n) { return below(n) == 0; }

    void changeNames() { names_ = &NAMES[below(NAMES.size())]; }

    std::string topic() {
        std::string result = name();
        for (auto more = below(5); more > 0; --more) {
            result += '/' + name();
        }
        return oneIn(50) ? result + "/+" : result;
    }

    std::string pattern() {
        std::string result = patternLevel();
        for (auto more = below(5); more > 0; --more) {
            result += '/' + patternLevel();
        }
        if (oneIn(3)) {
            result += "/#";
        }
        return oneIn(400) ? "#" : result;
    }

    /// A topic that the pattern matches, or nearly so.
    std::string topicFor(std::string const& pattern) {
        std::string result;
        for (char const byte : pattern) {
            if (byte == '+') {
                result += name();
            } else if (byte == '#') {
                result += oneIn(2) ? topic() : "";
            } else {
                result += byte;
            }
        }
        return result + (oneIn(4) ? "/" : "");
    }

private:
    std::string name() {
        if (!names_->empty()) {
            return (*names_)[below(names_->size())];
        }
        // Every byte but zero and the separator; wildcards too.
        std::string result(below(3), ' ');
        for (auto& byte : result) {
            do {
                byte = static_cast<char>(1 + below(255));
            } while (byte == '/');
        }
        return result;
    }

    std::string patternLevel() {
        if (oneIn(3)) {
            return "+";
        }
        // Sometimes what is no pattern to MQTT.
        return oneIn(40) ? name() + "+#"[below(2)] + name() : name();
    }

    std::mt19937 engine_;
    std::vector<std::string> const* names_ = &NAMES[0];
};

std::string readable(std::string const& text) {
    std::ostringstream out;
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (std::isprint(byte) != 0) {
            out << byte;
        } else {
            out << "\\x" << std::hex << int{byte} << std::dec << ' ';
        }
    }
    return '"' + out.str() + '"';
}

std::string readable(mqtt::MqttClient::Subscription const* subscription) {
    return subscription == nullptr ? "none" : readable(subscription->topic.text());
}

class ARandomRegistry : public testing::TestWithParam<unsigned> {
protected:
    static constexpr std::size_t MOST_ENTRIES = 40;

    void change() {
        if (random_.oneIn(300)) {
            registry_.clear();
            random_.changeNames();
        }
        auto const& entries = registry_.entries();
        if (!entries.empty() && (random_.oneIn(2) || entries.size() == MOST_ENTRIES)) {
            registry_.remove(Topic(anyEntry()));
        } else {
            registry_.add(random_.oneIn(5) ? random_.topic() : random_.pattern());
        }
    }

    Topic anyTopic() {
        bool const near = !registry_.entries().empty() && !random_.oneIn(4);
        return near ? random_.topicFor(anyEntry().text()) : random_.topic();
    }

    /// @return whether a pattern was found
    bool compare(Topic const& topic) {
        auto const* const exact = registry_.exact(topic);
        auto const* const expected = exact != nullptr ? exact : registry_.walk(topic);
        auto const* const found = registry_.find(topic);
        if (found != expected) {
            report(topic, found, expected);
        }
        return exact == nullptr && found != nullptr;
    }

private:
    Topic const& anyEntry() {
        auto const& entries = registry_.entries();
        auto const index = static_cast<std::ptrdiff_t>(random_.below(entries.size()));
        return std::next(entries.begin(), index)->first;
    }

    void report(Topic const& topic, mqtt::MqttClient::Subscription const* found,
                mqtt::MqttClient::Subscription const* expected) const {
        std::string all;
        for (auto const& entry : registry_.entries()) {
            all += ' ' + readable(entry.first.text());
        }
        FAIL() << "seed " << GetParam() << ", topic " << readable(topic.text()) << ": found "
               << readable(found) << ", the walk finds " << readable(expected) << " among" << all;
    }

    RandomTexts random_{GetParam()};
    WalkedRegistry<mqtt::SubscriptionIndex> registry_;
};

INSTANTIATE_TEST_SUITE_P(Seed, ARandomRegistry, testing::Values(1U));
INSTANTIATE_TEST_SUITE_P(Long, ARandomRegistry, testing::Range(2U, 9U));

TEST_P(ARandomRegistry, IsSearchedAsIfItWereWalkedThrough) {
    constexpr unsigned CHANGES = 200000 / (support::SLOWNESS * support::SLOWNESS);
    constexpr unsigned TOPICS = 6;
    unsigned patternsFound = 0;
    for (unsigned i = 0; i < CHANGES && !HasFatalFailure(); ++i) {
        change();
        for (unsigned j = 0; j < TOPICS; ++j) {
            patternsFound += compare(anyTopic()) ? 1U : 0U;
        }
    }
    EXPECT_GT(patternsFound, CHANGES * TOPICS / 4) << "too few to prove anything";
}

} // namespace
