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

using sample::EveryKind;
using sample::Point;
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

inline void appendPoint(Serializer& out, Point const& point) {
    std::string text;
    Serializer object(text);
    write(object, point);
    out.addValue(object);
}

inline void addPoint(Serializer& out, char const* key, Point const& point) {
    out.appendKey(key);
    appendPoint(out, point);
}

inline void addPoints(Serializer& out, char const* key, std::vector<Point> const& points) {
    std::vector<Serializer> objects;
    objects.reserve(points.size());
    std::string text;
    for (auto const& point : points) {
        Serializer object(text);
        write(object, point);
        objects.emplace_back(std::as_const(text));
    }
    add(out, key, objects);
}

/// @param append appends an element and a comma
template <class T, class Append>
void addArray(Serializer& out, char const* key, std::vector<T> const& elements, Append append) {
    out.appendKey(key);
    auto& json = out.mutableJson();
    json += '[';
    for (T const& element : elements) {
        append(element);
    }
    if (json.back() == ',') {
        json.pop_back();
    }
    out.appendValue("]");
}

inline void addNumbers(Serializer& out, EveryKind const& value) {
    out.appendKey("flag");
    out.appendValue(value.flag ? "true" : "false");
    addInteger(out, "letter", static_cast<int>(value.letter));
    addInteger(out, "i8", value.i8);
    addInteger(out, "u8", value.u8);
    addInteger(out, "i16", value.i16);
    addInteger(out, "u16", value.u16);
    addInteger(out, "i32", value.i32);
    addInteger(out, "u32", value.u32);
    addInteger(out, "i64", value.i64);
    addInteger(out, "u64", value.u64);
    add(out, "small", static_cast<double>(value.small));
    add(out, "large", value.large);
}

inline void addOptionals(Serializer& out, EveryKind const& value) {
    if (value.count) {
        addInteger(out, "count", *value.count);
    }
    if (value.note) {
        add(out, "note", *value.note);
    }
    if (value.target) {
        addPoint(out, "target", *value.target);
    }
    if (value.path) {
        addPoints(out, "path", *value.path);
    }
}

inline void addLine(Serializer& out, std::vector<Point> const& line) {
    auto& json = out.mutableJson();
    json += '[';
    for (auto const& point : line) {
        appendPoint(out, point);
    }
    if (json.back() == ',') {
        json.pop_back();
    }
    out.appendValue("]");
}

inline void addArrays(Serializer& out, EveryKind const& value) {
    addArray(out, "numbers", value.numbers, [&](unsigned number) { appendInteger(out, number); });
    addArray(out, "flags", value.flags,
             [&](bool flag) { out.appendValue(flag ? "true" : "false"); });
    addArray(out, "texts", value.texts, [&](std::string const& text) { out.addValue(text); });
    addPoints(out, "points", value.points);
    addArray(out, "lines", value.lines, [&](auto const& line) { addLine(out, line); });
    addArray(out, "samples", value.samples, [&](std::optional<double> const& sample) {
        sample ? out.addValue(*sample) : out.appendValue("null");
    });
}

inline void write(std::string& payload, EveryKind const& value) {
    Serializer out(payload);
    addNumbers(out, value);
    add(out, "text", value.text);
    add(out, "time", value.time);
    addInteger(out, "mode", static_cast<int>(value.mode));
    addPoint(out, "point", value.point);
    addOptionals(out, value);
    addArrays(out, value);
    out.finalize();
}

using sample::Measurement;
using sample::Reading;

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
    addArray(out, "history", value.history, [&](unsigned number) { appendInteger(out, number); });
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
