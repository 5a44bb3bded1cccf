#include <zym/common/lwjson.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

using zym::common::lwjson::Deserializer;

using namespace std::string_view_literals;

std::string memberOf(std::string_view json, char const* key) {
    return std::string(Deserializer(json).getMember(key));
}

void expectNoObject(std::string_view json) {
    Deserializer const in(json);
    try {
        in.getMember("a");
        ADD_FAILURE() << "has an object as its root: " << json;
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), "Cannot get member from a scalar or array") << json;
    }
}

TEST(AReader, GivesTheRawTextsOfMembers) {
    Deserializer const in(R"({"a": 1, "b":"x\n\"y" ,"c" : [1, {"d": 2}],
        "e":{ "f":null },	"g":true,"h":-1.50e+03})");
    EXPECT_EQ(in.getMember("a"), "1");
    EXPECT_EQ(in.getMember("b"), R"("x\n\"y")");
    EXPECT_EQ(in.getMember("c"), R"([1, {"d": 2}])");
    EXPECT_EQ(in.getMember("e"), R"({ "f":null })");
    EXPECT_EQ(in.getMember("g"), "true");
    EXPECT_EQ(in.getMember("h"), "-1.50e+03");
}

TEST(AReader, GivesPartsOfTheTextItWasMadeFrom) {
    static_assert(!std::is_constructible_v<Deserializer, std::string>, "a temporary text");
    static_assert(std::is_constructible_v<Deserializer, std::string const&>);
    std::string const json = R"({"a": "long enough for an allocation of its own"})";
    std::string_view const member = Deserializer(json).getMember("a");
    EXPECT_EQ(member.data(), json.data() + 6);
    EXPECT_EQ(member.size(), json.size() - 7);
}

TEST(AReader, GivesEveryOneOfManyMembers) {
    constexpr int MANY = 40;
    std::string json = "{";
    for (int i = 0; i < MANY; ++i) {
        auto const number = std::to_string(i);
        json += "\"key" + number + "\": " + number + ", ";
    }
    json += R"("\u006bey7": "again", "last\n": []})";
    Deserializer const in(json);
    for (int i = 0; i < MANY; ++i) {
        auto const number = std::to_string(i);
        EXPECT_EQ(in.getMember(("key" + number).c_str()), number);
    }
    EXPECT_EQ(in.getMember("last\n"), "[]");
    EXPECT_EQ(in.getMember("key40"), "");
}

TEST(AReader, GivesTheSameWhenItIsACopy) {
    Deserializer const in(R"({"a": 1, "b": [2, 3]})");
    Deserializer copy(in);
    EXPECT_EQ(copy.getMember("b"), "[2, 3]");
    copy = Deserializer(R"({"c": 4})");
    EXPECT_EQ(copy.getMember("c"), "4");
    EXPECT_EQ(copy.getMember("a"), "");
}

TEST(AReader, FindsTheEndOfStringsOfAnyLengthIfTheyAreGood) {
    for (std::size_t length = 0; length < 40; ++length) {
        std::string const begin = '"' + std::string(length, 'x');
        for (char const* const end : {R"(\\")", R"(\"")", R"(\u0022")", "]\"", "\xff\""}) {
            std::string const text = begin + end;
            std::string const json = "{\"a\":" + text + ",\"b\":" + text + '}';
            EXPECT_EQ(memberOf(json, "a"), text);
            EXPECT_EQ(memberOf(json, "b"), text);
        }
        for (char const* const bad : {"\x1f\"", R"(\x")", R"(\u12g4")", R"(\")"}) {
            std::string const json = "{\"a\":" + begin + bad;
            expectNoObject(json + ",\"b\":\"long enough, and good\"}");
            expectNoObject(json + '}');
            expectNoObject(json);
        }
    }
}

