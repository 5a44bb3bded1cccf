// Values whose fields are named in a list. by_hand.hpp has the usual one as an application would
// write it without a list.

#include "data/by_hand.hpp"
#include "data/documents.hpp"
#include "data/every_kind.hpp"
#include "support/allocations.hpp"

#include <gmock/gmock.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using mqtt::MqttData;
using sample::EveryKind;
using sample::Measurement;
using sample::Point;

struct Node {
    std::vector<Node> below;
};
ZYM_MQTT_FIELDS(Node, below)

/// Why the payload cannot be read; "" when it can. On failure the value must be unchanged.
template <class T>
std::string failureOf(std::string const& payload, T value) {
    auto const before = written(value);
    try {
        read(value, payload);
        return "";
    } catch (std::runtime_error const& error) {
        EXPECT_EQ(written(value), before);
        return error.what();
    }
}

EveryKind fullValue() {
    EveryKind value;
    value.flag = true;
    value.letter = 'x';
    value.i8 = -128;
    value.u8 = 255;
    value.i16 = -32768;
    value.u16 = 65535;
    value.i32 = std::numeric_limits<std::int32_t>::min();
    value.u32 = std::numeric_limits<std::uint32_t>::max();
    value.i64 = std::numeric_limits<std::int64_t>::min();
    value.u64 = std::numeric_limits<std::uint64_t>::max();
    value.small = 0.1F;
    value.large = -std::numeric_limits<double>::denorm_min();
    value.text = "a\"\n";
    value.time = conv::UnixTime(1700000000.123456);
    value.mode = sample::Mode::REVERSE;
    value.point = {-1.5, -2};
    value.count = 0;
    value.note = "";
    value.target = Point{1e300, 3};
    value.path = {{1, 2}, {3, 4}};
    value.numbers = {0, 4294967295};
    value.flags = {true, false};
    value.texts = {"a, ]", ""};
    value.points = {{5, 6}};
    value.lines = {{}, {{7, 8}, {9, 10}}, {}};
    value.samples = {std::nullopt, 2.5};
    return value;
}

// Writing

TEST(AListedValue, IsWrittenFieldByFieldAndReadBack) {
    EXPECT_EQ(written(fullValue()), R"({
  "flag": true,
  "letter": 120,
  "i8": -128,
  "u8": 255,
  "i16": -32768,
  "u16": 65535,
  "i32": -2147483648,
  "u32": 4294967295,
  "i64": -9223372036854775808,
  "u64": 18446744073709551615,
  "small": 0.10000000149011612,
  "large": -5e-324,
  "text": "a\"\n",
  "time": 1700000000.123456,
  "mode": -1,
  "point": {"x": -1.5,"y": -2},
  "count": 0,
  "note": "",
  "target": {"x": 1e+300,"y": 3},
  "path":
  [
    {"x": 1,"y": 2},
    {"x": 3,"y": 4}
  ],
  "numbers": [0,4294967295],
  "flags": [true,false],
  "texts": ["a, ]",""],
  "points":
  [
    {"x": 5,"y": 6}
  ],
  "lines": [[],[{"x": 7,"y": 8},{"x": 9,"y": 10}],[]],
  "samples": [null,2.5]
})");
    EveryKind empty;
    empty.count.reset();
    empty.numbers.clear();
    EXPECT_THAT(written(empty), testing::EndsWith(R"("time": null,
  "mode": 0,
  "point": {"x": 0,"y": 0},
  "numbers": [],
  "flags": [],
  "texts": [],
  "points":
  [
  ],
  "lines": [],
  "samples": []
})"));
    for (auto const& value : {fullValue(), empty}) {
        EveryKind again = fullValue();
        read(again, written(value));
        EXPECT_EQ(written(again), written(value));
    }
}

// Reading

/// A good document with one member more, which counts: it is the first with its key.
std::string with(std::string const& member) {
    EveryKind value;
    value.count.reset();
    return "{" + member + ", " + written(value).substr(1);
}

