// The choice of a subscription against the plain walk through the registry, for random
// registries and topics.

#include "client/registry/subscription_index.hpp"

#include "client/walked_registry.hpp"
#include "support/timeout_factor.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using mqtt::Topic;
using Registry = WalkedRegistry<mqtt::SubscriptionIndex>;

/// What levels are made of: few names, so that topics and patterns meet often.
std::array<std::vector<std::string>, 3> const VOCABULARIES{
    {{"a", "b", "", "aa"},
     // Below, between and above the wildcards, and at the ends of what a byte can be.
     {"", "!", "\"", "$", "$a", "*", "'", ",", "-", ".", "0", "a", "\x01", "\x7f", "\x80", "\xff"},
     {}}};

class Dice {
public:
    explicit Dice(unsigned seed) : engine_(seed) {}

    std::size_t below(std::size_t limit) { return engine_() % limit; }
    bool oneIn(std::size_t n) { return below(n) == 0; }

private:
    std::mt19937 engine_;
};

class Texts {
public:
    explicit Texts(Dice& dice) : dice_(dice) {}

    void changeVocabulary() { vocabulary_ = &VOCABULARIES[dice_.below(VOCABULARIES.size())]; }

    std::string name() {
        if (!vocabulary_->empty()) {
            return (*vocabulary_)[dice_.below(vocabulary_->size())];
        }
        // Every byte but zero and the separator; wildcards too.
        std::string result(dice_.below(3), ' ');
        for (auto& byte : result) {
            do {
                byte = static_cast<char>(1 + dice_.below(255));
            } while (byte == '/');
        }
        return result;
    }

    std::string topic() {
        std::string result = name();
        for (auto more = dice_.below(5); more > 0; --more) {
            result += '/' + name();
        }
        return dice_.oneIn(50) ? result + "/+" : result;
    }

    std::string pattern() {
        std::string result = patternLevel();
        for (auto more = dice_.below(5); more > 0; --more) {
            result += '/' + patternLevel();
        }
        if (dice_.oneIn(3)) {
            result += "/#";
        }
        return dice_.oneIn(400) ? "#" : result;
    }

    /// A topic that the pattern matches, or nearly so.
    std::string instance(std::string const& pattern) {
        std::string result;
        for (char const byte : pattern) {
            if (byte == '+') {
                result += name();
            } else if (byte == '#') {
                result += dice_.oneIn(2) ? topic() : "";
            } else {
                result += byte;
            }
        }
        return result + (dice_.oneIn(4) ? "/" : "");
    }

private:
    std::string patternLevel() {
        if (dice_.oneIn(3)) {
            return "+";
        }
        // Now and then what is no pattern to MQTT.
        return dice_.oneIn(40) ? name() + "+#"[dice_.below(2)] + name() : name();
    }

    Dice& dice_;
    std::vector<std::string> const* vocabulary_ = &VOCABULARIES[0];
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
        if (dice_.oneIn(300)) {
            registry_.clear();
            texts_.changeVocabulary();
        }
        auto const& entries = registry_.entries();
        if (!entries.empty() && (dice_.oneIn(2) || entries.size() == MOST_ENTRIES)) {
            registry_.remove(Topic(anyEntry()));
        } else {
            registry_.add(dice_.oneIn(5) ? texts_.topic() : texts_.pattern());
        }
    }

    Topic anyTopic() {
        bool const near = !registry_.entries().empty() && !dice_.oneIn(4);
        return near ? texts_.instance(anyEntry().text()) : texts_.topic();
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

    Dice dice_{GetParam()};

private:
    Topic const& anyEntry() {
        auto const& entries = registry_.entries();
        auto const index = static_cast<std::ptrdiff_t>(dice_.below(entries.size()));
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

    Registry registry_;
    Texts texts_{dice_};
};

INSTANTIATE_TEST_SUITE_P(Seeds, ARandomRegistry, testing::Range(1U, 9U));

TEST_P(ARandomRegistry, IsSearchedAsIfItWereWalkedThrough) {
    constexpr unsigned CHANGES = 200000 / (support::TIMEOUT_FACTOR * support::TIMEOUT_FACTOR);
    constexpr unsigned TOPICS = 6;
    unsigned patternsFound = 0;
    for (unsigned i = 0; i < CHANGES && !HasFatalFailure(); ++i) {
        change();
        for (unsigned j = 0; j < TOPICS; ++j) {
            patternsFound += compare(anyTopic()) ? 1U : 0U;
        }
    }
    // Or it would say little.
    EXPECT_GT(patternsFound, CHANGES * TOPICS / 4);
}

} // namespace
