// Reads any payload on any topic as a reply.

#include "fuzz/messages.hpp"

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using mqtt::Topic;
using Reply = mqtt::RequestReply::Reply;

/// @param reply set as the library leaves it
/// @return whether it is accepted
bool readExpected(Json const& json, Reply& reply) {
    std::uint64_t id = 0;
    std::uint64_t error = 0;
    if (fuzz::readInteger(json.member("$reqId"), 0xffffffffU, id) != Outcome::SUCCESS
        || fuzz::readInteger(json.member("$err"), 0xffU, error) != Outcome::SUCCESS) {
        return false;
    }
    reply.requestId = static_cast<std::uint32_t>(id);
    reply.error = static_cast<mqtt::RequestReply::ErrorCode>(error);
    return true;
}

void check(fuzz::ReceivedMessage const& message, Reply reply) {
    auto expected = reply;
    std::string bound;
    bool const isEmpty = message.payload.empty();
    bool const isAccepted = isEmpty || readExpected(message.json, expected);
    require(fuzz::read(message.topic, message.payload, reply) == isAccepted, "accepted replies");
    require(fuzz::hasSameAddress(reply, expected), "the topic changes no field");
    require(reply.requestId == expected.requestId, "the request's identifier");
    require(reply.error == expected.error, "the error code");
    if (isAccepted && !isEmpty) {
        fuzz::readText(message.json.member("topic"), bound);
    }
    require(!fuzz::bindData(reply) || fuzz::boundTopic(reply) == Topic(bound).text(),
            "the data that can be read");
    if (isAccepted && !isEmpty) {
        auto const again = fuzz::writtenAndRead(message.topic, reply);
        require(again.requestId == reply.requestId && again.error == reply.error,
                "a reply reads back");
    }
}

void run(std::string_view bytes) {
    fuzz::ReceivedMessage const message{fuzz::Lines(bytes)};
    for (auto const& reply : fuzz::initialMessages<Reply>()) {
        check(message, reply);
    }
}

fuzz::Target const REPLIES("replies", run);

} // namespace
