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

template <class Message, class Data>
std::string written(Data const& data) {
    Message message;
    message.requestId = 42;
    message.data = std::make_shared<Data>(data);
    std::string text;
    mqtt::MqttData<Message>::serialize("any", text, message);
    return text;
}

TEST(ATimeRequest, HasTheTimeOfTheClient) {
    EXPECT_EQ(written<RequestReply::Request>(TimeSyncRequestData(12.5)),
              "{\n  \"$reqId\": 42,\n  \"client\": 12.5\n}");
    EXPECT_EQ(TimeSyncRequestData().client, 0.0);
}

TEST(ATimeReply, HasTheEchoAndTheTimeOfTheServer) {
    EXPECT_EQ(written<RequestReply::Reply>(TimeSyncReplyData(12.5, 1700.25)),
              "{\n  \"$reqId\": 42,\n  \"$err\": 0,\n  \"client\": 12.5,\n  \"ref\": 1700.25\n}");
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
        auto const text = written<RequestReply::Reply>(TimeSyncReplyData(value, -value));
        Deserializer in(text);
        TimeSyncReplyData data;
        data.deserialize(in);
        EXPECT_EQ(data.client, value);
        EXPECT_EQ(data.ref, -value);
    }
}

/// @param unchanged the member that keeps its value
template <class Data>
void expectRefused(double Data::*unchanged, std::string const& text) {
    Data data;
    data.*unchanged = 3.0;
    Deserializer in(text);
    EXPECT_THROW(data.deserialize(in), std::exception) << text;
    EXPECT_EQ(data.*unchanged, 3.0) << text;
}

TEST(ATimeReading, FailsWithoutNumbersInAnObject) {
    auto const request = &TimeSyncRequestData::client;
    auto const reply = &TimeSyncReplyData::ref;
    for (std::string const value :
         {"null", "true", "\"12.5\"", "{}", "[]", "[12.5]", "{\"client\": 12.5}"}) {
        auto const client = R"({"ref": 1, "client": )" + value + "}";
        expectRefused(request, client);
        expectRefused(reply, client);
        expectRefused(reply, R"({"client": 1, "ref": )" + value + "}");
    }
    for (auto const* const text : {"[12.5]", "{\"client\": 1", "{}", R"({"ref": 1})"}) {
        expectRefused(request, text);
        expectRefused(reply, text);
    }
    expectRefused(reply, R"({"client": 1})");
}

} // namespace
