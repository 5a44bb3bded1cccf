#include "read_messages.hpp"
#include "sample_data.hpp"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <typeinfo>

namespace {

using mqtt::MqttData;
using ErrorCode = mqtt::RequestReply::ErrorCode;

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

/// No payload by descent only: it has a member.
class SpeakingNoData : public mqtt::RequestReplyNoData {
public:
    void deserialize(zym::common::lwjson::Deserializer& in) override { number_.deserialize(in); }
    void serialize(zym::common::lwjson::Serializer& out) const override { number_.serialize(out); }
    unsigned int number() const { return number_.number; }

private:
    NumberData number_{8};
};

/// Another name for no payload.
class SilentNoData : public mqtt::RequestReplyNoData {};

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

TEST(APayloadDerivedFromNoData, MayLeaveItAtThat) {
    Request request;
    request.data = std::make_shared<SilentNoData>();
    EXPECT_EQ(written(request), "{\n  \"$reqId\": 0\n}");
    read(request, R"({"$reqId": 1, "number": 5})");
    EXPECT_EQ(request.requestId, 1U);
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

} // namespace
