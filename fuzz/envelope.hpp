#pragma once

#include "fuzz/lines.hpp"
#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/binder_proxy.hpp>

#include <array>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace fuzz {

/// A message as it comes: a line of topic, and the payload.
struct Arrival {
    explicit Arrival(Lines lines) : topic(lines.next()), payload(lines.rest()) {
        readReference(payload, json);
    }
    explicit Arrival(std::string_view bytes) : Arrival(Lines(bytes)) {}
    Arrival(Arrival const&) = delete;
    Arrival& operator=(Arrival const&) = delete;

    mqtt::Topic const topic;
    std::string const payload;
    Json json; ///< the payload; it points into it
};

/// Whether a message on this topic is taken over.
template <class Message>
bool isTaken(mqtt::Topic const& topic, std::string const& payload, Message& message) {
    try {
        mqtt::MqttData<Message>::deserialize(topic, payload, payload.empty(), message);
        return true;
    } catch (std::exception const&) {
        return false;
    }
}

/// What an endpoint holds before the first message: no payload, the empty one, or one with a
/// member.
template <class Message>
std::array<Message, 3> endpoints() {
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

/// The payload with a member, if that is what the message has.
inline std::shared_ptr<mqtt::BindRequestData>
payloadOf(mqtt::RequestReply::Request const& message) {
    return std::dynamic_pointer_cast<mqtt::BindRequestData>(message.data);
}

inline std::string boundTopic(mqtt::RequestReply::Request const& message) {
    auto const payload = payloadOf(message);
    return payload ? payload->topic.text() : "";
}

/// The message as it comes back when it is written and read, for a closer look at its envelope.
template <class Message>
Message readBack(mqtt::Topic const& topic, Message const& message) {
    std::string written;
    mqtt::MqttData<Message>::serialize(topic, written, message);
    auto again = endpoints<Message>()[0];
    again.data = message.data;
    auto const bound = boundTopic(message);
    require(isTaken(topic, written, again), "what is written can be read");
    require(boundTopic(again) == mqtt::Topic(bound).text(), "its payload reads back");
    return again;
}

template <class Message>
bool hasSameTopic(Message const& a, Message const& b) {
    return a.topic == b.topic && a.name == b.name && a.clientUuid == b.clientUuid
           && a.serverUuid == b.serverUuid;
}

} // namespace fuzz
