#include "malformed.hpp"
#include "sample_data.hpp"

#include <mqtt/request_reply.hpp>

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <typeinfo>

namespace {

using mqtt::MqttData;
using mqtt::Topic;
using zym::common::Uuid;
using Request = mqtt::RequestReply::Request;
using Reply = mqtt::RequestReply::Reply;
using ErrorCode = mqtt::RequestReply::ErrorCode;

Uuid const CLIENT(1);
Uuid const SERVER(2);
std::string const CLIENT_TEXT = "AAAAAAAAAAAAAAAAAAAAAQ";
std::string const ENDPOINT = "x/n?\?/" + CLIENT_TEXT;

std::string written(Request const& request) {
    std::string text = "what stood there before";
    MqttData<Request>::serialize("any", text, request);
    return text;
}

std::string written(Reply const& reply) {
    std::string text = "what stood there before";
    MqttData<Reply>::serialize("any", text, reply);
    return text;
}

void read(Request& request, std::string const& payload, Topic const& topic = ENDPOINT) {
    MqttData<Request>::deserialize(topic, payload, payload.empty(), request);
}

void read(Reply& reply, std::string const& payload) {
    MqttData<Reply>::deserialize("x/n?=/" + CLIENT_TEXT, payload, payload.empty(), reply);
}

std::string whatOf(void (*read)(std::string const&), std::string const& payload) {
    try {
        read(payload);
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "nothing thrown";
}

Request aRequest() {
    Request request;
    request.topic = "time/zone";
    request.name = "sync";
    request.clientUuid = CLIENT;
    request.serverUuid = SERVER;
    request.requestId = 3;
    return request;
}

void expectSame(Request const& actual, Request const& expected) {
    EXPECT_EQ(actual.topic, expected.topic);
    EXPECT_EQ(actual.name, expected.name);
    EXPECT_EQ(actual.clientUuid, expected.clientUuid);
    EXPECT_EQ(actual.serverUuid, expected.serverUuid);
    EXPECT_EQ(actual.data, expected.data);
    EXPECT_EQ(actual.requestId, expected.requestId);
}

/// No payload by descent only: it has a member.
class SpeakingNoData : public mqtt::RequestReplyNoData {
public:
    void deserialize(zym::common::lwjson::Deserializer& in) override { number_.deserialize(in); }
    void serialize(zym::common::lwjson::Serializer& out) const override { number_.serialize(out); }
    unsigned int number() const { return number_.number; }

private:
    NumberData number_{8};
};

class FoulData : public mqtt::RequestReplyData {
public:
    void deserialize(zym::common::lwjson::Deserializer& /*in*/) override { throw 7; }
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}
};

TEST(TheSuffixes, AreTwoCharactersLong) {
    EXPECT_STREQ(mqtt::REQUEST_SUFFIX, "?\?");
    EXPECT_STREQ(mqtt::REPLY_SUFFIX, "?=");
}

TEST(TheErrorCodes, HaveTheirNumbers) {
    EXPECT_EQ(static_cast<int>(ErrorCode::NONE), 0);
    EXPECT_EQ(static_cast<int>(ErrorCode::SUCCESS), 1);
    EXPECT_EQ(static_cast<int>(ErrorCode::NO_SERVER), 2);
    EXPECT_EQ(static_cast<int>(ErrorCode::TIMEOUT), 3);
    EXPECT_EQ(static_cast<int>(ErrorCode::NO_LISTENER), 4);
    EXPECT_EQ(static_cast<int>(ErrorCode::PENDING), 5);
    EXPECT_EQ(static_cast<int>(ErrorCode::BUSY), 6);
    EXPECT_EQ(static_cast<int>(ErrorCode::CANCELLED), 7);
    EXPECT_EQ(static_cast<int>(ErrorCode::APPLICATION), 16);
}

TEST(ANewReply, SaysNothing) {
    Reply const reply;
    expectSame(reply, Request());
    EXPECT_EQ(reply.requestId, 0U);
    EXPECT_EQ(reply.data, nullptr);
    EXPECT_TRUE(reply.clientUuid.isNil());
    EXPECT_EQ(reply.error, ErrorCode::NONE);
}

TEST(NoData, IsOnePayloadForAllWhoHaveNone) {
    ASSERT_NE(mqtt::NO_DATA, nullptr);
    mqtt::RequestReplyData const& data = *mqtt::NO_DATA;
    EXPECT_EQ(typeid(data), typeid(mqtt::RequestReplyNoData));
}

TEST(AWrittenRequest, HasItsIdentifierOnly) {
    Request request;
    request.requestId = 42;
    EXPECT_EQ(written(request), "{\n  \"$reqId\": 42\n}");
    request.data = mqtt::NO_DATA;
    EXPECT_EQ(written(request), "{\n  \"$reqId\": 42\n}");
}

TEST(AWrittenRequest, HasThePayloadsMembersBehind) {
    Request request;
    request.requestId = 42;
    request.data = std::make_shared<NumberData>(7);
    EXPECT_EQ(written(request), "{\n  \"$reqId\": 42,\n  \"number\": 7\n}");
}

TEST(AWrittenRequest, HasAnUnsignedIdentifier) {
    Request request;
    request.requestId = 4294967295U;
    EXPECT_EQ(written(request), "{\n  \"$reqId\": 4294967295\n}");
}

TEST(AWrittenReply, HasIdentifierAndError) {
    Reply reply;
    reply.requestId = 42;
    reply.error = ErrorCode::NO_LISTENER;
    EXPECT_EQ(written(reply), "{\n  \"$reqId\": 42,\n  \"$err\": 4\n}");
    reply.data = mqtt::NO_DATA;
    EXPECT_EQ(written(reply), "{\n  \"$reqId\": 42,\n  \"$err\": 4\n}");
}

TEST(AWrittenReply, HasThePayloadsMembersBehind) {
    Reply reply;
    reply.requestId = 42;
    reply.error = static_cast<ErrorCode>(200);
    reply.data = std::make_shared<NumberData>(7);
    EXPECT_EQ(written(reply), "{\n  \"$reqId\": 42,\n  \"$err\": 200,\n  \"number\": 7\n}");
}

TEST(AWrittenReply, KeepsItsEnvelopeWhateverThePayloadWrites) {
    Reply reply;
    reply.requestId = 42;
    reply.error = static_cast<ErrorCode>(17);
    reply.data = std::make_shared<MeddlesomeData>();
    auto const text = written(reply);
    EXPECT_EQ(text, "{\n  \"$reqId\": 42,\n  \"$err\": 17,\n  \"$reqId\": 99,\n  \"$err\": 1\n}");
    Reply copy;
    read(copy, text);
    EXPECT_EQ(copy.requestId, 42U);
    EXPECT_EQ(copy.error, static_cast<ErrorCode>(17));
}

TEST(APayloadDerivedFromNoData, IsWritten) {
    Request request;
    request.data = std::make_shared<SpeakingNoData>();
    EXPECT_EQ(written(request), "{\n  \"$reqId\": 0,\n  \"number\": 8\n}");
    Reply reply(request);
    EXPECT_EQ(written(reply), "{\n  \"$reqId\": 0,\n  \"$err\": 0,\n  \"number\": 8\n}");
}

TEST(APayloadDerivedFromNoData, IsRead) {
    auto const data = std::make_shared<SpeakingNoData>();
    Request request;
    request.data = data;
    read(request, R"({"$reqId": 1, "number": 5})");
    EXPECT_EQ(data->number(), 5U);
    Reply reply(request);
    read(reply, R"({"$reqId": 1, "$err": 1, "number": 6})");
    EXPECT_EQ(data->number(), 6U);
}

TEST(AReadRequest, TakesClientAndNameFromItsTopic) {
    Request request;
    read(request, R"({"$reqId": 4294967295})", "any/where/sync?\?/" + CLIENT_TEXT);
    EXPECT_EQ(request.clientUuid, CLIENT);
    EXPECT_EQ(request.name, "sync");
    EXPECT_EQ(request.requestId, 4294967295U);
}

TEST(AReadRequest, KeepsSubPathAndServer) {
    auto request = aRequest();
    read(request, R"({"$reqId": 5})");
    EXPECT_EQ(request.topic, "time/zone");
    EXPECT_EQ(request.serverUuid, SERVER);
}

TEST(AReadRequest, LosesTheLastTwoCharactersOfItsNameWhateverTheyAre) {
    Request request;
    read(request, R"({"$reqId": 5})", "x/abcd/" + CLIENT_TEXT);
    EXPECT_EQ(request.name, "ab");
    read(request, R"({"$reqId": 5})", "x/yz/" + CLIENT_TEXT);
    EXPECT_EQ(request.name, "");
    read(request, R"({"$reqId": 5})", "n?\?/" + CLIENT_TEXT);
    EXPECT_EQ(request.name, "n");
}

TEST(AReadRequest, FillsItsPayload) {
    auto const data = std::make_shared<NumberData>();
    Request request;
    request.data = data;
    read(request, R"({"number": 5, "$reqId": 6, "unheard of": [{}, null]})");
    EXPECT_EQ(data->number, 5U);
    EXPECT_EQ(request.requestId, 6U);
    EXPECT_EQ(request.data, data);
}

TEST(AReadRequest, MayBeLaidOutInAnyWay) {
    auto const data = std::make_shared<NumberData>();
    Request request;
    request.data = data;
    read(request, " \t\r\n{\"\\u0024reqId\":6\n,\r\n\t\"number\" : 5 }\r\n ");
    EXPECT_EQ(request.requestId, 6U);
    EXPECT_EQ(data->number, 5U);
}

TEST(AReadRequest, IsUnchangedByAnEmptyPayload) {
    auto request = aRequest();
    read(request, "", "too short");
    expectSame(request, aRequest());
}

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

TEST(AReadReply, TakesOverIdentifierAndError) {
    auto const data = std::make_shared<NumberData>();
    Reply reply(aRequest());
    reply.data = data;
    read(reply, R"({"$err": 200, "number": 5, "$reqId": 4294967295})");
    EXPECT_EQ(reply.requestId, 4294967295U);
    EXPECT_EQ(reply.error, static_cast<ErrorCode>(200));
    EXPECT_EQ(data->number, 5U);
    EXPECT_EQ(reply.clientUuid, CLIENT);
    EXPECT_EQ(reply.name, "sync");
}

TEST(AReadReply, IsUnchangedByAnEmptyPayload) {
    Reply reply(aRequest());
    reply.error = ErrorCode::BUSY;
    read(reply, "");
    expectSame(reply, aRequest());
    EXPECT_EQ(reply.error, ErrorCode::BUSY);
}

TEST(AReplyWhosePayloadCannotBeRead, StillSaysHowItWent) {
    auto const data = std::make_shared<NumberData>(9);
    Reply reply;
    reply.data = data;
    read(reply, R"({"$reqId": 7, "$err": 3})");
    EXPECT_EQ(reply.requestId, 7U);
    EXPECT_EQ(reply.error, ErrorCode::TIMEOUT);
    EXPECT_EQ(reply.data, data);
    EXPECT_EQ(data->number, 9U);
    read(reply, R"({"$reqId": 8, "$err": 16, "number": -1})");
    EXPECT_EQ(reply.requestId, 8U);
    EXPECT_EQ(reply.error, ErrorCode::APPLICATION);
    EXPECT_EQ(data->number, 9U);
}

TEST(AReplyWithHalfACharacterInItsPayload, StillSaysHowItWent) {
    auto const data = std::make_shared<TextData>("kept");
    Reply reply;
    reply.data = data;
    read(reply, R"({"$reqId": 7, "$err": 1, "text": "\ud800"})");
    EXPECT_EQ(reply.requestId, 7U);
    EXPECT_EQ(reply.error, ErrorCode::SUCCESS);
    EXPECT_EQ(data->text, "kept");
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
