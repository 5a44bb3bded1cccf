// Reads any payload on any topic as a request.

#include "fuzz/messages.hpp"

#include <optional>
#include <stdexcept>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using mqtt::Topic;
using Request = mqtt::RequestReply::Request;

/// The last two levels of a request's topic.
struct LastLevels {
    explicit LastLevels(std::string const& topic) {
        auto const last = topic.rfind('/');
        if (last == std::string::npos) {
            return;
        }
        auto const before = last == 0 ? std::string::npos : topic.rfind('/', last - 1);
        client = topic.substr(last + 1);
        name = topic.substr(before + 1, last - before - 1);
    }

    std::string name;
    std::string client;
};

std::optional<zym::common::Uuid> uuidIn(std::string const& text) {
    try {
        zym::common::Uuid const id(text);
        require(id.base64URL() == text || text.size() == id.to_string().size(),
                "an identifier is written as it was read");
        return id;
    } catch (std::invalid_argument const&) {
        return std::nullopt;
    }
}

/// @param request set as the library leaves it
/// @return whether it is accepted
bool readExpected(Topic const& topic, Json const& json, Request& request) {
    LastLevels const levels(topic.text());
    auto const client = uuidIn(levels.client);
    std::uint64_t id = 0;
    std::string bound;
    if (levels.name.size() < 2 || !client
        || fuzz::readInteger(json.member("$reqId"), 0xffffffffU, id) != Outcome::SUCCESS
        || (fuzz::bindData(request)
            && fuzz::readText(json.member("topic"), bound) != Outcome::SUCCESS)) {
        return false;
    }
    request.name = levels.name.substr(0, levels.name.size() - 2);
    request.clientUuid = *client;
    request.requestId = static_cast<std::uint32_t>(id);
    return true;
}

void check(fuzz::ReceivedMessage const& message, Request request) {
    auto expected = request;
    bool const isEmpty = message.payload.empty();
    bool const isAccepted = isEmpty || readExpected(message.topic, message.json, expected);
    require(fuzz::read(message.topic, message.payload, request) == isAccepted, "accepted requests");
    require(fuzz::hasSameAddress(request, expected), "client, server and name");
    require(request.requestId == expected.requestId, "the request's identifier");
    require(request.data == expected.data, "the data stays the same object");
    if (isAccepted && !isEmpty) {
        auto const again = fuzz::writtenAndRead(message.topic, request);
        require(again.requestId == request.requestId && fuzz::hasSameAddress(again, request),
                "a request reads back");
    }
}

void run(std::string_view bytes) {
    fuzz::ReceivedMessage const message{fuzz::Lines(bytes)};
    for (auto const& request : fuzz::initialMessages<Request>()) {
        check(message, request);
    }
}

fuzz::Target const REQUESTS("requests", run);

} // namespace
