#pragma once

#include <mqtt/data.hpp>

#include <string>

/// The document of a value, written over another text.
template <class T>
std::string written(T const& value) {
    std::string payload = "old content";
    mqtt::MqttData<T>::serialize("a", payload, value);
    return payload;
}

template <class T>
void read(T& value, std::string const& payload, bool empty = false) {
    mqtt::MqttData<T>::deserialize("a", payload, empty, value);
}
