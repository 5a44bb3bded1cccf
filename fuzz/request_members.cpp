// Reads any document as the payload of the requests and replies that the library defines.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/time_base.hpp>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using fuzz::sameNumber;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

bool read(std::string_view text, mqtt::RequestReplyData& data) {
    return fuzz::succeeds([&] {
        Deserializer in(text);
        data.deserialize(in);
    });
}

template <class Data>
Data writtenAndRead(Data const& data) {
    std::string json;
    Serializer out(json);
    data.serialize(out);
    out.finalize();
    Data result;
    require(read(json, result), "what is written can be read");
    return result;
}

void checkTimeSync(std::string_view text, Json const& json) {
    double client = 1.5;
    double ref = 2.5;
    mqtt::TimeSyncRequestData request(client);
    mqtt::TimeSyncReplyData reply(client, ref);
    bool const isRequest = fuzz::readNumber(json.member("client"), client) == Outcome::SUCCESS;
    bool const isReply = isRequest && fuzz::readNumber(json.member("ref"), ref) == Outcome::SUCCESS;
    require(read(text, request) == isRequest, "a request for the time");
    require(read(text, reply) == isReply, "a reply with the time");
    require(sameNumber(request.client, client), "the client's time in a request");
    require(sameNumber(reply.client, client) && sameNumber(reply.ref, ref), "the times in a reply");
    require(sameNumber(writtenAndRead(request).client, client), "a request reads back");
    require(sameNumber(writtenAndRead(reply).ref, ref), "a reply reads back");
}

void checkBindRequest(std::string_view text, Json const& json) {
    mqtt::BindRequestData data(mqtt::Topic("be/fore"));
    std::string expected = "be/fore";
    bool const isRequest = fuzz::readText(json.member("topic"), expected) == Outcome::SUCCESS;
    require(read(text, data) == isRequest, "a request for a binding");
    require(data.topic == mqtt::Topic(expected), "the topic to bind");
    // Each reading of a topic removes one "/" at either end.
    require(writtenAndRead(data).topic == mqtt::Topic(data.topic.text()), "it reads back");
}

void run(std::string_view bytes) {
    Json json;
    fuzz::parse(bytes, json);
    checkTimeSync(bytes, json);
    checkBindRequest(bytes, json);
}

fuzz::Target const REQUEST_MEMBERS("request_members", run);

} // namespace
