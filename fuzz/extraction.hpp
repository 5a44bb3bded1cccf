#pragma once

#include "fuzz/reference_json.hpp"
#include "fuzz/target.hpp"

#include <zym/common/lwjson.hpp>

#include <stdexcept>

namespace fuzz {

/// What became of reading; any other exception than the documented ones gets through.
template <class Action>
Outcome outcomeOf(Action const& read) {
    try {
        read();
        return Outcome::TAKEN;
    } catch (std::out_of_range const&) {
        return Outcome::OUT_OF_RANGE;
    } catch (std::invalid_argument const&) {
        return Outcome::INVALID;
    }
}

template <class T>
Outcome extract(std::string_view raw, T& out) {
    return outcomeOf([&] { zym::common::lwjson::Deserializer::extractValue(raw, out, ""); });
}

/// Holds what the library makes of a raw text against what the reference does, for every type
/// that it reads; what is not taken leaves its target alone.
inline void checkExtraction(std::string_view raw, Json const& json) {
    std::string text = "before";
    std::string expectedText = text;
    require(extract(raw, text) == readText(json, expectedText), "outcome for a text");
    require(text == expectedText, "a text");

    unsigned char byte = 99;
    unsigned int number = 9999;
    std::uint64_t expectedByte = byte;
    std::uint64_t expectedNumber = number;
    require(extract(raw, byte) == readInteger(json, 0xffU, expectedByte), "outcome for a byte");
    require(byte == expectedByte, "a byte");
    require(extract(raw, number) == readInteger(json, 0xffffffffU, expectedNumber),
            "outcome for an integer");
    require(number == expectedNumber, "an integer");

    double real = -1.25;
    double expectedReal = real;
    auto const expectedOutcome = readNumber(json, expectedReal);
    require(extract(raw, real) == expectedOutcome, "outcome for a double");
    require(sameNumber(real, expectedReal), "a double");

    conv::UnixTime time(real);
    if (json.raw == "null") {
        require(extract(raw, time) == Outcome::TAKEN && time.valid == 0, "null is no time");
    } else {
        require(extract(raw, time) == expectedOutcome, "outcome for a time");
        require(time.valid == 1 && sameNumber(time.seconds, expectedReal), "a time");
    }
}

} // namespace fuzz
