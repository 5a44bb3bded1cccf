#pragma once

#include <mqtt/topic.hpp>
#include <zym/common/lwjson.hpp>

#include <string>
#include <string_view>

/// A JSON object, member by member, as one line.
class JsonLine {
public:
    JsonLine& text(char const* key, std::string const& value);
    JsonLine& number(char const* key, double value);
    JsonLine& boolean(char const* key, bool value);
    /// @param json a finished value
    JsonLine& raw(char const* key, std::string const& json);
    std::string finish();

private:
    std::string text_;
    zym::common::lwjson::Serializer out_{text_};
};

bool isJsonObject(std::string const& text);
/// JSON without line ends and the blanks behind them.
std::string onOneLine(std::string_view json);
/// For a terminal: on one line, without anything that a terminal would execute.
std::string printable(std::string const& payload);
/// Adds a payload to a JSON object: as document, as text, or as hexadecimal digits.
void addPayload(JsonLine& line, std::string const& payload);

/// What a message says, in words if it is a document of the library.
std::string describe(mqtt::Topic const& topic, std::string const& payload);

// The documents of an entity, in words.
std::string describeCommunication(std::string const& payload);
std::string describeStatus(std::string const& payload);