TEST(AReader, GivesTheFirstMemberOfTheRootWithADecodedKeyOrAnEmptyText) {
    struct {
        char const *json, *key, *member;
    } const cases[]{{"{}", "a", ""},
                    {R"({"b": 1})", "", ""},
                    {R"({"": 1})", "", "1"},
                    {R"({"A": 1})", "a", ""},
                    {R"({"b": {"a": 1}, "c": [{"a": 2}]})", "a", ""},
                    {R"({"b": {"a": 1}, "c": [{"a": 2}], "a": 3})", "a", "3"},
                    {R"({"$reqId": 1, "x": 0, "$reqId": 2, "$reqId": 3})", "$reqId", "1"},
                    {R"({"\u0024err": 5, "$err": 6})", "$err", "5"},
                    {R"({"\u0061\n": 1})", "a\n", "1"},
                    {R"({"\ud83d\ude00": 1})", "\xf0\x9f\x98\x80", "1"},
                    {R"({"a\\b": 1})", "a\\b", "1"},
                    {R"({"a\u0000b": 1, "a": 2})", "a", "2"},
                    {"{\"\xe9\xff\": 1}", "\xe9\xff", "1"},
                    {" \t\r\n{ \n\"a\" \t: \r 1 \n, \"b\" : 2 } \n", "a", "1"},
                    {" \t\r\n{ \n\"a\" \t: \r 1 \n, \"b\" : 2 } \n", "b", "2"},
                    {R"({",:": ",:", "a": ", :"})", ",:", R"(",:")"},
                    {R"({",:": ",:", "a": ", :"})", "a", R"(", :")"}};
    for (auto const& [json, key, member] : cases) {
        EXPECT_EQ(memberOf(json, key), member) << json;
    }
}

TEST(AReader, FindsNoObjectInScalarsArraysAndMalformedText) {
    // clang-format off
    for (std::string_view const json :
         {"1"sv, "-1.5"sv, "\"a\""sv, "true"sv, "false"sv, "null"sv, "[]"sv, "[1]"sv, "[{\"a\": 1}]"sv,
         ""sv, " "sv, "{"sv, "}"sv, "{\"a\": 1"sv, "{\"a\": 1}x"sv, "{\"a\": 1} {}"sv,
         "{\"a\": 1},"sv, "{\"a\" 1}"sv, "{\"a\":}"sv, "{a: 1}"sv, "{'a': 1}"sv, "{\"a\": 1,}"sv,
         "{,\"a\": 1}"sv, "{\"a\": 1 \"b\": 2}"sv, "{\"a\": 1]"sv, "{\"a\": \"\n\"}"sv,
         "{\"a\": \"\t\"}"sv, "{\"a\": \"\x01\"}"sv, "{\"\x1f\": 1}"sv, "{\"a\": \"\0\"}"sv,
         "{\"a\": 1}\0"sv, "\0{\"a\": 1}"sv, "{\"a\": 1\0}"sv, "{\"a\": \"x}"sv,
         "{\"a\": \"x\\\"}"sv, "{\"a\": \"\\x\"}"sv, "{\"a\": \"\\u12g4\"}"sv,
         "{\"a\": \"\\u123\"}"sv, "{\"a\": \"\\ud8\"}"sv, "{\"a\": 01}"sv, "{\"a\": 1.}"sv,
         "{\"a\": 1.2.3}"sv, "{\"a\": NaN}"sv, "{\"a\": Infinity}"sv, "{\"a\": True}"sv,
         "{\"a\": tru}"sv, "{\"a\": nullx}"sv, "{\"a\": undefined}"sv, "{/**/\"a\": 1}"sv,
         "{\"a\": 1} // more"sv, "\xef\xbb\xbf{\"a\": 1}"sv, "{\"a\": 1}\xc2\xa0"sv}) {
        expectNoObject(json);
    }
    // clang-format on
}

TEST(AReader, FindsNoObjectInATextCutOffAnywhere) {
    std::string const json = R"({"a":[1.5e+3,{"b\n\ud83d":"x\u0041"}],"c":null})";
    ASSERT_EQ(memberOf(json, "c"), "null");
    for (std::size_t length = 0; length < json.size(); ++length) {
        std::vector<char> const cut(json.data(), json.data() + length); // an exact copy
        expectNoObject({cut.data(), cut.size()});
    }
}

TEST(AReader, FollowsSixtyFourLevelsAndNoMore) {
    auto const arrays = [](std::size_t depth) {
        return std::string(depth, '[') + std::string(depth, ']');
    };
    EXPECT_EQ(memberOf("{\"a\": " + arrays(63) + "}", "a"), arrays(63));
    expectNoObject("{\"a\": " + arrays(64) + "}");
    expectNoObject(std::string(1000000, '['));
    std::string neighbours; // their levels do not add up
    for (int i = 0; i < 200; ++i) {
        neighbours += "[[]],";
    }
    EXPECT_EQ(memberOf("{\"a\": [" + neighbours + "0], \"b\": 1}", "b"), "1");
}

} // namespace
