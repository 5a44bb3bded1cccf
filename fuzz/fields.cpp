// Reads any text as values whose fields are named in a list, as the reference does; then writes
// what was read, and reads it back.

#include "data/every_kind.hpp"
#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <type_traits>

namespace app {

struct Node {
    std::optional<int> number;
    std::vector<Node> below;
};
ZYM_MQTT_FIELDS(Node, number, below)

} // namespace app

namespace {

using fuzz::Json;
using fuzz::require;

// For each kind of field: what the reference reads. Returns false when the document is refused.

template <class T>
bool readExpected(Json const& json, T& out);

template <class T>
bool readInteger(Json const& json, T& out) {
    std::string const text(json.raw);
    bool const isNegative = text.front() == '-';
    if (json.kind != Json::Kind::NUMBER || text.find_first_of(".eE") != std::string::npos
        || (isNegative && std::is_unsigned_v<T>)) {
        return false;
    }
    errno = 0;
    auto const negative = std::strtoll(text.c_str(), nullptr, 10);
    if (isNegative) {
        out = static_cast<T>(negative);
        return errno == 0 && negative >= static_cast<long long>(std::numeric_limits<T>::min());
    }
    errno = 0;
    auto const positive = std::strtoull(text.c_str(), nullptr, 10);
    out = static_cast<T>(positive);
    return errno == 0 && positive <= static_cast<unsigned long long>(std::numeric_limits<T>::max());
}

bool readNumber(Json const& json, float& out) {
    double number = 0;
    if (!fuzz::reads(json, number) || std::abs(number) > std::numeric_limits<float>::max()) {
        return false;
    }
    out = static_cast<float>(number);
    return true;
}

bool readTime(Json const& json, conv::UnixTime& out) {
    double seconds = 0;
    bool const isNumber = fuzz::reads(json, seconds);
    out = isNumber ? conv::UnixTime(seconds) : conv::UnixTime();
    return isNumber || json.raw == "null";
}

template <class T>
bool readArray(Json const& json, std::vector<T>& out) {
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
bool readObject(Json const& json, T& out) {
    bool isGood = json.kind == Json::Kind::OBJECT;
    zymMqttFields(mqtt::fields::Of<T>(), [&](char const* key, auto member) {
        isGood = isGood && readExpected(json.member(key), out.*member);
    });
    return isGood;
}

template <class T>
bool readExpected(Json const& json, T& out) {
    if constexpr (mqtt::fields::IS_OPTIONAL<T>) {
        out.reset();
        return json.kind == Json::Kind::ABSENT || json.raw == "null"
               || readExpected(json, out.emplace());
    } else if (json.kind == Json::Kind::ABSENT) {
        return false;
    } else if constexpr (mqtt::fields::IS_VECTOR<T>) {
        return readArray(json, out);
    } else if constexpr (mqtt::fields::HAS_FIELDS<T>) {
        return readObject(json, out);
    } else if constexpr (std::is_same_v<T, bool>) {
        out = json.raw == "true";
        return out || json.raw == "false";
    } else if constexpr (std::is_enum_v<T>) {
        std::underlying_type_t<T> number{};
        bool const isGood = readInteger(json, number);
        out = T{number};
        return isGood;
    } else if constexpr (std::is_integral_v<T>) {
        return readInteger(json, out);
    } else if constexpr (std::is_same_v<T, float>) {
        return readNumber(json, out);
    } else if constexpr (std::is_same_v<T, conv::UnixTime>) {
        return readTime(json, out);
    } else {
        return fuzz::reads(json, out);
    }
}

template <class T>
std::string written(T const& value) {
    std::string text;
    mqtt::MqttData<T>::serialize(mqtt::Topic(), text, value);
    return text;
}

template <class T>
void check(std::string const& text, Json const& json) {
    T value{};
    T expected{};
    bool const isAccepted = readExpected(json, expected);
    bool const isRead =
        fuzz::succeeds([&] { mqtt::MqttData<T>::deserialize(mqtt::Topic(), text, false, value); });
    require(isRead == isAccepted, "the document is accepted");
    require(written(value) == written(isAccepted ? expected : T{}), "all fields, or none");
    T again{};
    mqtt::MqttData<T>::deserialize(mqtt::Topic(), written(value), false, again);
    require(written(again) == written(value), "it reads back");
}

} // namespace

void fuzz::run(std::string_view bytes) {
    std::string const text(bytes);
    Json json;
    fuzz::parse(text, json);
    check<sample::EveryKind>(text, json);
    check<sample::Measurement>(text, json);
    check<app::Node>(text, json);
}
