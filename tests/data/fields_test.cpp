// Values whose fields are named in a list. by_hand.hpp has the same as an application would write
// it without a list.

#include "data/by_hand.hpp"
#include "data/documents.hpp"
#include "data/every_kind.hpp"
#include "support/allocations.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
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

// Random values

std::mt19937_64 random64(15);

bool oneOf(unsigned count) {
    return random64() % count == 0;
}

template <class Integer>
Integer randomInteger() {
    using Limits = std::numeric_limits<Integer>;
    Integer const special[] = {0, 1, Limits::min(), Limits::max()};
    return oneOf(4) ? special[random64() % 4] : static_cast<Integer>(random64());
}

template <class Number>
Number randomNumber() {
    if (oneOf(2)) {
        return static_cast<Number>(randomInteger<std::int32_t>()) / Number{1000};
    }
    auto const bits = random64();
    Number number = 0;
    std::memcpy(&number, &bits, sizeof number);
    return std::isfinite(number) ? number : -Number{0};
}

std::string randomText() {
    std::string text(static_cast<std::size_t>(random64() % 40), 'x');
    for (char& c : text) {
        c = oneOf(4) ? static_cast<char>(random64()) : c;
    }
    return text;
}

Point randomPoint() {
    return {randomNumber<double>(), randomInteger<int>()};
}

template <class Make>
auto several(Make make) {
    std::vector<decltype(make())> elements(static_cast<std::size_t>(random64() % 4));
    for (std::size_t i = 0; i < elements.size(); ++i) {
        elements[i] = make();
    }
    return elements;
}

template <class Make>
auto perhaps(Make make) {
    return oneOf(2) ? std::optional(make()) : std::nullopt;
}

EveryKind randomValue() {
    EveryKind value;
    value.flag = oneOf(2);
    value.letter = randomInteger<char>();
    value.i8 = randomInteger<std::int8_t>();
    value.u8 = randomInteger<std::uint8_t>();
    value.i16 = randomInteger<std::int16_t>();
    value.u16 = randomInteger<std::uint16_t>();
    value.i32 = randomInteger<std::int32_t>();
    value.u32 = randomInteger<std::uint32_t>();
    value.i64 = randomInteger<std::int64_t>();
    value.u64 = randomInteger<std::uint64_t>();
    value.small = randomNumber<float>();
    value.large = randomNumber<double>();
    value.text = randomText();
    value.time = oneOf(4) ? conv::UnixTime() : conv::UnixTime(randomNumber<double>());
    value.mode = sample::Mode{randomInteger<std::int8_t>()};
    value.point = randomPoint();
    value.count = perhaps(randomInteger<int>);
    value.note = perhaps(randomText);
    value.target = perhaps(randomPoint);
    value.path = perhaps([] { return several(randomPoint); });
    value.numbers = several(randomInteger<unsigned>);
    value.flags = several([] { return oneOf(2); });
    value.texts = several(randomText);
    value.points = several(randomPoint);
    value.lines = several([] { return several(randomPoint); });
    value.samples = several([] { return perhaps(randomNumber<double>); });
    return value;
}

TEST(AListedValue, IsWrittenAsByHandAndReadBack) {
    for (int i = 0; i < 10000; ++i) {
        SCOPED_TRACE(i);
        auto const value = randomValue();
        auto const payload = written(value);
        std::string expected;
        by_hand::write(expected, value);
        ASSERT_EQ(payload, expected);
        EveryKind again = randomValue();
        read(again, payload);
        ASSERT_EQ(written(again), payload);
    }
}

TEST(AListedValue, IsInAUsualCaseWrittenAsByHandAndReadByEachOther) {
    for (int i = 0; i < 1000; ++i) {
        SCOPED_TRACE(i);
        Measurement value{randomNumber<double>(),
                          randomText(),
                          randomInteger<unsigned>(),
                          oneOf(2),
                          conv::UnixTime(randomNumber<double>()),
                          sample::Mode::FORWARD,
                          randomPoint(),
                          perhaps(randomText),
                          several(randomInteger<unsigned>)};
        std::string payload;
        by_hand::write(payload, value);
        ASSERT_EQ(written(value), payload);
        Measurement ours, byHand;
        read(ours, payload);
        by_hand::read(payload, byHand);
        ASSERT_EQ(written(ours), payload);
        ASSERT_EQ(written(byHand), payload);
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
    auto const value = randomValue();
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
        EXPECT_EQ(failureOf(payload, randomValue()), "Cannot get member from a scalar or array");
    }
}

TEST(AListedValue, NeedsEachMemberThatIsNotOptional) {
    EveryKind full;
    full.count = 1;
    full.note = "";
    full.target.emplace();
    full.path.emplace();
    auto const document = written(full);
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
    auto value = randomValue();
    auto const before = written(value);
    read(value, "", true);
    read(value, written(randomValue()), true);
    EXPECT_EQ(written(value), before);
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
              }));
    auto const reading =
        allocationsOf([&] { MqttData<Measurement>::deserialize(topic, payload, false, target); });
    EXPECT_LE(reading, allocationsOf([&] { by_hand::read(payload, target); }));
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