TEST(AListedValue, IsReadWithEachIntegerOfTheRangeOfItsFieldAndNoOther) {
    struct Case {
        std::string key, min, max, below, above;
    };
    for (auto const& [key, min, max, below, above] :
         std::vector<Case>{{"i8", "-128", "127", "-129", "128"},
                           {"u8", "0", "255", "-1", "256"},
                           {"i16", "-32768", "32767", "-32769", "32768"},
                           {"u16", "0", "65535", "-1", "65536"},
                           {"i32", "-2147483648", "2147483647", "-2147483649", "2147483648"},
                           {"u32", "0", "4294967295", "-1", "4294967296"},
                           {"i64", "-9223372036854775808", "9223372036854775807",
                            "-9223372036854775809", "9223372036854775808"},
                           {"u64", "0", "18446744073709551615", "-1", "18446744073709551616"},
                           {"mode", "-128", "127", "-129", "128"}}) {
        auto const member = [&key = key](std::string const& text) {
            return "\"" + key + "\": " + text;
        };
        for (auto const& good : {min, max, std::string("0")}) {
            SCOPED_TRACE(member(good));
            EveryKind value;
            read(value, with(member(good)));
            EXPECT_NE(written(value).find(member(good) + ","), std::string::npos);
        }
        std::string const failure =
            "field \"" + key + "\": not a whole number from " + min + " to " + max;
        for (auto const& bad : {below, above, std::string("1.0"), std::string("1e0"),
                                std::string("\"1\""), std::string("true"), std::string("null"),
                                std::string("[1]"), "9" + max, "-9" + max}) {
            EXPECT_EQ(failureOf(with(member(bad)), EveryKind()), failure) << bad;
        }
    }
}

TEST(AListedValue, NamesTheFieldThatCannotBeReadAndIsUnchanged) {
    auto const value = fullValue();
    struct Case {
        std::string member, failure;
    };
    for (auto const& [member, failure] : std::vector<Case>{
             {R"("flag": 1)", R"(field "flag": neither true nor false)"},
             {R"("letter": "a")", R"(field "letter": not a whole number from )"},
             {R"("small": 3.5e38)", R"(field "small": too large for a float)"},
             {R"("small": "1")", R"(field "small": )"},
             {R"("large": null)", R"(field "large": )"},
             {R"("large": 1e999)", R"(field "large": )"},
             {R"("text": 1)", R"(field "text": )"},
             {R"("text": "\ud800")", R"(field "text": )"},
             {R"("time": "now")", R"(field "time": )"},
             {R"("point": 1)", R"(field "point": Cannot get member from a scalar or array)"},
             {R"("point": null)", R"(field "point": )"},
             {R"("point": {"x": 1})", R"(field "point.y": missing)"},
             {R"("point": {"x": 1, "y": 0.5})", R"(field "point.y": not a whole number from )"},
             {R"("count": "1")", R"(field "count": not a whole number from )"},
             {R"("target": {})", R"(field "target.x": missing)"},
             {R"("path": {})", R"(field "path": Not a JSON array)"},
             {R"("path": [{"x": 1, "y": 2}, []])", R"(field "path[1]": Cannot get member)"},
             {R"("numbers": 1)", R"(field "numbers": Not a JSON array)"},
             {R"("numbers": [0, 1, -1])", R"(field "numbers[2]": not a whole number from 0 to )"},
             {R"("flags": [null])", R"(field "flags[0]": neither true nor false)"},
             {R"("texts": ["a", ["b"]])", R"(field "texts[1]": )"},
             {R"("points": [{"x": "1"}])", R"(field "points[0].x": )"},
             {R"("lines": [[], [{"x": 1, "y": 2}, {"x": 1}]])",
              R"(field "lines[1][1].y": missing)"},
             {R"("samples": [1, null, "2"])", R"(field "samples[2]": )"}}) {
        EXPECT_EQ(failureOf(with(member), value).substr(0, failure.size()), failure) << member;
    }
}

TEST(AListedValue, IsNotReadFromWhatIsNoObject) {
    for (std::string const payload : {"[]", "1", "null", "{", "x", "", "{}}", "\"text\"", "[{}]"}) {
        EXPECT_EQ(failureOf(payload, fullValue()), "Cannot get member from a scalar or array");
    }
}

TEST(AListedValue, NeedsEachMemberThatIsNotOptional) {
    auto const document = written(fullValue());
    std::size_t members = 0;
    std::size_t optional = 0;
    std::size_t at = 0;
    while ((at = document.find("\n  \"", at) + 1) != 0) {
        auto const begin = at + 3;
        auto const key = document.substr(begin, document.find('"', begin) - begin);
        auto other = document;
        other[begin] = '_';
        auto const failure = failureOf(other, EveryKind());
        optional += failure.empty() ? 1U : 0U;
        EXPECT_EQ(failure, failure.empty() ? "" : "field \"" + key + "\": missing");
        ++members;
    }
    EXPECT_EQ(members, 26U);
    EXPECT_EQ(optional, 4U);
}

