// The codes, and the document of a request for a binding.

#include <mqtt/binder_proxy.hpp>

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace {

using Code = mqtt::RequestReply::ErrorCode;
using mqtt::BindRequestData;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

int meaning(int code) {
    return static_cast<int>(
        mqtt::BinderMqttProxy::requestReplyToBinderError(static_cast<Code>(code)));
}

TEST(ACodeOfRequestReply, MeansWhatTheTableSaysBelowSixteen) {
    int const table[16] = {1, 0, 4, 3, 4, 1, 2, 9, 1, 1, 1, 1, 1, 1, 1, 1};
    for (int code = 0; code < 16; ++code) {
        EXPECT_EQ(meaning(code), table[code]) << "code " << code;
    }
}

TEST(ACodeOfRequestReply, CarriesTheServersOwnFromSixteenOn) {
    for (int code = 16; code < 256; ++code) {
        EXPECT_EQ(meaning(code), code - 16) << "code " << code;
    }
}

std::string written(BindRequestData const& data) {
    std::string text;
    Serializer out(text);
    data.serialize(out);
    out.finalize();
    return text;
}

std::string read(std::string const& text) {
    BindRequestData data("before");
    Deserializer in(text);
    data.deserialize(in);
    return data.topic.text();
}

template <class Exception>
void expectRefused(std::string const& text) {
    BindRequestData data("before");
    Deserializer in(text);
    EXPECT_THROW(data.deserialize(in), Exception) << text;
    EXPECT_EQ(data.topic, "before") << text;
}

TEST(ARequestForABinding, HasItsTopic) {
    EXPECT_EQ(written(BindRequestData("plant/panel")), "{\n  \"topic\": \"plant/panel\"\n}");
    EXPECT_EQ(written(BindRequestData()), "{\n  \"topic\": \"\"\n}");
    EXPECT_EQ(written(BindRequestData("a\"b\\c")), "{\n  \"topic\": \"a\\\"b\\\\c\"\n}");
}

TEST(ARequestForABinding, IsReadLikeEveryTopic) {
    EXPECT_EQ(read(R"({"topic": "plant/panel"})"), "plant/panel");
    EXPECT_EQ(read(R"({"$reqId": 1, "more": [1], "topic": "/plant/panel/"})"), "plant/panel");
    EXPECT_EQ(read(R"({"topic": ""})"), "");
    EXPECT_EQ(read(R"({"topic": "a", "topic": "b"})"), "a");
    EXPECT_EQ(read(written(BindRequestData("a\"b\\c"))), "a\"b\\c");
}

TEST(ARequestForABinding, IsRefusedWithoutATopicAsText) {
    expectRefused<std::out_of_range>("{}");
    expectRefused<std::out_of_range>(R"({"Topic": "a"})");
    for (std::string const value :
         {"7", "null", "true", "[]", R"(["a"])", R"({"topic": "a"})", R"("\ud800")"}) {
        expectRefused<std::invalid_argument>(R"({"topic": )" + value + "}");
    }
    for (std::string const text : {"[]", R"(["topic"])", "7", "\"topic\"", "null", "", "{"}) {
        BindRequestData data;
        Deserializer in(text);
        EXPECT_THAT([&] { data.deserialize(in); }, testing::ThrowsMessage<std::runtime_error>(
                                                       "Cannot get member from a scalar or array"))
            << text;
    }
}

} // namespace
