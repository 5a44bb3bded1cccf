#include "mqtt/topic.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using mqtt::Topic;
using testing::ElementsAre;
using testing::HasSubstr;
using zym::common::Uuid;

std::vector<std::string> segments(Topic const& topic) {
    std::vector<std::string> result;
    for (unsigned int i = 0; i < topic.size(); ++i) {
        result.push_back(topic[i]);
    }
    return result;
}

std::string printed(Topic const& topic) {
    std::ostringstream out;
    out << topic;
    return out.str();
}

template <class Action>
std::string whatIsThrown(Action action) {
    try {
        action();
    } catch (std::logic_error const& error) {
        return error.what();
    }
    return "nothing";
}

TEST(ATopic, HasNoTextAndNoSegmentsByDefault) {
    EXPECT_EQ(Topic().text(), "");
    EXPECT_EQ(Topic().size(), 0U);
}

TEST(ATopic, MadeFromTheEmptyPathHasNoSegments) {
    EXPECT_EQ(Topic("").size(), 0U);
    EXPECT_EQ(Topic(std::string()).size(), 0U);
}

TEST(ATopic, MadeFromASingleSlashHasTheEmptyTextAndOneSegment) {
    Topic const slash("/");
    EXPECT_EQ(slash.text(), "");
    EXPECT_THAT(segments(slash), ElementsAre(""));
}

TEST(ATopic, MadeFromTheEmptyPathAndFromASlashPrintAsNothingAndCompareEqual) {
    EXPECT_EQ(printed(Topic("")), "");
    EXPECT_EQ(printed(Topic("/")), "");
    EXPECT_TRUE(Topic("") == Topic("/"));
    EXPECT_FALSE(Topic("") != Topic("/"));
}

TEST(ATopic, DropsOneLeadingAndOneTrailingSlash) {
    Topic const topic("/a/b/");
    EXPECT_EQ(topic, Topic("a/b"));
    EXPECT_EQ(topic[0], "a");
    EXPECT_EQ(topic[1], "b");
    EXPECT_EQ(topic.size(), 2U);
}

TEST(ATopic, DropsOnlyOneSlashAtEitherEnd) {
    EXPECT_EQ(Topic("a//").text(), "a/");
    EXPECT_EQ(Topic("//a").text(), "/a");
    EXPECT_THAT(segments(Topic("a//")), ElementsAre("a", ""));
    EXPECT_THAT(segments(Topic("//a")), ElementsAre("", "a"));
}

TEST(ATopic, MadeOfSlashesLosesTheTrailingOneFirst) {
    EXPECT_THAT(segments(Topic("//")), ElementsAre(""));
    EXPECT_THAT(segments(Topic("///")), ElementsAre("", ""));
}

TEST(ATopic, KeepsEmptySegments) {
    Topic const topic("a//b");
    EXPECT_EQ(topic[1], "");
    EXPECT_EQ(topic[2], "b");
    EXPECT_EQ(topic.size(), 3U);
}

TEST(ATopic, RejectsANullPathWithTheWordsOfTheStandardLibrary) {
    auto const words = "basic_string::_M_construct null not valid";
    char const* const null = nullptr;
    EXPECT_EQ(whatIsThrown([&] { Topic topic(null); }), words);
    EXPECT_EQ(whatIsThrown([&] { Topic("a") += null; }), words);
    EXPECT_EQ(whatIsThrown([&] { Topic("a") + null; }), words);
}

TEST(ATopic, AppendsAPathSegmentBySegment) {
    Topic topic("x");
    topic += "a/b";
    EXPECT_EQ(topic.text(), "x/a/b");
    EXPECT_THAT(segments(topic), ElementsAre("x", "a", "b"));
}

TEST(ATopic, DropsTheOuterSlashesOfAnAppendedPath) {
    EXPECT_EQ((Topic("x") + "/a/b/").text(), "x/a/b");
    EXPECT_EQ((Topic("x") + std::string("/a/b/")).text(), "x/a/b");
}

TEST(ATopic, ThatIsEmptyGetsNoLeadingSeparator) {
    EXPECT_EQ((Topic() + "a").text(), "a");
    EXPECT_THAT(segments(Topic() + "a"), ElementsAre("a"));
}

TEST(ATopic, IsUnchangedByTheEmptyPath) {
    Topic const topic = Topic("x") + "";
    EXPECT_EQ(topic.text(), "x");
    EXPECT_EQ(topic.size(), 1U);
}

TEST(ATopic, GetsOneEmptySegmentFromAnAppendedSlash) {
    Topic const topic = Topic("x") + "/";
    EXPECT_EQ(topic.text(), "x/");
    EXPECT_THAT(segments(topic), ElementsAre("x", ""));
}

TEST(ATopic, MadeFromASlashGetsNoSeparatorAndTwoSegmentsThatStartAtZero) {
    Topic const topic = Topic("/") + "a";
    EXPECT_EQ(topic.text(), "a");
    EXPECT_THAT(segments(topic), ElementsAre("a", "a"));
}

TEST(ATopic, AppendedToItselfIsDoubled) {
    Topic topic("a/b");
    topic += topic;
    EXPECT_EQ(topic.text(), "a/b/a/b");
    EXPECT_THAT(segments(topic), ElementsAre("a", "b", "a", "b"));
}

TEST(ATopic, TakesATailUpToItsFirstZeroByte) {
    Topic const tail(std::string("b\0c", 3));
    Topic const topic = Topic("a") + tail;
    EXPECT_EQ(topic.text(), "a/b");
    EXPECT_EQ(topic.size(), 2U);
}

