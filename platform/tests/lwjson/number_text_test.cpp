#include "number_text.hpp"

#include "support/timeout_factor.hpp"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <locale>
#include <random>
#include <stdexcept>
#include <string>

namespace {

using zym::common::lwjson::isInteger;
using zym::common::lwjson::isNumber;
using zym::common::lwjson::LONGEST_NUMBER;
using zym::common::lwjson::readNumber;
using zym::common::lwjson::writeNumber;

std::string textOf(double number) {
    char text[LONGEST_NUMBER];
    return {text, writeNumber(text, number)};
}

TEST(ANumberText, FollowsTheGrammarOfJson) {
    for (char const* text : {"0", "7", "10", "123456789012345678901234567890"}) {
        EXPECT_TRUE(isNumber(text)) << text;
        EXPECT_TRUE(isInteger(text)) << text;
    }
    for (char const* text :
         {"-0", "-12", "0.5", "1.25", "1e5", "1E+5", "1e-05", "-1.5e300", "0e0", "1e999"}) {
        EXPECT_TRUE(isNumber(text)) << text;
        EXPECT_FALSE(isInteger(text)) << text;
    }
    for (char const* text :
         {"",     "-",   "+1",  "00", "01", "-01", ".5",  "1.",    "1.e5",  "1e",  "1e+",
          "0x10", "nan", "inf", "1 ", " 1", "1,5", "--1", "1.5.2", "1e5.0", "true"}) {
        EXPECT_FALSE(isNumber(text)) << text;
        EXPECT_FALSE(isInteger(text)) << text;
    }
}

TEST(ANumberText, IsShortAndReadsBackTheSame) {
    EXPECT_EQ(textOf(0.1), "0.1");
    EXPECT_EQ(textOf(1700000000.5), "1700000000.5");
    EXPECT_EQ(textOf(-0.0), "-0");
    EXPECT_EQ(textOf(-1234.567), "-1234.567");
    EXPECT_EQ(textOf(0.02), "0.02");
    EXPECT_EQ(textOf(120), "120");
    EXPECT_EQ(textOf(1e5), "1e+05");
    for (double const number :
         {0.0, 1.0, 0.1, 1.0 / 3.0, 1e22, 5e-324, std::numeric_limits<double>::min(),
          std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest()}) {
        EXPECT_TRUE(isNumber(textOf(number))) << textOf(number);
        EXPECT_EQ(readNumber(textOf(number)), number);
    }
}

// The texts must be those of the standard library, for both signs and for the neighbours, which
// have many digits if the number has few. Numbers with few digits take another path.
void expectAsByTheStandardLibrary(double number) {
    constexpr double FAR = std::numeric_limits<double>::max();
    for (double const near : {number, std::nextafter(number, FAR), std::nextafter(number, -FAR)}) {
        for (double const one : {near, -near}) {
            char text[LONGEST_NUMBER];
            std::string const expected(text, std::to_chars(text, text + sizeof text, one).ptr);
            ASSERT_EQ(textOf(one), expected);
            double const again = readNumber(expected);
            ASSERT_EQ(std::memcmp(&again, &one, sizeof one), 0) << expected;
        }
    }
}

TEST(ANumberText, IsThatOfTheStandardLibraryForNumbersWithFewDecimals) {
    std::mt19937_64 random(3);
    for (int i = 0; i < 30000 / support::TIMEOUT_FACTOR && !HasFailure(); ++i) {
        auto const digits = static_cast<double>(random() >> random() % 64U);
        double const power = std::pow(10, static_cast<int>(random() % 20U));
        auto const few = static_cast<double>(random() % 1000000U);
        for (double const number : {digits / power, few / 1000, few * power / 1000}) {
            expectAsByTheStandardLibrary(number);
        }
    }
}

TEST(ANumberText, IsThatOfTheStandardLibraryAtEveryEdge) {
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

TEST(ANumberText, IsReadAsByTheStandardLibrary) {
    std::mt19937_64 random(4);
    for (int i = 0; i < 100000 / support::TIMEOUT_FACTOR; ++i) {
        std::string text = std::to_string(random() >> random() % 64U);
        if (random() % 4U != 0) {
            text += '.' + std::to_string(random() >> random() % 64U);
        }
        double expected = 0;
        std::from_chars(text.data(), text.data() + text.size(), expected);
        ASSERT_EQ(readNumber(text), expected) << text;
        ASSERT_EQ(readNumber('-' + text), -expected) << text;
    }
}

TEST(ANumberText, IsOutOfRangeWhenTooLargeOrTooCloseToZeroForADouble) {
    for (auto const& text :
         {std::string("1e-999"), "-0." + std::string(400, '0') + "1", std::string("1e999"),
          std::string("-1e999"), "1" + std::string(400, '0')}) {
        EXPECT_THROW(readNumber(text), std::out_of_range) << text;
    }
    EXPECT_EQ(readNumber("0e-999"), 0.0);
    EXPECT_EQ(readNumber("0.00E-999"), 0.0);
    EXPECT_EQ(readNumber("0.0"), 0.0);
    EXPECT_EQ(readNumber("5e-324"), std::numeric_limits<double>::denorm_min());
}

struct CommaForAPoint : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ANumberText, DoesNotFollowTheLocale) {
    std::locale const before = std::locale::global(
        std::locale(std::locale::classic(), new CommaForAPoint)); // owned by the locale
    std::string const text = textOf(1234567.5);
    double const number = readNumber("1234567.5");
    std::locale::global(before);
    EXPECT_EQ(text, "1234567.5");
    EXPECT_EQ(number, 1234567.5);
}

} // namespace
