#include "client/registry/pattern_index.hpp"

#include "client/walked_registry.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using mqtt::PatternIndex;
using mqtt::Topic;
using Strings = std::vector<std::string>;

/// The topic with exactly this text: parsing takes one separator off either end.
Topic topicOf(std::string const& text) {
    return '/' + text + '/';
}

class ThePatternIndex : public testing::Test {
protected:
    void add(Strings const& patterns) {
        for (auto const& pattern : patterns) {
            registry_.add(topicOf(pattern));
        }
    }

    void remove(std::string const& pattern) { registry_.remove(topicOf(pattern)); }

    /// The pattern that the index finds, which must be the one that the walk finds; "none" without
    /// a match.
    std::string found(std::string const& topic) const {
        auto const* const subscription = registry_.find(topicOf(topic));
        EXPECT_EQ(subscription, registry_.walk(topicOf(topic))) << topic;
        return subscription == nullptr ? "none" : subscription->topic.text();
    }

    /// Adds the patterns in both orders. Each must be found for the topic when those before it are
    /// removed.
    void expectInThisOrder(std::string const& topic, Strings patterns) {
        SCOPED_TRACE("for " + topic);
        ASSERT_TRUE(std::is_sorted(patterns.begin(), patterns.end()));
        for (bool const backwards : {false, true}) {
            add(backwards ? Strings(patterns.rbegin(), patterns.rend()) : patterns);
            for (auto const& pattern : patterns) {
                EXPECT_EQ(found(topic), pattern);
                remove(pattern);
            }
            EXPECT_EQ(found(topic), "none");
        }
    }

    WalkedRegistry<PatternIndex> registry_;
};

TEST_F(ThePatternIndex, FindsTheFirstMatchInByteOrder) {
    expectInThisOrder("a/b",
                      {"#", "+/#", "+/+", "+/+/#", "+/b", "+/b/#", "a/#", "a/+", "a/+/#", "a/b/#"});
    // An empty level, and an empty last one.
    expectInThisOrder("a//b", {"a/#", "a/+/#", "a/+/+", "a/+/b", "a//#", "a//+", "a//+/#"});
    expectInThisOrder("/b", {"#", "+/#", "+/+", "+/+/#", "+/b", "/#", "/+", "/+/#"});
    expectInThisOrder("a/", {"+/", "+/#", "+/+", "+/+/#", "+//#", "a/#", "a/+", "a/+/#", "a//#"});
    expectInThisOrder("/", {"+/", "+/#", "+/+", "+//#", "/", "/#", "/+", "/+/#", "//#"});
}

TEST_F(ThePatternIndex, PutsNamesByTheirFirstByteBelowBetweenOrAboveTheWildcards) {
    for (std::string const name : {"!", "\"q", "\x01", "!0"}) {
        expectInThisOrder("x/" + name + "/c",
                          {"x/" + name + "/#", "x/" + name + "/+", "x/#", "x/+/#", "x/+/c"});
    }
    expectInThisOrder("\"q/c", {"\"q/#", "\"q/+", "#", "+/#", "+/c"});
    for (std::string const name : {"$", "%", "&a", "'", "(", ")", "*z"}) {
        expectInThisOrder("x/" + name + "/c",
                          {"x/#", "x/" + name + "/#", "x/" + name + "/+", "x/+/#", "x/+/c"});
    }
    for (std::string const name : {",", "-", ".", "0", "0!", "~", "\x7f", "\x80", "\xff"}) {
        expectInThisOrder("x/" + name + "/c", {"x/#", "x/+/#", "x/+/+", "x/+/c", "x/" + name + "/#",
                                               "x/" + name + "/+"});
    }
}

