#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace fuzz {

/// A JSON value, read by a simple parser that shares no code with the library.
struct Json {
    enum class Kind : std::uint8_t { ABSENT, LITERAL, NUMBER, STRING, ARRAY, OBJECT };

    /// The first member with this key; one of kind ABSENT when there is none.
    Json const& member(std::string_view key) const;

    Kind kind = Kind::ABSENT;
    std::string_view raw;            ///< part of the text read
    std::optional<std::string> text; ///< a string's content; none with half of a surrogate pair
    std::vector<std::optional<std::string>> keys;
    std::vector<Json> children; ///< the values of the keys, or the elements
};

enum class Validity : std::uint8_t { VALID, MALFORMED, TOO_DEEP };

/// @param json set when the text is valid
Validity parse(std::string_view text, Json& json);

enum class Outcome : std::uint8_t { SUCCESS, OUT_OF_RANGE, INVALID };

// The expected outcome of reading a value; `out` is set on success only.

/// Of a value that is not of the kind that is read.
Outcome outcomeOfOtherKind(Json const& json);
Outcome read(Json const& json, double& out);
Outcome read(Json const& json, std::string& out);
template <class Integer>
Outcome read(Json const& json, Integer& out) {
    auto const raw = json.raw;
    if (json.kind != Json::Kind::NUMBER || raw.find_first_of(".eE") != std::string_view::npos) {
        return outcomeOfOtherKind(json);
    }
    Integer number = 0; // the standard library takes no sign for an unsigned one
    if (std::from_chars(raw.data(), raw.data() + raw.size(), number).ec != std::errc()) {
        return Outcome::OUT_OF_RANGE;
    }
    out = number;
    return Outcome::SUCCESS;
}

template <class T>
bool reads(Json const& json, T& out) {
    return read(json, out) == Outcome::SUCCESS;
}

/// Compares all bits: 0 and -0 differ, and a NaN may be equal to itself.
bool sameNumber(double a, double b);

} // namespace fuzz
