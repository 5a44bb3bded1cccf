// Messages that are refused, and leave the value unchanged.

#include "requestreply/read_messages.hpp"
#include "requestreply/sample_data.hpp"

#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using mqtt::Topic;
using ErrorCode = mqtt::RequestReply::ErrorCode;

class ThrowingData : public mqtt::RequestReplyData {
public:
    void deserialize(zym::common::lwjson::Deserializer& /*in*/) override { throw 7; }
    void serialize(zym::common::lwjson::Serializer& /*out*/) const override {}
};

template <class Message>
std::string messageOfTheException(std::string const& payload) {
    try {
        Message message;
        read(message, payload);
    } catch (std::runtime_error const& error) {
        return error.what();
    }
    return "nothing thrown";
}

std::string repeated(std::string const& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

/// Neither a request nor a reply, whatever the payload object: the envelope is wrong, or the
/// document.
std::vector<std::string> malformedMessages() {
    std::string const good = R"({"$reqId": 7, "$err": 1, "number": 5, "text": "x"})";
    std::string randomBytes(1 << 20, '\0');
    unsigned int state = 1;
    for (char& byte : randomBytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    std::vector<std::string> messages{
        " ",
        "42",
        R"("$reqId")",
        "null",
        "[]",
        "[" + good + "]",
        "{}",
        R"({"$err": 1, "number": 5, "text": "x"})",
        good.substr(0, good.size() - 1),
        good.substr(0, 5),
        good + "x",
        good + good,
        "\xef\xbb\xbf" + good,
        good + std::string(1, '\0'),
        R"({"$reqId": 7, "$err": 1, "number": 5, "text": ")" + std::string(1, '\0') + "\"}",
        "{\"$reqId\": 7, \"$err\": 1, \"number\": 5, \"text\": \"\n\"}",
        repeated("[", 100000),
        repeated(R"({"a":)", 100000) + "1" + repeated("}", 100000),
        R"({"$reqId": 7, "$err": 1, "number": 5, "text": "x", "a": )" + repeated("[", 100000)
            + repeated("]", 100000) + "}",
        randomBytes};
    for (auto const& identifier :
         std::vector<std::string>{R"("7")", "true", "null", "{}", "7.5", "7e0", "-7", "4294967296",
                                  repeated("9", 100000)}) {
        messages.push_back(R"({"$reqId": )" + identifier
                           + R"(, "$err": 1, "number": 5, "text": "x"})");
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
        EXPECT_NO_THROW(read(request, R"({"$reqId": 5, "number": 6})"));
        EXPECT_NO_THROW(read(reply, R"({"$reqId": 5, "$err": 1})"));
    }
}

TEST(AMalformedMessage, ThatIsNoObjectIsRefusedWithTheReadersMessage) {
    for (char const* const payload : {"[]", "7", "null", "\"\"", "{"}) {
        EXPECT_EQ(messageOfTheException<Request>(payload),
                  "Cannot get member from a scalar or array");
        EXPECT_EQ(messageOfTheException<Reply>(payload),
                  "Cannot get member from a scalar or array");
    }
}

TEST(ARequestOnAWrongTopic, IsRefusedAndChangesNothing) {
    for (char const* const topic :
         {"x/n?\?/u1", "x/n?\?//", "x/n?\?/+", "x/n?\?/AAAAAAAAAAAAAAAAAAAAA$",
          "x/n?\?/AAAAAAAAAAAAAAAAAAAAAR",
          "x/n?\?/AAAAAAAAAAAAAAAAAAAAAQ==", "x/n?\?/{00000000-0000-0000-0000-000000000001}"}) {
        SCOPED_TRACE(topic);
        auto request = aRequest();
        EXPECT_THROW(read(request, R"({"$reqId": 5})", topic), std::exception);
        expectSame(request, aRequest());
    }
    Request request;
    EXPECT_THROW(read(request, R"({"$reqId": 5})", "x/n?\?/u1"), std::invalid_argument);
    for (std::string const& topic : {std::string(), CLIENT_TEXT, "?/" + CLIENT_TEXT,
                                     "x/?/" + CLIENT_TEXT, "x//" + CLIENT_TEXT}) {
        EXPECT_THROW(read(request, R"({"$reqId": 5})", topic), std::out_of_range) << topic;
    }
}

TEST(ARequestWhosePayloadCannotBeRead, IsRefusedAndChangesNothing) {
    auto request = aRequest();
    auto const text = std::make_shared<TextData>("kept");
    request.data = std::make_shared<NumberData>(9);
    EXPECT_THROW(read(request, R"({"$reqId": 5})"), std::out_of_range);
    EXPECT_THROW(read(request, R"({"$reqId": 5, "number": "5"})"), std::invalid_argument);
    request.data = text;
    EXPECT_THROW(read(request, R"({"$reqId": 7, "text": "\ud800"})"), std::invalid_argument);
    EXPECT_EQ(text->text, "kept");
    request.data = std::make_shared<ThrowingData>();
    EXPECT_THROW(read(request, R"({"$reqId": 5})"), int);
    request.data = nullptr;
    expectSame(request, aRequest());
}

TEST(AReplyWithAWrongError, IsRefusedAndChangesNothing) {
    for (char const* const error :
         {"", R"(, "$err": 256)", R"(, "$err": -1)", R"(, "$err": "1")", R"(, "$err": null)",
          R"(, "$err": true)", R"(, "$err": {})", R"(, "$err": [])", R"(, "$err": 1.0)",
          R"(, "$err": 1e0)", R"(, "$error": 1)", R"(, "a": {"$err": 1})",
          R"(, "$err": 18446744073709551617)", R"(, "$err": 1,)"}) {
        SCOPED_TRACE(error);
        Reply reply(aRequest());
        reply.error = ErrorCode::BUSY;
        EXPECT_THROW(read(reply, std::string(R"({"$reqId": 7)") + error + "}"), std::exception);
        expectSame(reply, aRequest());
        EXPECT_EQ(reply.error, ErrorCode::BUSY);
    }
    Reply reply(aRequest());
    reply.data = std::make_shared<ThrowingData>();
    EXPECT_THROW(read(reply, R"({"$reqId": 7, "$err": 3})"), int);
    EXPECT_EQ(reply.requestId, aRequest().requestId);
    EXPECT_EQ(reply.error, ErrorCode::NONE);
}

} // namespace
