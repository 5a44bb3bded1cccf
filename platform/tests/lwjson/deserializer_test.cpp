// What depends on lengths and places. The seeds in fuzz/seeds/json_reader/ have the values and the
// malformed texts one by one, for the same reader; the tests replay them.

#include <zym/common/lwjson.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

using zym::common::lwjson::Deserializer;

static_assert(!std::is_constructible_v<Deserializer, std::string>, "a temporary text");
static_assert(std::is_constructible_v<Deserializer, std::string const&>);

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

TEST(AReader, FindsNoObjectInATextCutOffAnywhere) {
    std::string const json = R"({"a":[1.5e+3,{"b\n\ud83d":"x\u0041"}],"c":null})";
    ASSERT_EQ(memberOf(json, "c"), "null");
    for (std::size_t length = 0; length < json.size(); ++length) {
        std::vector<char> const cut(json.data(), json.data() + length); // an exact copy
        expectNoObject({cut.data(), cut.size()});
    }
}

TEST(AReader, DecodesTextsOfAnyLength) {
    auto const decoded = [](std::string const& raw) {
        std::string text(100, 'x');
        Deserializer::extractValue('"' + raw + '"', text, "");
        return text;
    };
    for (std::size_t length = 0; length < 40; ++length) {
        std::string const plain(length, 'x');
        EXPECT_EQ(decoded(plain), plain);
        EXPECT_EQ(decoded(plain + R"(\n)" + plain), plain + '\n' + plain);
        EXPECT_THROW(decoded(plain + '\x1f'), std::invalid_argument);
        EXPECT_THROW(decoded(plain + '"' + plain), std::invalid_argument);
    }
}

} // namespace
