// What requests and replies look like: codes, topics and documents. The seeds of the fuzz targets
// have more documents, which every build reads.

#include "mqtt/test/test_client.hpp"
#include "requestreply/endpoint.hpp"
#include "requestreply/sample_data.hpp"

#include <gmock/gmock.h>

#include <exception>
#include <ios>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using mqtt::MqttData;
using mqtt::Topic;
using zym::common::Uuid;
using ErrorCode = mqtt::RequestReply::ErrorCode;
using Request = mqtt::RequestReply::Request;
using Reply = mqtt::RequestReply::Reply;

Uuid const CLIENT(1);
Uuid const SERVER(2);
std::string const CLIENT_TEXT = "AAAAAAAAAAAAAAAAAAAAAQ";
std::string const REQUEST_TOPIC = "x/n?\?/" + CLIENT_TEXT;

void read(Request& request, std::string const& payload, Topic const& topic = REQUEST_TOPIC) {
    MqttData<Request>::deserialize(topic, payload, payload.empty(), request);
}

void read(Reply& reply, std::string const& payload) {
    MqttData<Reply>::deserialize("x/n?=/" + CLIENT_TEXT, payload, payload.empty(), reply);
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

    std::unique_ptr<mqtt::MqttClient> client_ =
        mqtt::test::testClient("host", 1883, {/*persistent=*/false, /*connect=*/false});
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
        EXPECT_THAT([&] { mqtt::RequestReply(*client_, "x", "y/z", name); },
                    testing::ThrowsMessage<std::invalid_argument>(
                        "Invalid Request/Reply name; should not contain any of '/'."))
            << name;
    }
    for (char const* const name : {"a", "a/b", "a//b", ""}) {
        mqtt::RequestReply const made(*client_, "x", "y/z", name);
        EXPECT_EQ(made.name(), name);
        EXPECT_EQ(made.topic(), "y/z");
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

TEST(AWrittenMessage, HasItsEnvelopeAndThenThePayload) {
    for (auto const& [data, end] : PAYLOADS) {
        Request request;
        request.requestId = 4294967295U;
        request.data = data;
        EXPECT_EQ(written(request), "{\n  \"$reqId\": 4294967295" + end);
        Reply reply(request);
        reply.error = static_cast<ErrorCode>(200);
        EXPECT_EQ(written(reply), "{\n  \"$reqId\": 4294967295,\n  \"$err\": 200" + end);
    }
}

// Reading

TEST(AReadRequest, TakesClientAndNameFromItsTopicAndKeepsTheRest) {
    auto request = aRequest();
    // The last two characters of the name are not looked at.
    for (char const* const topic : {"any/where/time?\?/", "x/timeab/"}) {
        read(request, R"({"$reqId": 4294967295})", topic + CLIENT_TEXT);
        EXPECT_EQ(request.clientUuid, CLIENT);
        EXPECT_EQ(request.name, "time");
    }
    EXPECT_EQ(request.requestId, 4294967295U);
    EXPECT_EQ(request.topic, "time/zone");
    EXPECT_EQ(request.serverUuid, SERVER);
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

// Refusing

class ThrowingData : public mqtt::RequestReplyData {
public:
    void deserialize(zym::common::lwjson::Deserializer& /*in*/) override { throw 7; }
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}
};

/// Neither a request nor a reply: the envelope is wrong, or the document.
std::vector<std::string> malformedMessages() {
    std::string const good = R"({"$reqId": 7, "$err": 1, "number": 5})";
    std::vector<std::string> messages{" ",
                                      "42",
                                      "null",
                                      "[]",
                                      "[" + good + "]",
                                      "{}",
                                      R"({"$err": 1, "number": 5})",
                                      good.substr(0, good.size() - 1),
                                      good + good,
                                      good + std::string(1, '\0'),
                                      std::string(100000, '[')};
    for (auto const& identifier :
         std::vector<std::string>{R"("7")", "true", "null", "{}", "7.5", "7e0", "-7", "4294967296",
                                  std::string(100000, '9')}) {
        messages.push_back(R"({"$reqId": )" + identifier + R"(, "$err": 1, "number": 5})");
    }
    return messages;
}

TEST(AMalformedMessage, IsRefusedAndChangesNothing) {
    for (auto const& payload : malformedMessages()) {
        SCOPED_TRACE(payload.substr(0, 60));
        auto const data = std::make_shared<NumberData>(9);
        auto request = aRequest();
        request.data = data;
        auto const before = request;
        EXPECT_THROW(read(request, payload), std::exception);
        expectSame(request, before);
        Reply reply(before);
        EXPECT_THROW(read(reply, payload), std::exception);
        expectSame(reply, before);
        EXPECT_EQ(reply.error, ErrorCode::NONE);
        EXPECT_EQ(data->number, 9U);
    }
}

TEST(ARequestOnAWrongTopic, IsRefusedAndChangesNothing) {
    auto request = aRequest();
    for (char const* const client :
         {"u1", "/", "+", "AAAAAAAAAAAAAAAAAAAAA$", "AAAAAAAAAAAAAAAAAAAAAR",
          "AAAAAAAAAAAAAAAAAAAAAQ==", "{00000000-0000-0000-0000-000000000001}"}) {
        EXPECT_THROW(read(request, R"({"$reqId": 5})", std::string("x/n?\?/") + client),
                     std::invalid_argument)
            << client;
    }
    for (std::string const& topic : {std::string(), CLIENT_TEXT, "?/" + CLIENT_TEXT,
                                     "x/?/" + CLIENT_TEXT, "x//" + CLIENT_TEXT}) {
        EXPECT_THROW(read(request, R"({"$reqId": 5})", topic), std::out_of_range) << topic;
    }
    expectSame(request, aRequest());
}

TEST(ARequestWhosePayloadCannotBeRead, IsRefusedAndChangesNothing) {
    auto request = aRequest();
    auto const text = std::make_shared<TextData>("kept");
    request.data = text;
    EXPECT_THROW(read(request, R"({"$reqId": 5})"), std::out_of_range);
    EXPECT_THROW(read(request, R"({"$reqId": 5, "text": 5})"), std::invalid_argument);
    EXPECT_THROW(read(request, R"({"$reqId": 7, "text": "\ud800"})"), std::invalid_argument);
    EXPECT_EQ(text->text, "kept");
    request.data = std::make_shared<ThrowingData>();
    EXPECT_THROW(read(request, R"({"$reqId": 5})"), int);
    request.data = nullptr;
    expectSame(request, aRequest());
}

TEST(AReplyWithAWrongError, IsRefusedAndChangesNothing) {
    Reply reply(aRequest());
    reply.error = ErrorCode::BUSY;
    for (char const* const error :
         {"", R"(, "$err": 256)", R"(, "$err": -1)", R"(, "$err": "1")", R"(, "$err": null)",
          R"(, "$err": true)", R"(, "$err": {})", R"(, "$err": [])", R"(, "$err": 1.0)",
          R"(, "$err": 1e0)", R"(, "$error": 1)", R"(, "a": {"$err": 1})",
          R"(, "$err": 18446744073709551617)", R"(, "$err": 1,)"}) {
        EXPECT_THROW(read(reply, std::string(R"({"$reqId": 7)") + error + "}"), std::exception)
            << error;
    }
    expectSame(reply, aRequest());
    reply.data = std::make_shared<ThrowingData>();
    EXPECT_THROW(read(reply, R"({"$reqId": 7, "$err": 3})"), int);
    EXPECT_EQ(reply.requestId, aRequest().requestId);
    EXPECT_EQ(reply.error, ErrorCode::BUSY);
}

} // namespace
