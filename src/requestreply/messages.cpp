// How requests and replies travel: their topics and their JSON envelope.

#include "requestreply/messages.hpp"

#include "common/json_members.hpp"
#include "common/log.hpp"

#include <cstdint>
#include <stdexcept>
#include <typeinfo>
#include <utility>

namespace mqtt {

namespace {

using zym::common::Uuid;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;
using Request = RequestReply::Request;
using Reply = RequestReply::Reply;

constexpr int QOS = 2;
constexpr bool RETAINED = false;

constexpr char REQUEST[] = "?\?";
constexpr char REPLY[] = "?=";

/// Of the suffix in the last but one segment of a request's topic.
constexpr std::size_t SUFFIX_LENGTH = sizeof REQUEST - 1;

Topic prefix(Topic const& base, Request const& message, char const* suffix) {
    Topic topic = base;
    if (!message.serverUuid.isNil()) {
        topic += message.serverUuid;
    }
    topic += message.topic;
    topic += message.name + suffix;
    return topic;
}

/// Exactly the type without members has none: a type derived from it may have some.
bool hasMembers(Request const& message) {
    if (!message.data) {
        return false;
    }
    auto const& data = *message.data;
    return typeid(data) != typeid(RequestReplyNoData);
}

/// The compiler cannot prevent a payload from closing the object of the whole message.
void logBrokenDocument(std::string const& payload, Request const& message) {
    try {
        Deserializer(payload).getMember("$reqId");
    } catch (std::exception const&) {
        log(LogLevel::ERROR, "service ", message.name,
            ": nobody can read a message, because its payload has broken the document: serialize() "
            "only appends members, and does not call finalize()");
    }
}

void appendRest(Serializer& out, std::string const& payload, Request const& message) {
    if (hasMembers(message)) {
        message.data->serialize(out);
    }
    out.finalize();
    if (hasMembers(message) && isLogged(LogLevel::ERROR)) {
        logBrokenDocument(payload, message);
    }
}

} // namespace

char const* const REQUEST_SUFFIX = REQUEST;
char const* const REPLY_SUFFIX = REPLY;

Topic requestPrefix(Topic const& base, Request const& request) {
    return prefix(base, request, REQUEST_SUFFIX);
}

template <>
MqttData<Request>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic, QOS, RETAINED) {}

template <>
void MqttData<Request>::getPublishTopic(Topic& topic) {
    topic = requestPrefix(topicBase(), value) + value.clientUuid;
}

template <>
void MqttData<Request>::getSubscribeTopic(Topic& topic) {
    topic = requestPrefix(topicBase(), value) + "+";
}

template <>
void MqttData<Request>::serialize(Topic const& /*topic*/, std::string& payload,
                                  Request const& value) {
    Serializer out(payload);
    appendNumber(out, "$reqId", value.requestId);
    appendRest(out, payload, value);
}

template <>
void MqttData<Request>::deserialize(Topic const& topic, std::string const& payload, bool empty,
                                    Request& value) {
    if (empty) {
        return;
    }
    auto const levels = topic.size();
    if (levels < 2 || topic[levels - 2].size() < SUFFIX_LENGTH) {
        throw std::out_of_range("No request has such a topic");
    }
    Deserializer in(payload);
    Uuid const clientUuid(topic[levels - 1]);
    std::string name = topic[levels - 2];
    name.resize(name.size() - SUFFIX_LENGTH);
    std::uint32_t requestId = 0;
    readMember(in, "$reqId", requestId);
    if (hasMembers(value)) {
        value.data->deserialize(in);
    }
    value.clientUuid = clientUuid;
    value.name = std::move(name);
    value.requestId = requestId;
}

template <>
MqttData<Reply>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic, QOS, RETAINED) {}

template <>
void MqttData<Reply>::getPublishTopic(Topic& topic) {
    topic = prefix(topicBase(), value, REPLY_SUFFIX) + value.clientUuid;
}

template <>
void MqttData<Reply>::getSubscribeTopic(Topic& topic) {
    getPublishTopic(topic);
}

template <>
void MqttData<Reply>::serialize(Topic const& /*topic*/, std::string& payload, Reply const& value) {
    Serializer out(payload);
    appendNumber(out, "$reqId", value.requestId);
    appendNumber(out, "$err", static_cast<unsigned int>(value.error));
    appendRest(out, payload, value);
}

template <>
void MqttData<Reply>::deserialize(Topic const& topic, std::string const& payload, bool empty,
                                  Reply& value) {
    if (empty) {
        return;
    }
    Deserializer in(payload);
    std::uint32_t requestId = 0;
    readMember(in, "$reqId", requestId);
    unsigned char error = 0;
    readMember(in, "$err", error);
    if (hasMembers(value)) {
        try {
            value.data->deserialize(in);
        } catch (std::exception const& cause) {
            // The reply to a request that failed has no payload, but its code must be delivered.
            if (error == static_cast<unsigned char>(RequestReply::ErrorCode::SUCCESS)) {
                log(LogLevel::ERROR, topic.text(),
                    ": payload of the reply not read: ", cause.what());
            }
        }
    }
    value.requestId = requestId;
    value.error = static_cast<RequestReply::ErrorCode>(error);
}

template class MqttData<Request>;
template class MqttData<Reply>;

RequestReplyData::~RequestReplyData() = default;
RequestReplyNoData::~RequestReplyNoData() = default;
void RequestReplyNoData::deserialize(Deserializer& /*in*/) {}
void RequestReplyNoData::serialize(Serializer& /*out*/) const {}
RequestReply::Request::~Request() = default;
RequestReply::Reply::~Reply() = default;

RequestReply::RequestReply(MqttClient& client, Topic const& base, Topic const& subPath,
                           std::string const& name)
    : name_(name), topic_(subPath), requests_(client, base), replies_(client, base) {
    // This finds only a "/" at the begin or the end. With one in between the server takes the last
    // level for the whole name, and requests end by time-out.
    if (Topic(name).text() != name) {
        throw std::invalid_argument("Invalid Request/Reply name; should not contain any of '/'.");
    }
}

RequestReply::~RequestReply() {
    replies_.unsubscribe();
    requests_.unsubscribe();
}

} // namespace mqtt
