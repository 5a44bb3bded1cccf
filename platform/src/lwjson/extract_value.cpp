#include <zym/common/lwjson/deserializer.hpp>

#include "number_text.hpp"
#include "plain_text.hpp"
#include "string_text.hpp"

#include <limits>
#include <stdexcept>

namespace zym::common::lwjson {

namespace {

void requireText(std::string_view text) {
    if (text.empty()) {
        throw std::out_of_range("Missing value");
    }
}

// Called with decimal digits only.
template <typename Integer>
Integer readDigits(std::string_view digits) {
    constexpr unsigned LARGEST = std::numeric_limits<Integer>::max();
    unsigned value = 0;
    for (char const c : digits) {
        auto const digit = static_cast<unsigned>(c - '0');
        if (value > (LARGEST - digit) / 10U) {
            throw std::out_of_range("Integer too large");
        }
        value = value * 10U + digit;
    }
    return static_cast<Integer>(value);
}

template <typename Integer>
Integer readInteger(std::string_view text) {
    requireText(text);
    bool const isNegative = text.front() == '-';
    std::string_view const digits = text.substr(isNegative ? 1 : 0);
    if (!isInteger(digits)) {
        throw std::invalid_argument("Not an integer");
    }
    if (isNegative) {
        throw std::out_of_range("Negative integer");
    }
    return readDigits<Integer>(digits);
}

} // namespace

void Deserializer::extractValue(std::string_view text, std::string& out, char const* /*extra*/) {
    requireText(text);
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') {
        throw std::invalid_argument("Not a JSON string");
    }
    std::string_view const body = text.substr(1, text.size() - 2);
    if (isAllPlain(body)) {
        out.assign(body); // reuses the memory of `out`
    } else {
        out = decodeString(text);
    }
}

void Deserializer::extractValue(std::string_view text, unsigned char& out, char const* /*extra*/) {
    out = readInteger<unsigned char>(text);
}

void Deserializer::extractValue(std::string_view text, unsigned int& out, char const* /*extra*/) {
    out = readInteger<unsigned int>(text);
}

void Deserializer::extractValue(std::string_view text, double& out, char const* /*extra*/) {
    requireText(text);
    if (!isNumber(text)) {
        throw std::invalid_argument("Not a number");
    }
    out = readNumber(text);
}

void Deserializer::extractValue(std::string_view text, conv::UnixTime& out, char const* extra) {
    if (text == "null") {
        out = conv::UnixTime();
        return;
    }
    double seconds = 0;
    extractValue(text, seconds, extra);
    out = conv::UnixTime(seconds);
}

} // namespace zym::common::lwjson
