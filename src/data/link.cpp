#include "mqtt/link.hpp"

#include "common/json_number.hpp"

#include <zym/common/lwjson.hpp>

#include <algorithm>
#include <ostream>

namespace mqtt {

namespace {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

constexpr int QOS = 2;
constexpr bool RETAINED = true;

constexpr std::size_t SHORTEST_ELEMENT = sizeof R"({"@id":""},)" - 1;

} // namespace

template <>
MqttData<Link>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic, QOS, RETAINED) {}

template <>
void MqttData<Link>::serialize(Topic const& /*topic*/, std::string& payload, Link const& value) {
    Serializer out(payload);
    out.appendKey("@id");
    out.addValue(value.id);
    out.finalize();
}

template <>
void MqttData<Link>::deserialize(Topic const& /*topic*/, std::string const& payload, bool empty,
                                 Link& value) {
    if (empty)
        return;
    Deserializer const in(payload);
    std::string id;
    Deserializer::extractValue(in.getMember("@id"), id, "");
    value.id = std::move(id);
}

template <>
MqttData<std::vector<Link>>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic, QOS, RETAINED) {}

template <>
void MqttData<std::vector<Link>>::serialize(Topic const& topic, std::string& payload,
                                            std::vector<Link> const& value) {
    MqttDataCollection<Link>::serialize(topic, payload, value);
}

template <>
void MqttData<std::vector<Link>>::deserialize(Topic const& topic, std::string const& payload,
                                              bool empty, std::vector<Link>& value) {
    MqttDataCollection<Link>::deserialize(topic, payload, empty, value);
}

template class MqttData<Link>;
template class MqttData<std::vector<Link>>;

MqttDataCollection<Link>::MqttDataCollection(MqttClient& client, Topic const& topic)
    : MqttData<std::vector<Link>>(client, topic) {}

MqttDataCollection<Link>::MqttDataCollection(MqttDataCollection const& other)
    : MqttData<std::vector<Link>>(other, Unsubscribed()) {
    subscribeLike(other);
}

MqttDataCollection<Link>::~MqttDataCollection() {
    release();
}

void MqttDataCollection<Link>::serialize(Topic const& topic, std::string& payload,
                                         std::vector<Link> const& value) {
    Serializer out(payload);
    std::vector<Serializer> members;
    members.reserve(value.size());
    std::string text;
    for (auto const& link : value) {
        MqttData<Link>::serialize(topic, text, link);
        members.emplace_back(std::as_const(text));
    }
    appendNumber(out, "members@count", static_cast<unsigned int>(value.size()));
    out.appendKey("members");
    out.addValue(members);
    out.finalize();
}

void MqttDataCollection<Link>::deserialize(Topic const& topic, std::string const& payload,
                                           bool empty, std::vector<Link>& value) {
    if (empty)
        return;
    Deserializer const in(payload);
    unsigned int count = 0;
    Deserializer::extractValue(in.getMember("members@count"), count, "");
    value.clear();
    // A stranger's number: make room for no more than this text can hold.
    value.reserve(std::min<std::size_t>(count, payload.size() / SHORTEST_ELEMENT));
    Deserializer const members(in.getMember("members"));
    std::string text;
    for (auto const element : members.getElements()) {
        auto& link = value.emplace_back();
        text = element;
        MqttData<Link>::deserialize(topic, text, false, link);
    }
}

std::ostream& operator<<(std::ostream& out, std::vector<Link> const& links) {
    for (auto const& link : links)
        out << link.id << std::endl;
    return out;
}

} // namespace mqtt
