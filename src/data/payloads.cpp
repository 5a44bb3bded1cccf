#include "mqtt/payloads.hpp"

#include "common/json_members.hpp"

#include <zym/common/lwjson.hpp>

#include <array>
#include <exception>
#include <utility>

namespace mqtt {

namespace {

using conv::CommunicationStatus;
using conv::Identification;
using conv::ServiceStatus;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

constexpr int QOS = 2;
constexpr bool RETAINED = true;

/// The members of an identification, in the order in which they are written.
constexpr std::array<std::pair<char const*, std::string Identification::*>, 10> IDENTIFICATION{
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

} // namespace

template <>
MqttData<CommunicationStatus>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic + "communication", QOS, RETAINED) {}

template <>
void MqttData<CommunicationStatus>::serialize(Topic const& /*topic*/, std::string& payload,
                                              CommunicationStatus const& value) {
    Serializer out(payload);
    appendNumber(out, "state", static_cast<unsigned int>(value.state));
    appendMember(out, "since", value.since);
    out.finalize();
}

template <>
void MqttData<CommunicationStatus>::deserialize(Topic const& /*topic*/, std::string const& payload,
                                                bool empty, CommunicationStatus& value) {
    if (empty) {
        return;
    }
    try {
        Deserializer const in(payload);
        unsigned char state = 0;
        readMember(in, "state", state);
        value.state = static_cast<conv::ComState>(state);
        readMember(in, "since", value.since);
    } catch (std::exception const&) {
        value.since = conv::UnixTime();
    }
}

template <>
char const* const MqttData<Identification>::TOPIC_SUFFIX = "identification";

template <>
MqttData<Identification>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic + TOPIC_SUFFIX, QOS, RETAINED) {}

template <>
void MqttData<Identification>::serialize(Topic const& /*topic*/, std::string& payload,
                                         Identification const& value) {
    Serializer out(payload);
    for (auto const& [key, field] : IDENTIFICATION) {
        appendMember(out, key, value.*field);
    }
    out.finalize();
}

template <>
void MqttData<Identification>::deserialize(Topic const& /*topic*/, std::string const& payload,
                                           bool empty, Identification& value) {
    if (empty) {
        return;
    }
    Deserializer const in(payload);
    for (auto const& [key, field] : IDENTIFICATION) {
        try {
            readMember(in, key, value.*field);
        } catch (std::exception const&) {
            // This field keeps its value, and the next one is read.
        }
    }
}

template <>
char const* const MqttData<ServiceStatus>::TOPIC_SUFFIX = "status";

template <>
MqttData<ServiceStatus>::MqttData(MqttClient& client, Topic const& topic)
    : MqttDataBase(client, topic + TOPIC_SUFFIX, QOS, RETAINED) {}

template <>
void MqttData<ServiceStatus>::serialize(Topic const& /*topic*/, std::string& payload,
                                        ServiceStatus const& value) {
    Serializer out(payload);
    appendNumber(out, "operating", value.operating);
    appendNumber(out, "health", value.health);
    out.finalize();
}

template <>
void MqttData<ServiceStatus>::deserialize(Topic const& /*topic*/, std::string const& payload,
                                          bool empty, ServiceStatus& value) {
    if (empty) {
        return;
    }
    Deserializer const in(payload);
    readMember(in, "operating", value.operating);
    readMember(in, "health", value.health);
}

template class MqttData<CommunicationStatus>;
template class MqttData<Identification>;
template class MqttData<ServiceStatus>;

} // namespace mqtt
