// Any payload on any topic, read as a reply.

#include "fuzz/envelope.hpp"

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using mqtt::Topic;
using Reply = mqtt::RequestReply::Reply;

/// @param reply as it is left
/// @return whether it is taken over
bool expect(Json const& json, Reply& reply) {
    std::uint64_t id = 0;
    std::uint64_t error = 0;
    if (fuzz::readInteger(json.member("$reqId"), 0xffffffffU, id) != Outcome::TAKEN
        || fuzz::readInteger(json.member("$err"), 0xffU, error) != Outcome::TAKEN) {
        return false;
    }
    reply.requestId = static_cast<std::uint32_t>(id);
    reply.error = static_cast<mqtt::RequestReply::ErrorCode>(error);
    return true;
}

void readBack(Topic const& topic, Reply const& reply) {
    auto const again = fuzz::readBack(topic, reply);
    require(again.requestId == reply.requestId && again.error == reply.error, "it reads back");
}

void run(std::string_view bytes) {
    fuzz::Arrival const arrival(bytes);
    auto const& [topic, payload, json] = arrival;
    for (auto reply : fuzz::endpoints<Reply>()) {
        auto expected = reply;
        std::string bound;
        bool const readable = payload.empty() || expect(json, expected);
        if (readable && !payload.empty()) {
            fuzz::readText(json.member("topic"), bound);
        }
        require(fuzz::isTaken(topic, payload, reply) == readable, "what is taken for a reply");
        require(fuzz::hasSameTopic(reply, expected), "a reply's topic says nothing");
        require(reply.requestId == expected.requestId, "the request's identifier");
        require(reply.error == expected.error, "how it went");
        require(!fuzz::payloadOf(reply) || fuzz::boundTopic(reply) == Topic(bound).text(),
                "the payload, as far as it can be read");
        if (readable && !payload.empty()) {
            readBack(topic, reply);
        }
    }
}

fuzz::Target const REPLIES("replies", run);

} // namespace
