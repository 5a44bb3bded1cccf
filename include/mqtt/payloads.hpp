#pragma once

#include "mqtt/data.hpp"
#include "mqtt/export.hpp"

#include <conv/communication_status.hpp>
#include <conv/identification.hpp>
#include <conv/service_status.hpp>

namespace mqtt {

// The standard values of a service, each on its own level under the service's topic, published at
// QoS 2 and retained. They differ in how they handle a bad document.

/// `{"state": 2, "since": 1700000000.5}` on the level "communication".
///
/// Reading never fails. If a member is missing or wrong, `since` becomes the invalid time, and
/// `state` keeps its value unless it could be read.
template <>
ZYM_MQTT_EXPORT MqttData<conv::CommunicationStatus>::MqttData(MqttClient& client,
                                                              Topic const& topic);
template <>
ZYM_MQTT_EXPORT void
MqttData<conv::CommunicationStatus>::serialize(Topic const& topic, std::string& payload,
                                               conv::CommunicationStatus const& value);
template <>
ZYM_MQTT_EXPORT void
MqttData<conv::CommunicationStatus>::deserialize(Topic const& topic, std::string const& payload,
                                                 bool empty, conv::CommunicationStatus& value);

/// Ten strings, "uuid" to "contact", on the level "identification".
///
/// Reading never fails: each key is read separately, and a field whose key is missing or wrong
/// keeps its value.
template <>
ZYM_MQTT_EXPORT char const* const MqttData<conv::Identification>::TOPIC_SUFFIX;
template <>
ZYM_MQTT_EXPORT MqttData<conv::Identification>::MqttData(MqttClient& client, Topic const& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<conv::Identification>::serialize(Topic const& topic,
                                                               std::string& payload,
                                                               conv::Identification const& value);
template <>
ZYM_MQTT_EXPORT void
MqttData<conv::Identification>::deserialize(Topic const& topic, std::string const& payload,
                                            bool empty, conv::Identification& value);

/// `{"operating": 1, "health": 3}` on the level "status".
///
/// A document without one of the two is dropped; `operating` may have been read before that.
template <>
ZYM_MQTT_EXPORT char const* const MqttData<conv::ServiceStatus>::TOPIC_SUFFIX;
template <>
ZYM_MQTT_EXPORT MqttData<conv::ServiceStatus>::MqttData(MqttClient& client, Topic const& topic);
template <>
ZYM_MQTT_EXPORT void MqttData<conv::ServiceStatus>::serialize(Topic const& topic,
                                                              std::string& payload,
                                                              conv::ServiceStatus const& value);
template <>
ZYM_MQTT_EXPORT void
MqttData<conv::ServiceStatus>::deserialize(Topic const& topic, std::string const& payload,
                                           bool empty, conv::ServiceStatus& value);

extern template class MqttData<conv::CommunicationStatus>;
extern template class MqttData<conv::Identification>;
extern template class MqttData<conv::ServiceStatus>;

} // namespace mqtt
