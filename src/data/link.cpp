#include "mqtt/link.hpp"

#include "common/json_members.hpp"
#include "data/array_elements.hpp"

#include <zym/common/lwjson.hpp>

#include <algorithm>
#include <ostream>
#include <string_view>
#include <utility>

namespace mqtt {

namespace {

using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

constexpr int QOS = 2;
constexpr bool RETAINED = true;

constexpr std::size_t SHORTEST_ELEMENT = sizeof R"({"@id":""},)" - 1;

/// Reads an element of an array. Most links look as `serialize` writes them: then the id is read at
/// once, which is faster. It ends at the only quotation mark after its first one.
/// @param text memory for a copy of a part of the element
void readElement(std::string_view element, std::string& text, Link& link) {
    constexpr std::string_view BEFORE = R"({"@id": )";
    constexpr std::string_view BEHIND = "}";
    std::size_t const begin = BEFORE.size() + 1;
    if (element.substr(0, begin) == R"({"@id": ")" && element.find('"', begin) == element.size() - 2
        && element.back() == '}') {
        text = element.substr(BEFORE.size(), element.size() - BEFORE.size() - BEHIND.size());
        Deserializer::extractValue(text.c_str(), link.id, "");
    } else {
        text = element;
        readMember(Deserializer(text), "@id", link.id);
    }
}

/// Each link as a complete JSON document.
std::vector<Serializer> documentsOf(Topic const& topic, std::vector<Link> const& links) {
    std::vector<Serializer> result;
    result.reserve(links.size());
    std::string text;
    for (auto const& link : links) {
        MqttData<Link>::serialize(topic, text, link);
        result.emplace_back(std::as_const(text));
    }
    return result;
}

Link& emptyLinkAt(std::vector<Link>& links, std::size_t i) {
    if (i == links.size()) {
        return links.emplace_back();
    }
    links[i].id.clear(); // keeps its memory
    return links[i];
}

/// Replaces the links by those that are read, up to the first that is no link.
void readElements(Deserializer const& in, std::vector<Link>& links) {
    std::size_t count = 0;
    try {
        std::string const array(in.getMember("members"));
        ArrayElements elements(array);
        std::string_view element;
        std::string text;
        while (elements.next(element)) {
            readElement(element, text, emptyLinkAt(links, count++));
        }
    } catch (...) {
        links.resize(count);
        throw;
    }
    links.resize(count);
}

} // namespace

template <>
MqttData<Link>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic, QOS, RETAINED) {}

template <>
void MqttData<Link>::serialize(Topic const& /*topic*/, std::string& payload, Link const& value) {
    Serializer out(payload);
    appendMember(out, "@id", value.id);
    out.finalize();
}

template <>
void MqttData<Link>::deserialize(Topic const& /*topic*/, std::string const& payload, bool empty,
                                 Link& value) {
    if (!empty) {
        readMember(Deserializer(payload), "@id", value.id);
    }
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
    auto const documents = documentsOf(topic, value);
    appendNumber(out, "members@count", static_cast<unsigned int>(value.size()));
    appendMember(out, "members", documents);
    out.finalize();
}

void MqttDataCollection<Link>::deserialize(Topic const& /*topic*/, std::string const& payload,
                                           bool empty, std::vector<Link>& value) {
    if (empty) {
        return;
    }
    Deserializer const in(payload);
    unsigned int count = 0;
    readMember(in, "members@count", count);
    // The number may be wrong: reserve no more than this text can hold.
    value.reserve(std::min<std::size_t>(count, payload.size() / SHORTEST_ELEMENT));
    readElements(in, value);
}

std::ostream& operator<<(std::ostream& out, std::vector<Link> const& links) {
    for (auto const& link : links) {
        out << link.id << std::endl;
    }
    return out;
}

} // namespace mqtt
