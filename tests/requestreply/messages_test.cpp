// What requests and replies look like: codes, topics and documents.

#include "requestreply/endpoint.hpp"
#include "requestreply/read_messages.hpp"
#include "requestreply/sample_data.hpp"
#include "support/test_client.hpp"

#include <ios>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using mqtt::MqttData;
using mqtt::Topic;
using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;

std::string nameOf(int code) {
    std::ostringstream out;
    out << std::hex << static_cast<ErrorCode>(code);
    return out.str();
}

TEST(AnErrorCode, HasItsNumberAndName) {
    int code = 0;
    for (auto const* const name : {"NONE", "SUCCESS", "NO_SERVER", "TIMEOUT", "NO_LISTENER",
                                   "PENDING", "BUSY", "CANCELLED", "UNKNOWN"}) {
        EXPECT_EQ(nameOf(code++), name);
    }
    EXPECT_EQ(nameOf(15), "UNKNOWN");
    EXPECT_EQ(nameOf(16), "APPLICATION");
    EXPECT_EQ(nameOf(17), "APPLICATION + 1");
    EXPECT_EQ(nameOf(255), "APPLICATION + 239");
    EXPECT_EQ(static_cast<int>(ErrorCode::CANCELLED), 7);
    EXPECT_EQ(static_cast<int>(ErrorCode::APPLICATION), 16);
}

TEST(ANewReply, IsEmpty) {
    Reply const reply;
    expectSame(reply, Request());
    EXPECT_EQ(reply.requestId, 0U);
    EXPECT_EQ(reply.data, nullptr);
    EXPECT_TRUE(reply.clientUuid.isNil());
    EXPECT_EQ(reply.error, ErrorCode::NONE);
}

TEST(NoData, IsOneSharedPayload) {
    ASSERT_NE(mqtt::NO_DATA, nullptr);
    mqtt::RequestReplyData const& data = *mqtt::NO_DATA;
    EXPECT_EQ(typeid(data), typeid(mqtt::RequestReplyNoData));
}

// Topics

class TheTopicsOfARequest : public testing::Test {
protected:
    void expectTopics(Topic const& base, Request const& value, std::string const& prefix) {
        SCOPED_TRACE(prefix);
        auto const client = CLIENT.base64URL();
        Endpoint<Request> request(*client_, base);
        request.value = value;
        EXPECT_EQ(request.publishTopic(), prefix + "?\?/" + client);
        EXPECT_EQ(request.subscribeTopic(), prefix + "?\?/+");
        Endpoint<Reply> reply(*client_, base);
        reply.value = Reply(value);
        EXPECT_EQ(reply.publishTopic(), prefix + "?=/" + client);
        EXPECT_EQ(reply.subscribeTopic(), prefix + "?=/" + client);
    }

    std::string refusalOf(std::string const& name) {
        try {
            mqtt::RequestReply const made(*client_, "x", "y/z", name);
            EXPECT_EQ(made.name(), name);
            EXPECT_EQ(made.topic(), "y/z");
        } catch (std::invalid_argument const& error) {
            return error.what();
        }
        return "accepted";
    }

    std::unique_ptr<mqtt::MqttClient> client_ =
        support::testClient("host", 1883, {/*persistent=*/false, /*connect=*/false});
};

TEST_F(TheTopicsOfARequest, ConsistOfBaseServerSubPathNameAndClient) {
    EXPECT_STREQ(mqtt::REQUEST_SUFFIX, "?\?");
    EXPECT_STREQ(mqtt::REPLY_SUFFIX, "?=");
    auto request = aRequest();
    expectTopics("svc", request, "svc/" + SERVER.base64URL() + "/time/zone/sync");
    request.serverUuid = Uuid();
    expectTopics("svc", request, "svc/time/zone/sync");
    request.topic = Topic();
    expectTopics("x", request, "x/sync");
    expectTopics("", request, "sync");
    request.name = "a/b";
    expectTopics("x", request, "x/a/b");
    request.name = "";
    expectTopics("x", request, "x/");
}

TEST_F(TheTopicsOfARequest, HaveANameWithoutOuterSlashes) {
    for (char const* const name : {"/a", "a/", "/", "//", "/a/b", "a/b/"}) {
        EXPECT_EQ(refusalOf(name), "Invalid Request/Reply name; should not contain any of '/'.")
            << name;
    }
    for (char const* const name : {"a", "a/b", "a//b", ""}) {
        EXPECT_EQ(refusalOf(name), "accepted") << name;
    }
}

// Writing

template <class Message>
std::string written(Message const& message) {
    std::string text = "previous text";
    MqttData<Message>::serialize("any", text, message);
    return text;
}

/// Derived from the empty payload, but not empty.
class DerivedNoData : public mqtt::RequestReplyNoData {
public:
    void deserialize(zym::common::lwjson::Deserializer& in) override { number_.deserialize(in); }
    void serialize(zym::common::lwjson::Serializer& out) const override { number_.serialize(out); }
    unsigned int number() const { return number_.number; }

private:
    NumberData number_{8};
};

/// Derived from the empty payload, and empty.
class EmptyDerivedNoData : public mqtt::RequestReplyNoData {};

