// Codes, names and documents of requests and replies. Every build also reads the documents among
// the seeds of the fuzz targets, and a test compares the topics with docs/wire-format.md.

#include "mqtt/test/test_client.hpp"
#include "requestreply/sample_data.hpp"
#include "support/log_lines.hpp"

#include <mqtt/request_reply.hpp>

#include <gmock/gmock.h>

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

Request aRequest() {
    Request request;
    request.topic = "time/zone";
    request.name = "sync";
    request.clientUuid = Uuid(1);
    request.serverUuid = Uuid(2);
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

TEST(TheNameOfAService, HasNoOuterSlashes) {
    auto const client = mqtt::test::testClient("host", 1883, {false, /*connect=*/false});
    for (char const* const name : {"/a", "a/", "/", "//", "/a/b", "a/b/"}) {
        EXPECT_THAT([&] { mqtt::RequestReply(*client, "x", "y/z", name); },
                    testing::ThrowsMessage<std::invalid_argument>(
                        "Invalid Request/Reply name; should not contain any of '/'."))
            << name;
    }
    for (char const* const name : {"a", "a/b", "a//b", ""}) {
        mqtt::RequestReply const made(*client, "x", "y/z", name);
        EXPECT_EQ(made.name(), name);
        EXPECT_EQ(made.topic(), "y/z");
    }
    EXPECT_STREQ(mqtt::REQUEST_SUFFIX, "?\?");
    EXPECT_STREQ(mqtt::REPLY_SUFFIX, "?=");
}

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

TEST(AReadMessage, FillsAPayloadDerivedFromTheEmptyOne) {
    auto const data = std::make_shared<DerivedNoData>();
    Reply reply;
    reply.data = data;
    MqttData<Reply>::deserialize("any", R"({"number": 9, "$err": 1, "$reqId": 6})", false, reply);
    EXPECT_EQ(data->number(), 9U);
}

class ThrowingData : public mqtt::RequestReplyData {
public:
    void deserialize(zym::common::lwjson::Deserializer& /*in*/) override { throw 7; }
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}
};

TEST(AReadMessage, PassesOnWhatIsNoExceptionOfTheStandardLibraryAndIsUnchanged) {
    std::string const text = R"({"$reqId": 5, "$err": 1})";
    auto const expected = aRequest();
    auto request = expected;
    request.data = std::make_shared<ThrowingData>();
    Reply reply(request);
    EXPECT_THROW(
        MqttData<Request>::deserialize("x/n?\?/" + Uuid(3).base64URL(), text, false, request), int);
    EXPECT_THROW(MqttData<Reply>::deserialize("any", text, false, reply), int);
    EXPECT_EQ(reply.error, ErrorCode::NONE);
    request.data = nullptr;
    reply.data = nullptr;
    expectSame(request, expected);
    expectSame(reply, expected);
}

// What the compiler cannot prevent

TEST(AWrittenMessage, IsLoggedWhenItsPayloadBreaksTheDocument) {
    struct Closing final : NumberData {
        void serialize(zym::common::lwjson::Serializer& out) const override {
            NumberData::serialize(out);
            out.finalize();
        }
    };
    auto request = aRequest();
    support::LogLines const log(mqtt::LogLevel::ERROR);
    request.data = std::make_shared<NumberData>(7);
    written(request);
    EXPECT_THAT(log.copy(), testing::IsEmpty());
    request.data = std::make_shared<Closing>();
    written(request);
    EXPECT_THAT(log.copy(),
                testing::ElementsAre(testing::StartsWith("service sync: nobody can read")));
}

} // namespace
