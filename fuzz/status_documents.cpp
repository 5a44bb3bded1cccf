// Any payload on the topics of a service's status: what is read of it, and what stays as it was.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/payloads.hpp>

#include <array>
#include <exception>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;
using mqtt::MqttData;

template <class T>
bool isTaken(std::string const& payload, T& value) {
    try {
        MqttData<T>::deserialize(mqtt::Topic(), payload, payload.empty(), value);
        return true;
    } catch (std::exception const&) {
        return false;
    }
}

template <class T>
T readAgain(T const& value) {
    std::string payload;
    MqttData<T>::serialize(mqtt::Topic(), payload, value);
    T again;
    require(isTaken(payload, again), "what is written can be read");
    return again;
}

bool isSame(conv::UnixTime const& a, conv::UnixTime const& b) {
    return a.valid == b.valid && fuzz::sameNumber(a.seconds, b.seconds);
}

void communication(std::string const& payload, Json const& json) {
    conv::CommunicationStatus expected{static_cast<conv::ComState>(77), conv::UnixTime(5.5)};
    auto value = expected;
    require(isTaken(payload, value), "reading a communication status never fails");
    if (!payload.empty()) {
        expected.since = conv::UnixTime();
        std::uint64_t state = 0;
        double since = 0;
        if (fuzz::readInteger(json.member("state"), 0xffU, state) == Outcome::TAKEN) {
            expected.state = static_cast<conv::ComState>(state);
            if (fuzz::readNumber(json.member("since"), since) == Outcome::TAKEN) {
                expected.since = conv::UnixTime(since);
            }
        }
    }
    require(value.state == expected.state, "the state");
    require(isSame(value.since, expected.since), "since when");
    auto const again = readAgain(value);
    require(again.state == value.state && isSame(again.since, value.since), "it reads back");
}

void identification(std::string const& payload, Json const& json) {
    using conv::Identification;
    static constexpr std::array<std::pair<char const*, std::string Identification::*>, 10> FIELDS{
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
    Identification value;
    for (auto const& [key, field] : FIELDS) {
        value.*field = key;
    }
    // Only a document that is no object can fail.
    bool const taken = isTaken(payload, value);
    require(taken || json.kind != Json::Kind::OBJECT, "reading an identification never fails");
    auto const again = readAgain(value);
    for (auto const& [key, field] : FIELDS) {
        std::string expected = key;
        fuzz::readText(json.member(key), expected);
        require(value.*field == expected, "a field is read, or what it was");
        require(again.*field == expected, "a field reads back");
    }
}

void status(std::string const& payload, Json const& json) {
    conv::ServiceStatus value{201, 202};
    std::uint64_t operating = value.operating;
    std::uint64_t health = value.health;
    bool const taken = isTaken(payload, value);
    bool expected = payload.empty();
    if (fuzz::readInteger(json.member("operating"), 0xffU, operating) == Outcome::TAKEN) {
        expected = fuzz::readInteger(json.member("health"), 0xffU, health) == Outcome::TAKEN;
    }
    require(taken == expected, "a status is dropped without one of its members");
    require(value.operating == operating && value.health == health, "the two codes");
    auto const again = readAgain(value);
    require(again.operating == operating && again.health == health, "they read back");
}

void run(std::string_view bytes) {
    std::string const payload(bytes);
    Json json;
    fuzz::readReference(bytes, json);
    communication(payload, json);
    identification(payload, json);
    status(payload, json);
}

fuzz::Target const STATUS_DOCUMENTS("status_documents", run);

} // namespace