TEST_F(ThePatternIndex, FindsWhatMatchesAndNothingElse) {
    struct Case {
        Strings patterns;
        std::string topic, found;
    };
    Strings const branches{"+/+/+/x", "+/b/+/y", "a/+/+/z", "a/b/c/+"};
    Strings const rests{"a/b/#", "+/c/+/#"};
    Strings const everything{"#", "+", "+/+", "a/+", "a/#"};
    for (auto const& [patterns, topic, expected] :
         {Case{{}, "a", "none"}, Case{{}, "", "none"},
          // An empty level in the middle is not the last one.
          Case{{"+/"}, "a//b", "none"}, Case{{"+/"}, "a/", "+/"},
          // "#" matches the level above too.
          Case{rests, "a/b", "a/b/#"}, Case{rests, "a", "none"}, Case{rests, "x/c/d", "+/c/+/#"},
          Case{rests, "x/c", "none"}, Case{rests, "x/c/", "+/c/+/#"},
          // The search comes back from branches that end without a match.
          Case{branches, "a/b/c/x", "+/+/+/x"}, Case{branches, "a/b/c/y", "+/b/+/y"},
          Case{branches, "a/b/c/z", "a/+/+/z"}, Case{branches, "a/b/c/w", "a/b/c/+"},
          Case{branches, "a/b/c", "none"}, Case{branches, "a/b/c/x/y", "none"},
          // A topic ends at its first zero byte, and has no wildcards.
          Case{{"+/b"}, std::string("a/b\0c", 5), "+/b"}, Case{everything, "+", "none"},
          Case{everything, "#", "none"}, Case{everything, "a/+", "none"},
          Case{everything, "a/#", "none"}, Case{everything, "a/b+", "none"},
          Case{everything, "a#/b", "none"}}) {
        add(patterns);
        EXPECT_EQ(found(topic), expected);
        registry_.clear();
        EXPECT_EQ(registry_.index().size(), 0U);
    }
}

TEST_F(ThePatternIndex, KeepsTopicsWithADollarApartOnTheFirstLevelOnly) {
    add({"#", "+/a", "$SYS/#", "$SYS/+", "x/+", "+/$y"});
    EXPECT_EQ(found("$SYS/a"), "$SYS/#");
    EXPECT_EQ(found("$SYS"), "$SYS/#");
    EXPECT_EQ(found("$other/a"), "none");
    EXPECT_EQ(found("$"), "none");
    EXPECT_EQ(found("x/$y"), "#");
    remove("#");
    EXPECT_EQ(found("x/$y"), "+/$y");
    remove("+/$y");
    EXPECT_EQ(found("x/$y"), "x/+");
}

TEST_F(ThePatternIndex, TakesAnyNumberOfLevels) {
    std::string topic = "a";
    std::string levels = "+";
    for (int i = 1; i < 70; ++i) {
        topic += "/a";
        levels += "/+";
        add({levels, levels + "/#"});
        EXPECT_EQ(found(topic), i == 1 ? levels : "+/+/#");
    }
    std::string deep = "a";
    for (int i = 0; i < 30000; ++i) {
        deep += "/a";
    }
    registry_.clear();
    add({deep + "/+", "a/+"});
    EXPECT_EQ(found(deep + "/a"), deep + "/+");
    EXPECT_EQ(found(deep), "none");
    EXPECT_EQ(found("a/a"), "a/+");
}

TEST_F(ThePatternIndex, KeepsALevelAsLongAsOneOfItsPatternsNeedsIt) {
    add({"a/b/+"});
    EXPECT_EQ(registry_.index().size(), 3U);
    add({"a/b/#", "a/+/c", "a/b/+/d"});
    EXPECT_EQ(registry_.index().size(), 6U);
    remove("a/b/+");
    EXPECT_EQ(registry_.index().size(), 6U);
    remove("a/b/+/d");
    EXPECT_EQ(registry_.index().size(), 4U);
    remove("a/b/#");
    EXPECT_EQ(registry_.index().size(), 3U);
    EXPECT_EQ(found("a/b/c"), "a/+/c");
    remove("a/+/c");
    EXPECT_EQ(registry_.index().size(), 0U);
}

TEST_F(ThePatternIndex, IgnoresTheRemovalOfWhatIsNotThere) {
    PatternIndex index;
    PatternIndex::Subscription known{"a/b/+", {}};
    index.add(known);
    for (auto const* const pattern :
         {"#", "+", "a/#", "a/b/#", "a/b/+/#", "a/b/+/c", "b/+", "+a"}) {
        index.remove({pattern, {}});
    }
    EXPECT_EQ(index.size(), 3U);
    EXPECT_EQ(index.find("a/b/c"), &known);
}

} // namespace
