#pragma once

#include "data/every_kind.hpp"

#include <zym/common/lwjson.hpp>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>
#include <utility>

/// Writing and reading as an application would do it with the platform library alone.
namespace by_hand {

using sample::Measurement;
using sample::Point;
using sample::Reading;
using zym::common::lwjson::Deserializer;
using zym::common::lwjson::Serializer;

template <class Integer>
void appendInteger(Serializer& out, Integer number) {
    char text[24];
    *std::to_chars(text, text + sizeof text - 1, number).ptr = '\0';
    out.appendValue(text);
}

template <class Integer>
void addInteger(Serializer& out, char const* key, Integer number) {
    out.appendKey(key);
    appendInteger(out, number);
}

template <class T>
void add(Serializer& out, char const* key, T const& value) {
    out.appendKey(key);
    out.addValue(value);
}

/// @param object writes into an empty text
inline void write(Serializer& object, Point const& point) {
    add(object, "x", point.x);
    addInteger(object, "y", point.y);
    object.finalize();
}

inline void addPoint(Serializer& out, char const* key, Point const& point) {
    out.appendKey(key);
    std::string text;
    Serializer object(text);
    write(object, point);
    out.addValue(object);
}

inline void addNumbers(Serializer& out, char const* key, std::vector<unsigned> const& numbers) {
    out.appendKey(key);
    auto& json = out.mutableJson();
    json += '[';
    for (unsigned const number : numbers) {
        appendInteger(out, number); // and a comma
    }
    if (json.back() == ',') {
        json.pop_back();
    }
    out.appendValue("]");
}

inline void write(std::string& payload, Reading const& value) {
    Serializer out(payload);
    add(out, "value", value.value);
    add(out, "unit", value.unit);
    out.finalize();
}

inline void read(std::string const& payload, Reading& value) {
    Deserializer const in(payload);
    Reading read;
    Deserializer::extractValue(in.getMember("value"), read.value, "");
    Deserializer::extractValue(in.getMember("unit"), read.unit, "");
    value = std::move(read);
}

inline void write(std::string& payload, Measurement const& value) {
    Serializer out(payload);
    add(out, "value", value.value);
    add(out, "unit", value.unit);
    addInteger(out, "number", value.number);
    out.appendKey("isGood");
    out.appendValue(value.isGood ? "true" : "false");
    add(out, "time", value.time);
    addInteger(out, "mode", static_cast<int>(value.mode));
    addPoint(out, "place", value.place);
    if (value.note) {
        add(out, "note", *value.note);
    }
    addNumbers(out, "history", value.history);
    out.finalize();
}

inline void require(bool condition) {
    if (!condition) {
        throw std::runtime_error("not a measurement");
    }
}

template <class Integer>
Integer integerOf(std::string_view text) {
    Integer number = 0;
    auto const* const end = text.data() + text.size();
    auto const result = std::from_chars(text.data(), end, number);
    require(result.ec == std::errc() && result.ptr == end);
    return number;
}

inline bool boolOf(std::string_view text) {
    require(text == "true" || text == "false");
    return text == "true";
}

inline Point pointOf(std::string const& text) {
    Deserializer const in(text);
    Point point;
    Deserializer::extractValue(in.getMember("x"), point.x, "");
    point.y = integerOf<int>(in.getMember("y"));
    return point;
}

inline std::vector<unsigned> numbersOf(std::string_view text) {
    require(text.size() >= 2 && text.front() == '[' && text.back() == ']');
    text = text.substr(1, text.size() - 2);
    std::vector<unsigned> numbers;
    while (!text.empty()) {
        auto const element = text.substr(0, text.find(','));
        numbers.push_back(integerOf<unsigned>(element));
        text.remove_prefix(std::min(element.size() + 1, text.size()));
    }
    return numbers;
}

inline void read(std::string const& payload, Measurement& value) {
    Deserializer const in(payload);
    Measurement read;
    Deserializer::extractValue(in.getMember("value"), read.value, "");
    Deserializer::extractValue(in.getMember("unit"), read.unit, "");
    Deserializer::extractValue(in.getMember("number"), read.number, "");
    read.isGood = boolOf(in.getMember("isGood"));
    Deserializer::extractValue(in.getMember("time"), read.time, "");
    read.mode = sample::Mode{integerOf<std::int8_t>(in.getMember("mode"))};
    read.place = pointOf(std::string(in.getMember("place")));
    if (std::string_view const note = in.getMember("note"); !note.empty() && note != "null") {
        Deserializer::extractValue(note, read.note.emplace(), "");
    }
    read.history = numbersOf(in.getMember("history"));
    value = std::move(read);
}

} // namespace by_hand