TEST(ATopic, TakesAnIdentifierAsOneSegmentOfBase64Url) {
    Uuid const id(42ULL);
    Topic topic("a");
    topic += id;
    EXPECT_EQ(topic.text(), "a/" + id.base64URL());
    EXPECT_THAT(segments(topic), ElementsAre("a", id.base64URL()));
    EXPECT_EQ(Topic("a") + id, topic);
}

TEST(ATopic, LeavesTheLeftOperandOfAnAdditionAlone) {
    Topic const head("a");
    Topic const sum = head + Topic("b/c");
    EXPECT_EQ(head.text(), "a");
    EXPECT_THAT(segments(sum), ElementsAre("a", "b", "c"));
}

TEST(ATopic, IsCutBackToItsFirstSegments) {
    Topic topic("a/b/c");
    topic.resize(2);
    EXPECT_EQ(topic.text(), "a/b");
    EXPECT_THAT(segments(topic), ElementsAre("a", "b"));
}

TEST(ATopic, NeverGrowsByAResize) {
    Topic topic("a/b/c");
    topic.resize(5);
    EXPECT_EQ(topic.text(), "a/b/c");
    topic.resize(3);
    EXPECT_EQ(topic.size(), 3U);
}

TEST(ATopic, ResizedToZeroHasNeitherTextNorSegments) {
    Topic topic("a/b/c");
    topic.resize(0);
    EXPECT_EQ(topic.text(), "");
    EXPECT_EQ(topic.size(), 0U);
}

TEST(ATopic, WhoseSecondSegmentStartsAtZeroIsCutToTheEmptyText) {
    Topic topic = Topic("/") + "a";
    topic.resize(1);
    EXPECT_EQ(topic.text(), "");
    EXPECT_EQ(topic.size(), 1U);
}

TEST(ATopic, IsNeverMadeLongerByAResizeAfterAClear) {
    Topic topic("aaaa/b/c");
    topic.clear();
    topic += "x";
    topic.resize(2);
    EXPECT_EQ(topic.text(), "x");
    EXPECT_EQ(topic.size(), 2U);
}

TEST(ATopic, ClearedKeepsItsSegmentsSoThatAnAppendedPathIsTheThird) {
    Topic topic("a/b");
    topic.clear();
    EXPECT_EQ(topic.size(), 2U);
    topic += "y";
    EXPECT_EQ(topic.text(), "y");
    EXPECT_EQ(topic.size(), 3U);
    EXPECT_EQ(topic[2], "y");
}

TEST(ATopic, ReportsASegmentThatStartsBehindTheText) {
    Topic topic("abc/d");
    topic.clear();
    EXPECT_THAT(whatIsThrown([&] { static_cast<void>(topic[1]); }),
                HasSubstr("basic_string::substr: __pos (which is 4) > this->size() (which is 0)"));
}

TEST(ATopic, CountsTheSegmentsThatAZeroByteCutOffItsTail) {
    Topic const topic = Topic("a") + std::string("b\0c/d", 5);
    EXPECT_EQ(topic.text(), "a/b");
    EXPECT_EQ(topic.size(), 3U);
    EXPECT_THROW(static_cast<void>(topic[2]), std::out_of_range);
}

TEST(ATopic, MatchesWithASingleLevelWildcard) {
    EXPECT_TRUE(Topic("a/+/c").matches("a/b/c"));
    EXPECT_FALSE(Topic("a/+/c").matches("a/b/d"));
    EXPECT_FALSE(Topic("a/+").matches("a/b/c"));
}

TEST(ATopic, MatchesWithAMultiLevelWildcardItsParentToo) {
    EXPECT_TRUE(Topic("a/#").matches("a"));
    EXPECT_TRUE(Topic("a/#").matches("a/b/c"));
    EXPECT_FALSE(Topic("a/#").matches("b"));
}

TEST(ATopic, MatchesNothingWhenItIsNoValidPattern) {
    EXPECT_FALSE(Topic("a/#/c").matches("a/b/c"));
    EXPECT_FALSE(Topic("a+").matches("ab"));
    EXPECT_FALSE(Topic("").matches("a"));
    EXPECT_FALSE(Topic("a").matches(""));
    EXPECT_FALSE(Topic("+").matches("#"));
}

TEST(ATopic, OrdersAPrefixFirstAndThenByBytes) {
    EXPECT_LT(Topic("a/b"), Topic("a/b/c"));
    EXPECT_GT(Topic("a/c"), Topic("a/b/c"));
    EXPECT_LT(Topic("a/#"), Topic("a/+"));
    EXPECT_LT(Topic("a"), Topic("\xC3\xA4")) << "bytes are unsigned";
    EXPECT_FALSE(Topic("a") < Topic("/a/"));
}

TEST(ATopic, IsAKeyByItsTextAlone) {
    std::map<Topic, int> values;
    values["a/b"] = 1;
    values["/a/b"] = 2;
    EXPECT_THAT(values, ElementsAre(testing::Pair(Topic("a/b"), 2)));
}

TEST(ATopic, PrintsItsTextAndNothingElse) {
    EXPECT_EQ(printed("/a//b"), "a//b");
}

TEST(ATopic, IsCopiedAndMovedWithItsSegments) {
    Topic const original("a/b");
    Topic copy(original);
    Topic moved(std::move(copy));
    Topic assigned;
    assigned = moved;
    EXPECT_EQ(assigned, original);
    EXPECT_THAT(segments(assigned), ElementsAre("a", "b"));
}

} // namespace
