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

/// What other programs may send: with members, but no JSON object.
inline std::string const MALFORMED[] = {
    "{",
    "9",
    "null",
    R"({"state": 9, "operating": 9, "health": 9, "@id": "x)",
    R"({"state": 9, "operating": 9, "health": 9, "@id": "x"}})",
    R"([{"state": 9, "operating": 9, "health": 9, "@id": "x"}])",
    std::string(100000, '[')};
