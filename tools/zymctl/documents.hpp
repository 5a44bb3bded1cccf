#pragma once

#include <mqtt/link.hpp>
#include <mqtt/topic.hpp>
#include <zym/common/lwjson.hpp>

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

bool isJsonObject(std::string const& text);
/// A member of a JSON object. Empty: there is no object, no such member, or no such value.
template <class Value>
std::optional<Value> readMember(std::string const& json, char const* key) try {
    using zym::common::lwjson::Deserializer;
    Value value{};
    Deserializer::extractValue(Deserializer(std::string_view(json)).getMember(key), value, "");
    return value;
} catch (std::exception const&) {
    return std::nullopt;
}
/// JSON without line ends and the blanks behind them.
std::string onOneLine(std::string_view json);
/// UTF-8, without control characters but those that lay out a text.
bool isText(std::string payload);
std::string hexadecimal(std::string const& bytes);
/// For a terminal: on one line, without anything that a terminal would execute.
std::string printable(std::string const& payload);
/// A local time, with a format of strftime.
std::string timeText(double secondsSince1970, char const* format);

/// What a message says, in words if it is a document of the library.
std::string describe(mqtt::Topic const& topic, std::string const& payload);

/// None: also for another document.
std::vector<mqtt::Link> readLinks(std::string const& payload);
