#pragma once

#include <mqtt/fields.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sample {

enum class Mode : std::int8_t { REVERSE = -1, OFF = 0, FORWARD = 1 };

struct Point {
    double x = 0;
    int y = 0;
};

/// A value with every kind of field.
struct EveryKind {
    bool flag = false;
    char letter = 0;
    std::int8_t i8 = 0;
    std::uint8_t u8 = 0;
    std::int16_t i16 = 0;
    std::uint16_t u16 = 0;
    std::int32_t i32 = 0;
    std::uint32_t u32 = 0;
    std::int64_t i64 = 0;
    std::uint64_t u64 = 0;
    float small = 0;
    double large = 0;
    std::string text;
    conv::UnixTime time;
    Mode mode = Mode::OFF;
    Point point;
    std::optional<int> count = 7;
    std::optional<std::string> note;
    std::optional<Point> target;
    std::optional<std::vector<Point>> path;
    std::vector<unsigned> numbers{7};
    std::vector<bool> flags;
    std::vector<std::string> texts;
    std::vector<Point> points;
    std::vector<std::vector<Point>> lines;
    std::vector<std::optional<double>> samples;
    int notListed = 0;
};

struct Reading {
    double value = 0;
    std::string unit;
};

/// A usual value.
struct Measurement {
    double value = 0;
    std::string unit;
    unsigned number = 0;
    bool isGood = false;
    conv::UnixTime time;
    Mode mode = Mode::OFF;
    Point place;
    std::optional<std::string> note;
    std::vector<unsigned> history;
};

ZYM_MQTT_VALUE(Point, "", 0, false, x, y)
ZYM_MQTT_VALUE(EveryKind, "every/kind", 1, false, flag, letter, i8, u8, i16, u16, i32, u32, i64,
               u64, small, large, text, time, mode, point, count, note, target, path, numbers,
               flags, texts, points, lines, samples)
ZYM_MQTT_VALUE(Reading, "reading", 2, true, value, unit)
ZYM_MQTT_VALUE(Measurement, "measurement", 2, true, value, unit, number, isGood, time, mode, place,
               note, history)

} // namespace sample