/// With each kind of payload, what follows the envelope.
std::vector<std::pair<std::shared_ptr<mqtt::RequestReplyData>, std::string>> const PAYLOADS{
    {nullptr, "\n}"},
    {mqtt::NO_DATA, "\n}"},
    {std::make_shared<EmptyDerivedNoData>(), "\n}"},
    {std::make_shared<DerivedNoData>(), ",\n  \"number\": 8\n}"},
    {std::make_shared<NumberData>(7), ",\n  \"number\": 7\n}"}};

TEST(AWrittenRequest, HasItsIdentifierAndThenThePayload) {
    for (auto const& [data, end] : PAYLOADS) {
        Request request;
        request.requestId = 4294967295U;
        request.data = data;
        EXPECT_EQ(written(request), "{\n  \"$reqId\": 4294967295" + end);
    }
}

TEST(AWrittenReply, HasIdentifierAndErrorAndThenThePayload) {
    for (auto const& [data, end] : PAYLOADS) {
        Reply reply;
        reply.requestId = 42;
        reply.error = static_cast<ErrorCode>(200);
        reply.data = data;
        EXPECT_EQ(written(reply), "{\n  \"$reqId\": 42,\n  \"$err\": 200" + end);
    }
}

TEST(AWrittenReply, KeepsItsEnvelopeWhateverThePayloadWrites) {
    Reply reply;
    reply.requestId = 42;
    reply.error = static_cast<ErrorCode>(17);
    reply.data = std::make_shared<EnvelopeWritingData>();
    auto const text = written(reply);
    EXPECT_EQ(text, "{\n  \"$reqId\": 42,\n  \"$err\": 17,\n  \"$reqId\": 99,\n  \"$err\": 1\n}");
    Reply copy;
    read(copy, text);
    EXPECT_EQ(copy.requestId, 42U);
    EXPECT_EQ(copy.error, static_cast<ErrorCode>(17));
}

// Reading

TEST(AReadRequest, TakesClientAndNameFromItsTopicAndKeepsTheRest) {
    auto request = aRequest();
    read(request, R"({"$reqId": 4294967295})", "any/where/time?\?/" + CLIENT_TEXT);
    EXPECT_EQ(request.clientUuid, CLIENT);
    EXPECT_EQ(request.name, "time");
    EXPECT_EQ(request.requestId, 4294967295U);
    EXPECT_EQ(request.topic, "time/zone");
    EXPECT_EQ(request.serverUuid, SERVER);
}

TEST(AReadRequest, LosesTheLastTwoCharactersOfItsNameWhateverTheyAre) {
    Request request;
    std::vector<std::pair<std::string, std::string>> const names{
        {"x/abcd/", "ab"}, {"x/yz/", ""}, {"n?\?/", "n"}};
    for (auto const& [topic, name] : names) {
        read(request, R"({"$reqId": 5})", topic + CLIENT_TEXT);
        EXPECT_EQ(request.name, name);
    }
}

TEST(AReadRequest, FillsItsPayload) {
    auto const data = std::make_shared<NumberData>();
    Request request;
    request.data = data;
    read(request, R"({"number": 5, "$reqId": 6, "unknown": [{}, null]})");
    EXPECT_EQ(data->number, 5U);
    EXPECT_EQ(request.requestId, 6U);
    EXPECT_EQ(request.data, data);
    read(request, " \t\r\n{\"\\u0024reqId\":7\n,\r\n\t\"number\" : 8 }\r\n ");
    EXPECT_EQ(data->number, 8U) << "in any layout";
    EXPECT_EQ(request.requestId, 7U);
    auto const derived = std::make_shared<DerivedNoData>();
    request.data = derived;
    read(request, R"({"$reqId": 1, "number": 9})");
    EXPECT_EQ(derived->number(), 9U);
}

TEST(AReadReply, TakesIdentifierErrorAndPayload) {
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

TEST(AReadMessage, IsUnchangedByAnEmptyPayload) {
    auto request = aRequest();
    read(request, "", "too short");
    expectSame(request, aRequest());
    Reply reply(aRequest());
    reply.error = ErrorCode::BUSY;
    read(reply, "");
    expectSame(reply, aRequest());
    EXPECT_EQ(reply.error, ErrorCode::BUSY);
}

TEST(AReplyWhosePayloadCannotBeRead, StillTakesIdentifierAndError) {
    auto const number = std::make_shared<NumberData>(9);
    Reply reply;
    reply.data = number;
    read(reply, R"({"$reqId": 7, "$err": 3})");
    EXPECT_EQ(reply.requestId, 7U);
    EXPECT_EQ(reply.error, ErrorCode::TIMEOUT);
    EXPECT_EQ(reply.data, number);
    read(reply, R"({"$reqId": 8, "$err": 16, "number": -1})");
    EXPECT_EQ(reply.requestId, 8U);
    EXPECT_EQ(reply.error, ErrorCode::APPLICATION);
    EXPECT_EQ(number->number, 9U);
    auto const text = std::make_shared<TextData>("kept");
    reply.data = text;
    read(reply, R"({"$reqId": 9, "$err": 1, "text": "\ud800"})");
    EXPECT_EQ(reply.requestId, 9U);
    EXPECT_EQ(text->text, "kept");
}

} // namespace
