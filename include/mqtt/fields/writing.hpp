#pragma once

// How `mqtt/fields.hpp` writes values.

#include "mqtt/fields/text.hpp"
#include "mqtt/fields/types.hpp"

#include <charconv>
#include <limits>
#include <utility>

namespace mqtt::fields {

template <class T>
void writeFields(Serializer& out, T const& value);

template <class T>
void writeValue(Serializer& out, T const& value);

template <class T>
void writeObject(Serializer& out, T const& value) {
    std::string json;
    Serializer object(json);
    writeFields(object, value);
    object.finalize();
    out.addValue(object);
}

template <class Integer>
void writeInteger(Serializer& out, Integer number) {
    char text[std::numeric_limits<Integer>::digits10 + 3]; // one more digit, sign and end
    *std::to_chars(text, text + sizeof text - 1, number).ptr = '\0';
    out.appendValue(text);
}

/// On one line.
template <class T>
void writeArray(Serializer& out, std::vector<T> const& elements) {
    auto& json = out.mutableJson();
    json += '[';
    for (T const& element : elements) {
        writeValue(out, element);
        if (json.back()
            != ',') { // a writer may put it there with the next value, or a blank behind
            appendComma(json);
        }
    }
    if (!elements.empty()) {
        json.pop_back();
    }
    out.appendValue("]");
}

/// Each object on a line of its own.
template <class T>
void writeObjects(Serializer& out, std::vector<T> const& elements) {
    std::vector<Serializer> objects;
    objects.reserve(elements.size());
    std::string json;
    for (T const& element : elements) {
        Serializer object(json);
        writeFields(object, element);
        object.finalize();
        objects.emplace_back(std::as_const(json));
    }
    out.addValue(objects);
}

/// In an array: an empty member is left out.
template <class T>
void writeOptional(Serializer& out, std::optional<T> const& value) {
    if (value) {
        writeValue(out, *value);
    } else {
        out.appendValue("null");
    }
}

template <class T>
void writeValue(Serializer& out, T const& value) {
    requireForm<T>();
    if constexpr (HAS_FIELDS<T>) {
        writeObject(out, value);
    } else if constexpr (IS_OF_THE_PLATFORM<T>) {
        out.addValue(value);
    } else if constexpr (std::is_same_v<T, bool>) {
        out.appendValue(value ? "true" : "false");
    } else if constexpr (std::is_same_v<T, float>) {
        out.addValue(static_cast<double>(value));
    } else if constexpr (std::is_enum_v<T>) {
        writeValue(out, static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_integral_v<T>) {
        writeInteger(out, static_cast<Wide<T>>(value));
    } else if constexpr (IS_OPTIONAL<T>) {
        writeOptional(out, value);
    } else if constexpr (IS_VECTOR<T>) {
        writeArray(out, value);
    }
}

template <class T>
void writeMember(Serializer& out, char const* key, T const& value) {
    if constexpr (IS_OPTIONAL<T>) {
        if (value) {
            writeMember(out, key, *value);
        }
    } else {
        out.appendKey(key);
        if constexpr (IS_VECTOR_OF_OBJECTS<T>) {
            writeObjects(out, value);
        } else {
            writeValue(out, value);
        }
    }
}

/// Writes the members of an object.
template <class T>
void writeFields(Serializer& out, T const& value) {
    if constexpr (requireFields<T>()) {
        zymMqttFields(Of<T>(),
                      [&](char const* key, auto member) { writeMember(out, key, value.*member); });
    }
}

} // namespace mqtt::fields
