#pragma once

#include <mqtt/payloads.hpp>
#include <mqtt/request_reply.hpp>

#include <memory>
#include <string>

namespace bench {

inline conv::CommunicationStatus sampleCommunication() {
    return {conv::ComState::CONNECTED, conv::UnixTime(1700000000.5)};
}

inline conv::Identification sampleIdentification() {
    return {"123e4567-e89b-12d3-a456-426614174000",
            "A maker of pumps",
            "Pump 3000",
            "0815-4711",
            "basement/left",
            "Pump",
            "device",
            "1.2.3",
            "Second basement, behind the door",
            "Call the porter: \"extension 12\""};
}

template <class T>
std::string textOf(T const& value) {
    std::string text;
    mqtt::MqttData<T>::serialize(mqtt::Topic(), text, value);
    return text;
}

/// The typed values that are measured: the shortest document and the longest one.
enum class Document { COMMUNICATION, IDENTIFICATION };

/// The service that is requested: "ask" below this topic, with a nil server identifier.
constexpr char const* SERVICE_BASE = "bench/service";
constexpr char const* SERVICE_NAME = "ask";
constexpr unsigned long long REQUESTER = 4711;

/// What requests and replies carry: a text of 64 bytes.
struct Text final : mqtt::RequestReplyData {
    void serialize(zym::common::lwjson::Serializer& out) const override {
        out.appendKey("text");
        out.addValue(text);
    }
    void deserialize(zym::common::lwjson::Deserializer& in) override {
        zym::common::lwjson::Deserializer::extractValue(in.getMember("text"), text, "");
    }

    std::string text = std::string(64, 'x');
};

inline mqtt::RequestReply::Reply sampleReply() {
    mqtt::RequestReply::Reply reply;
    reply.name = SERVICE_NAME;
    reply.clientUuid = zym::common::Uuid(REQUESTER);
    reply.data = std::make_shared<Text>();
    reply.requestId = 123456789;
    reply.error = mqtt::RequestReply::ErrorCode::SUCCESS;
    return reply;
}

/// A request and its reply on the wire.
struct ExchangeTexts {
    std::string requestTopic;
    std::string replyTopic;
    std::string request;
    std::string reply;
};

inline ExchangeTexts requestAndReply() {
    auto const topic = [](std::string const& suffix) {
        mqtt::Topic const service = mqtt::Topic(SERVICE_BASE) + (SERVICE_NAME + suffix);
        return (service + zym::common::Uuid(REQUESTER)).text();
    };
    return {topic(mqtt::REQUEST_SUFFIX), topic(mqtt::REPLY_SUFFIX),
            textOf(mqtt::RequestReply::Request(sampleReply())), textOf(sampleReply())};
}

} // namespace bench
