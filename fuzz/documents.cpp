// Reads any text as each document that the library defines, as the reference does; then writes the
// value and reads it back.

#include "data/array_elements.hpp"
#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/binder_proxy.hpp>
#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/time_base.hpp>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using conv::CommunicationStatus;
using conv::Identification;
using conv::ServiceStatus;
using fuzz::Json;
using fuzz::require;
using fuzz::sameNumber;
using mqtt::BindRequestData;
using mqtt::Link;
using mqtt::TimeSyncReplyData;
using mqtt::TimeSyncRequestData;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;
using Links = std::vector<Link>;

// For each type: what the reference reads, set as the library leaves it, also if it returns false
// because the document is refused; and what is the same.

bool readExpected(Json const& json, Link& link) {
    return fuzz::reads(json.member("@id"), link.id);
}

bool isSame(Link const& a, Link const& b) {
    return a.id == b.id;
}

bool readExpected(Json const& json, Links& links) {
    std::uint32_t count = 0;
    if (!fuzz::reads(json.member("members@count"), count)) {
        return false;
    }
    links.clear();
    auto const& members = json.member("members");
    return members.kind == Json::Kind::ARRAY
           && std::all_of(
               members.children.begin(), members.children.end(),
               [&](Json const& member) { return readExpected(member, links.emplace_back()); });
}

bool isSame(Links const& a, Links const& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](Link const& x, Link const& y) { return isSame(x, y); });
}

bool readExpected(Json const& json, CommunicationStatus& status) {
    std::uint8_t state = 0;
    double since = 0;
    status.since = conv::UnixTime();
    if (fuzz::reads(json.member("state"), state)) {
        status.state = static_cast<conv::ComState>(state);
        if (fuzz::reads(json.member("since"), since)) {
            status.since = conv::UnixTime(since);
        }
    }
    return true;
}

bool isSame(CommunicationStatus const& a, CommunicationStatus const& b) {
    return a.state == b.state && a.since.valid == b.since.valid
           && sameNumber(a.since.seconds, b.since.seconds);
}

constexpr std::array<std::pair<char const*, std::string Identification::*>, 10> FIELDS{
    {{"uuid", &Identification::uuid},
     {"manufacturer", &Identification::manufacturer},
     {"model", &Identification::model},
     {"serial", &Identification::serial},
     {"physicalName", &Identification::physicalName},
     {"name", &Identification::name},
     {"interface", &Identification::interface},
     {"version", &Identification::version},
     {"location", &Identification::location},
     {"contact", &Identification::contact}}};

bool readExpected(Json const& json, Identification& identification) {
    for (auto const& [key, field] : FIELDS) {
        fuzz::reads(json.member(key), identification.*field);
    }
    return true;
}

bool isSame(Identification const& a, Identification const& b) {
    return std::all_of(FIELDS.begin(), FIELDS.end(), [&](auto const& keyAndField) {
        return a.*keyAndField.second == b.*keyAndField.second;
    });
}

bool readExpected(Json const& json, ServiceStatus& status) {
    return fuzz::reads(json.member("operating"), status.operating)
           && fuzz::reads(json.member("health"), status.health);
}

bool isSame(ServiceStatus const& a, ServiceStatus const& b) {
    return a.operating == b.operating && a.health == b.health;
}

bool readExpected(Json const& json, TimeSyncRequestData& data) {
    return fuzz::reads(json.member("client"), data.client);
}

bool isSame(TimeSyncRequestData const& a, TimeSyncRequestData const& b) {
    return sameNumber(a.client, b.client);
}

bool readExpected(Json const& json, TimeSyncReplyData& data) {
    return fuzz::reads(json.member("client"), data.client)
           && fuzz::reads(json.member("ref"), data.ref);
}

bool isSame(TimeSyncReplyData const& a, TimeSyncReplyData const& b) {
    return sameNumber(a.client, b.client) && sameNumber(a.ref, b.ref);
}

bool readExpected(Json const& json, BindRequestData& data) {
    std::string topic;
    if (!fuzz::reads(json.member("topic"), topic)) {
        return false;
    }
    data.topic = mqtt::Topic(topic);
    return true;
}

bool isSame(BindRequestData const& a, BindRequestData const& b) {
    return a.topic == b.topic;
}

template <class T>
T const& asReadBack(T const& value) {
    return value;
}

/// Each reading of a topic removes one "/" at either end.
BindRequestData asReadBack(BindRequestData const& data) {
    return BindRequestData(mqtt::Topic(data.topic.text()));
}

template <class T>
constexpr bool IS_DATA_OF_A_REQUEST = std::is_base_of_v<mqtt::RequestReplyData, T>;

template <class T>
void read(std::string const& text, T& value) {
    if constexpr (IS_DATA_OF_A_REQUEST<T>) {
        Deserializer in(text);
        value.deserialize(in);
    } else {
        mqtt::MqttData<T>::deserialize(mqtt::Topic(), text, text.empty(), value);
    }
}

template <class T>
std::string written(T const& value) {
    std::string text;
    if constexpr (IS_DATA_OF_A_REQUEST<T>) {
        Serializer out(text);
        value.serialize(out);
        out.finalize();
    } else if constexpr (std::is_same_v<T, Links>) {
        mqtt::MqttDataCollection<Link>::serialize(mqtt::Topic(), text, value);
    } else {
        mqtt::MqttData<T>::serialize(mqtt::Topic(), text, value);
    }
    return text;
}

/// @return the value that was read, or the one before
template <class T>
T check(std::string const& text, Json const& json, T value) {
    T expected = value;
    bool const isEmptyPayload = text.empty() && !IS_DATA_OF_A_REQUEST<T>;
    bool const isAccepted = isEmptyPayload || readExpected(json, expected);
    require(fuzz::succeeds([&] { read(text, value); }) == isAccepted, "the document is accepted");
    require(isSame(value, expected), "each value, unchanged when absent");
    T again;
    read(written(value), again);
    require(isSame(again, asReadBack(value)), "it reads back");
    return value;
}

void checkElements(std::string_view text, Json const& json) {
    std::vector<std::string_view> elements; // those before the first error
    fuzz::succeeds([&] {
        mqtt::ArrayElements array(text);
        for (std::string_view element; array.next(element);) {
            elements.push_back(element);
        }
    });
    for (auto const element : elements) {
        require(text.find(element) != std::string_view::npos, "an element is part of the text");
    }
    require(json.kind != Json::Kind::ARRAY
                || std::equal(elements.begin(), elements.end(), json.children.begin(),
                              json.children.end(),
                              [](std::string_view a, Json const& b) { return a == b.raw; }),
            "the elements of a valid array");
}

} // namespace

void fuzz::run(std::string_view bytes) {
    std::string const text(bytes);
    Json json;
    fuzz::parse(text, json);
    check(text, json, Link{"before"});
    auto const links = check(text, json, Links{{"before"}, {"reading"}});
    require(links.capacity() <= text.size() + 2, "room for no more than the text can hold");
    checkElements(text, json);
    check(text, json, CommunicationStatus{static_cast<conv::ComState>(77), conv::UnixTime(5.5)});
    Identification identification;
    for (auto const& [key, field] : FIELDS) {
        identification.*field = key;
    }
    check(text, json, identification);
    check(text, json, ServiceStatus{201, 202});
    check(text, json, TimeSyncRequestData(1.5));
    check(text, json, TimeSyncReplyData(1.5, 2.5));
    check(text, json, BindRequestData(mqtt::Topic("be/fore")));
}
