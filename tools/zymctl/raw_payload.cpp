#include "raw_payload.hpp"

#include "documents.hpp"
#include "settings.hpp"

#include <utility>

using mqtt::Topic;
using zym::common::lwjson::Deserializer;

RawPayload::RawPayload(std::string const& json) {
    if (json.empty()) {
        return;
    }
    if (!isJsonObject(json)) {
        throw CommandFailed(ExitCode::USAGE, "this is no JSON object: " + printable(json));
    }
    // The text is valid: what begins with a quotation mark is a key, and a value follows.
    auto const begin = json.find('"');
    if (begin == std::string::npos) {
        return;
    }
    auto end = begin + 1;
    while (json[end] != '"') {
        end += json[end] == '\\' ? 2U : 1U;
    }
    Deserializer::extractValue(std::string_view(json).substr(begin, end + 1 - begin), firstKey_,
                               "");
    auto const value = json.find_first_not_of(" \t\r\n", json.find(':', end) + 1);
    rest_ = json.substr(value, json.rfind('}') - value);
}

void RawPayload::serialize(zym::common::lwjson::Serializer& out) const {
    if (!rest_.empty()) {
        out.appendKey(firstKey_.c_str());
        out.appendValue(rest_.c_str());
    }
}

TopicReader::TopicReader(mqtt::MqttClient& client, Topic const& topic, Function function)
    : client_(client), function_(std::move(function)) {
    require(client_.subscribe(topic, this, 0), "cannot subscribe to " + topic.text());
}

Topic replyTopic(Topic const& base, zym::common::Uuid const& server, Topic const& subPath,
                 std::string const& service, zym::common::Uuid const& client) {
    auto topic = base;
    if (!server.isNil()) {
        topic += server;
    }
    topic += subPath;
    topic += service + mqtt::REPLY_SUFFIX;
    topic += client;
    return topic;
}
