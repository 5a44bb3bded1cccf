#pragma once

#include <mqtt/data.hpp>

/// How full a tank is.
struct FillLevel {
    unsigned int litres = 0;
};

template <>
char const* const mqtt::MqttData<FillLevel>::TOPIC_SUFFIX;
template <>
mqtt::MqttData<FillLevel>::MqttData(MqttClient& client, Topic const& topic);
template <>
void mqtt::MqttData<FillLevel>::serialize(Topic const& topic, std::string& payload,
                                          FillLevel const& level);
template <>
void mqtt::MqttData<FillLevel>::deserialize(Topic const& topic, std::string const& payload,
                                            bool empty, FillLevel& level);
