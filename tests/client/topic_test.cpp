#include "mqtt/topic.hpp"

#include <gmock/gmock.h>

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
using Strings = std::vector<std::string>;

void expectTopic(Topic const& topic, std::string const& text, Strings const& segments) {
    SCOPED_TRACE('"' + text + '"');
    EXPECT_EQ(topic.text(), text);
    ASSERT_EQ(topic.size(), segments.size());
    for (unsigned int i = 0; i < topic.size(); ++i) {
        EXPECT_EQ(topic[i], segments[i]);
    }
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

TEST(ATopic, IsMadeFromAPathWithoutOneSlashAtEitherEnd) {
    expectTopic(Topic(), "", {});
    struct Case {
        std::string path, text;
        Strings segments;
    };
    for (auto const& [path, text, segments] :
         {Case{"", "", {}}, Case{"/", "", {""}}, Case{"/a/b/", "a/b", {"a", "b"}},
          Case{"a//", "a/", {"a", ""}}, Case{"//a", "/a", {"", "a"}}, Case{"//", "", {""}},
          Case{"///", "/", {"", ""}}, Case{"a//b", "a//b", {"a", "", "b"}}}) {
        SCOPED_TRACE(path);
        expectTopic(path, text, segments);
        expectTopic(path.c_str(), text, segments);
    }
}

TEST(ATopic, RejectsANullPathWithTheTextOfTheStandardLibrary) {
    auto const text = "basic_string::_M_construct null not valid";
    char const* const null = nullptr;
    EXPECT_EQ(whatIsThrown([&] { Topic topic(null); }), text);
    EXPECT_EQ(whatIsThrown([&] { Topic("a") += null; }), text);
    EXPECT_EQ(whatIsThrown([&] { Topic("a") + null; }), text);
}

TEST(ATopic, AppendsAPathSegmentBySegment) {
    Topic topic("x");
    topic += "a/b";
    expectTopic(topic, "x/a/b", {"x", "a", "b"});
    expectTopic(Topic("x") + "/a/b/", "x/a/b", {"x", "a", "b"});
    expectTopic(Topic("x") + std::string("/a/b/"), "x/a/b", {"x", "a", "b"});
    expectTopic(Topic() + "a", "a", {"a"});
    expectTopic(Topic("x") + "", "x", {"x"});
    expectTopic(Topic("x") + "/", "x/", {"x", ""});
    Topic const head("a");
    expectTopic(head + Topic("b/c"), "a/b/c", {"a", "b", "c"});
    expectTopic(head, "a", {"a"});
    topic += topic;
    expectTopic(topic, "x/a/b/x/a/b", {"x", "a", "b", "x", "a", "b"});
    // A "/" has an empty text: no separator follows, and both segments start at zero.
    expectTopic(Topic("/") + "a", "a", {"a", "a"});
}

TEST(ATopic, TakesATailUpToItsFirstZeroByteButCountsAllItsSegments) {
    expectTopic(Topic("a") + Topic(std::string("b\0c", 3)), "a/b", {"a", "b"});
    Topic const topic = Topic("a") + std::string("b\0c/d", 5);
    EXPECT_EQ(topic.text(), "a/b");
    EXPECT_EQ(topic.size(), 3U);
    EXPECT_THROW(static_cast<void>(topic[2]), std::out_of_range);
}

TEST(ATopic, TakesAnIdentifierAsOneSegmentOfBase64Url) {
    Uuid const id(42ULL);
    Topic topic("a");
    topic += id;
    expectTopic(topic, "a/" + id.base64URL(), {"a", id.base64URL()});
    EXPECT_EQ(Topic("a") + id, topic);
}

TEST(ATopic, IsCutByAResizeAndNeverGrows) {
    Topic topic("a/b/c");
    topic.resize(5);
    expectTopic(topic, "a/b/c", {"a", "b", "c"});
    topic.resize(2);
    expectTopic(topic, "a/b", {"a", "b"});
    topic.resize(0);
    expectTopic(topic, "", {});
    Topic overlapping = Topic("/") + "a"; // its second segment starts at zero
    overlapping.resize(1);
    expectTopic(overlapping, "", {""});
}

TEST(ATopic, ClearedKeepsItsSegmentsBehindItsText) {
    Topic topic("aaaa/b/c");
    topic.clear();
    EXPECT_THAT(whatIsThrown([&] { static_cast<void>(topic[1]); }),
                HasSubstr("basic_string::substr: __pos (which is 5) > this->size() (which is 0)"));
    topic += "x";
    EXPECT_EQ(topic.size(), 4U);
    EXPECT_EQ(topic[3], "x");
    topic.resize(2);
    EXPECT_EQ(topic.text(), "x") << "a resize does not make it longer";
    EXPECT_EQ(topic.size(), 2U);
}

TEST(ATopic, MatchesAsAPatternOfMqtt) {
    struct Case {
        char const *pattern, *topic;
        bool matches;
    };
    for (auto const& [pattern, topic, matches] :
         {Case{"a/+/c", "a/b/c", true}, Case{"a/+/c", "a/b/d", false}, Case{"a/+", "a/b/c", false},
          Case{"a/#", "a", true}, Case{"a/#", "a/b/c", true}, Case{"a/#", "b", false},
          // No patterns, or no topics:
          Case{"a/#/c", "a/b/c", false}, Case{"a+", "ab", false}, Case{"", "a", false},
          Case{"a", "", false}, Case{"+", "#", false}}) {
        EXPECT_EQ(Topic(pattern).matches(topic), matches) << pattern << " and " << topic;
    }
}

TEST(ATopic, IsComparedByTheBytesOfItsText) {
    EXPECT_LT(Topic("a/b"), Topic("a/b/c"));
    EXPECT_GT(Topic("a/c"), Topic("a/b/c"));
    EXPECT_LT(Topic("a/#"), Topic("a/+"));
    EXPECT_LT(Topic("a"), Topic("\xC3\xA4")) << "bytes are unsigned";
    EXPECT_FALSE(Topic("a") < Topic("/a/"));
    EXPECT_TRUE(Topic("") == Topic("/"));
    EXPECT_FALSE(Topic("") != Topic("/"));
    std::map<Topic, int> values;
    values["a/b"] = 1;
    values["/a/b"] = 2;
    EXPECT_THAT(values, ElementsAre(testing::Pair(Topic("a/b"), 2)));
}

TEST(ATopic, PrintsItsText) {
    std::ostringstream out;
    out << Topic("/a//b") << Topic("/");
    EXPECT_EQ(out.str(), "a//b");
}

} // namespace
