// Reads any payload as each status document of a service.

#include "fuzz/typed_values.hpp"

#include <mqtt/payloads.hpp>

#include <array>
#include <utility>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;

template <class T>
T writtenAndRead(T const& value) {
    return fuzz::writtenAndRead<mqtt::MqttData<T>>(value);
}

bool isSame(conv::UnixTime const& a, conv::UnixTime const& b) {
    return a.valid == b.valid && fuzz::sameNumber(a.seconds, b.seconds);
}

bool isSame(conv::CommunicationStatus const& a, conv::CommunicationStatus const& b) {
    return a.state == b.state && isSame(a.since, b.since);
}

void readExpected(Json const& json, conv::CommunicationStatus& status) {
    std::uint64_t state = 0;
    double since = 0;
    status.since = conv::UnixTime();
    if (fuzz::readInteger(json.member("state"), 0xffU, state) == Outcome::SUCCESS) {
        status.state = static_cast<conv::ComState>(state);
        if (fuzz::readNumber(json.member("since"), since) == Outcome::SUCCESS) {
            status.since = conv::UnixTime(since);
        }
    }
}

void checkCommunicationStatus(std::string const& payload, Json const& json) {
    conv::CommunicationStatus value{static_cast<conv::ComState>(77), conv::UnixTime(5.5)};
    auto expected = value;
    if (!payload.empty()) {
        readExpected(json, expected);
    }
    require(fuzz::read(payload, value), "a communication status is always accepted");
    require(isSame(value, expected), "state and time");
    require(isSame(writtenAndRead(value), value), "a communication status reads back");
}

void checkIdentification(std::string const& payload, Json const& json) {
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
    require(fuzz::read(payload, value) || json.kind != Json::Kind::OBJECT,
            "an object is always accepted as an identification");
    auto const again = writtenAndRead(value);
    for (auto const& [key, field] : FIELDS) {
        std::string expected = key;
        fuzz::readText(json.member(key), expected);
        require(value.*field == expected, "a field, unchanged when absent");
        require(again.*field == expected, "a field reads back");
    }
}

void checkServiceStatus(std::string const& payload, Json const& json) {
    conv::ServiceStatus value{201, 202};
    std::uint64_t operating = value.operating;
    std::uint64_t health = value.health;
    bool const isAccepted =
        payload.empty()
        || (fuzz::readInteger(json.member("operating"), 0xffU, operating) == Outcome::SUCCESS
            && fuzz::readInteger(json.member("health"), 0xffU, health) == Outcome::SUCCESS);
    require(fuzz::read(payload, value) == isAccepted, "a status without both members is dropped");
    require(value.operating == operating && value.health == health, "both codes");
    auto const again = writtenAndRead(value);
    require(again.operating == operating && again.health == health, "both codes read back");
}

void run(std::string_view bytes) {
    std::string const payload(bytes);
    Json json;
    fuzz::parse(bytes, json);
    checkCommunicationStatus(payload, json);
    checkIdentification(payload, json);
    checkServiceStatus(payload, json);
}

fuzz::Target const STATUS_DOCUMENTS("status_documents", run);

} // namespace
