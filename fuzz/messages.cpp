// Reads any payload on any topic as a request and as a reply, as the reference does; then writes
// the message and reads it back.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/binder_proxy.hpp>

#include <memory>
#include <optional>

namespace {

using fuzz::Json;
using fuzz::require;
using mqtt::BindRequestData;
using mqtt::Topic;
using Data = std::shared_ptr<mqtt::RequestReplyData>;
using Request = mqtt::RequestReply::Request;
using Reply = mqtt::RequestReply::Reply;

/// As it is before the first message of its endpoint.
template <class Message>
Message initialMessage(Data const& data) {
    Message message;
    message.topic = "sub/path";
    message.name = "before";
    message.clientUuid = zym::common::Uuid(1);
    message.serverUuid = zym::common::Uuid(2);
    message.requestId = 3;
    message.data = data;
    return message;
}

/// The member of the data; none if the data has no member.
std::optional<std::string> boundTopic(Request const& message) {
    auto const data = std::dynamic_pointer_cast<BindRequestData>(message.data);
    return data ? std::make_optional(data->topic.text()) : std::nullopt;
}

/// The last two levels of a request's topic are the name and the client.
bool readTopic(std::string const& topic, Request& request) {
    constexpr std::size_t SUFFIX_SIZE = 2;
    auto const last = topic.rfind('/');
    if (last == std::string::npos) {
        return false;
    }
    auto const before = last == 0 ? std::string::npos : topic.rfind('/', last - 1);
    auto const name = topic.substr(before + 1, last - before - 1);
    auto const client = topic.substr(last + 1);
    if (name.size() < SUFFIX_SIZE
        || !fuzz::succeeds([&] { request.clientUuid = zym::common::Uuid(client); })) {
        return false;
    }
    request.name = name.substr(0, name.size() - SUFFIX_SIZE);
    return true;
}

// What the reference reads, set as the library leaves it, also if it returns false because the
// message is refused. `bound` is the member of the data that the library reads, if there is any.

bool readExpected(Topic const& topic, Json const& json, Request& request, std::string& bound) {
    auto expected = request;
    if (!readTopic(topic.text(), expected)
        || !fuzz::reads(json.member("$reqId"), expected.requestId)
        || (boundTopic(request) && !fuzz::reads(json.member("topic"), bound))) {
        return false;
    }
    request = expected;
    return true;
}

bool readExpected(Topic const& /*topic*/, Json const& json, Reply& reply, std::string& bound) {
    std::uint32_t id = 0;
    std::uint8_t error = 0;
    if (!fuzz::reads(json.member("$reqId"), id) || !fuzz::reads(json.member("$err"), error)) {
        return false;
    }
    reply.requestId = id;
    reply.error = static_cast<mqtt::RequestReply::ErrorCode>(error);
    fuzz::reads(json.member("topic"), bound);
    return true;
}

bool isSame(Request const& a, Request const& b) {
    return a.topic == b.topic && a.name == b.name && a.clientUuid == b.clientUuid
           && a.serverUuid == b.serverUuid && a.requestId == b.requestId && a.data == b.data;
}

bool isSame(Reply const& a, Reply const& b) {
    return isSame(static_cast<Request const&>(a), b) && a.error == b.error;
}

template <class Message>
void checkWritten(Topic const& topic, Message const& message) {
    std::string payload;
    mqtt::MqttData<Message>::serialize(topic, payload, message);
    auto again = initialMessage<Message>(message.data);
    auto const bound = boundTopic(message);
    mqtt::MqttData<Message>::deserialize(topic, payload, false, again);
    require(isSame(again, message), "a message reads back");
    require(!bound || boundTopic(again) == Topic(*bound).text(), "its data reads back");
}

template <class Message>
void check(Topic const& topic, std::string const& payload, Json const& json, Data const& data) {
    auto message = initialMessage<Message>(data);
    auto expected = message;
    std::string bound;
    bool const isEmpty = payload.empty();
    bool const isAccepted = isEmpty || readExpected(topic, json, expected, bound);
    require(fuzz::succeeds([&] {
                mqtt::MqttData<Message>::deserialize(topic, payload, isEmpty, message);
            }) == isAccepted,
            "the message is accepted");
    require(isSame(message, expected), "each field, unchanged when absent");
    auto const read = boundTopic(message);
    require(!read || *read == Topic(bound).text(), "the data that can be read");
    if (isAccepted && !isEmpty) {
        checkWritten(topic, message);
    }
}

} // namespace

void fuzz::run(std::string_view bytes) {
    fuzz::Lines lines(bytes);
    Topic const topic(lines.next());
    std::string const payload(lines.rest());
    Json json;
    fuzz::parse(payload, json);
    for (bool const isRequest : {true, false}) {
        for (auto const& data : {Data(), Data(std::make_shared<mqtt::RequestReplyNoData>()),
                                 Data(std::make_shared<BindRequestData>())}) {
            isRequest ? check<Request>(topic, payload, json, data)
                      : check<Reply>(topic, payload, json, data);
        }
    }
}
