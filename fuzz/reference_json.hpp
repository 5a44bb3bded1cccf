#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

/// A JSON text as a plain reader sees it, one that shares nothing with the library's.
struct Json {
    enum class Kind : std::uint8_t { ABSENT, LITERAL, NUMBER, STRING, ARRAY, OBJECT };

    /// The first member of this name; an absent one when there is none.
    Json const& member(std::string_view key) const;

    Kind kind = Kind::ABSENT;
    std::string_view raw;            ///< where it stands
    std::optional<std::string> text; ///< a string's content; none with half of a surrogate pair
    std::vector<std::optional<std::string>> keys;
    std::vector<Json> children; ///< the values of the keys, or the elements
};

enum class Verdict : std::uint8_t { GOOD, MALFORMED, TOO_DEEP };

/// @param json filled when the text is good
Verdict readReference(std::string_view text, Json& json);

enum class Outcome : std::uint8_t { TAKEN, OUT_OF_RANGE, INVALID };

// What comes of reading a value as an integer, a number, or a text; `out` is set when it is taken.
Outcome readInteger(Json const& json, std::uint64_t largest, std::uint64_t& out);
Outcome readNumber(Json const& json, double& out);
Outcome readText(Json const& json, std::string& out);

bool sameNumber(double a, double b);

} // namespace fuzz
