// Any payload on any topic, read as a request.

#include "fuzz/envelope.hpp"

#include <optional>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using mqtt::Topic;
using Request = mqtt::RequestReply::Request;

/// The last two levels of a topic, where a request has them.
struct Levels {
    explicit Levels(Topic const& topic) {
        auto const& text = topic.text();
        auto const last = text.rfind('/');
        if (last == std::string::npos) {
            return;
        }
        auto const before = last == 0 ? std::string::npos : text.rfind('/', last - 1);
        client = text.substr(last + 1);
        name = text.substr(before + 1, last - before - 1);
    }

    std::optional<zym::common::Uuid> uuid() const {
        try {
            zym::common::Uuid const id(client);
            require(id.base64URL() == client || client.size() == id.to_string().size(),
                    "an identifier prints back the same");
            return id;
        } catch (std::invalid_argument const&) {
            return std::nullopt;
        }
    }

    std::string name;
    std::string client;
};

/// @param request as it is left
/// @return whether it is taken over
bool expect(Topic const& topic, Json const& json, Request& request) {
    Levels const levels(topic);
    auto const client = levels.uuid();
    std::uint64_t id = 0;
    std::string bound;
    if (levels.name.size() < 2 || !client
        || fuzz::readInteger(json.member("$reqId"), 0xffffffffU, id) != Outcome::TAKEN) {
        return false;
    }
    if (fuzz::payloadOf(request) && fuzz::readText(json.member("topic"), bound) != Outcome::TAKEN) {
        return false;
    }
    request.name = levels.name.substr(0, levels.name.size() - 2);
    request.clientUuid = *client;
    request.requestId = static_cast<std::uint32_t>(id);
    return true;
}

void readBack(Topic const& topic, Request const& request) {
    auto const again = fuzz::readBack(topic, request);
    require(again.requestId == request.requestId && fuzz::hasSameTopic(again, request),
            "it reads back");
}

void run(std::string_view bytes) {
    fuzz::Arrival const arrival(bytes);
    auto const& [topic, payload, json] = arrival;
    for (auto request : fuzz::endpoints<Request>()) {
        auto expected = request;
        bool const readable = payload.empty() || expect(topic, json, expected);
        require(fuzz::isTaken(topic, payload, request) == readable, "what is taken for a request");
        require(fuzz::hasSameTopic(request, expected), "who asks whom for what");
        require(request.requestId == expected.requestId, "the request's identifier");
        require(request.data == expected.data, "the payload stays the same object");
        if (readable && !payload.empty()) {
            readBack(topic, request);
        }
    }
}

fuzz::Target const REQUESTS("requests", run);

} // namespace
