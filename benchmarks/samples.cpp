#include "samples.hpp"

namespace bench {
namespace {

using mqtt::MqttData;
using mqtt::RequestReply;
using mqtt::Topic;

template <class T>
std::string textOf(T const& value) {
    std::string text;
    MqttData<T>::serialize(Topic(), text, value);
    return text;
}

std::string exchangeTopic(std::string const& suffix) {
    Topic topic(SERVICE_BASE);
    topic += SERVICE_NAME + suffix;
    topic += zym::common::Uuid(REQUESTER);
    return topic.text();
}

} // namespace

conv::CommunicationStatus sampleCommunication() {
    return {conv::ComState::CONNECTED, conv::UnixTime(1700000000.5)};
}

conv::Identification sampleIdentification() {
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

std::string valueTopic(std::string const& topic, Document document) {
    return topic + (document == Document::COMMUNICATION ? "/communication" : "/identification");
}

std::string documentText(Document document) {
    return document == Document::COMMUNICATION ? textOf(sampleCommunication())
                                               : textOf(sampleIdentification());
}

void Text::serialize(zym::common::lwjson::Serializer& out) const {
    out.appendKey("text");
    out.addValue(text);
}

void Text::deserialize(zym::common::lwjson::Deserializer& in) {
    zym::common::lwjson::Deserializer::extractValue(in.getMember("text"), text, "");
}

RequestReply::Reply sampleReply() {
    RequestReply::Reply reply;
    reply.name = SERVICE_NAME;
    reply.clientUuid = zym::common::Uuid(REQUESTER);
    reply.data = std::make_shared<Text>();
    reply.requestId = 123456789;
    reply.error = RequestReply::ErrorCode::SUCCESS;
    return reply;
}

ExchangeTexts requestAndReply() {
    return {exchangeTopic(mqtt::REQUEST_SUFFIX), exchangeTopic(mqtt::REPLY_SUFFIX),
            textOf(RequestReply::Request(sampleReply())), textOf(sampleReply())};
}

} // namespace bench
