#pragma once

// How `mqtt/fields.hpp` reads values: into new objects, so that a failure changes nothing. A text
// is the one that the platform's reader gives for a member, or that of an element of an array.

#include "mqtt/fields/text.hpp"
#include "mqtt/fields/types.hpp"

#include <exception>
#include <limits>
#include <utility>

namespace mqtt::fields {

template <class T>
void readFields(Deserializer const& in, T& value);

template <class T>
void readValue(std::string_view text, T& value);

// The readers of other platforms take and give pointers to texts that a zero byte ends.

inline std::string_view viewOf(std::string_view text) {
    return text;
}
inline std::string_view viewOf(char const* text) {
    return text == nullptr ? std::string_view() : text;
}

template <class T, class Reader = Deserializer>
void readWithPlatform(std::string_view text, T& value) {
    using Text = decltype(std::declval<Reader const&>().getMember(""));
    if constexpr (std::is_pointer_v<Text>) {
        Reader::extractValue(text.data(), value, "");
    } else {
        Reader::extractValue(text, value, "");
    }
}

template <class T, class Reader = Deserializer>
void readObject(std::string_view text, T& value) {
    if constexpr (std::is_constructible_v<Reader, std::string_view>) {
        readFields(Reader(text), value);
    } else {
        std::string const json(text);
        readFields(Reader(json), value);
    }
}

template <class T>
void readOptional(std::string_view text, std::optional<T>& value) {
    value.reset();
    if (!text.empty() && text != "null") {
        readValue(text, value.emplace());
    }
}

template <class T>
void readArray(std::string_view text, std::vector<T>& elements) {
    elements.clear();
    readElements(text, &elements, [](void* to, std::string_view element) {
        T value{};
        readValue(element, value);
        static_cast<std::vector<T>*>(to)->push_back(std::move(value));
    });
}

template <class T>
void readNumber(std::string_view text, T& value) {
    using Limits = std::numeric_limits<T>;
    if constexpr (std::is_same_v<T, float>) {
        double number = 0;
        readWithPlatform(text, number);
        value = toFloat(number);
    } else {
        value = static_cast<T>(readInteger<Wide<T>>(text, Limits::min(), Limits::max()));
    }
}

template <class T>
void readPresent(std::string_view text, T& value) {
    if (text.empty()) {
        failMissing();
    }
    if constexpr (HAS_FIELDS<T>) {
        readObject(text, value);
    } else if constexpr (IS_OF_THE_PLATFORM<T>) {
        readWithPlatform(text, value);
    } else if constexpr (std::is_same_v<T, bool>) {
        value = readBool(text);
    } else if constexpr (std::is_enum_v<T>) {
        std::underlying_type_t<T> number{};
        readValue(text, number);
        value = static_cast<T>(number);
    } else if constexpr (std::is_arithmetic_v<T>) {
        readNumber(text, value);
    } else if constexpr (IS_VECTOR<T>) {
        readArray(text, value);
    }
}

template <class T>
void readValue(std::string_view text, T& value) {
    requireForm<T>();
    if constexpr (IS_OPTIONAL<T>) {
        readOptional(text, value);
    } else {
        readPresent(text, value);
    }
}

/// Reads the members of an object.
template <class T>
void readFields(Deserializer const& in, T& value) {
    char const* current = nullptr;
    try {
        zymMqttFields(Of<T>(), [&](char const* key, auto member) {
            auto const text = viewOf(in.getMember(key)); // throws when the document is no object
            current = key;
            readValue(text, value.*member);
        });
    } catch (std::exception const&) {
        rethrowForField(current);
    }
}

/// Reads the members of an object, all or none, and leaves other members as they are.
template <class T>
void readAll(Deserializer const& in, T& value) {
    if constexpr (requireFields<T>()) {
        T read{};
        readFields(in, read);
        zymMqttFields(Of<T>(), [&](char const* /*key*/, auto member) {
            value.*member = std::move(read.*member);
        });
    }
}

} // namespace mqtt::fields
