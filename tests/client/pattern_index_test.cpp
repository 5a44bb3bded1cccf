#include "client/registry/pattern_index.hpp"

#include "client/walked_registry.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using mqtt::PatternIndex;
using mqtt::Topic;

/// The topic with exactly this text: parsing takes one separator off either end.
Topic topicOf(std::string const& text) {
    return '/' + text + '/';
}

class ThePatternIndex : public testing::Test {
protected:
    void add(std::vector<std::string> const& patterns) {
        for (auto const& pattern : patterns) {
            registry_.add(topicOf(pattern));
        }
    }

    void remove(std::string const& pattern) { registry_.remove(topicOf(pattern)); }

    /// The text of what is found, which is also what the walk finds; "none" without a match.
    std::string found(std::string const& topic) const {
        auto const* const subscription = registry_.find(topicOf(topic));
        EXPECT_EQ(subscription, registry_.walk(topicOf(topic))) << topic;
        return subscription == nullptr ? "none" : subscription->topic.text();
    }

    /// Adds the patterns from first to last or the other way around, and looks at each time who
    /// comes first for the topic when those before it are gone.
    void expectInThisOrder(std::string const& topic, std::vector<std::string> const& patterns) {
        ASSERT_TRUE(std::is_sorted(patterns.begin(), patterns.end()));
        for (bool const backwards : {false, true}) {
            auto added = patterns;
            if (backwards) {
                std::reverse(added.begin(), added.end());
            }
            add(added);
            for (auto const& pattern : patterns) {
                EXPECT_EQ(found(topic), pattern) << "for " << topic;
                remove(pattern);
            }
            EXPECT_EQ(found(topic), "none") << "for " << topic;
        }
    }

    WalkedRegistry<PatternIndex> registry_;
};

TEST_F(ThePatternIndex, IsEmptyAtFirst) {
    EXPECT_EQ(found("a"), "none");
    EXPECT_EQ(found(""), "none");
    EXPECT_EQ(registry_.index().size(), 0U);
}

TEST_F(ThePatternIndex, PutsTheRestBeforeTheLevelAndBothBeforeMostNames) {
    expectInThisOrder("a/b",
                      {"#", "+/#", "+/+", "+/+/#", "+/b", "+/b/#", "a/#", "a/+", "a/+/#", "a/b/#"});
}

TEST_F(ThePatternIndex, PutsNamesThatBeginBelowTheWildcardsFirst) {
    expectInThisOrder("x/!/c", {"x/!/#", "x/!/+", "x/#", "x/+/#", "x/+/c"});
    expectInThisOrder("\"q/c", {"\"q/#", "\"q/+", "#", "+/#", "+/c"});
    expectInThisOrder("x/\x01/c", {"x/\x01/+", "x/#", "x/+/c"});
}

TEST_F(ThePatternIndex, PutsNamesThatBeginBetweenTheWildcardsBetweenThem) {
    for (std::string const name : {"$", "%", "&a", "'", "(", ")", "*z"}) {
        expectInThisOrder("x/" + name + "/c",
                          {"x/#", "x/" + name + "/#", "x/" + name + "/+", "x/+/#", "x/+/c"});
    }
}

TEST_F(ThePatternIndex, PutsNamesThatBeginAboveTheWildcardsLast) {
    for (std::string const name : {",", "-", ".", "0", "~", "\x7f", "\x80", "\xff"}) {
        expectInThisOrder("x/" + name + "/c", {"x/#", "x/+/#", "x/+/+", "x/+/c", "x/" + name + "/#",
                                               "x/" + name + "/+"});
    }
}

TEST_F(ThePatternIndex, LooksAtTheFirstByteOfANameOnly) {
    expectInThisOrder("x/0!/c", {"x/+/c", "x/0!/+"});
    expectInThisOrder("x/!0/c", {"x/!0/+", "x/#"});
}

TEST_F(ThePatternIndex, PutsAnEmptyLevelWhereItsSeparatorStands) {
    expectInThisOrder("a//b", {"a/#", "a/+/#", "a/+/+", "a/+/b", "a//#", "a//+", "a//+/#"});
    expectInThisOrder("/b", {"#", "+/#", "+/+", "+/+/#", "+/b", "/#", "/+", "/+/#"});
}

TEST_F(ThePatternIndex, PutsAnEmptyLastLevelFirstButNotWhatGoesOnBehindIt) {
    expectInThisOrder("a/", {"+/", "+/#", "+/+", "+/+/#", "+//#", "a/#", "a/+", "a/+/#", "a//#"});
    expectInThisOrder("/", {"+/", "+/#", "+/+", "+//#", "/", "/#", "/+", "/+/#", "//#"});
}

TEST_F(ThePatternIndex, DoesNotTakeAnEmptyLevelInTheMiddleForTheLast) {
    add({"+/"});
    EXPECT_EQ(found("a//b"), "none");
    EXPECT_EQ(found("a/"), "+/");
}

