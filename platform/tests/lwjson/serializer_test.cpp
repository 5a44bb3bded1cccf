#include <zym/common/lwjson.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

template <typename Value>
std::string memberWith(Value const& value) {
    std::string json;
    Serializer out(json);
    out.appendKey("v");
    out.addValue(value);
    out.finalize();
    return json;
}

std::string link(std::string const& id) {
    std::string json;
    Serializer out(json);
    out.appendKey("@id");
    out.addValue(id);
    out.finalize();
    return json;
}

std::string collection(std::vector<std::string> const& ids) {
    std::vector<Serializer> links;
    for (std::string const& id : ids) {
        std::string const text = link(id);
        links.emplace_back(text);
    }
    std::string json;
    Serializer out(json);
    out.appendKey("members@count");
    out.appendValue(std::to_string(ids.size()).c_str());
    out.appendKey("members");
    out.addValue(links);
    out.finalize();
    return json;
}

TEST(ASerializer, StandsMembersOnTheirOwnLines) {
    std::string json;
    Serializer out(json);
    out.appendKey("state");
    out.appendValue("3");
    out.appendKey("since");
    out.addValue(conv::UnixTime(1700000000.5));
    out.finalize();
    EXPECT_EQ(json, "{\n  \"state\": 3,\n  \"since\": 1700000000.5\n}");
}

TEST(ASerializer, WritesALink) {
    EXPECT_EQ(link("a/b"), "{\n  \"@id\": \"a/b\"\n}");
}

TEST(ASerializer, WritesAnEmptyCollection) {
    EXPECT_EQ(collection({}), "{\n  \"members@count\": 0,\n  \"members\":\n  [\n  ]\n}");
}

TEST(ASerializer, WritesACollectionWithALinePerElement) {
    EXPECT_EQ(collection({"a/b", "c/d"}),
              "{\n  \"members@count\": 2,\n  \"members\":\n  [\n    {\"@id\": \"a/b\"},\n"
              "    {\"@id\": \"c/d\"}\n  ]\n}");
}

TEST(ASerializer, WritesMembersBehindAnArray) {
    std::string json;
    Serializer out(json);
    out.appendKey("list");
    out.addValue(std::vector<Serializer>());
    out.appendKey("more");
    out.appendValue("1");
    out.finalize();
    EXPECT_EQ(json, "{\n  \"list\":\n  [\n  ],\n  \"more\": 1\n}");
}

TEST(ASerializer, WritesAReply) {
    std::string json;
    Serializer out(json);
    out.appendKey("$reqId");
    out.appendValue("42");
    out.appendKey("$err");
    out.appendValue("4");
    out.finalize();
    EXPECT_EQ(json, "{\n  \"$reqId\": 42,\n  \"$err\": 4\n}");
}

TEST(ASerializer, WritesAnObjectWithoutMembers) {
    std::string json;
    Serializer(json).finalize();
    EXPECT_EQ(json, "{}");
}

TEST(ASerializer, ReplacesWhatWasInTheString) {
    std::string json = "something else";
    Serializer out(json);
    EXPECT_EQ(json, "{");
    EXPECT_EQ(&out.mutableJson(), &json);
}

TEST(ASerializer, KeepsACommaAtTheEndOfATextWhenItFinishes) {
    EXPECT_EQ(memberWith(std::string("a,")), "{\n  \"v\": \"a,\"\n}");
}

TEST(ASerializer, EscapesQuotesBackslashesAndControlBytes) {
    EXPECT_EQ(memberWith(std::string("\"\\/\b\f\n\r\t")),
              "{\n  \"v\": \"\\\"\\\\/\\b\\f\\n\\r\\t\"\n}");
    EXPECT_EQ(memberWith(std::string("a\x01z\x1f\0e", 6)),
              "{\n  \"v\": \"a\\u0001z\\u001f\\u0000e\"\n}");
}

void expectEscapedAt(std::size_t place, std::size_t length) {
    std::string const before(place, 'x');
    std::string const behind(length - place - 1, 'x');
    EXPECT_EQ(memberWith(before + '"' + behind),
              "{\n  \"v\": \"" + before + "\\\"" + behind + "\"\n}");
    EXPECT_EQ(memberWith(before + '\\' + behind),
              "{\n  \"v\": \"" + before + "\\\\" + behind + "\"\n}");
    EXPECT_EQ(memberWith(before + '\x1f' + behind),
              "{\n  \"v\": \"" + before + "\\u001f" + behind + "\"\n}");
}

