// The choice of a subscription against the plain walk through the registry, for random
// registries and topics.

#include "client/registry/subscription_index.hpp"

#include "client/walked_registry.hpp"
#include "support/timeout_factor.hpp"

#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using mqtt::Topic;

/// Names of levels: few, so that topics and patterns meet often.
std::vector<std::vector<std::string>> const NAMES{
    {"a", "b", "", "aa"},
    // Below, between and above the wildcards, and the smallest and largest bytes.
    {"", "!", "\"", "$", "$a", "a!", "a-", "*", "'", ",", "-", ".", "0", "a", "\x01", "\x7f",
     "\x80", "\xff"}};

class RandomTexts {
public:
    explicit RandomTexts(unsigned seed) : engine_(seed) {}

    std::size_t below(std::size_t limit) { return engine_() % limit; }
    bool oneIn(std::size_t n) { return below(n) == 0; }

    void changeNames() { names_ = &NAMES[below(NAMES.size())]; }

    std::string topic() {
        std::string const result = levels([this] { return name(); });
        return oneIn(50) ? result + "/+" : result;
    }

    std::string pattern() {
        std::string const result = levels([this] { return patternLevel(); });
        return oneIn(400) ? "#" : oneIn(3) ? result + "/#" : result;
    }

    /// A topic that the pattern matches, or nearly so.
    std::string topicFor(std::string const& pattern) {
        std::string result;
        for (char const byte : pattern) {
            result += byte == '+'   ? name()
                      : byte != '#' ? std::string(1, byte)
                      : oneIn(2)    ? topic()
                                    : "";
        }
        return result + (oneIn(4) ? "/" : "");
    }

private:
    template <class Level>
    std::string levels(Level const& level) {
        std::string result = level();
        for (auto more = below(5); more > 0; --more) {
            result += '/' + level();
        }
        return result;
    }

    std::string name() { return (*names_)[below(names_->size())]; }

    std::string patternLevel() {
        // Sometimes what is no pattern to MQTT.
        return oneIn(3) ? "+" : oneIn(40) ? name() + "+#"[below(2)] + name() : name();
    }

    std::mt19937 engine_;
    std::vector<std::string> const* names_ = &NAMES[0];
};

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
        auto const* const found = registry_.find(topic);
        EXPECT_EQ(found, exact != nullptr ? exact : registry_.walk(topic))
            << "topic " << testing::PrintToString(topic.text()) << " among " << allPatterns();
        return exact == nullptr && found != nullptr;
    }

private:
    std::string allPatterns() const {
        std::string all;
        for (auto const& entry : registry_.entries()) {
            all += testing::PrintToString(entry.first.text()) + ' ';
        }
        return all;
    }

    Topic const& anyEntry() {
        auto const& entries = registry_.entries();
        auto const index = static_cast<std::ptrdiff_t>(random_.below(entries.size()));
        return std::next(entries.begin(), index)->first;
    }

    RandomTexts random_{GetParam()};
    WalkedRegistry registry_;
};

INSTANTIATE_TEST_SUITE_P(Seed, ARandomRegistry, testing::Values(1U));
INSTANTIATE_TEST_SUITE_P(Long, ARandomRegistry, testing::Range(2U, 9U));

TEST_P(ARandomRegistry, IsSearchedAsIfItWereWalkedThrough) {
    unsigned const changes =
        (GetParam() == 1 ? 50000U : 200000U) / (support::TIMEOUT_FACTOR * support::TIMEOUT_FACTOR);
    constexpr unsigned TOPICS = 6;
    unsigned patternsFound = 0;
    for (unsigned i = 0; i < changes && !HasFailure(); ++i) {
        change();
        for (unsigned j = 0; j < TOPICS; ++j) {
            patternsFound += compare(anyTopic()) ? 1U : 0U;
        }
    }
    EXPECT_GT(patternsFound, changes * TOPICS / 4) << "too few to prove anything";
}

TEST(ARegistry, TakesPatternsOfAnyNumberOfLevels) {
    WalkedRegistry registry;
    std::string topic = "a";
    std::string levels = "+";
    for (int i = 1; i < 70; ++i) {
        topic += "/a";
        levels += "/+";
        registry.add(levels);
        registry.add(levels + "/#");
        EXPECT_EQ(registry.find(topic), registry.walk(topic)) << i;
    }
    for (int i = 0; i < 30000; ++i) {
        topic += "/a";
    }
    registry.clear();
    registry.add(topic + "/+");
    registry.add("a/+");
    EXPECT_EQ(registry.find(topic + "/a")->topic, topic + "/+");
    EXPECT_EQ(registry.find(topic), nullptr);
    EXPECT_EQ(registry.find("a/a")->topic, "a/+");
}

TEST(APatternIndex, TakesATopicUpToItsFirstZeroByte) {
    mqtt::PatternIndex index;
    mqtt::PatternIndex::Subscription pattern{"+/b", {}};
    index.add(pattern);
    EXPECT_EQ(index.find(std::string("a/b\0c", 5)), &pattern) << "as Topic::matches does";
}

TEST(APatternIndex, KeepsALevelAsLongAsOneOfItsPatternsNeedsIt) {
    using mqtt::PatternIndex;
    PatternIndex index;
    PatternIndex::Subscription any{"a/b/+", {}};
    PatternIndex::Subscription middle{"a/+/c", {}};
    PatternIndex::Subscription deeper{"a/b/+/d", {}};
    for (auto* const subscription : {&any, &middle, &deeper}) {
        index.add(*subscription);
    }
    index.remove({"a/b/+/#", {}}); // is not there
    EXPECT_EQ(index.size(), 6U);
    struct Removal {
        PatternIndex::Subscription const& removed;
        std::size_t levelsLeft;
    };
    for (auto const& [removed, levelsLeft] :
         {Removal{any, 6}, Removal{deeper, 3}, Removal{middle, 0}}) {
        index.remove(removed);
        EXPECT_EQ(index.size(), levelsLeft) << "without " << removed.topic;
    }
}

} // namespace