TEST(AListedValue, HasAnEmptyOptionalFieldForAMissingMemberAndForNull) {
    for (std::string const member : {"\"other\": 1", "\"count\": null, \"note\": null"}) {
        EveryKind value;
        value.count = 1;
        value.note = "old";
        value.notListed = 7;
        read(value, with(member));
        EXPECT_FALSE(value.count || value.note) << member;
        EXPECT_EQ(value.notListed, 7) << "members that are not in the list stay";
    }
}

TEST(AListedValue, IsUnchangedByAnEmptyPayload) {
    EveryKind value;
    read(value, "", true);
    read(value, written(fullValue()), true);
    EXPECT_EQ(written(value), written(EveryKind()));
}

TEST(AListedValue, WritesWhatIsNotFiniteAsNullWhichCannotBeRead) {
    EveryKind value;
    value.large = std::numeric_limits<double>::quiet_NaN();
    EXPECT_NE(written(value).find("\"large\": null"), std::string::npos);
    EXPECT_EQ(failureOf(written(value), EveryKind()).substr(0, 14), "field \"large\":");
}

TEST(AListedValue, IsNestedAsDeepAsTheReaderReads) {
    auto const nested = [](std::size_t depth) {
        std::string text;
        for (std::size_t i = 1; i < depth; ++i) {
            text += R"({"below":[)";
        }
        text += R"({"below":[]})";
        for (std::size_t i = 1; i < depth; ++i) {
            text += "]}";
        }
        return text;
    };
    constexpr std::size_t DEEPEST = 64 / 2; // an object and an array each
    EXPECT_EQ(failureOf(nested(DEEPEST), Node()), "");
    for (std::size_t const depth : {DEEPEST + 1, std::size_t{100000}}) {
        EXPECT_EQ(failureOf(nested(depth), Node()), "Cannot get member from a scalar or array");
    }
}

// Payloads

TEST(AListedPayload, IsPartOfAMessage) {
    using Payload = mqtt::Payload<Point>;
    static_assert(std::is_base_of_v<mqtt::RequestReplyData, Payload>);
    static_assert(std::is_final_v<Payload>);
    std::string text;
    zym::common::lwjson::Serializer out(text);
    out.appendKey("$reqId");
    out.appendValue("7");
    Payload(Point{1.5, -2}).serialize(out);
    out.finalize();
    EXPECT_EQ(text, "{\n  \"$reqId\": 7,\n  \"x\": 1.5,\n  \"y\": -2\n}");
    Payload payload;
    zym::common::lwjson::Deserializer in(text);
    payload.deserialize(in);
    EXPECT_EQ(payload.value.x, 1.5);
    EXPECT_EQ(payload.value.y, -2);
    zym::common::lwjson::Deserializer bad(std::string_view(R"({"x": 3})"));
    EXPECT_THROW(payload.deserialize(bad), std::runtime_error);
    EXPECT_EQ(payload.value.x, 1.5);
}

// Memory

template <class Action>
std::size_t allocationsOf(Action action) {
    action();
    support::AllocationCount const count;
    action();
    return count.value();
}

TEST(AListedValue, TakesNoMoreAllocationsThanByHand) {
    Measurement const value{1.5,      std::string(50, 'u'),         7,
                            true,     conv::UnixTime(1700000000.5), sample::Mode::FORWARD,
                            {0.1, 5}, std::string(50, 'n'),         {1, 2, 3}};
    auto const payload = written(value);
    mqtt::Topic const topic("a");
    Measurement target;
    auto const writing = allocationsOf([&] {
        std::string text;
        MqttData<Measurement>::serialize(topic, text, value);
    });
    EXPECT_LE(writing, allocationsOf([&] {
                  std::string text;
                  by_hand::write(text, value);
                  EXPECT_TRUE(text == payload);
              }));
    auto const reading =
        allocationsOf([&] { MqttData<Measurement>::deserialize(topic, payload, false, target); });
    EXPECT_EQ(written(target), payload);
    EXPECT_LE(reading, allocationsOf([&] { by_hand::read(payload, target); }));
    EXPECT_EQ(written(target), payload);
}

TEST(AListedValue, IsUnchangedWhenThereIsNoMemoryToReadAnother) {
    auto const payload =
        written(Measurement{1, std::string(50, 'u'), 1, true, {}, {}, {}, "n", {1}});
    mqtt::Topic const topic("a");
    Measurement value;
    auto const failures = support::failEachAllocation(
        [&] { MqttData<Measurement>::deserialize(topic, payload, false, value); },
        [&](unsigned /*which*/) { EXPECT_EQ(written(value), written(Measurement())); });
    EXPECT_GE(failures, 2U);
    EXPECT_EQ(written(value), payload);
}

} // namespace