TEST(ASerializer, EscapesAtEveryPlaceInTextsOfEveryLength) {
    for (std::size_t length = 1; length <= 40; ++length) {
        for (std::size_t place = 0; place < length; ++place) {
            expectEscapedAt(place, length);
        }
    }
}

TEST(ASerializer, PassesAllOtherBytesAsTheyAre) {
    std::string passing;
    for (int byte = 0x20; byte < 0x100; ++byte) {
        if (byte != '"' && byte != '\\') {
            passing += static_cast<char>(byte);
        }
    }
    EXPECT_EQ(memberWith(passing), "{\n  \"v\": \"" + passing + "\"\n}");
    for (char const byte : passing) {
        std::string const text(9, byte);
        EXPECT_EQ(memberWith(text), "{\n  \"v\": \"" + text + "\"\n}");
    }
}

TEST(ASerializer, EscapesKeysToo) {
    std::string json;
    Serializer out(json);
    out.appendKey("a\"b");
    out.appendValue("1");
    out.finalize();
    EXPECT_EQ(json, "{\n  \"a\\\"b\": 1\n}");
}

TEST(ASerializer, WritesDoublesAsTheShortestTextThatReadsBackTheSame) {
    EXPECT_EQ(memberWith(0.1), "{\n  \"v\": 0.1\n}");
    EXPECT_EQ(memberWith(5.0), "{\n  \"v\": 5\n}");
    EXPECT_EQ(memberWith(-12.5), "{\n  \"v\": -12.5\n}");
    EXPECT_EQ(memberWith(1e300), "{\n  \"v\": 1e+300\n}");
    EXPECT_EQ(memberWith(0.1 + 0.2), "{\n  \"v\": 0.30000000000000004\n}");
}

TEST(ASerializer, WritesNullForWhatIsNoNumber) {
    EXPECT_EQ(memberWith(std::numeric_limits<double>::quiet_NaN()), "{\n  \"v\": null\n}");
    EXPECT_EQ(memberWith(std::numeric_limits<double>::infinity()), "{\n  \"v\": null\n}");
    EXPECT_EQ(memberWith(-std::numeric_limits<double>::infinity()), "{\n  \"v\": null\n}");
}

TEST(ASerializer, WritesNullForAnInvalidTime) {
    EXPECT_EQ(memberWith(conv::UnixTime()), "{\n  \"v\": null\n}");
}

TEST(ASerializer, AddsAFinishedObjectOnOneLine) {
    std::string inner;
    Serializer nested(inner);
    nested.appendKey("a");
    nested.appendValue("1");
    nested.appendKey("b");
    nested.addValue("x \n y");
    nested.finalize();
    EXPECT_EQ(memberWith(nested), "{\n  \"v\": {\"a\": 1,\"b\": \"x \\n y\"}\n}");
}

TEST(AWrappingSerializer, PutsTheFinishedTextOnOneLine) {
    std::string const text = collection({"a  b", "c"});
    Serializer wrapped(text);
    EXPECT_EQ(wrapped.mutableJson(),
              "{\"members@count\": 2,\"members\":[{\"@id\": \"a  b\"},{\"@id\": \"c\"}]}");
}

TEST(AWrappingSerializer, LeavesTheTextItWrapsAlone) {
    std::string const text = "{\n  \"a\": 1\n}";
    Serializer wrapped(text);
    wrapped.mutableJson() += "x";
    EXPECT_EQ(text, "{\n  \"a\": 1\n}");
}

TEST(AWrappingSerializer, SurvivesCopyingAndMoving) {
    std::vector<Serializer> list;
    for (int i = 0; i < 100; ++i) {
        list.emplace_back(static_cast<std::string const&>("{\"i\": " + std::to_string(i) + "}"));
    }
    std::vector<Serializer> copy = list;
    list.clear();
    EXPECT_EQ(copy.front().mutableJson(), "{\"i\": 0}");
    EXPECT_EQ(copy.back().mutableJson(), "{\"i\": 99}");
}

TEST(ASerializer, WritesWhatTheReaderReadsBack) {
    std::string every;
    for (int byte = 0; byte < 0x100; ++byte) {
        every += static_cast<char>(byte);
    }
    std::string const json = memberWith(every);
    std::string text;
    Deserializer::extractValue(Deserializer(json).getMember("v"), text, "");
    EXPECT_EQ(text, every);
}

} // namespace
