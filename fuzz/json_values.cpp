// Reads any text as each type that the library's deserializer knows, and compares with the
// reference.

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <zym/common/lwjson.hpp>

#include <limits>
#include <stdexcept>

namespace {

using fuzz::Json;
using fuzz::Outcome;
using fuzz::require;

/// An exception that is not documented leaves this function.
template <class T>
Outcome extract(std::string_view raw, T& out) {
    try {
        zym::common::lwjson::Deserializer::extractValue(raw, out, "");
        return Outcome::SUCCESS;
    } catch (std::out_of_range const&) {
        return Outcome::OUT_OF_RANGE;
    } catch (std::invalid_argument const&) {
        return Outcome::INVALID;
    }
}

void checkText(std::string_view raw, Json const& json) {
    std::string text = "before";
    std::string expected = text;
    require(extract(raw, text) == readText(json, expected), "outcome for a text");
    require(text == expected, "a text, unchanged on failure");
}

template <class Integer>
void checkInteger(std::string_view raw, Json const& json) {
    Integer number = 99;
    std::uint64_t expected = number;
    require(extract(raw, number)
                == readInteger(json, std::numeric_limits<Integer>::max(), expected),
            "outcome for an integer");
    require(number == expected, "an integer, unchanged on failure");
}

void checkNumber(std::string_view raw, Json const& json) {
    double number = -1.25;
    double expected = number;
    require(extract(raw, number) == readNumber(json, expected), "outcome for a double");
    require(fuzz::sameNumber(number, expected), "a double, unchanged on failure");
}

void checkTime(std::string_view raw, Json const& json) {
    conv::UnixTime time(-1.25);
    double expected = time.seconds;
    if (json.raw == "null") {
        require(extract(raw, time) == Outcome::SUCCESS && time.valid == 0, "null is no time");
        return;
    }
    require(extract(raw, time) == readNumber(json, expected), "outcome for a time");
    require(time.valid == 1 && fuzz::sameNumber(time.seconds, expected),
            "a time, unchanged on failure");
}

void run(std::string_view text) {
    Json json;
    bool const isValue =
        fuzz::parse(text, json) == fuzz::Validity::VALID && json.raw.size() == text.size();
    if (!isValue) {
        json = Json();
        json.kind = text.empty() ? Json::Kind::ABSENT : Json::Kind::LITERAL; // of no readable type
    }
    checkText(text, json);
    checkInteger<unsigned char>(text, json);
    checkInteger<unsigned int>(text, json);
    checkNumber(text, json);
    checkTime(text, json);
}

fuzz::Target const JSON_VALUES("json_values", run);

} // namespace
