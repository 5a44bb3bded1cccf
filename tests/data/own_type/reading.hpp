#pragma once

#include <mqtt/data.hpp>

#include <string>

/// What a sensor measured.
struct Reading {
    double value = 0;
    std::string unit;
};

// Declared here so that every file uses these and none makes its own.
template <>
char const* const mqtt::MqttData<Reading>::TOPIC_SUFFIX;
template <>
mqtt::MqttData<Reading>::MqttData(MqttClient& client, Topic const& topic);
template <>
void mqtt::MqttData<Reading>::serialize(Topic const& topic, std::string& payload,
                                        Reading const& reading);
template <>
void mqtt::MqttData<Reading>::deserialize(Topic const& topic, std::string const& payload,
                                          bool empty, Reading& reading);