TEST_F(ThePatternIndex, MatchesTheParentOfTheRest) {
    add({"a/b/#", "+/c/+/#"});
    EXPECT_EQ(found("a/b"), "a/b/#");
    EXPECT_EQ(found("a"), "none");
    EXPECT_EQ(found("x/c/d"), "+/c/+/#");
    EXPECT_EQ(found("x/c"), "none");
    EXPECT_EQ(found("x/c/"), "+/c/+/#");
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

TEST_F(ThePatternIndex, ComesBackFromABranchThatEndsInNothing) {
    add({"+/+/+/x", "+/b/+/y", "a/+/+/z", "a/b/c/+"});
    EXPECT_EQ(found("a/b/c/x"), "+/+/+/x");
    EXPECT_EQ(found("a/b/c/y"), "+/b/+/y");
    EXPECT_EQ(found("a/b/c/z"), "a/+/+/z");
    EXPECT_EQ(found("a/b/c/w"), "a/b/c/+");
    EXPECT_EQ(found("a/b/c"), "none");
    EXPECT_EQ(found("a/b/c/x/y"), "none");
}

TEST_F(ThePatternIndex, SeesATopicUpToItsFirstZeroByte) {
    add({"+/b"});
    EXPECT_EQ(found(std::string("a/b\0c", 5)), "+/b");
}

TEST_F(ThePatternIndex, FindsNothingForATopicWithAWildcard) {
    add({"#", "+", "+/+", "a/+", "a/#"});
    for (auto const* const topic : {"+", "#", "a/+", "a/#", "a/b+", "a#/b"}) {
        EXPECT_EQ(found(topic), "none") << topic;
    }
}

TEST_F(ThePatternIndex, AgreesWithTheWalkAboutWhatIsNoPattern) {
    // Some of these do match a topic, if one asks the broker library.
    add({"+/#x", "+/#/y", "a+/b", "+a", "a/#/b", "##", "++", "a/b#", "+/+b", "x/+"});
    for (auto const* const topic : {"a", "a/b", "ab", "b", "a/x", "x/y", "x", "a/b/c", "+a"}) {
        found(topic);
    }
    EXPECT_EQ(found("q"), "+/#/y");
    remove("+/#/y");
    EXPECT_EQ(found("q"), "+/#x");
    EXPECT_EQ(found("x/y"), "x/+");
}

TEST_F(ThePatternIndex, PutsAnOddPatternInItsPlaceAmongTheOthers) {
    add({"+/#x", "+", "+/", "#"});
    EXPECT_EQ(found("q"), "#");
    remove("#");
    EXPECT_EQ(found("q"), "+");
    remove("+");
    EXPECT_EQ(found("q"), "+/#x");
}

TEST_F(ThePatternIndex, TakesAnyNumberOfLevels) {
    std::string deep = "+";
    for (int levels = 1; levels < 70; ++levels) {
        add({deep, deep + "/#"});
        std::string topic = deep;
        std::replace(topic.begin(), topic.end(), '+', 'a');
        EXPECT_EQ(found(topic), levels == 1 ? deep : "+/#") << levels;
        deep += "/+";
    }
    for (std::string text = "+"; text != deep; text += "/+") {
        remove(text);
        std::string topic = text;
        std::replace(topic.begin(), topic.end(), '+', 'a');
        EXPECT_EQ(found(topic), text == "+" ? "+/#" : "+/#") << text;
    }
    for (std::string text = "+"; text != deep; text += "/+") {
        std::string topic = text;
        std::replace(topic.begin(), topic.end(), '+', 'a');
        EXPECT_EQ(found(topic), text + "/#");
        remove(text + "/#");
    }
    EXPECT_TRUE(registry_.entries().empty());
    EXPECT_EQ(registry_.index().size(), 0U);
}

TEST_F(ThePatternIndex, SurvivesThousandsOfLevels) {
    std::string deep = "a";
    for (int i = 0; i < 30000; ++i) {
        deep += "/a";
    }
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

TEST_F(ThePatternIndex, DoesNotMindRemovingWhatIsNotThere) {
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

TEST_F(ThePatternIndex, ForgetsEverythingAtOnce) {
    add({"#", "+", "a/+", "a/b/#", "+a", "$SYS/#"});
    registry_.clear();
    EXPECT_EQ(registry_.index().size(), 0U);
    for (auto const* const topic : {"a", "a/b", "b", "$SYS/x"}) {
        EXPECT_EQ(found(topic), "none") << topic;
    }
    add({"+"});
    EXPECT_EQ(found("a"), "+");
}

TEST_F(ThePatternIndex, FindsEachOfThousands) {
    for (int i = 0; i < 5000; ++i) {
        add({"plant/+/device" + std::to_string(i) + "/#"});
    }
    for (int i = 0; i < 5000; i += 2) {
        remove("plant/+/device" + std::to_string(i) + "/#");
    }
    for (int i = 0; i < 5000; ++i) {
        auto const device = "/device" + std::to_string(i);
        auto const* const subscription = registry_.find(topicOf("plant/hall" + device + "/state"));
        std::string const found = subscription == nullptr ? "none" : subscription->topic.text();
        ASSERT_EQ(found, i % 2 == 0 ? "none" : "plant/+" + device + "/#");
    }
}

} // namespace
