#include <zym/common/lwjson.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using zym::common::lwjson::Deserializer;

template <typename T>
T extract(std::string_view text) {
    T value{};
    Deserializer::extractValue(text, value, "");
    return value;
}

template <typename Exception, typename T>
void expectFailure(std::string_view text, T const& before) {
    T value = before;
    EXPECT_THROW(Deserializer::extractValue(text, value, ""), Exception) << text;
    EXPECT_EQ(value, before) << text;
}

TEST(AnExtractedInteger, IsReadFromDigitsInItsRange) {
    EXPECT_EQ(extract<unsigned char>("0"), 0);
    EXPECT_EQ(extract<unsigned char>("255"), 255);
    EXPECT_EQ(extract<unsigned>("4294967295"), 4294967295U);
    for (std::string const& text : {std::string("4294967296"), std::string("42949672950"),
                                    std::string(500, '9'), std::string("-0"), std::string("-1")}) {
        expectFailure<std::out_of_range>(text, 77U);
        expectFailure<std::out_of_range>(text, static_cast<unsigned char>(77));
    }
    expectFailure<std::out_of_range>("256", static_cast<unsigned char>(77));
}

TEST(AnExtractedDouble, IsReadFromAnyNumberInItsRange) {
    for (char const* text : {"0", "-0", "7", "123456789012345678901234567890", "-12", "0.5", "1e5",
                             "1E+5", "1e-05", "-1.5e300", "0e-999", "0.00E-999", "5e-324"}) {
        EXPECT_EQ(extract<double>(text), std::strtod(text, nullptr)) << text;
    }
    for (std::string const& text :
         {std::string("1e-999"), "-0." + std::string(400, '0') + "1", std::string("1e999"),
          std::string("-1e999"), "1" + std::string(400, '0')}) {
        expectFailure<std::out_of_range>(text, 7.5);
    }
}

TEST(AnExtractedNumber, IsInvalidUnlessItFollowsTheGrammarOfJson) {
    for (char const* text : {"1.0", "1e2", "1E2", "-1.5"}) { // numbers, but no integers
        expectFailure<std::invalid_argument>(text, 77U);
        expectFailure<std::invalid_argument>(text, static_cast<unsigned char>(77));
    }
    for (char const* text : {"-",   "+1",    "00",    "01",   "-01",  ".5",    "1.", "1.e5",
                             "1e",  "1e+",   "0x10",  "nan",  "inf",  "1 ",    " 1", "1,5",
                             "--1", "1.5.2", "1e5.0", "true", "null", "\"1\"", "{}", "[1]"}) {
        expectFailure<std::invalid_argument>(text, 77U);
        expectFailure<std::invalid_argument>(text, static_cast<unsigned char>(77));
        expectFailure<std::invalid_argument>(text, 7.5);
    }
}

TEST(AnExtractedTime, IsReadFromANumberOrInvalidForNull) {
    conv::UnixTime time = extract<conv::UnixTime>("1700000000.5");
    EXPECT_EQ(time.seconds, 1700000000.5);
    EXPECT_EQ(time.valid, 1);
    EXPECT_THROW(Deserializer::extractValue("\"5\"", time, ""), std::invalid_argument);
    EXPECT_THROW(Deserializer::extractValue("1e999", time, ""), std::out_of_range);
    EXPECT_THROW(Deserializer::extractValue("", time, ""), std::out_of_range);
    EXPECT_EQ(time.seconds, 1700000000.5) << "it is unchanged by a failure";
    EXPECT_EQ(time.valid, 1);
    Deserializer::extractValue("null", time, "");
    EXPECT_EQ(time.seconds, 4294967295.0);
    EXPECT_EQ(time.valid, 0);
}

TEST(AnExtractedValue, IsOutOfRangeWhenThereIsNone) {
    expectFailure<std::out_of_range>("", std::string("before"));
    expectFailure<std::out_of_range>("", static_cast<unsigned char>(77));
    expectFailure<std::out_of_range>("", 77U);
    expectFailure<std::out_of_range>("", 7.5);
}

TEST(AnExtractedText, IsDecodedWhateverItsLength) {
    EXPECT_EQ(extract<std::string>("\"a b\""), "a b");
    EXPECT_EQ(extract<std::string>(R"("\"\\\/\b\f\n\r\t")"), "\"\\/\b\f\n\r\t");
    EXPECT_EQ(extract<std::string>("\"a\\u0000b\""), std::string("a\0b", 3));
    std::string text(100, 'x');
    for (std::size_t length = 0; length < 40; ++length) {
        std::string const plain(length, 'x');
        Deserializer::extractValue('"' + plain + '"', text, "");
        EXPECT_EQ(text, plain);
        EXPECT_EQ(extract<std::string>('"' + plain + R"(\n)" + plain + '"'), plain + '\n' + plain);
        expectFailure<std::invalid_argument>('"' + plain + "\x1f\"", std::string("before"));
        expectFailure<std::invalid_argument>('"' + plain + "\"" + plain + '"',
                                             std::string("before"));
    }
}

TEST(AnExtractedText, HasCodePointsAsUtf8AndOtherBytesAsTheyAre) {
    EXPECT_EQ(extract<std::string>("\"\\u0041\\u007f\\u0080\\u07ff\""), "A\x7f\xc2\x80\xdf\xbf");
    EXPECT_EQ(extract<std::string>("\"\\u0800\\uFFFF\\uffff\\uD7FF\\uE000\""),
              "\xe0\xa0\x80\xef\xbf\xbf\xef\xbf\xbf\xed\x9f\xbf\xee\x80\x80");
    EXPECT_EQ(extract<std::string>("\"\\ud800\\udc00\\uDBFF\\uDFFF\\ud83d\\uDE00\""),
              "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf\xf0\x9f\x98\x80");
    std::string bytes;
    for (int byte = 0x7f; byte < 0x100; ++byte) {
        bytes += static_cast<char>(byte);
    }
    EXPECT_EQ(extract<std::string>('"' + bytes + '"'), bytes);
}

TEST(AnExtractedText, IsInvalidWithHalfOfASurrogatePairAndUnlessAJsonString) {
    for (char const* text : {R"("\ud800")",
                             R"("\udc00")",
                             R"("\ud800\ud800")",
                             R"("\ud800x")",
                             R"("\ud800\n")",
                             R"("\ud800\u0041")",
                             R"("\udfff\ud800")",
                             "\"",
                             "\"a",
                             "a\"",
                             "a",
                             "1",
                             "null",
                             "true",
                             "{}",
                             "[\"a\"]",
                             R"("\")",
                             R"("\x")",
                             R"("\u12")",
                             R"("\u12g4")",
                             R"("\u")",
                             "\"a\"b\"",
                             "\"a\nb\"",
                             "\"a\" ",
                             " \"a\""}) {
        expectFailure<std::invalid_argument>(text, std::string("before"));
    }
}

} // namespace
