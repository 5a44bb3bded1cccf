// The documents of the time exchange.

#include <mqtt/time_base.hpp>

#include <gmock/gmock.h>

#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using mqtt::RequestReply;
using mqtt::TimeSyncReplyData;
using mqtt::TimeSyncRequestData;
using zym::common::lwjson::Deserializer;

std::string written(double client) {
    RequestReply::Request message;
    message.requestId = 42;
    message.data = std::make_shared<TimeSyncRequestData>(client);
    std::string text;
    mqtt::MqttData<RequestReply::Request>::serialize("any", text, message);
    return text;
}

std::string written(double client, double ref) {
    RequestReply::Reply message;
    message.requestId = 42;
    message.error = RequestReply::ErrorCode::SUCCESS;
    message.data = std::make_shared<TimeSyncReplyData>(client, ref);
    std::string text;
    mqtt::MqttData<RequestReply::Reply>::serialize("any", text, message);
    return text;
}

TEST(ATimeRequest, HasTheTimeOfTheClient) {
    EXPECT_EQ(written(12.5), "{\n  \"$reqId\": 42,\n  \"client\": 12.5\n}");
    EXPECT_EQ(written(0.001), "{\n  \"$reqId\": 42,\n  \"client\": 0.001\n}");
    EXPECT_EQ(TimeSyncRequestData().client, 0.0);
}

TEST(ATimeReply, HasTheEchoAndTheTimeOfTheServer) {
    EXPECT_EQ(written(12.5, 1700.25),
              "{\n  \"$reqId\": 42,\n  \"$err\": 1,\n  \"client\": 12.5,\n  \"ref\": 1700.25\n}");
    EXPECT_EQ(TimeSyncReplyData().client, 0.0);
    EXPECT_EQ(TimeSyncReplyData().ref, 0.0);
    EXPECT_STREQ(mqtt::TIME_SYNC_REQUEST_REPLY_NAME, "timeSync");
}

TEST(ATimeReading, TakesEveryNumber) {
    struct Case {
        char const* text;
        double value;
    };
    for (Case const& one : {Case{"12.5", 12.5}, Case{"7", 7.0}, Case{"-0.25", -0.25},
                            Case{"1.7e3", 1700.0}, Case{"1e-3", 0.001}}) {
        TimeSyncReplyData data(1.0, 2.0);
        std::string const number = one.text;
        auto const text = R"({"ref": )" + number + R"(, "x": [], "client": )" + number + "}";
        Deserializer in(text);
        data.deserialize(in);
        EXPECT_EQ(data.client, one.value) << one.text;
        EXPECT_EQ(data.ref, one.value) << one.text;
        TimeSyncRequestData request(1.0);
        request.deserialize(in);
        EXPECT_EQ(request.client, one.value) << one.text;
    }
}

TEST(ATimeReading, ReturnsTheNumberThatWasWritten) {
    for (double const value : {0.1, 1.0 / 3.0, 1234567.891, 4294967295.999, -1e-300,
                               std::numeric_limits<double>::max()}) {
        auto const text = written(value, -value);
        Deserializer in(text);
        TimeSyncReplyData data;
        data.deserialize(in);
        EXPECT_EQ(data.client, value);
        EXPECT_EQ(data.ref, -value);
    }
}

std::string errorOf(mqtt::RequestReplyData& data, std::string const& text) {
    Deserializer in(text);
    try {
        data.deserialize(in);
    } catch (std::exception const& error) {
        return error.what();
    }
    return "none";
}

TEST(ATimeReading, FailsWithoutNumbersInAnObject) {
    for (char const* const value :
         {"null", "true", "\"12.5\"", "{}", "[]", "[12.5]", "{\"client\": 12.5}"}) {
        auto const client = std::string(R"({"ref": 1, "client": )") + value + "}";
        auto const ref = std::string(R"({"client": 1, "ref": )") + value + "}";
        TimeSyncRequestData request(3.0);
        TimeSyncReplyData reply(3.0, 4.0);
        EXPECT_NE(errorOf(request, client), "none") << value;
        EXPECT_NE(errorOf(reply, client), "none") << value;
        EXPECT_NE(errorOf(reply, ref), "none") << value;
        EXPECT_EQ(request.client, 3.0);
        EXPECT_EQ(reply.ref, 4.0);
    }
    TimeSyncRequestData request;
    TimeSyncReplyData reply;
    EXPECT_EQ(errorOf(request, "[12.5]"), "Cannot get member from a scalar or array");
    EXPECT_EQ(errorOf(reply, "{\"client\": 1"), "Cannot get member from a scalar or array");
    EXPECT_NE(errorOf(request, "{}"), "none");
    EXPECT_NE(errorOf(request, R"({"ref": 1})"), "none");
    EXPECT_NE(errorOf(reply, R"({"ref": 1})"), "none");
    EXPECT_NE(errorOf(reply, R"({"client": 1})"), "none");
}

} // namespace
