#pragma once

#include "fuzz/typed_values.hpp"

#include <mqtt/binder_proxy.hpp>

#include <array>
#include <memory>
#include <string>
#include <string_view>

namespace fuzz {

/// A line of topic, then the payload.
struct ReceivedMessage {
    explicit ReceivedMessage(Lines lines) : topic(lines.next()), payload(lines.rest()) {
        parse(payload, json);
    }
    ReceivedMessage(ReceivedMessage const&) = delete;
    ReceivedMessage& operator=(ReceivedMessage const&) = delete;

    mqtt::Topic const topic;
    std::string const payload;
    Json json; ///< refers to `payload`
};

/// The values of an endpoint before the first message: without data, with data without members, and
/// with data that has a member.
template <class Message>
std::array<Message, 3> initialMessages() {
    std::array<Message, 3> result;
    for (auto& message : result) {
        message.topic = "sub/path";
        message.name = "before";
        message.clientUuid = zym::common::Uuid(1);
        message.serverUuid = zym::common::Uuid(2);
        message.requestId = 3;
    }
    result[1].data = std::make_shared<mqtt::RequestReplyNoData>();
    result[2].data = std::make_shared<mqtt::BindRequestData>();
    return result;
}

/// The data of a message, if it is that with a member.
inline std::shared_ptr<mqtt::BindRequestData> bindData(mqtt::RequestReply::Request const& message) {
    return std::dynamic_pointer_cast<mqtt::BindRequestData>(message.data);
}

inline std::string boundTopic(mqtt::RequestReply::Request const& message) {
    auto const data = bindData(message);
    return data ? data->topic.text() : "";
}

/// Writes and reads a message; checks its data and returns it for a check of the other fields.
template <class Message>
Message writtenAndRead(mqtt::Topic const& topic, Message const& message) {
    std::string written;
    mqtt::MqttData<Message>::serialize(topic, written, message);
    auto result = initialMessages<Message>()[0];
    result.data = message.data;
    auto const bound = boundTopic(message);
    require(read(topic, written, result), "what is written can be read");
    require(boundTopic(result) == mqtt::Topic(bound).text(), "its data reads back");
    return result;
}

template <class Message>
bool hasSameAddress(Message const& a, Message const& b) {
    return a.topic == b.topic && a.name == b.name && a.clientUuid == b.clientUuid
           && a.serverUuid == b.serverUuid;
}

} // namespace fuzz
