// Messages that are not taken over, and leave what there was as it was.

#include "malformed.hpp"
#include "read_messages.hpp"
#include "sample_data.hpp"

#include <exception>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

namespace {

using mqtt::Topic;
using ErrorCode = mqtt::RequestReply::ErrorCode;

std::string whatOf(void (*read)(std::string const&), std::string const& payload) {
    try {
        read(payload);
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "nothing thrown";
}

class FoulData : public mqtt::RequestReplyData {
public:
    void deserialize(zym::common::lwjson::Deserializer& /*in*/) override { throw 7; }
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}
};

/// What is wrong, fit for a test name, and a message that has it.
struct Bad {
    char const* name;
    char const* text;
};

void PrintTo(Bad const& bad, std::ostream* out) {
    *out << bad.name;
}

class ARequestOnABadTopic : public testing::TestWithParam<Bad> {};

TEST_P(ARequestOnABadTopic, IsRefusedAndChangesNothing) {
    auto request = aRequest();
    EXPECT_THROW(read(request, R"({"$reqId": 5})", GetParam().text), std::exception);
    expectSame(request, aRequest());
}

INSTANTIATE_TEST_SUITE_P(
    , ARequestOnABadTopic,
    testing::Values(Bad{"NoLevel", ""}, Bad{"OneLevel", "AAAAAAAAAAAAAAAAAAAAAQ"},
                    Bad{"ANameOfOneCharacter", "x/?/AAAAAAAAAAAAAAAAAAAAAQ"},
                    Bad{"NoName", "x//AAAAAAAAAAAAAAAAAAAAAQ"},
                    Bad{"AShortIdentifier", "x/n?\?/u1"}, Bad{"NoIdentifier", "x/n?\?//"},
                    Bad{"AWildcard", "x/n?\?/+"},
                    Bad{"AStrangeCharacter", "x/n?\?/AAAAAAAAAAAAAAAAAAAAA$"},
                    Bad{"SpareBits", "x/n?\?/AAAAAAAAAAAAAAAAAAAAAR"},
                    Bad{"Padding", "x/n?\?/AAAAAAAAAAAAAAAAAAAAAQ=="},
                    Bad{"Braces", "x/n?\?/{00000000-0000-0000-0000-000000000001}"}),
    [](auto const& that) { return that.param.name; });

TEST(ARequestWithTooFewLevels, IsOutOfRange) {
    Request request;
    EXPECT_THROW(read(request, R"({"$reqId": 5})", Topic()), std::out_of_range);
    EXPECT_THROW(read(request, R"({"$reqId": 5})", CLIENT_TEXT), std::out_of_range);
    EXPECT_THROW(read(request, R"({"$reqId": 5})", "?/" + CLIENT_TEXT), std::out_of_range);
}

TEST(ARequestOfAClientWithoutAnIdentifier, IsInvalid) {
    Request request;
    EXPECT_THROW(read(request, R"({"$reqId": 5})", "x/n?\?/u1"), std::invalid_argument);
}

TEST(ARequestWhosePayloadCannotBeRead, IsRefusedAndChangesNothing) {
    auto request = aRequest();
    request.data = std::make_shared<NumberData>(9);
    auto const before = request;
    EXPECT_THROW(read(request, R"({"$reqId": 5})"), std::out_of_range);
    EXPECT_THROW(read(request, R"({"$reqId": 5, "number": "5"})"), std::invalid_argument);
    request.data = std::make_shared<FoulData>();
    EXPECT_THROW(read(request, R"({"$reqId": 5})"), int);
    request.data = before.data;
    expectSame(request, before);
}

TEST(ARequestWithHalfACharacterInItsPayload, IsRefusedAndChangesNothing) {
    auto request = aRequest();
    request.data = std::make_shared<TextData>("kept");
    auto const before = request;
    EXPECT_THROW(read(request, R"({"$reqId": 7, "text": "\ud800"})"), std::invalid_argument);
    expectSame(request, before);
}

TEST(AReplyWhosePayloadThrowsWhatIsNoException, IsRefusedAndChangesNothing) {
    Reply reply(aRequest());
    reply.data = std::make_shared<FoulData>();
    EXPECT_THROW(read(reply, R"({"$reqId": 7, "$err": 3})"), int);
    EXPECT_EQ(reply.requestId, aRequest().requestId);
    EXPECT_EQ(reply.error, ErrorCode::NONE);
}

class AReplyWithABadError : public testing::TestWithParam<Bad> {};

TEST_P(AReplyWithABadError, IsRefusedAndChangesNothing) {
    Reply reply(aRequest());
    reply.error = ErrorCode::BUSY;
    EXPECT_THROW(read(reply, GetParam().text), std::exception);
    expectSame(reply, aRequest());
    EXPECT_EQ(reply.error, ErrorCode::BUSY);
}

INSTANTIATE_TEST_SUITE_P(, AReplyWithABadError,
                         testing::Values(Bad{"None", R"({"$reqId": 7})"},
                                         Bad{"OfNineBits", R"({"$reqId": 7, "$err": 256})"},
                                         Bad{"Negative", R"({"$reqId": 7, "$err": -1})"},
                                         Bad{"AText", R"({"$reqId": 7, "$err": "1"})"},
                                         Bad{"Null", R"({"$reqId": 7, "$err": null})"},
                                         Bad{"AFraction", R"({"$reqId": 7, "$err": 1.0})"},
                                         Bad{"AnotherKey", R"({"$reqId": 7, "$error": 1})"}),
                         [](auto const& that) { return that.param.name; });

TEST(AMessageThatIsNoObject, IsRefusedInTheReadersWords) {
    char const* const words = "Cannot get member from a scalar or array";
    for (char const* const payload : {"[]", "7", "null", "\"\"", "{"}) {
        EXPECT_EQ(whatOf(
                      [](std::string const& text) {
                          Request request;
                          read(request, text);
                      },
                      payload),
                  words);
        EXPECT_EQ(whatOf(
                      [](std::string const& text) {
                          Reply reply;
                          read(reply, text);
                      },
                      payload),
                  words);
    }
}

class AMalformedMessage : public testing::TestWithParam<Malformed> {
protected:
    std::shared_ptr<NumberData> const data_ = std::make_shared<NumberData>(9);
};

TEST_P(AMalformedMessage, IsNoRequest) {
    auto request = aRequest();
    request.data = data_;
    auto const before = request;
    EXPECT_THROW(read(request, GetParam().payload), std::exception);
    expectSame(request, before);
    EXPECT_EQ(data_->number, 9U);
    EXPECT_NO_THROW(read(request, R"({"$reqId": 5, "number": 6})"));
}

TEST_P(AMalformedMessage, IsNoReply) {
    Reply reply(aRequest());
    reply.data = data_;
    EXPECT_THROW(read(reply, GetParam().payload), std::exception);
    EXPECT_EQ(reply.requestId, aRequest().requestId);
    EXPECT_EQ(reply.error, ErrorCode::NONE);
    EXPECT_EQ(data_->number, 9U);
    EXPECT_NO_THROW(read(reply, R"({"$reqId": 5, "$err": 1})"));
}

INSTANTIATE_TEST_SUITE_P(, AMalformedMessage, testing::ValuesIn(malformedMessages()),
                         [](auto const& that) { return that.param.name; });

} // namespace
