#pragma once

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <mqtt/data.hpp>

#include <string>

namespace fuzz {

/// Reads a message as a typed value. Returns whether it is accepted.
template <class T>
bool read(mqtt::Topic const& topic, std::string const& payload, T& value) {
    return succeeds(
        [&] { mqtt::MqttData<T>::deserialize(topic, payload, payload.empty(), value); });
}

template <class T>
bool read(std::string const& payload, T& value) {
    return read(mqtt::Topic(), payload, value);
}

/// Writes a value and reads it into another one.
template <class Writer, class T>
T writtenAndRead(T const& value) {
    std::string payload;
    Writer::serialize(mqtt::Topic(), payload, value);
    T result;
    require(read(payload, result), "what is written can be read");
    return result;
}

} // namespace fuzz
