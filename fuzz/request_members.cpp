// Any document, read for the members of the requests and replies that the library itself knows.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

#include <exception>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

bool isTaken(std::string_view text, mqtt::RequestReplyData& data) {
    try {
        Deserializer in(text);
        data.deserialize(in);
        return true;
    } catch (std::exception const&) {
        return false;
    }
}

template <class Data>
Data readAgain(Data const& data) {
    std::string json;
    Serializer out(json);
    data.serialize(out);
    out.finalize();
    Data again;
    require(isTaken(json, again), "what is written can be read");
    return again;
}

void timeSync(std::string_view text, Json const& json) {
    double client = 1.5;
    double ref = 2.5;
    mqtt::TimeSyncRequestData request(client);
    mqtt::TimeSyncReplyData reply(client, ref);
    bool const asked = fuzz::readNumber(json.member("client"), client) == Outcome::TAKEN;
    bool const answered = asked && fuzz::readNumber(json.member("ref"), ref) == Outcome::TAKEN;
    require(isTaken(text, request) == asked, "a request for the time");
    require(isTaken(text, reply) == answered, "the time");
    require(fuzz::sameNumber(request.client, client), "when it was asked for");
    require(fuzz::sameNumber(reply.client, client) && fuzz::sameNumber(reply.ref, ref),
            "both times");
    require(fuzz::sameNumber(readAgain(request).client, client), "a request reads back");
    require(fuzz::sameNumber(readAgain(reply).ref, ref), "a reply reads back");
}

void bindRequest(std::string_view text, Json const& json) {
    mqtt::BindRequestData data(mqtt::Topic("be/fore"));
    std::string expected = "be/fore";
    bool const readable = fuzz::readText(json.member("topic"), expected) == Outcome::TAKEN;
    require(isTaken(text, data) == readable, "a request for a binding");
    require(data.topic == mqtt::Topic(expected), "what is to be bound");
    // A topic loses a "/" at either end each time that it is read.
    require(readAgain(data).topic == mqtt::Topic(data.topic.text()), "it reads back");
}

void run(std::string_view bytes) {
    Json json;
    fuzz::readReference(bytes, json);
    timeSync(bytes, json);
    bindRequest(bytes, json);
}

fuzz::Target const REQUEST_MEMBERS("request_members", run);

} // namespace
