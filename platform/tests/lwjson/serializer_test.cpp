#include "support/timeout_factor.hpp"

#include <zym/common/lwjson.hpp>

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using zym::common::lwjson::Serializer;
using Links = std::vector<Serializer>;

template <typename Value>
std::string memberWith(Value const& value) {
    std::string json;
    Serializer out(json);
    out.appendKey("v");
    out.addValue(value);
    out.finalize();
    return json;
}

/// The object with the one member "v", of this text.
std::string object(std::string const& value) {
    return "{\n  \"v\": " + value + "\n}";
}

TEST(ASerializer, WritesEachMemberOnALineOfItsOwn) {
    std::string json = "old content";
    Serializer out(json);
    EXPECT_EQ(json, "{");
    EXPECT_EQ(&out.mutableJson(), &json);
    out.appendKey("a\"b"); // keys are escaped too
    out.appendValue("3");
    out.appendKey("since");
    out.addValue(conv::UnixTime(1700000000.5));
    out.finalize();
    EXPECT_EQ(json, "{\n  \"a\\\"b\": 3,\n  \"since\": 1700000000.5\n}");
    Serializer(json).finalize();
    EXPECT_EQ(json, "{}");
}

TEST(ASerializer, WritesAnArrayWithALinePerElement) {
    std::string const text = object("1");
    std::string const link = "{\n  \"@id\": \"a  b\"\n}";
    std::string json;
    Serializer out(json);
    out.appendKey("empty");
    out.addValue(Links());
    out.appendKey("links");
    out.addValue(Links{Serializer(text), Serializer(link)});
    out.appendKey("more");
    out.appendValue("1");
    out.finalize();
    EXPECT_EQ(json, "{\n  \"empty\":\n  [\n  ],\n  \"links\":\n  [\n    {\"v\": 1},\n"
                    "    {\"@id\": \"a  b\"}\n  ],\n  \"more\": 1\n}");
    // A finished object stands on one line, whatever its layout.
    EXPECT_EQ(memberWith(Serializer(std::as_const(json))),
              object("{\"empty\":[],\"links\":[{\"v\": 1},{\"@id\": \"a  b\"}],\"more\": 1}"));
    std::string const other = "{\r\n\t\"x\": [1,\n\t 2],\r\"y\" : { } }";
    EXPECT_EQ(memberWith(Serializer(other)), object("{\"x\": [1,2],\"y\" : { } }"));
}

TEST(ASerializer, EscapesQuotesBackslashesAndControlBytesOnly) {
    EXPECT_EQ(memberWith(std::string("\"\\/\b\f\n\r\t")), object("\"\\\"\\\\/\\b\\f\\n\\r\\t\""));
    EXPECT_EQ(memberWith(std::string("a\x01z\x1f\0e", 6)), object("\"a\\u0001z\\u001f\\u0000e\""));
    EXPECT_EQ(memberWith(std::string("a,")), object("\"a,\""));
    std::string passing;
    for (int byte = 0x20; byte < 0x100; ++byte) {
        if (byte != '"' && byte != '\\') {
            passing += static_cast<char>(byte);
        }
    }
    EXPECT_EQ(memberWith(passing), object('"' + passing + '"'));
    for (char const byte : passing) {
        std::string const text(9, byte);
        EXPECT_EQ(memberWith(text), object('"' + text + '"'));
    }
}

TEST(ASerializer, EscapesAtEveryPlaceInTextsOfEveryLength) {
    for (std::size_t length = 1; length <= 40; ++length) {
        for (std::size_t place = 0; place < length; ++place) {
            std::string const before(place, 'x');
            std::string const behind(length - place - 1, 'x');
            for (auto const& [byte, escaped] :
                 {std::pair('"', "\\\""), std::pair('\\', "\\\\"), std::pair('\x1f', "\\u001f")}) {
                EXPECT_EQ(memberWith(before + byte + behind),
                          object('"' + before + escaped + behind + '"'));
            }
        }
    }
}

TEST(ASerializer, WritesNullForWhatIsNoNumberAndForAnInvalidTime) {
    constexpr double INFINITE = std::numeric_limits<double>::infinity();
    for (double const number : {std::numeric_limits<double>::quiet_NaN(), INFINITE, -INFINITE}) {
        EXPECT_EQ(memberWith(number), object("null"));
    }
    EXPECT_EQ(memberWith(conv::UnixTime()), object("null"));
}

// The texts must be those of the standard library, for both signs and for the neighbours, which
// have many digits if the number has few. Numbers with few digits take another path.
void expectAsByTheStandardLibrary(double number) {
    constexpr double FAR = std::numeric_limits<double>::max();
    for (double const near : {number, std::nextafter(number, FAR), std::nextafter(number, -FAR)}) {
        for (double const one : {near, -near}) {
            char text[40];
            std::string const expected(text, std::to_chars(text, text + sizeof text, one).ptr);
            ASSERT_EQ(memberWith(one), object(expected));
        }
    }
}

TEST(ASerializer, WritesNumbersWithFewDecimalsAsTheStandardLibraryDoes) {
    std::mt19937_64 random(3);
    for (int i = 0; i < 20000 / support::TIMEOUT_FACTOR && !HasFailure(); ++i) {
        auto const digits = static_cast<double>(random() >> random() % 64U);
        double const power = std::pow(10, static_cast<int>(random() % 20U));
        auto const few = static_cast<double>(random() % 1000000U);
        for (double const number : {digits / power, few / 1000, few * power / 1000}) {
            expectAsByTheStandardLibrary(number);
        }
    }
}

TEST(ASerializer, WritesNumbersAtEveryEdgeAsTheStandardLibraryDoes) {
    for (int exponent = -307; exponent <= 308; ++exponent) {
        double const power = std::pow(10, exponent);
        expectAsByTheStandardLibrary(power);
        expectAsByTheStandardLibrary(power * 1.2);
    }
    for (double const number :
         {0.0, 0.0005, 0.001, 0.0012, 0.9995, 99999.0, 100000.0, 110000.0, 1e11 + 0.001,
          999999999999.999, 1e12, 1e12 + 0.001, 9007199254740992.0, 18446744073709551616.0}) {
        expectAsByTheStandardLibrary(number);
    }
}

TEST(AWrappingSerializer, HasACopyOfItsTextAndSurvivesCopyingAndMoving) {
    std::string const text = object("0");
    Links list;
    for (int i = 0; i < 100; ++i) {
        list.emplace_back(text);
        list.back().mutableJson() += std::to_string(i);
    }
    Links copy = list;
    list.clear();
    EXPECT_EQ(text, object("0"));
    EXPECT_EQ(copy.front().mutableJson(), "{\"v\": 0}0");
    EXPECT_EQ(copy.back().mutableJson(), "{\"v\": 0}99");
}

} // namespace
