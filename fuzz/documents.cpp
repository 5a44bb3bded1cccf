// Reads any text as each document that the library defines, and as values with a list of fields, as
// the reference does; then writes the value and reads it back.

#include "data/array_elements.hpp"
#include "data/every_kind.hpp"
#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/link.hpp>
#include <mqtt/payloads.hpp>
#include <mqtt/time_base.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace app {

struct Node {
    std::optional<int> number;
    std::vector<Node> below;
};
ZYM_MQTT_FIELDS(Node, number, below)

} // namespace app

namespace {

using conv::CommunicationStatus;
using conv::Identification;
using conv::ServiceStatus;
using fuzz::Json;
using fuzz::require;
using mqtt::Link;
using mqtt::TimeSyncReplyData;
using mqtt::TimeSyncRequestData;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;
using Links = std::vector<Link>;

// For each type of document: what the reference reads, set as the library leaves it, also if it
// returns false because the document is refused.

bool readExpected(Json const& json, Link& link) {
    return fuzz::reads(json.member("@id"), link.id);
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

constexpr std::array<std::pair<char const*, std::string Identification::*>, 10> TEXTS{
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
    for (auto const& [key, text] : TEXTS) {
        fuzz::reads(json.member(key), identification.*text);
    }
    return true;
}

bool readExpected(Json const& json, ServiceStatus& status) {
    return fuzz::reads(json.member("operating"), status.operating)
           && fuzz::reads(json.member("health"), status.health);
}

bool readExpected(Json const& json, TimeSyncRequestData& data) {
    return fuzz::reads(json.member("client"), data.client);
}

bool readExpected(Json const& json, TimeSyncReplyData& data) {
    return fuzz::reads(json.member("client"), data.client)
           && fuzz::reads(json.member("ref"), data.ref);
}

// For each kind of field.

template <class T>
bool readExpected(Json const& json, T& out);
template <class T>
bool readExpected(Json const& json, std::vector<T>& out);

bool readExpected(Json const& json, float& out) {
    double number = 0;
    if (!fuzz::reads(json, number) || std::abs(number) > std::numeric_limits<float>::max()) {
        return false;
    }
    out = static_cast<float>(number);
    return true;
}

bool readExpected(Json const& json, conv::UnixTime& out) {
    double seconds = 0;
    bool const isNumber = fuzz::reads(json, seconds);
    out = isNumber ? conv::UnixTime(seconds) : conv::UnixTime();
    return isNumber || json.raw == "null";
}

bool readExpected(Json const& json, bool& out) {
    out = json.raw == "true";
    return out || json.raw == "false";
}

template <class T>
bool readExpected(Json const& json, std::optional<T>& out) {
    out.reset();
    return json.kind == Json::Kind::ABSENT || json.raw == "null"
           || readExpected(json, out.emplace());
}

template <class T>
bool readExpected(Json const& json, std::vector<T>& out) {
    bool isGood = json.kind == Json::Kind::ARRAY;
    out.clear();
    for (auto const& child : json.children) {
        T element{};
        isGood = isGood && readExpected(child, element);
        out.push_back(element);
    }
    return isGood;
}

template <class T>
bool readExpected(Json const& json, T& out) {
    if constexpr (mqtt::fields::HAS_FIELDS<T>) {
        bool isGood = json.kind == Json::Kind::OBJECT;
        zymMqttFields(mqtt::fields::Of<T>(), [&](char const* key, auto member) {
            isGood = isGood && readExpected(json.member(key), out.*member);
        });
        return isGood;
    } else if constexpr (std::is_enum_v<T>) {
        std::underlying_type_t<T> number{};
        bool const isGood = fuzz::reads(json, number);
        out = T{number};
        return isGood;
    } else {
        return fuzz::reads(json, out);
    }
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
    } else {
        mqtt::MqttData<T>::serialize(mqtt::Topic(), text, value);
    }
    return text;
}

template <class T>
void checkWritten(T const& value) {
    auto const text = written(value);
    Json json;
    require(fuzz::parse(text, json) == fuzz::Validity::VALID, "what is written is JSON");
    T again{};
    read(text, again);
    require(written(again) == text, "it reads back");
}

/// Values are compared by what is written of them.
template <class T>
void check(std::string const& text, Json const& json, T value) {
    auto const before = value;
    auto expected = value;
    bool const isEmptyPayload = text.empty() && !IS_DATA_OF_A_REQUEST<T>;
    bool const isAccepted = isEmptyPayload || readExpected(json, expected);
    if (mqtt::fields::HAS_FIELDS<T> && !isAccepted) {
        expected = before; // all fields, or none
    }
    require(fuzz::succeeds([&] { read(text, value); }) == isAccepted, "the document is accepted");
    require(written(value) == written(expected), "each value, unchanged when absent");
    checkWritten(value);
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
    checkElements(text, json);
    check(text, json, Link{"before"});
    check(text, json, Links{{"before"}, {"reading"}});
    check(text, json, CommunicationStatus{static_cast<conv::ComState>(77), conv::UnixTime(5.5)});
    Identification identification;
    for (auto const& [key, member] : TEXTS) {
        identification.*member = key;
    }
    check(text, json, identification);
    check(text, json, ServiceStatus{201, 202});
    check(text, json, TimeSyncRequestData(1.5));
    check(text, json, TimeSyncReplyData(1.5, 2.5));
    check(text, json, sample::EveryKind());
    check(text, json, sample::Measurement());
    check(text, json, app::Node());
}
